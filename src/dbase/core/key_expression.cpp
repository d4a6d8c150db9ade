#include "dbase/core/key_expression.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dbase/core/codepage.h"
#include "dbase/core/collation.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/mdx_key.h"

namespace dbase {

namespace {

constexpr int kMaxNesting = 64;       // parentheses, calls and prefix operators
constexpr int kMaxTreeDepth = 256;    // of the compiled tree, operator chains included
constexpr uint32_t kMaxWidth = 4096;  // of any text inside a condition
constexpr int64_t kLastDay = 5373484; // 9999-12-31

// ---------------------------------------------------------------------------
// Upper and lower case over the bytes of a code page: a byte maps to the byte
// of its Latin letter's other case when the code page holds that letter.

char32_t upperOf(char32_t c) {
  if (c >= 'a' && c <= 'z') return c - 32;
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return c - 32;
  if (c == 0xFF) return 0x178;
  if ((c >= 0x100 && c <= 0x137) || (c >= 0x14A && c <= 0x177)) return (c & 1) ? c - 1 : c;
  if ((c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E)) return (c & 1) ? c : c - 1;
  return c;
}

char32_t lowerOf(char32_t c) {
  if (c >= 'A' && c <= 'Z') return c + 32;
  if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return c + 32;
  if (c == 0x178) return 0xFF;
  if ((c >= 0x100 && c <= 0x137) || (c >= 0x14A && c <= 0x177)) return (c & 1) ? c : c + 1;
  if ((c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E)) return (c & 1) ? c + 1 : c;
  return c;
}

// The one code point of a UTF-8 text, or 0 if it holds another number of them.
char32_t singleCodePoint(const std::string& s) {
  if (s.empty()) return 0;
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  size_t len;
  char32_t c;
  if (p[0] < 0x80) { c = p[0]; len = 1; }
  else if ((p[0] & 0xE0) == 0xC0) { c = p[0] & 0x1F; len = 2; }
  else if ((p[0] & 0xF0) == 0xE0) { c = p[0] & 0x0F; len = 3; }
  else if ((p[0] & 0xF8) == 0xF0) { c = p[0] & 0x07; len = 4; }
  else return 0;
  if (s.size() != len) return 0;
  for (size_t i = 1; i < len; ++i) c = (c << 6) | (p[i] & 0x3F);
  return c;
}

void appendUtf8(char32_t c, std::string& out) {
  if (c < 0x80) out.push_back(char(c));
  else if (c < 0x800) { out.push_back(char(0xC0 | (c >> 6))); out.push_back(char(0x80 | (c & 0x3F))); }
  else if (c < 0x10000) {
    out.push_back(char(0xE0 | (c >> 12)));
    out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(char(0x80 | (c & 0x3F)));
  } else {
    out.push_back(char(0xF0 | (c >> 18)));
    out.push_back(char(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(char(0x80 | (c & 0x3F)));
  }
}

struct CaseTables {
  unsigned char upper[256];
  unsigned char lower[256];
};

CaseTables buildCaseTables(const CodePage& cp) {
  CaseTables t;
  for (int b = 0; b < 256; ++b) {
    t.upper[b] = t.lower[b] = static_cast<unsigned char>(b);
    const char byte = static_cast<char>(b);
    const char32_t c = singleCodePoint(cp.decode(std::string_view(&byte, 1)));
    if (c == 0) continue;
    auto mapped = [&](char32_t other, unsigned char& slot) {
      if (other == c) return;
      std::string utf8, bytes;
      appendUtf8(other, utf8);
      if (cp.tryEncode(utf8, bytes) && bytes.size() == 1) slot = static_cast<unsigned char>(bytes[0]);
    };
    mapped(upperOf(c), t.upper[b]);
    mapped(lowerOf(c), t.lower[b]);
  }
  return t;
}

const CaseTables& caseTables(const CodePage& cp) {
  switch (cp.number()) {
    case 437: { static const CaseTables t = buildCaseTables(cp); return t; }
    case 850: { static const CaseTables t = buildCaseTables(cp); return t; }
    default: { static const CaseTables t = buildCaseTables(CodePage::forNumber(1252)); return t; }
  }
}

// ---------------------------------------------------------------------------
// Numbers as text.

// |value| rounded half away from zero to `decimals` places, as decimal text
// ("123.45", "0.50"); empty when the value is not finite or too large.
std::string fixedText(double value, int decimals, bool& negative) {
  negative = false;
  if (!std::isfinite(value) || std::fabs(value) >= 1e250) return {};
  if (value == 0) value = 0;  // no "-0"
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.14e", std::fabs(value));  // the fifteen digits a double holds
  std::string digits;
  const char* p = buf;
  for (; *p && *p != 'e'; ++p)
    if (*p >= '0' && *p <= '9') digits.push_back(*p);
  int exponent = (*p == 'e') ? std::atoi(p + 1) + 1 : 1;  // value = 0.digits x 10^exponent
  // Digits kept: those before the point and `decimals` after it.
  const int keep = exponent + decimals;
  if (keep < 0) digits.clear();
  else if (size_t(keep) < digits.size()) {
    const bool up = digits[size_t(keep)] >= '5';
    digits.resize(size_t(keep));
    if (up) {
      int i = keep - 1;
      for (; i >= 0 && digits[size_t(i)] == '9'; --i) digits[size_t(i)] = '0';
      if (i >= 0) ++digits[size_t(i)];
      else { digits.insert(digits.begin(), '1'); ++exponent; }
    }
  }
  // Now value = 0.digits x 10^exponent with digits ending at 10^-decimals (or fewer).
  std::string intPart, fracPart;
  for (int pos = 0; pos < exponent; ++pos)
    intPart.push_back(size_t(pos) < digits.size() ? digits[size_t(pos)] : '0');
  for (int pos = exponent; pos < exponent + decimals; ++pos)
    fracPart.push_back(pos >= 0 && size_t(pos) < digits.size() ? digits[size_t(pos)] : '0');
  if (intPart.empty()) intPart = "0";
  bool nonzero = false;
  for (char c : intPart + fracPart) nonzero = nonzero || c != '0';
  negative = nonzero && value < 0;
  return decimals > 0 ? intPart + "." + fracPart : intPart;
}

// STR(value, width, decimals): right-justified in width; when the decimals
// do not fit, fewer of them; when the integer part does not fit, asterisks.
void appendStr(double value, uint32_t width, uint32_t decimals, std::string& out) {
  for (int dec = int(decimals); dec >= 0; --dec) {
    bool negative;
    const std::string text = fixedText(value, dec, negative);
    if (text.empty()) break;
    const size_t len = text.size() + (negative ? 1 : 0);
    if (len <= width) {
      out.append(width - len, ' ');
      if (negative) out.push_back('-');
      out += text;
      return;
    }
  }
  out.append(width, '*');
}

// VAL(): the number at the start of the text (after blanks); 0 if none.
double leadingNumber(std::string_view s) {
  size_t i = 0;
  while (i < s.size() && s[i] == ' ') ++i;
  std::string num;
  if (i < s.size() && (s[i] == '-' || s[i] == '+')) num.push_back(s[i++]);
  bool point = false;
  bool digit = false;
  for (; i < s.size() && num.size() < 64; ++i) {
    if (s[i] >= '0' && s[i] <= '9') { num.push_back(s[i]); digit = true; }
    else if (s[i] == '.' && !point) { num.push_back('.'); point = true; }
    else break;
  }
  if (!digit) return 0;
  return std::strtod(num.c_str(), nullptr);
}

// ---------------------------------------------------------------------------
// Tokens.

enum class Tok {
  End, Ident, Number, String, LParen, RParen, Comma, Plus, Minus,
  Eq, Ne, Lt, Gt, Le, Ge, And, Or, Not, True, False,
};

struct Token {
  Tok kind;
  std::string text;  // identifier (upper case) or string contents
  double number = 0;
};

char upperAscii(char c) { return (c >= 'a' && c <= 'z') ? char(c - 32) : c; }
bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
bool isDigitChar(char c) { return c >= '0' && c <= '9'; }

}  // namespace

// ---------------------------------------------------------------------------
// The compiled tree.

struct KeyExpression::Compiled {
  enum class Op : uint8_t {
    Field, Text, Number, Flag,
    Concat, ConcatMove, Add, Sub, Neg, DateAdd, DateSub, DateDiff,
    Upper, Lower, Trim, LTrim, Str, Dtos, Dtoc, Substr, Right, Iif, Val,
    Compare, And, Or, Not, Deleted,
  };
  struct Node {
    Op op;
    char type;          // C N D L
    uint32_t width = 0; // C: the most bytes the value can have
    bool fixed = true;  // C: the value always has `width` bytes
    int a = -1, b = -1, c = -1;
    int field = -1;
    std::string text;
    double number = 0;
    uint32_t p1 = 0, p2 = 0;  // STR: width, decimals; SUBSTR: start, length; RIGHT: length
    Tok relation = Tok::Eq;
    int depth = 1;
  };
  struct Span {
    int field;
    uint32_t offset, width;
  };

  std::string text;
  char type = 'C';
  uint32_t keyLength = 0;
  std::vector<int> fields;
  std::vector<Span> spans;
  std::vector<Node> nodes;
  std::vector<FieldDescriptor> descriptors;
  const Collation* collation = nullptr;
  const CaseTables* cases = nullptr;
  int root = -1;

  void evalText(int n, const char* rec, std::string& out) const;
  double evalNumber(int n, const char* rec) const;
  double evalDate(int n, const char* rec) const;  // Julian day, 0 = blank
  bool evalFlag(int n, const char* rec) const;
  void fieldsOf(int n, std::vector<int>& out) const;
};

namespace {

using Compiled = KeyExpression::Compiled;
using Op = Compiled::Op;
using Node = Compiled::Node;

class Compiler {
 public:
  Compiler(std::string_view text, const DbfFile& file, Compiled& out) : text_(text), file_(file), out_(out) {}

  void run() {
    tokenize();
    const int root = parseOr();
    if (peek().kind != Tok::End) fail("sobra texto al final");
    out_.root = root;
  }

  [[noreturn]] void fail(const std::string& why) const {
    throw Error(ErrorKind::NotSupported, file_.name(),
                "expresión de índice no admitida: " + std::string(text_) + " (" + why + ")");
  }

 private:
  struct Nest {
    explicit Nest(Compiler& c) : c_(c) {
      if (++c_.nesting_ > kMaxNesting) c_.fail("anidada en exceso");
    }
    ~Nest() { --c_.nesting_; }
    Compiler& c_;
  };

  void tokenize() {
    const std::string_view s = text_;
    size_t i = 0;
    auto add = [&](Tok k, std::string t = {}, double v = 0) { tokens_.push_back(Token{k, std::move(t), v}); };
    while (i < s.size()) {
      const char ch = s[i];
      if (ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n') { ++i; continue; }
      if (isAlpha(ch)) {
        std::string id;
        while (i < s.size() && (isAlpha(s[i]) || isDigitChar(s[i]))) id.push_back(upperAscii(s[i++]));
        add(Tok::Ident, id);
        continue;
      }
      if (isDigitChar(ch) || (ch == '.' && i + 1 < s.size() && isDigitChar(s[i + 1]))) {
        std::string num;
        bool point = false;
        while (i < s.size() && (isDigitChar(s[i]) || (s[i] == '.' && !point))) {
          point = point || s[i] == '.';
          num.push_back(s[i++]);
        }
        add(Tok::Number, num, std::strtod(num.c_str(), nullptr));
        continue;
      }
      if (ch == '.') {
        size_t j = i + 1;
        std::string word;
        while (j < s.size() && isAlpha(s[j]) && word.size() < 4) word.push_back(upperAscii(s[j++]));
        if (j >= s.size() || s[j] != '.') fail("operador desconocido");
        i = j + 1;
        if (word == "AND") add(Tok::And);
        else if (word == "OR") add(Tok::Or);
        else if (word == "NOT") add(Tok::Not);
        else if (word == "T" || word == "Y") add(Tok::True);
        else if (word == "F" || word == "N") add(Tok::False);
        else fail("operador desconocido ." + word + ".");
        continue;
      }
      if (ch == '\'' || ch == '"' || ch == '[') {
        const char close = ch == '[' ? ']' : ch;
        const size_t end = s.find(close, i + 1);
        if (end == std::string_view::npos) fail("texto sin cerrar");
        add(Tok::String, std::string(s.substr(i + 1, end - i - 1)));
        i = end + 1;
        continue;
      }
      const char next = i + 1 < s.size() ? s[i + 1] : '\0';
      switch (ch) {
        case '(': add(Tok::LParen); break;
        case ')': add(Tok::RParen); break;
        case ',': add(Tok::Comma); break;
        case '+': add(Tok::Plus); break;
        case '-': add(Tok::Minus); break;
        case '=': add(Tok::Eq); break;
        case '#': add(Tok::Ne); break;
        case '<':
          if (next == '>') { add(Tok::Ne); ++i; }
          else if (next == '=') { add(Tok::Le); ++i; }
          else add(Tok::Lt);
          break;
        case '>':
          if (next == '=') { add(Tok::Ge); ++i; }
          else add(Tok::Gt);
          break;
        default: fail(std::string("carácter inesperado '") + ch + "'");
      }
      ++i;
    }
    add(Tok::End);
  }

  const Token& peek() const { return tokens_[pos_]; }
  const Token& take() { return tokens_[pos_ < tokens_.size() - 1 ? pos_++ : pos_]; }
  void expect(Tok k, const char* what) {
    if (peek().kind != k) fail(std::string("se esperaba ") + what);
    take();
  }

  int add(Node n) {
    int depth = 1;
    for (int child : {n.a, n.b, n.c})
      if (child >= 0) depth = std::max(depth, out_.nodes[size_t(child)].depth + 1);
    if (depth > kMaxTreeDepth) fail("anidada en exceso");
    if (n.type == 'C' && n.width > kMaxWidth) fail("texto demasiado largo");
    n.depth = depth;
    out_.nodes.push_back(std::move(n));
    return int(out_.nodes.size() - 1);
  }
  const Node& node(int i) const { return out_.nodes[size_t(i)]; }
  char typeOf(int i) const { return node(i).type; }

  static Node make(Op op, char type, int a = -1, int b = -1, int c = -1) {
    Node n;
    n.op = op;
    n.type = type;
    n.a = a;
    n.b = b;
    n.c = c;
    return n;
  }

  int parseOr() {
    Nest nest(*this);
    int left = parseAnd();
    while (peek().kind == Tok::Or) {
      take();
      const int right = parseAnd();
      if (typeOf(left) != 'L' || typeOf(right) != 'L') fail(".OR. entre valores no lógicos");
      left = add(make(Op::Or, 'L', left, right));
    }
    return left;
  }

  int parseAnd() {
    int left = parseNot();
    while (peek().kind == Tok::And) {
      take();
      const int right = parseNot();
      if (typeOf(left) != 'L' || typeOf(right) != 'L') fail(".AND. entre valores no lógicos");
      left = add(make(Op::And, 'L', left, right));
    }
    return left;
  }

  int parseNot() {
    if (peek().kind == Tok::Not) {
      Nest nest(*this);
      take();
      const int arg = parseNot();
      if (typeOf(arg) != 'L') fail(".NOT. de un valor no lógico");
      return add(make(Op::Not, 'L', arg));
    }
    return parseRelation();
  }

  int parseRelation() {
    const int left = parseSum();
    const Tok k = peek().kind;
    if (k != Tok::Eq && k != Tok::Ne && k != Tok::Lt && k != Tok::Gt && k != Tok::Le && k != Tok::Ge) return left;
    take();
    const int right = parseSum();
    if (typeOf(left) != typeOf(right)) fail("comparación entre tipos distintos");
    if (typeOf(left) == 'L') fail("comparación de valores lógicos");
    Node n = make(Op::Compare, 'L', left, right);
    n.relation = k;
    return add(std::move(n));
  }

  int parseSum() {
    int left = parseUnary();
    while (peek().kind == Tok::Plus || peek().kind == Tok::Minus) {
      const bool plus = take().kind == Tok::Plus;
      const int right = parseUnary();
      const char lt = typeOf(left), rt = typeOf(right);
      if (lt == 'C' && rt == 'C') {
        Node n = make(plus ? Op::Concat : Op::ConcatMove, 'C', left, right);
        n.width = node(left).width + node(right).width;
        n.fixed = node(left).fixed && node(right).fixed;
        left = add(std::move(n));
      } else if (lt == 'N' && rt == 'N') {
        left = add(make(plus ? Op::Add : Op::Sub, 'N', left, right));
      } else if (lt == 'D' && rt == 'N') {
        left = add(make(plus ? Op::DateAdd : Op::DateSub, 'D', left, right));
      } else if (plus && lt == 'N' && rt == 'D') {
        left = add(make(Op::DateAdd, 'D', right, left));
      } else if (!plus && lt == 'D' && rt == 'D') {
        left = add(make(Op::DateDiff, 'N', left, right));
      } else {
        fail(std::string(plus ? "suma" : "resta") + " entre tipos incompatibles");
      }
    }
    return left;
  }

  int parseUnary() {
    if (peek().kind == Tok::Minus || peek().kind == Tok::Plus) {
      Nest nest(*this);
      const bool minus = take().kind == Tok::Minus;
      const int arg = parseUnary();
      if (typeOf(arg) != 'N') fail("signo delante de un valor no numérico");
      return minus ? add(make(Op::Neg, 'N', arg)) : arg;
    }
    return parsePrimary();
  }

  int parsePrimary() {
    const Token t = take();
    switch (t.kind) {
      case Tok::Number: {
        Node n = make(Op::Number, 'N');
        n.number = t.number;
        return add(std::move(n));
      }
      case Tok::String: {
        Node n = make(Op::Text, 'C');
        n.text = t.text;
        n.width = uint32_t(std::min<size_t>(t.text.size(), kMaxWidth + 1));
        return add(std::move(n));
      }
      case Tok::True:
      case Tok::False: {
        Node n = make(Op::Flag, 'L');
        n.number = t.kind == Tok::True ? 1 : 0;
        return add(std::move(n));
      }
      case Tok::LParen: {
        Nest nest(*this);
        const int inner = parseOr();
        expect(Tok::RParen, "')'");
        return inner;
      }
      case Tok::Ident:
        if (peek().kind == Tok::LParen) return parseCall(t.text);
        return fieldNode(t.text);
      default:
        fail("falta un valor");
    }
  }

  int fieldNode(const std::string& name) {
    const int index = file_.fieldIndex(name);
    if (index < 0) fail("campo desconocido " + name);
    const FieldDescriptor& f = file_.fields()[size_t(index)];
    Node n = make(Op::Field, 'C');
    n.field = index;
    switch (f.type) {
      case FieldType::Character: n.type = 'C'; n.width = f.length; break;
      case FieldType::Numeric:
      case FieldType::Float: n.type = 'N'; break;
      case FieldType::Date: n.type = 'D'; break;
      case FieldType::Logical: n.type = 'L'; break;
      default: fail("campo " + name + " de tipo no indexable");
    }
    if (std::find(out_.fields.begin(), out_.fields.end(), index) == out_.fields.end()) out_.fields.push_back(index);
    return add(std::move(n));
  }

  // dBASE accepts a function name cut to its first four letters.
  static bool names(const std::string& written, const char* full) {
    const size_t n = std::strlen(full);
    if (written.size() > n) return false;
    if (written.size() < n && written.size() < 4) return false;
    return std::strncmp(written.c_str(), full, written.size()) == 0;
  }

  // A constant argument (a size), within [low, high].
  uint32_t constant(int arg, uint32_t low, uint32_t high, const char* what) {
    const Node& n = node(arg);
    double v = 0;
    if (n.op == Op::Number) v = n.number;
    else if (n.op == Op::Neg && node(n.a).op == Op::Number) v = -node(n.a).number;
    else fail(std::string(what) + " debe ser un número constante");
    if (!(v >= double(low) && v < double(high) + 1)) fail(std::string(what) + " fuera de rango");
    return uint32_t(v);
  }

  int parseCall(const std::string& name) {
    Nest nest(*this);
    take();  // (
    std::vector<int> args;
    if (peek().kind != Tok::RParen) {
      for (;;) {
        args.push_back(parseOr());
        if (peek().kind != Tok::Comma) break;
        take();
      }
    }
    expect(Tok::RParen, "')'");
    auto arity = [&](size_t low, size_t high) {
      if (args.size() < low || args.size() > high) fail("número de argumentos erróneo en " + name);
    };
    auto argType = [&](size_t i, char type) {
      if (typeOf(args[i]) != type) fail("argumento de tipo erróneo en " + name);
    };
    if (names(name, "UPPER") || names(name, "LOWER")) {
      arity(1, 1);
      argType(0, 'C');
      Node n = make(names(name, "UPPER") ? Op::Upper : Op::Lower, 'C', args[0]);
      n.width = node(args[0]).width;
      n.fixed = node(args[0]).fixed;
      return add(std::move(n));
    }
    if (names(name, "TRIM") || names(name, "RTRIM") || names(name, "LTRIM")) {
      arity(1, 1);
      argType(0, 'C');
      Node n = make(names(name, "LTRIM") ? Op::LTrim : Op::Trim, 'C', args[0]);
      n.width = node(args[0]).width;
      n.fixed = false;
      return add(std::move(n));
    }
    if (names(name, "STR")) {
      arity(1, 3);
      argType(0, 'N');
      Node n = make(Op::Str, 'C', args[0]);
      n.p1 = args.size() > 1 ? constant(args[1], 1, 255, "la longitud de STR") : 10;
      n.p2 = args.size() > 2 ? constant(args[2], 0, 255, "los decimales de STR") : 0;
      if (n.p2 > 0 && n.p2 + 2 > n.p1) n.p2 = n.p1 >= 3 ? n.p1 - 2 : 0;
      n.width = n.p1;
      return add(std::move(n));
    }
    if (names(name, "DTOS") || names(name, "DTOC")) {
      arity(1, 1);
      argType(0, 'D');
      Node n = make(names(name, "DTOS") ? Op::Dtos : Op::Dtoc, 'C', args[0]);
      n.width = 8;
      return add(std::move(n));
    }
    if (names(name, "SUBSTR") || names(name, "LEFT")) {
      const bool left = names(name, "LEFT");
      if (left) arity(2, 2);
      else arity(2, 3);
      argType(0, 'C');
      const uint32_t w = node(args[0]).width;
      Node n = make(Op::Substr, 'C', args[0]);
      n.p1 = left ? 1 : constant(args[1], 1, kMaxWidth, "el comienzo de SUBSTR");
      const uint32_t available = n.p1 <= w ? w - n.p1 + 1 : 0;
      const size_t lengthArg = left ? 1 : 2;
      n.p2 = args.size() > lengthArg ? constant(args[lengthArg], 0, kMaxWidth, "la longitud") : available;
      n.p2 = std::min(n.p2, available);
      n.width = n.p2;
      n.fixed = node(args[0]).fixed;
      return add(std::move(n));
    }
    if (names(name, "RIGHT")) {
      arity(2, 2);
      argType(0, 'C');
      Node n = make(Op::Right, 'C', args[0]);
      n.p1 = std::min(constant(args[1], 0, kMaxWidth, "la longitud de RIGHT"), node(args[0]).width);
      n.width = n.p1;
      n.fixed = node(args[0]).fixed;
      return add(std::move(n));
    }
    if (names(name, "IIF")) {
      arity(3, 3);
      argType(0, 'L');
      const char t = typeOf(args[1]);
      if (typeOf(args[2]) != t) fail("IIF con ramas de tipos distintos");
      Node n = make(Op::Iif, t, args[0], args[1], args[2]);
      n.width = std::max(node(args[1]).width, node(args[2]).width);
      return add(std::move(n));
    }
    if (names(name, "VAL")) {
      arity(1, 1);
      argType(0, 'C');
      return add(make(Op::Val, 'N', args[0]));
    }
    if (names(name, "DELETED")) {
      arity(0, 0);
      return add(make(Op::Deleted, 'L'));
    }
    fail("función desconocida " + name);
  }

  std::string_view text_;
  const DbfFile& file_;
  Compiled& out_;
  std::vector<Token> tokens_;
  size_t pos_ = 0;
  int nesting_ = 0;
};

// The terms of a top-level concatenation; UPPER and LOWER of a
// concatenation change no place, so their terms count too.
void concatTerms(const Compiled& c, int n, std::vector<int>& terms) {
  const Node& node = c.nodes[size_t(n)];
  if (node.op == Op::Concat) {
    concatTerms(c, node.a, terms);
    concatTerms(c, node.b, terms);
  } else if ((node.op == Op::Upper || node.op == Op::Lower) && c.nodes[size_t(node.a)].op == Op::Concat) {
    concatTerms(c, node.a, terms);
  } else {
    terms.push_back(n);
  }
}

std::string dateText(double day, bool dtos) {
  if (!(day >= 1 && day <= double(kLastDay))) return dtos ? "        " : "  /  /  ";
  int y, m, d;
  civilDate(int64_t(day), y, m, d);
  char buf[32];
  if (dtos) std::snprintf(buf, sizeof buf, "%04d%02d%02d", y, m, d);
  else std::snprintf(buf, sizeof buf, "%02d/%02d/%02d", m, d, y % 100);
  return buf;
}

}  // namespace

void Compiled::fieldsOf(int n, std::vector<int>& out) const {
  const Node& node = nodes[size_t(n)];
  if (node.op == Op::Field && std::find(out.begin(), out.end(), node.field) == out.end()) out.push_back(node.field);
  for (int child : {node.a, node.b, node.c})
    if (child >= 0) fieldsOf(child, out);
}

void Compiled::evalText(int n, const char* rec, std::string& out) const {
  const Node& node = nodes[size_t(n)];
  const size_t start = out.size();
  switch (node.op) {
    case Op::Field: {
      const FieldDescriptor& f = descriptors[size_t(node.field)];
      out.append(rec + f.offset, f.length);
      break;
    }
    case Op::Text: out.append(node.text, 0, node.width); break;
    case Op::Concat:
      evalText(node.a, rec, out);
      evalText(node.b, rec, out);
      break;
    case Op::ConcatMove: {
      evalText(node.a, rec, out);
      size_t end = out.size();
      while (end > start && out[end - 1] == ' ') --end;
      const size_t moved = out.size() - end;
      out.resize(end);
      evalText(node.b, rec, out);
      out.append(moved, ' ');
      break;
    }
    case Op::Upper:
    case Op::Lower: {
      evalText(node.a, rec, out);
      const unsigned char* table = node.op == Op::Upper ? cases->upper : cases->lower;
      for (size_t i = start; i < out.size(); ++i)
        out[i] = static_cast<char>(table[static_cast<unsigned char>(out[i])]);
      break;
    }
    case Op::Trim: {
      evalText(node.a, rec, out);
      size_t end = out.size();
      while (end > start && out[end - 1] == ' ') --end;
      out.resize(end);
      break;
    }
    case Op::LTrim: {
      evalText(node.a, rec, out);
      size_t first = start;
      while (first < out.size() && out[first] == ' ') ++first;
      out.erase(start, first - start);
      break;
    }
    case Op::Str: appendStr(evalNumber(node.a, rec), node.p1, node.p2, out); break;
    case Op::Dtos:
    case Op::Dtoc: out += dateText(evalDate(node.a, rec), node.op == Op::Dtos); break;
    case Op::Substr: {
      evalText(node.a, rec, out);
      const size_t len = out.size() - start;
      const size_t from = std::min<size_t>(node.p1 - 1, len);
      const size_t count = std::min<size_t>(node.p2, len - from);
      out.erase(start, from);
      out.resize(start + count);
      break;
    }
    case Op::Right: {
      evalText(node.a, rec, out);
      const size_t len = out.size() - start;
      if (len > node.p1) out.erase(start, len - node.p1);
      break;
    }
    case Op::Iif:
      evalText(evalFlag(node.a, rec) ? node.b : node.c, rec, out);
      break;
    default: break;
  }
  // Never wider than the compiled width; IIF and the key itself are padded.
  if (out.size() - start > node.width) out.resize(start + node.width);
  if (node.op == Op::Iif) out.resize(start + node.width, ' ');
}

double Compiled::evalNumber(int n, const char* rec) const {
  const Node& node = nodes[size_t(n)];
  switch (node.op) {
    case Op::Field: return fieldNumber(descriptors[size_t(node.field)], rec).value_or(0.0);
    case Op::Number: return node.number;
    case Op::Add: return evalNumber(node.a, rec) + evalNumber(node.b, rec);
    case Op::Sub: return evalNumber(node.a, rec) - evalNumber(node.b, rec);
    case Op::Neg: return -evalNumber(node.a, rec);
    case Op::DateDiff: {
      const double a = evalDate(node.a, rec), b = evalDate(node.b, rec);
      return (a == 0 || b == 0) ? 0 : a - b;
    }
    case Op::Val: {
      std::string s;
      evalText(node.a, rec, s);
      return leadingNumber(s);
    }
    case Op::Iif: return evalFlag(node.a, rec) ? evalNumber(node.b, rec) : evalNumber(node.c, rec);
    default: return 0;
  }
}

double Compiled::evalDate(int n, const char* rec) const {
  const Node& node = nodes[size_t(n)];
  switch (node.op) {
    case Op::Field: return double(julianDayOf(fieldBytes(descriptors[size_t(node.field)], rec)));
    case Op::DateAdd:
    case Op::DateSub: {
      const double day = evalDate(node.a, rec);
      if (day == 0) return 0;  // a blank date stays blank
      const double days = std::trunc(evalNumber(node.b, rec));
      const double r = node.op == Op::DateAdd ? day + days : day - days;
      return std::isfinite(r) ? r : 0;
    }
    case Op::Iif: return evalFlag(node.a, rec) ? evalDate(node.b, rec) : evalDate(node.c, rec);
    default: return 0;
  }
}

bool Compiled::evalFlag(int n, const char* rec) const {
  const Node& node = nodes[size_t(n)];
  switch (node.op) {
    case Op::Field: return fieldFlag(descriptors[size_t(node.field)], rec);
    case Op::Flag: return node.number != 0;
    case Op::And: return evalFlag(node.a, rec) && evalFlag(node.b, rec);
    case Op::Or: return evalFlag(node.a, rec) || evalFlag(node.b, rec);
    case Op::Not: return !evalFlag(node.a, rec);
    case Op::Deleted: return rec[0] == '*';
    case Op::Iif: return evalFlag(node.a, rec) ? evalFlag(node.b, rec) : evalFlag(node.c, rec);
    case Op::Compare: {
      int order = 0;
      bool equal = false;
      const char t = nodes[size_t(node.a)].type;
      if (t == 'C') {
        std::string left, right;
        evalText(node.a, rec, left);
        evalText(node.b, rec, right);
        // SET EXACT OFF: the left text over the right one's length.
        equal = left.size() >= right.size() && left.compare(0, right.size(), right) == 0;
        if (left.size() > right.size()) left.resize(right.size());
        order = equal ? 0 : collation->compare(left, right);
        if (!equal && order == 0) order = left < right ? -1 : 1;
      } else {
        const double x = t == 'N' ? evalNumber(node.a, rec) : evalDate(node.a, rec);
        const double y = t == 'N' ? evalNumber(node.b, rec) : evalDate(node.b, rec);
        equal = x == y;
        order = (x > y) - (x < y);
      }
      switch (node.relation) {
        case Tok::Eq: return equal;
        case Tok::Ne: return !equal;
        case Tok::Lt: return !equal && order < 0;
        case Tok::Gt: return !equal && order > 0;
        case Tok::Le: return equal || order < 0;
        case Tok::Ge: return equal || order > 0;
        default: return false;
      }
    }
    default: return false;
  }
}

KeyExpression KeyExpression::compile(std::string_view text, const DbfFile& file) {
  auto c = std::make_shared<Compiled>();
  c->text = std::string(text);
  c->descriptors = file.fields();
  c->collation = &file.collation();
  c->cases = &caseTables(file.codePage());
  Compiler compiler(c->text, file, *c);
  compiler.run();
  const Node& root = c->nodes[size_t(c->root)];
  c->type = root.type;
  switch (c->type) {
    case 'C':
      if (root.width == 0) compiler.fail("clave vacía");
      if (root.width > kMaxCharKey) compiler.fail("clave de más de 100 bytes");
      c->keyLength = root.width;
      break;
    case 'N': c->keyLength = kBcdKeyLength; break;
    case 'D': c->keyLength = kDateKeyLength; break;
    default: c->keyLength = 1; break;
  }
  if (c->type == 'C') {
    std::vector<int> terms;
    concatTerms(*c, c->root, terms);
    std::vector<int> seen;  // fields read by some term, each once
    std::vector<int> repeated;
    uint32_t offset = 0;
    bool placed = true;  // the terms so far have fixed widths
    for (int t : terms) {
      std::vector<int> read;
      c->fieldsOf(t, read);
      const Node& term = c->nodes[size_t(t)];
      for (int f : read) {
        if (std::find(seen.begin(), seen.end(), f) != seen.end()) repeated.push_back(f);
        else seen.push_back(f);
      }
      if (read.size() == 1 && placed && term.fixed) c->spans.push_back({read[0], offset, term.width});
      if (read.size() > 1)
        for (int f : read) repeated.push_back(f);
      placed = placed && term.fixed;
      offset += term.width;
    }
    std::erase_if(c->spans, [&](const Compiled::Span& s) {
      return std::find(repeated.begin(), repeated.end(), s.field) != repeated.end();
    });
  }
  return KeyExpression(std::move(c));
}

const std::string& KeyExpression::text() const { return compiled_->text; }
char KeyExpression::type() const { return compiled_->type; }
uint32_t KeyExpression::keyLength() const { return compiled_->keyLength; }
const std::vector<int>& KeyExpression::fields() const { return compiled_->fields; }

void KeyExpression::appendKey(const char* record, std::string& key) const {
  const Compiled& c = *compiled_;
  const Node& root = c.nodes[size_t(c.root)];
  switch (c.type) {
    case 'C': {
      const size_t start = key.size();
      c.evalText(c.root, record, key);
      key.resize(start + c.keyLength, ' ');
      break;
    }
    case 'N':
      if (root.op == Op::Field) {  // the field's own digits, all of them
        const FieldDescriptor& f = c.descriptors[size_t(root.field)];
        if (appendBcdText(fieldBytes(f, record), key)) break;
      }
      appendBcd(c.evalNumber(c.root, record), key);
      break;
    case 'D': appendDayKey(c.evalDate(c.root, record), key); break;
    default: key.push_back(c.evalFlag(c.root, record) ? 'T' : 'F'); break;
  }
}

bool KeyExpression::isTrue(const char* record) const {
  return compiled_->type == 'L' && compiled_->evalFlag(compiled_->root, record);
}

std::optional<std::pair<uint32_t, uint32_t>> KeyExpression::span(int field) const {
  for (const auto& s : compiled_->spans)
    if (s.field == field) return std::make_pair(s.offset, s.width);
  return std::nullopt;
}

}  // namespace dbase
