// The production index file (.MDX) of a table, kept with the table's file:
// the tags it holds, served to cursors (MdxTag), kept right on every write of
// this process, and noticed again when another program changes it.
//
// A table whose header announces a production index has it read on first
// use. An index file that is missing or whose header cannot be read leaves
// the table without one (problem() says why, and writes are refused); a tag
// whose expression the engine cannot evaluate, or whose header is damaged,
// is unusable alone, and asking for it is the error.
//
// A write goes (DbfFile calls these with the table's own lock held):
//   beforeWrite   the index file's lock, its keys ready, the mark of a
//                 write under way (NAME.MDX.escribiendo) made
//   rows written  by the table file
//   rowsAppended  every tag's entries inserted (FOR condition, unique tags
//   rowChanged    as dBase has them) and written, the mark removed, the
//                 lock let go
// Within a run of writes (WriteBatch) the lock and the mark stay from the
// first write to the last, and the entries reach the file when the run ends
// (writeBatchEnded), or before a tag is read from the file meanwhile. A run
// that ends in the background (WriteBatch::finishInBackground) has its last
// entries placed and written, the mark removed and the lock let go on
// placing_'s thread; every call that follows waits for that first.
// A process killed in between leaves the mark: the next opening that finds
// it with nobody holding the index's lock writes the index anew from the
// rows and says so in warnings().
//
// A run that asks for the index written whole at its end (a bulk load) takes
// the lock and leaves the mark once for all its appends, enters none of their
// rows entry by entry, and writes the index whole from the rows at its end:
// what a cut write's repair does, on purpose. Killed in between, it is
// repaired the same way.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dbase/core/dbase_locks.h"
#include "dbase/core/key_expression.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/row_listener.h"
#include "dbase/core/serial_worker.h"

namespace dbase {

class DbfFile;
class MdxTag;
class MdxUpdate;

class MdxTags : public RowListener {
 public:
  explicit MdxTags(DbfFile& file);
  ~MdxTags() override;

  // The index file kept with this table (read the first time it is asked for).
  static MdxTags& of(DbfFile& file);
  // Where the production index of a table lies (it need not exist).
  static std::string pathFor(const std::string& dbfPath);
  // The mark a write under way leaves beside the index file.
  static std::string markFor(const std::string& mdxPath);

  bool present() const { return mdx_ != nullptr; }
  const std::string& path() const { return path_; }
  const std::string& problem() const { return problem_; }
  // What the engine did on its own: an index written anew after a cut write.
  const std::vector<std::string>& warnings() const { return warnings_; }
  // Every tag of the file, in the file's order.
  const std::vector<MdxTagInfo>& tags() const;
  bool has(std::string_view name) const;
  // The tag of this name, or nullptr when the file has none. Throws
  // dbase::Error naming the table, the tag and its expression when the
  // tag cannot be used.
  MdxTag* tag(std::string_view name);

  // Within a run of writes that asked for the index written whole at its
  // end (WriteBatch::Upkeep::WholeAtEnd): rows enter no entry of their own meanwhile.
  bool bulkLoad() const { return bulk_; }

  bool keepsProductionIndex() const override { return present(); }
  void beforeWrite() override;
  void writeAbandoned() override;
  void writeBatchStarted(bool wholeAtEnd) override;
  void writeBatchEnded(bool inBackground) override;
  void settle() override;
  void rowsAppended(uint32_t first, uint32_t last) override;
  void rowChanged(uint32_t recno, const char* oldRecord) override;
  void rowsReloaded() override;
  bool checkDisk() override;
  size_t memoryBytes() const override;

 private:
  // What a write needs of each tag: its key and FOR condition compiled.
  struct Keeper {
    KeyExpression key;
    std::optional<KeyExpression> condition;
    bool unique = false;
  };
  void read();
  void repairCutWrite();
  int indexOf(std::string_view name) const;
  MdxTag* makeTag(size_t at);
  std::vector<Keeper> keepers() const;
  // After this process's own write: the file's roots and counters taken as
  // written (read again only when it was replaced), the tags' loaded rows
  // kept (they were placed as written).
  void rereadOwnWrite(const MdxFile::OwnWrite& written);
  // Each kept tag's entries (keys and record numbers) of some rows.
  struct TagEntries {
    std::string keys;
    std::vector<uint32_t> recnos;
    bool unique = false;
  };
  // Adds rows first..last's entries to `to` (one item a tag), worked out
  // on this thread: rows are read here only.
  void addEntries(uint32_t first, uint32_t last, std::vector<TagEntries>& to) const;
  // Each tag's entries go in together, by key.
  static void placeEntries(MdxUpdate& update, const std::vector<TagEntries>& entries);
  // The entries of rows first..last go into every tag's tree, by key.
  void insertEntries(uint32_t first, uint32_t last);
  // Row recno's entries move from the keys oldRecord gives to its own.
  void moveEntries(uint32_t recno, const char* oldRecord);
  // Within a run: rows first..last's entries join those pending, and
  // placing_ is set to work on them if it is not already.
  void handOver(uint32_t first, uint32_t last);
  // Sets placing_ to work when a few rows are pending and it is not at work
  // already; says whether it did.
  bool startPlacing();
  // Takes what is pending and places it, until nothing is left: on
  // placing_'s thread, or on the run's once placing_ is done.
  void placePending();
  // Every pending entry in the trees: update_ is this thread's again.
  void placeWaitingAppends();
  void endWrite();
  // The changes made so far written, the file's state taken from them.
  void writeOut();
  // The trees' changes written (every entry placed already): the file as
  // left, taken under the lock.
  MdxFile::OwnWrite writeChanges();
  // The run's end left to placing_: see the note at the top.
  void endInBackground();
  // Waits for it and takes up the file as it left it.
  void awaitBackgroundEnd();
  void writeOutForReading();
  void letGo();
  void abandonCutWrite();
  // Makes a change to the index file; when it fails, the mark of the cut
  // write stays (the next opening writes the index anew from the rows), the
  // index is read again and the failure goes on.
  template <typename Change>
  void changeOrLeaveMark(Change&& change) {
    try {
      change();
    } catch (...) {
      abandonCutWrite();
      throw;
    }
  }
  void endBulkLoad();

  DbfFile& file_;
  std::string path_;
  std::string problem_;
  std::vector<std::string> warnings_;
  std::unique_ptr<MdxFile> mdx_;
  // By the tag's place in the file; made when first asked for.
  std::vector<std::unique_ptr<MdxTag>> tags_;
  // Tags of an earlier reading that the new one lacks: cursors may still
  // hold them until they change order.
  std::vector<std::unique_ptr<MdxTag>> retired_;
  // Writing: the index file open for changes with the nodes it went through
  // and every tag's keys compiled, kept from one write to the next while no
  // other program changes the file; the lock only while a write is under way.
  int lockFd_ = -1;
  std::optional<IndexFileLock> lock_;
  std::unique_ptr<MdxUpdate> update_;
  std::vector<Keeper> writing_;
  bool writeUnderWay_ = false;
  // A run's appended rows go into update_'s trees while the run goes on,
  // on another core: their entries are worked out here as each append comes
  // and wait in pending_ until placing_ takes all there are, each time it is
  // free. So a quick run of appends is placed in large parts, each in key
  // order (each insert walks mostly where the last one did), and a slow one
  // as it goes. update_ is placing_'s until it has placed all
  // (placeWaitingAppends, forgetWriter); placing_ is declared after update_
  // and pending_, so that it is gone first.
  std::mutex pendingMutex_;
  std::vector<TagEntries> pending_;
  uint32_t pendingRows_ = 0;
  bool placingBusy_ = false;  // a job of placing_ takes what comes to pending_
  std::chrono::steady_clock::time_point lastStarted_;  // handOver's last start of placing_
  // A run's end left to placing_ (endInBackground) until awaitBackgroundEnd() takes
  // up the file as the worker left it, in ownWrite_.
  bool endingInBackground_ = false;
  MdxFile::OwnWrite ownWrite_;
  mutable SerialWorker placing_;
  void forgetWriter();
  bool repairing_ = false;
  bool bulk_ = false;
};

}  // namespace dbase
