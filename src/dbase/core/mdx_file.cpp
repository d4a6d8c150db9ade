#include "dbase/core/mdx_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "dbase/core/error.h"
#include "dbase/core/file_times.h"
#include "dbase/core/mdx_format.h"
#include "dbase/core/mdx_io.h"

namespace dbase {

using namespace mdx;
using namespace mdx_io;

namespace {

int64_t modifiedNs(const struct stat& st) { return int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec; }

// Text up to the first NUL within [p, p + size).
std::string cString(const unsigned char* p, size_t size) {
  const void* nul = std::memchr(p, 0, size);
  return std::string(reinterpret_cast<const char*>(p), nul ? static_cast<const unsigned char*>(nul) - p : size);
}

char upperAscii(char c) { return c >= 'a' && c <= 'z' ? char(c - 'a' + 'A') : c; }

}  // namespace

std::unique_ptr<MdxFile> MdxFile::open(const std::string& path) {
  std::unique_ptr<MdxFile> file(new MdxFile());
  file->path_ = path;
  file->name_ = baseName(path);
  file->fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file->fd_ < 0) throw Error(ErrorKind::Io, file->name_, systemError("no se puede abrir"));
  file->load();
  return file;
}

MdxFile::~MdxFile() {
  if (fd_ >= 0) ::close(fd_);
}

bool MdxFile::pageInFile(uint32_t page) const {
  return page >= kHeaderAreaBytes / kPageBytes && uint64_t(page) * kPageBytes + blockBytes_ <= fileSize_;
}

void MdxFile::readBlock(uint32_t page, unsigned char* into, const std::string& tagName) const {
  if (!readAt(fd_, uint64_t(page) * kPageBytes, into, blockBytes_))
    throw Error(ErrorKind::Io, name_, "índice " + tagName + ": " + systemError("no se puede leer una página"));
}

void MdxFile::load() {
  struct stat st {};
  if (::fstat(fd_, &st) != 0) throw Error(ErrorKind::Io, name_, systemError("no se puede consultar"));
  fileSize_ = uint64_t(st.st_size);
  modifiedNs_ = modifiedNs(st);
  settleNs_ = timesSettleNs(fd_);
  timesTrusted_ = wallClockNs() - modifiedNs_ > settleNs_;
  inode_ = uint64_t(st.st_ino);
  device_ = uint64_t(st.st_dev);

  auto corrupt = [&](const std::string& what) { return Error(ErrorKind::Corrupt, name_, what); };
  if (fileSize_ < kFileHeaderBytes)
    throw corrupt("más corto (" + std::to_string(fileSize_) + " bytes) que una cabecera de índice");
  unsigned char header[kFileHeaderBytes];
  if (!readAt(fd_, 0, header, sizeof header)) throw Error(ErrorKind::Io, name_, systemError("no se puede leer"));

  const uint8_t version = header[kOffVersion];
  if (version != 2 && version != 3) throw corrupt("no es un índice de dBase IV (byte de versión " + std::to_string(version) + ")");
  blockPages_ = get16(header + kOffBlockPages);
  if (blockPages_ == 0 || blockPages_ > kMaxBlockPages)
    throw corrupt("bloques de " + std::to_string(blockPages_) + " páginas (se admiten de 1 a 32)");
  blockBytes_ = blockPages_ * kPageBytes;
  if (get16(header + kOffBlockBytes) != blockBytes_)
    throw corrupt("bloques de " + std::to_string(get16(header + kOffBlockBytes)) + " bytes, que no son " +
                  std::to_string(blockPages_) + " páginas");
  const uint32_t slotLength = header[kOffSlotLength];
  const uint32_t slotCount = header[kOffSlotCount];
  const uint32_t tagCount = get16(header + kOffTagsInUse);
  if (slotLength < kSlotBytes) throw corrupt("entradas de la tabla de índices de " + std::to_string(slotLength) + " bytes");
  if (tagCount > kMaxTags || tagCount > slotCount)
    throw corrupt(std::to_string(tagCount) + " índices en uso, más de los que caben en su tabla");
  if (kFileHeaderBytes + uint64_t(tagCount) * slotLength > fileSize_)
    throw corrupt("la tabla de índices pasa del final del fichero");
  languageDriver_ = header[kOffLanguageDriver];
  tableName_ = cString(header + kOffTableName, kTableNameBytes);

  std::vector<unsigned char> table(size_t(tagCount) * slotLength);
  if (!table.empty() && !readAt(fd_, kOffTagTable, table.data(), table.size()))
    throw Error(ErrorKind::Io, name_, systemError("no se puede leer la tabla de índices"));
  for (size_t i = 0; i < tagCount; ++i) loadTag(i, table.data() + i * slotLength);
}

void MdxFile::loadTag(size_t slot, const unsigned char* entry) {
  MdxTagInfo tag;
  tag.name = cString(entry + kSlotName, kSlotNameBytes);
  for (char& c : tag.name) c = upperAscii(c);
  tag.headerPage = get32(entry + kSlotHeaderPage);
  tag.keyType = char(entry[kSlotKeyType]);
  std::string fault;
  auto record = [&](const std::string& what) {
    tags_.push_back(tag);
    faults_.push_back("índice " + (tag.name.empty() ? "#" + std::to_string(slot + 1) : tag.name) + ": " + what);
  };
  if (tag.name.empty()) return record("sin nombre en su entrada");
  if (!pageInFile(tag.headerPage))
    return record("la página de su cabecera, " + std::to_string(tag.headerPage) + ", cae fuera del fichero (" +
                  std::to_string(fileSize_) + " bytes)");

  // The header is one block, but its FOR text lies past the first 512 bytes.
  std::vector<unsigned char> h(std::max<uint32_t>(blockBytes_, 1024), 0);
  const uint64_t at = uint64_t(tag.headerPage) * kPageBytes;
  const size_t available = size_t(std::min<uint64_t>(h.size(), fileSize_ - at));
  if (!readAt(fd_, at, h.data(), available))
    throw Error(ErrorKind::Io, name_, "índice " + tag.name + ": " + systemError("no se puede leer su cabecera"));

  tag.rootPage = get32(h.data() + kTagRoot);
  const uint8_t format = h[kTagFormat];
  tag.keyType = char(h[kTagKeyType]);
  tag.keyLength = get16(h.data() + kTagKeyLength);
  tag.maxKeys = get16(h.data() + kTagMaxKeys);
  tag.itemLength = get16(h.data() + kTagItemLength);
  tag.serial = h[kTagSerial];
  tag.unique = h[kTagUnique] != 0 || (format & kFormatUnique) != 0;
  tag.descending = (format & kFormatDescending) != 0;
  tag.expression = cString(h.data() + kTagExpression, kExpressionBytes);
  if (h[kTagHasFor]) tag.forExpression = cString(h.data() + kTagForExpression, kExpressionBytes);

  if (tag.keyType != 'C' && tag.keyType != 'N' && tag.keyType != 'D')
    return record("tipo de clave desconocido " + std::to_string(uint8_t(tag.keyType)));
  if (tag.keyLength == 0 || uint32_t(tag.keyLength) + 4 + 12 > blockBytes_)
    return record("una clave de " + std::to_string(tag.keyLength) + " bytes no cabe en un bloque de " + std::to_string(blockBytes_) +
                  " bytes");
  if (tag.keyLength > kMaxKeyLength) return record("clave de " + std::to_string(tag.keyLength) + " bytes, más de 100");
  if (tag.itemLength < tag.keyLength + 4 || uint32_t(tag.itemLength) + 12 > blockBytes_)
    return record("entradas de " + std::to_string(tag.itemLength) + " bytes, que no caben claves de " +
                  std::to_string(tag.keyLength) + " in a " + std::to_string(blockBytes_) + " bytes");
  if (tag.maxKeys == 0 || 12 + uint64_t(tag.maxKeys) * tag.itemLength > blockBytes_)
    return record(std::to_string(tag.maxKeys) + " claves por nodo no caben en un bloque de " + std::to_string(blockBytes_) +
                  " bytes");
  if (!pageInFile(tag.rootPage))
    return record("la página raíz, " + std::to_string(tag.rootPage) + ", cae fuera del fichero (" + std::to_string(fileSize_) +
                  " bytes)");
  tags_.push_back(std::move(tag));
  faults_.emplace_back();
}

int MdxFile::tagIndex(std::string_view name) const {
  for (size_t i = 0; i < tags_.size(); ++i) {
    const std::string& t = tags_[i].name;
    if (t.size() == name.size() &&
        std::equal(t.begin(), t.end(), name.begin(), [](char a, char b) { return upperAscii(a) == upperAscii(b); }))
      return int(i);
  }
  return -1;
}

const MdxTagInfo& MdxFile::usableTag(size_t tag) const {
  if (tag >= tags_.size())
    throw Error(ErrorKind::InvalidArgument, name_, "no hay índice número " + std::to_string(tag));
  if (!faults_[tag].empty()) throw Error(ErrorKind::Corrupt, name_, faults_[tag]);
  return tags_[tag];
}

void MdxFile::walk(size_t tag, const Visitor& visit) const {
  Walk walk(*this, tag, /*readAhead=*/true, /*once=*/true);
  for (bool on = walk.first(); on; on = walk.next()) visit(walk.key(), walk.recno());
}

std::optional<std::pair<std::string, uint32_t>> MdxFile::lowerBound(size_t tag, std::string_view search,
                                                                    const KeyCompare& compare) const {
  Walk walk(*this, tag);
  if (!walk.seek(search, compare)) return std::nullopt;
  return std::make_pair(std::string(walk.key()), walk.recno());
}

IndexFileLock MdxFile::sharedLock() const { return IndexFileLock(fd_, name_, LockMode::Shared); }

MdxFile::OwnWrite MdxFile::ownWrite(const std::string& path, const std::vector<MdxTagInfo>& written) {
  OwnWrite own;
  own.tags = written;
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return own;
  own.found = true;
  own.size = uint64_t(st.st_size);
  own.modifiedNs = modifiedNs(st);
  own.inode = uint64_t(st.st_ino);
  own.device = uint64_t(st.st_dev);
  return own;
}

bool MdxFile::adoptOwnWrite(const OwnWrite& written) {
  if (!written.found || written.inode != inode_ || written.device != device_ || written.tags.size() != tags_.size())
    return false;
  fileSize_ = written.size;
  modifiedNs_ = written.modifiedNs;
  timesTrusted_ = false;  // just written: the next change may share its tick
  for (size_t i = 0; i < tags_.size(); ++i) {
    if (!faults_[i].empty()) continue;
    if (!pageInFile(written.tags[i].rootPage)) return false;  // read anew, with every check
    tags_[i].rootPage = written.tags[i].rootPage;
    tags_[i].serial = written.tags[i].serial;
  }
  return true;
}

bool MdxFile::changedOnDisk(Look look) const {
  struct stat st {};
  // Through the open file, a file with no name left was replaced or removed.
  const bool gone = look == Look::ByPath ? ::stat(path_.c_str(), &st) != 0
                                         : ::fstat(fd_, &st) != 0 || st.st_nlink == 0;
  if (gone) return true;
  if (uint64_t(st.st_size) != fileSize_ || modifiedNs(st) != modifiedNs_ || uint64_t(st.st_ino) != inode_ ||
      uint64_t(st.st_dev) != device_)
    return true;
  // File times tick coarsely (file_times.h): a change made in the same tick
  // as the last one leaves them as they were. When we read the file within
  // that tick, such a change may have come after our reading, so the tags'
  // change counters are read, until once they were found unchanged after
  // the tick was over: any later change shows in the times.
  if (timesTrusted_) return false;
  const int64_t nowNs = wallClockNs();
  for (size_t i = 0; i < tags_.size(); ++i) {
    if (!faults_[i].empty()) continue;
    unsigned char serial = 0;
    if (!readAt(fd_, uint64_t(tags_[i].headerPage) * kPageBytes + kTagSerial, &serial, 1)) return true;
    if (serial != tags_[i].serial) return true;
  }
  timesTrusted_ = nowNs - modifiedNs_ > settleNs_;
  return false;
}

}  // namespace dbase
