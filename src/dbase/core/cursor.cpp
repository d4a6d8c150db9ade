#include "dbase/core/cursor.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/index_tag.h"
#include "dbase/core/sort_key.h"

namespace dbase {

namespace {
constexpr size_t npos = size_t(-1);

// Calls f(recno) for each set bit, in record order.
template <class F>
void forEachSet(const std::vector<uint64_t>& bits, F&& f) {
  for (size_t w = 0; w < bits.size(); ++w)
    for (uint64_t word = bits[w]; word; word &= word - 1) f(uint32_t(w * 64 + size_t(std::countr_zero(word))));
}
}  // namespace

Cursor::Cursor(std::shared_ptr<DbfFile> file) : file_(std::move(file)) { first(); }

Cursor::~Cursor() = default;

void Cursor::setOrder(const std::vector<int>& fields) {
  IndexTag* tag = fields.empty() ? nullptr : &file_->tag(fields);
  order_ = fields;
  tag_ = tag;
  // The same rows in another order: the current row stays, and the view is
  // rebuilt and the row found in it when something needs them. Unless the
  // file changed since the row was placed: then the edge states may change
  // too, and callers read those without asking the cursor to catch up.
  viewGeneration_ = 0;
  positionGeneration_ = 0;
  if (rowGeneration_ != file_->generation()) revalidate();
}

void Cursor::setFilter(const std::string& text) {
  FilterExpression expression = parseFilter(text);
  std::optional<CompiledFilter> compiled;
  if (!expression.terms.empty()) compiled.emplace(expression, file_->fields(), file_->codePage());
  filterText_ = expression.terms.empty() ? std::string() : text;
  filter_ = std::move(compiled);
  verdictsValid_ = false;
  viewGeneration_ = 0;
  rowGeneration_ = 0;
  first();
}

bool Cursor::passes(uint32_t recno) const {
  return !file_->isDeleted(recno) && (!filter_ || filter_->matches(file_->record(recno)));
}

// Tests every row.
void Cursor::evaluateAll() {
  const uint32_t rows = file_->recordCount();
  passBits_.assign(size_t(rows) / 64 + 1, 0);
  for (uint32_t r = 1; r <= rows; ++r)
    if (passes(r)) passBits_[r >> 6] |= uint64_t(1) << (r & 63);
  passCount_ = 0;
  for (uint64_t word : passBits_) passCount_ += size_t(std::popcount(word));
  verdictsValid_ = true;
  verdictCount_ = rows;
  verdictRewriteGeneration_ = file_->rewriteGeneration();
}

// Brings the bitmap up to the file: appended rows are tested one by one,
// anything else tests every row again.
void Cursor::syncVerdicts() {
  const uint32_t rows = file_->recordCount();
  if (!verdictsValid_ || verdictRewriteGeneration_ != file_->rewriteGeneration() || rows < verdictCount_)
    return evaluateAll();
  if (rows == verdictCount_) return;
  passBits_.resize(size_t(rows) / 64 + 1, 0);
  for (uint32_t r = verdictCount_ + 1; r <= rows; ++r)
    if (passes(r)) {
      passBits_[r >> 6] |= uint64_t(1) << (r & 63);
      ++passCount_;
    }
  verdictCount_ = rows;
}

void Cursor::rebuildView() {
  materialised_ = filter_.has_value() || (!tag_ && file_->deletedCount() > 0);
  list_.clear();
  if (materialised_) {
    syncVerdicts();
    if (!tag_) {
      list_.reserve(passCount_);
      forEachSet(passBits_, [&](uint32_t r) { list_.push_back(r); });
    } else if (passCount_ * 16 < tag_->size()) {
      // Few rows pass: sorting them beats walking the whole tag. Most
      // comparisons are settled by the first 8 key bytes.
      struct Entry {
        uint64_t prefix;  // big-endian, zero-padded
        std::string_view key;
        uint32_t recno;
      };
      std::vector<Entry> entries;
      entries.reserve(passCount_);
      forEachSet(passBits_, [&](uint32_t r) {
        std::string_view key = tag_->keyOf(r);
        unsigned char bytes[8] = {};
        std::memcpy(bytes, key.data(), std::min<size_t>(key.size(), 8));
        uint64_t prefix = 0;
        for (unsigned char byte : bytes) prefix = prefix << 8 | byte;
        entries.push_back({prefix, key, r});
      });
      std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        if (a.prefix != b.prefix) return a.prefix < b.prefix;
        int c = a.key.compare(b.key);
        return c < 0 || (c == 0 && a.recno < b.recno);
      });
      list_.reserve(entries.size());
      for (const Entry& e : entries) list_.push_back(e.recno);
    } else {
      tag_->appendAll(list_);
      list_.erase(std::remove_if(list_.begin(), list_.end(), [this](uint32_t r) { return !verdict(r); }), list_.end());
    }
  }
  viewGeneration_ = file_->generation();
  viewRewriteGeneration_ = file_->rewriteGeneration();
  viewFileCount_ = file_->recordCount();
}

// Only rows were appended since the view was built: add those that pass.
void Cursor::extendView() {
  if (materialised_) {
    syncVerdicts();
    for (uint32_t r = viewFileCount_ + 1; r <= file_->recordCount(); ++r) {
      if (!verdict(r)) continue;
      if (!tag_) {
        list_.push_back(r);
        continue;
      }
      std::string_view key = tag_->keyOf(r);
      auto at = std::lower_bound(list_.begin(), list_.end(), r, [&](uint32_t entry, uint32_t) {
        int c = tag_->keyOf(entry).compare(key);
        return c < 0 || (c == 0 && entry < r);
      });
      list_.insert(at, r);
    }
  } else if (!tag_ && file_->deletedCount() > 0) {
    return rebuildView();
  }
  viewGeneration_ = file_->generation();
  viewFileCount_ = file_->recordCount();
}

void Cursor::revalidate() {
  if (viewGeneration_ != file_->generation()) {
    if (viewGeneration_ == 0 || viewRewriteGeneration_ != file_->rewriteGeneration() ||
        file_->recordCount() < viewFileCount_) {
      rebuildView();
      positionGeneration_ = 0;  // a new view: find the row in it again
    } else
      extendView();
  }
  if (positionGeneration_ == file_->generation()) return;
  positionGeneration_ = rowGeneration_ = file_->generation();
  const size_t size = viewSize();
  if (size == 0) {
    recno_ = 0;
    index_ = 0;
    eof_ = bof_ = true;
    return;
  }
  size_t at = recno_ ? viewIndexOf(recno_) : npos;
  if (at == npos) at = std::min(index_, size - 1);  // the row left the view: stay near
  index_ = at;
  recno_ = viewRecno(at);
}

// The size of the view without building it.
size_t Cursor::liveSize() {
  if (viewGeneration_ == file_->generation()) return viewSize();
  if (filter_ || (!tag_ && file_->deletedCount() > 0)) {
    syncVerdicts();
    return passCount_;
  }
  return tag_ ? tag_->size() : file_->recordCount();
}

size_t Cursor::viewSize() {
  if (materialised_) return list_.size();
  if (tag_) return tag_->size();
  return file_->recordCount();
}

uint32_t Cursor::viewRecno(size_t index) {
  if (materialised_) return list_[index];
  if (tag_) return tag_->recnoAt(index);
  return uint32_t(index + 1);
}

size_t Cursor::viewIndexOf(uint32_t recno) {
  if (recno == 0 || recno > file_->recordCount()) return npos;
  if (materialised_) {
    if (!tag_) {
      auto it = std::lower_bound(list_.begin(), list_.end(), recno);
      return (it != list_.end() && *it == recno) ? size_t(it - list_.begin()) : npos;
    }
    std::string_view key = tag_->keyOf(recno);
    auto it = std::lower_bound(list_.begin(), list_.end(), recno, [&](uint32_t entry, uint32_t) {
      int c = tag_->keyOf(entry).compare(key);
      return c < 0 || (c == 0 && entry < recno);
    });
    return (it != list_.end() && *it == recno) ? size_t(it - list_.begin()) : npos;
  }
  if (tag_) {
    size_t rank = tag_->rankOf(recno);
    return rank == tag_->size() ? npos : rank;
  }
  return file_->isDeleted(recno) ? npos : size_t(recno - 1);
}

size_t Cursor::viewLowerBound(const std::string& key) {
  if (!materialised_) return tag_->lowerBound(key);
  auto it = std::lower_bound(list_.begin(), list_.end(), key,
                             [&](uint32_t entry, const std::string& k) { return tag_->keyOf(entry) < k; });
  return size_t(it - list_.begin());
}

void Cursor::moveTo(size_t index) {
  index_ = index;
  recno_ = viewRecno(index);
  eof_ = bof_ = false;
  positionGeneration_ = rowGeneration_ = file_->generation();
}

void Cursor::refresh() {
  file_->syncWithDisk();
  revalidate();
}

void Cursor::first() {
  refresh();
  if (viewSize() == 0) return;
  moveTo(0);
  bof_ = true;
}

void Cursor::last() {
  refresh();
  const size_t size = viewSize();
  if (size == 0) return;
  moveTo(size - 1);
  eof_ = true;
}

void Cursor::next() {
  revalidate();
  const size_t size = viewSize();
  if (size == 0) return;
  if (index_ + 1 < size)
    moveTo(index_ + 1);
  else
    eof_ = true;
}

void Cursor::prior() {
  revalidate();
  if (viewSize() == 0) return;
  if (index_ > 0)
    moveTo(index_ - 1);
  else
    bof_ = true;
}

bool Cursor::empty() { return count() == 0; }

size_t Cursor::count() {
  file_->syncWithDisk();
  if (rowGeneration_ != file_->generation()) revalidate();
  return liveSize();
}

// The row is known without the view while the file has not changed: a
// change of order keeps it.
uint32_t Cursor::recno() {
  if (rowGeneration_ != file_->generation()) revalidate();
  return recno_;
}

const char* Cursor::record() {
  if (rowGeneration_ != file_->generation()) revalidate();
  return recno_ ? file_->record(recno_) : nullptr;
}

size_t Cursor::position() {
  revalidate();
  return index_;
}

uint32_t Cursor::recnoAt(size_t index) {
  revalidate();
  return index < viewSize() ? viewRecno(index) : 0;
}

bool Cursor::gotoRecno(uint32_t recno) {
  revalidate();
  size_t at = viewIndexOf(recno);
  if (at == npos) return false;
  moveTo(at);
  return true;
}

bool Cursor::seek(const std::vector<std::string>& values, bool exact) {
  if (!tag_) throw Error(ErrorKind::State, file_->name(), "búsqueda sin índice activo");
  if (values.empty() || values.size() > order_.size())
    throw Error(ErrorKind::InvalidArgument, file_->name(),
                "la búsqueda da " + std::to_string(values.size()) + " valores para un índice de " +
                    std::to_string(order_.size()) + " campos");
  refresh();
  std::string key;
  const bool possible = appendSearchKey(*file_, order_, values, !exact, key);
  const size_t size = viewSize();
  size_t at = viewLowerBound(key);
  if (exact) {
    if (!possible || at == size || !tag_->keyOf(viewRecno(at)).starts_with(key)) return false;
    moveTo(at);
    return true;
  }
  if (size == 0) return false;
  moveTo(at == size ? size - 1 : at);  // nothing at or after: the last row
  return true;
}

}  // namespace dbase
