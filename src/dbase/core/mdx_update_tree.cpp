// MdxUpdate: a tag's B-tree changed in place. Entries are ordered by their
// order key, then by record number; an interior node's key i is the highest
// key under its child i, its last child having no key. Each change first
// reads (and so checks) every node it needs and makes sure of the blocks a
// split may take, and only then changes the nodes in the cache.
#include <algorithm>
#include <iterator>
#include <string>

#include "dbase/core/error.h"
#include "dbase/core/mdx_format.h"
#include "dbase/core/mdx_update.h"

namespace dbase {

namespace {

// (order, recno) of an entry against the ones sought.
int compareEntry(std::string_view order, uint32_t recno, std::string_view entryOrder, uint32_t entryRecno) {
  int c = order.compare(entryOrder);
  if (c != 0) return c;
  return recno < entryRecno ? -1 : recno > entryRecno ? 1 : 0;
}

}  // namespace

uint32_t MdxUpdate::lastRecno(size_t tag, uint32_t page, size_t level) {
  for (;; ++level) {
    const Node& node = load(tag, page, level);
    if (node.leaf) return node.size() == 0 ? 0 : node.pointers.back();
    page = node.pointers.back();
  }
}

MdxUpdate::Path& MdxUpdate::descend(size_t tag, std::string_view order, uint32_t recno, Seek seek, bool resume) {
  Path& path = walk_;
  uint32_t page = state_[tag].root;
  size_t level = 0;
  if (resume) {
    // Every interior node on the path up to the lowest one whose child's
    // highest key lies past `order` is where a walk from the root would go.
    size_t keep = 0;
    for (size_t l = path.size() - 1; l-- > 0;) {
      Node& node = *path[l].node;
      const size_t child = path[l].child;
      if (child + 1 < node.size() && orderAt(node, child).compare(order) > 0) {
        keep = l + 1;
        break;
      }
    }
    path.resize(keep);
    if (keep > 0) {
      page = path[keep - 1].node->pointers[path[keep - 1].child];
      level = keep;
    }
  } else {
    path.clear();
  }
  for (;; ++level) {
    Node& node = load(tag, page, level);
    if (node.leaf) {
      path.push_back({page, 0, &node});
      return path;
    }
    // The first child whose highest key is at or after the one sought (past
    // it, for PastAll); for an entry, among children whose highest key
    // equals it, the first whose last record number is not below it.
    size_t lo = 0, hi = node.size() - 1;
    while (lo < hi) {
      const size_t mid = (lo + hi) / 2;
      const int c = orderAt(node, mid).compare(order);
      if (c < 0 || (c == 0 && seek == Seek::PastAll)) lo = mid + 1;
      else hi = mid;
    }
    if (seek == Seek::Entry) {
      size_t end = lo;
      while (end + 1 < node.size() && orderAt(node, end) == order) ++end;
      while (lo < end) {
        const size_t mid = (lo + end) / 2;
        if (lastRecno(tag, node.pointers[mid], level + 1) < recno) lo = mid + 1;
        else end = mid;
      }
    }
    path.push_back({page, lo, &node});
    page = node.pointers[lo];
  }
}

// The node at path[level] has a new highest key: the parents that hold it
// as a child's highest key take it, up to the first one where that child is
// not the last.
void MdxUpdate::raiseHigh(Path& path, size_t level, std::string_view key, std::string_view order) {
  // They may lie in a node changed here.
  std::string& keyCopy = highKey_;
  std::string& orderCopy = highOrder_;
  keyCopy.assign(key);
  orderCopy.assign(order);
  for (size_t l = level; l > 0; --l) {
    Node& parent = *path[l - 1].node;
    const size_t child = path[l - 1].child;
    if (child + 1 < parent.size()) {
      parent.setKey(child, keyCopy, orderCopy);
      markDirty(parent);
      return;
    }
  }
}

// The node at path[level] holds one entry too many: its upper half moves to
// a new block on its right, and its parent gains the left half's highest key.
void MdxUpdate::split(size_t tag, Path& path, size_t level) {
  TagState& s = state_[tag];
  const uint32_t leftPage = path[level].page;
  const uint32_t rightPage = allocate(tag);
  Node& left = *path[level].node;
  Node right;
  right.tag = tag;
  right.leaf = left.leaf;
  right.dirty = true;
  right.keyLength = left.keyLength;
  right.word4 = leftPage;
  const size_t room = tags_[tag].maxKeys + 2u;
  right.pointers.reserve(room);
  right.spans.reserve(room);
  right.keys.reserve(room * left.keyLength);
  left.moveTail(left.size() / 2, right);
  markDirty(left);
  std::string& upKey = splitKey_;
  std::string& upOrder = splitOrder_;
  upOrder.assign(orderAt(left, left.size() - 1));
  upKey.assign(left.key(left.size() - 1));
  store(rightPage, std::move(right));

  if (level == 0) {
    const uint32_t rootPage = allocate(tag);
    Node root;
    root.tag = tag;
    root.leaf = false;
    root.dirty = true;
    root.keyLength = left.keyLength;
    root.word4 = rightPage;
    root.insert(0, leftPage, upKey, upOrder);
    root.insert(1, rightPage, std::string(left.keyLength, ' '), {});
    store(rootPage, std::move(root));
    s.root = rootPage;
    ++s.depth;
    return;
  }
  Node& parent = *path[level - 1].node;
  const size_t child = path[level - 1].child;
  parent.pointers[child] = rightPage;
  parent.insert(child, leftPage, upKey, upOrder);
  markDirty(parent);
  if (parent.size() > tags_[tag].maxKeys) split(tag, path, level - 1);
}

// The node at path[level] (not the root) is empty: it leaves its parent and
// goes to the free list; a parent left without children follows it.
void MdxUpdate::unlink(size_t tag, Path& path, size_t level) {
  release(tag, path[level].page);
  Node& parent = *path[level - 1].node;
  const size_t child = path[level - 1].child;
  const bool wasLast = child + 1 == parent.size();
  parent.erase(child);
  markDirty(parent);
  if (parent.size() == 0) {
    if (level - 1 > 0) return unlink(tag, path, level - 1);
    parent.leaf = true;  // the root of an empty tag
    state_[tag].depth = 1;
  } else if (wasLast) {
    // The new last child's key becomes the node's highest, and no longer
    // has a place on disk.
    const size_t last = parent.size() - 1;
    const std::string key(parent.key(last)), order(orderAt(parent, last));
    parent.setKey(last, std::string(parent.keyLength, ' '), {});
    raiseHigh(path, level - 1, key, order);
  }
}

namespace {

// The place in a leaf after every entry ordered before or equal to (order,
// recno): upper; or at the first entry not ordered before it: lower.
// orderOf(i) gives entry i's order key.
template <typename NodeT, typename OrderOf>
size_t leafPlace(const NodeT& node, OrderOf&& orderOf, std::string_view order, uint32_t recno, bool upper) {
  size_t lo = 0, hi = node.size();
  while (lo < hi) {
    const size_t mid = (lo + hi) / 2;
    const int c = compareEntry(orderOf(mid), node.pointers[mid], order, recno);
    if (c < 0 || (upper && c == 0)) lo = mid + 1;
    else hi = mid;
  }
  return lo;
}

}  // namespace

void MdxUpdate::insert(size_t tag, std::string_view key, uint32_t recno) {
  usable(tag);
  checkedKey(tag, key);
  orderOf(tag, key, scratch_);
  insertAt(tag, key, scratch_, recno, Seek::Entry);
}

void MdxUpdate::insertAppended(size_t tag, std::string_view keys, const std::vector<uint32_t>& recnos, bool unique) {
  TagState& s = usable(tag);
  const size_t length = tags_[tag].keyLength;
  if (keys.size() != recnos.size() * length)
    throw Error(ErrorKind::InvalidArgument, name_,
                "índice " + tags_[tag].name + ": " + std::to_string(keys.size()) + " bytes de claves para " +
                    std::to_string(recnos.size()) + " filas");
  batchOrders_.clear();
  batchEnds_.clear();
  batchEnds_.reserve(recnos.size());
  for (size_t i = 0; i < recnos.size(); ++i) {
    s.order(keys.substr(i * length, length), batchOrders_);
    if (i == 0) batchOrders_.reserve(batchOrders_.size() * recnos.size() * 5 / 4);
    batchEnds_.push_back(uint32_t(batchOrders_.size()));
  }
  const auto orderOfRow = [&](uint32_t i) {
    const uint32_t from = i == 0 ? 0 : batchEnds_[i - 1];
    return std::string_view(batchOrders_).substr(from, batchEnds_[i] - from);
  };
  // By key, equal keys in their rows' order (that of their record numbers);
  // the first eight bytes of each order key, compared as a number, settle
  // most comparisons.
  batchSequence_.resize(recnos.size());
  for (uint32_t i = 0; i < recnos.size(); ++i) {
    const std::string_view order = orderOfRow(i);
    uint64_t probe = 0;
    for (size_t b = 0; b < 8; ++b) probe = probe << 8 | (b < order.size() ? uint8_t(order[b]) : 0u);
    batchSequence_[i] = {probe, i};
  }
  std::sort(batchSequence_.begin(), batchSequence_.end(), [&](const Sequenced& a, const Sequenced& b) {
    if (a.probe != b.probe) return a.probe < b.probe;
    const int c = orderOfRow(a.row).compare(orderOfRow(b.row));
    return c != 0 ? c < 0 : a.row < b.row;
  });
  // In key order, each insert's walk starts where the last one's stays
  // valid, unless a node split since (a unique tag's check walks elsewhere).
  bool resume = false;
  for (const auto [probe, i] : batchSequence_) {
    const std::string_view order = orderOfRow(i);
    if (unique && holdsOrder(tag, order)) continue;
    resume = insertAt(tag, keys.substr(i * length, length), order, recnos[i], Seek::PastAll, resume) && !unique;
  }
}

bool MdxUpdate::insertAt(size_t tag, std::string_view key, std::string_view order, uint32_t recno, Seek seek,
                         bool resume) {
  TagState& s = state_[tag];
  if (recno == 0)
    throw Error(ErrorKind::InvalidArgument, name_, "índice " + tags_[tag].name + ": registro número 0");
  Path& path = descend(tag, order, recno, seek, resume);

  // A block for each full node from the leaf up, and one for a new root.
  const size_t maxKeys = tags_[tag].maxKeys;
  size_t blocks = 0;
  for (size_t l = path.size(); l-- > 0;) {
    if (path[l].node->size() < maxKeys) break;
    blocks += l == 0 ? 2 : 1;
  }
  reserve(tag, blocks);

  Node& leaf = *path.back().node;
  const auto orderOfEntry = [&](size_t i) { return orderAt(leaf, i); };
  const size_t at = seek == Seek::PastAll ? leafPlace(leaf, orderOfEntry, order, UINT32_MAX, true)
                                          : leafPlace(leaf, orderOfEntry, order, recno, true);
  leaf.insert(at, recno, key, order);
  markDirty(leaf);
  s.changed = true;
  s.hasKeys = true;
  if (at + 1 == leaf.size()) raiseHigh(path, path.size() - 1, key, order);
  if (leaf.size() <= maxKeys) return true;
  split(tag, path, path.size() - 1);
  return false;
}

bool MdxUpdate::remove(size_t tag, std::string_view key, uint32_t recno) {
  TagState& s = usable(tag);
  checkedKey(tag, key);
  std::string& order = scratch_;
  orderOf(tag, key, order);
  Path& path = descend(tag, order, recno, Seek::Entry);
  Node& leaf = *path.back().node;
  const size_t at = leafPlace(leaf, [&](size_t i) { return orderAt(leaf, i); }, order, recno, false);
  if (at == leaf.size() || orderAt(leaf, at) != order || leaf.pointers[at] != recno) return false;

  const bool wasLast = at + 1 == leaf.size();
  leaf.erase(at);
  markDirty(leaf);
  s.changed = true;
  if (leaf.size() == 0) {
    if (path.size() > 1) unlink(tag, path, path.size() - 1);
  } else if (wasLast) {
    const size_t last = leaf.size() - 1;
    const std::string_view lastOrder = orderAt(leaf, last);
    raiseHigh(path, path.size() - 1, leaf.key(last), lastOrder);
  }
  // A root left with one child hands the root over to it.
  for (;;) {
    const Node* root = cachedAt(s.root);
    if (!root || root->leaf || root->size() != 1) break;
    const uint32_t child = root->pointers.front();
    release(tag, s.root);
    s.root = child;
    --s.depth;
  }
  return true;
}

bool MdxUpdate::containsKey(size_t tag, std::string_view key) {
  usable(tag);
  checkedKey(tag, key);
  orderOf(tag, key, scratch_);
  return holdsOrder(tag, scratch_);
}

bool MdxUpdate::holdsOrder(size_t tag, std::string_view order) {
  const Path& path = descend(tag, order, 0, Seek::FirstOf);
  Node& leaf = *path.back().node;
  const size_t at = leafPlace(leaf, [&](size_t i) { return orderAt(leaf, i); }, order, 0, false);
  return at < leaf.size() && orderAt(leaf, at) == order;
}

uint32_t MdxUpdate::edgeLeaf(size_t tag, bool last) {
  uint32_t page = state_[tag].root;
  for (size_t level = 0;; ++level) {
    const Node& node = load(tag, page, level);
    if (node.leaf) return page;
    page = last ? node.pointers.back() : node.pointers.front();
  }
}

std::string MdxUpdate::verify(size_t tag) {
  usable(tag);
  std::unordered_set<uint32_t> seen;
  Previous previous;
  Place high;
  try {
    return verifyNode(tag, state_[tag].root, 0, seen, previous, high);
  } catch (const Error& e) {
    return e.what();
  }
}

std::string MdxUpdate::verifyNode(size_t tag, uint32_t page, size_t level, std::unordered_set<uint32_t>& seen,
                                  Previous& previous, Place& high) {
  const std::string at = "page " + std::to_string(page);
  if (!seen.insert(page).second) return at + " is reached twice";
  Node& node = load(tag, page, level);
  const MdxTagInfo& info = tags_[tag];
  if (node.leaf) {
    if (node.size() > info.maxKeys) return "leaf " + at + " holds more keys than fit";
    if (node.size() == 0 && level > 0) return "leaf " + at + " is empty";
    for (size_t i = 0; i < node.size(); ++i) {
      const std::string_view order = orderAt(node, i);
      if (previous.any && compareEntry(order, node.pointers[i], previous.order, previous.recno) < 0)
        return "leaf " + at + ": record " + std::to_string(node.pointers[i]) + " comes after record " +
               std::to_string(previous.recno) + " whose key sorts after its own";
      previous.any = true;
      previous.order.assign(order);
      previous.recno = node.pointers[i];
    }
    high = node.size() == 0 ? Place{} : Place{&node, node.size() - 1};
    return {};
  }
  if (node.size() > size_t(info.maxKeys) + 1) return "interior " + at + " holds more keys than fit";
  for (size_t i = 0; i < node.size(); ++i) {
    Place childHigh;
    std::string fault = verifyNode(tag, node.pointers[i], level + 1, seen, previous, childHigh);
    if (!fault.empty()) return fault;
    if (!childHigh.node) return "interior " + at + ": child " + std::to_string(i) + " holds no keys";
    if (i + 1 < node.size() && childHigh.node->key(childHigh.index) != node.key(i))
      return "interior " + at + ": key " + std::to_string(i) + " is not the highest key under page " +
             std::to_string(node.pointers[i]);
    high = childHigh;
  }
  return {};
}

}  // namespace dbase
