// The on-disk layout of a dBase III / IV table (.DBF). All integers are
// little-endian. DO NOT CHANGE the offsets: other programs share these files.
//
// Header, 32 bytes:
//   OFFSET  SIZE  DESCRIPTION
//     0      1    version: 0x03 (dBase III/IV, no memo), 0x83 / 0x8B (with memo)
//     1      3    last update YY MM DD (YY = years since 1900; YY % 100 accepted)
//     4      4    record count
//     8      2    header length (32 + 32 x fields + 1, writers may pad)
//    10      2    record length (1 deletion flag + the sum of the field lengths)
//    14      1    incomplete-transaction flag (dBase IV)
//    15      1    encryption flag (dBase IV)
//    28      1    production .MDX flag (1 = NAME.MDX opens with the table)
//    29      1    language driver (code page and collation)
// Field descriptors, 32 bytes each from offset 32, ended by 0x0D:
//     0     11    name, ASCII, NUL-padded
//    11      1    type: C N F L D M
//    16      1    length
//    17      1    decimal count
//    31      1    dBase IV: the field has a tag in the production .MDX
// Records from the header length on; byte 0 is ' ' (live) or '*' (deleted).
// One 0x1A byte follows the last record.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

namespace dbase {

inline constexpr uint32_t kHeaderSize = 32;
inline constexpr uint32_t kDescriptorSize = 32;
inline constexpr uint8_t kHeaderTerminator = 0x0D;
inline constexpr uint8_t kEndOfFile = 0x1A;
inline constexpr char kLiveFlag = ' ';
inline constexpr char kDeletedFlag = '*';

inline constexpr int kOffVersion = 0;
inline constexpr int kOffUpdateDate = 1;
inline constexpr int kOffRecordCount = 4;
inline constexpr int kOffHeaderLength = 8;
inline constexpr int kOffRecordLength = 10;
inline constexpr int kOffEncrypted = 15;
inline constexpr int kOffProductionMdx = 28;
inline constexpr int kOffLanguageDriver = 29;

inline constexpr int kFieldOffName = 0;
inline constexpr int kFieldOffType = 11;
inline constexpr int kFieldOffLength = 16;
inline constexpr int kFieldOffDecimals = 17;

inline constexpr uint32_t kMaxFields = 255;
inline constexpr uint32_t kMaxCharLength = 254;
inline constexpr uint32_t kMaxNumericLength = 20;

enum class FieldType : char {
  Character = 'C',
  Numeric = 'N',
  Float = 'F',
  Logical = 'L',
  Date = 'D',
  Memo = 'M',
};

struct FieldDescriptor {
  std::string name;      // upper case as stored
  FieldType type = FieldType::Character;
  uint32_t length = 0;
  uint32_t decimals = 0;
  uint32_t offset = 0;   // of the field inside the record (the flag is byte 0)

  bool numeric() const { return type == FieldType::Numeric || type == FieldType::Float; }
};

inline uint16_t getU16(const unsigned char* p) { return uint16_t(p[0] | (p[1] << 8)); }
inline uint32_t getU32(const unsigned char* p) {
  return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
inline void putU16(unsigned char* p, uint16_t v) { p[0] = uint8_t(v); p[1] = uint8_t(v >> 8); }
inline void putU32(unsigned char* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}

}  // namespace dbase
