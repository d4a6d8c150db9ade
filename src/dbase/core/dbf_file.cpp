#include "dbase/core/dbf_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <system_error>
#include <thread>

#include "dbase/core/codepage.h"
#include "dbase/core/collation.h"
#include "dbase/core/dbase_locks.h"
#include "dbase/core/error.h"
#include "dbase/core/file_times.h"
#include "dbase/core/path.h"

namespace dbase {

namespace {

// dBase caps a table at a billion rows (its lock range is that wide).
constexpr uint64_t kMaxRecords = 1000000000ull;

// The cache of closed files: its default budget, and a cap on the files
// (each keeps a descriptor open).
constexpr uint64_t kDefaultCacheBytes = 512ull << 20;
constexpr size_t kMaxCachedFiles = 64;

// Large row buffers are mapped in 2 MB steps, so that they can use huge pages
// (one page fault per 2 MB instead of per 4 KB).
constexpr size_t kMapThreshold = size_t(1) << 20;
constexpr size_t kMapStep = size_t(2) << 20;

// Rows are read from the file in blocks of about this many bytes (whole
// rows), the first time one of a block's rows is asked for; reading them
// all goes a run of unread blocks of up to kReadRunBytes at a time, and in
// two halves at once above kSplitAbove. Smaller blocks make a search that
// touches a few rows cheaper; larger ones cost more system calls.
constexpr size_t kReadBlockBytes = size_t(64) << 10;
constexpr size_t kReadRunBytes = size_t(1) << 20;
constexpr size_t kSplitAbove = size_t(16) << 20;
// Rows asked for one after the other from the first on, past this many
// bytes, are taken for a walk to the last one: the rest is read at once.
constexpr size_t kWalkBytes = size_t(1) << 20;

std::string baseName(const std::string& path) {
  auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The path with links and dots resolved; for a file that is not there, its
// folder's (so that a table deleted since it was cached is still found by it).
std::string canonical(const std::string& path) {
  char buffer[PATH_MAX];
  if (realpath(path.c_str(), buffer)) return buffer;
  const auto slash = path.find_last_of('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  if (!realpath(folder.c_str(), buffer)) return path;
  return std::string(buffer) + (buffer[1] ? "/" : "") + path.substr(slash == std::string::npos ? 0 : slash + 1);
}

std::string systemError(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

bool knownVersion(uint8_t v) {
  switch (v) {
    case 0x03: case 0x83: case 0x8B: case 0x43: case 0x63: case 0xCB:  // dBase III / IV
    case 0x30: case 0x31: case 0xF5:                                   // FoxPro
      return true;
    default:
      return false;
  }
}

bool knownType(char t) { return t && std::strchr("CNFLDM", t); }

// Today's date as the header stores it; worked out again once a second at most.
void todayAsHeaderDate(unsigned char out[3]) {
  static thread_local std::time_t second = -1;
  static thread_local unsigned char date[3];
  const std::time_t now = std::time(nullptr);
  if (now != second) {
    std::tm local{};
    localtime_r(&now, &local);
    date[0] = uint8_t(local.tm_year);  // years since 1900
    date[1] = uint8_t(local.tm_mon + 1);
    date[2] = uint8_t(local.tm_mday);
    second = now;
  }
  std::memcpy(out, date, 3);
}

int openTable(const std::string& path, bool& writable) {
  int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  writable = fd >= 0;
  if (fd < 0 && (errno == EACCES || errno == EROFS || errno == EPERM)) fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  return fd;
}

}  // namespace

// Every open file of the process by canonical path, and the closed ones kept
// for reuse (most recently closed first). Never destroyed: files released
// while the process exits must still find it.
struct DbfFile::OpenFiles {
  std::mutex mutex;
  std::map<std::string, std::weak_ptr<DbfFile>> live;
  std::list<std::unique_ptr<DbfFile>> cached;
  uint64_t cachedBytes = 0;
  uint64_t limit = kDefaultCacheBytes;

  OpenFiles() {
    if (const char* mb = std::getenv("CODPOSTALES_CACHE_MB"); mb && *mb) {
      char* end = nullptr;
      const unsigned long long value = std::strtoull(mb, &end, 10);
      if (end && *end == '\0') limit = value << 20;
    }
  }
  std::shared_ptr<DbfFile> liveFile(const std::string& key) {
    auto it = live.find(key);
    return it == live.end() ? nullptr : it->second.lock();
  }
  std::unique_ptr<DbfFile> take(const std::string& key) {
    for (auto it = cached.begin(); it != cached.end(); ++it)
      if ((*it)->cacheKey_ == key) {
        std::unique_ptr<DbfFile> file = std::move(*it);
        cached.erase(it);
        cachedBytes -= file->cachedBytes_;
        return file;
      }
    return nullptr;
  }
  // Drops the least recently closed files beyond the limits into `out`.
  void trim(std::vector<std::unique_ptr<DbfFile>>& out) {
    while (!cached.empty() && (cachedBytes > limit || cached.size() > kMaxCachedFiles)) {
      cachedBytes -= cached.back()->cachedBytes_;
      out.push_back(std::move(cached.back()));
      cached.pop_back();
    }
  }
};

DbfFile::OpenFiles& DbfFile::openFiles() {
  static OpenFiles* files = new OpenFiles;
  return *files;
}

// ---- growable bytes ---------------------------------------------------------

DbfFile::Bytes::~Bytes() {
  if (mapped_)
    munmap(data_, capacity_);
  else
    std::free(data_);
}

void DbfFile::Bytes::reserve(size_t size) {
  if (size <= capacity_) return;
  size_t wanted = std::max(size, capacity_ + capacity_ / 2);
  if (wanted < kMapThreshold) {
    char* grown = static_cast<char*>(std::realloc(data_, wanted));
    if (!grown) throw std::bad_alloc();
    data_ = grown;
    capacity_ = wanted;
    return;
  }
  wanted = (wanted + kMapStep - 1) / kMapStep * kMapStep;
  void* grown = mapped_ ? mremap(data_, capacity_, wanted, MREMAP_MAYMOVE)
                        : mmap(nullptr, wanted, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (grown == MAP_FAILED) throw std::bad_alloc();
  madvise(grown, wanted, MADV_HUGEPAGE);
  if (!mapped_) {
    if (size_) std::memcpy(grown, data_, size_);
    std::free(data_);
  }
  data_ = static_cast<char*>(grown);
  capacity_ = wanted;
  mapped_ = true;
}

void DbfFile::Bytes::resize(size_t size) {
  reserve(size);
  size_ = size;
}

size_t DbfFile::Bytes::pageBytes() const { return mapped_ ? kMapStep : size_t(4096); }

void DbfFile::Bytes::discard() {
  if (mapped_) madvise(data_, capacity_, MADV_DONTNEED);  // mapped pages come back cleared when touched
}

void DbfFile::Bytes::append(const char* bytes, size_t size) {
  if (size_ + size > capacity_) reserve(size_ + size);
  std::memcpy(data_ + size_, bytes, size);
  size_ += size;
}

// ---- opening, sharing and the cache -----------------------------------------

DbfFile::DiskState DbfFile::diskState(const struct stat& st) {
  DiskState d;
  d.size = uint64_t(st.st_size);
  d.timeNs = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  d.changeNs = int64_t(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
  d.inode = uint64_t(st.st_ino);
  d.device = uint64_t(st.st_dev);
  return d;
}

std::shared_ptr<DbfFile> DbfFile::open(const std::string& path) {
  std::string resolved = resolvePathCaseInsensitive(path);
  std::string key = canonical(resolved);
  std::unique_ptr<DbfFile> file;
  {
    std::lock_guard<std::mutex> guard(openFiles().mutex);
    if (auto existing = openFiles().liveFile(key)) {
      existing->syncWithDisk();
      return existing;
    }
    file = openFiles().take(key);
  }
  // Checked and read outside the lock: a file that fails is destroyed on
  // the way out.
  if (file && (file->path_ != resolved || !file->reusable())) file.reset();
  if (!file) {
    file.reset(new DbfFile());
    file->path_ = resolved;
    file->name_ = baseName(resolved);
    file->cacheKey_ = key;
    file->fd_ = openTable(resolved, file->writable_);
    if (file->fd_ < 0) throw Error(ErrorKind::Io, file->name_, systemError("no se puede abrir"));
    struct stat st {};
    if (fstat(file->fd_, &st) == 0 && S_ISDIR(st.st_mode))
      throw Error(ErrorKind::Io, file->name_, "es un directorio, no una tabla");
    file->load();
  }
  std::shared_ptr<DbfFile> shared(file.release(), &DbfFile::release);
  std::shared_ptr<DbfFile> other;
  {
    std::lock_guard<std::mutex> guard(openFiles().mutex);
    // Another thread may have opened the same file meanwhile: share its copy.
    other = openFiles().liveFile(key);
    if (!other) openFiles().live[key] = shared;
  }
  return other ? other : shared;  // ours, if unused, goes to the cache or away
}

// The deleter of the shared handle: the last user let go.
void DbfFile::release(DbfFile* released) {
  std::unique_ptr<DbfFile> file(released);
  std::vector<std::unique_ptr<DbfFile>> dropped;  // destroyed outside the lock
  const bool keep = cacheLimit() > 0 && file->settleForCache();
  const size_t bytes = keep ? file->memoryBytes() : 0;
  // `file` and `dropped` outlive the lock: their destructors close files.
  std::lock_guard<std::mutex> guard(openFiles().mutex);
  OpenFiles& files = openFiles();
  auto it = files.live.find(file->cacheKey_);
  const bool reopened = it != files.live.end() && !it->second.expired();
  if (it != files.live.end() && !reopened) files.live.erase(it);
  if (keep && !reopened && bytes <= files.limit) {
    file->cachedBytes_ = bytes;
    files.cachedBytes += bytes;
    files.cached.push_front(std::move(file));
    files.trim(dropped);
  }
}

std::shared_ptr<DbfFile> DbfFile::create(const std::string& path, const std::vector<FieldSpec>& specs,
                                         uint8_t languageDriver, bool overwrite) {
  const std::string name = baseName(path);
  if (specs.empty() || specs.size() > kMaxFields)
    throw Error(ErrorKind::InvalidArgument, name, "una tabla tiene de 1 a 255 campos");
  std::string header(kHeaderSize + kDescriptorSize * specs.size() + 1, '\0');
  auto* h = reinterpret_cast<unsigned char*>(header.data());
  uint32_t recordLength = 1;
  for (size_t i = 0; i < specs.size(); ++i) {
    const FieldSpec& s = specs[i];
    if (s.name.empty() || s.name.size() > 10)
      throw Error(ErrorKind::InvalidArgument, name, "nombre de campo inválido: «" + s.name + "»");
    uint32_t maxLength = (s.type == FieldType::Character) ? kMaxCharLength
                         : (s.type == FieldType::Logical) ? 1
                         : (s.type == FieldType::Date)    ? 8
                         : (s.type == FieldType::Memo)    ? 10
                                                          : kMaxNumericLength;
    if (s.length == 0 || s.length > maxLength || (s.decimals && s.decimals + 2 > s.length))
      throw Error(ErrorKind::InvalidArgument, name, "longitud inválida para el campo " + s.name);
    unsigned char* d = h + kHeaderSize + kDescriptorSize * i;
    for (size_t c = 0; c < s.name.size(); ++c) d[kFieldOffName + c] = uint8_t(std::toupper(uint8_t(s.name[c])));
    d[kFieldOffType] = uint8_t(s.type);
    d[kFieldOffLength] = uint8_t(s.length);
    d[kFieldOffDecimals] = uint8_t(s.decimals);
    recordLength += s.length;
  }
  if (recordLength > 0xFFFF) throw Error(ErrorKind::InvalidArgument, name, "registro demasiado largo");
  h[kOffVersion] = 0x03;
  todayAsHeaderDate(h + kOffUpdateDate);
  putU32(h + kOffRecordCount, 0);
  putU16(h + kOffHeaderLength, uint16_t(header.size()));
  putU16(h + kOffRecordLength, uint16_t(recordLength));
  h[kOffLanguageDriver] = languageDriver;
  header.back() = char(kHeaderTerminator);
  header.push_back(char(kEndOfFile));

  int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (overwrite ? O_TRUNC : O_EXCL);
  int fd = ::open(path.c_str(), flags, 0644);
  if (fd < 0) throw Error(ErrorKind::Io, name, systemError("no se puede crear"));
  bool ok = ::write(fd, header.data(), header.size()) == ssize_t(header.size());
  ok = (::close(fd) == 0) && ok;
  if (!ok) throw Error(ErrorKind::Io, name, systemError("no se puede escribir la cabecera"));
  // A table overwritten in place must not be served from a stale copy.
  const std::string key = canonical(path);
  std::shared_ptr<DbfFile> live;
  std::unique_ptr<DbfFile> cached;
  {
    std::lock_guard<std::mutex> guard(openFiles().mutex);
    live = openFiles().liveFile(key);
    cached = openFiles().take(key);
  }
  if (live) live->syncWithDisk();
  return open(path);
}

DbfFile::~DbfFile() {
  if (fd_ >= 0) ::close(fd_);
}

void DbfFile::setCacheLimit(uint64_t bytes) {
  std::vector<std::unique_ptr<DbfFile>> dropped;
  std::lock_guard<std::mutex> guard(openFiles().mutex);
  openFiles().limit = bytes;
  openFiles().trim(dropped);
}

uint64_t DbfFile::cacheLimit() {
  std::lock_guard<std::mutex> guard(openFiles().mutex);
  return openFiles().limit;
}

size_t DbfFile::cachedFiles() {
  std::lock_guard<std::mutex> guard(openFiles().mutex);
  return openFiles().cached.size();
}

uint64_t DbfFile::cachedBytes() {
  std::lock_guard<std::mutex> guard(openFiles().mutex);
  return openFiles().cachedBytes;
}

// On release: the rows held must be the file's. Our own writes since the last
// look are taken as the change seen (as syncWithDisk does); anything else, or
// a file gone or replaced, is not worth keeping.
bool DbfFile::settleForCache() {
  const int64_t now = wallClockNs();
  struct stat st {};
  if (stat(path_.c_str(), &st) != 0) return false;
  DiskState seen = diskState(st);
  if (seen == disk_) return true;
  if (!ownWritesSinceStat_ || seen.inode != disk_.inode || seen.device != disk_.device || seen.size != disk_.size)
    return false;
  unsigned char h[8];
  if (pread(fd_, h, sizeof h, 0) != ssize_t(sizeof h) || getU32(h + kOffRecordCount) != count_) return false;
  disk_ = seen;
  checkedAtNs_ = now;
  ownWritesSinceStat_ = false;
  return true;
}

// On reopening from the cache: whether the file at the path is still the one
// whose rows are held. Opening it again (rather than trusting the descriptor
// kept) makes network file systems check their attributes with the server.
bool DbfFile::reusable() {
  const int64_t now = wallClockNs();
  bool writable = false;
  const int fd = openTable(path_, writable);
  if (fd < 0) return false;
  struct stat st {};
  bool same = fstat(fd, &st) == 0 && diskState(st) == disk_;
  // Changed in the same tick as the last change we saw, the times would not
  // show it: compare the bytes.
  if (same && checkedAtNs_ - disk_.changeNs < timesSettleNs(fd)) same = sameBytesOnDisk(fd);
  if (!same) {
    ::close(fd);
    return false;
  }
  ::close(fd_);
  fd_ = fd;
  writable_ = writable;
  checkedAtNs_ = now;
  return true;
}

// The header and the blocks of rows read, against the file at fd.
bool DbfFile::sameBytesOnDisk(int fd) const {
  std::vector<char> theirs;
  auto same = [&](uint64_t offset, const char* ours, size_t size) {
    theirs.resize(std::min<size_t>(size, size_t(1) << 20));
    for (size_t done = 0; done < size;) {
      const ssize_t n = pread(fd, theirs.data(), std::min(theirs.size(), size - done), off_t(offset + done));
      if (n <= 0 || std::memcmp(theirs.data(), ours + done, size_t(n)) != 0) return false;
      done += size_t(n);
    }
    return true;
  };
  if (!same(0, header_.data(), header_.size())) return false;
  std::lock_guard<std::mutex> guard(readMutex_);
  for (size_t b = 0; b < blocks_;) {
    if (!blockRead_[b].load(std::memory_order_relaxed)) {
      ++b;
      continue;
    }
    size_t end = b + 1;
    while (end < blocks_ && blockRead_[end].load(std::memory_order_relaxed)) ++end;
    if (!same(headerLength_ + blockStart(b), rows_.data() + blockStart(b), blockEnd(end - 1) - blockStart(b)))
      return false;
    b = end;
  }
  return true;
}

void DbfFile::lastUpdate(int& year, int& month, int& day) const {
  year = date_[0];
  month = date_[1];
  day = date_[2];
}

int DbfFile::fieldIndex(std::string_view name) const {
  for (size_t i = 0; i < fields_.size(); ++i) {
    const std::string& f = fields_[i].name;
    if (f.size() == name.size() &&
        std::equal(f.begin(), f.end(), name.begin(),
                   [](char a, char b) { return std::toupper(uint8_t(a)) == std::toupper(uint8_t(b)); }))
      return int(i);
  }
  return -1;
}

const FieldDescriptor& DbfFile::field(std::string_view name) const {
  int i = fieldIndex(name);
  if (i < 0) throw Error(ErrorKind::InvalidArgument, name_, "campo desconocido: " + std::string(name));
  return fields_[size_t(i)];
}

std::string DbfFile::blankRecord() const { return std::string(recordLength_, ' '); }

void DbfFile::load() {
  const int64_t now = wallClockNs();
  struct stat st {};
  if (fstat(fd_, &st) != 0) throw Error(ErrorKind::Io, name_, systemError("no se puede leer"));
  const uint64_t fileSize = uint64_t(st.st_size);
  std::vector<unsigned char> header(std::min<uint64_t>(fileSize, kHeaderSize + kDescriptorSize * 256 + 1));
  if (!header.empty() && pread(fd_, header.data(), header.size(), 0) != ssize_t(header.size()))
    throw Error(ErrorKind::Io, name_, systemError("no se puede leer la cabecera"));
  parseHeader(header.data(), header.size(), fileSize);
  if (headerLength_ <= header.size()) {
    header_.assign(reinterpret_cast<const char*>(header.data()), headerLength_);
  } else {
    header_.resize(headerLength_);  // writers may pad the header beyond the descriptors
    if (pread(fd_, header_.data(), headerLength_, 0) != ssize_t(headerLength_))
      throw Error(ErrorKind::Io, name_, systemError("no se puede leer la cabecera"));
  }

  const uint32_t declared = getU32(header.data() + kOffRecordCount);
  const uint64_t complete = std::min<uint64_t>((fileSize - headerLength_) / recordLength_, kMaxRecords);
  uint64_t count = std::min<uint64_t>(declared, complete);
  rowsPerBlock_ = uint32_t(std::max<size_t>(1, kReadBlockBytes / recordLength_));
  count += rowsPastTheCount(count, complete);
  if (count != declared)
    warnings_.push_back("la cabecera declara " + std::to_string(declared) + " registros y el fichero tiene " +
                        std::to_string(count) + " completos; se leen " + std::to_string(count));
  count_ = uint32_t(count);
  rows_.resize(size_t(count) * recordLength_);
  forgetReadRows();
  disk_ = diskState(st);
  checkedAtNs_ = now;
  ownWritesSinceStat_ = false;
}

// Whole rows past the declared count were written by a program that stopped
// before updating the header: they are kept while they look like rows. Only
// their delete flags are looked at here; the rows are read when asked for.
uint64_t DbfFile::rowsPastTheCount(uint64_t count, uint64_t complete) {
  std::vector<char> rows;
  uint64_t found = 0;
  for (uint64_t at = count; at < complete;) {
    const size_t want = size_t(std::min<uint64_t>(complete - at, rowsPerBlock_));
    rows.resize(want * recordLength_);
    const off_t offset = off_t(headerLength_ + at * recordLength_);
    const ssize_t n = pread(fd_, rows.data(), rows.size(), offset);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw Error(ErrorKind::Io, name_, systemError("no se pueden leer los registros"));
    const size_t whole = size_t(n) / recordLength_;
    for (size_t r = 0; r < whole; ++r, ++found)
      if (rows[r * recordLength_] != kLiveFlag && rows[r * recordLength_] != kDeletedFlag) return found;
    if (whole < want) return found;  // shorter than it was a moment ago
    at += whole;
  }
  return found;
}

// ---- rows read when first asked for ------------------------------------------

// Every block unread, for the count just read.
void DbfFile::forgetReadRows() {
  std::lock_guard<std::mutex> guard(readMutex_);
  if (blocksRead_ > 0) rows_.discard();
  makeRoomForBlocks();
  for (size_t b = 0; b < blocks_; ++b) blockRead_[b].store(false, std::memory_order_relaxed);
  blocksRead_ = 0;
  leadingRead_ = 0;
  allRead_.store(blocks_ == 0, std::memory_order_release);
  deleted_ = 0;
  deletedKnown_.store(false, std::memory_order_release);
}

// Rows were appended past the blocks there were: the blocks they start are
// whole in the buffer. A last block that was not read stays so: read later,
// its rows old and new come from the file, where the new ones now are.
void DbfFile::rowsAppendedToBlocks() {
  std::lock_guard<std::mutex> guard(readMutex_);
  const size_t first = blocks_;
  makeRoomForBlocks();
  for (size_t b = first; b < blocks_; ++b) markRead(b);
}

// The blocks of count_ rows, the flags of those there were kept. With
// readMutex_ held.
void DbfFile::makeRoomForBlocks() {
  const size_t blocks = (size_t(count_) + rowsPerBlock_ - 1) / rowsPerBlock_;
  if (blocks > blockSlots_) {
    const size_t slots = std::max(blocks, blockSlots_ * 2);
    auto grown = std::make_unique<std::atomic<bool>[]>(slots);
    for (size_t b = 0; b < blocks_; ++b)
      grown[b].store(blockRead_[b].load(std::memory_order_relaxed), std::memory_order_relaxed);
    blockRead_ = std::move(grown);
    blockSlots_ = slots;
  }
  blocks_ = blocks;
}

// With readMutex_ held.
void DbfFile::markRead(size_t block) const {
  blockRead_[block].store(true, std::memory_order_release);
  if (++blocksRead_ == blocks_) allRead_.store(true, std::memory_order_release);
  while (leadingRead_ < blocks_ && blockRead_[leadingRead_].load(std::memory_order_relaxed)) ++leadingRead_;
}

void DbfFile::readBlockOf(uint32_t recno) const {
  const size_t block = (recno - 1) / rowsPerBlock_;
  if (block >= blocks_ || blockRead_[block].load(std::memory_order_acquire)) return;
  std::lock_guard<std::mutex> guard(readMutex_);
  if (blockRead_[block].load(std::memory_order_relaxed)) return;  // another thread read it meanwhile
  // A walk from the first row on most likely goes on to the last: read the
  // rest at once, the way that costs least.
  if (block == leadingRead_ && blockStart(block) >= kWalkBytes) {
    (void)readUnreadBlocks();  // rows further on that cannot be read fail when the walk gets there
    if (blockRead_[block].load(std::memory_order_relaxed)) return;
  }
  if (const int error = readRowBytes(blockStart(block), blockEnd(block)))
    rowsUnreadable(blockStart(block), blockEnd(block), error);
  markRead(block);
}

// The bytes [from, to) of the rows, from the file into the buffer: 0, or the
// errno of the failure (ENODATA when the file ends before `to`).
int DbfFile::readRowBytes(size_t from, size_t to) const {
  while (from < to) {
    const ssize_t n = pread(fd_, rows_.data() + from, to - from, off_t(headerLength_ + from));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) return ENODATA;
    from += size_t(n);
  }
  return 0;
}

void DbfFile::rowsUnreadable(size_t from, size_t to, int error) const {
  const std::string rows = "no se pueden leer los registros " + std::to_string(from / recordLength_ + 1) + " a " +
                           std::to_string(to / recordLength_);
  throw Error(ErrorKind::Io, name_,
              rows + ": " + (error == ENODATA ? "el fichero acaba antes (otro programa lo ha acortado)" : std::strerror(error)));
}

// Reads the unread blocks of [first, last), a run of them at a time, and
// counts the deleted rows of every block of the range when `counting`: of a
// block just read while it is still in the processor's cache. Stops at the
// first run that cannot be read, telling which in `failed`.
uint64_t DbfFile::readBlocks(size_t first, size_t last, bool counting, ReadFailure& failed) const {
  auto deletedIn = [this](size_t from, size_t to) {
    uint64_t deleted = 0;
    for (size_t at = from; at < to; at += recordLength_) deleted += rows_.data()[at] == kDeletedFlag;
    return deleted;
  };
  uint64_t deleted = 0;
  for (size_t b = first; b < last;) {
    if (blockRead_[b].load(std::memory_order_relaxed)) {
      if (counting) deleted += deletedIn(blockStart(b), blockEnd(b));
      ++b;
      continue;
    }
    size_t end = b + 1;  // a run of unread blocks, up to about a megabyte
    while (end < last && !blockRead_[end].load(std::memory_order_relaxed) &&
           blockEnd(end) - blockStart(b) <= kReadRunBytes)
      ++end;
    const size_t from = blockStart(b), to = blockEnd(end - 1);
    if (const int error = readRowBytes(from, to)) {
      failed = {error, from, to};
      return deleted;
    }
    if (counting) deleted += deletedIn(from, to);
    b = end;
  }
  return deleted;
}

void DbfFile::readAllRows() const {
  if (allRead_.load(std::memory_order_acquire) && deletedKnown_.load(std::memory_order_acquire)) return;
  std::lock_guard<std::mutex> guard(readMutex_);
  if (const ReadFailure failed = readUnreadBlocks(); failed.error) rowsUnreadable(failed.from, failed.to, failed.error);
}

// With readMutex_ held: every block not read yet, counting the deleted rows
// on the way if they are not known. What was read before a failure is kept.
DbfFile::ReadFailure DbfFile::readUnreadBlocks() const {
  const bool counting = !deletedKnown_.load(std::memory_order_relaxed);
  if (allRead_.load(std::memory_order_relaxed) && !counting) return {};
  // A large table is read in two halves at once, split where half the
  // unread blocks are behind: most of the time goes in the kernel clearing
  // fresh pages and copying into them, which a second core halves.
  const size_t unread = blocks_ - blocksRead_;
  size_t middle = blocks_;
  if (unread * rowsPerBlock_ * size_t(recordLength_) > kSplitAbove)
    for (size_t b = 0, seen = 0; b < blocks_; ++b)
      if (!blockRead_[b].load(std::memory_order_relaxed) && ++seen == unread / 2) {
        middle = b + 1;
        break;
      }
  ReadFailure failed, failedUpper;
  uint64_t deletedUpper = 0;
  std::thread upper;
  if (middle < blocks_) {
    try {
      upper = std::thread([&] { deletedUpper = readBlocks(middle, blocks_, counting, failedUpper); });
    } catch (const std::system_error&) {
      middle = blocks_;  // no thread to be had: all here
    }
  }
  const uint64_t deleted = readBlocks(0, middle, counting, failed);
  if (upper.joinable()) upper.join();
  auto markReadUpTo = [this](size_t first, size_t last, const ReadFailure& failed) {
    if (failed.error) last = failed.from / (size_t(rowsPerBlock_) * recordLength_);
    for (size_t b = first; b < last; ++b)
      if (!blockRead_[b].load(std::memory_order_relaxed)) markRead(b);
  };
  markReadUpTo(0, middle, failed);
  markReadUpTo(middle, blocks_, failedUpper);
  if (failed.error || failedUpper.error) return failed.error ? failed : failedUpper;
  if (counting) {
    deleted_ = uint32_t(deleted + deletedUpper);
    deletedKnown_.store(true, std::memory_order_release);
  }
  return {};
}

void DbfFile::parseHeader(const unsigned char* h, size_t available, uint64_t fileSize) {
  if (available < kHeaderSize) throw Error(ErrorKind::Corrupt, name_, "cabecera truncada");
  version_ = h[kOffVersion];
  if (version_ == 0x04) throw Error(ErrorKind::NotSupported, name_, "tablas dBase 7 no soportadas");
  if (!knownVersion(version_)) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "0x%02X", version_);
    throw Error(ErrorKind::Corrupt, name_, std::string("no es una tabla dBase (versión ") + hex + ")");
  }
  if (h[kOffEncrypted]) throw Error(ErrorKind::NotSupported, name_, "tabla cifrada");
  std::memcpy(date_, h + kOffUpdateDate, 3);
  headerLength_ = getU16(h + kOffHeaderLength);
  recordLength_ = getU16(h + kOffRecordLength);
  productionMdx_ = h[kOffProductionMdx] == 1;
  languageDriver_ = h[kOffLanguageDriver];
  codePage_ = &CodePage::forLanguageDriver(languageDriver_);
  collation_ = &Collation::forLanguageDriver(languageDriver_);
  if (headerLength_ < kHeaderSize + kDescriptorSize + 1 || headerLength_ > fileSize)
    throw Error(ErrorKind::Corrupt, name_, "longitud de cabecera inválida (" + std::to_string(headerLength_) + ")");
  if (recordLength_ < 2) throw Error(ErrorKind::Corrupt, name_, "longitud de registro inválida");

  fields_.clear();
  uint32_t offset = 1;
  for (size_t pos = kHeaderSize;; pos += kDescriptorSize) {
    if (pos >= available || pos >= headerLength_)
      throw Error(ErrorKind::Corrupt, name_, "falta el terminador de los descriptores de campo");
    if (h[pos] == kHeaderTerminator) break;
    if (pos + kDescriptorSize > available || pos + kDescriptorSize > headerLength_)
      throw Error(ErrorKind::Corrupt, name_, "descriptor de campo truncado");
    if (fields_.size() == kMaxFields) throw Error(ErrorKind::Corrupt, name_, "más de 255 campos");
    const unsigned char* d = h + pos;
    FieldDescriptor f;
    for (int c = 0; c < 11 && d[c]; ++c) {
      if (d[c] < 0x20 || d[c] > 0x7E)
        throw Error(ErrorKind::Corrupt, name_, "nombre de campo ilegible en el descriptor " +
                                                   std::to_string(fields_.size() + 1));
      f.name.push_back(char(d[c]));
    }
    while (!f.name.empty() && f.name.back() == ' ') f.name.pop_back();
    if (f.name.empty())
      throw Error(ErrorKind::Corrupt, name_, "campo sin nombre en el descriptor " + std::to_string(fields_.size() + 1));
    char type = char(d[kFieldOffType]);
    if (!knownType(type))
      throw Error(ErrorKind::NotSupported, name_, "campo " + f.name + " de tipo «" + std::string(1, type) + "» no soportado");
    f.type = FieldType(type);
    f.length = d[kFieldOffLength];
    f.decimals = d[kFieldOffDecimals];
    if (f.length == 0) throw Error(ErrorKind::Corrupt, name_, "campo " + f.name + " de longitud 0");
    f.offset = offset;
    offset += f.length;
    fields_.push_back(std::move(f));
  }
  if (fields_.empty()) throw Error(ErrorKind::Corrupt, name_, "la tabla no tiene campos");
  if (offset > recordLength_)
    throw Error(ErrorKind::Corrupt, name_, "los campos (" + std::to_string(offset) +
                                               " bytes) no caben en el registro de " + std::to_string(recordLength_));
}

void DbfFile::checkWritable() const {
  if (productionMdx_ &&
      std::none_of(listeners_.begin(), listeners_.end(), [](const auto& l) { return l->keepsProductionIndex(); }))
    throw Error(ErrorKind::NotSupported, name_,
                "la tabla tiene un índice de producción .MDX que no se está manteniendo; "
                "escribir en ella lo dejaría desfasado para los demás programas");
  if (!writable_) throw Error(ErrorKind::Io, name_, "la tabla es de sólo lectura");
}

void DbfFile::writeAt(uint64_t offset, const void* data, size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t n = pwrite(fd_, p, size, off_t(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw Error(ErrorKind::Io, name_, systemError("no se puede escribir"));
    p += n;
    size -= size_t(n);
    offset += uint64_t(n);
  }
  ownWritesSinceStat_ = true;
}

void DbfFile::writeHeaderCountAndDate() {
  unsigned char h[7];
  todayAsHeaderDate(h);
  putU32(h + 3, count_);
  writeAt(kOffUpdateDate, h, sizeof h);
  std::memcpy(date_, h, 3);
  if (header_.size() >= kOffUpdateDate + sizeof h) std::memcpy(header_.data() + kOffUpdateDate, h, sizeof h);
}

// A row rewritten in place changes only the date: the count is the append
// lock holder's to write, and ours may be older than another program's.
void DbfFile::writeHeaderDate() {
  unsigned char h[3];
  todayAsHeaderDate(h);
  writeAt(kOffUpdateDate, h, sizeof h);
  std::memcpy(date_, h, 3);
  if (header_.size() >= kOffUpdateDate + sizeof h) std::memcpy(header_.data() + kOffUpdateDate, h, sizeof h);
}

// The listeners told that rows are about to be written (they may refuse),
// and told again if the rows could not be written after all.
class DbfFile::WriteAnnounced {
 public:
  explicit WriteAnnounced(std::vector<std::unique_ptr<RowListener>>& listeners) : listeners_(listeners) {
    try {
      for (; ready_ < listeners_.size(); ++ready_) listeners_[ready_]->beforeWrite();
    } catch (...) {
      abandon();
      throw;
    }
  }
  ~WriteAnnounced() {
    if (!done_) abandon();
  }
  WriteAnnounced(const WriteAnnounced&) = delete;
  WriteAnnounced& operator=(const WriteAnnounced&) = delete;
  void done() { done_ = true; }

 private:
  void abandon() noexcept {
    for (size_t i = 0; i < ready_; ++i) {
      try {
        listeners_[i]->writeAbandoned();
      } catch (...) {
        // nothing was written; what the listener holds is let go with it
      }
    }
  }
  std::vector<std::unique_ptr<RowListener>>& listeners_;
  size_t ready_ = 0;
  bool done_ = false;
};

// Every listener hears of the rows written, even when one fails to follow
// them; the first failure is then passed on.
void DbfFile::tellListeners(const std::function<void(RowListener&)>& tell) {
  std::exception_ptr failed;
  for (auto& l : listeners_) {
    try {
      tell(*l);
    } catch (...) {
      if (!failed) failed = std::current_exception();
    }
  }
  if (failed) std::rethrow_exception(failed);
}

uint32_t DbfFile::append(std::string_view record) {
  if (record.size() != recordLength_) throw Error(ErrorKind::InvalidArgument, name_, "registro de longitud errónea");
  return appendMany(record);
}

uint32_t DbfFile::appendMany(std::string_view records) {
  checkWritable();
  if (records.empty() || records.size() % recordLength_ != 0)
    throw Error(ErrorKind::InvalidArgument, name_, "registros de longitud errónea");
  const uint64_t adding = records.size() / recordLength_;
  // Another program may have appended meanwhile (the size shows it; with the
  // lock held nobody is halfway) or replaced the file. After our own writes,
  // the times would only show those, and asking for them makes the next
  // write stamp the file anew (fine-grained times): size and inode only.
  // A file replaced is opened anew, and its lock taken on it again. A run of
  // writes holds the append lock throughout, and the table lock a program
  // needs to replace the file includes it: the run looks once.
  std::optional<AppendLock> own;
  AppendLock* lock = nullptr;
  if (batchLock_ && batchLookedAtDisk_ && batchLock_->isOn(disk_.device, disk_.inode)) {
    lock = batchLock_.get();
  } else {
    for (int lockedFd = -1; lockedFd != fd_;) {
      own.reset();
      lockedFd = fd_;
      own.emplace(fd_, name_);
      struct statx sx {};
      if (!ownWritesSinceStat_ ||
          statx(AT_FDCWD, path_.c_str(), 0, STATX_INO | STATX_SIZE, &sx) != 0 || sx.stx_size != disk_.size ||
          sx.stx_ino != disk_.inode || makedev(sx.stx_dev_major, sx.stx_dev_minor) != disk_.device)
        syncWithDisk();
    }
    lock = &*own;
    batchLookedAtDisk_ = batchLock_ != nullptr;
  }
  checkWritable();  // what was read anew may say otherwise
  if (count_ + adding > kMaxRecords) throw Error(ErrorKind::NotSupported, name_, "la tabla está llena");
  const uint32_t first = count_ + 1;
  lock->lockNextRecord(first);
  struct NextRecordLetGo {
    AppendLock* lock;
    bool kept;  // the run's lock stays: only the record's byte goes
    ~NextRecordLetGo() {
      if (kept) lock->unlockNextRecord();
    }
  } letGoOfRecord{lock, lock == batchLock_.get()};
  WriteAnnounced announced(listeners_);
  // Rows and end-of-file byte in one write, before the count: invariant (1).
  const uint64_t offset = headerLength_ + uint64_t(count_) * recordLength_;
  char end = char(kEndOfFile);
  struct iovec parts[2] = {{const_cast<char*>(records.data()), records.size()}, {&end, 1}};
  const ssize_t written = pwritev(fd_, parts, 2, off_t(offset));
  if (written != ssize_t(records.size() + 1)) {
    const size_t done = written > 0 ? size_t(written) : 0;  // finish a short write in pieces
    if (done < records.size()) writeAt(offset + done, records.data() + done, records.size() - done);
    writeAt(offset + records.size(), &end, 1);
  }
  ownWritesSinceStat_ = true;
  rows_.append(records.data(), records.size());
  count_ += uint32_t(adding);
  rowsAppendedToBlocks();
  if (deletedKnown_.load(std::memory_order_relaxed))
    for (size_t at = 0; at < records.size(); at += recordLength_) deleted_ += records[at] == kDeletedFlag;
  writeHeaderCountAndDate();
  disk_.size = headerLength_ + uint64_t(count_) * recordLength_ + 1;
  ++generation_;
  announced.done();
  tellListeners([&](RowListener& l) { l.rowsAppended(first, count_); });
  return first;
}

void DbfFile::update(uint32_t recno, std::string_view record) {
  checkWritable();
  if (recno < 1 || recno > count_) throw Error(ErrorKind::InvalidArgument, name_, "registro inexistente");
  if (record.size() != recordLength_) throw Error(ErrorKind::InvalidArgument, name_, "registro de longitud errónea");
  RecordLock lock(fd_, name_, recno);
  // The listeners are told what the row held: read before it is overwritten.
  const std::string old(this->record(recno), recordLength_);
  WriteAnnounced announced(listeners_);
  writeAt(headerLength_ + uint64_t(recno - 1) * recordLength_, record.data(), record.size());
  std::memcpy(rows_.data() + size_t(recno - 1) * recordLength_, record.data(), record.size());
  if (deletedKnown_.load(std::memory_order_relaxed)) {
    deleted_ -= old[0] == kDeletedFlag;
    deleted_ += record[0] == kDeletedFlag;
  }
  writeHeaderDate();
  ++generation_;
  ++rewriteGeneration_;
  announced.done();
  tellListeners([&](RowListener& l) { l.rowChanged(recno, old.data()); });
}

void DbfFile::beginWriteBatch(bool wholeIndexAtEnd) {
  if (batchDepth_++ > 0) return;
  try {
    // The append lock first, for the whole run: the index file's lock, which
    // a run holds from its first write to its last, is always taken after
    // it, by us and by any program that follows the same order.
    if (writable_) batchLock_ = std::make_unique<AppendLock>(fd_, name_);
    batchLookedAtDisk_ = false;  // the run's first append looks at the disk under its lock
    tellListeners([&](RowListener& l) { l.writeBatchStarted(wholeIndexAtEnd); });
  } catch (...) {
    endWriteBatch(false);  // the listeners that started let go again
    throw;
  }
}

void DbfFile::endWriteBatch(bool inBackground) {
  if (--batchDepth_ > 0) return;
  struct LetGo {
    std::unique_ptr<AppendLock>& lock;
    ~LetGo() { lock.reset(); }
  } letGo{batchLock_};
  tellListeners([&](RowListener& l) { l.writeBatchEnded(inBackground); });
}

void DbfFile::settleWrites() {
  tellListeners([](RowListener& l) { l.settle(); });
}

WriteBatch::WriteBatch(DbfFile& file, Upkeep upkeep) : file_(file) {
  file_.beginWriteBatch(upkeep == Upkeep::WholeAtEnd);
}

WriteBatch::~WriteBatch() {
  if (!open_) return;
  try {
    finish();
  } catch (...) {
    // the index was left marked as being written: the next opening writes it anew
  }
}

void WriteBatch::finish() { end(false); }

void WriteBatch::finishInBackground() { end(true); }

void WriteBatch::end(bool inBackground) {
  if (!open_) return;
  open_ = false;
  file_.endWriteBatch(inBackground);
}

void DbfFile::setProductionIndexFlags(bool present, const std::vector<bool>& fieldKeyedAlone) {
  if (!writable_) throw Error(ErrorKind::Io, name_, "la tabla es de sólo lectura");
  // Field descriptors first, the header's flag last: until it is set no
  // program looks for the index.
  for (size_t i = 0; i < fields_.size(); ++i) {
    const char flag = (i < fieldKeyedAlone.size() && fieldKeyedAlone[i]) ? 1 : 0;
    const size_t at = 32 + 32 * i + 31;
    if (at < header_.size() && header_[at] == flag) continue;
    writeAt(at, &flag, 1);
    if (at < header_.size()) header_[at] = flag;
  }
  const char flag = present ? 1 : 0;
  writeAt(kOffProductionMdx, &flag, 1);
  if (header_.size() > size_t(kOffProductionMdx)) header_[kOffProductionMdx] = flag;
  productionMdx_ = present;
  ownWritesSinceStat_ = true;
  ++generation_;
  ++rewriteGeneration_;
  for (auto& l : listeners_) l->checkDisk();
}

void DbfFile::syncWithDisk() {
  bool listenersChanged = false;
  for (auto& l : listeners_) listenersChanged |= l->checkDisk();
  if (listenersChanged) {
    ++generation_;
    ++rewriteGeneration_;
  }
  struct stat st {};
  if (stat(path_.c_str(), &st) != 0) return;  // gone: keep serving what we read
  const DiskState seen = diskState(st);
  if (seen == disk_) return;
  if (ownWritesSinceStat_ && seen.inode == disk_.inode && seen.device == disk_.device && seen.size == disk_.size) {
    // The change we saw is our own when the count is ours; within a run
    // that holds the append lock on this file nobody else can change it.
    const bool countIsOurs = [&] {
      if (batchLock_ && batchLock_->isOn(disk_.device, disk_.inode)) return true;
      unsigned char h[8];
      return pread(fd_, h, sizeof h, 0) == ssize_t(sizeof h) && getU32(h + kOffRecordCount) == count_;
    }();
    if (countIsOurs) {
      disk_ = seen;
      ownWritesSinceStat_ = false;
      return;
    }
  }
  if (seen.inode != disk_.inode || seen.device != disk_.device) {
    bool writable = false;
    int fd = openTable(path_, writable);
    if (fd < 0) return;
    ::close(fd_);
    fd_ = fd;
    writable_ = writable;
  }
  warnings_.clear();
  load();
  ++generation_;
  ++rewriteGeneration_;
  for (auto& l : listeners_) l->rowsReloaded();
}

size_t DbfFile::memoryBytes() const {
  size_t bytes = sizeof *this + header_.capacity() + blockSlots_ * sizeof blockRead_[0];
  {
    // The pages the blocks read fall in; the buffer's others were never touched.
    std::lock_guard<std::mutex> guard(readMutex_);
    const size_t page = rows_.pageBytes();
    size_t pages = 0, last = SIZE_MAX;
    for (size_t b = 0; b < blocks_; ++b) {
      if (!blockRead_[b].load(std::memory_order_relaxed)) continue;
      const size_t first = blockStart(b) / page, end = (blockEnd(b) - 1) / page;
      pages += end - first + 1 - (first == last);  // a page shared with the block before counts once
      last = end;
    }
    bytes += std::min(pages * page, rows_.capacity());
  }
  for (const auto& l : listeners_) bytes += l->memoryBytes();
  return bytes;
}

}  // namespace dbase
