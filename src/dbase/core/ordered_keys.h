// The rows a tag holds, in the order of their keys: what both kinds of tag
// (the ones the engine builds, the ones read from an index file) keep in
// memory to answer a cursor.
//
// Keys are byte strings whose memcmp order is the tag's order, kept per record
// number in one arena; rows with equal keys are ranked by record number. The
// order is a list of sorted chunks of record numbers, so inserting a row costs
// a binary search and a move inside one chunk of at most kMaxChunk entries, not
// a move of the whole order. Beside each record number lies a probe: the eight
// key bytes past the prefix every key shares, so a search compares integers
// and reads a whole key only where those are equal. Chunk sizes are counted in
// a Fenwick tree, so a rank costs O(log chunks) wherever rows were inserted.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace dbase {

// Eight key bytes from `depth` on as a big-endian integer, zero-padded: keys
// compare as these words do, eight bytes at a time.
uint64_t keyWordAt(std::string_view key, size_t depth);

class OrderedKeys {
 public:
  // Where a key is stored: offset in the arena << kLengthBits | length.
  using Ref = uint64_t;
  static constexpr unsigned kLengthBits = 24;
  static constexpr size_t kMaxKeyLength = (size_t(1) << kLengthBits) - 1;

  // `fileName` names the table in errors (a key too long to keep).
  explicit OrderedKeys(std::string fileName);

  // Forgets every key and the order; record numbers up to `lastRecno` expected.
  void clear(uint32_t lastRecno);

  // Keys. A row's key is stored before the row goes into the order, and stays
  // until it is replaced or forgotten (a row left out of the order may keep one).
  Ref store(std::string_view key);  // a key several rows may share
  void setRef(uint32_t recno, Ref ref) { slot(recno) = ref; }
  void setKey(uint32_t recno, std::string_view key);  // replaces the row's key
  void forgetKey(uint32_t recno);
  bool hasKey(uint32_t recno) const { return recno < keyRef_.size() && (keyRef_[recno] & kMaxKeyLength) != 0; }
  // Empty when the row has none.
  std::string_view keyOf(uint32_t recno) const { return recno < keyRef_.size() ? keyAt(keyRef_[recno]) : std::string_view(); }

  // The order. assign() takes every row in order, keys already set.
  void assign(const std::vector<uint32_t>& order);
  // Puts a row with its key into its place; returns false (and changes
  // nothing) when the order holds it already.
  void insert(uint32_t recno);
  // Takes a row out of the order (its key stays); false when it was not in it.
  bool remove(uint32_t recno);

  size_t size() const { return size_; }
  uint32_t recnoAt(size_t rank);
  // First rank whose key is >= key (size() when none).
  size_t lowerBound(std::string_view key);
  // Rank of a row the order holds; size() when it does not.
  size_t rankOf(uint32_t recno);
  // Whether a row other than `recno` has exactly this key.
  bool heldByAnother(std::string_view key, uint32_t recno);
  void appendAll(std::vector<uint32_t>& out) const;
  // Bytes of memory held, about.
  size_t memoryBytes() const;

 private:
  static constexpr size_t kMaxChunk = 128;
  struct Probe {
    uint64_t word;
    Ref ref;
  };
  // A chunk's rows in order, with their probes.
  struct Chunk {
    std::vector<uint32_t> recnos;
    std::vector<Probe> probes;
  };
  // Where rows were last seen (an insert, then the cursor finding the new
  // row and the one it was on): checked before searching.
  struct Hint {
    uint32_t recno = 0;
    uint32_t chunk = 0;
    uint32_t index = 0;
    uint64_t layout = 0;
  };

  std::string_view keyAt(Ref ref) const {
    return std::string_view(arena_.data() + (ref >> kLengthBits), size_t(ref & kMaxKeyLength));
  }
  Ref& slot(uint32_t recno) {
    if (keyRef_.size() <= recno) keyRef_.resize(size_t(recno) + 1, 0);
    return keyRef_[recno];
  }
  Probe probeOf(uint32_t recno) const;
  bool narrowPrefix(std::string_view key);
  void reword();
  void compactArena();
  // Chunk holding the first entry not before (key, recno); with recno 0 the
  // first entry whose key is >= key. `ref`, when known, is where the key is
  // stored: keys stored once for many rows then compare equal without reading.
  std::pair<size_t, size_t> locate(std::string_view key, uint32_t recno, Ref ref = ~Ref(0)) const;
  bool find(uint32_t recno, size_t& chunk, size_t& index) const;
  void ensureCounts();
  void addCount(size_t chunk, int delta);
  size_t startOf(size_t chunk) const;
  std::pair<size_t, size_t> chunkAt(size_t rank) const;
  void remember(uint32_t recno, size_t chunk, size_t index);
  bool recall(uint32_t recno, size_t& chunk, size_t& index) const;

  std::string fileName_;
  std::string arena_;
  size_t garbage_ = 0;         // arena bytes of replaced keys (an upper bound: keys are shared)
  std::vector<Ref> keyRef_;    // by record number (0: no key)
  std::vector<std::unique_ptr<Chunk>> chunks_;  // by pointer: a split moves pointers
  std::vector<Probe> lastProbe_;                 // of each chunk's last row
  std::vector<uint32_t> chunkLast_;              // each chunk's last row
  std::vector<uint32_t> counts_;                 // Fenwick tree of the chunk sizes (1-based)
  bool countsStale_ = true;
  size_t size_ = 0;
  // Bytes every key in the order starts with (a province file's street tag:
  // the province and more), skipped when comparing.
  std::string prefix_;
  Hint hints_[4];
  size_t nextHint_ = 0;
  uint64_t layout_ = 1;  // changes whenever chunks are split, removed or rebuilt
};

}  // namespace dbase
