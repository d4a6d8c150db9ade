// A cursor: one position in one view of a table, the view being the live
// rows in an order (physical, or an index tag) restricted by a filter.
//
// Cursor states (VCL semantics, which the callers rely on):
//   state            after                       recno()   eof()  bof()
//   empty view       any move                    0         true   true
//   on a row         seek, gotoRecno, next/prior  the row   false  false
//   at the start     first()                     1st row   false  true
//   at the end       last(), next() on the last   last row  true   false
//                    row (the cursor stays on it)
//   before start     prior() on the first row     1st row   false  true
// A filtered view is materialised once per change of order, filter or rows
// (appends only extend it), so walking it never rescans the file. It is built
// when a walk or a position first needs it, not when the order changes, and
// from a bitmap of the rows that pass, which outlives changes of order: a
// change of order re-tests no row, and counting a view builds nothing.
//
// In physical order, or on a tag that can serve before ranking its rows
// (Tag::unranked: an index file's tag, until it loads), with no filter, the
// cursor moves without a view: first, last, next, prior and seek ask for the
// row beside the one it stands on, deleted rows skipped as they are met.
// Asking for a position, a count or a row by its place in the view ranks:
// the view is built and the row found in it (in physical order that means
// knowing every deleted row, so reading every row).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dbase/core/filter.h"

namespace dbase {

class DbfFile;
class Tag;

class Cursor {
 public:
  explicit Cursor(std::shared_ptr<DbfFile> file);
  ~Cursor();

  DbfFile& file() const { return *file_; }
  const std::shared_ptr<DbfFile>& sharedFile() const { return file_; }

  // Order by these fields (indexes into file().fields()), on the tag the
  // engine keeps in memory for them; empty = physical.
  void setOrder(const std::vector<int>& fields);
  // Order by a tag kept elsewhere (an index file's), whose searches take
  // values for these fields. The tag must outlive its use here.
  void setOrder(Tag& tag, const std::vector<int>& fields);
  const std::vector<int>& order() const { return order_; }
  // Installs a filter (see filter.h); an empty text removes it. Throws
  // dbase::Error for a bad text and leaves the previous filter in force.
  void setFilter(const std::string& text);
  const std::string& filterText() const { return filterText_; }

  void first();
  void last();
  void next();
  void prior();
  bool eof() const { return eof_; }
  bool bof() const { return bof_; }
  bool empty();
  size_t count();

  // The current row: record number (0 when none) and bytes.
  uint32_t recno();
  const char* record();
  size_t position();  // of the current row in the view
  uint32_t recnoAt(size_t index);

  // Moves to this row when the view holds it; otherwise stays and returns false.
  bool gotoRecno(uint32_t recno);
  // Search on the current order (see table.h for the semantics).
  bool seek(const std::vector<std::string>& values, bool exact);

  // Re-reads the file if another program changed it and re-finds the row.
  void refresh();

 private:
  void useOrder(Tag* tag, const std::vector<int>& fields);
  // The order in force serving without ranks (the physical order, or a tag
  // that can): whether it can now, whether it shows a row, the row beside
  // one (0 past the edge, Tag::kLost when it must rank), its first or last.
  bool unrankedOrder();
  bool showsUnranked(uint32_t recno);
  uint32_t besideUnranked(uint32_t recno, bool after);
  uint32_t edgeUnranked(bool last);
  // Moves to the row the order serving unranked answers; false (nothing
  // moved) when it cannot serve so now.
  template <class Ask>
  bool moveUnranked(Ask&& ask);
  void standUnranked(uint32_t recno);  // 0: the view is empty
  bool stepUnranked(bool forward);
  // first() or last().
  void toEdge(bool last);
  // Whether the cursor still stands unranked on its row; otherwise it ranks.
  bool stillUnranked();
  void rank();
  void revalidate();
  void rebuildView();
  void extendView();
  bool passes(uint32_t recno) const;
  size_t viewSize();
  uint32_t viewRecno(size_t index);
  size_t viewIndexOf(uint32_t recno);
  size_t viewLowerBound(const std::string& key);
  void moveTo(size_t index);
  size_t liveSize();
  void syncVerdicts();
  void evaluateAll();
  bool verdict(uint32_t recno) const { return (passBits_[recno >> 6] >> (recno & 63)) & 1; }
  struct Column;
  Column* column(uint32_t offset, uint32_t length);

  std::shared_ptr<DbfFile> file_;
  std::vector<int> order_;
  Tag* tag_ = nullptr;
  std::string filterText_;
  std::optional<CompiledFilter> filter_;

  // Materialised view (when filtered, or physical order with deleted rows).
  bool materialised_ = false;
  std::vector<uint32_t> list_;
  uint64_t viewGeneration_ = 0;
  uint64_t viewRewriteGeneration_ = 0;
  uint32_t viewFileCount_ = 0;

  // Which records pass (live, and the filter holds), one bit each; kept
  // across changes of order, extended on appends.
  std::vector<uint64_t> passBits_;
  size_t passCount_ = 0;
  bool verdictsValid_ = false;
  uint32_t verdictCount_ = 0;
  uint64_t verdictRewriteGeneration_ = 0;
  // Fields the filters read, dictionary-encoded (least recently used dropped).
  std::vector<std::unique_ptr<Column>> columns_;
  uint64_t columnClock_ = 0;

  uint32_t recno_ = 0;
  size_t index_ = 0;
  bool unranked_ = false;  // standing on recno_ without a view: index_ means nothing
  uint64_t positionGeneration_ = 0;  // index_ is right for this file generation
  uint64_t rowGeneration_ = 0;       // recno_, eof_ and bof_ are
  bool eof_ = true;
  bool bof_ = true;
};

}  // namespace dbase
