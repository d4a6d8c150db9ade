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

// Sorts entries [b, e), which share their first `depth` key bytes, into key
// order: 8 key bytes at a time, so most comparisons are integer ones and the
// keys are read sequentially. Equal keys end up next to each other.
template <class KeyOf>
void sortByKey(Entry* b, Entry* e, size_t depth, const KeyOf& keyOf) {
  while (e - b > 1) {
    bool ordered = true, equal = true;
    b->word = keyWordAt(keyOf(b->id), depth);
    for (Entry* p = b + 1; p < e; ++p) {
      p->word = keyWordAt(keyOf(p->id), depth);
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

IndexTag::IndexTag(const DbfFile& file, std::vector<int> fields)
    : file_(file), fields_(std::move(fields)), rows_(file.name()) {}

void IndexTag::ensureBuilt() {
  if (!built_)
    build();
  else if (pendingFrom_)
    catchUp();
  quietInserts_ = 0;
}

// Places the rows appended while nobody asked: one by one when few, by
// building again when they are more than an eighth of the tag.
void IndexTag::catchUp() {
  const uint32_t from = pendingFrom_;
  pendingFrom_ = 0;
  const uint32_t last = file_.recordCount();
  if (from > last) return;
  const size_t pending = size_t(last - from) + 1;
  if (8 * pending > rows_.size() + pending) return build();
  for (uint32_t r = from; r <= last; ++r) place(r, nullptr);
}

void IndexTag::build() {
  file_.readAllRows();  // every row is looked at: cheaper all at once than block by block
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
  rows_.clear(count);
  std::vector<uint32_t> order(n);
  std::vector<uint32_t> rankOfField(fields_.size());
  auto storeTuple = [&]() -> uint64_t {
    scratch_.clear();
    for (size_t i = 0; i < fields_.size(); ++i) scratch_.append(ranks[source[i]].key(rankOfField[i]));
    return rows_.store(scratch_);
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
      rows_.setRef(order[k], ref);
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
      rows_.setRef(order[k], ref);
    }
  }

  rows_.assign(order);
  built_ = true;
  pendingFrom_ = 0;
  quietInserts_ = 0;
}

void IndexTag::storeKey(uint32_t recno, const char* record, RowKeys* keys) {
  scratch_.clear();
  if (keys)
    keys->appendKey(fields_, scratch_);
  else
    appendRecordKey(file_, fields_, record, scratch_);
  rows_.setKey(recno, scratch_);
}

size_t IndexTag::memoryBytes() const { return sizeof *this + rows_.memoryBytes() + scratch_.capacity(); }

size_t IndexTag::size() {
  ensureBuilt();
  return rows_.size();
}

uint32_t IndexTag::recnoAt(size_t rank) {
  ensureBuilt();
  return rows_.recnoAt(rank);
}

size_t IndexTag::lowerBound(std::string_view key) {
  ensureBuilt();
  return rows_.lowerBound(key);
}

std::string_view IndexTag::keyOf(uint32_t recno) {
  ensureBuilt();
  return rows_.keyOf(recno);
}

void IndexTag::appendAll(std::vector<uint32_t>& out) {
  ensureBuilt();
  rows_.appendAll(out);
}

bool IndexTag::searchKey(const std::vector<int>& fields, const std::vector<std::string>& values, bool partial,
                         std::string& key) {
  return appendSearchKey(file_, fields, values, partial, key);
}

size_t IndexTag::rankOf(uint32_t recno) {
  ensureBuilt();
  if (recno == 0 || recno > file_.recordCount() || file_.isDeleted(recno)) return rows_.size();
  return rows_.rankOf(recno);
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
  rows_.insert(recno);
}

void IndexTag::update(uint32_t recno, const char* oldRecord) {
  if (!built_) return;
  if (pendingFrom_ && recno >= pendingFrom_) return;  // not placed yet: placed as it is then
  const bool wasLive = oldRecord[0] != '*' && rows_.hasKey(recno);
  const bool isLive = !file_.isDeleted(recno);
  if (wasLive && isLive) {
    scratch_.clear();
    appendRecordKey(file_, fields_, file_.record(recno), scratch_);
    if (rows_.keyOf(recno) == scratch_) return;
  }
  if (wasLive) rows_.remove(recno);  // the stored key is still the old one
  if (isLive) place(recno, nullptr);
}

}  // namespace dbase
