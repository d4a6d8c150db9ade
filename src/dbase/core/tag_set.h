// The in-memory index tags of one table file, one per list of fields, built
// on first use and kept right through the file's RowListener calls. A row
// appended to a file with several tags has each field's key worked out once
// for all of them.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "dbase/core/row_listener.h"

namespace dbase {

class DbfFile;
class IndexTag;

class TagSet : public RowListener {
 public:
  explicit TagSet(DbfFile& file);
  ~TagSet() override;

  // The set kept with this file (made the first time it is asked for).
  static TagSet& of(DbfFile& file);

  // The tag ordering rows by these fields. Throws dbase::Error for a field
  // the file does not have.
  IndexTag& tag(const std::vector<int>& fieldIndexes);

  void rowsAppended(uint32_t first, uint32_t last) override;
  void rowChanged(uint32_t recno, const char* oldRecord) override;
  void rowsReloaded() override;
  size_t memoryBytes() const override;

 private:
  DbfFile& file_;
  std::map<std::vector<int>, std::unique_ptr<IndexTag>> tags_;
};

}  // namespace dbase
