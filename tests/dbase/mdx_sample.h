// Reading the tags of a dBASE IV production index straight from its bytes,
// to hold our keys against the ones dBASE wrote: each tag's expression and
// its leaf entries (record number, key bytes) in tree order.
#pragma once

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace mdxsample {

struct Tag {
  std::string name;
  std::string expression;
  std::string forExpression;
  char type = 'C';
  uint32_t keyLength = 0;
  std::vector<std::pair<uint32_t, std::string>> entries;  // record number, key
};

inline uint32_t u32(const std::string& b, size_t at) {
  if (at + 4 > b.size()) return 0;
  return uint32_t(uint8_t(b[at])) | uint32_t(uint8_t(b[at + 1])) << 8 | uint32_t(uint8_t(b[at + 2])) << 16 |
         uint32_t(uint8_t(b[at + 3])) << 24;
}
inline uint16_t u16(const std::string& b, size_t at) {
  if (at + 2 > b.size()) return 0;
  return uint16_t(uint8_t(b[at]) | uint8_t(b[at + 1]) << 8);
}
inline std::string cString(const std::string& b, size_t at, size_t max) {
  std::string s;
  for (size_t i = at; i < at + max && i < b.size() && b[i] != '\0'; ++i) s.push_back(b[i]);
  return s;
}

inline void walk(const std::string& file, uint32_t page, uint32_t itemLength, Tag& tag, int depth) {
  const size_t at = size_t(page) * 512;
  if (depth > 16 || at + 8 > file.size()) return;
  const uint32_t count = u32(file, at);
  const bool leaf = u32(file, at + 8 + size_t(count) * itemLength) == 0;
  for (uint32_t i = 0; i < count; ++i) {
    const size_t entry = at + 8 + size_t(i) * itemLength;
    if (leaf)
      tag.entries.push_back({u32(file, entry), file.substr(entry + 4, tag.keyLength)});
    else
      walk(file, u32(file, entry), itemLength, tag, depth + 1);
  }
  if (!leaf) walk(file, u32(file, at + 8 + size_t(count) * itemLength), itemLength, tag, depth + 1);
}

inline std::vector<Tag> readTags(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<Tag> tags;
  const uint16_t used = u16(file, 28);
  for (uint16_t i = 0; i < used; ++i) {
    const size_t slot = 544 + size_t(i) * 32;
    const size_t header = size_t(u32(file, slot)) * 512;
    Tag tag;
    tag.name = cString(file, slot + 4, 11);
    if (header + 1024 > file.size()) continue;
    tag.type = file[header + 9];
    tag.keyLength = u16(file, header + 12);
    tag.expression = cString(file, header + 24, 220);
    if (file[header + 245]) tag.forExpression = cString(file, header + 762, 220);
    walk(file, u32(file, header), u16(file, header + 18), tag, 0);
    tags.push_back(std::move(tag));
  }
  return tags;
}

inline std::string folder() { return std::string(CODPOSTALES_SHARED_DIR) + "/mdx/"; }

// The tables whose production index dBASE IV wrote.
inline const std::vector<std::string>& tables() {
  static const std::vector<std::string> names = {"ACCT_REC", "CLIENT", "CODES", "CONTENTS", "CUST",
                                                 "GOODS", "ORDERS", "PEOPLE", "STOCK", "STOKNAME",
                                                 "STOKPRIC", "TESTGEN", "TRANSACT", "VENDORS"};
  return names;
}

}  // namespace mdxsample
