#include "dbase/core/filter.h"

#include <charconv>
#include <cstring>
#include <optional>

#include "dbase/core/codepage.h"
#include "dbase/core/error.h"

namespace dbase {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
char upperAscii(char c) { return (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c; }

// A decimal number reduced to its digits, so that "08019", "8019" and
// "8019.00" compare equal without going through binary floating point.
struct Decimal {
  bool negative = false;
  std::string_view integer;   // no leading zeros
  std::string_view fraction;  // no trailing zeros
};

// Reads a number with optional blanks (and the NULs some writers pad with)
// around it. Allocation-free: it runs on every row.
std::optional<Decimal> readDecimal(std::string_view s) {
  size_t i = 0, n = s.size();
  auto blank = [&](size_t k) { return s[k] == ' ' || s[k] == '\0' || s[k] == '\t'; };
  while (i < n && blank(i)) ++i;
  Decimal d;
  if (i < n && (s[i] == '+' || s[i] == '-')) d.negative = s[i++] == '-';
  size_t intStart = i;
  while (i < n && isDigit(s[i])) ++i;
  size_t intEnd = i, fracStart = i, fracEnd = i;
  if (i < n && s[i] == '.') {
    fracStart = ++i;
    while (i < n && isDigit(s[i])) ++i;
    fracEnd = i;
  }
  if (intEnd == intStart && fracEnd == fracStart) return std::nullopt;
  while (i < n && blank(i)) ++i;
  if (i != n) return std::nullopt;
  while (intStart < intEnd && s[intStart] == '0') ++intStart;
  while (fracEnd > fracStart && s[fracEnd - 1] == '0') --fracEnd;
  d.integer = s.substr(intStart, intEnd - intStart);
  d.fraction = s.substr(fracStart, fracEnd - fracStart);
  if (d.integer.empty() && d.fraction.empty()) d.negative = false;  // -0 is 0
  return d;
}

// 1-based position of a byte offset in characters, as a user counts them.
size_t position(std::string_view text, size_t offset) {
  size_t chars = 0;
  for (size_t i = 0; i < offset && i < text.size(); ++i)
    if ((uint8_t(text[i]) & 0xC0) != 0x80) ++chars;
  return chars + 1;
}

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  FilterExpression parse() {
    FilterExpression expression;
    expression.source = std::string(text_);
    skipBlanks();
    if (atEnd()) return expression;
    for (;;) {
      expression.terms.push_back(term());
      size_t beforeBlanks = pos_;
      skipBlanks();
      if (atEnd()) return expression;
      if (pos_ == beforeBlanks) fail(unexpectedAfterValue());
      if (!atAnd()) fail("texto inesperado en la posición " + at(pos_) + "; se esperaba AND o el final del filtro");
      size_t andPos = pos_;
      pos_ += 3;
      skipBlanks();
      if (atEnd()) fail("falta una condición tras el AND de la posición " + at(andPos));
      if (expression.terms.size() == 2)
        fail("demasiadas condiciones: se admiten como mucho dos unidas por AND (la tercera empieza en la posición " +
             at(pos_) + ")");
    }
  }

 private:
  FilterTerm term() {
    FilterTerm t;
    if (!isLetter(peek())) fail("se esperaba un nombre de campo en la posición " + at(pos_));
    while (!atEnd() && (isLetter(peek()) || isDigit(peek()) || peek() == '_')) t.field.push_back(upperAscii(text_[pos_++]));
    skipBlanks();
    if (peek() != '=') fail("se esperaba '=' tras " + t.field + " en la posición " + at(pos_));
    ++pos_;
    skipBlanks();
    if (atEnd()) fail("falta el valor de " + t.field + " tras '=' en la posición " + at(pos_));
    if (peek() == '\'') {
      size_t open = pos_++;
      size_t close = text_.find('\'', pos_);
      if (close == std::string_view::npos) fail("comilla sin cerrar en la posición " + at(open));
      t.quoted = true;
      t.text = std::string(text_.substr(pos_, close - pos_));
      pos_ = close + 1;
      lastWasQuote_ = true;
      return t;
    }
    lastWasQuote_ = false;
    size_t start = pos_;
    if (peek() == '+' || peek() == '-') ++pos_;
    size_t digits = pos_;
    while (isDigit(peek())) ++pos_;
    if (pos_ == digits)
      fail("se esperaba un número o un texto entre comillas tras " + t.field + "= en la posición " + at(start));
    if (peek() == '.') {
      size_t decimals = ++pos_;
      while (isDigit(peek())) ++pos_;
      if (pos_ == decimals) fail("número incompleto en la posición " + at(start));
    }
    t.text = std::string(text_.substr(start, pos_ - start));
    std::string_view number = t.text;
    if (number.front() == '+') number.remove_prefix(1);
    auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), t.number);
    if (ec != std::errc() || end != number.data() + number.size())
      fail("número fuera de rango en la posición " + at(start));
    return t;
  }

  std::string unexpectedAfterValue() const {
    if (lastWasQuote_)
      return "texto inesperado tras la comilla de cierre en la posición " + at(pos_ - 1) +
             " (un texto entre comillas no puede contener comillas)";
    return "texto inesperado tras el número en la posición " + at(pos_);
  }

  bool atAnd() const {
    if (text_.size() - pos_ < 3) return false;
    if (upperAscii(text_[pos_]) != 'A' || upperAscii(text_[pos_ + 1]) != 'N' || upperAscii(text_[pos_ + 2]) != 'D')
      return false;
    return pos_ + 3 == text_.size() || isBlank(text_[pos_ + 3]);
  }

  bool atEnd() const { return pos_ >= text_.size(); }
  char peek() const { return atEnd() ? '\0' : text_[pos_]; }
  void skipBlanks() {
    while (!atEnd() && isBlank(text_[pos_])) ++pos_;
  }
  std::string at(size_t offset) const { return std::to_string(position(text_, offset)); }
  [[noreturn]] void fail(const std::string& fault) const {
    throw Error(ErrorKind::InvalidArgument, std::string(text_), fault);
  }

  std::string_view text_;
  size_t pos_ = 0;
  bool lastWasQuote_ = false;
};

bool sameName(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (upperAscii(a[i]) != upperAscii(b[i])) return false;
  return true;
}

// The value of an L field a text asks for: T/Y or F/N, dots allowed (".T.").
std::optional<bool> flagOf(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  if (text.size() == 3 && text.front() == '.' && text.back() == '.') text = text.substr(1, 1);
  if (text.size() != 1) return std::nullopt;
  switch (upperAscii(text[0])) {
    case 'T': case 'Y': return true;
    case 'F': case 'N': return false;
    default: return std::nullopt;
  }
}

[[noreturn]] void badFilter(const FilterExpression& expression, const std::string& fault) {
  throw Error(ErrorKind::InvalidArgument, expression.source, fault);
}

double approximate(std::string_view text) {
  while (!text.empty() && (isBlank(text.front()) || text.front() == '+')) text.remove_prefix(1);
  double value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

}  // namespace

FilterExpression parseFilter(std::string_view text) { return Parser(text).parse(); }

CompiledFilter::CompiledFilter(const FilterExpression& expression, const std::vector<FieldDescriptor>& fields,
                               const CodePage& codePage) {
  for (const FilterTerm& term : expression.terms) {
    const FieldDescriptor* field = nullptr;
    for (const FieldDescriptor& f : fields)
      if (sameName(f.name, term.field)) {
        field = &f;
        break;
      }
    if (!field) badFilter(expression, "campo desconocido: " + term.field);

    Test test;
    test.offset = field->offset;
    test.length = field->length;
    auto setNumber = [&](std::string_view text) {
      std::optional<Decimal> d = readDecimal(text);
      if (!d) {
        test.kind = Test::Kind::Never;  // a number field never holds a non-number
        return;
      }
      test.kind = Test::Kind::Number;
      test.numeric = true;
      test.number = term.quoted ? approximate(term.text) : term.number;
      test.negative = d->negative;
      test.bytes = std::string(d->integer);
      test.fraction = std::string(d->fraction);
    };

    switch (field->type) {
      case FieldType::Memo:
        badFilter(expression, "no se puede filtrar por el campo memo " + field->name);
        break;
      case FieldType::Logical: {
        std::optional<bool> flag = term.quoted ? flagOf(term.text) : std::nullopt;
        if (!flag) badFilter(expression, "el campo " + field->name + " es lógico: se compara con 'T' o 'F'");
        test.kind = Test::Kind::Flag;
        test.flag = *flag;
        break;
      }
      case FieldType::Numeric:
      case FieldType::Float:
        setNumber(term.text);
        break;
      case FieldType::Character:
      case FieldType::Date:
        if (!term.quoted) {
          setNumber(term.text);
          break;
        }
        if (!codePage.tryEncode(term.text, test.bytes)) {
          test.kind = Test::Kind::Never;  // no row can hold a character the code page lacks
          break;
        }
        while (!test.bytes.empty() && test.bytes.back() == ' ') test.bytes.pop_back();
        test.kind = test.bytes.size() <= test.length ? Test::Kind::Bytes : Test::Kind::Never;
        break;
    }
    tests_.push_back(std::move(test));
  }
}

bool CompiledFilter::matchesNumber(const Test& test, const char* field) {
  std::optional<Decimal> d = readDecimal(std::string_view(field, test.length));
  return d && d->negative == test.negative && d->integer == test.bytes && d->fraction == test.fraction;
}

bool CompiledFilter::testMatches(const Test& test, const char* field) {
  switch (test.kind) {
    case Test::Kind::Bytes: {
      const size_t n = test.bytes.size();
      if (n && std::memcmp(field, test.bytes.data(), n) != 0) return false;
      for (size_t i = n; i < test.length; ++i)
        if (field[i] != ' ' && field[i] != '\0') return false;
      return true;
    }
    case Test::Kind::Number:
      return matchesNumber(test, field);
    case Test::Kind::Flag: {
      const char c = field[0];
      const bool isTrue = c == 'T' || c == 't' || c == 'Y' || c == 'y';
      const bool isFalse = c == 'F' || c == 'f' || c == 'N' || c == 'n';
      return test.flag ? isTrue : isFalse;
    }
    case Test::Kind::Never:
      return false;
  }
  return false;
}

bool CompiledFilter::matches(const char* record) const {
  for (const Test& test : tests_)
    if (!testMatches(test, record + test.offset)) return false;
  return true;
}

}  // namespace dbase
