#include "dbase/core/field_value.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "dbase/core/codepage.h"
#include "dbase/core/error.h"

namespace dbase {

std::string_view trimRight(std::string_view bytes) {
  size_t n = bytes.size();
  while (n > 0 && (bytes[n - 1] == ' ' || bytes[n - 1] == '\0')) --n;
  return bytes.substr(0, n);
}

std::string_view trimBlanks(std::string_view bytes) {
  bytes = trimRight(bytes);
  size_t i = 0;
  while (i < bytes.size() && (bytes[i] == ' ' || bytes[i] == '\0')) ++i;
  return bytes.substr(i);
}

std::optional<double> parseNumber(std::string_view text) {
  text = trimBlanks(text);
  if (text.empty()) return std::nullopt;
  // Some writers use ',' as the decimal point; accept it on reading.
  char buffer[64];
  if (text.size() >= sizeof buffer) return std::nullopt;
  size_t n = 0;
  for (char c : text) buffer[n++] = (c == ',') ? '.' : c;
  const char* begin = buffer;
  if (*begin == '+') ++begin;
  double value = 0;
  auto [end, ec] = std::from_chars(begin, buffer + n, value);
  if (ec != std::errc() || end != buffer + n) return std::nullopt;
  return value;
}

std::string fieldText(const FieldDescriptor& f, const char* record, const CodePage& cp) {
  std::string_view raw = fieldBytes(f, record);
  switch (f.type) {
    case FieldType::Character:
    case FieldType::Memo:
      return cp.decode(trimRight(raw));
    case FieldType::Logical: {
      char c = raw.empty() ? ' ' : raw[0];
      if (std::strchr("TtYy", c) && c) return "T";
      if (std::strchr("FfNn", c) && c) return "F";
      return std::string();
    }
    default:
      return std::string(trimBlanks(raw));
  }
}

std::optional<double> fieldNumber(const FieldDescriptor& f, const char* record) {
  return parseNumber(fieldBytes(f, record));
}

bool fieldFlag(const FieldDescriptor& f, const char* record) {
  char c = record[f.offset];
  return c == 'T' || c == 't' || c == 'Y' || c == 'y';
}

void blankField(const FieldDescriptor& f, char* record) { std::memset(record + f.offset, ' ', f.length); }

void setFieldNumber(const FieldDescriptor& f, char* record, double value, const std::string& subject) {
  if (!std::isfinite(value))
    throw Error(ErrorKind::InvalidArgument, subject, "valor no numérico para el campo " + f.name);
  if (f.decimals == 0 && std::fabs(value) < 1e15 && value == std::trunc(value)) {
    // Whole numbers (the common case): no printf.
    char digits[24];
    auto [end, ec] = std::to_chars(digits, digits + sizeof digits, static_cast<long long>(value));
    const size_t n = size_t(end - digits);
    if (ec == std::errc() && n <= f.length) {
      std::memset(record + f.offset, ' ', f.length - n);
      std::memcpy(record + f.offset + f.length - n, digits, n);
      return;
    }
  }
  char text[128];
  int n = std::snprintf(text, sizeof text, "%*.*f", int(f.length), int(f.decimals), value);
  if (n < 0 || uint32_t(n) > f.length)
    throw Error(ErrorKind::InvalidArgument, subject,
                "el número " + std::string(text) + " no cabe en el campo " + f.name + " (" +
                    std::to_string(f.length) + " posiciones)");
  std::memcpy(record + f.offset, text, f.length);
}

void setFieldFlag(const FieldDescriptor& f, char* record, bool value) {
  blankField(f, record);
  record[f.offset] = value ? 'T' : 'F';
}

// An integer as setFieldNumber writes it: an optional minus, then digits
// without leading zeros (0 alone), fewer than sixteen.
static bool canonicalInteger(std::string_view t) {
  const bool negative = !t.empty() && t[0] == '-';
  const std::string_view digits = t.substr(negative ? 1 : 0);
  if (digits.empty() || digits.size() > 15 || (digits[0] == '0' && (digits.size() > 1 || negative))) return false;
  for (char c : digits)
    if (c < '0' || c > '9') return false;
  return true;
}

static bool validDate(std::string_view d) {
  if (d.size() != 8) return false;
  for (char c : d)
    if (c < '0' || c > '9') return false;
  const int year = (d[0] - '0') * 1000 + (d[1] - '0') * 100 + (d[2] - '0') * 10 + (d[3] - '0');
  const int month = (d[4] - '0') * 10 + (d[5] - '0');
  const int day = (d[6] - '0') * 10 + (d[7] - '0');
  if (month < 1 || month > 12 || day < 1) return false;
  static constexpr int kDays[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return day <= (month == 2 && !leap ? 28 : kDays[month - 1]);
}

void setFieldAscii(const FieldDescriptor& f, char* record, std::string_view ascii, const CodePage& cp,
                   const std::string& subject) {
  char* field = record + f.offset;
  if (f.type == FieldType::Character || f.type == FieldType::Memo) {
    // The same bytes in every code page.
    const size_t n = std::min<size_t>(ascii.size(), f.length);
    std::memcpy(field, ascii.data(), n);
    std::memset(field + n, ' ', f.length - n);
    return;
  }
  if (f.numeric() && f.decimals == 0 && !ascii.empty() && ascii.size() <= f.length && ascii[0] != ' ' &&
      ascii.back() != ' ' && canonicalInteger(ascii)) {
    std::memset(field, ' ', f.length - ascii.size());
    std::memcpy(field + f.length - ascii.size(), ascii.data(), ascii.size());
    return;
  }
  setFieldText(f, record, ascii, cp, subject);
}

void setFieldText(const FieldDescriptor& f, char* record, std::string_view utf8, const CodePage& cp,
                  const std::string& subject) {
  switch (f.type) {
    case FieldType::Character:
    case FieldType::Memo: {
      // ASCII is the same bytes in every code page: no conversion.
      bool ascii = true;
      for (char c : utf8) ascii &= static_cast<unsigned char>(c) < 0x80;
      if (ascii) {
        const size_t n = std::min<size_t>(utf8.size(), f.length);
        std::memcpy(record + f.offset, utf8.data(), n);
        std::memset(record + f.offset + n, ' ', f.length - n);
        return;
      }
      std::string bytes;
      try {
        bytes = cp.encode(utf8);
      } catch (const Error& e) {
        throw Error(ErrorKind::InvalidArgument, subject, "campo " + f.name + ": " + e.fault());
      }
      blankField(f, record);
      std::memcpy(record + f.offset, bytes.data(), std::min<size_t>(bytes.size(), f.length));
      return;
    }
    case FieldType::Numeric:
    case FieldType::Float: {
      const std::string_view t = trimBlanks(utf8);
      if (t.empty()) return blankField(f, record);
      if (f.decimals == 0 && t.size() <= f.length && canonicalInteger(t)) {
        // Already written as it would be stored (nearly every value): as is.
        std::memset(record + f.offset, ' ', f.length - t.size());
        std::memcpy(record + f.offset + f.length - t.size(), t.data(), t.size());
        return;
      }
      auto value = parseNumber(utf8);
      if (!value)
        throw Error(ErrorKind::InvalidArgument, subject,
                    "«" + std::string(utf8) + "» no es un número para el campo " + f.name);
      return setFieldNumber(f, record, *value, subject);
    }
    case FieldType::Logical: {
      std::string_view t = trimBlanks(utf8);
      if (t.empty()) return blankField(f, record);
      char c = t[0];
      if (t.size() == 1 && std::strchr("TtYySs", c)) return setFieldFlag(f, record, true);
      if (t.size() == 1 && std::strchr("FfNn", c)) return setFieldFlag(f, record, false);
      throw Error(ErrorKind::InvalidArgument, subject,
                  "«" + std::string(utf8) + "» no es un valor lógico para el campo " + f.name);
    }
    case FieldType::Date: {
      std::string_view t = trimBlanks(utf8);
      if (t.empty()) return blankField(f, record);
      if (!validDate(t))
        throw Error(ErrorKind::InvalidArgument, subject,
                    "«" + std::string(utf8) + "» no es una fecha AAAAMMDD para el campo " + f.name);
      std::memcpy(record + f.offset, t.data(), 8);
      return;
    }
  }
}

}  // namespace dbase
