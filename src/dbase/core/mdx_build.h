// Writing a table's production index whole, as dBase's REINDEX does: every
// tag's keys worked out from the rows, sorted, and written as a new index
// file that replaces the old one only once it is complete on disk.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dbase/core/dbf_file.h"

namespace dbase {

struct TagDefinition {
  std::string name;          // at most 10 characters
  std::string expression;    // the key expression
  std::string forCondition;  // empty: every row
  bool unique = false;
  bool descending = false;
};

// The tags of the table's production index as they stand (none without one).
// Throws dbase::Error when the index cannot be read.
std::vector<TagDefinition> productionTags(DbfFile& file);

// Writes the table's production index with these tags (at most 47, names
// unique) from its rows, then marks the table's header as dBase does: the
// index flag, and each field that a tag keys alone. Deleted rows are indexed
// as dBase indexes them; the engine's views leave them out. Throws
// dbase::Error naming the tag and its expression when one cannot be built;
// the old index then stays as it was.
void rebuildProductionIndex(DbfFile& file, const std::vector<TagDefinition>& tags);

// A new table with its production index holding these tags.
std::shared_ptr<DbfFile> createTableWithTags(const std::string& path, const std::vector<FieldSpec>& fields,
                                             uint8_t languageDriver, const std::vector<TagDefinition>& tags,
                                             bool overwrite = false);

}  // namespace dbase
