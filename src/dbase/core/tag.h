// What a cursor asks of an order: the rows of a table ranked by a key, found
// by rank, by record number and by key. Two kinds answer it: the tags the
// engine builds in memory (IndexTag) and the tags of a table's production
// index file (MdxTag).
//
// Keys are byte strings whose memcmp order is the tag's order; rows with equal
// keys are ranked by record number. Positions are ranks 0..size()-1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dbase {

class Tag {
 public:
  virtual ~Tag() = default;

  virtual size_t size() = 0;
  virtual uint32_t recnoAt(size_t rank) = 0;
  // First rank whose key is >= key (size() when none).
  virtual size_t lowerBound(std::string_view key) = 0;
  // Rank of a row (size() when the tag does not hold it).
  virtual size_t rankOf(uint32_t recno) = 0;
  // Key of a row the tag holds.
  virtual std::string_view keyOf(uint32_t recno) = 0;
  // Every record number, in order.
  virtual void appendAll(std::vector<uint32_t>& out) = 0;
  // Whether the tag holds every live row (a tag with a FOR condition, or a
  // unique one, may leave some out).
  virtual bool holdsEveryLiveRow() const { return true; }

  // The key a search for these values of the tag's leading fields looks for;
  // with `partial`, the last value is a prefix and the key sorts at or before
  // every row whose field starts with it. Returns false when no row can hold
  // the values (a character outside the code page, a non-number for a number).
  virtual bool searchKey(const std::vector<int>& fields, const std::vector<std::string>& values, bool partial,
                         std::string& key) = 0;
};

}  // namespace dbase
