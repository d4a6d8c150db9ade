#include "dbase/core/mdx_tag.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "dbase/core/collation.h"
#include "dbase/core/dbase_locks.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/key_expression.h"
#include "dbase/core/mdx_key.h"
#include "dbase/core/sort_key.h"

namespace dbase {

namespace {

// A double as eight bytes whose memcmp order is the numbers' order.
void appendOrderedDouble(double v, std::string& out) {
  if (v == 0) v = 0.0;  // -0 sorts as 0
  uint64_t bits = std::bit_cast<uint64_t>(v);
  bits = (bits & 0x8000000000000000ull) ? ~bits : bits | 0x8000000000000000ull;
  for (int shift = 56; shift >= 0; shift -= 8) out.push_back(char(uint8_t(bits >> shift)));
}

// Blocks the walks of a tag may read before it loads instead: some thirty
// searches, or a walk through a hundred leaves (a few screens of a grid).
// Each block read from the tree costs a system call or two and the lock;
// past that, ranking every row (a walk of the whole tag, read in large
// pieces) and searching in memory is the cheaper way on.
constexpr size_t kTreeBlocksBeforeLoading = 128;
// Walks kept at once: one for each cursor lately served.
constexpr size_t kWalksKept = 4;

}  // namespace

std::vector<uint32_t> keyPieces(const KeyExpression& expression) {
  if (expression.type() != 'C') return {};
  std::vector<uint32_t> cuts{0, expression.keyLength()};
  for (int f : expression.fields()) {
    const auto span = expression.span(f);
    if (!span) return {};
    cuts.push_back(span->first);
    cuts.push_back(span->first + span->second);
  }
  std::sort(cuts.begin(), cuts.end());
  cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
  if (cuts.back() != expression.keyLength()) return {};
  return cuts;
}

void appendMdxOrderKey(const Collation& collation, char keyType, bool descending,
                       const std::vector<uint32_t>& pieces, std::string_view stored, std::string& out) {
  const size_t start = out.size();
  switch (keyType) {
    case 'N':
      appendOrderedDouble(stored.size() >= kBcdKeyLength ? bcdValue(stored.data()) : 0.0, out);
      break;
    case 'D':
      appendOrderedDouble(stored.size() >= kDateKeyLength ? dayKeyValue(stored.data()) : 0.0, out);
      break;
    default:
      if (pieces.size() < 2 || pieces.back() != stored.size()) {
        collation.appendKey(stored, out);
        break;
      }
      for (size_t i = 0; i + 1 < pieces.size(); ++i)
        collation.appendKey(stored.substr(pieces[i], pieces[i + 1] - pieces[i]), out);
  }
  if (descending)
    for (size_t i = start; i < out.size(); ++i) out[i] = char(~uint8_t(out[i]));
}

MdxTag::MdxTag(const DbfFile& file, const MdxTagInfo& info, KeyExpression expression,
               std::optional<KeyExpression> condition)
    : file_(file),
      info_(info),
      expression_(std::move(expression)),
      condition_(std::move(condition)),
      rows_(file.name()) {
  layPieces();
}

MdxTag::~MdxTag() = default;

void MdxTag::reset(const MdxFile& mdx, size_t index, KeyExpression expression,
                   std::optional<KeyExpression> condition) {
  mdx_ = &mdx;
  index_ = index;
  info_ = mdx.tags()[index];
  expression_ = std::move(expression);
  layPieces();
  condition_ = std::move(condition);
  loaded_ = false;
  forgetWalks();
  treeBlocks_ = 0;
}

void MdxTag::layPieces() {
  pieces_ = keyPieces(expression_);
  pieceOwners_.assign(pieces_.empty() ? 0 : pieces_.size() - 1, -1);
  for (size_t i = 0; i < pieceOwners_.size(); ++i)
    for (int f : expression_.fields()) {
      const auto span = expression_.span(f);
      if (span && span->first <= pieces_[i] && pieces_[i] < span->first + span->second) pieceOwners_[i] = f;
    }
}

void MdxTag::rebind(const MdxFile& mdx, size_t index) {
  mdx_ = &mdx;
  index_ = index;
  info_ = mdx.tags()[index];
  forgetWalks();  // the blocks they hold may have changed
}

void MdxTag::appendOrderKey(std::string_view stored, std::string& out) const {
  appendMdxOrderKey(file_.collation(), info_.keyType, info_.descending, pieces_, stored, out);
}

void MdxTag::ensureLoaded() {
  if (!loaded_) load();
}

void MdxTag::load() {
  if (beforeLoading_) beforeLoading_();
  const uint32_t count = file_.recordCount();
  rows_.clear(count);
  std::vector<uint32_t> order;
  std::string orderKey, previous;
  OrderedKeys::Ref previousRef = 0;
  if (mdx_) {
    // Another program may be changing the index in place: the tree is walked
    // with the index file's lock shared (writers hold it alone), and from the
    // file as it now is when it changed since it was read.
    const auto lock = lockIndexFileAt(mdx_->path(), mdx_->name(), LockMode::Shared);
    std::unique_ptr<MdxFile> now;
    const MdxFile* from = mdx_;
    size_t at = index_;
    if (mdx_->changedOnDisk()) {
      now = MdxFile::open(mdx_->path());
      const int found = now->tagIndex(info_.name);
      if (found < 0) {
        from = nullptr;  // gone: the table's index is read again at the next look at the disk
      } else {
        from = now.get();
        at = size_t(found);
      }
    }
    // Rows come in key order, not by number: looking at each one's deleted
    // flag would be a cache miss per entry, so it is done only when the
    // table has deleted rows.
    const bool anyDeleted = file_.deletedCount() != 0;
    order.reserve(count);
    if (from) from->walk(at, [&](std::string_view key, uint32_t recno) {
      // A key for a row past the table's end or held twice is the index
      // file's fault; a deleted row is one the view does not show.
      if (recno == 0 || recno > count || rows_.hasKey(recno) || (anyDeleted && file_.isDeleted(recno))) return;
      // Rows of one key lie together: its orderable form is worked out once.
      if (order.empty() || key != previous) {
        orderKey.clear();
        appendOrderKey(key, orderKey);
        previousRef = rows_.store(orderKey);
        previous.assign(key);
      }
      rows_.setRef(recno, previousRef);
      order.push_back(recno);
    });
  }
  rows_.assign(order);
  everyLiveRow_ = order.size() == size_t(count - file_.deletedCount());
  loaded_ = true;
  forgetWalks();
  treeBlocks_ = 0;
}

bool MdxTag::shows(uint32_t recno) const {
  if (recno == 0 || recno > file_.recordCount() || file_.isDeleted(recno)) return false;
  return !condition_ || condition_->isTrue(file_.record(recno));
}

void MdxTag::place(uint32_t recno) {
  if (!shows(recno)) return;
  std::string& stored = scratchKey_;
  std::string& orderKey = scratchOrder_;
  stored.clear();
  orderKey.clear();
  expression_.appendKey(file_.record(recno), stored);
  appendOrderKey(stored, orderKey);
  // A unique tag holds the first row of a key only, as the index file does.
  if (info_.unique && rows_.heldByAnother(orderKey, recno)) return;
  rows_.setKey(recno, orderKey);
  rows_.insert(recno);
}

void MdxTag::unplace(uint32_t recno) {
  rows_.remove(recno);
  rows_.forgetKey(recno);
}

void MdxTag::rowsAppended(uint32_t first, uint32_t last, bool mayReload) {
  if (!loaded_) return;
  // Many rows at once: reading the index file again costs less than
  // placing each.
  if (mayReload && size_t(last - first) + 1 > rows_.size() / 8 + 64) {
    loaded_ = false;
    return;
  }
  for (uint32_t r = first; r <= last; ++r) place(r);
  everyLiveRow_ = everyLiveRow_ && rows_.size() == size_t(file_.recordCount() - file_.deletedCount());
}

void MdxTag::rowChanged(uint32_t recno) {
  if (!loaded_) return;
  unplace(recno);
  place(recno);
  everyLiveRow_ = rows_.size() == size_t(file_.recordCount() - file_.deletedCount());
}

void MdxTag::retire() {
  mdx_ = nullptr;
  loaded_ = false;
  forgetWalks();
}

size_t MdxTag::size() {
  ensureLoaded();
  return rows_.size();
}

uint32_t MdxTag::recnoAt(size_t rank) {
  ensureLoaded();
  return rows_.recnoAt(rank);
}

std::string_view MdxTag::keyOf(uint32_t recno) {
  ensureLoaded();
  return rows_.keyOf(recno);
}

size_t MdxTag::rankOf(uint32_t recno) {
  ensureLoaded();
  return rows_.rankOf(recno);
}

size_t MdxTag::lowerBound(std::string_view key) {
  ensureLoaded();
  return rows_.lowerBound(key);
}

void MdxTag::appendAll(std::vector<uint32_t>& out) {
  ensureLoaded();
  rows_.appendAll(out);
}

bool MdxTag::holdsEveryLiveRow() const { return loaded_ ? everyLiveRow_ : info_.forExpression.empty() && !info_.unique; }

// ---- serving from the tree ---------------------------------------------------

// One answer from the tree. The index's lock is taken, shared, before the
// first block is read, and kept to the end of the answer: no writer is
// halfway through a change meanwhile. A file that changed since it was read
// cannot be walked with what was read of it.
class MdxTag::TreeRead {
 public:
  explicit TreeRead(const MdxFile& mdx) : mdx_(mdx) {}
  // False when the tree cannot serve (the file changed).
  bool ready() {
    if (!lock_) {
      lock_.emplace(mdx_.sharedLock());
      changed_ = mdx_.changedOnDisk();
    }
    return !changed_;
  }

 private:
  const MdxFile& mdx_;
  std::optional<IndexFileLock> lock_;
  bool changed_ = false;
};

void MdxTag::forgetWalks() {
  for (const auto& walk : walks_) treeBlocks_ += walk->blocksRead();
  walks_.clear();
}

bool MdxTag::unranked() {
  if (loaded_ || !mdx_ || info_.unique || file_.inWriteBatch()) return false;
  size_t blocks = treeBlocks_;
  for (const auto& walk : walks_) blocks += walk->blocksRead();
  return blocks < kTreeBlocksBeforeLoading;
}

bool MdxTag::seekOrder(MdxFile::Walk& walk, std::string_view order) {
  std::string& entryOrder = scratchOrder_;
  return walk.seek(order, [&](std::string_view search, std::string_view stored) {
    entryOrder.clear();
    appendOrderKey(stored, entryOrder);
    return search.compare(entryOrder);
  });
}

// The walk that stands on the row, or one set on it (nullptr when the row is
// not where its key puts it).
MdxFile::Walk* MdxTag::walkFor(TreeRead& read, uint32_t recno) {
  for (auto it = walks_.begin(); it != walks_.end(); ++it)
    if ((*it)->onEntry() && (*it)->recno() == recno) {
      std::rotate(it, it + 1, walks_.end());
      return walks_.back().get();
    }
  MdxFile::Walk& walk = spareWalk();
  return read.ready() && findRow(read, walk, recno) ? &walk : nullptr;
}

MdxFile::Walk& MdxTag::spareWalk() {
  if (walks_.size() < kWalksKept) {
    walks_.push_back(std::make_unique<MdxFile::Walk>(*mdx_, index_));
  } else {
    std::rotate(walks_.begin(), walks_.begin() + 1, walks_.end());  // the least recently used
  }
  return *walks_.back();
}

// Sets the walk on the row's entry: the first of its key's, then on through
// entries of the same key.
bool MdxTag::findRow(TreeRead& read, MdxFile::Walk& walk, uint32_t recno) {
  if (!shows(recno)) return false;
  std::string stored, order, entryOrder;
  expression_.appendKey(file_.record(recno), stored);
  appendOrderKey(stored, order);
  if (!seekOrder(walk, order)) return false;
  for (;;) {
    if (walk.recno() == recno) return true;
    entryOrder.clear();
    appendOrderKey(walk.key(), entryOrder);
    if (entryOrder != order || (!walk.stepStaysInLeaf(true) && !read.ready()) || !walk.next()) return false;
  }
}

uint32_t MdxTag::stepToShown(TreeRead& read, MdxFile::Walk& walk, bool forward) {
  for (;;) {
    // Past many rows the view does not show, ranking pays (and a damaged
    // tree that goes round in circles is caught by the whole walk).
    if (!walk.stepStaysInLeaf(forward) && (!read.ready() || !unranked())) return kLost;
    if (!(forward ? walk.next() : walk.prior())) return 0;
    if (shows(walk.recno())) return walk.recno();
  }
}

uint32_t MdxTag::edgeRow(bool last) {
  TreeRead read(*mdx_);
  if (!read.ready()) return kLost;
  MdxFile::Walk& walk = spareWalk();
  if (!(last ? walk.last() : walk.first())) return 0;
  return shows(walk.recno()) ? walk.recno() : stepToShown(read, walk, !last);
}

uint32_t MdxTag::rowBeside(uint32_t recno, bool after) {
  TreeRead read(*mdx_);
  MdxFile::Walk* walk = walkFor(read, recno);
  return walk ? stepToShown(read, *walk, after) : kLost;
}

uint32_t MdxTag::rowAtOrAfter(std::string_view key, std::string& found) {
  TreeRead read(*mdx_);
  if (!read.ready()) return kLost;
  MdxFile::Walk& walk = spareWalk();
  if (!seekOrder(walk, key)) return 0;
  if (!shows(walk.recno())) {
    const uint32_t r = stepToShown(read, walk, true);
    if (r == 0 || r == kLost) return r;
  }
  found.clear();
  appendOrderKey(walk.key(), found);
  return walk.recno();
}

bool MdxTag::searchKey(const std::vector<int>& fields, const std::vector<std::string>& values, bool partial,
                       std::string& key) {
  // A row holding the values, every other field blank.
  if (blank_.size() != file_.recordLength()) blank_ = file_.blankRecord();
  std::string& record = scratchRecord_;
  record.assign(blank_);
  bool possible = true;
  const size_t n = std::min(fields.size(), values.size());
  std::vector<size_t>& givenBytes = scratchGiven_;  // each value's length in the table's code page
  givenBytes.assign(n, 0);
  for (size_t i = 0; i < n; ++i) {
    const FieldDescriptor& f = file_.fields()[size_t(fields[i])];
    const std::string& value = values[i];
    switch (f.type) {
      case FieldType::Character:
      case FieldType::Memo: {
        std::string& bytes = scratchValue_;
        bytes.clear();
        possible &= encodeSearchText(file_, f, value, bytes);
        std::memcpy(record.data() + f.offset, bytes.data(), bytes.size());
        givenBytes[i] = bytes.size();
        break;
      }
      case FieldType::Numeric:
      case FieldType::Float: {
        const auto number = parseNumber(value);
        if (number) {
          try {
            setFieldNumber(f, record.data(), *number, file_.name());
          } catch (const Error&) {
            possible = false;
          }
        } else if (!trimBlanks(value).empty()) {
          possible = false;
        }
        break;
      }
      case FieldType::Logical: {
        const std::string_view t = trimBlanks(value);
        if (!t.empty()) record[f.offset] = t[0];
        break;
      }
      case FieldType::Date: {
        const std::string_view t = trimBlanks(value);
        std::memcpy(record.data() + f.offset, t.data(), std::min<size_t>(t.size(), f.length));
        break;
      }
    }
  }
  std::string& stored = scratchKey_;
  stored.clear();
  expression_.appendKey(record.data(), stored);
  if (!partial && n >= expression_.fields().size()) {
    appendOrderKey(stored, key);  // every field given, whole: the whole key
  } else if (!appendPieceSearchKey(stored, std::span<const int>(fields.data(), n), givenBytes, partial, key)) {
    // Fields that do not lead the key, or a key not laid out field by field:
    // the whole key, blanks where nothing was given, nearest at best.
    appendOrderKey(stored, key);
  }
  return possible;
}

bool MdxTag::appendPieceSearchKey(std::string_view stored, std::span<const int> fields,
                                  std::span<const size_t> givenBytes, bool partial, std::string& key) const {
  if (pieces_.size() < 2 || fields.empty()) return false;
  // The pieces in order: constants go in whole; each field's piece must be
  // the next field given. They go straight onto the key, taken off again
  // when the fields turn out not to lead it.
  const size_t start = key.size();
  auto fail = [&] {
    key.resize(start);
    return false;
  };
  size_t next = 0;  // the next field given
  for (size_t i = 0; i + 1 < pieces_.size() && next < fields.size(); ++i) {
    const uint32_t from = pieces_[i], to = pieces_[i + 1];
    const int owner = pieceOwners_[i];
    const std::string_view piece = stored.substr(from, to - from);
    if (owner < 0) {
      file_.collation().appendKey(piece, key);
      continue;
    }
    if (owner != fields[next]) return fail();
    const auto span = expression_.span(owner);
    const bool last = next + 1 == fields.size();
    if (last && partial)
      file_.collation().appendPrefixKey(piece.substr(0, std::min<size_t>(givenBytes[next], piece.size())), key);
    else
      file_.collation().appendKey(piece, key);
    if (to == span->first + span->second) ++next;
  }
  if (next < fields.size()) return fail();
  if (info_.descending)
    for (size_t i = start; i < key.size(); ++i) key[i] = char(~uint8_t(key[i]));
  return true;
}

}  // namespace dbase
