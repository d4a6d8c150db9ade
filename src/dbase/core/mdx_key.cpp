#include "dbase/core/mdx_key.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "dbase/core/collation.h"

namespace dbase {

namespace {

constexpr int kExponentBias = 0x34;
constexpr int kMaxDigits = 20;        // nibbles in bytes 2..11
constexpr int kWrittenCount = 10;     // the count dBASE IV writes for short values
constexpr unsigned char kNegative = 0x80;

void appendZero(std::string& out) {
  out.push_back(char(kExponentBias));
  out.push_back(char(0x01));
  out.append(10, '\0');
}

// Appends the key of (negative ? -1 : 1) x 0.digits x 10^exponent. `digits`
// holds ASCII digits without leading zeros; trailing zeros are dropped here.
void appendPacked(bool negative, std::string_view digits, int exponent, std::string& out) {
  while (!digits.empty() && digits.back() == '0') digits.remove_suffix(1);
  if (digits.empty() || exponent < -kExponentBias) {
    appendZero(out);
    return;
  }
  static const char kNines[] = "99999999999999999999";
  if (exponent > 0xFF - kExponentBias) {  // too large to write: the largest key
    digits = std::string_view(kNines, kMaxDigits);
    exponent = 0xFF - kExponentBias;
  }
  if (digits.size() > size_t(kMaxDigits)) digits = digits.substr(0, kMaxDigits);
  const int count = digits.size() > size_t(kWrittenCount) ? int(digits.size()) : kWrittenCount;
  unsigned char key[kBcdKeyLength] = {};
  key[0] = static_cast<unsigned char>(kExponentBias + exponent);
  key[1] = static_cast<unsigned char>((count << 2) | 0x01 | (negative ? kNegative : 0));
  for (size_t i = 0; i < digits.size(); ++i) {
    const unsigned char d = static_cast<unsigned char>(digits[i] - '0');
    key[2 + i / 2] |= (i % 2 == 0) ? static_cast<unsigned char>(d << 4) : d;
  }
  out.append(reinterpret_cast<const char*>(key), kBcdKeyLength);
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// -1, 0 or 1: the sign of the number a key holds.
int bcdSign(const unsigned char* k) {
  if (((k[1] & 0x7F) >> 2) == 0) return 0;
  bool any = false;
  for (uint32_t i = 2; i < kBcdKeyLength; ++i) any = any || k[i] != 0;
  if (!any) return 0;
  return (k[1] & kNegative) ? -1 : 1;
}

double exactPowerOfTen(int n) {  // 10^n, exact for n <= 22
  double p = 1.0;
  for (int i = 0; i < n; ++i) p *= 10.0;
  return p;
}

}  // namespace

void appendBcd(double value, std::string& out) {
  if (std::isnan(value) || value == 0.0) {
    appendZero(out);
    return;
  }
  const bool negative = value < 0;
  if (std::isinf(value)) {
    appendPacked(negative, "9", 1000, out);
    return;
  }
  // d.dddddddddddddde±X: the fifteen significant digits a double holds.
  char text[40];
  std::snprintf(text, sizeof text, "%.14e", std::fabs(value));
  std::string digits;
  const char* p = text;
  for (; *p && *p != 'e'; ++p)
    if (isDigit(*p)) digits.push_back(*p);
  const int exponent = *p == 'e' ? std::atoi(p + 1) : 0;
  size_t lead = 0;
  while (lead < digits.size() && digits[lead] == '0') ++lead;
  appendPacked(negative, std::string_view(digits).substr(lead), exponent + 1, out);
}

bool appendBcdText(std::string_view text, std::string& out) {
  size_t i = 0;
  const size_t n = text.size();
  auto blank = [](char c) { return c == ' ' || c == '\0'; };
  while (i < n && blank(text[i])) ++i;
  if (i == n) {
    appendZero(out);
    return true;
  }
  bool negative = false;
  if (text[i] == '-' || text[i] == '+') {
    negative = text[i] == '-';
    ++i;
  }
  std::string digits;
  int exponent = 0;
  bool seenPoint = false;
  bool seenDigit = false;
  for (; i < n && (isDigit(text[i]) || (text[i] == '.' && !seenPoint)); ++i) {
    if (text[i] == '.') {
      seenPoint = true;
      continue;
    }
    seenDigit = true;
    if (digits.empty() && text[i] == '0') {
      if (seenPoint) --exponent;  // a zero right after the point
      continue;
    }
    if (!seenPoint) ++exponent;
    if (digits.size() < size_t(kMaxDigits)) digits.push_back(text[i]);
  }
  while (i < n && blank(text[i])) ++i;
  if (i != n || !seenDigit) return false;
  appendPacked(negative, digits, exponent, out);
  return true;
}

double bcdValue(const char* key12) {
  const auto* k = reinterpret_cast<const unsigned char*>(key12);
  const int sign = bcdSign(k);
  if (sign == 0) return 0.0;
  double significand = 0;
  int used = 0;  // digits up to the last non-zero one
  for (int i = 0; i < kMaxDigits; ++i) {
    const int d = (i % 2 == 0) ? (k[2 + i / 2] >> 4) : (k[2 + i / 2] & 0x0F);
    if (d != 0) used = i + 1;
  }
  for (int i = 0; i < used; ++i) {
    const int d = (i % 2 == 0) ? (k[2 + i / 2] >> 4) : (k[2 + i / 2] & 0x0F);
    significand = significand * 10 + (d > 9 ? 9 : d);
  }
  const int scale = int(k[0]) - kExponentBias - used;  // value = significand x 10^scale
  double value;
  if (scale >= 0)
    value = scale <= 22 ? significand * exactPowerOfTen(scale) : significand * std::pow(10.0, scale);
  else
    value = -scale <= 22 ? significand / exactPowerOfTen(-scale) : significand * std::pow(10.0, scale);
  return sign * value;
}

int compareBcd(const char* a, const char* b) {
  const auto* ka = reinterpret_cast<const unsigned char*>(a);
  const auto* kb = reinterpret_cast<const unsigned char*>(b);
  const int sa = bcdSign(ka);
  const int sb = bcdSign(kb);
  if (sa != sb) return sa < sb ? -1 : 1;
  if (sa == 0) return 0;
  int c = 0;
  if (ka[0] != kb[0])
    c = ka[0] < kb[0] ? -1 : 1;
  else {
    const int m = std::memcmp(ka + 2, kb + 2, kBcdKeyLength - 2);
    c = (m > 0) - (m < 0);
  }
  return sa < 0 ? -c : c;
}

int64_t julianDay(int year, int month, int day) {
  const int64_t a = (14 - month) / 12;
  const int64_t y = int64_t(year) + 4800 - a;
  const int64_t m = month + 12 * a - 3;
  return day + (153 * m + 2) / 5 + 365 * y + y / 4 - y / 100 + y / 400 - 32045;
}

void civilDate(int64_t jdn, int& year, int& month, int& day) {
  int64_t l = jdn + 68569;
  const int64_t n = 4 * l / 146097;
  l -= (146097 * n + 3) / 4;
  const int64_t i = 4000 * (l + 1) / 1461001;
  l = l - 1461 * i / 4 + 31;
  const int64_t j = 80 * l / 2447;
  day = int(l - 2447 * j / 80);
  l = j / 11;
  month = int(j + 2 - 12 * l);
  year = int(100 * (n - 49) + i + l);
}

int64_t julianDayOf(std::string_view text) {
  if (text.size() != 8) return 0;
  for (char c : text)
    if (!isDigit(c)) return 0;
  auto num = [&](size_t from, size_t len) {
    int v = 0;
    for (size_t i = from; i < from + len; ++i) v = v * 10 + (text[i] - '0');
    return v;
  };
  const int y = num(0, 4), m = num(4, 2), d = num(6, 2);
  if (m < 1 || m > 12 || d < 1 || d > 31) return 0;
  return julianDay(y, m, d);
}

void appendDayKey(double day, std::string& out) {
  uint64_t bits;
  static_assert(sizeof bits == sizeof day);
  std::memcpy(&bits, &day, sizeof bits);
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>((bits >> (8 * i)) & 0xFF));
}

void appendJulianDay(std::string_view yyyymmdd, std::string& out) {
  appendDayKey(double(julianDayOf(yyyymmdd)), out);
}

double dayKeyValue(const char* key8) {
  uint64_t bits = 0;
  for (int i = 0; i < 8; ++i) bits |= uint64_t(static_cast<unsigned char>(key8[i])) << (8 * i);
  double day;
  std::memcpy(&day, &bits, sizeof day);
  return day;
}

int compareMdxKeys(char type, std::string_view a, std::string_view b, const Collation& collation) {
  if (type == 'C') return collation.compare(a, b);
  if (type == 'N' && a.size() >= kBcdKeyLength && b.size() >= kBcdKeyLength) return compareBcd(a.data(), b.data());
  if (type == 'D' && a.size() >= kDateKeyLength && b.size() >= kDateKeyLength) {
    const double x = dayKeyValue(a.data());
    const double y = dayKeyValue(b.data());
    return (x > y) - (x < y);
  }
  const int c = a.compare(b);
  return (c > 0) - (c < 0);
}

}  // namespace dbase
