#include "dbase/core/ordered_keys.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <tuple>

#include "dbase/core/error.h"

namespace dbase {

uint64_t keyWordAt(std::string_view k, size_t depth) {
  uint64_t w = 0;
  if (k.size() >= depth + 8) {
    std::memcpy(&w, k.data() + depth, 8);
    return __builtin_bswap64(w);
  }
  for (size_t i = depth; i < k.size(); ++i) w |= uint64_t(uint8_t(k[i])) << (56 - 8 * (i - depth));
  return w;
}

OrderedKeys::OrderedKeys(std::string fileName) : fileName_(std::move(fileName)) {}

void OrderedKeys::clear(uint32_t lastRecno) {
  arena_.clear();
  garbage_ = 0;
  keyRef_.assign(size_t(lastRecno) + 1, 0);
  chunks_.clear();
  lastProbe_.clear();
  chunkLast_.clear();
  prefix_.clear();
  size_ = 0;
  countsStale_ = true;
  ++layout_;
}

OrderedKeys::Ref OrderedKeys::store(std::string_view key) {
  if (key.size() > kMaxKeyLength) throw Error(ErrorKind::NotSupported, fileName_, "clave de índice demasiado larga");
  const Ref ref = (Ref(arena_.size()) << kLengthBits) | key.size();
  arena_.append(key);
  if (size_ != 0 && narrowPrefix(key)) reword();
  return ref;
}

void OrderedKeys::setKey(uint32_t recno, std::string_view key) {
  // Re-keyed rows leave their old key behind; compact when that may be most of it.
  garbage_ += slot(recno) & kMaxKeyLength;
  if (arena_.size() > (1u << 20) && 2 * garbage_ > arena_.size()) compactArena();
  if (size_ == 0) prefix_ = key;
  const Ref ref = store(key);
  keyRef_[recno] = ref;
}

void OrderedKeys::forgetKey(uint32_t recno) {
  if (recno >= keyRef_.size()) return;
  garbage_ += keyRef_[recno] & kMaxKeyLength;
  keyRef_[recno] = 0;
}

bool OrderedKeys::narrowPrefix(std::string_view key) {
  size_t n = 0;
  const size_t most = std::min(prefix_.size(), key.size());
  while (n < most && prefix_[n] == key[n]) ++n;
  if (n == prefix_.size()) return false;
  prefix_.resize(n);
  return true;
}

// The common prefix changed: every word starts elsewhere.
void OrderedKeys::reword() {
  for (size_t c = 0; c < chunks_.size(); ++c) {
    Chunk& chunk = *chunks_[c];
    for (size_t i = 0; i < chunk.recnos.size(); ++i) chunk.probes[i] = probeOf(chunk.recnos[i]);
    if (!chunk.probes.empty()) lastProbe_[c] = chunk.probes.back();
  }
}

// Keeps the keys of the rows in the order, equal neighbours once.
void OrderedKeys::compactArena() {
  std::string compact;
  compact.reserve(arena_.size() - std::min(garbage_, arena_.size()));
  std::vector<Ref> refs(keyRef_.size(), 0);
  Ref lastOld = ~Ref(0), lastNew = 0;
  for (const auto& chunk : chunks_)
    for (uint32_t r : chunk->recnos) {
      const Ref old = keyRef_[r];
      if (old != lastOld) {
        const std::string_view k = keyAt(old);
        const size_t lastLength = size_t(lastNew & kMaxKeyLength);
        if (lastOld == ~Ref(0) || k != std::string_view(compact).substr(size_t(lastNew >> kLengthBits), lastLength)) {
          lastNew = (Ref(compact.size()) << kLengthBits) | k.size();
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

OrderedKeys::Probe OrderedKeys::probeOf(uint32_t recno) const {
  return {keyWordAt(keyOf(recno), prefix_.size()), keyRef_[recno]};
}

void OrderedKeys::assign(const std::vector<uint32_t>& order) {
  prefix_.clear();
  if (!order.empty()) {
    prefix_ = keyOf(order.front());  // in order: what the first and last share, all share
    narrowPrefix(keyOf(order.back()));
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
  countsStale_ = true;
  ++layout_;
}

size_t OrderedKeys::memoryBytes() const {
  size_t bytes = sizeof *this + arena_.capacity() + keyRef_.capacity() * sizeof(Ref) +
                 chunks_.capacity() * (sizeof(Chunk) + sizeof(void*)) + lastProbe_.capacity() * sizeof(Probe) +
                 chunkLast_.capacity() * sizeof(uint32_t) + counts_.capacity() * sizeof(uint32_t) + prefix_.capacity();
  // Chunks are estimated (half to full, as they fill and split): counting
  // them one by one would visit every chunk of a large table.
  bytes += chunks_.size() * (sizeof(Chunk) + 64) + size_ * (sizeof(uint32_t) + sizeof(Probe)) * 3 / 2;
  return bytes;
}

void OrderedKeys::ensureCounts() {
  if (!countsStale_) return;
  const size_t n = chunks_.size();
  counts_.assign(n + 1, 0);
  for (size_t i = 1; i <= n; ++i) {
    counts_[i] += uint32_t(chunks_[i - 1]->recnos.size());
    const size_t parent = i + (i & (~i + 1));
    if (parent <= n) counts_[parent] += counts_[i];
  }
  countsStale_ = false;
}

void OrderedKeys::addCount(size_t chunk, int delta) {
  if (countsStale_) return;
  for (size_t i = chunk + 1; i < counts_.size(); i += i & (~i + 1)) counts_[i] += uint32_t(delta);
}

// Rank of the chunk's first entry.
size_t OrderedKeys::startOf(size_t chunk) const {
  size_t rank = 0;
  for (size_t i = chunk; i > 0; i -= i & (~i + 1)) rank += counts_[i];
  return rank;
}

// The chunk holding a rank, and the rank's place in it.
std::pair<size_t, size_t> OrderedKeys::chunkAt(size_t rank) const {
  size_t chunk = 0;
  for (size_t step = std::bit_floor(counts_.size() - 1); step > 0; step >>= 1)
    if (chunk + step < counts_.size() && counts_[chunk + step] <= rank) {
      chunk += step;
      rank -= counts_[chunk];
    }
  return {chunk, rank};
}

uint32_t OrderedKeys::recnoAt(size_t rank) {
  ensureCounts();
  const auto [c, i] = chunkAt(rank);
  return chunks_[c]->recnos[i];
}

std::pair<size_t, size_t> OrderedKeys::locate(std::string_view key, uint32_t recno, Ref ref) const {
  // Keys past the prefix every key shares compare on their next eight bytes
  // first (kept beside the record numbers), on the whole key only when those
  // are equal. A key without that prefix compares whole.
  const bool shared = key.starts_with(prefix_);
  const size_t skip = shared ? prefix_.size() : 0;
  const std::string_view rest = key.substr(skip);
  const uint64_t word = shared ? keyWordAt(key, skip) : 0;
  Ref equalRef = ref;  // a stored key found equal to `key`
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

void OrderedKeys::remember(uint32_t recno, size_t chunk, size_t index) {
  hints_[nextHint_] = {recno, uint32_t(chunk), uint32_t(index), layout_};
  nextHint_ = (nextHint_ + 1) % (sizeof hints_ / sizeof hints_[0]);
}

// A row remembered where it was, or one place off (a row inserted or removed
// before it in the same chunk since).
bool OrderedKeys::recall(uint32_t recno, size_t& chunk, size_t& index) const {
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

bool OrderedKeys::find(uint32_t recno, size_t& chunk, size_t& index) const {
  if (!hasKey(recno)) return false;
  if (recall(recno, chunk, index)) return true;
  std::tie(chunk, index) = locate(keyOf(recno), recno, keyRef_[recno]);
  return chunk < chunks_.size() && chunks_[chunk]->recnos[index] == recno;
}

size_t OrderedKeys::lowerBound(std::string_view key) {
  ensureCounts();
  auto [c, i] = locate(key, 0);
  return c == chunks_.size() ? size_ : startOf(c) + i;
}

size_t OrderedKeys::rankOf(uint32_t recno) {
  ensureCounts();
  size_t c, i;
  if (!find(recno, c, i)) return size_;
  remember(recno, c, i);
  return startOf(c) + i;
}

bool OrderedKeys::heldByAnother(std::string_view key, uint32_t recno) {
  auto [c, i] = locate(key, 0);
  // Rows with the key lie from here on, the row itself among them at most once.
  for (int seen = 0; seen < 2;) {
    if (c == chunks_.size()) return false;
    if (i == chunks_[c]->recnos.size()) {  // chunks are never empty: the next one has a row
      ++c;
      i = 0;
      continue;
    }
    const uint32_t other = chunks_[c]->recnos[i++];
    if (keyOf(other) != key) return false;
    if (other != recno) return true;
    ++seen;
  }
  return false;
}

void OrderedKeys::appendAll(std::vector<uint32_t>& out) const {
  out.reserve(out.size() + size_);
  for (const auto& chunk : chunks_) out.insert(out.end(), chunk->recnos.begin(), chunk->recnos.end());
}

void OrderedKeys::insert(uint32_t recno) {
  const std::string_view key = keyOf(recno);
  if (chunks_.empty()) {  // the first row
    prefix_ = key;
    chunks_.push_back(std::make_unique<Chunk>());
    chunks_[0]->recnos.push_back(recno);
    chunks_[0]->probes.push_back(probeOf(recno));
    lastProbe_.assign(1, chunks_[0]->probes[0]);
    chunkLast_.assign(1, recno);
    size_ = 1;
    ++layout_;
    countsStale_ = true;
    remember(recno, 0, 0);
    return;
  }
  auto [c, i] = locate(key, recno, keyRef_[recno]);
  if (c < chunks_.size() && chunks_[c]->recnos[i] == recno) return;  // held already
  if (c == chunks_.size()) {  // after everything: end of the last chunk
    c = chunks_.size() - 1;
    i = chunks_[c]->recnos.size();
  }
  Chunk& chunk = *chunks_[c];
  const uint64_t word = keyWordAt(key, prefix_.size());
  // A key equal to the row's neighbour's is stored once: when it was the last
  // one stored, it goes back off the arena.
  const uint32_t neighbour = i > 0 ? chunk.recnos[i - 1] : i < chunk.recnos.size() ? chunk.recnos[i] : 0;
  if (neighbour && (keyRef_[recno] >> kLengthBits) + key.size() == arena_.size() && keyOf(neighbour) == key) {
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
  remember(recno, c, i);
}

bool OrderedKeys::remove(uint32_t recno) {
  size_t c, i;
  if (!find(recno, c, i)) return false;
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
    return true;
  }
  lastProbe_[c] = chunk.probes.back();
  chunkLast_[c] = chunk.recnos.back();
  addCount(c, -1);
  return true;
}

}  // namespace dbase
