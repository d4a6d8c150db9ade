// A production index (.MDX) changed in place, entry by entry, the way dBase
// keeps it up to date on every row written: keys go into and out of a tag's
// B-tree, nodes split in halves when full, emptied nodes go to the file's
// free list, and every interior key stays the highest key under its child.
//
// Nodes read or changed are kept in memory, each entry's order key worked
// out the first time a search through its node compares it (most entries of
// a node never are), until flush() writes the changed ones back: the blocks
// first, then the tag headers, then the file header. Nothing is
// written before flush(), and every check that can fail on a damaged file
// (pages outside the file, nodes claiming more keys than fit, uneven depth,
// a broken free list) is made before an insert or a removal changes anything
// in memory, so a damaged file raises dbase::Error(Corrupt) naming the file
// and the tag and is left as it was.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "dbase/core/mdx_file.h"

namespace dbase {

class MdxUpdate {
 public:
  // Opens the index file for reading and writing, with the checks
  // MdxFile::open makes (dbase::Error Corrupt or Io naming the file).
  static std::unique_ptr<MdxUpdate> open(const std::string& path);
  ~MdxUpdate();
  MdxUpdate(const MdxUpdate&) = delete;
  MdxUpdate& operator=(const MdxUpdate&) = delete;

  const std::string& name() const { return name_; }  // file name for messages
  uint32_t blockBytes() const { return blockBytes_; }
  uint32_t totalPages() const { return totalPages_; }  // as flush() will write it
  // Root pages and change counters as last flushed.
  const std::vector<MdxTagInfo>& tags() const { return tags_; }

  // How a tag orders its stored keys: the orderable form of a stored key
  // (memcmp order = tag order, a descending tag's inversion already folded
  // in). Must be set for a tag before it is read or changed.
  using OrderKey = std::function<void(std::string_view stored, std::string& out)>;
  void setOrder(size_t tag, OrderKey order);

  // Inserts (key, recno) after every entry whose order key is smaller, or
  // equal with a lower record number. The key is keyLength bytes.
  void insert(size_t tag, std::string_view key, uint32_t recno);
  // The entries of rows appended together: keyLength bytes of key for each
  // record number, the record numbers increasing and higher than any the
  // tag holds. Each goes after every entry of an equal order key without
  // comparing record numbers, and they go in by key order (neighbouring
  // inserts go through the same interior nodes). With `unique`, a row whose
  // key the tag holds already, or an earlier row of these holds, is left out
  // (dBase indexes a key's first row only).
  void insertAppended(size_t tag, std::string_view keys, const std::vector<uint32_t>& recnos, bool unique);
  // Removes the entry with this key and record number; false when there is
  // none (nothing changes).
  bool remove(size_t tag, std::string_view key, uint32_t recno);
  // Whether some entry's order key equals this key's.
  bool containsKey(size_t tag, std::string_view key);

  // Writes every changed block, then the changed tag headers (change counter
  // +1, root, pages held, has-keys flag, first and last leaf), then the file
  // header (pages in the file, head of the free list, date of the update).
  // Throws dbase::Error(Io) when a write fails.
  void flush();
  // Writes the blocks of the nodes changed since the last write, ahead of
  // flush(), which then has only what changed after. The file's trees are
  // not whole again until flush(): for a writer that holds the index's lock
  // and has left the mark of a write under way.
  void writeChangedNodes();
  // When more than this many nodes are kept, forgets unchanged leaves until
  // half as many are left (interior nodes, few and on every path, stay).
  void trimCache(size_t keepAtMost);
  // Nodes held in memory, and about how many bytes they take.
  size_t cachedNodes() const { return cachedCount_; }
  size_t memoryBytes() const;

  // The first broken rule of a tag's tree, walked from the root through the
  // changes not yet flushed: entries out of order, an interior key that is
  // not the highest key under its child, leaves at uneven depths, a node
  // reached twice, too many keys in a node. Empty when the tree is sound.
  std::string verify(size_t tag);

 private:
  // One node in memory. Entries lie side by side (pointers, keys, order
  // keys) so that a search through a node touches a few blocks of memory,
  // not one allocation per entry. A leaf's entries are its (recno, key)
  // items; an interior node's are its children, the last one being the
  // rightmost pointer, whose key is not stored on disk (its slot here is
  // blank and its order key empty).
  //
  // Order keys are worked out when first compared (MdxUpdate::orderAt) and
  // appended to `orders` in that order; an entry's span says where its own
  // lies, or that it is not known yet. Entries removed or given another key
  // leave their old order key behind until the node packs `orders` again.
  struct Node {
    static constexpr uint32_t kUnknown = UINT32_MAX;
    struct Span {
      uint32_t from = 0;
      uint32_t length = kUnknown;
    };
    uint32_t page = 0;
    size_t tag = 0;
    bool leaf = true;
    bool dirty = false;
    uint16_t keyLength = 0;
    uint32_t word4 = 0;  // kept as read; the left neighbour's page for a split-off right node
    std::vector<uint32_t> pointers;  // record numbers in a leaf, child pages in an interior node
    std::string keys;                // keyLength bytes each
    std::string orders;              // order keys worked out so far
    std::vector<Span> spans;         // where each entry's order key lies in orders

    size_t size() const { return pointers.size(); }
    std::string_view key(size_t i) const { return {keys.data() + i * keyLength, keyLength}; }
    bool known(size_t i) const { return spans[i].length != kUnknown; }
    // An order key already worked out.
    std::string_view knownOrder(size_t i) const { return {orders.data() + spans[i].from, spans[i].length}; }
    void insert(size_t i, uint32_t pointer, std::string_view key, std::string_view order);
    void erase(size_t i);
    void setKey(size_t i, std::string_view key, std::string_view order);
    // Moves entries [from, size) to the end of `to`.
    void moveTail(size_t from, Node& to);
    // Every order key forgotten (the rightmost pointer's empty one kept).
    void forgetOrders();
    // Keeps in `orders` only the order keys entries still have.
    void pack();
    void packIfLoose();
  };
  struct TagState {
    std::vector<unsigned char> header;  // the tag header's first bytes as read
    OrderKey order;
    uint32_t root = 0;
    uint32_t pages = 0;  // pages held by the tag's nodes
    int depth = -1;      // levels from root to leaves; -1 until first seen
    bool changed = false;
    bool hasKeys = false;
  };
  struct Step {
    uint32_t page;
    size_t child;  // the entry gone down to (interior nodes)
    Node* node;    // in the cache, whose elements stay where they are
  };
  using Path = std::vector<Step>;

  MdxUpdate() = default;
  [[noreturn]] void corrupt(size_t tag, const std::string& what) const;
  TagState& usable(size_t tag);
  void readBlock(uint32_t page, unsigned char* into, size_t tag) const;
  Node& load(size_t tag, uint32_t page, size_t level);
  void orderOf(size_t tag, std::string_view key, std::string& out);
  // Entry i's order key, worked out now if it was not yet. The view lasts
  // until the node's next order key is worked out or it changes.
  std::string_view orderAt(Node& node, size_t i);
  void checkedKey(size_t tag, std::string_view key) const;
  // The node as its block holds it on disk (the block zeroed before).
  void writeNode(const Node& node, unsigned char* block) const;
  // Writes the changed nodes' blocks and, with `freedToo`, the blocks freed
  // here, each linked to the next free page.
  void writeBlocks(bool freedToo);

  // Tree walks (mdx_update_tree.cpp).
  uint32_t lastRecno(size_t tag, uint32_t page, size_t level);
  // Where descend() goes: to the first entry of an order key, to an entry
  // of a record number, or past every entry of an order key.
  enum class Seek { FirstOf, Entry, PastAll };
  // The path from the root to the leaf where the entry sought is or would
  // be (in walk_, which it returns). With `resume` (PastAll only), walk_
  // holds the path of an entry ordered at or before this one and no node has
  // split or gone since: the walk keeps what it can of it.
  Path& descend(size_t tag, std::string_view order, uint32_t recno, Seek seek, bool resume = false);
  // Inserts an entry whose key's order key is `order`; false when a node
  // split (a path walked before no longer holds).
  bool insertAt(size_t tag, std::string_view key, std::string_view order, uint32_t recno, Seek seek,
                bool resume = false);
  bool holdsOrder(size_t tag, std::string_view order);
  void raiseHigh(Path& path, size_t level, std::string_view key, std::string_view order);
  void split(size_t tag, Path& path, size_t level);
  void unlink(size_t tag, Path& path, size_t level);
  uint32_t edgeLeaf(size_t tag, bool last);
  struct Place {  // an entry of a node in the cache
    const Node* node = nullptr;
    size_t index = 0;
  };
  struct Previous {  // the last leaf entry walked
    bool any = false;
    std::string order;
    uint32_t recno = 0;
  };
  std::string verifyNode(size_t tag, uint32_t page, size_t level, std::unordered_set<uint32_t>& seen,
                         Previous& previous, Place& high);

  // Blocks: the free list and the end of the file.
  void loadFreeList(size_t tag);
  void reserve(size_t tag, size_t blocks);
  uint32_t allocate(size_t tag);
  void release(size_t tag, uint32_t page);

  std::string path_;
  std::string name_;
  int fd_ = -1;
  uint64_t fileSize_ = 0;
  uint32_t blockPages_ = 0;
  uint32_t blockBytes_ = 0;
  uint32_t totalPages_ = 0;
  std::vector<unsigned char> fileHeader_;
  std::vector<MdxTagInfo> tags_;
  std::vector<std::string> faults_;
  std::vector<TagState> state_;
  std::unordered_set<uint32_t> headerPages_;
  // The nodes read or made since opening, indexed by page (pages are small
  // dense numbers): a path from the root and what splits make, for each row
  // written, and whatever trimCache() leaves of earlier writes.
  std::vector<std::unique_ptr<Node>> cache_;
  size_t cachedCount_ = 0;
  Node* cachedAt(uint32_t page) const { return page < cache_.size() ? cache_[page].get() : nullptr; }
  Node& store(uint32_t page, Node node);
  void forget(uint32_t page);
  // Pages of nodes changed since the last flush (a page may appear twice, or
  // have been freed since).
  std::vector<uint32_t> dirty_;
  void markDirty(Node& node) {
    if (node.dirty) return;
    node.dirty = true;
    dirty_.push_back(node.page);
  }
  std::vector<unsigned char> block_;  // a block read or written
  // Free pages, the head last. Until the list on disk is read (on the first
  // need of a block), the bottom one links to diskFreeHead_.
  std::vector<uint32_t> free_;
  std::unordered_set<uint32_t> freeSet_;    // every free page known
  std::unordered_set<uint32_t> freedHere_;  // free pages whose link this object writes
  uint32_t diskFreeHead_ = 0;
  bool freeLoaded_ = false;
  bool fileChanged_ = false;
  std::string scratch_;                  // the order key of the key being inserted or removed
  std::string highKey_, highOrder_;      // raiseHigh(): the new highest key
  std::string splitKey_, splitOrder_;    // split(): the left half's highest key
  Path walk_;                            // the path of the change under way
  std::string batchOrders_;              // insertAppended(): the rows' order keys
  std::vector<uint32_t> batchEnds_;      // where each ends
  struct Sequenced {
    uint64_t probe;  // the order key's first eight bytes, big-endian
    uint32_t row;
  };
  std::vector<Sequenced> batchSequence_;  // the rows by key
};

}  // namespace dbase
