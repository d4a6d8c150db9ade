// MdxFile::Walk: a place in a tag's B-tree, the path from the root to one
// leaf entry. A leaf's entries are (record number, key) items; an interior
// node's are (child page, key) items, key i being the highest under child i,
// and one more child after the last key. Nodes are checked as they are
// entered: the page within the file, the keys that fit in a block, every
// leaf at the same depth.
#include <algorithm>
#include <cstring>

#include "dbase/core/error.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/mdx_format.h"
#include "dbase/core/mdx_io.h"

namespace dbase {

using namespace mdx;
using namespace mdx_io;

namespace {

// No real tree gets near this: even with two children per node it would
// index more rows than a table can hold.
constexpr size_t kMaxDepth = 64;

}  // namespace

// A walk of many leaves reads the file through two windows: leaves mostly
// lie side by side, and now and then the walk steps to an interior node that
// lies elsewhere. A block just past a window's end refills that window with
// twice as many bytes, up to kMaxWindow; any other block is read alone into
// the window used least recently.
struct MdxFile::Walk::Window {
  static constexpr size_t kMaxWindow = size_t(256) << 10;
  uint64_t at = 0;
  std::vector<unsigned char> bytes;
  uint64_t used = 0;
  uint64_t end() const { return at + bytes.size(); }
};

MdxFile::Walk::Walk(const MdxFile& file, size_t tag, bool readAhead, bool once)
    : file_(file), tag_(file.usableTag(tag)), readAhead_(readAhead) {
  if (once) seen_.assign(size_t(file.fileSize_ / kPageBytes) + 1, false);
  if (readAhead_) windows_ = std::make_unique<Window[]>(2);
}

MdxFile::Walk::~Walk() = default;

void MdxFile::Walk::fail(const std::string& what) const {
  throw Error(ErrorKind::Corrupt, file_.name_, "índice " + tag_.name + ": " + what);
}

uint32_t MdxFile::Walk::pointer(const Frame& f, uint32_t i) const {
  return get32(f.block.data() + kNodeHeaderBytes + size_t(i) * tag_.itemLength);
}

std::string_view MdxFile::Walk::keyAt(const Frame& f, uint32_t i) const {
  return {reinterpret_cast<const char*>(f.block.data()) + kNodeHeaderBytes + size_t(i) * tag_.itemLength + 4,
          tag_.keyLength};
}

std::string_view MdxFile::Walk::key() const {
  const Frame& leaf = frames_[depth_ - 1];
  return keyAt(leaf, leaf.at);
}

uint32_t MdxFile::Walk::recno() const {
  const Frame& leaf = frames_[depth_ - 1];
  const uint32_t r = pointer(leaf, leaf.at);
  if (r == 0) fail("la hoja de la página " + std::to_string(leaf.page) + " apunta al registro 0");
  return r;
}

// Reads the node at `page` onto the path, below the node on top.
void MdxFile::Walk::enter(uint32_t page) {
  if (!file_.pageInFile(page))
    fail("la página " + std::to_string(page) + " de un nodo cae fuera del fichero (" + std::to_string(file_.fileSize_) +
         " bytes)");
  // A page on the path already leads back to itself; with `once`, any page
  // entered before is a second way to the same entries.
  bool again = std::any_of(frames_.begin(), frames_.begin() + long(depth_), [&](const Frame& f) { return f.page == page; });
  if (!seen_.empty()) {
    again = again || seen_[page];
    seen_[page] = true;
  }
  if (again) fail("la página " + std::to_string(page) + " se alcanza dos veces (un bucle entre páginas)");
  // A sound tree holds fewer nodes than the file has pages: one move that
  // enters more goes round nodes that share their children.
  if (++enteredInMove_ > file_.fileSize_ / kPageBytes)
    fail("un paso recorre más nodos de los que caben en el fichero (nodos con hijos en común)");
  if (depth_ >= kMaxDepth) fail("el árbol tiene más de " + std::to_string(kMaxDepth) + " niveles");
  if (frames_.size() == depth_) frames_.emplace_back();
  Frame& frame = frames_[depth_];  // its block's memory serves again
  frame.page = page;
  frame.block.resize(file_.blockBytes_);
  if (readAhead_)
    readThroughWindow(page, frame.block.data());
  else
    file_.readBlock(page, frame.block.data(), tag_.name);
  ++blocksRead_;
  frame.n = get32(frame.block.data());
  if (frame.n > tag_.maxKeys || kNodeHeaderBytes + uint64_t(frame.n) * tag_.itemLength + 4 > file_.blockBytes_)
    fail("la página " + std::to_string(page) + " dice tener " + std::to_string(frame.n) + " claves, más de las " +
         std::to_string(tag_.maxKeys) + " que caben");
  frame.leaf = pointer(frame, frame.n) == 0;
  frame.at = 0;
  if (frame.leaf) {
    if (leafDepth_ < 0) leafDepth_ = int(depth_);
    if (leafDepth_ != int(depth_))
      fail("hojas a distinta profundidad (la página " + std::to_string(page) + " a " + std::to_string(depth_) +
           ", otras a " + std::to_string(leafDepth_) + ")");
  }
  ++depth_;
}

void MdxFile::Walk::readThroughWindow(uint32_t page, unsigned char* into) {
  const uint64_t at = uint64_t(page) * kPageBytes;
  const size_t size = file_.blockBytes_;
  ++clock_;
  for (int i = 0; i < 2; ++i) {
    Window& w = windows_[i];
    if (at >= w.at && at + size <= w.end()) {
      w.used = clock_;
      std::memcpy(into, w.bytes.data() + (at - w.at), size);
      return;
    }
  }
  Window* w = &windows_[windows_[0].used > windows_[1].used ? 1 : 0];
  size_t want = size;
  for (int i = 0; i < 2; ++i) {
    Window& candidate = windows_[i];
    if (!candidate.bytes.empty() && candidate.end() == at) {
      w = &candidate;
      want = std::min(Window::kMaxWindow, std::max(size, 2 * candidate.bytes.size()));
    }
  }
  want = size_t(std::max<uint64_t>(size, std::min<uint64_t>(want, file_.fileSize_ - at)));
  w->bytes.resize(want);
  w->at = at;
  w->used = clock_;
  if (!readAt(file_.fd_, at, w->bytes.data(), want)) {
    w->bytes.clear();
    throw Error(ErrorKind::Io, file_.name_, "índice " + tag_.name + ": " + systemError("no se puede leer una página"));
  }
  std::memcpy(into, w->bytes.data(), size);
}

void MdxFile::Walk::downEdge(bool lastSide) {
  for (;;) {
    Frame& top = frames_[depth_ - 1];
    if (top.leaf) {
      top.at = lastSide && top.n > 0 ? top.n - 1 : 0;
      return;
    }
    top.at = lastSide ? top.n : 0;  // the child after the last key is the rightmost
    enter(pointer(top, top.at));
  }
}

bool MdxFile::Walk::nextLeaf(bool forward) {
  --depth_;  // off the leaf
  while (depth_ > 0) {
    Frame& parent = frames_[depth_ - 1];
    if (forward ? parent.at < parent.n : parent.at > 0) {
      parent.at += forward ? 1 : -1;
      enter(pointer(parent, parent.at));
      downEdge(!forward);
      return true;
    }
    --depth_;
  }
  return false;
}

bool MdxFile::Walk::settle(bool forward) {
  while (frames_[depth_ - 1].n == 0)  // an empty leaf (an empty tag's root)
    if (!nextLeaf(forward)) return false;
  return true;
}

bool MdxFile::Walk::edge(bool lastSide) {
  enteredInMove_ = 0;
  depth_ = 0;
  enter(tag_.rootPage);
  downEdge(lastSide);
  return settle(!lastSide);
}

bool MdxFile::Walk::stepStaysInLeaf(bool forward) const {
  if (!onEntry()) return false;
  const Frame& leaf = frames_[depth_ - 1];
  return forward ? leaf.at + 1 < leaf.n : leaf.at > 0;
}

bool MdxFile::Walk::step(bool forward) {
  enteredInMove_ = 0;
  if (stepStaysInLeaf(forward)) {
    Frame& leaf = frames_[depth_ - 1];
    forward ? ++leaf.at : --leaf.at;
    return true;
  }
  return onEntry() && nextLeaf(forward) && settle(forward);
}

bool MdxFile::Walk::seek(std::string_view search, const KeyCompare& compare) {
  enteredInMove_ = 0;
  depth_ = 0;
  enter(tag_.rootPage);
  // The first key at or after the one sought, by halves: in an interior node
  // the child to go down to (the last one when every key is before it).
  auto firstNotBefore = [&](const Frame& f) {
    uint32_t lo = 0, hi = f.n;
    while (lo < hi) {
      const uint32_t mid = (lo + hi) / 2;
      if (compare(search, keyAt(f, mid)) > 0) lo = mid + 1;
      else hi = mid;
    }
    return lo;
  };
  while (!frames_[depth_ - 1].leaf) {
    Frame& f = frames_[depth_ - 1];
    f.at = firstNotBefore(f);
    enter(pointer(f, f.at));
  }
  // Normally the leaf holds the answer; when the interior keys are stale it
  // may lie further on, in the following leaves.
  for (;;) {
    Frame& leaf = frames_[depth_ - 1];
    leaf.at = firstNotBefore(leaf);
    if (leaf.at < leaf.n) return true;
    if (!nextLeaf(true)) return false;
  }
}

}  // namespace dbase
