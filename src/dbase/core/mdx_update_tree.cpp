// MdxUpdate: a tag's B-tree changed in place. Entries are ordered by their
// order key, then by record number; an interior node's key i is the highest
// key under its child i, its last child having no key. Each change first
// reads (and so checks) every node it needs and makes sure of the blocks a
// split may take, and only then changes the nodes in the cache.
#include <algorithm>
#include <iterator>

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
    if (node.leaf) return node.entries.empty() ? 0 : node.entries.back().pointer;
    page = node.entries.back().pointer;
  }
}

MdxUpdate::Path MdxUpdate::descend(size_t tag, std::string_view order, uint32_t recno, bool byRecno) {
  Path path;
  uint32_t page = state_[tag].root;
  for (size_t level = 0;; ++level) {
    Node& node = load(tag, page, level);
    if (node.leaf) {
      path.push_back({page, 0, &node});
      return path;
    }
    // The first child whose highest key is at or after the one sought; with
    // a record number, among children whose highest key equals it, the first
    // whose last record number is not below it.
    const auto keyed = node.entries.begin(), keyedEnd = node.entries.end() - 1;
    auto lessOrder = [](const Entry& e, std::string_view o) { return std::string_view(e.order) < o; };
    auto at = std::lower_bound(keyed, keyedEnd, order, lessOrder);
    if (byRecno) {
      auto equalEnd = std::upper_bound(at, keyedEnd, order,
                                       [](std::string_view o, const Entry& e) { return o < std::string_view(e.order); });
      at = std::partition_point(at, equalEnd, [&](const Entry& e) { return lastRecno(tag, e.pointer, level + 1) < recno; });
    }
    const size_t child = size_t(at - node.entries.begin());
    path.push_back({page, child, &node});
    page = node.entries[child].pointer;
  }
}

// The node at path[level] has a new highest key: the parents that hold it
// as a child's highest key take it, up to the first one where that child is
// not the last.
void MdxUpdate::raiseHigh(Path& path, size_t level, const Entry& high) {
  const std::string key = high.key, order = high.order;
  for (size_t l = level; l > 0; --l) {
    Node& parent = *path[l - 1].node;
    const size_t child = path[l - 1].child;
    if (child + 1 < parent.entries.size()) {
      parent.entries[child].key = key;
      parent.entries[child].order = order;
      parent.dirty = true;
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
  right.word4 = leftPage;
  const size_t keep = left.entries.size() / 2;
  right.entries.assign(std::make_move_iterator(left.entries.begin() + std::ptrdiff_t(keep)),
                       std::make_move_iterator(left.entries.end()));
  left.entries.resize(keep);
  left.dirty = true;
  Entry up{leftPage, left.entries.back().key, left.entries.back().order};
  store(rightPage, std::move(right));

  if (level == 0) {
    const uint32_t rootPage = allocate(tag);
    Node root;
    root.tag = tag;
    root.leaf = false;
    root.dirty = true;
    root.word4 = rightPage;
    root.entries.push_back(std::move(up));
    root.entries.push_back(Entry{rightPage, {}, {}});
    store(rootPage, std::move(root));
    s.root = rootPage;
    ++s.depth;
    return;
  }
  Node& parent = *path[level - 1].node;
  const size_t child = path[level - 1].child;
  parent.entries[child].pointer = rightPage;
  parent.entries.insert(parent.entries.begin() + std::ptrdiff_t(child), std::move(up));
  parent.dirty = true;
  if (parent.entries.size() > tags_[tag].maxKeys) split(tag, path, level - 1);
}

// The node at path[level] (not the root) is empty: it leaves its parent and
// goes to the free list; a parent left without children follows it.
void MdxUpdate::unlink(size_t tag, Path& path, size_t level) {
  release(tag, path[level].page);
  Node& parent = *path[level - 1].node;
  const size_t child = path[level - 1].child;
  const bool wasLast = child + 1 == parent.entries.size();
  parent.entries.erase(parent.entries.begin() + std::ptrdiff_t(child));
  parent.dirty = true;
  if (parent.entries.empty()) {
    if (level - 1 > 0) return unlink(tag, path, level - 1);
    parent.leaf = true;  // the root of an empty tag
    state_[tag].depth = 1;
  } else if (wasLast) {
    raiseHigh(path, level - 1, parent.entries.back());
  }
}

void MdxUpdate::insert(size_t tag, std::string_view key, uint32_t recno) {
  TagState& s = usable(tag);
  if (recno == 0)
    throw Error(ErrorKind::InvalidArgument, name_, "tag " + tags_[tag].name + ": record number 0");
  Entry entry{recno, checkedKey(tag, key), {}};
  orderOf(tag, entry.key, entry.order);
  Path path = descend(tag, entry.order, recno, true);

  // A block for each full node from the leaf up, and one for a new root.
  const size_t maxKeys = tags_[tag].maxKeys;
  size_t blocks = 0;
  for (size_t l = path.size(); l-- > 0;) {
    if (path[l].node->entries.size() < maxKeys) break;
    blocks += l == 0 ? 2 : 1;
  }
  reserve(tag, blocks);

  Node& leaf = *path.back().node;
  auto at = std::upper_bound(leaf.entries.begin(), leaf.entries.end(), entry, [](const Entry& a, const Entry& e) {
    return compareEntry(a.order, a.pointer, e.order, e.pointer) < 0;
  });
  at = leaf.entries.insert(at, std::move(entry));
  leaf.dirty = true;
  s.changed = true;
  s.hasKeys = true;
  if (at + 1 == leaf.entries.end()) raiseHigh(path, path.size() - 1, leaf.entries.back());
  if (leaf.entries.size() > maxKeys) split(tag, path, path.size() - 1);
}

bool MdxUpdate::remove(size_t tag, std::string_view key, uint32_t recno) {
  TagState& s = usable(tag);
  const std::string stored = checkedKey(tag, key);
  std::string order;
  orderOf(tag, stored, order);
  Path path = descend(tag, order, recno, true);
  Node& leaf = *path.back().node;
  auto at = std::lower_bound(leaf.entries.begin(), leaf.entries.end(), 0, [&](const Entry& e, int) {
    return compareEntry(e.order, e.pointer, order, recno) < 0;
  });
  if (at == leaf.entries.end() || at->order != order || at->pointer != recno) return false;

  const bool wasLast = at + 1 == leaf.entries.end();
  leaf.entries.erase(at);
  leaf.dirty = true;
  s.changed = true;
  if (leaf.entries.empty()) {
    if (path.size() > 1) unlink(tag, path, path.size() - 1);
  } else if (wasLast) {
    raiseHigh(path, path.size() - 1, leaf.entries.back());
  }
  // A root left with one child hands the root over to it.
  for (;;) {
    const Node* root = cachedAt(s.root);
    if (!root || root->leaf || root->entries.size() != 1) break;
    const uint32_t child = root->entries.front().pointer;
    release(tag, s.root);
    s.root = child;
    --s.depth;
  }
  return true;
}

bool MdxUpdate::containsKey(size_t tag, std::string_view key) {
  usable(tag);
  const std::string stored = checkedKey(tag, key);
  std::string order;
  orderOf(tag, stored, order);
  Path path = descend(tag, order, 0, false);
  const Node& leaf = *path.back().node;
  auto at = std::lower_bound(leaf.entries.begin(), leaf.entries.end(), order,
                             [](const Entry& e, const std::string& o) { return e.order < o; });
  return at != leaf.entries.end() && at->order == order;
}

uint32_t MdxUpdate::edgeLeaf(size_t tag, bool last) {
  uint32_t page = state_[tag].root;
  for (size_t level = 0;; ++level) {
    const Node& node = load(tag, page, level);
    if (node.leaf) return page;
    page = last ? node.entries.back().pointer : node.entries.front().pointer;
  }
}

std::string MdxUpdate::verify(size_t tag) {
  usable(tag);
  std::unordered_set<uint32_t> seen;
  const Entry* previous = nullptr;
  const Entry* high = nullptr;
  try {
    return verifyNode(tag, state_[tag].root, 0, seen, previous, high);
  } catch (const Error& e) {
    return e.what();
  }
}

std::string MdxUpdate::verifyNode(size_t tag, uint32_t page, size_t level, std::unordered_set<uint32_t>& seen,
                                  const Entry*& previous, const Entry*& high) {
  const std::string at = "page " + std::to_string(page);
  if (!seen.insert(page).second) return at + " is reached twice";
  const Node& node = load(tag, page, level);
  const MdxTagInfo& info = tags_[tag];
  if (node.leaf) {
    if (node.entries.size() > info.maxKeys) return "leaf " + at + " holds more keys than fit";
    if (node.entries.empty() && level > 0) return "leaf " + at + " is empty";
    for (const Entry& e : node.entries) {
      if (previous && compareEntry(e.order, e.pointer, previous->order, previous->pointer) < 0)
        return "leaf " + at + ": record " + std::to_string(e.pointer) + " comes after record " +
               std::to_string(previous->pointer) + " whose key sorts after its own";
      previous = &e;
    }
    high = node.entries.empty() ? nullptr : &node.entries.back();
    return {};
  }
  if (node.entries.size() > size_t(info.maxKeys) + 1) return "interior " + at + " holds more keys than fit";
  for (size_t i = 0; i < node.entries.size(); ++i) {
    const Entry* childHigh = nullptr;
    std::string fault = verifyNode(tag, node.entries[i].pointer, level + 1, seen, previous, childHigh);
    if (!fault.empty()) return fault;
    if (!childHigh) return "interior " + at + ": child " + std::to_string(i) + " holds no keys";
    if (i + 1 < node.entries.size() && childHigh->key != node.entries[i].key)
      return "interior " + at + ": key " + std::to_string(i) + " is not the highest key under page " +
             std::to_string(node.entries[i].pointer);
    high = childHigh;
  }
  return {};
}

}  // namespace dbase
