// A tag of a table's production index file, served as the file orders it.
//
// The first question loads the tag: one walk of its B-tree gives the rows in
// the order the file keeps them (the order every dBase program walking the
// tag sees), each with a key that memcmp orders as the tag does (character
// keys by the table's collation, numbers and dates as numbers, descending
// tags inverted), so the cursor's searches work on it as on any tag. Rows the
// tag leaves out (a FOR condition, a unique tag's later duplicates) and
// deleted rows are not in it. It loads again after another program changes
// the index file; this process's own writes are placed in it row by row. A
// load walks the tree with the index file's lock shared (writers hold it
// alone), from the file as it is then.
//
// Until it loads, the tag serves cursors from the tree itself (unranked()):
// the first or last row, the row beside one and the first at or after a key
// cost a walk down the tree and the blocks stepped into, read under the
// shared lock, with deleted rows and rows the FOR condition leaves out
// skipped as they are met. That is what opening a table to look one thing
// up needs. Once the walks have read about as many blocks as make a load
// worth it, or anything asks for a rank, the tag loads.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "dbase/core/key_expression.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/ordered_keys.h"
#include "dbase/core/tag.h"

namespace dbase {

class Collation;
class DbfFile;

// Where a character key splits into the places its fields (and constants)
// take: the offsets of the pieces, 0 first and the key's length last. Empty
// when the expression does not lay its fields out at fixed places; the key
// is then one piece.
std::vector<uint32_t> keyPieces(const KeyExpression& expression);

// The orderable form of a key as an index file stores it: memcmp orders it
// as the tag does (character keys piece by piece by the collation, each piece
// self-delimiting as the engine's own compound keys are, so a search can stop
// after any field; numbers and dates as numbers; inverted for a descending
// tag).
void appendMdxOrderKey(const Collation& collation, char keyType, bool descending,
                       const std::vector<uint32_t>& pieces, std::string_view stored, std::string& out);

class MdxTag final : public Tag {
 public:
  // `expression` compiled against the table.
  MdxTag(const DbfFile& file, const MdxTagInfo& info, KeyExpression expression,
         std::optional<KeyExpression> condition);
  ~MdxTag() override;

  const MdxTagInfo& info() const { return info_; }
  const KeyExpression& expression() const { return expression_; }
  // Read from this index file from now on (the old one changed on disk),
  // where the tag has this place and expression.
  void reset(const MdxFile& mdx, size_t index, KeyExpression expression, std::optional<KeyExpression> condition);
  // The same file read again after this process changed it: what is loaded
  // stays, the rows written having been placed with the calls below.
  void rebind(const MdxFile& mdx, size_t index);
  // This process wrote rows: place them as the index file now holds them.
  // `mayReload`: many rows may be taken by reading the file again rather
  // than placed one by one (not while the file lags behind the rows).
  void rowsAppended(uint32_t first, uint32_t last, bool mayReload = true);
  // Called before the tag reads its rows from the index file.
  void beforeLoading(std::function<void()> ready) { beforeLoading_ = std::move(ready); }
  void rowChanged(uint32_t recno);
  // The index file no longer has the tag: it holds no rows from now on.
  void retire();
  // Bytes of memory the loaded tag holds, about.
  size_t memoryBytes() const { return loaded_ ? rows_.memoryBytes() : 0; }

  size_t size() override;
  uint32_t recnoAt(size_t rank) override;
  size_t lowerBound(std::string_view key) override;
  size_t rankOf(uint32_t recno) override;
  std::string_view keyOf(uint32_t recno) override;
  void appendAll(std::vector<uint32_t>& out) override;
  bool holdsEveryLiveRow() const override;
  bool unranked() override;
  uint32_t edgeRow(bool last) override;
  uint32_t rowBeside(uint32_t recno, bool after) override;
  uint32_t rowAtOrAfter(std::string_view key, std::string& found) override;
  bool showsRow(uint32_t recno) override { return shows(recno); }
  // The key is what the tag's expression gives for a row holding the values,
  // cut after the last field given for a partial search.
  bool searchKey(const std::vector<int>& fields, const std::vector<std::string>& values, bool partial,
                 std::string& key) override;

 private:
  void ensureLoaded();
  void load();
  // Whether the view shows the row: live, and let in by the FOR condition.
  bool shows(uint32_t recno) const;
  void place(uint32_t recno);
  void unplace(uint32_t recno);
  void appendOrderKey(std::string_view stored, std::string& out) const;
  // The search key piece by piece, when the fields given are the key's
  // leading fields in order; false otherwise.
  bool appendPieceSearchKey(std::string_view stored, std::span<const int> fields, std::span<const size_t> givenBytes,
                            bool partial, std::string& key) const;

  // Serving from the tree: a few walks, one for each cursor lately served,
  // the most recently used last.
  class TreeRead;
  MdxFile::Walk* walkFor(TreeRead& read, uint32_t recno);
  MdxFile::Walk& spareWalk();
  bool findRow(TreeRead& read, MdxFile::Walk& walk, uint32_t recno);
  bool seekOrder(MdxFile::Walk& walk, std::string_view order);
  // Steps until a row the view shows; 0 at the end, kLost when the file changed.
  uint32_t stepToShown(TreeRead& read, MdxFile::Walk& walk, bool forward);
  void forgetWalks();
  // pieces_ and pieceOwners_, from expression_.
  void layPieces();

  const DbfFile& file_;
  MdxTagInfo info_;
  KeyExpression expression_;
  std::vector<uint32_t> pieces_;
  std::vector<int> pieceOwners_;  // the field each piece of the key comes from; -1 for a constant
  const MdxFile* mdx_ = nullptr;
  size_t index_ = 0;
  bool loaded_ = false;
  bool everyLiveRow_ = true;
  std::optional<KeyExpression> condition_;
  OrderedKeys rows_;  // the rows held, by their orderable keys
  std::function<void()> beforeLoading_;
  std::vector<std::unique_ptr<MdxFile::Walk>> walks_;
  size_t treeBlocks_ = 0;  // read by the walks since the tag last loaded
  // Reused by every search: a blank row, the row searched for, its key, a
  // value in the table's code page, and each value's length in it.
  std::string blank_, scratchRecord_, scratchKey_, scratchValue_;
  std::vector<size_t> scratchGiven_;
  std::string scratchOrder_;  // an entry's order key, compared in a walk down the tree, or a row's placed
};

}  // namespace dbase
