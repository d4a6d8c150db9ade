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

  // A tag kept as a tree can also serve a cursor before it ranks its rows
  // (ranking needs every row walked): the cursor stands on a row and steps
  // from it. Only while unranked() says so. Each answer is the row landed
  // on, 0 when there is none, or kLost when the tag cannot tell without
  // ranking (the row stood on is not where its key puts it, the file changed
  // under the walk): the cursor then asks the ranked calls above.
  static constexpr uint32_t kLost = UINT32_MAX;
  virtual bool unranked() { return false; }
  virtual uint32_t edgeRow(bool /*last*/) { return kLost; }
  virtual uint32_t rowBeside(uint32_t /*recno*/, bool /*after*/) { return kLost; }
  // The first row whose key is >= key; `found` gets its key.
  virtual uint32_t rowAtOrAfter(std::string_view /*key*/, std::string& /*found*/) { return kLost; }
  // Whether the tag shows the row (a cursor standing on it stays there).
  virtual bool showsRow(uint32_t /*recno*/) { return false; }

  // The key a search for these values of the tag's leading fields looks for;
  // with `partial`, the last value is a prefix and the key sorts at or before
  // every row whose field starts with it. Returns false when no row can hold
  // the values (a character outside the code page, a non-number for a number).
  virtual bool searchKey(const std::vector<int>& fields, const std::vector<std::string>& values, bool partial,
                         std::string& key) = 0;
};

}  // namespace dbase
