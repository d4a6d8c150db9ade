// MdxUpdate: opening an index for changes, the node cache, the free list and
// flush(). The B-tree changes themselves are in mdx_update_tree.cpp.
#include "dbase/core/mdx_update.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "dbase/core/error.h"
#include "dbase/core/mdx_format.h"
#include "dbase/core/mdx_io.h"

namespace dbase {

using namespace mdx;
using namespace mdx_io;

namespace {

// Bytes of a tag header this class reads and writes back: every field it
// changes lies before this.
constexpr size_t kTagHeaderBytes = 512;
// A tree deeper than this is damaged (see MdxFile).
constexpr size_t kMaxDepth = 64;

}  // namespace

std::unique_ptr<MdxUpdate> MdxUpdate::open(const std::string& path) {
  // The checks of a read-only open first: header, tag table, tag headers.
  auto checked = MdxFile::open(path);
  std::unique_ptr<MdxUpdate> u(new MdxUpdate());
  u->path_ = path;
  u->name_ = baseName(path);
  u->tags_ = checked->tags();
  for (size_t i = 0; i < u->tags_.size(); ++i) u->faults_.push_back(checked->tagFault(i));
  u->blockBytes_ = checked->blockBytes();
  u->blockPages_ = u->blockBytes_ / kPageBytes;
  checked.reset();

  u->fd_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (u->fd_ < 0) throw Error(ErrorKind::Io, u->name_, systemError("no se puede abrir para escribir"));
  struct stat st {};
  if (::fstat(u->fd_, &st) != 0) throw Error(ErrorKind::Io, u->name_, systemError("no se puede consultar"));
  u->fileSize_ = uint64_t(st.st_size);
  u->fileHeader_.resize(kFileHeaderBytes);
  if (!readAt(u->fd_, 0, u->fileHeader_.data(), kFileHeaderBytes))
    throw Error(ErrorKind::Io, u->name_, systemError("no se puede leer"));
  if (get16(u->fileHeader_.data() + kOffBlockPages) != u->blockPages_)
    throw Error(ErrorKind::Corrupt, u->name_, "el fichero cambió mientras se abría");

  u->totalPages_ = get32(u->fileHeader_.data() + kOffTotalPages);
  const uint32_t headerArea = kHeaderAreaBytes / kPageBytes;
  if (u->totalPages_ < headerArea)
    throw Error(ErrorKind::Corrupt, u->name_,
                "la cabecera cuenta " + std::to_string(u->totalPages_) + " páginas, menos de las suyas propias");
  u->diskFreeHead_ = get32(u->fileHeader_.data() + kOffFirstFree);

  for (size_t i = 0; i < u->tags_.size(); ++i) {
    TagState s;
    const MdxTagInfo& t = u->tags_[i];
    u->headerPages_.insert(t.headerPage);
    if (u->faults_[i].empty()) {
      if (t.headerPage >= u->totalPages_ || t.rootPage >= u->totalPages_)
        u->faults_[i] = "índice " + t.name + ": su cabecera o su raíz pasan de las " + std::to_string(u->totalPages_) +
                        " páginas que cuenta la cabecera del fichero";
      s.header.resize(kTagHeaderBytes);
      if (!readAt(u->fd_, uint64_t(t.headerPage) * kPageBytes, s.header.data(), kTagHeaderBytes))
        throw Error(ErrorKind::Io, u->name_, "índice " + t.name + ": " + systemError("no se puede leer su cabecera"));
      s.root = t.rootPage;
      s.pages = get32(s.header.data() + kTagPages);
      s.hasKeys = s.header[kTagHasKeys] != 0;
    }
    u->state_.push_back(std::move(s));
  }
  return u;
}

MdxUpdate::~MdxUpdate() {
  if (fd_ >= 0) ::close(fd_);
}

void MdxUpdate::corrupt(size_t tag, const std::string& what) const {
  throw Error(ErrorKind::Corrupt, name_, "índice " + tags_.at(tag).name + ": " + what);
}

MdxUpdate::TagState& MdxUpdate::usable(size_t tag) {
  if (tag >= tags_.size()) throw Error(ErrorKind::InvalidArgument, name_, "no hay índice número " + std::to_string(tag));
  if (!faults_[tag].empty()) throw Error(ErrorKind::Corrupt, name_, faults_[tag]);
  if (!state_[tag].order)
    throw Error(ErrorKind::State, name_, "índice " + tags_[tag].name + ": se cambia sin haber dado su orden de claves");
  return state_[tag];
}

void MdxUpdate::setOrder(size_t tag, OrderKey order) {
  if (tag >= tags_.size()) throw Error(ErrorKind::InvalidArgument, name_, "no hay índice número " + std::to_string(tag));
  state_[tag].order = std::move(order);
  // Order keys already worked out under another order are stale.
  for (const auto& node : cache_)
    if (node && node->tag == tag) node->forgetOrders();
}

std::string_view MdxUpdate::orderAt(Node& node, size_t i) {
  Node::Span& span = node.spans[i];
  if (span.length == Node::kUnknown) {
    const size_t from = node.orders.size();
    // Room for the few order keys a search meets, taken at once.
    if (node.orders.capacity() < from + 4u * node.keyLength) node.orders.reserve(from + 8u * node.keyLength);
    state_[node.tag].order(node.key(i), node.orders);
    span = {uint32_t(from), uint32_t(node.orders.size() - from)};
  }
  return {node.orders.data() + span.from, span.length};
}

void MdxUpdate::orderOf(size_t tag, std::string_view key, std::string& out) {
  out.clear();
  state_[tag].order(key, out);
}

void MdxUpdate::checkedKey(size_t tag, std::string_view key) const {
  const uint16_t length = tags_[tag].keyLength;
  if (key.size() != length)
    throw Error(ErrorKind::InvalidArgument, name_,
                "índice " + tags_[tag].name + ": una clave de " + std::to_string(key.size()) + " bytes, no de " +
                    std::to_string(length));
}

void MdxUpdate::readBlock(uint32_t page, unsigned char* into, size_t tag) const {
  if (!readAt(fd_, uint64_t(page) * kPageBytes, into, blockBytes_))
    throw Error(ErrorKind::Io, name_, "índice " + tags_[tag].name + ": " + systemError("no se puede leer una página"));
}

MdxUpdate::Node& MdxUpdate::load(size_t tag, uint32_t page, size_t level) {
  TagState& s = state_[tag];
  auto at = [page] { return "la página " + std::to_string(page) + " de un nodo"; };
  if (level >= kMaxDepth) corrupt(tag, "el árbol tiene más de " + std::to_string(kMaxDepth) + " niveles");
  Node* found = cachedAt(page);
  if (!found) {
    if (page < kHeaderAreaBytes / kPageBytes || page >= totalPages_ ||
        uint64_t(page) * kPageBytes + blockBytes_ > fileSize_)
      corrupt(tag, at() + " cae fuera del fichero (" + std::to_string(totalPages_) + " páginas)");
    if (headerPages_.count(page)) corrupt(tag, at() + " es la cabecera de un índice");
    if (freeSet_.count(page)) corrupt(tag, at() + " está en la lista de libres");
    std::vector<unsigned char>& block = block_;
    block.resize(blockBytes_);
    readBlock(page, block.data(), tag);
    const MdxTagInfo& info = tags_[tag];
    const uint32_t n = get32(block.data());
    if (n > info.maxKeys || kNodeHeaderBytes + uint64_t(n) * info.itemLength + 4 > blockBytes_)
      corrupt(tag, at() + " dice tener " + std::to_string(n) + " claves, más de las " + std::to_string(info.maxKeys) +
                       " que caben");
    Node node;
    node.page = page;
    node.tag = tag;
    node.word4 = get32(block.data() + 4);
    const uint32_t rightmost = get32(block.data() + kNodeHeaderBytes + n * info.itemLength);
    node.leaf = rightmost == 0;
    node.keyLength = info.keyLength;
    const size_t count = node.leaf ? n : n + 1;
    // Room for the entries a split takes up to, so that inserts seldom move them.
    node.pointers.reserve(info.maxKeys + 2u);
    node.spans.reserve(info.maxKeys + 2u);
    node.keys.reserve((info.maxKeys + 2u) * size_t(info.keyLength));
    node.pointers.resize(count);
    node.spans.resize(count);  // order keys worked out when a search compares them
    node.keys.resize(count * size_t(info.keyLength), ' ');
    for (uint32_t i = 0; i < n; ++i) {
      const unsigned char* item = block.data() + kNodeHeaderBytes + size_t(i) * info.itemLength;
      const uint32_t pointer = get32(item);
      if (pointer == 0) corrupt(tag, at() + (node.leaf ? " apunta al registro 0" : " apunta a la página 0"));
      node.pointers[i] = pointer;
      std::memcpy(node.keys.data() + size_t(i) * info.keyLength, item + 4, info.keyLength);
    }
    if (count > n) {
      node.pointers[n] = rightmost;
      node.spans[n] = {0, 0};
    }
    found = &store(page, std::move(node));
  } else if (found->tag != tag) {
    corrupt(tag, at() + " es también del índice " + tags_[found->tag].name);
  }
  Node& node = *found;
  if (s.depth < 0 && node.leaf) s.depth = int(level) + 1;
  if (s.depth >= 0 && node.leaf != (int(level) + 1 == s.depth))
    corrupt(tag, "hojas a distinta profundidad (" + at() + " en el nivel " + std::to_string(level) + ", las hojas en el " +
                     std::to_string(s.depth - 1) + ")");
  return node;
}

// The free list on disk, read whole and checked: pages inside the file, not
// headers, no page twice.
void MdxUpdate::loadFreeList(size_t tag) {
  if (freeLoaded_) return;
  std::vector<uint32_t> chain;
  std::unordered_set<uint32_t> seen;
  unsigned char word[4];
  for (uint32_t page = diskFreeHead_; page != 0;) {
    const std::string at = "la página libre " + std::to_string(page);
    if (page < kHeaderAreaBytes / kPageBytes || page >= totalPages_ ||
        uint64_t(page) * kPageBytes + blockBytes_ > fileSize_)
      corrupt(tag, at + " cae fuera del fichero (" + std::to_string(totalPages_) + " páginas)");
    if (headerPages_.count(page)) corrupt(tag, at + " es la cabecera de un índice");
    if (cachedAt(page) || freeSet_.count(page) || !seen.insert(page).second)
      corrupt(tag, at + " está en uso o dos veces en la lista (un bucle en la lista de libres)");
    chain.push_back(page);
    if (!readAt(fd_, uint64_t(page) * kPageBytes + 4, word, 4))
      throw Error(ErrorKind::Io, name_, systemError("no se puede leer la lista de libres"));
    page = get32(word);
  }
  // The stack keeps the head last: the disk chain goes below what was freed here.
  std::vector<uint32_t> stack(chain.rbegin(), chain.rend());
  stack.insert(stack.end(), free_.begin(), free_.end());
  free_ = std::move(stack);
  freeSet_.insert(chain.begin(), chain.end());
  freeLoaded_ = true;
}

// Makes sure `blocks` new blocks can be had without meeting damage midway.
void MdxUpdate::reserve(size_t tag, size_t blocks) {
  if (blocks > free_.size()) loadFreeList(tag);
  const uint64_t endPages = uint64_t(totalPages_) + uint64_t(blocks) * blockPages_;
  if (blocks > free_.size() && endPages > UINT32_MAX)
    throw Error(ErrorKind::InvalidArgument, name_, "índice " + tags_[tag].name + ": el índice pasaría de 2^32 páginas");
}

uint32_t MdxUpdate::allocate(size_t tag) {
  uint32_t page;
  if (!free_.empty()) {
    page = free_.back();
    free_.pop_back();
    freeSet_.erase(page);
    freedHere_.erase(page);
  } else {
    page = totalPages_;
    totalPages_ += blockPages_;
  }
  state_[tag].pages += blockPages_;
  fileChanged_ = true;
  return page;
}

void MdxUpdate::release(size_t tag, uint32_t page) {
  forget(page);
  free_.push_back(page);
  freeSet_.insert(page);
  freedHere_.insert(page);
  TagState& s = state_[tag];
  s.pages = s.pages >= blockPages_ ? s.pages - blockPages_ : 0;
  fileChanged_ = true;
}

void MdxUpdate::Node::insert(size_t i, uint32_t pointer, std::string_view key, std::string_view order) {
  pointers.insert(pointers.begin() + std::ptrdiff_t(i), pointer);
  keys.insert(i * keyLength, key.data(), keyLength);
  spans.insert(spans.begin() + std::ptrdiff_t(i), Span{uint32_t(orders.size()), uint32_t(order.size())});
  orders.append(order);
  packIfLoose();
}

void MdxUpdate::Node::erase(size_t i) {
  pointers.erase(pointers.begin() + std::ptrdiff_t(i));
  keys.erase(i * keyLength, keyLength);
  spans.erase(spans.begin() + std::ptrdiff_t(i));
}

void MdxUpdate::Node::setKey(size_t i, std::string_view key, std::string_view order) {
  keys.replace(i * keyLength, keyLength, key.data(), keyLength);
  spans[i] = {uint32_t(orders.size()), uint32_t(order.size())};
  orders.append(order);
  packIfLoose();
}

void MdxUpdate::Node::moveTail(size_t from, Node& to) {
  to.pointers.insert(to.pointers.end(), pointers.begin() + std::ptrdiff_t(from), pointers.end());
  to.keys.append(keys, from * keyLength);
  for (size_t j = from; j < spans.size(); ++j) {
    if (!known(j)) {
      to.spans.emplace_back();
      continue;
    }
    to.spans.push_back({uint32_t(to.orders.size()), spans[j].length});
    to.orders.append(knownOrder(j));
  }
  pointers.resize(from);
  keys.resize(from * keyLength);
  spans.resize(from);
  pack();
}

void MdxUpdate::Node::forgetOrders() {
  orders.clear();
  for (size_t i = 0; i < spans.size(); ++i) spans[i] = !leaf && i + 1 == spans.size() ? Span{0, 0} : Span{};
}

void MdxUpdate::Node::pack() {
  std::string packed;
  packed.reserve(orders.size());
  for (Span& span : spans) {
    if (span.length == kUnknown) continue;
    const uint32_t from = uint32_t(packed.size());
    packed.append(orders, span.from, span.length);
    span.from = from;
  }
  orders = std::move(packed);
}

// Order keys left behind by entries changed are dropped once they would
// make the node's order keys more than a few times the size of its keys.
void MdxUpdate::Node::packIfLoose() {
  if (orders.size() > 1024 + 8 * keys.size()) pack();
}

MdxUpdate::Node& MdxUpdate::store(uint32_t page, Node node) {
  if (page >= cache_.size()) cache_.resize(std::max<size_t>(size_t(page) + 1, cache_.size() * 3 / 2));
  auto& slot = cache_[page];
  if (!slot) ++cachedCount_;
  node.page = page;
  slot = std::make_unique<Node>(std::move(node));
  if (slot->dirty) dirty_.push_back(page);
  return *slot;
}

void MdxUpdate::forget(uint32_t page) {
  if (page < cache_.size() && cache_[page]) {
    cache_[page].reset();
    --cachedCount_;
  }
}

size_t MdxUpdate::memoryBytes() const {
  size_t bytes = sizeof *this + cache_.capacity() * sizeof cache_[0];
  for (const auto& node : cache_)
    if (node)
      bytes += sizeof *node + node->pointers.capacity() * sizeof(uint32_t) + node->keys.capacity() +
               node->orders.capacity() + node->spans.capacity() * sizeof(Node::Span);
  return bytes;
}

void MdxUpdate::trimCache(size_t keepAtMost) {
  if (cachedCount_ <= keepAtMost) return;
  for (uint32_t page = 0; page < cache_.size() && cachedCount_ > keepAtMost / 2; ++page) {
    const Node* node = cache_[page].get();
    if (node && node->leaf && !node->dirty) forget(page);
  }
}

void MdxUpdate::writeNode(const Node& node, unsigned char* block) const {
  const MdxTagInfo& info = tags_[node.tag];
  const size_t n = node.leaf ? node.size() : node.size() - 1;
  put32(block, uint32_t(n));
  put32(block + 4, node.word4);
  for (size_t i = 0; i < n; ++i) {
    unsigned char* item = block + kNodeHeaderBytes + i * info.itemLength;
    put32(item, node.pointers[i]);
    std::memcpy(item + 4, node.key(i).data(), info.keyLength);
  }
  if (!node.leaf) put32(block + kNodeHeaderBytes + n * info.itemLength, node.pointers.back());
}

void MdxUpdate::writeBlocks(bool freedToo) {
  std::vector<uint32_t> pages;
  for (uint32_t page : dirty_) {
    const Node* node = cachedAt(page);
    if (node && node->dirty) pages.push_back(page);
  }
  if (freedToo)
    for (uint32_t page : freedHere_) pages.push_back(page);
  std::sort(pages.begin(), pages.end());
  pages.erase(std::unique(pages.begin(), pages.end()), pages.end());

  std::unordered_map<uint32_t, uint32_t> linkOf;  // free page -> next free page
  for (size_t i = 0; freedToo && i < free_.size() && !freedHere_.empty(); ++i)
    if (freedHere_.count(free_[i])) linkOf[free_[i]] = i > 0 ? free_[i - 1] : freeLoaded_ ? 0 : diskFreeHead_;

  // Blocks on adjacent pages go out in one write, up to kRunBytes at a time:
  // the blocks a long run of appends adds at the end of the file would
  // otherwise need megabytes of fresh memory laid out for a single write.
  constexpr size_t kRunBytes = 64 * 1024;
  const size_t runBlocks = std::max<size_t>(1, kRunBytes / blockBytes_);
  std::vector<unsigned char>& run = block_;
  auto fail = [&](const char* what) { throw Error(ErrorKind::Io, name_, systemError(what)); };
  for (size_t first = 0; first < pages.size();) {
    size_t end = first + 1;
    while (end < pages.size() && end - first < runBlocks && pages[end] == pages[end - 1] + blockPages_) ++end;
    const uint32_t firstPage = pages[first], endPage = pages[end - 1] + blockPages_;
    run.assign(size_t(endPage - firstPage) / blockPages_ * blockBytes_, 0);
    for (uint32_t page = firstPage; page < endPage; page += blockPages_) {
      unsigned char* block = run.data() + size_t(page - firstPage) / blockPages_ * blockBytes_;
      if (const Node* node = cachedAt(page))
        writeNode(*node, block);
      else
        put32(block + 4, linkOf.at(page));  // a free block: its link to the next free page
    }
    if (!writeAt(fd_, uint64_t(firstPage) * kPageBytes, run.data(), run.size())) fail("no se puede escribir un bloque");
    first = end;
  }
  for (uint32_t page : dirty_)
    if (Node* node = cachedAt(page)) node->dirty = false;
  dirty_.clear();
  if (freedToo) freedHere_.clear();
  fileSize_ = std::max<uint64_t>(fileSize_, uint64_t(totalPages_) * kPageBytes);
}

void MdxUpdate::writeChangedNodes() { writeBlocks(false); }

void MdxUpdate::flush() {
  // Everything that reads the file comes first, so that damage met here
  // stops the flush before anything is written.
  struct Edges {
    uint32_t first, last;
  };
  std::vector<Edges> edges(tags_.size());
  for (size_t t = 0; t < tags_.size(); ++t)
    if (state_[t].changed) edges[t] = {edgeLeaf(t, false), edgeLeaf(t, true)};

  writeBlocks(true);
  auto fail = [&](const char* what) { throw Error(ErrorKind::Io, name_, systemError(what)); };

  for (size_t t = 0; t < tags_.size(); ++t) {
    TagState& s = state_[t];
    if (!s.changed) continue;
    unsigned char* h = s.header.data();
    put32(h + kTagRoot, s.root);
    put32(h + kTagPages, s.pages);
    h[kTagSerial] = uint8_t(h[kTagSerial] + 1);
    if (s.hasKeys) h[kTagHasKeys] = 1;
    put32(h + kTagFirstLeaf, edges[t].first);
    put32(h + kTagLastLeaf, edges[t].last);
    if (!writeAt(fd_, uint64_t(tags_[t].headerPage) * kPageBytes, h, s.header.size()))
      fail("no se puede escribir la cabecera de un índice");
    tags_[t].rootPage = s.root;
    tags_[t].serial = h[kTagSerial];
    s.changed = false;
    fileChanged_ = true;
  }

  if (!fileChanged_) return;
  unsigned char* f = fileHeader_.data();
  unsigned char before[kOffUpdated + 3 - kOffTotalPages];
  std::memcpy(before, f + kOffTotalPages, sizeof before);
  put32(f + kOffTotalPages, totalPages_);
  put32(f + kOffFirstFree, free_.empty() ? (freeLoaded_ ? 0 : diskFreeHead_) : free_.back());
  std::time_t now = std::time(nullptr);
  std::tm today {};
  localtime_r(&now, &today);
  f[kOffUpdated] = uint8_t(today.tm_year);
  f[kOffUpdated + 1] = uint8_t(today.tm_mon + 1);
  f[kOffUpdated + 2] = uint8_t(today.tm_mday);
  // Rows written into room the file already had leave its header as it was.
  if (std::memcmp(before, f + kOffTotalPages, sizeof before) != 0 &&
      !writeAt(fd_, kOffTotalPages, f + kOffTotalPages, kOffUpdated + 3 - kOffTotalPages))
    fail("no se puede escribir la cabecera del fichero");
  fileChanged_ = false;
}

}  // namespace dbase
