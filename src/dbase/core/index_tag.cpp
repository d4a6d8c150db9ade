#include "dbase/core/index_tag.h"

#include <algorithm>
#include <cstring>

#include "dbase/core/dbf_file.h"
#include "dbase/core/sort_key.h"

namespace dbase {

IndexTag::IndexTag(const DbfFile& file, std::vector<int> fields) : file_(file), fields_(std::move(fields)) {}

void IndexTag::ensureBuilt() {
  if (!built_) build();
  if (startsDirty_) refreshStarts();
}

void IndexTag::storeKey(uint32_t recno, const char* record) {
  if (keyOffset_.size() <= recno) {
    keyOffset_.resize(recno + 1, 0);
    keyLength_.resize(recno + 1, 0);
  }
  scratch_.clear();
  appendRecordKey(file_, fields_, record, scratch_);
  // Re-keyed rows leave their old key behind; compact when that is most of it.
  liveBytes_ += scratch_.size();
  liveBytes_ -= keyLength_[recno];
  if (arena_.size() > (1u << 20) && arena_.size() > 2 * liveBytes_) {
    std::string compact;
    compact.reserve(liveBytes_ + scratch_.size());
    for (uint32_t r = 1; r < keyOffset_.size(); ++r) {
      std::string_view k = storedKey(r);
      keyOffset_[r] = compact.size();
      compact.append(k);
    }
    arena_.swap(compact);
  }
  keyOffset_[recno] = arena_.size();
  keyLength_[recno] = uint32_t(scratch_.size());
  arena_.append(scratch_);
}

int IndexTag::compareKey(uint32_t recno, std::string_view key) const {
  return storedKey(recno).compare(key);
}

bool IndexTag::before(uint32_t a, uint32_t b) const {
  int c = storedKey(a).compare(storedKey(b));
  return c < 0 || (c == 0 && a < b);
}

namespace {

struct Entry {
  uint64_t word;  // 8 key bytes at the depth being sorted, big-endian, zero-padded
  uint32_t recno;
};

}  // namespace

uint64_t IndexTag::wordAt(uint32_t recno, size_t depth) const {
  const size_t len = keyLength_[recno];
  const char* k = arena_.data() + keyOffset_[recno];
  uint64_t w = 0;
  if (len >= depth + 8) {
    std::memcpy(&w, k + depth, 8);
    return __builtin_bswap64(w);
  }
  for (size_t i = depth; i < len; ++i) w |= uint64_t(uint8_t(k[i])) << (56 - 8 * (i - depth));
  return w;
}

// Sorts entries [b, e), which share their first `depth` key bytes and are in
// record-number order, into (key, recno) order: 8 key bytes at a time, so
// most comparisons are integer ones and the keys are read sequentially.
void IndexTag::sortFrom(void* begin, void* end, size_t depth) {
  Entry* b = static_cast<Entry*>(begin);
  Entry* e = static_cast<Entry*>(end);
  while (e - b > 1) {
    bool ordered = true, equal = true;
    b->word = wordAt(b->recno, depth);
    for (Entry* p = b + 1; p < e; ++p) {
      p->word = wordAt(p->recno, depth);
      ordered &= p[-1].word <= p->word;
      equal &= p->word == b->word;
    }
    if (!ordered)
      std::sort(b, e, [](const Entry& x, const Entry& y) { return x.word != y.word ? x.word < y.word : x.recno < y.recno; });
    auto settle = [&](Entry* gb, Entry* ge) -> Entry* {
      // Equal words: keys that end within them first (shorter first, then by
      // recno), then the ones that go on; returns where those start.
      Entry* cont = std::stable_partition(gb, ge, [&](const Entry& x) { return keyLength_[x.recno] <= depth + 8; });
      std::stable_sort(gb, cont, [&](const Entry& x, const Entry& y) { return keyLength_[x.recno] < keyLength_[y.recno]; });
      return cont;
    };
    if (equal) {
      b = settle(b, e);
      depth += 8;
      continue;
    }
    for (Entry* g = b; g < e;) {
      Entry* h = g + 1;
      while (h < e && h->word == g->word) ++h;
      if (h - g > 1) sortFrom(settle(g, h), h, depth + 8);
      g = h;
    }
    return;
  }
}

void IndexTag::build() {
  const uint32_t count = file_.recordCount();
  arena_.clear();
  liveBytes_ = 0;
  keyOffset_.assign(size_t(count) + 1, 0);
  keyLength_.assign(size_t(count) + 1, 0);
  std::vector<Entry> entries;
  entries.reserve(count);
  for (uint32_t r = 1; r <= count; ++r) {
    if (file_.isDeleted(r)) continue;
    storeKey(r, file_.record(r));
    entries.push_back({0, r});
    if (entries.size() == 1024) arena_.reserve(arena_.size() / 1024 * 9 / 8 * count + 4096);  // from the first keys
  }
  sortFrom(entries.data(), entries.data() + entries.size(), 0);
  chunks_.clear();
  const size_t per = kMaxChunk / 2;
  for (size_t i = 0; i < entries.size(); i += per) {
    std::vector<uint32_t> chunk;
    chunk.reserve(kMaxChunk);
    for (size_t j = i; j < std::min(entries.size(), i + per); ++j) chunk.push_back(entries[j].recno);
    chunks_.push_back(std::move(chunk));
  }
  size_ = entries.size();
  built_ = true;
  startsDirty_ = true;
}

void IndexTag::refreshStarts() {
  chunkStart_.resize(chunks_.size());
  size_t rank = 0;
  for (size_t c = 0; c < chunks_.size(); ++c) {
    chunkStart_[c] = rank;
    rank += chunks_[c].size();
  }
  startsDirty_ = false;
}

size_t IndexTag::size() {
  ensureBuilt();
  return size_;
}

uint32_t IndexTag::recnoAt(size_t rank) {
  ensureBuilt();
  auto it = std::upper_bound(chunkStart_.begin(), chunkStart_.end(), rank);
  size_t c = size_t(it - chunkStart_.begin()) - 1;
  return chunks_[c][rank - chunkStart_[c]];
}

std::pair<size_t, size_t> IndexTag::locate(std::string_view key, uint32_t recno) const {
  auto notBefore = [&](uint32_t r) {  // entry r is at or after (key, recno)
    int c = compareKey(r, key);
    return c > 0 || (c == 0 && r >= recno);
  };
  // First chunk whose last entry is at or after the target.
  size_t lo = 0, hi = chunks_.size();
  while (lo < hi) {
    size_t mid = (lo + hi) / 2;
    if (notBefore(chunks_[mid].back()))
      hi = mid;
    else
      lo = mid + 1;
  }
  if (lo == chunks_.size()) return {lo, 0};
  const auto& chunk = chunks_[lo];
  size_t a = 0, b = chunk.size();
  while (a < b) {
    size_t mid = (a + b) / 2;
    if (notBefore(chunk[mid]))
      b = mid;
    else
      a = mid + 1;
  }
  return {lo, a};
}

size_t IndexTag::lowerBound(std::string_view key) {
  ensureBuilt();
  auto [c, i] = locate(key, 0);
  return c == chunks_.size() ? size_ : chunkStart_[c] + i;
}

std::string_view IndexTag::keyOf(uint32_t recno) {
  ensureBuilt();
  return storedKey(recno);
}

void IndexTag::appendAll(std::vector<uint32_t>& out) {
  ensureBuilt();
  out.reserve(out.size() + size_);
  for (const auto& chunk : chunks_) out.insert(out.end(), chunk.begin(), chunk.end());
}

size_t IndexTag::rankOf(uint32_t recno) {
  ensureBuilt();
  if (recno == 0 || recno > file_.recordCount() || file_.isDeleted(recno)) return size_;
  auto [c, i] = locate(storedKey(recno), recno);
  if (c == chunks_.size() || chunks_[c][i] != recno) return size_;
  return chunkStart_[c] + i;
}

void IndexTag::insertOrdered(uint32_t recno) {
  if (chunks_.empty()) chunks_.emplace_back();
  auto [c, i] = locate(storedKey(recno), recno);
  if (c == chunks_.size()) {  // after everything: end of the last chunk
    c = chunks_.size() - 1;
    i = chunks_[c].size();
  }
  auto& chunk = chunks_[c];
  chunk.insert(chunk.begin() + long(i), recno);
  if (chunk.size() > kMaxChunk) {
    std::vector<uint32_t> upper(chunk.begin() + long(chunk.size() / 2), chunk.end());
    chunk.resize(chunk.size() / 2);
    chunks_.insert(chunks_.begin() + long(c) + 1, std::move(upper));
    startsDirty_ = true;  // a new chunk: recount
  }
  ++size_;
  if (startsDirty_ || chunkStart_.size() != chunks_.size()) {
    startsDirty_ = true;
    return;
  }
  for (size_t k = c + 1; k < chunkStart_.size(); ++k) ++chunkStart_[k];
}

void IndexTag::removeOrdered(uint32_t recno) {
  auto [c, i] = locate(storedKey(recno), recno);
  if (c == chunks_.size() || chunks_[c][i] != recno) return;
  chunks_[c].erase(chunks_[c].begin() + long(i));
  --size_;
  if (chunks_[c].empty()) {
    chunks_.erase(chunks_.begin() + long(c));
    startsDirty_ = true;
    return;
  }
  if (startsDirty_) return;
  for (size_t k = c + 1; k < chunkStart_.size(); ++k) --chunkStart_[k];
}

void IndexTag::insert(uint32_t recno) {
  if (!built_) return;  // built in full on first use
  if (file_.isDeleted(recno)) return;
  storeKey(recno, file_.record(recno));
  insertOrdered(recno);
}

void IndexTag::update(uint32_t recno, const char* oldRecord) {
  if (!built_) return;
  const bool wasLive = oldRecord[0] != '*';
  const bool isLive = !file_.isDeleted(recno);
  scratch_.clear();
  appendRecordKey(file_, fields_, file_.record(recno), scratch_);
  if (wasLive && isLive && storedKey(recno) == scratch_) return;
  if (wasLive) removeOrdered(recno);  // the stored key is still the old one
  if (isLive) {
    storeKey(recno, file_.record(recno));
    insertOrdered(recno);
  }
}

}  // namespace dbase
