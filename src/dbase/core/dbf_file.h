// One dBase table file, shared by every cursor of the process that opens it.
//
// The rows are held in memory, read from the file a block of rows at a time
// the first time one of the block's rows is asked for: opening reads only the
// header, and a search through an index file touches a few blocks of a table
// of tens of megabytes. Whoever looks at every row has them read all at once,
// which costs less (readAllRows(), deletedCount(), or a walk from the first
// row that gets past its first megabyte). Every change is written through to
// the file at once, so cursors over the same file see each other's appends
// immediately and other programs see whole rows. Invariants:
//   (1) A row is written whole (with the end-of-file byte after it) before the
//       header's record count says it exists. A crash between the two leaves a
//       whole row that the next open counts, or no row at all.
//   (2) The count read from a header that disagrees with the file length is the
//       number of complete rows in the file; the disagreement is reported in
//       warnings(), never read as a partial row.
//   (3) generation() changes whenever a row changes; rewriteGeneration() only
//       when rows change in place or the file is re-read, so a view that saw
//       the same rewriteGeneration only needs to look at appended rows.
//   (4) A block of rows is handed out only once it was read whole; a block
//       that cannot be (the file was cut short since) throws, never shows
//       stale or made-up bytes. Rows of the same file may be read from
//       several threads at once; writes want the file to themselves.
// Another process's changes are noticed by syncWithDisk() (file size, times
// and inode), which cursors call before searches and walks from the start:
// it reads the header again and forgets the blocks read, which are read anew
// when next asked for.
// Writes take the dBase locks (dbase_locks.h): an append the append lock and
// the new row's, a rewrite its row's; a write that cannot get its lock in
// time throws and leaves the file as it was.
//
// When the last user lets go of a file, the file (rows and built tags) stays
// in a process-wide cache of recently closed tables, up to a byte budget
// (CODPOSTALES_CACHE_MB, 512 by default; 0 keeps nothing), least recently
// closed out first. Opening it again reuses it only when the file on disk is
// still the one read: same inode, size and times; when its last change is too
// recent for the times to tell (they tick coarsely), the bytes read are
// compared (rows never read cannot be stale).
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "dbase/core/dbf_format.h"
#include "dbase/core/row_listener.h"

struct stat;

namespace dbase {

class CodePage;
class Collation;

struct FieldSpec {
  std::string name;
  FieldType type = FieldType::Character;
  uint32_t length = 0;
  uint32_t decimals = 0;
};

class AppendLock;

class DbfFile {
 public:
  // Opens (or returns the already open) table at path, matched
  // case-insensitively on disk. Opened for writing when the file allows it.
  static std::shared_ptr<DbfFile> open(const std::string& path);
  // Writes a new empty dBase III/IV table (version 0x03) and opens it.
  // Fails when the file exists, unless overwrite is set.
  static std::shared_ptr<DbfFile> create(const std::string& path, const std::vector<FieldSpec>& fields,
                                         uint8_t languageDriver, bool overwrite = false);
  ~DbfFile();
  DbfFile(const DbfFile&) = delete;
  DbfFile& operator=(const DbfFile&) = delete;

  const std::string& path() const { return path_; }
  const std::string& name() const { return name_; }  // file name, for messages
  uint8_t version() const { return version_; }
  uint8_t languageDriver() const { return languageDriver_; }
  const CodePage& codePage() const { return *codePage_; }
  const Collation& collation() const { return *collation_; }
  bool hasProductionMdx() const { return productionMdx_; }
  bool writable() const { return writable_; }
  // Last update as stored: years since 1900, month, day.
  void lastUpdate(int& year, int& month, int& day) const;

  const std::vector<FieldDescriptor>& fields() const { return fields_; }
  int fieldIndex(std::string_view name) const;  // case-insensitive; -1 if absent
  const FieldDescriptor& field(std::string_view name) const;  // throws if absent
  uint32_t recordLength() const { return recordLength_; }

  uint32_t recordCount() const { return count_; }  // deleted rows included
  // Worked out the first time it is asked for, which reads every row.
  uint32_t deletedCount() const {
    if (!deletedKnown_.load(std::memory_order_acquire)) readAllRows();
    return deleted_;
  }
  // recno is 1-based and must be in [1, recordCount()]. Reads the row's block
  // the first time; throws dbase::Error when it cannot be read whole. The
  // bytes are that row's: the rows after it lie beside it in memory only
  // once readAllRows() has read them.
  const char* record(uint32_t recno) const {
    if (!allRead_.load(std::memory_order_acquire)) readBlockOf(recno);
    return rows_.data() + size_t(recno - 1) * recordLength_;
  }
  bool isDeleted(uint32_t recno) const { return record(recno)[0] == kDeletedFlag; }
  // Reads every row not read yet, a large table in two halves at once: for
  // whoever is about to look at every row, cheaper than block by block.
  void readAllRows() const;
  const std::vector<std::string>& warnings() const { return warnings_; }

  // A live row with every field blank.
  std::string blankRecord() const;
  // Writers: throw dbase::Error when the file cannot take the row.
  uint32_t append(std::string_view record);
  // Appends whole rows (recordLength() bytes each) with one write and one
  // header update: bulk loads. Returns the number of the first new row.
  uint32_t appendMany(std::string_view records);
  void update(uint32_t recno, std::string_view record);
  // Whether a run of writes is under way (see WriteBatch below).
  bool inWriteBatch() const { return batchDepth_ > 0; }
  // What runs ended with WriteBatch::finishInBackground left to write is
  // written when this returns. Throws dbase::Error when it could not be
  // (the index is then written anew from the rows, as after a cut write).
  void settleWrites();
  // Marks in the header whether a production index goes with the table and
  // which fields a tag keys alone, as dBase does when it writes the index.
  void setProductionIndexFlags(bool present, const std::vector<bool>& fieldKeyedAlone);

  uint64_t generation() const { return generation_; }
  uint64_t rewriteGeneration() const { return rewriteGeneration_; }
  void syncWithDisk();

  // What is kept over the rows (the index tags), told of every change and
  // kept with the file, in the cache too. One of each type: listener<T>()
  // returns the file's T, made as T(*this) the first time it is asked for.
  template <class T>
  T& listener() {
    for (auto& l : listeners_)
      if (auto* found = dynamic_cast<T*>(l.get())) return *found;
    auto made = std::make_unique<T>(*this);
    T& ours = *made;
    listeners_.push_back(std::move(made));
    return ours;
  }

  // Bytes of memory held: rows and what the listeners keep.
  size_t memoryBytes() const;

  // The cache of closed files. setCacheLimit overrides CODPOSTALES_CACHE_MB
  // (0 empties the cache and keeps nothing more).
  static void setCacheLimit(uint64_t bytes);
  static uint64_t cacheLimit();
  static size_t cachedFiles();
  static uint64_t cachedBytes();

 private:
  // Growable bytes that are not cleared when they grow (they are about to be
  // overwritten) and, once large, grow by remapping instead of copying.
  class Bytes {
   public:
    Bytes() = default;
    ~Bytes();
    Bytes(const Bytes&) = delete;
    Bytes& operator=(const Bytes&) = delete;
    char* data() { return data_; }
    const char* data() const { return data_; }
    size_t size() const { return size_; }
    size_t capacity() const { return capacity_; }
    void resize(size_t size);  // new bytes undefined
    void append(const char* bytes, size_t size);
    void discard();  // hands the memory back, keeping the size; bytes undefined
    size_t pageBytes() const;  // what touching a byte brings into memory, about

   private:
    void reserve(size_t size);
    char* data_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
    bool mapped_ = false;
  };
  // What a stat of the file said.
  struct DiskState {
    uint64_t size = 0;
    int64_t timeNs = 0;
    int64_t changeNs = 0;
    uint64_t inode = 0;
    uint64_t device = 0;
    bool operator==(const DiskState&) const = default;
  };
  static DiskState diskState(const struct stat& st);
  struct OpenFiles;
  static OpenFiles& openFiles();
  static void release(DbfFile* file);

  DbfFile() = default;
  friend class WriteBatch;
  void beginWriteBatch(bool wholeIndexAtEnd);
  void endWriteBatch(bool inBackground);
  class WriteAnnounced;
  void tellListeners(const std::function<void(RowListener&)>& tell);
  void load();
  void parseHeader(const unsigned char* header, size_t available, uint64_t fileSize);
  void checkWritable() const;
  void writeAt(uint64_t offset, const void* data, size_t size);
  void writeHeaderCountAndDate();
  void writeHeaderDate();
  bool settleForCache();
  bool reusable();
  bool sameBytesOnDisk(int fd) const;
  // Rows past `count` (up to `complete`) that look whole; see load().
  uint64_t rowsPastTheCount(uint64_t count, uint64_t complete);

  // The blocks of rows: where they lie, reading them, and keeping count.
  size_t blockStart(size_t block) const { return block * rowsPerBlock_ * size_t(recordLength_); }
  size_t blockEnd(size_t block) const { return std::min(blockStart(block + 1), rows_.size()); }
  void readBlockOf(uint32_t recno) const;
  int readRowBytes(size_t from, size_t to) const;
  [[noreturn]] void rowsUnreadable(size_t from, size_t to, int error) const;
  struct ReadFailure {
    int error = 0;  // errno
    size_t from = 0, to = 0;
  };
  uint64_t readBlocks(size_t first, size_t last, bool counting, ReadFailure& failed) const;
  ReadFailure readUnreadBlocks() const;
  void markRead(size_t block) const;
  void forgetReadRows();
  void rowsAppendedToBlocks();
  void makeRoomForBlocks();

  std::string path_;
  std::string name_;
  int fd_ = -1;
  bool writable_ = false;
  uint8_t version_ = 0x03;
  uint8_t languageDriver_ = 0;
  bool productionMdx_ = false;
  unsigned char date_[3] = {0, 1, 1};
  const CodePage* codePage_ = nullptr;
  const Collation* collation_ = nullptr;
  std::vector<FieldDescriptor> fields_;
  uint32_t headerLength_ = 0;
  uint32_t recordLength_ = 0;
  uint32_t count_ = 0;
  // The rows, filled in a block at a time as they are first asked for. The
  // flags say which blocks are in; what goes with them changes with
  // readMutex_ held, or in a write, which has the file to itself.
  mutable Bytes rows_;
  uint32_t rowsPerBlock_ = 1;
  size_t blocks_ = 0;  // of count_ rows
  std::unique_ptr<std::atomic<bool>[]> blockRead_;  // room for blockSlots_
  size_t blockSlots_ = 0;
  mutable size_t blocksRead_ = 0;
  mutable size_t leadingRead_ = 0;  // blocks read from the first on, without a gap
  mutable std::atomic<bool> allRead_{true};
  mutable uint32_t deleted_ = 0;  // once deletedKnown_
  mutable std::atomic<bool> deletedKnown_{false};
  mutable std::mutex readMutex_;
  std::string header_;  // as on disk, descriptors included
  std::vector<std::string> warnings_;
  uint64_t generation_ = 1;
  uint64_t rewriteGeneration_ = 1;
  // What the file looked like after our last read or write, and when (wall
  // clock, ns) that was last checked against the rows held.
  DiskState disk_;
  int64_t checkedAtNs_ = 0;
  bool ownWritesSinceStat_ = false;
  std::string cacheKey_;    // canonical path
  uint64_t cachedBytes_ = 0;  // while in the cache
  std::vector<std::unique_ptr<RowListener>> listeners_;
  int batchDepth_ = 0;
  std::unique_ptr<AppendLock> batchLock_;  // held while a run of writes is under way
  bool batchLookedAtDisk_ = false;          // the run's appends have looked at the disk under it
};

// A run of writes to one table that other programs see whole: the table's
// append lock, and then its index's lock, are held from the first write to
// the last, and the index reaches the disk once, when the run ends, instead
// of after every row. The rows themselves are written one by one as always.
// Runs nest; the outermost one decides and ends the run. A process killed
// within a run leaves the index to be written anew at the next opening, as
// any cut write does. Waits for the locks as a write does, and throws
// dbase::Error when they do not come.
class WriteBatch {
 public:
  // How the run keeps the table's production index: entry by entry as each
  // row is written, the entries reaching the file once at the run's end; or
  // written whole from the rows at the run's end, which costs less when the
  // run adds many rows against those the table has (cursors on the index's
  // tags see the run's rows only then).
  enum class Upkeep { EntryByEntry, WholeAtEnd };

  explicit WriteBatch(DbfFile& file, Upkeep upkeep = Upkeep::EntryByEntry);
  // Ends the run if finish() did not: a failure to bring the index up to
  // date is then left to the next opening, which writes it anew.
  ~WriteBatch();
  WriteBatch(const WriteBatch&) = delete;
  WriteBatch& operator=(const WriteBatch&) = delete;
  // Ends the run now, throwing dbase::Error when the index cannot be written.
  void finish();
  // Ends the run, leaving the index's last changes to be written on another
  // core while the caller goes on, as runs that follow one another want:
  // the index's lock and the mark of a write under way stay until they are
  // written, and the table's next use (a search, a write, settleWrites,
  // closing it) waits for them first and throws there what writing them
  // threw. The rows are in the table, and in the tags as this process
  // searches them, when this returns.
  void finishInBackground();

 private:
  void end(bool inBackground);
  DbfFile& file_;
  bool open_ = true;
};

}  // namespace dbase
