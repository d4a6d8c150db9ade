// The locks dBase and the BDE take on a shared table, so that this engine and
// the other programs (often on other workstations, over a network share)
// never write over each other.
//
// The locks are byte ranges far past the end of the file, at the offsets
// dBase uses:
//   record n       1 byte at 0xEFFFFFFE - n
//   whole table    2 bytes at 0xEFFFFFFE, taken only when no other program
//                  holds a record lock (the record range is looked at once)
//   append         1 byte at 0xEFFFFFFF, then the new record's byte
//   index (.MDX)   1 byte at 0xEFFFFFFE of the index file
// They are Linux open file description locks: they belong to the open file,
// not to the process, so closing another descriptor of the same file keeps
// them, and they work over NFS and SMB mounts as the other programs' do.
//
// A lock is asked for without blocking and asked again after short sleeps
// (1 ms, growing to 50 ms) until the wait allowed has passed; then the guard
// throws dbase::Error (ErrorKind::Io, the file's name) saying that another
// program holds the table and nothing was written. The wait is 10 s unless
// CODPOSTALES_ESPERA_BLOQUEO_MS says otherwise or setLockWait() was called.
//
// Within one process a range already held on the same file (by any of its
// descriptors) is not asked for again: a guard inside another that covers it
// (an append while the whole table is held) takes nothing and lets nothing
// go, so it cannot cut a hole in the outer one. Guards must then end inner
// first, as scopes do. A child process starts with no such record.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace dbase {

enum class LockMode { Shared, Exclusive };  // readers share, writers exclude

inline constexpr uint64_t kTableLockOffset = 0xEFFFFFFEull;   // 2 bytes
inline constexpr uint64_t kAppendLockOffset = 0xEFFFFFFFull;  // 1 byte
inline constexpr uint64_t kIndexLockOffset = 0xEFFFFFFEull;   // 1 byte, in the index file
inline constexpr uint64_t kRecordLockSpan = 1000000000ull;    // the highest record number
// Where record recno (1-based, at most kRecordLockSpan) is locked.
constexpr uint64_t recordLockOffset(uint32_t recno) { return kTableLockOffset - recno; }

// How long a lock is waited for before giving up.
std::chrono::milliseconds lockWait();
// Overrides the environment (tests); resetLockWait() goes back to it.
void setLockWait(std::chrono::milliseconds wait);
void resetLockWait();

// What every guard shares: the ranges it holds on one open file, let go when
// it ends. Move-only; a moved-from guard holds nothing.
class FileLock {
 public:
  FileLock(FileLock&& other) noexcept;
  FileLock& operator=(FileLock&& other) noexcept;
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock();

  // Lets go of everything now rather than at the end of the scope.
  void release() noexcept;
  bool held() const { return !ranges_.empty(); }
  const std::string& fileName() const { return name_; }

 protected:
  // Keeps its own descriptor of fd's open file (a duplicate), so the caller
  // may close or replace fd while the lock is held.
  FileLock(int fd, const std::string& name, LockMode mode);
  // Takes [start, start + length), waiting up to the deadline; `busy` is what
  // the user is told when it does not come. A record lock also waits while
  // another program holds the whole table.
  void take(uint64_t start, uint64_t length, bool isRecord, const std::string& busy);
  // Waits until no other program holds a lock in the range that conflicts
  // with ours, without taking it.
  void waitUntilFree(uint64_t start, uint64_t length, const std::string& busy);
  LockMode mode() const { return mode_; }
  // Lets go of the range taken last.
  void releaseLast() noexcept;
  std::pair<uint64_t, uint64_t> lockedFile() const { return {device_, inode_}; }

 private:
  struct Range {
    uint64_t start;
    uint64_t length;
    bool owned;  // false: covered by another guard of this process
  };
  [[noreturn]] void giveUp(const std::string& busy);
  bool pause();  // false once the deadline has passed

  int fd_ = -1;
  std::string name_;
  LockMode mode_ = LockMode::Exclusive;
  uint64_t device_ = 0, inode_ = 0;
  std::chrono::steady_clock::time_point started_{};
  std::chrono::milliseconds wait_{0};
  std::chrono::milliseconds step_{1};
  std::vector<Range> ranges_;
};

// One record of a table, to rewrite it (exclusive) or to read it steady.
class RecordLock : public FileLock {
 public:
  RecordLock(int fd, const std::string& tableName, uint32_t recno, LockMode mode = LockMode::Exclusive);
};

// The right to add rows to a table. The constructor takes the append lock;
// once the caller knows how many rows the table has (after looking at the
// disk under that lock) it calls lockNextRecord(count + 1). Always exclusive.
// A lock kept for several appends (a run of writes) lets go of each new
// record's byte once its rows are written: unlockNextRecord().
class AppendLock : public FileLock {
 public:
  AppendLock(int fd, const std::string& tableName);
  void lockNextRecord(uint32_t recno);
  void unlockNextRecord() noexcept;
  // Whether the lock is on this file (the table may have been replaced and
  // opened anew since it was taken).
  bool isOn(uint64_t device, uint64_t inode) const { return lockedFile() == std::make_pair(device, inode); }
};

// The whole table: no other program writes (exclusive) or nobody writes
// (shared) while it is held.
class TableLock : public FileLock {
 public:
  TableLock(int fd, const std::string& tableName, LockMode mode = LockMode::Exclusive);
};

// An index file (.MDX), held around every change to it.
class IndexFileLock : public FileLock {
 public:
  IndexFileLock(int fd, const std::string& indexName, LockMode mode = LockMode::Exclusive);
};

// The lock the index maintenance takes on its file before changing it.
IndexFileLock lockIndexFile(int fd, const std::string& indexName);
// The lock of the index file the path names now, through a descriptor of
// its own (opened for writing when the lock is exclusive); nothing when the
// file cannot be opened.
std::optional<IndexFileLock> lockIndexFileAt(const std::string& path, const std::string& indexName, LockMode mode);

}  // namespace dbase
