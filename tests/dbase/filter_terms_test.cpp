// Filters tested one term at a time, on the field bytes alone: what the
// cursors do to test each distinct value of a field once.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dbase/core/codepage.h"
#include "dbase/core/filter.h"

using namespace dbase;

namespace {

FieldDescriptor field(const char* name, FieldType type, uint32_t length, uint32_t offset) {
  FieldDescriptor f;
  f.name = name;
  f.type = type;
  f.length = length;
  f.offset = offset;
  return f;
}

// Byte 0 of a record is the deletion flag.
const std::vector<FieldDescriptor>& layout() {
  static const std::vector<FieldDescriptor> fields = {
      field("COD_PROV", FieldType::Character, 2, 1),
      field("MUNICIPI", FieldType::Character, 10, 3),
      field("GRUPO", FieldType::Numeric, 3, 13),
      field("ACTIVO", FieldType::Logical, 1, 16),
  };
  return fields;
}

const CodePage& cp850() { return CodePage::forLanguageDriver(0x14); }

CompiledFilter compile(const std::string& text) { return CompiledFilter(parseFilter(text), layout(), cp850()); }

}  // namespace

TEST(FilterTerms, TermsReportWhereTheyReadInTheRecord) {
  CompiledFilter f = compile("GRUPO=1 AND COD_PROV='08'");
  ASSERT_EQ(f.termCount(), 2u);
  EXPECT_EQ(f.termOffset(0), 13u);
  EXPECT_EQ(f.termLength(0), 3u);
  EXPECT_EQ(f.termOffset(1), 1u);
  EXPECT_EQ(f.termLength(1), 2u);
}

TEST(FilterTerms, EachTermJudgesTheFieldBytesAsTheWholeFilterDoes) {
  CompiledFilter f = compile("COD_PROV=8 AND MUNICIPI='MADRID'");
  EXPECT_TRUE(f.termMatches(0, "08"));
  EXPECT_TRUE(f.termMatches(0, " 8"));
  EXPECT_TRUE(f.termMatches(0, "8 "));
  EXPECT_FALSE(f.termMatches(0, "28"));
  EXPECT_FALSE(f.termMatches(0, "X "));
  EXPECT_TRUE(f.termMatches(1, "MADRID    "));
  EXPECT_FALSE(f.termMatches(1, "MADRIDEJOS"));
  CompiledFilter flag = compile("ACTIVO='T'");
  EXPECT_TRUE(flag.termMatches(0, "Y"));
  EXPECT_FALSE(flag.termMatches(0, "F"));
}

TEST(FilterTerms, RecordMatchesWhenEveryTermMatches) {
  CompiledFilter f = compile("COD_PROV=28 AND GRUPO=2");
  const std::vector<std::string> records = {" 28MADRID      2 ", " 28MADRID      1 ", " 08MADRID      2 ",
                                            " 28          002 ", "  8            2 "};
  for (const std::string& r : records) {
    bool all = true;
    for (size_t t = 0; t < f.termCount(); ++t) all = all && f.termMatches(t, r.data() + f.termOffset(t));
    EXPECT_EQ(f.matches(r.data()), all) << r;
  }
}
