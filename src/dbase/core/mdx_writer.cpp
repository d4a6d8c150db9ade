// writeMdx: a whole production index written afresh, the way dBase lays one
// out after INDEX ON: the header area, then for each tag its header block
// followed by its B-tree, leaves first (left to right), then each level up,
// the root last. Nodes are filled evenly, each with a little room to spare
// (roomWhenBuilt), so that no node is less than half full and no interior
// node is left with a single child.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>

#include "dbase/core/error.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/mdx_format.h"
#include "dbase/core/mdx_io.h"

namespace dbase {

using namespace mdx;
using namespace mdx_io;

namespace {

std::string folderOf(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string upper(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (c >= 'a' && c <= 'z') c = char(c - 'a' + 'A');
  return out;
}

// A key that is one field's name is flagged as such in the tag table and
// the tag header; anything else is an expression.
bool isFieldName(std::string_view expression) {
  if (expression.empty() || std::isdigit(static_cast<unsigned char>(expression[0]))) return false;
  for (char c : expression)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return false;
  return true;
}

void putDate(unsigned char* p, const std::tm& date) {
  p[0] = uint8_t(date.tm_year);
  p[1] = uint8_t(date.tm_mon + 1);
  p[2] = uint8_t(date.tm_mday);
}

// The temporary file, written through a buffer and removed unless kept.
class TempFile {
 public:
  TempFile(const std::string& target, const std::string& name) : name_(name) {
    path_ = target + ".tmpXXXXXX";
    fd_ = ::mkstemp(path_.data());
    if (fd_ < 0) fail("no se puede crear un fichero temporal a su lado");
    // The new file takes the old one's permissions, or the usual ones.
    struct stat st {};
    mode_t mode;
    if (::stat(target.c_str(), &st) == 0) {
      mode = st.st_mode & 07777;
    } else {
      mode_t mask = ::umask(0);
      ::umask(mask);
      mode = 0666 & ~mask;
    }
    ::fchmod(fd_, mode);
  }
  ~TempFile() {
    if (fd_ >= 0) ::close(fd_);
    if (!kept_) ::unlink(path_.c_str());
  }

  void append(const unsigned char* data, size_t size) {
    buffer_.append(reinterpret_cast<const char*>(data), size);
    if (buffer_.size() >= (1u << 20)) flush();
  }

  // Flushes, syncs and renames over target, then syncs the folder.
  void commit(const std::string& target) {
    flush();
    if (::fsync(fd_) != 0) fail("no se puede llevar el fichero temporal al disco");
    if (::close(fd_) != 0) {
      fd_ = -1;
      fail("no se puede cerrar el fichero temporal");
    }
    fd_ = -1;
    if (::rename(path_.c_str(), target.c_str()) != 0) fail("no se puede poner el fichero nuevo en su lugar");
    kept_ = true;
    int dir = ::open(folderOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
      ::fsync(dir);
      ::close(dir);
    }
  }

 private:
  void flush() {
    size_t done = 0;
    while (done < buffer_.size()) {
      ssize_t n = ::write(fd_, buffer_.data() + done, buffer_.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) fail("no se puede escribir el fichero temporal");
      done += size_t(n);
    }
    buffer_.clear();
  }
  [[noreturn]] void fail(const char* what) {
    throw Error(ErrorKind::Io, name_, std::string(what) + ": " + std::strerror(errno));
  }

  std::string name_;
  std::string path_;
  int fd_ = -1;
  bool kept_ = false;
  std::string buffer_;
};

// How a tag's tree is laid out: nodes per level (leaves first), and the
// interior fan-out.
struct TreeShape {
  std::vector<size_t> levels;
  size_t nodes = 0;
  uint16_t itemLength = 0;
  uint16_t maxKeys = 0;
  size_t fanOut = 0;  // children per interior node: its keys and the rightmost pointer
};

// Entries a node is given when the index is written whole: about nine in ten
// of what fits, one slot at least left free. Rows written later land all
// over an order by name, and into a full node the first of them would split
// it (two blocks written and its parent changed) where a free slot takes it
// in place.
size_t roomWhenBuilt(uint16_t maxKeys) { return maxKeys > 3 ? maxKeys - std::max(1, maxKeys / 10) : maxKeys; }

TreeShape shapeOf(const MdxTagBuild& tag, uint32_t blockBytes) {
  TreeShape s;
  s.itemLength = itemLengthFor(tag.keyLength);
  s.maxKeys = maxKeysFor(blockBytes, s.itemLength);
  const size_t room = roomWhenBuilt(s.maxKeys);
  s.fanOut = room;
  size_t count = std::max<size_t>(1, (tag.entries.size() + room - 1) / room);
  s.levels.push_back(count);
  while (count > 1) {
    count = (count + s.fanOut - 1) / s.fanOut;
    s.levels.push_back(count);
  }
  for (size_t n : s.levels) s.nodes += n;
  return s;
}

void validate(const std::string& name, const std::vector<MdxTagBuild>& tags, uint16_t blockPages) {
  auto bad = [&](const std::string& what) { return Error(ErrorKind::InvalidArgument, name, what); };
  if (blockPages < 1 || blockPages > kMaxBlockPages)
    throw bad("bloques de " + std::to_string(blockPages) + " páginas (se admiten de 1 a 32)");
  if (tags.size() > kMaxTags) throw bad(std::to_string(tags.size()) + " índices, más de los 47 que caben");
  std::set<std::string> names;
  for (const MdxTagBuild& t : tags) {
    const std::string tagName = upper(t.name);
    auto badTag = [&](const std::string& what) { return bad("índice " + tagName + ": " + what); };
    if (tagName.empty() || tagName.size() > kMaxNameLength || !isFieldName(tagName))
      throw badTag("el nombre ha de tener de 1 a 10 letras, cifras o _, empezando por letra");
    if (!names.insert(tagName).second) throw badTag("hay dos índices con ese nombre");
    if (t.keyType != 'C' && t.keyType != 'N' && t.keyType != 'D') throw badTag("el tipo de clave ha de ser C, N o D");
    if (t.keyLength == 0 || t.keyLength > kMaxKeyLength) throw badTag("la clave ha de tener de 1 a 100 bytes");
    if ((t.keyType == 'N' && t.keyLength != 12) || (t.keyType == 'D' && t.keyLength != 8))
      throw badTag("las claves numéricas tienen 12 bytes y las de fecha 8");
    if (t.expression.empty() || t.expression.size() >= kExpressionBytes)
      throw badTag("la expresión ha de tener de 1 a 219 caracteres");
    if (t.forExpression.size() >= kExpressionBytes) throw badTag("la condición FOR tiene más de 219 caracteres");
    if (!t.forExpression.empty() && blockPages < 2)
      throw badTag("una condición FOR necesita bloques de 2 páginas o más");
    if (t.expression.find('\0') != std::string::npos || t.forExpression.find('\0') != std::string::npos)
      throw badTag("un NUL en una expresión");
    for (const auto& [key, recno] : t.entries) {
      if (key.size() != t.keyLength)
        throw badTag("una clave de " + std::to_string(key.size()) + " bytes, no de " + std::to_string(t.keyLength));
      if (recno == 0) throw badTag("registro número 0");
    }
  }
}

}  // namespace

void writeMdx(const std::string& path, std::string_view dbfBaseName, uint8_t languageDriver,
              const std::vector<MdxTagBuild>& tags, uint16_t blockPages) {
  const std::string name = baseName(path);
  validate(name, tags, blockPages);
  const uint32_t blockBytes = uint32_t(blockPages) * kPageBytes;
  const uint32_t headerPages = (kHeaderAreaBytes / kPageBytes + blockPages - 1) / blockPages * blockPages;

  std::time_t now = std::time(nullptr);
  std::tm today {};
  localtime_r(&now, &today);

  std::vector<TreeShape> shapes;
  uint64_t totalPages = headerPages;
  std::vector<uint32_t> headerPageOf;
  for (const MdxTagBuild& t : tags) {
    shapes.push_back(shapeOf(t, blockBytes));
    headerPageOf.push_back(uint32_t(totalPages));
    totalPages += uint64_t(blockPages) * (1 + shapes.back().nodes);
  }
  if (totalPages > UINT32_MAX) throw Error(ErrorKind::InvalidArgument, name, "el índice pasaría de 2^32 páginas");

  // File header and tag table.
  std::vector<unsigned char> head(size_t(headerPages) * kPageBytes, 0);
  head[kOffVersion] = 2;
  putDate(&head[kOffCreated], today);
  const std::string table = upper(dbfBaseName).substr(0, kTableNameBytes - 1);
  std::memcpy(&head[kOffTableName], table.data(), table.size());
  put16(&head[kOffBlockPages], blockPages);
  put16(&head[kOffBlockBytes], uint16_t(blockBytes));
  head[kOffProduction] = 1;
  head[kOffSlotCount] = kTagSlots;
  head[kOffSlotLength] = kSlotBytes;
  put16(&head[kOffTagsInUse], uint16_t(tags.size()));
  head[kOffLanguageDriver] = languageDriver;
  put32(&head[kOffTotalPages], uint32_t(totalPages));
  putDate(&head[kOffUpdated], today);
  head[kOffAlwaysOne] = 1;
  for (size_t i = 0; i < tags.size(); ++i) {
    unsigned char* slot = &head[kOffTagTable + i * kSlotBytes];
    const std::string tagName = upper(tags[i].name);
    put32(slot + kSlotHeaderPage, headerPageOf[i]);
    std::memcpy(slot + kSlotName, tagName.data(), tagName.size());
    slot[kSlotKeyFormat] = isFieldName(tags[i].expression) ? kFormatField : 0;
    slot[kSlotTwo] = 2;
    slot[kSlotKeyType] = uint8_t(tags[i].keyType);
    // The name tree: each tag goes down from the first one, left when its
    // name sorts before, right when after.
    if (i == 0) continue;
    size_t at = 0;
    for (;;) {
      unsigned char* node = &head[kOffTagTable + at * kSlotBytes];
      const int side = tagName < upper(tags[at].name) ? kSlotLeft : kSlotRight;
      if (node[side] == 0) {
        node[side] = uint8_t(i + 1);
        slot[kSlotParent] = uint8_t(at + 1);
        break;
      }
      at = node[side] - 1u;
    }
  }

  TempFile out(path, name);
  out.append(head.data(), head.size());

  std::vector<unsigned char> block(blockBytes);
  for (size_t t = 0; t < tags.size(); ++t) {
    const MdxTagBuild& tag = tags[t];
    const TreeShape& shape = shapes[t];
    const uint32_t firstNode = headerPageOf[t] + blockPages;
    const uint32_t rootPage = firstNode + uint32_t(shape.nodes - 1) * blockPages;
    const uint32_t lastLeaf = firstNode + uint32_t(shape.levels[0] - 1) * blockPages;

    std::fill(block.begin(), block.end(), 0);
    std::vector<unsigned char> h(std::max<uint32_t>(blockBytes, 1024), 0);
    uint8_t format = isFieldName(tag.expression) ? kFormatField : 0;
    if (tag.descending) format |= kFormatDescending;
    if (tag.unique) format |= kFormatUnique;
    put32(&h[kTagRoot], rootPage);
    put32(&h[kTagPages], uint32_t(shape.nodes * blockPages));
    h[kTagFormat] = format;
    h[kTagKeyType] = uint8_t(tag.keyType);
    h[kTagLanguageDriver] = languageDriver;
    put16(&h[kTagKeyLength], tag.keyLength);
    put16(&h[kTagMaxKeys], shape.maxKeys);
    put16(&h[kTagDateKeys], tag.keyType == 'D' ? 1 : 0);
    put16(&h[kTagItemLength], shape.itemLength);
    h[kTagSerial] = 1;
    h[kTagUnique] = tag.unique ? 1 : 0;
    std::memcpy(&h[kTagExpression], tag.expression.data(), tag.expression.size());
    h[kTagHasFor] = tag.forExpression.empty() ? 0 : 1;
    h[kTagHasKeys] = tag.entries.empty() ? 0 : 1;
    put32(&h[kTagFirstLeaf], firstNode);
    put32(&h[kTagLastLeaf], lastLeaf);
    putDate(&h[kTagDate], today);
    std::memcpy(&h[kTagForExpression], tag.forExpression.data(), tag.forExpression.size());
    out.append(h.data(), blockBytes);

    // One node: n items [pointer][key], then the rightmost pointer (0 in a leaf).
    auto writeNode = [&](size_t n, auto&& itemAt, uint32_t rightmost) {
      std::fill(block.begin(), block.end(), 0);
      put32(block.data(), uint32_t(n));
      for (size_t i = 0; i < n; ++i) {
        unsigned char* item = block.data() + kNodeHeaderBytes + i * shape.itemLength;
        auto [pointer, key] = itemAt(i);
        put32(item, pointer);
        std::memcpy(item + 4, key.data(), key.size());
      }
      put32(block.data() + kNodeHeaderBytes + n * shape.itemLength, rightmost);
      out.append(block.data(), block.size());
    };

    // Each node of the level below: its page and its highest key.
    std::vector<std::pair<uint32_t, std::string_view>> below;
    uint32_t page = firstNode;
    const size_t entries = tag.entries.size();
    const size_t leaves = shape.levels[0];
    for (size_t j = 0; j < leaves; ++j) {
      const size_t from = j * entries / leaves, to = (j + 1) * entries / leaves;
      writeNode(to - from, [&](size_t i) {
        const auto& e = tag.entries[from + i];
        return std::pair<uint32_t, std::string_view>(e.second, e.first);
      }, 0);
      below.emplace_back(page, to > from ? std::string_view(tag.entries[to - 1].first) : std::string_view());
      page += blockPages;
    }
    for (size_t level = 1; level < shape.levels.size(); ++level) {
      std::vector<std::pair<uint32_t, std::string_view>> above;
      const size_t count = shape.levels[level];
      for (size_t j = 0; j < count; ++j) {
        const size_t from = j * below.size() / count, to = (j + 1) * below.size() / count;
        writeNode(to - from - 1, [&](size_t i) { return below[from + i]; }, below[to - 1].first);
        above.emplace_back(page, below[to - 1].second);
        page += blockPages;
      }
      below = std::move(above);
    }
  }
  out.commit(path);
}

}  // namespace dbase
