// Small tables for tests: a file made from a field list and rows of UTF-8 texts.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "dbase/core/dbf_file.h"

namespace testsupport {

using Row = std::vector<std::string>;

// Creates dir/name with these fields and rows (one text per field, in field
// order) in code page 850, Spanish driver, unless told otherwise.
std::shared_ptr<dbase::DbfFile> makeTable(const std::string& dir, const std::string& name,
                                          const std::vector<dbase::FieldSpec>& fields, const std::vector<Row>& rows,
                                          uint8_t languageDriver = 0x14);

dbase::FieldSpec charField(const std::string& name, uint32_t length);
dbase::FieldSpec numField(const std::string& name, uint32_t length, uint32_t decimals = 0);
dbase::FieldSpec logicalField(const std::string& name);
dbase::FieldSpec dateField(const std::string& name);

}  // namespace testsupport
