#include "dbase/core/codepage.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "dbase/core/error.h"

namespace dbase {

namespace {

void appendUtf8(char32_t cp, std::string& out) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

// Reads one UTF-8 sequence at text[i]; strict (no overlong forms, no
// surrogates, nothing above U+10FFFF). Returns its length, 0 when invalid.
size_t readUtf8(std::string_view text, size_t i, char32_t& cp) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char b0 = byte(i);
  size_t len;
  char32_t min;
  if (b0 < 0x80) {
    cp = b0;
    return 1;
  } else if (b0 >= 0xC2 && b0 <= 0xDF) {
    len = 2, cp = b0 & 0x1F, min = 0x80;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    len = 3, cp = b0 & 0x0F, min = 0x800;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    len = 4, cp = b0 & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (text.size() - i < len) return 0;
  for (size_t k = 1; k < len; ++k) {
    const unsigned char b = byte(i + k);
    if ((b & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return len;
}

std::string hex(unsigned value, int digits) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%0*X", digits, value);
  return buf;
}

const char* nameOf(int number) {
  switch (number) {
    case 437: return "CP437";
    case 850: return "CP850";
    default: return "CP1252";
  }
}

struct IconvHandle {
  iconv_t cd;
  explicit IconvHandle(int number) : cd(iconv_open("UTF-8", nameOf(number))) {
    if (cd == reinterpret_cast<iconv_t>(-1))
      throw Error(ErrorKind::NotSupported, nameOf(number),
                  "el sistema no sabe convertir esta página de códigos (iconv)");
  }
  ~IconvHandle() { iconv_close(cd); }
  IconvHandle(const IconvHandle&) = delete;
  IconvHandle& operator=(const IconvHandle&) = delete;
};

}  // namespace

CodePage::CodePage(int number) : number_(number) {
  IconvHandle conv(number);
  for (int b = 0; b < 256; ++b) {
    char in = static_cast<char>(b);
    char out[8];
    char* inPtr = &in;
    char* outPtr = out;
    size_t inLeft = 1, outLeft = sizeof out;
    iconv(conv.cd, nullptr, nullptr, nullptr, nullptr);  // reset the shift state
    const size_t r = iconv(conv.cd, &inPtr, &inLeft, &outPtr, &outLeft);
    char32_t cp;
    if (r == static_cast<size_t>(-1) || inLeft != 0 || outPtr == out ||
        readUtf8(std::string_view(out, outPtr - out), 0, cp) != static_cast<size_t>(outPtr - out)) {
      // Bytes the code page leaves undefined (0x81, 0x8D, 0x8F, 0x90, 0x9D
      // in 1252) stand for the C1 control of the same number, so a field
      // read and written back keeps its bytes.
      cp = static_cast<char32_t>(b);
    }
    decoded_[b].clear();
    appendUtf8(cp, decoded_[b]);
    reverse_[b] = Reverse{cp, static_cast<uint8_t>(b)};
  }
  std::sort(reverse_, reverse_ + 256,
            [](const Reverse& x, const Reverse& y) { return x.codePoint < y.codePoint; });
  // Two bytes decoding to one character cannot both come back; the first
  // one (in code point order, then byte order) wins.
  reverseCount_ = static_cast<int>(
      std::unique(reverse_, reverse_ + 256,
                  [](const Reverse& x, const Reverse& y) { return x.codePoint == y.codePoint; }) -
      reverse_);
}

const CodePage& CodePage::forNumber(int codePage) {
  switch (codePage) {
    case 437: {
      static const CodePage cp(437);
      return cp;
    }
    case 850: {
      static const CodePage cp(850);
      return cp;
    }
    case 1252: {
      static const CodePage cp(1252);
      return cp;
    }
    default:
      throw Error(ErrorKind::InvalidArgument, std::to_string(codePage),
                  "página de códigos no admitida (solo 437, 850 y 1252)");
  }
}

const CodePage& CodePage::forLanguageDriver(uint8_t ldid) {
  switch (ldid) {
    case 0x01: case 0x1B: case 0x18:
      return forNumber(437);
    case 0x02: case 0x37: case 0x14:
      return forNumber(850);
    default:  // 0x03, 0x57, 0x58, 0x59, 0 (unmarked) and anything unknown
      return forNumber(1252);
  }
}

const char* CodePage::iconvName() const { return nameOf(number_); }

void CodePage::decode(std::string_view bytes, std::string& utf8) const {
  const size_t n = bytes.size();
  size_t i = 0;
  while (i < n) {
    // ASCII runs (the common case) are copied whole; all three code pages
    // decode 0x00-0x7F to themselves.
    size_t j = i;
    while (j < n && static_cast<unsigned char>(bytes[j]) < 0x80) ++j;
    if (j > i) {
      utf8.append(bytes.data() + i, j - i);
      i = j;
      continue;
    }
    utf8 += decoded_[static_cast<unsigned char>(bytes[i])];
    ++i;
  }
}

std::string CodePage::decode(std::string_view bytes) const {
  std::string utf8;
  utf8.reserve(bytes.size());
  decode(bytes, utf8);
  return utf8;
}

bool CodePage::tryEncode(std::string_view utf8, std::string& bytes) const {
  bytes.clear();
  bytes.reserve(utf8.size());
  const Reverse* const first = reverse_;
  const Reverse* const last = reverse_ + reverseCount_;
  const size_t n = utf8.size();
  for (size_t i = 0; i < n;) {
    const unsigned char b = static_cast<unsigned char>(utf8[i]);
    if (b < 0x80) {
      bytes.push_back(static_cast<char>(b));
      ++i;
      continue;
    }
    char32_t cp;
    const size_t len = readUtf8(utf8, i, cp);
    if (len == 0) return false;
    const Reverse* r = std::lower_bound(first, last, cp,
                                        [](const Reverse& x, char32_t c) { return x.codePoint < c; });
    if (r == last || r->codePoint != cp) return false;
    bytes.push_back(static_cast<char>(r->byte));
    i += len;
  }
  return true;
}

std::string CodePage::encode(std::string_view utf8) const {
  std::string bytes;
  if (tryEncode(utf8, bytes)) return bytes;

  // Slow path, only to name what went wrong: find the first bad character.
  const size_t done = bytes.size();  // tryEncode stops at the first fault
  size_t i = 0;
  for (size_t converted = 0; converted < done; ++converted) {
    char32_t cp;
    i += readUtf8(utf8, i, cp);
  }
  char32_t cp;
  const size_t len = readUtf8(utf8, i, cp);
  std::string fault;
  if (len == 0) {
    fault = "el texto no es UTF-8 válido (byte 0x" + hex(static_cast<unsigned char>(utf8[i]), 2) +
            " en la posición " + std::to_string(i + 1) + ")";
  } else {
    const bool printable = cp >= 0xA0 && !(cp >= 0xD800 && cp <= 0xDFFF);
    fault = "el carácter ";
    if (printable) fault += "«" + std::string(utf8.substr(i, len)) + "» ";
    fault += "(U+" + hex(static_cast<unsigned>(cp), 4) + ") no existe en la página de códigos " +
             std::to_string(number_);
  }
  throw Error(ErrorKind::InvalidArgument, std::string(utf8), fault);
}

}  // namespace dbase
