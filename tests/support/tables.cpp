#include "support/tables.h"

#include "dbase/core/codepage.h"
#include "dbase/core/field_value.h"

namespace testsupport {

std::shared_ptr<dbase::DbfFile> makeTable(const std::string& dir, const std::string& name,
                                          const std::vector<dbase::FieldSpec>& fields, const std::vector<Row>& rows,
                                          uint8_t languageDriver) {
  auto file = dbase::DbfFile::create(dir + "/" + name, fields, languageDriver, true);
  if (rows.empty()) return file;
  std::string records;
  for (const Row& row : rows) {
    std::string record = file->blankRecord();
    for (size_t i = 0; i < row.size() && i < file->fields().size(); ++i)
      dbase::setFieldText(file->fields()[i], record.data(), row[i], file->codePage(), name);
    records += record;
  }
  file->appendMany(records);
  return file;
}

dbase::FieldSpec charField(const std::string& name, uint32_t length) {
  return {name, dbase::FieldType::Character, length, 0};
}
dbase::FieldSpec numField(const std::string& name, uint32_t length, uint32_t decimals) {
  return {name, dbase::FieldType::Numeric, length, decimals};
}
dbase::FieldSpec logicalField(const std::string& name) { return {name, dbase::FieldType::Logical, 1, 0}; }
dbase::FieldSpec dateField(const std::string& name) { return {name, dbase::FieldType::Date, 8, 0}; }

}  // namespace testsupport
