// An index tag: the live rows of a table in the order of one or more fields.
//
// Keys (see sort_key.h) are kept per record number; the order is a list of
// sorted chunks of record numbers, so inserting a row costs a binary search
// and a move inside one chunk of at most kMaxChunk entries, not a move of the
// whole order. Rows with equal keys are ordered by record number, as dBase
// does. Positions are ranks 0..size()-1.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dbase {

class DbfFile;

class IndexTag {
 public:
  IndexTag(const DbfFile& file, std::vector<int> fields);

  const std::vector<int>& fields() const { return fields_; }

  size_t size();
  uint32_t recnoAt(size_t rank);
  // First rank whose key is >= key (size() when none).
  size_t lowerBound(std::string_view key);
  // Rank of a live row (size() when the row is not in the tag).
  size_t rankOf(uint32_t recno);
  std::string_view keyOf(uint32_t recno);
  // Every record number, in order.
  void appendAll(std::vector<uint32_t>& out);

  // Kept right by the file on every change.
  void insert(uint32_t recno);
  void update(uint32_t recno, const char* oldRecord);
  void invalidate() { built_ = false; }

 private:
  static constexpr size_t kMaxChunk = 1024;
  void ensureBuilt();
  void build();
  uint64_t wordAt(uint32_t recno, size_t depth) const;
  void sortFrom(void* begin, void* end, size_t depth);
  void storeKey(uint32_t recno, const char* record);
  void insertOrdered(uint32_t recno);
  void removeOrdered(uint32_t recno);
  bool before(uint32_t a, uint32_t b) const;  // (key, recno) order
  int compareKey(uint32_t recno, std::string_view key) const;
  std::string_view storedKey(uint32_t recno) const {
    return std::string_view(arena_.data() + keyOffset_[recno], keyLength_[recno]);
  }
  // Chunk holding the first entry not before (key, recno); with recno 0 the
  // first entry whose key is >= key.
  std::pair<size_t, size_t> locate(std::string_view key, uint32_t recno) const;
  void refreshStarts();

  const DbfFile& file_;
  std::vector<int> fields_;
  bool built_ = false;
  std::string arena_;
  size_t liveBytes_ = 0;  // bytes of the keys in use
  std::vector<uint64_t> keyOffset_;  // by record number (slot 0 unused)
  std::vector<uint32_t> keyLength_;
  std::vector<std::vector<uint32_t>> chunks_;
  std::vector<size_t> chunkStart_;  // rank of each chunk's first entry
  bool startsDirty_ = true;
  size_t size_ = 0;
  std::string scratch_;
};

}  // namespace dbase
