// An index tag: the live rows of a table in the order of one or more fields.
//
// Keys (see sort_key.h) are kept per record number; the order is a list of
// sorted chunks of record numbers, so inserting a row costs a binary search
// and a move inside one chunk of at most kMaxChunk entries, not a move of the
// whole order. Rows with equal keys are ordered by record number, as dBase
// does. Positions are ranks 0..size()-1.
//
// Building ranks each field's distinct values once (the reference tables
// repeat a few values in long runs) and sorts the rows on those ranks, field
// by field; equal keys are stored once.
//
// A tag nobody has asked anything for a while (no cursor uses it) stops
// placing appended rows one by one: it takes them all when next asked,
// rebuilding when they are many, which costs less than placing each.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dbase/core/tag.h"

namespace dbase {

class DbfFile;
class RowKeys;

class IndexTag final : public Tag {
 public:
  IndexTag(const DbfFile& file, std::vector<int> fields);

  const std::vector<int>& fields() const { return fields_; }
  bool built() const { return built_; }
  // Bytes of memory the tag holds (keys, order and their bookkeeping), about.
  size_t memoryBytes() const;

  size_t size() override;
  uint32_t recnoAt(size_t rank) override;
  size_t lowerBound(std::string_view key) override;
  // Rank of a live row (size() when the row is not in the tag).
  size_t rankOf(uint32_t recno) override;
  std::string_view keyOf(uint32_t recno) override;
  void appendAll(std::vector<uint32_t>& out) override;
  // Keys as sort_key.h makes them, field by field.
  bool searchKey(const std::vector<int>& fields, const std::vector<std::string>& values, bool partial,
                 std::string& key) override;

  // Kept right by the file on every change. `keys`, when given, holds the
  // row's field keys shared with the other tags.
  void insert(uint32_t recno, RowKeys* keys = nullptr);
  void update(uint32_t recno, const char* oldRecord);
  void invalidate() { built_ = false; }

 private:
  static constexpr size_t kMaxChunk = 128;
  // Appends without a question in between before the tag defers them.
  static constexpr uint32_t kQuietInserts = 256;
  // A key reference: offset in the arena << kLengthBits | length.
  static constexpr unsigned kLengthBits = 24;
  void ensureBuilt();
  void build();
  void catchUp();
  void place(uint32_t recno, RowKeys* keys);
  void storeKey(uint32_t recno, const char* record, RowKeys* keys = nullptr);
  void compactArena();
  std::pair<size_t, size_t> insertOrdered(uint32_t recno);
  void removeOrdered(uint32_t recno);
  std::string_view keyAt(uint64_t ref) const {
    return std::string_view(arena_.data() + (ref >> kLengthBits), size_t(ref & ((1u << kLengthBits) - 1)));
  }
  std::string_view storedKey(uint32_t recno) const { return keyAt(keyRef_[recno]); }
  // Chunk holding the first entry not before (key, recno); with recno 0 the
  // first entry whose key is >= key.
  // `ref`, when known, is where the key is stored: keys stored once for
  // many rows then compare equal without reading them.
  std::pair<size_t, size_t> locate(std::string_view key, uint32_t recno, uint64_t ref = ~uint64_t(0)) const;
  // Entries per chunk, as a Fenwick tree: ranks in O(log chunks) whatever
  // chunk an insert lands in.
  void rebuildCounts();
  void addCount(size_t chunk, int delta);
  size_t startOf(size_t chunk) const;
  std::pair<size_t, size_t> chunkAt(size_t rank) const;
  void remember(uint32_t recno, size_t chunk, size_t index);
  bool recall(uint32_t recno, size_t& chunk, size_t& index) const;

  const DbfFile& file_;
  std::vector<int> fields_;
  bool built_ = false;
  uint32_t pendingFrom_ = 0;   // rows from this one on wait to be placed (0: none)
  uint32_t quietInserts_ = 0;  // appends since the tag was last asked anything
  std::string arena_;
  size_t garbage_ = 0;  // arena bytes of replaced keys (an upper bound: keys are shared)
  std::vector<uint64_t> keyRef_;  // by record number (slot 0 unused)
  // What a search compares a row by without looking further: the eight key
  // bytes past the prefix every key shares, and where the key is stored
  // (rows with equal keys mostly share one).
  struct Probe {
    uint64_t word;
    uint64_t ref;
  };
  // A chunk's rows in order, with their probes.
  struct Chunk {
    std::vector<uint32_t> recnos;
    std::vector<Probe> probes;
  };
  std::vector<std::unique_ptr<Chunk>> chunks_;  // by pointer: a split moves pointers
  std::vector<Probe> lastProbe_;     // of each chunk's last row
  std::vector<uint32_t> chunkLast_;  // each chunk's last row
  Probe probeOf(uint32_t recno) const;
  std::vector<uint32_t> counts_;     // Fenwick tree of the chunk sizes (1-based)
  bool countsStale_ = true;
  size_t size_ = 0;
  std::string scratch_;
  // Bytes every key in the tag starts with (a province file's street tag:
  // the province and more), skipped when comparing.
  std::string prefix_;
  bool narrowPrefix(std::string_view key);
  void reword();
  // Where rows were last seen (an insert, then the cursor finding the new
  // row and the one it was on): checked before searching.
  struct Hint {
    uint32_t recno = 0;
    uint32_t chunk = 0;
    uint32_t index = 0;
    uint64_t layout = 0;
  };
  Hint hints_[4];
  size_t nextHint_ = 0;
  uint64_t layout_ = 1;  // changes whenever chunks are split, removed or rebuilt
};

}  // namespace dbase
