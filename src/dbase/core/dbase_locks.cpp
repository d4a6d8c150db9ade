#include "dbase/core/dbase_locks.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>

#include "dbase/core/error.h"

namespace dbase {

static_assert(sizeof(off_t) >= 8, "the lock offsets lie past 2 GB");

namespace {

constexpr std::chrono::milliseconds kDefaultWait{10000};
constexpr std::chrono::milliseconds kFirstPause{1};
constexpr std::chrono::milliseconds kLongestPause{50};

// The wait set by setLockWait, or -1 to read the environment.
std::atomic<int64_t> overriddenWaitMs{-1};

// The ranges this process holds, by file, so that a guard inside another
// neither asks again for what is held nor lets it go.
struct Held {
  uint64_t device, inode, start, length;
  bool exclusive;
};
struct Registry {
  std::mutex mutex;
  std::vector<Held> held;
  Registry() {
    // A forked child holds through the descriptors it inherited whatever the
    // parent held, but its own opens hold nothing: it starts afresh.
    pthread_atfork(nullptr, nullptr, [] {
      Registry& r = registry();
      new (&r.mutex) std::mutex;  // another thread may have held it at the fork
      r.held.clear();
    });
  }
  static Registry& registry() {
    static Registry* r = new Registry;  // never destroyed: guards may end at exit
    return *r;
  }
};

bool coveredHere(uint64_t device, uint64_t inode, uint64_t start, uint64_t length, bool exclusive) {
  Registry& r = Registry::registry();
  std::lock_guard<std::mutex> guard(r.mutex);
  return std::any_of(r.held.begin(), r.held.end(), [&](const Held& h) {
    return h.device == device && h.inode == inode && h.start <= start && start + length <= h.start + h.length &&
           (h.exclusive || !exclusive);
  });
}

void remember(uint64_t device, uint64_t inode, uint64_t start, uint64_t length, bool exclusive) {
  Registry& r = Registry::registry();
  std::lock_guard<std::mutex> guard(r.mutex);
  r.held.push_back({device, inode, start, length, exclusive});
}

void forget(uint64_t device, uint64_t inode, uint64_t start, uint64_t length) {
  Registry& r = Registry::registry();
  std::lock_guard<std::mutex> guard(r.mutex);
  auto it = std::find_if(r.held.begin(), r.held.end(), [&](const Held& h) {
    return h.device == device && h.inode == inode && h.start == start && h.length == length;
  });
  if (it != r.held.end()) r.held.erase(it);
}

struct flock rangeOf(short type, uint64_t start, uint64_t length) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = off_t(start);
  lock.l_len = off_t(length);
  lock.l_pid = 0;  // required for open file description locks
  return lock;
}

std::string systemFault(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

// Sets the lock once, without waiting: true when it is ours, false when
// another holds a conflicting one. Any other failure throws.
bool trySet(int fd, const std::string& name, short type, uint64_t start, uint64_t length) {
  struct flock lock = rangeOf(type, start, length);
  for (;;) {
    if (fcntl(fd, F_OFD_SETLK, &lock) == 0) return true;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EACCES) return false;
    throw Error(ErrorKind::Io, name, systemFault("no se puede bloquear"));
  }
}

void unset(int fd, uint64_t start, uint64_t length) {
  struct flock lock = rangeOf(F_UNLCK, start, length);
  while (fcntl(fd, F_OFD_SETLK, &lock) == -1 && errno == EINTR) {
  }
}

// True when another open file holds a lock in the range that conflicts with
// one of this type.
bool heldByOther(int fd, const std::string& name, short type, uint64_t start, uint64_t length) {
  struct flock lock = rangeOf(type, start, length);
  for (;;) {
    if (fcntl(fd, F_OFD_GETLK, &lock) == 0) return lock.l_type != F_UNLCK;
    if (errno == EINTR) continue;
    throw Error(ErrorKind::Io, name, systemFault("no se puede consultar el bloqueo"));
  }
}

// "10 s", "0,25 s": seconds as a Spanish reader writes them.
std::string seconds(std::chrono::milliseconds wait) {
  const int64_t ms = wait.count();
  std::string text = std::to_string(ms / 1000);
  if (int64_t rest = ms % 1000) {
    std::string fraction = std::to_string(1000 + rest).substr(1);
    while (fraction.back() == '0') fraction.pop_back();
    text += "," + fraction;
  }
  return text + " s";
}

std::string recordBusy(uint32_t recno) {
  return "otro programa u otro puesto tiene bloqueado el registro " + std::to_string(recno) + " de la tabla";
}
const char* const kAppendBusy = "otro programa u otro puesto está añadiendo registros a la tabla o la tiene bloqueada";
const char* const kTableBusy = "otro programa u otro puesto está usando la tabla o alguno de sus registros";
const char* const kIndexBusy = "otro programa u otro puesto está actualizando el índice";

}  // namespace

std::chrono::milliseconds lockWait() {
  if (const int64_t set = overriddenWaitMs.load(); set >= 0) return std::chrono::milliseconds(set);
  if (const char* text = std::getenv("CODPOSTALES_ESPERA_BLOQUEO_MS"); text && *text) {
    char* end = nullptr;
    errno = 0;
    const long long ms = std::strtoll(text, &end, 10);
    if (end && *end == '\0' && errno == 0 && ms >= 0) return std::chrono::milliseconds(ms);
  }
  return kDefaultWait;
}

void setLockWait(std::chrono::milliseconds wait) { overriddenWaitMs = std::max<int64_t>(0, wait.count()); }

void resetLockWait() { overriddenWaitMs = -1; }

// ---- the common guard ---------------------------------------------------------

FileLock::FileLock(int fd, const std::string& name, LockMode mode)
    : name_(name), mode_(mode), started_(std::chrono::steady_clock::now()), wait_(lockWait()) {
  struct stat st {};
  if (fstat(fd, &st) != 0) throw Error(ErrorKind::Io, name_, systemFault("no se puede bloquear"));
  device_ = uint64_t(st.st_dev);
  inode_ = uint64_t(st.st_ino);
  fd_ = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (fd_ < 0) throw Error(ErrorKind::Io, name_, systemFault("no se puede bloquear"));
}

FileLock::FileLock(FileLock&& other) noexcept
    : fd_(other.fd_), name_(std::move(other.name_)), mode_(other.mode_), device_(other.device_),
      inode_(other.inode_), started_(other.started_), wait_(other.wait_), step_(other.step_),
      ranges_(std::move(other.ranges_)) {
  other.fd_ = -1;
  other.ranges_.clear();
}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
  if (this != &other) {
    release();
    if (fd_ >= 0) ::close(fd_);
    fd_ = other.fd_;
    name_ = std::move(other.name_);
    mode_ = other.mode_;
    device_ = other.device_;
    inode_ = other.inode_;
    started_ = other.started_;
    wait_ = other.wait_;
    step_ = other.step_;
    ranges_ = std::move(other.ranges_);
    other.fd_ = -1;
    other.ranges_.clear();
  }
  return *this;
}

FileLock::~FileLock() {
  release();
  if (fd_ >= 0) ::close(fd_);
}

void FileLock::release() noexcept {
  // Last taken, first let go.
  for (auto it = ranges_.rbegin(); it != ranges_.rend(); ++it) {
    if (!it->owned) continue;
    forget(device_, inode_, it->start, it->length);
    unset(fd_, it->start, it->length);
  }
  ranges_.clear();
}

void FileLock::releaseLast() noexcept {
  if (ranges_.empty()) return;
  const Range last = ranges_.back();
  ranges_.pop_back();
  if (!last.owned) return;
  forget(device_, inode_, last.start, last.length);
  unset(fd_, last.start, last.length);
}

bool FileLock::pause() {
  const auto now = std::chrono::steady_clock::now();
  const auto deadline = started_ + wait_;
  if (now >= deadline) return false;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now) + std::chrono::milliseconds(1);
  std::this_thread::sleep_for(std::min(step_, left));
  step_ = std::min(step_ * 2, kLongestPause);
  return true;
}

void FileLock::giveUp(const std::string& busy) {
  release();
  throw Error(ErrorKind::Io, name_,
              busy + "; se ha esperado " + seconds(wait_) +
                  " y no se ha guardado nada. Vuelva a intentarlo cuando el otro programa termine.");
}

void FileLock::take(uint64_t start, uint64_t length, bool isRecord, const std::string& busy) {
  const bool exclusive = mode_ == LockMode::Exclusive;
  if (coveredHere(device_, inode_, start, length, exclusive)) {
    ranges_.push_back({start, length, false});
    return;
  }
  const short type = exclusive ? F_WRLCK : F_RDLCK;
  // A record is not ours while another program holds the whole table: dBase
  // only looks at the record range when it takes the table, so a record
  // taken afterwards must look at the table in turn.
  const bool tableHere = isRecord && coveredHere(device_, inode_, kTableLockOffset, 1, exclusive);
  step_ = kFirstPause;
  for (;;) {
    if (trySet(fd_, name_, type, start, length)) {
      if (!isRecord || tableHere || !heldByOther(fd_, name_, type, kTableLockOffset, 1)) break;
      unset(fd_, start, length);
    }
    if (!pause()) giveUp(busy);
  }
  ranges_.push_back({start, length, true});
  remember(device_, inode_, start, length, exclusive);
}

void FileLock::waitUntilFree(uint64_t start, uint64_t length, const std::string& busy) {
  const short type = mode_ == LockMode::Exclusive ? F_WRLCK : F_RDLCK;
  step_ = kFirstPause;
  while (heldByOther(fd_, name_, type, start, length))
    if (!pause()) giveUp(busy);
}

// ---- the guards -----------------------------------------------------------------

RecordLock::RecordLock(int fd, const std::string& tableName, uint32_t recno, LockMode mode)
    : FileLock(fd, tableName, mode) {
  if (recno < 1 || recno > kRecordLockSpan)
    throw Error(ErrorKind::InvalidArgument, tableName, "número de registro fuera de rango: " + std::to_string(recno));
  take(recordLockOffset(recno), 1, true, recordBusy(recno));
}

AppendLock::AppendLock(int fd, const std::string& tableName) : FileLock(fd, tableName, LockMode::Exclusive) {
  take(kAppendLockOffset, 1, false, kAppendBusy);
}

void AppendLock::lockNextRecord(uint32_t recno) {
  if (recno < 1 || recno > kRecordLockSpan) throw Error(ErrorKind::NotSupported, fileName(), "la tabla está llena");
  take(recordLockOffset(recno), 1, false, kAppendBusy);
}

void AppendLock::unlockNextRecord() noexcept { releaseLast(); }

TableLock::TableLock(int fd, const std::string& tableName, LockMode mode) : FileLock(fd, tableName, mode) {
  take(kTableLockOffset, 2, false, kTableBusy);
  // No other program may be holding a record meanwhile. Looking (rather than
  // locking the range for a moment, as the BDE does) tells the same and
  // leaves alone the records this process itself holds.
  waitUntilFree(kTableLockOffset - kRecordLockSpan, kRecordLockSpan, kTableBusy);
}

IndexFileLock::IndexFileLock(int fd, const std::string& indexName, LockMode mode) : FileLock(fd, indexName, mode) {
  take(kIndexLockOffset, 1, false, kIndexBusy);
}

IndexFileLock lockIndexFile(int fd, const std::string& indexName) { return IndexFileLock(fd, indexName); }

std::optional<IndexFileLock> lockIndexFileAt(const std::string& path, const std::string& indexName, LockMode mode) {
  const int fd = ::open(path.c_str(), (mode == LockMode::Exclusive ? O_RDWR : O_RDONLY) | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::optional<IndexFileLock> lock;
  try {
    lock.emplace(fd, indexName, mode);  // keeps a descriptor of its own
  } catch (...) {
    ::close(fd);
    throw;
  }
  ::close(fd);
  return lock;
}

}  // namespace dbase
