// Field writers: the ASCII shortcut stores exactly what the general writer does.
#include <gtest/gtest.h>

#include "dbase/core/codepage.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"

using namespace dbase;

namespace {

FieldDescriptor field(FieldType type, uint32_t length, uint32_t decimals = 0) {
  FieldDescriptor f;
  f.name = "F";
  f.type = type;
  f.length = length;
  f.decimals = decimals;
  f.offset = 1;
  return f;
}

// The record bytes each writer leaves, or "error" when it throws.
std::string written(void (*writer)(const FieldDescriptor&, char*, std::string_view, const CodePage&, const std::string&),
                    const FieldDescriptor& f, std::string_view text) {
  std::string record(1 + f.length, '#');
  try {
    writer(f, record.data(), text, CodePage::forNumber(850), "T");
  } catch (const Error&) {
    return "error";
  }
  return record;
}

}  // namespace

TEST(FieldValue, AsciiTextIsStoredAsTheGeneralWriterStoresIt) {
  const FieldDescriptor fields[] = {field(FieldType::Character, 6), field(FieldType::Numeric, 5),
                                    field(FieldType::Numeric, 8, 2), field(FieldType::Float, 4),
                                    field(FieldType::Logical, 1),    field(FieldType::Date, 8)};
  const char* texts[] = {"", "A", "MAYOR", "CALLE MAYOR", "12", "-5", "0", "-0", "007", "+3", "1.50", " 12 ",
                         "12345", "123456", "99999999999999999", "1e3", "x1", "T", "n", "20260115", "2026011"};
  for (const FieldDescriptor& f : fields)
    for (const char* text : texts) {
      SCOPED_TRACE(std::string(1, char(f.type)) + std::to_string(f.length) + " «" + text + "»");
      EXPECT_EQ(written(setFieldAscii, f, text), written(setFieldText, f, text));
    }
}

TEST(FieldValue, WholeNumbersAreRightJustified) {
  const FieldDescriptor f = field(FieldType::Numeric, 5);
  EXPECT_EQ(written(setFieldAscii, f, "42"), "#   42");
  EXPECT_EQ(written(setFieldAscii, f, "-42"), "#  -42");
  EXPECT_EQ(written(setFieldAscii, f, "042"), "#   42");
}

TEST(FieldValue, ADateMustBeADayOfTheCalendar) {
  const FieldDescriptor f = field(FieldType::Date, 8);
  EXPECT_EQ(written(setFieldText, f, "20260115"), "#20260115");
  EXPECT_EQ(written(setFieldText, f, "20240229"), "#20240229");  // a leap year
  EXPECT_EQ(written(setFieldText, f, "20000229"), "#20000229");  // every 400 years
  for (const char* impossible : {"20260230", "20260229", "19000229", "20260431", "20261131", "20260132", "20261301",
                                 "20260001", "20260100"}) {
    SCOPED_TRACE(impossible);
    EXPECT_EQ(written(setFieldText, f, impossible), "error");
    EXPECT_EQ(written(setFieldAscii, f, impossible), "error");
  }
}
