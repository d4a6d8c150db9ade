// The on-disk layout of a dBase IV production index (.MDX). All integers are
// little-endian. DO NOT CHANGE the offsets: dBASE, BDE and others share these
// files. Page numbers everywhere count 512-byte pages; a block (one tag header
// or one B-tree node) is N pages, N from the file header (normally 2).
//
// File header, first 544 bytes of the file:
//   OFFSET  SIZE  DESCRIPTION
//     0      1    version: 2 (dBase IV); 3 from later writers
//     1      3    creation date YY MM DD (YY = years since 1900)
//     4     16    table base name, no extension, NUL-padded
//    20      2    block size in pages (1..32)
//    22      2    block size in bytes (pages x 512)
//    24      1    production flag (1 = opened with the table)
//    25      1    tag-table slots (48)
//    26      1    tag-table slot length (32)
//    28      2    tags in use (at most 47)
//    31      1    language driver of the table
//    32      4    pages in the file (the next new block goes there)
//    36      4    first free page (0 = none)
//    44      3    last update YY MM DD
//   529      1    1
// Tag table, one 32-byte slot per tag from offset 544:
//     0      4    tag header page
//     4     11    tag name, upper case, NUL-padded
//    15      1    key format: 0x10 when the key is one field, 0 for an expression
//    16      1    name tree: slot (1-based) of the tag whose name sorts before
//    17      1    name tree: slot of the tag whose name sorts after
//    18      1    name tree: slot of the parent
//    19      1    2
//    20      1    key type 'C', 'N' or 'D'
// Tag header, one block at the tag header page:
//     0      4    root node page
//     4      4    pages held by the tag's nodes
//     8      1    key format as in the slot, + 0x08 descending, + 0x40 unique
//     9      1    key type
//    11      1    language driver
//    12      2    key length (C: up to 100; N: 12, packed decimal; D: 8, a double)
//    14      2    keys per node = (block bytes - 12) / item length
//    16      2    1 for date keys, else 0
//    18      2    item length = key length + 4, rounded up to a multiple of 4
//    20      1    change counter, bumped on every change to the tag
//    23      1    unique (also flagged in byte 8)
//    24    220    key expression, NUL-terminated
//   245      1    1 when the tag has a FOR condition
//   246      1    1 once the tag has held a key
//   248      4    first leaf page
//   252      4    last leaf page
//   257      3    tag date YY MM DD
//   762    220    FOR condition, NUL-terminated
// B-tree node, one block:
//     0      4    n, the keys in the node
//     4      4    0 (the free list's link when the block is free)
//     8     n x item length: [4 pointer][key][padding]
//   8 + n x item length   4   rightmost child in an interior node; 0 in a leaf
// A leaf's pointers are record numbers (1-based). An interior node has n keys
// and n + 1 children; key i is the highest key under child i. There are no
// sibling links: walking in order keeps the path from the root.
#pragma once

#include <cstdint>
#include <cstring>

namespace dbase::mdx {

inline constexpr uint32_t kPageBytes = 512;
inline constexpr uint32_t kFileHeaderBytes = 544;
inline constexpr uint32_t kHeaderAreaBytes = 2048;  // file header + tag table
inline constexpr uint32_t kMaxBlockPages = 32;
inline constexpr uint32_t kTagSlots = 48;
inline constexpr uint32_t kSlotBytes = 32;
inline constexpr uint32_t kMaxTags = 47;
inline constexpr uint32_t kMaxNameLength = 10;
inline constexpr uint32_t kMaxKeyLength = 100;
inline constexpr uint32_t kExpressionBytes = 220;  // terminating NUL included
inline constexpr uint32_t kNodeHeaderBytes = 8;

// File header.
inline constexpr int kOffVersion = 0;
inline constexpr int kOffCreated = 1;
inline constexpr int kOffTableName = 4;
inline constexpr int kTableNameBytes = 16;
inline constexpr int kOffBlockPages = 20;
inline constexpr int kOffBlockBytes = 22;
inline constexpr int kOffProduction = 24;
inline constexpr int kOffSlotCount = 25;
inline constexpr int kOffSlotLength = 26;
inline constexpr int kOffTagsInUse = 28;
inline constexpr int kOffLanguageDriver = 31;
inline constexpr int kOffTotalPages = 32;
inline constexpr int kOffFirstFree = 36;
inline constexpr int kOffUpdated = 44;
inline constexpr int kOffAlwaysOne = 529;
inline constexpr int kOffTagTable = 544;

// Tag-table slot.
inline constexpr int kSlotHeaderPage = 0;
inline constexpr int kSlotName = 4;
inline constexpr int kSlotNameBytes = 11;
inline constexpr int kSlotKeyFormat = 15;
inline constexpr int kSlotLeft = 16;
inline constexpr int kSlotRight = 17;
inline constexpr int kSlotParent = 18;
inline constexpr int kSlotTwo = 19;
inline constexpr int kSlotKeyType = 20;

// Tag header.
inline constexpr int kTagRoot = 0;
inline constexpr int kTagPages = 4;
inline constexpr int kTagFormat = 8;
inline constexpr int kTagKeyType = 9;
inline constexpr int kTagLanguageDriver = 11;
inline constexpr int kTagKeyLength = 12;
inline constexpr int kTagMaxKeys = 14;
inline constexpr int kTagDateKeys = 16;
inline constexpr int kTagItemLength = 18;
inline constexpr int kTagSerial = 20;
inline constexpr int kTagUnique = 23;
inline constexpr int kTagExpression = 24;
inline constexpr int kTagHasFor = 245;
inline constexpr int kTagHasKeys = 246;
inline constexpr int kTagFirstLeaf = 248;
inline constexpr int kTagLastLeaf = 252;
inline constexpr int kTagDate = 257;
inline constexpr int kTagForExpression = 762;

inline constexpr uint8_t kFormatField = 0x10;
inline constexpr uint8_t kFormatDescending = 0x08;
inline constexpr uint8_t kFormatUnique = 0x40;

inline uint16_t get16(const unsigned char* p) { return uint16_t(p[0] | (p[1] << 8)); }
inline uint32_t get32(const unsigned char* p) {
  return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
inline void put16(unsigned char* p, uint16_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
}
inline void put32(unsigned char* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = uint8_t(v >> (8 * i));
}

// Item length for a key length: the record pointer, the key, rounded to 4.
inline uint16_t itemLengthFor(uint16_t keyLength) { return uint16_t((keyLength + 4 + 3) / 4 * 4); }
// Keys a node of blockBytes holds with items of itemLength.
inline uint16_t maxKeysFor(uint32_t blockBytes, uint16_t itemLength) {
  return uint16_t((blockBytes - 12) / itemLength);
}

}  // namespace dbase::mdx
