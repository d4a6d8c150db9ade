// An index tag: the live rows of a table in the order of one or more fields.
//
// Keys (see sort_key.h) and the order are kept as ordered_keys.h describes.
// Rows with equal keys are ordered by record number, as dBase does.
// Positions are ranks 0..size()-1.
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

#include "dbase/core/ordered_keys.h"
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
  // Appends without a question in between before the tag defers them.
  static constexpr uint32_t kQuietInserts = 256;
  void ensureBuilt();
  void build();
  void catchUp();
  void place(uint32_t recno, RowKeys* keys);
  void storeKey(uint32_t recno, const char* record, RowKeys* keys = nullptr);

  const DbfFile& file_;
  std::vector<int> fields_;
  bool built_ = false;
  uint32_t pendingFrom_ = 0;   // rows from this one on wait to be placed (0: none)
  uint32_t quietInserts_ = 0;  // appends since the tag was last asked anything
  OrderedKeys rows_;
  std::string scratch_;
};

}  // namespace dbase
