// Text conversion between the single-byte code page of a table and UTF-8.
//
// The code page comes from the language-driver byte of the table header
// (offset 29). The conversion tables are built once per code page with
// iconv, so converting a field is a table look-up per byte.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace dbase {

class CodePage {
 public:
  // 0x01, 0x1B, 0x18 -> 437; 0x02, 0x37, 0x14 -> 850; 0x03, 0x57, 0x58,
  // 0x59 and 0 (unmarked) -> 1252. Other drivers fall back to 1252.
  static const CodePage& forLanguageDriver(uint8_t ldid);
  static const CodePage& forNumber(int codePage);  // 437, 850 or 1252

  int number() const { return number_; }
  const char* iconvName() const;

  // Appends the UTF-8 text of these code-page bytes.
  void decode(std::string_view bytes, std::string& utf8) const;
  std::string decode(std::string_view bytes) const;

  // Code-page bytes of a UTF-8 text. Throws dbase::Error (InvalidArgument,
  // subject = the text) naming the first character the code page cannot hold
  // or an invalid UTF-8 sequence. Never substitutes a "?".
  std::string encode(std::string_view utf8) const;
  // As encode, but returns false instead of throwing; `bytes` then holds the
  // text converted up to the first character that failed.
  bool tryEncode(std::string_view utf8, std::string& bytes) const;

 private:
  explicit CodePage(int number);
  int number_;
  std::string decoded_[256];      // UTF-8 of every byte
  // Sorted (code point, byte) pairs for the reverse direction.
  struct Reverse { char32_t codePoint; uint8_t byte; };
  Reverse reverse_[256];
  int reverseCount_ = 0;
};

}  // namespace dbase
