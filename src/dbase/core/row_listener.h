// What a table file tells the structures kept over its rows (index tags, in
// memory or in an index file): the one way the file reaches them, so that it
// knows nothing of how any of them works and a new kind needs no change here.
// Every call comes after the file's rows and count already say what changed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dbase {

class RowListener {
 public:
  virtual ~RowListener() = default;
  // Rows first..last (1-based, inclusive) were appended.
  virtual void rowsAppended(uint32_t first, uint32_t last) = 0;
  // Row recno was rewritten in place; oldRecord is what it held before.
  virtual void rowChanged(uint32_t recno, const char* oldRecord) = 0;
  // Whether the listener keeps the table's production index right on every
  // write: a table that announces one takes writes only then.
  virtual bool keepsProductionIndex() const { return false; }
  // With the table's write lock held, before rows are written: the listener
  // makes ready what it changes with them, or refuses the write by throwing
  // (nothing is written then). writeAbandoned follows when the rows could not
  // be written after all; rowsAppended or rowChanged when they were.
  virtual void beforeWrite() {}
  virtual void writeAbandoned() {}
  // A run of writes (WriteBatch) starts, with the table's append lock held;
  // `wholeAtEnd`: the run asks for what is kept over the rows to be written
  // whole from them at its end rather than entry by entry. Throwing refuses
  // the run.
  virtual void writeBatchStarted(bool wholeAtEnd) { (void)wholeAtEnd; }
  // The last write of a run is done: what the listener kept back from the
  // run's writes is written now. Throws when it cannot be. With
  // `inBackground` the listener may write it on another thread while the
  // caller goes on, and waits for it at its next call (settle()).
  virtual void writeBatchEnded(bool inBackground) { (void)inBackground; }
  // What a run's end left to write in the background is written: waits for
  // it, and throws what writing it threw.
  virtual void settle() {}
  // Another program changed the file: every row is to be read anew from it.
  virtual void rowsReloaded() = 0;
  // Before the file looks at the disk for other programs' changes: the
  // listener looks at its own files, and returns true when what it serves
  // changed (the file's views are then rebuilt).
  virtual bool checkDisk() { return false; }
  // Bytes of memory held, about (the file's cache budget counts them).
  virtual size_t memoryBytes() const = 0;
};

}  // namespace dbase
