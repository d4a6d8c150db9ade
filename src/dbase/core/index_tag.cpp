#include "dbase/core/index_tag.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <tuple>

#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/sort_key.h"

namespace dbase {

namespace {

constexpr uint64_t kMaxKeyLength = (uint64_t(1) << 24) - 1;

uint64_t hashBytes(const char* p, size_t n) {
  uint64_t h = 0x9E3779B97F4A7C15ull ^ n;
  for (; n >= 8; p += 8, n -= 8) {
    uint64_t w;
    std::memcpy(&w, p, 8);
    h = (h ^ w) * 0xBF58476D1CE4E5B9ull;
    h ^= h >> 29;
  }
  if (n) {
    uint64_t w = 0;
    std::memcpy(&w, p, n);
    h = (h ^ w) * 0x94D049BB133111EBull;
  }
  h ^= h >> 32;
  h *= 0xBF58476D1CE4E5B9ull;
  return h ^ (h >> 31);
}

// memcmp(a, b, n) == 0 for the short runs of bytes fields are.
inline bool sameBytes(const char* a, const char* b, size_t n) {
  uint64_t x, y;
  if (n >= 8) {
    for (size_t i = 0; i + 8 <= n; i += 8) {
      std::memcpy(&x, a + i, 8);
      std::memcpy(&y, b + i, 8);
      if (x != y) return false;
    }
    std::memcpy(&x, a + n - 8, 8);  // the tail, overlapping
    std::memcpy(&y, b + n - 8, 8);
    return x == y;
  }
  if (n >= 4) {
    uint32_t p, q, r, t;
    std::memcpy(&p, a, 4);
    std::memcpy(&q, b, 4);
    std::memcpy(&r, a + n - 4, 4);
    std::memcpy(&t, b + n - 4, 4);
    return p == q && r == t;
  }
  for (size_t i = 0; i < n; ++i)
    if (a[i] != b[i]) return false;
  return true;
}

struct Entry {
  uint64_t word;  // 8 key bytes at the depth being sorted, big-endian, zero-padded
  uint32_t id;
};

uint64_t wordAt(std::string_view k, size_t depth) {
  uint64_t w = 0;
  if (k.size() >= depth + 8) {
    std::memcpy(&w, k.data() + depth, 8);
    return __builtin_bswap64(w);
  }
  for (size_t i = depth; i < k.size(); ++i) w |= uint64_t(uint8_t(k[i])) << (56 - 8 * (i - depth));
  return w;
}

// Sorts entries [b, e), which share their first `depth` key bytes, into key
// order: 8 key bytes at a time, so most comparisons are integer ones and the
// keys are read sequentially. Equal keys end up next to each other.
template <class KeyOf>
void sortByKey(Entry* b, Entry* e, size_t depth, const KeyOf& keyOf) {
  while (e - b > 1) {
    bool ordered = true, equal = true;
    b->word = wordAt(keyOf(b->id), depth);
    for (Entry* p = b + 1; p < e; ++p) {
      p->word = wordAt(keyOf(p->id), depth);
      ordered &= p[-1].word <= p->word;
      equal &= p->word == b->word;
    }
    if (!ordered) {
      auto less = [](const Entry& x, const Entry& y) { return x.word != y.word ? x.word < y.word : x.id < y.id; };
      const size_t n = size_t(e - b);
      if (n > 4096) {
        // Many keys (a field of names): one counting pass on the word's top
        // 16 bits, then small sorts.
        std::vector<Entry> sorted(n);
        std::vector<uint32_t> next((size_t(1) << 16) + 1, 0);
        for (const Entry* p = b; p < e; ++p) ++next[(p->word >> 48) + 1];
        for (size_t k = 1; k < next.size(); ++k) next[k] += next[k - 1];
        for (const Entry* p = b; p < e; ++p) sorted[next[p->word >> 48]++] = *p;
        std::copy(sorted.begin(), sorted.end(), b);
        for (size_t k = 0, from = 0; k < (size_t(1) << 16); from = next[k++])
          if (next[k] - from > 1) std::sort(b + from, b + next[k], less);
      } else {
        std::sort(b, e, less);
      }
    }
    // Equal words: keys that end within them first, shorter first (they are
    // prefixes of the rest); returns where the keys that go on start.
    auto settle = [&](Entry* gb, Entry* ge) -> Entry* {
      Entry* cont = std::stable_partition(gb, ge, [&](const Entry& x) { return keyOf(x.id).size() <= depth + 8; });
      std::stable_sort(gb, cont, [&](const Entry& x, const Entry& y) { return keyOf(x.id).size() < keyOf(y.id).size(); });
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
      if (h - g > 1) sortByKey(settle(g, h), h, depth + 8, keyOf);
      g = h;
    }
    return;
  }
}

// The distinct raw values of one field, found by hash.
class DistinctValues {
 public:
  DistinctValues(const DbfFile& file, int field)
      : file_(file), offset_(file.fields()[size_t(field)].offset), length_(file.fields()[size_t(field)].length) {}

  uint32_t count() const { return uint32_t(rowOf_.size()); }
  uint32_t rowOf(uint32_t value) const { return rowOf_[value]; }

  // Id of the value this field has in row `recno` (whose record is `record`).
  // A field whose values hardly repeat (names) stops looking them up after a
  // sample: each row then gets an id of its own, and equal values are found
  // equal when their keys are ranked.
  uint32_t idOf(uint32_t recno, const char* record) {
    if (!hashing_) {
      rowOf_.push_back(recno);
      return count() - 1;
    }
    if (++looked_ == kSample && 2 * count() > kSample) hashing_ = false;
    const char* v = record + offset_;
    const uint64_t h = hashBytes(v, length_);
    for (size_t s = size_t(h) & (slots_.size() - 1);; s = (s + 1) & (slots_.size() - 1)) {
      const uint32_t slot = slots_[s];
      if (slot == 0) {
        const uint32_t id = count();
        rowOf_.push_back(recno);
        hashOf_.push_back(h);
        slots_[s] = id + 1;
        if (rowOf_.size() * 2 > slots_.size()) grow();
        return id;
      }
      if (hashOf_[slot - 1] == h && std::memcmp(file_.record(rowOf_[slot - 1]) + offset_, v, length_) == 0)
        return slot - 1;
    }
  }

 private:
  void grow() {
    slots_.assign(slots_.size() * 4, 0);
    for (uint32_t id = 0; id < count(); ++id) {
      size_t s = size_t(hashOf_[id]) & (slots_.size() - 1);
      while (slots_[s]) s = (s + 1) & (slots_.size() - 1);
      slots_[s] = id + 1;
    }
  }

  static constexpr uint32_t kSample = 4096;
  const DbfFile& file_;
  uint32_t offset_, length_;
  bool hashing_ = true;
  uint32_t looked_ = 0;
  std::vector<uint32_t> rowOf_;        // a row holding each value
  std::vector<uint64_t> hashOf_;       // of each value
  std::vector<uint32_t> slots_ = std::vector<uint32_t>(256, 0);  // value id + 1; 0 = empty
};

// One field's distinct keys in order: rows compare on the field as the ranks
// of their values do.
struct FieldRanks {
  std::vector<uint32_t> rankOfValue;  // by value id
  uint32_t count = 0;                 // distinct keys
  std::string keys;                   // the key of each rank, in rank order
  std::vector<uint32_t> keyStart;     // count + 1 offsets into keys
  std::string_view key(uint32_t rank) const {
    return std::string_view(keys).substr(keyStart[rank], keyStart[rank + 1] - keyStart[rank]);
  }
};

// Distinct values with equal keys share a rank.
FieldRanks rankValues(const DbfFile& file, int field, const DistinctValues& values) {
  const uint32_t n = values.count();
  std::string keys;
  std::vector<uint32_t> keyStart(size_t(n) + 1, 0);
  const std::vector<int> one{field};
  for (uint32_t v = 0; v < n; ++v) {
    appendRecordKey(file, one, file.record(values.rowOf(v)), keys);
    keyStart[v + 1] = uint32_t(keys.size());
  }
  auto keyOf = [&](uint32_t v) { return std::string_view(keys).substr(keyStart[v], keyStart[v + 1] - keyStart[v]); };
  std::vector<Entry> sorted(n);
  for (uint32_t v = 0; v < n; ++v) sorted[v] = {0, v};
  sortByKey(sorted.data(), sorted.data() + n, 0, keyOf);
  FieldRanks out;
  out.rankOfValue.resize(n);
  out.keyStart.push_back(0);
  for (uint32_t i = 0; i < n; ++i) {
    const std::string_view k = keyOf(sorted[i].id);
    if (i == 0 || k != keyOf(sorted[i - 1].id)) {
      out.keys.append(k);
      out.keyStart.push_back(uint32_t(out.keys.size()));
    }
    out.rankOfValue[sorted[i].id] = uint32_t(out.keyStart.size() - 2);
  }
  out.count = uint32_t(out.keyStart.size() - 1);
  return out;
}

unsigned bitsFor(uint32_t count) { return count <= 1 ? 0 : unsigned(32 - __builtin_clz(count - 1)); }

// Stable LSD radix sort of `items` on bits [low, low + bits) of digit(item).
template <class T, class Digit>
void radixSort(std::vector<T>& items, unsigned low, unsigned bits, const Digit& digit) {
  if (bits == 0 || items.size() < 2) return;
  const unsigned passes = (bits + 15) / 16;
  const unsigned width = (bits + passes - 1) / passes;
  std::vector<T> spare(items.size());
  std::vector<uint32_t> next((size_t(1) << width) + 1);
  for (unsigned p = 0; p < passes; ++p) {
    const unsigned shift = low + p * width;
    const uint64_t mask = (uint64_t(1) << width) - 1;
    std::fill(next.begin(), next.end(), 0);
    for (const T& item : items) ++next[((digit(item) >> shift) & mask) + 1];
    for (size_t b = 1; b < next.size(); ++b) next[b] += next[b - 1];
    for (const T& item : items) spare[next[(digit(item) >> shift) & mask]++] = item;
    items.swap(spare);
  }
}

}  // namespace

IndexTag::IndexTag(const DbfFile& file, std::vector<int> fields) : file_(file), fields_(std::move(fields)) {}

void IndexTag::ensureBuilt() {
  if (!built_)
    build();
  else if (pendingFrom_)
    catchUp();
  quietInserts_ = 0;
  if (countsStale_) rebuildCounts();
}

// Places the rows appended while nobody asked: one by one when few, by
// building again when they are more than an eighth of the tag.
void IndexTag::catchUp() {
  const uint32_t from = pendingFrom_;
  pendingFrom_ = 0;
  const uint32_t last = file_.recordCount();
  if (from > last) return;
  const size_t pending = size_t(last - from) + 1;
  if (8 * pending > size_ + pending) return build();
  for (uint32_t r = from; r <= last; ++r) place(r, nullptr);
}

void IndexTag::build() {
  const uint32_t count = file_.recordCount();
  std::vector<uint32_t> live(count);
  if (file_.deletedCount() == 0) {  // no need to look at every row's flag
    for (uint32_t r = 1; r <= count; ++r) live[r - 1] = r;
  } else {
    live.clear();
    for (uint32_t r = 1; r <= count; ++r)
      if (!file_.isDeleted(r)) live.push_back(r);
  }
  const size_t n = live.size();

  // Each field once, however often the tag names it: a repeat never decides.
  std::vector<int> unique;
  std::vector<size_t> source(fields_.size());  // of each tag field, in unique
  for (size_t i = 0; i < fields_.size(); ++i) {
    auto at = std::find(unique.begin(), unique.end(), fields_[i]);
    source[i] = size_t(at - unique.begin());
    if (at == unique.end()) unique.push_back(fields_[i]);
  }

  // One walk over the rows gives every field's value ids; a value equal to
  // the previous row's (runs are most of a reference table) is not hashed.
  std::vector<DistinctValues> values;
  values.reserve(unique.size());
  std::vector<uint32_t> offset, length;
  for (int f : unique) {
    values.emplace_back(file_, f);
    offset.push_back(file_.fields()[size_t(f)].offset);
    length.push_back(file_.fields()[size_t(f)].length);
  }
  std::vector<std::vector<uint32_t>> ids(unique.size(), std::vector<uint32_t>(n));
  const char* previous = nullptr;
  for (size_t pos = 0; pos < n; ++pos) {
    const char* record = file_.record(live[pos]);
    if (pos + 16 < n) {  // rows are read once, in order: ask for them ahead
      const char* ahead = file_.record(live[pos + 16]);
      for (size_t u = 0; u < unique.size(); ++u) __builtin_prefetch(ahead + offset[u]);
    }
    for (size_t u = 0; u < unique.size(); ++u)
      ids[u][pos] = previous && sameBytes(record + offset[u], previous + offset[u], length[u])
                        ? ids[u][pos - 1]
                        : values[u].idOf(live[pos], record);
    previous = record;
  }
  std::vector<FieldRanks> ranks;
  ranks.reserve(unique.size());
  for (size_t u = 0; u < unique.size(); ++u) ranks.push_back(rankValues(file_, unique[u], values[u]));
  values.clear();

  // Keys compare field by field (each field's key ends itself), so rows are in
  // key order when sorted on their fields' ranks. Sorts are stable from
  // record-number order, so equal keys stay in record-number order.
  std::vector<unsigned> bits(unique.size()), shift(unique.size());
  unsigned total = 0;
  for (size_t u = unique.size(); u-- > 0;) {  // the last field in the lowest bits
    bits[u] = bitsFor(ranks[u].count);
    shift[u] = total;
    total += bits[u];
  }
  arena_.clear();
  garbage_ = 0;
  keyRef_.assign(size_t(count) + 1, 0);
  std::vector<uint32_t> order(n);
  std::vector<uint32_t> rankOfField(fields_.size());
  auto storeTuple = [&]() -> uint64_t {
    const size_t start = arena_.size();
    for (size_t i = 0; i < fields_.size(); ++i) arena_.append(ranks[source[i]].key(rankOfField[i]));
    if (arena_.size() - start > kMaxKeyLength)
      throw Error(ErrorKind::NotSupported, file_.name(), "clave de índice demasiado larga");
    return (uint64_t(start) << kLengthBits) | (arena_.size() - start);
  };
  if (total <= 32) {
    // Ranks packed above the record number: one radix sort on the ranks.
    std::vector<uint64_t> items(n);
    for (size_t pos = 0; pos < n; ++pos) {
      uint64_t packed = 0;
      for (size_t u = 0; u < unique.size(); ++u)
        packed |= uint64_t(ranks[u].rankOfValue[ids[u][pos]]) << shift[u];
      items[pos] = (packed << 32) | live[pos];
    }
    ids.clear();
    radixSort(items, 32, total, [](uint64_t x) { return x; });
    uint64_t ref = 0;
    for (size_t k = 0; k < n; ++k) {
      const uint64_t packed = items[k] >> 32;
      if (k == 0 || packed != items[k - 1] >> 32) {
        for (size_t i = 0; i < fields_.size(); ++i) {
          const size_t u = source[i];
          rankOfField[i] = uint32_t((packed >> shift[u]) & ((uint64_t(1) << bits[u]) - 1));
        }
        ref = storeTuple();
      }
      order[k] = uint32_t(items[k]);
      keyRef_[order[k]] = ref;
    }
  } else {
    // Positions sorted field by field, the last field first.
    for (size_t u = 0; u < unique.size(); ++u)
      for (uint32_t& id : ids[u]) id = ranks[u].rankOfValue[id];
    std::vector<uint32_t> positions(n);
    for (size_t pos = 0; pos < n; ++pos) positions[pos] = uint32_t(pos);
    for (size_t u = unique.size(); u-- > 0;) {
      const std::vector<uint32_t>& rank = ids[u];
      radixSort(positions, 0, bits[u], [&](uint32_t pos) { return rank[pos]; });
    }
    uint64_t ref = 0;
    for (size_t k = 0; k < n; ++k) {
      const uint32_t pos = positions[k];
      bool same = k > 0;
      for (size_t u = 0; same && u < unique.size(); ++u) same = ids[u][pos] == ids[u][positions[k - 1]];
      if (!same) {
        for (size_t i = 0; i < fields_.size(); ++i) rankOfField[i] = ids[source[i]][pos];
        ref = storeTuple();
      }
      order[k] = live[pos];
      keyRef_[order[k]] = ref;
    }
  }

  prefix_.clear();
  if (!order.empty()) {
    prefix_ = storedKey(order.front());  // in order: what the first and last share, all share
    narrowPrefix(storedKey(order.back()));
  }

  chunks_.clear();
  lastProbe_.clear();
  chunkLast_.clear();
  const size_t per = kMaxChunk / 2;
  for (size_t i = 0; i < order.size(); i += per) {
    auto made = std::make_unique<Chunk>();  // exactly as large as built: the first insert makes room
    Chunk& chunk = *made;
    chunk.recnos.reserve(std::min(order.size(), i + per) - i);
    chunk.probes.reserve(chunk.recnos.capacity());
    for (size_t j = i; j < std::min(order.size(), i + per); ++j) {
      chunk.recnos.push_back(order[j]);
      chunk.probes.push_back(probeOf(order[j]));
    }
    lastProbe_.push_back(chunk.probes.back());
    chunkLast_.push_back(chunk.recnos.back());
    chunks_.push_back(std::move(made));
  }
  size_ = order.size();
  built_ = true;
  pendingFrom_ = 0;
  quietInserts_ = 0;
  countsStale_ = true;
  ++layout_;
}

void IndexTag::storeKey(uint32_t recno, const char* record, RowKeys* keys) {
  scratch_.clear();
  if (keys)
    keys->appendKey(fields_, scratch_);
  else
    appendRecordKey(file_, fields_, record, scratch_);
  while (keyRef_.size() <= recno) keyRef_.push_back(0);  // appends: one at a time
  // Re-keyed rows leave their old key behind; compact when that may be most of it.
  garbage_ += keyRef_[recno] & kMaxKeyLength;
  if (arena_.size() > (1u << 20) && 2 * garbage_ > arena_.size()) compactArena();
  if (scratch_.size() > kMaxKeyLength) throw Error(ErrorKind::NotSupported, file_.name(), "clave de índice demasiado larga");
  keyRef_[recno] = (uint64_t(arena_.size()) << kLengthBits) | scratch_.size();
  arena_.append(scratch_);
  if (size_ == 0) {
    prefix_ = scratch_;
    reword();
  } else if (narrowPrefix(scratch_)) {
    reword();
  }
}

bool IndexTag::narrowPrefix(std::string_view key) {
  size_t n = 0;
  const size_t most = std::min(prefix_.size(), key.size());
  while (n < most && prefix_[n] == key[n]) ++n;
  if (n == prefix_.size()) return false;
  prefix_.resize(n);
  return true;
}

// The common prefix changed: every word starts elsewhere.
void IndexTag::reword() {
  for (size_t c = 0; c < chunks_.size(); ++c) {
    Chunk& chunk = *chunks_[c];
    for (size_t i = 0; i < chunk.recnos.size(); ++i) chunk.probes[i] = probeOf(chunk.recnos[i]);
    if (!chunk.probes.empty()) lastProbe_[c] = chunk.probes.back();
  }
}

// Keeps the keys of the rows in the tag, equal neighbours once.
void IndexTag::compactArena() {
  std::string compact;
  compact.reserve(arena_.size() - std::min(garbage_, arena_.size()));
  std::vector<uint64_t> refs(keyRef_.size(), 0);
  uint64_t lastOld = ~uint64_t(0), lastNew = 0;
  for (const auto& chunk : chunks_)
    for (uint32_t r : chunk->recnos) {
      const uint64_t old = keyRef_[r];
      if (old != lastOld) {
        const std::string_view k = storedKey(r);
        const size_t lastLength = size_t(lastNew & kMaxKeyLength);
        if (lastOld == ~uint64_t(0) || k != std::string_view(compact).substr(size_t(lastNew >> kLengthBits), lastLength)) {
          lastNew = (uint64_t(compact.size()) << kLengthBits) | k.size();
          compact.append(k);
        }
        lastOld = old;
      }
      refs[r] = lastNew;
    }
  arena_.swap(compact);
  keyRef_.swap(refs);
  garbage_ = 0;
  for (size_t c = 0; c < chunks_.size(); ++c) {
    Chunk& chunk = *chunks_[c];
    for (size_t i = 0; i < chunk.recnos.size(); ++i) chunk.probes[i].ref = keyRef_[chunk.recnos[i]];
    lastProbe_[c].ref = chunk.probes.back().ref;
  }
}

IndexTag::Probe IndexTag::probeOf(uint32_t recno) const {
  return {wordAt(storedKey(recno), prefix_.size()), keyRef_[recno]};
}

size_t IndexTag::memoryBytes() const {
  size_t bytes = sizeof *this + arena_.capacity() + keyRef_.capacity() * sizeof(uint64_t) +
                 chunks_.capacity() * (sizeof(Chunk) + sizeof(void*)) + lastProbe_.capacity() * sizeof(Probe) +
                 chunkLast_.capacity() * sizeof(uint32_t) + counts_.capacity() * sizeof(uint32_t) +
                 scratch_.capacity() + prefix_.capacity();
  // Chunks are estimated (half to full, as they fill and split): counting
  // them one by one would visit every chunk of a large table.
  bytes += chunks_.size() * (sizeof(Chunk) + 64) + size_ * (sizeof(uint32_t) + sizeof(Probe)) * 3 / 2;
  return bytes;
}

void IndexTag::rebuildCounts() {
  const size_t n = chunks_.size();
  counts_.assign(n + 1, 0);
  for (size_t i = 1; i <= n; ++i) {
    counts_[i] += uint32_t(chunks_[i - 1]->recnos.size());
    const size_t parent = i + (i & (~i + 1));
    if (parent <= n) counts_[parent] += counts_[i];
  }
  countsStale_ = false;
}

void IndexTag::addCount(size_t chunk, int delta) {
  if (countsStale_) return;
  for (size_t i = chunk + 1; i < counts_.size(); i += i & (~i + 1)) counts_[i] += uint32_t(delta);
}

// Rank of the chunk's first entry.
size_t IndexTag::startOf(size_t chunk) const {
  size_t rank = 0;
  for (size_t i = chunk; i > 0; i -= i & (~i + 1)) rank += counts_[i];
  return rank;
}

// The chunk holding a rank, and the rank's place in it.
std::pair<size_t, size_t> IndexTag::chunkAt(size_t rank) const {
  size_t chunk = 0;
  for (size_t step = std::bit_floor(counts_.size() - 1); step > 0; step >>= 1)
    if (chunk + step < counts_.size() && counts_[chunk + step] <= rank) {
      chunk += step;
      rank -= counts_[chunk];
    }
  return {chunk, rank};
}

size_t IndexTag::size() {
  ensureBuilt();
  return size_;
}

uint32_t IndexTag::recnoAt(size_t rank) {
  ensureBuilt();
  const auto [c, i] = chunkAt(rank);
  return chunks_[c]->recnos[i];
}

std::pair<size_t, size_t> IndexTag::locate(std::string_view key, uint32_t recno, uint64_t ref) const {
  // Keys past the prefix every key shares compare on their next eight bytes
  // first (kept beside the record numbers), on the whole key only when those
  // are equal. A key without that prefix compares whole.
  const bool shared = key.starts_with(prefix_);
  const size_t skip = shared ? prefix_.size() : 0;
  const std::string_view rest = key.substr(skip);
  const uint64_t word = shared ? wordAt(key, skip) : 0;
  uint64_t equalRef = ref;  // a stored key found equal to `key`
  auto notBefore = [&](const Probe& p, uint32_t r) {  // entry r is at or after (key, recno)
    if (shared && p.word != word) return p.word > word;
    int c = 0;
    if (p.ref != equalRef) {
      c = keyAt(p.ref).substr(skip).compare(rest);
      if (c == 0) equalRef = p.ref;
    }
    return c > 0 || (c == 0 && r >= recno);
  };
  // First chunk whose last entry is at or after the target.
  size_t lo = 0, hi = chunks_.size();
  while (lo < hi) {
    const size_t mid = (lo + hi) / 2;
    if (notBefore(lastProbe_[mid], chunkLast_[mid]))
      hi = mid;
    else
      lo = mid + 1;
  }
  if (lo == chunks_.size()) return {lo, 0};
  const Chunk& chunk = *chunks_[lo];
  size_t a = 0, b = chunk.recnos.size();
  while (a < b) {
    const size_t mid = (a + b) / 2;
    if (notBefore(chunk.probes[mid], chunk.recnos[mid]))
      b = mid;
    else
      a = mid + 1;
  }
  return {lo, a};
}

void IndexTag::remember(uint32_t recno, size_t chunk, size_t index) {
  hints_[nextHint_] = {recno, uint32_t(chunk), uint32_t(index), layout_};
  nextHint_ = (nextHint_ + 1) % (sizeof hints_ / sizeof hints_[0]);
}

// A row remembered where it was, or one place off (a row inserted or removed
// before it in the same chunk since).
bool IndexTag::recall(uint32_t recno, size_t& chunk, size_t& index) const {
  for (const Hint& h : hints_) {
    if (h.recno != recno || h.layout != layout_ || h.chunk >= chunks_.size()) continue;
    const auto& entries = chunks_[h.chunk]->recnos;
    for (size_t i : {size_t(h.index), size_t(h.index) + 1, size_t(h.index) - 1})
      if (i < entries.size() && entries[i] == recno) {
        chunk = h.chunk;
        index = i;
        return true;
      }
  }
  return false;
}

size_t IndexTag::lowerBound(std::string_view key) {
  ensureBuilt();
  auto [c, i] = locate(key, 0);
  return c == chunks_.size() ? size_ : startOf(c) + i;
}

std::string_view IndexTag::keyOf(uint32_t recno) {
  ensureBuilt();
  return recno < keyRef_.size() ? storedKey(recno) : std::string_view();
}

void IndexTag::appendAll(std::vector<uint32_t>& out) {
  ensureBuilt();
  out.reserve(out.size() + size_);
  for (const auto& chunk : chunks_) out.insert(out.end(), chunk->recnos.begin(), chunk->recnos.end());
}

bool IndexTag::searchKey(const std::vector<int>& fields, const std::vector<std::string>& values, bool partial,
                         std::string& key) {
  return appendSearchKey(file_, fields, values, partial, key);
}

size_t IndexTag::rankOf(uint32_t recno) {
  ensureBuilt();
  if (recno == 0 || recno > file_.recordCount() || recno >= keyRef_.size() || file_.isDeleted(recno)) return size_;
  size_t c, i;
  if (!recall(recno, c, i)) {
    std::tie(c, i) = locate(storedKey(recno), recno, keyRef_[recno]);
    if (c == chunks_.size() || chunks_[c]->recnos[i] != recno) return size_;
  }
  remember(recno, c, i);
  return startOf(c) + i;
}

std::pair<size_t, size_t> IndexTag::insertOrdered(uint32_t recno) {
  const std::string_view key = storedKey(recno);
  if (chunks_.empty()) {  // the first row
    chunks_.push_back(std::make_unique<Chunk>());
    chunks_[0]->recnos.push_back(recno);
    chunks_[0]->probes.push_back(probeOf(recno));
    lastProbe_.assign(1, chunks_[0]->probes[0]);
    chunkLast_.assign(1, recno);
    size_ = 1;
    ++layout_;
    countsStale_ = true;
    return {0, 0};
  }
  auto [c, i] = locate(key, recno, keyRef_[recno]);
  if (c == chunks_.size()) {  // after everything: end of the last chunk
    c = chunks_.size() - 1;
    i = chunks_[c]->recnos.size();
  }
  Chunk& chunk = *chunks_[c];
  const uint64_t word = wordAt(key, prefix_.size());
  // A key equal to the row's neighbour's is stored once: it was the last one
  // stored, so it goes back off the arena.
  const uint32_t neighbour = i > 0 ? chunk.recnos[i - 1] : i < chunk.recnos.size() ? chunk.recnos[i] : 0;
  if (neighbour && (keyRef_[recno] >> kLengthBits) + key.size() == arena_.size() && storedKey(neighbour) == key) {
    arena_.resize(arena_.size() - key.size());
    keyRef_[recno] = keyRef_[neighbour];
  }
  chunk.recnos.insert(chunk.recnos.begin() + long(i), recno);
  chunk.probes.insert(chunk.probes.begin() + long(i), Probe{word, keyRef_[recno]});
  if (chunk.recnos.size() > kMaxChunk) {
    const size_t half = chunk.recnos.size() / 2;
    auto made = std::make_unique<Chunk>();
    Chunk& upper = *made;
    upper.recnos.reserve(kMaxChunk);
    upper.probes.reserve(kMaxChunk);
    upper.recnos.assign(chunk.recnos.begin() + long(half), chunk.recnos.end());
    upper.probes.assign(chunk.probes.begin() + long(half), chunk.probes.end());
    chunk.recnos.resize(half);
    chunk.probes.resize(half);
    lastProbe_.insert(lastProbe_.begin() + long(c) + 1, upper.probes.back());
    chunkLast_.insert(chunkLast_.begin() + long(c) + 1, upper.recnos.back());
    chunks_.insert(chunks_.begin() + long(c) + 1, std::move(made));
    ++layout_;
    countsStale_ = true;  // a new chunk: counted again when next needed
  }
  lastProbe_[c] = chunks_[c]->probes.back();
  chunkLast_[c] = chunks_[c]->recnos.back();
  if (i >= chunks_[c]->recnos.size()) {  // went to the upper half
    i -= chunks_[c]->recnos.size();
    ++c;
  }
  ++size_;
  addCount(c, 1);
  return {c, i};
}

void IndexTag::removeOrdered(uint32_t recno) {
  auto [c, i] = locate(storedKey(recno), recno, keyRef_[recno]);
  if (c == chunks_.size() || chunks_[c]->recnos[i] != recno) return;
  Chunk& chunk = *chunks_[c];
  chunk.recnos.erase(chunk.recnos.begin() + long(i));
  chunk.probes.erase(chunk.probes.begin() + long(i));
  --size_;
  if (chunk.recnos.empty()) {
    chunks_.erase(chunks_.begin() + long(c));
    lastProbe_.erase(lastProbe_.begin() + long(c));
    chunkLast_.erase(chunkLast_.begin() + long(c));
    ++layout_;
    countsStale_ = true;
    return;
  }
  lastProbe_[c] = chunk.probes.back();
  chunkLast_[c] = chunk.recnos.back();
  addCount(c, -1);
}

void IndexTag::insert(uint32_t recno, RowKeys* keys) {
  if (!built_ || pendingFrom_) return;  // built in full on first use / placed when next asked
  if (++quietInserts_ > kQuietInserts) {
    pendingFrom_ = recno;
    return;
  }
  place(recno, keys);
}

void IndexTag::place(uint32_t recno, RowKeys* keys) {
  if (file_.isDeleted(recno)) return;
  storeKey(recno, file_.record(recno), keys);
  auto [c, i] = insertOrdered(recno);
  remember(recno, c, i);
}

void IndexTag::update(uint32_t recno, const char* oldRecord) {
  if (!built_) return;
  if (pendingFrom_ && recno >= pendingFrom_) return;  // not placed yet: placed as it is then
  const bool wasLive = oldRecord[0] != '*' && recno < keyRef_.size();
  const bool isLive = !file_.isDeleted(recno);
  if (wasLive && isLive) {
    scratch_.clear();
    appendRecordKey(file_, fields_, file_.record(recno), scratch_);
    if (storedKey(recno) == scratch_) return;
  }
  if (wasLive) removeOrdered(recno);  // the stored key is still the old one
  if (isLive) {
    storeKey(recno, file_.record(recno));
    auto [c, i] = insertOrdered(recno);
    remember(recno, c, i);
  }
}

}  // namespace dbase
