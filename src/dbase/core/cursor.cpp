#include "dbase/core/cursor.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/index_tag.h"
#include "dbase/core/sort_key.h"
#include "dbase/core/tag_set.h"

namespace dbase {

namespace {
constexpr size_t npos = size_t(-1);
// Encoded fields kept per cursor: the filter in force and the last few.
constexpr size_t kMaxColumns = 4;

// Beyond this many distinct values a field is not worth encoding: testing
// each value would cost about as much as testing each row.
size_t maxDistinct(uint32_t rows) { return std::clamp<size_t>(rows / 16, 4096, 65535); }

// Calls f(recno) for each set bit, in record order.
template <class F>
void forEachSet(const std::vector<uint64_t>& bits, F&& f) {
  for (size_t w = 0; w < bits.size(); ++w)
    for (uint64_t word = bits[w]; word; word &= word - 1) f(uint32_t(w * 64 + size_t(std::countr_zero(word))));
}
}  // namespace

// One field of every row as codes into its distinct values, so that a filter
// tests each distinct value once and then only looks codes up. The reference
// tables hold few distinct values in the fields filters use (codes, names of
// municipalities), and often in long runs: those are kept too, so a term can
// be answered a run at a time.
struct Cursor::Column {
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  struct Run {
    uint32_t first;  // record number where the run starts
    uint16_t code;
  };

  uint32_t offset = 0;
  uint32_t length = 0;
  uint64_t rewriteGeneration = 0;  // of the file when encoded (0: never)
  uint32_t count = 0;              // rows encoded
  bool usable = true;              // false: too many distinct values
  bool runsKept = true;            // false: too many runs to be worth keeping
  uint64_t lastUse = 0;
  std::vector<uint16_t> codes;  // by record number (slot 0 unused)
  std::vector<Run> runs;        // rows 1..count, when runsKept
  std::string values;           // the distinct values, `length` bytes each, by code
  size_t distinct = 0;
  std::unordered_map<std::string, uint16_t, Hash, std::equal_to<>> lookup;

  const char* value(size_t code) const { return values.data() + code * length; }

  // Brings the codes up to the file: appended rows are added, anything else
  // starts again.
  void encode(const DbfFile& file) {
    const uint32_t rows = file.recordCount();
    if (rewriteGeneration != file.rewriteGeneration() || count > rows) {
      rewriteGeneration = file.rewriteGeneration();
      count = 0;
      usable = length > 0 && offset + length <= file.recordLength();
      runsKept = true;
      release();
    }
    if (!usable || count == rows) return;
    codes.resize(size_t(rows) + 1);
    const size_t limit = maxDistinct(rows);
    const char* previous = count ? file.record(count) + offset : nullptr;
    uint16_t previousCode = count ? codes[count] : 0;
    for (uint32_t r = count + 1; r <= rows; ++r) {
      const char* bytes = file.record(r) + offset;
      if (previous && std::memcmp(bytes, previous, length) == 0) {  // the run goes on: no hashing
        codes[r] = previousCode;
        continue;
      }
      const std::string_view text(bytes, length);
      auto it = lookup.find(text);
      uint16_t code;
      if (it != lookup.end()) {
        code = it->second;
      } else {
        if (distinct == limit) {
          usable = false;
          release();
          return;
        }
        code = uint16_t(distinct++);
        values.append(text);
        lookup.emplace(std::string(text), code);
      }
      codes[r] = code;
      if (runsKept && (runs.empty() || code != runs.back().code)) {
        runs.push_back({r, code});
        if (runs.size() > size_t(rows) / 32 + 64) {
          runsKept = false;
          std::vector<Run>().swap(runs);
        }
      }
      previous = bytes;
      previousCode = code;
    }
    count = rows;
  }

  void release() {
    std::vector<uint16_t>().swap(codes);
    std::vector<Run>().swap(runs);
    std::string().swap(values);
    lookup = {};
    distinct = 0;
  }
};

Cursor::Cursor(std::shared_ptr<DbfFile> file) : file_(std::move(file)) { first(); }

Cursor::~Cursor() = default;

void Cursor::setOrder(const std::vector<int>& fields) {
  Tag* tag = fields.empty() ? nullptr : &TagSet::of(*file_).tag(fields);
  useOrder(tag, fields);
}

void Cursor::setOrder(Tag& tag, const std::vector<int>& fields) { useOrder(&tag, fields); }

void Cursor::useOrder(Tag* tag, const std::vector<int>& fields) {
  order_ = fields;
  tag_ = tag;
  unranked_ = false;
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
  unranked_ = false;
  verdictsValid_ = false;
  viewGeneration_ = 0;
  rowGeneration_ = 0;
  first();
}

bool Cursor::passes(uint32_t recno) const {
  return !file_->isDeleted(recno) && (!filter_ || filter_->matches(file_->record(recno)));
}

Cursor::Column* Cursor::column(uint32_t offset, uint32_t length) {
  Column* found = nullptr;
  for (auto& c : columns_)
    if (c->offset == offset && c->length == length) found = c.get();
  if (!found) {
    columns_.push_back(std::make_unique<Column>());
    found = columns_.back().get();
    found->offset = offset;
    found->length = length;
  }
  found->lastUse = ++columnClock_;
  found->encode(*file_);
  return found->usable ? found : nullptr;
}

namespace {

// Sets the bits of records [from, to).
void setRange(std::vector<uint64_t>& bits, uint32_t from, uint32_t to) {
  for (; from < to && (from & 63); ++from) bits[from >> 6] |= uint64_t(1) << (from & 63);
  for (; to - from >= 64; from += 64) bits[from >> 6] = ~uint64_t(0);
  for (; from < to; ++from) bits[from >> 6] |= uint64_t(1) << (from & 63);
}

}  // namespace

// Tests every row: each distinct value of the fields involved once, then the
// rows by their runs or their codes; row by row only when a field has too many
// distinct values.
void Cursor::evaluateAll() {
  const uint32_t rows = file_->recordCount();
  const size_t words = size_t(rows) / 64 + 1;
  struct Probe {
    const Column* column;
    std::vector<uint8_t> pass;  // by code
  };
  std::vector<Probe> probes;
  bool direct = false;
  auto probe = [&](uint32_t offset, uint32_t length, auto&& test) {
    const Column* c = direct ? nullptr : column(offset, length);
    if (!c) {
      direct = true;
      return;
    }
    Probe p{c, std::vector<uint8_t>(c->distinct)};
    for (size_t v = 0; v < c->distinct; ++v) p.pass[v] = test(c->value(v)) ? 1 : 0;
    probes.push_back(std::move(p));
  };
  if (file_->deletedCount() > 0) probe(0, 1, [](const char* flag) { return *flag != kDeletedFlag; });
  if (filter_)
    for (size_t t = 0; t < filter_->termCount(); ++t)
      probe(filter_->termOffset(t), filter_->termLength(t),
            [&](const char* field) { return filter_->termMatches(t, field); });

  passBits_.assign(words, 0);
  if (direct) {
    for (uint32_t r = 1; r <= rows; ++r)
      if (passes(r)) passBits_[r >> 6] |= uint64_t(1) << (r & 63);
  } else {
    setRange(passBits_, 1, rows + 1);
    // Runs first: they are cheap, and rows they rule out need no code look-ups.
    std::stable_partition(probes.begin(), probes.end(), [](const Probe& p) { return p.column->runsKept; });
    std::vector<uint64_t> ranges;
    for (const Probe& p : probes) {
      const Column& c = *p.column;
      if (c.runsKept) {
        ranges.assign(words, 0);
        for (size_t i = 0; i < c.runs.size(); ++i) {
          const uint32_t end = i + 1 < c.runs.size() ? c.runs[i + 1].first : rows + 1;
          if (p.pass[c.runs[i].code]) setRange(ranges, c.runs[i].first, end);
        }
        for (size_t w = 0; w < words; ++w) passBits_[w] &= ranges[w];
        continue;
      }
      const uint16_t* codes = c.codes.data();
      for (size_t w = 0; w < words; ++w) {
        if (!passBits_[w]) continue;
        const uint32_t from = std::max<uint32_t>(uint32_t(w * 64), 1);
        const uint32_t to = uint32_t(std::min<size_t>(w * 64 + 64, size_t(rows) + 1));
        uint64_t bits = 0;
        for (uint32_t r = from; r < to; ++r) bits |= uint64_t(p.pass[codes[r]]) << (r & 63);
        passBits_[w] &= bits;
      }
    }
  }
  passCount_ = 0;
  for (uint64_t word : passBits_) passCount_ += size_t(std::popcount(word));
  verdictsValid_ = true;
  verdictCount_ = rows;
  verdictRewriteGeneration_ = file_->rewriteGeneration();

  while (columns_.size() > kMaxColumns) {
    auto oldest = std::min_element(columns_.begin(), columns_.end(),
                                   [](const auto& a, const auto& b) { return a->lastUse < b->lastUse; });
    columns_.erase(oldest);
  }
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
      const bool partialTag = !tag_->holdsEveryLiveRow();
      forEachSet(passBits_, [&](uint32_t r) {
        if (partialTag && tag_->rankOf(r) == tag_->size()) return;
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
      if (tag_ && !tag_->holdsEveryLiveRow() && tag_->rankOf(r) == tag_->size()) continue;
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
  if (unranked_ && stillUnranked()) return;
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
  if (filter_ && tag_ && !tag_->holdsEveryLiveRow()) {  // which pass is not enough: build the view
    revalidate();
    return viewSize();
  }
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

// The physical order serves unranked as well: rows by number, deleted ones
// skipped as they are met. Ranking it means knowing every deleted row, which
// means reading every row of the table.
bool Cursor::unrankedOrder() { return !filter_ && (!tag_ || tag_->unranked()); }

bool Cursor::showsUnranked(uint32_t recno) {
  if (tag_) return tag_->showsRow(recno);
  return recno != 0 && recno <= file_->recordCount() && !file_->isDeleted(recno);
}

uint32_t Cursor::besideUnranked(uint32_t recno, bool after) {
  if (tag_) return tag_->rowBeside(recno, after);
  const uint32_t count = file_->recordCount();
  for (uint32_t r = after ? recno + 1 : recno - 1; r >= 1 && r <= count; r += after ? 1 : -1)
    if (!file_->isDeleted(r)) return r;
  return 0;
}

uint32_t Cursor::edgeUnranked(bool last) {
  if (tag_) return tag_->edgeRow(last);
  return besideUnranked(last ? file_->recordCount() + 1 : 0, !last);
}

template <class Ask>
bool Cursor::moveUnranked(Ask&& ask) {
  if (!unrankedOrder()) return false;
  const uint32_t recno = ask();
  if (recno == Tag::kLost) return false;
  standUnranked(recno);
  return true;
}

void Cursor::standUnranked(uint32_t recno) {
  unranked_ = true;
  recno_ = recno;
  eof_ = bof_ = recno == 0;  // 0: the view is empty
  rowGeneration_ = file_->generation();
  positionGeneration_ = 0;
}

bool Cursor::stillUnranked() {
  if (rowGeneration_ == file_->generation() && unrankedOrder()) return true;
  // The file changed: the row stays while the order shows it.
  if (unrankedOrder() && recno_ != 0 && showsUnranked(recno_)) {
    rowGeneration_ = file_->generation();
    return true;
  }
  rank();
  return false;
}

// From standing unranked to a place in the view: the view is built when
// next needed, and the row found in it.
void Cursor::rank() {
  unranked_ = false;
  positionGeneration_ = 0;
}

// A step of a cursor standing unranked; false when it must rank to take it.
bool Cursor::stepUnranked(bool forward) {
  if (!unranked_ || !stillUnranked()) return false;
  if (recno_ == 0) return true;  // an empty view
  const uint32_t found = besideUnranked(recno_, forward);
  if (found == Tag::kLost) {
    rank();
    return false;
  }
  if (found == 0) {
    (forward ? eof_ : bof_) = true;  // the cursor stays on the row at the edge
  } else {
    recno_ = found;
    eof_ = bof_ = false;
  }
  return true;
}

void Cursor::toEdge(bool last) {
  file_->syncWithDisk();
  if (!moveUnranked([&] { return edgeUnranked(last); })) {
    if (unranked_) rank();
    revalidate();
    const size_t size = viewSize();
    if (size == 0) return;
    moveTo(last ? size - 1 : 0);
  }
  (last ? eof_ : bof_) = true;
}

void Cursor::first() { toEdge(false); }

void Cursor::last() { toEdge(true); }

void Cursor::next() {
  if (stepUnranked(true)) return;
  revalidate();
  const size_t size = viewSize();
  if (size == 0) return;
  if (index_ + 1 < size)
    moveTo(index_ + 1);
  else
    eof_ = true;
}

void Cursor::prior() {
  if (stepUnranked(false)) return;
  revalidate();
  if (viewSize() == 0) return;
  if (index_ > 0)
    moveTo(index_ - 1);
  else
    bof_ = true;
}

bool Cursor::empty() {
  // Where the order serves without ranks its first row answers: counting
  // would read every row of a table whose deleted rows are not known yet.
  if (unrankedOrder()) {
    file_->syncWithDisk();
    const uint32_t first = edgeUnranked(false);
    if (first != Tag::kLost) return first == 0;
  }
  return count() == 0;
}

size_t Cursor::count() {
  if (unranked_) rank();
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
  if (unranked_) rank();
  revalidate();
  return index_;
}

uint32_t Cursor::recnoAt(size_t index) {
  if (unranked_) rank();
  revalidate();
  return index < viewSize() ? viewRecno(index) : 0;
}

bool Cursor::gotoRecno(uint32_t recno) {
  if (unranked_ && stillUnranked()) {
    if (!showsUnranked(recno)) return false;
    recno_ = recno;
    eof_ = bof_ = false;
    return true;
  }
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
  file_->syncWithDisk();
  std::string key;
  const bool possible = tag_->searchKey(order_, values, !exact, key);
  if (!filter_ && tag_->unranked()) {
    if (exact && !possible) return false;
    std::string found;
    uint32_t at = tag_->rowAtOrAfter(key, found);
    if (at != Tag::kLost && exact && (at == 0 || !found.starts_with(key))) return false;  // the cursor stays
    if (at == 0) at = tag_->edgeRow(true);  // nothing at or after: the last row
    if (at == 0) return false;              // an empty view
    if (at != Tag::kLost) {
      standUnranked(at);
      return true;
    }
  }
  if (unranked_) rank();
  revalidate();
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
