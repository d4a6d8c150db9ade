// Sort keys for character index keys, in the order of the table's language
// driver as the Borland Database Engine sorts them.
//
// A sort key is a byte string whose memcmp order is the collation order, so
// index tags compare keys with memcmp only. Layout of the key of one field:
//
//     primary weights  0x01  secondary weights  0x01  tertiary weights  0x00
//
// Weights are never 0 or 1 at the primary level and never 0 at the other
// levels, so the 0x01 level separator sorts a shorter string first (the
// "shorter is smaller when the letters are equal" rule) and the 0x00 field
// terminator lets compound keys compare field by field. In byte order (other
// drivers) the key is the bytes themselves, 0x00 and 0x01 written as 0x01 0x01
// and 0x01 0x02, then the 0x00 terminator. Trailing blanks of the field are
// ignored. A partial-search key is the same without the terminator:
// it sorts before every value that starts with it and after every smaller one.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace dbase {

class Collation {
 public:
  // 0x14 (DB850ES0) and 0x18 (DB437ES1): BDE's Spanish tables; 0x59 (the
  // 'Spanish' ANSI driver): the ANSI Spanish tables; anything else: byte order.
  static const Collation& forLanguageDriver(uint8_t ldid);

  // Name and version of the order, kept with anything that persists keys.
  const std::string& name() const { return name_; }

  // Appends the full key of one field value (code-page bytes, trailing blanks
  // allowed), terminator included.
  void appendKey(std::string_view bytes, std::string& key) const;

  // Appends the key of a value used as the start of a partial search (the
  // full key without its terminator).
  void appendPrefixKey(std::string_view bytes, std::string& key) const;

  // Three-way comparison of two values in this order (for tests and tools).
  int compare(std::string_view a, std::string_view b) const;

 private:
  struct Weights;
  Collation(std::string name, const Weights* weights);
  std::string name_;
  const Weights* weights_;  // nullptr = byte order
};

}  // namespace dbase
