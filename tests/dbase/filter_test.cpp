#include "dbase/core/filter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "dbase/core/codepage.h"
#include "dbase/core/error.h"

namespace {

using dbase::CodePage;
using dbase::CompiledFilter;
using dbase::ErrorKind;
using dbase::FieldDescriptor;
using dbase::FieldType;
using dbase::parseFilter;

FieldDescriptor field(const char* name, FieldType type, uint32_t length, uint32_t decimals, uint32_t offset) {
  FieldDescriptor f;
  f.name = name;
  f.type = type;
  f.length = length;
  f.decimals = decimals;
  f.offset = offset;
  return f;
}

// Offsets start at 1: byte 0 of a record is the deletion flag.
const std::vector<FieldDescriptor>& layout() {
  static const std::vector<FieldDescriptor> fields = {
      field("COD_PROV", FieldType::Character, 2, 0, 1),
      field("COD_INE", FieldType::Character, 5, 0, 3),
      field("MUNICIPI", FieldType::Character, 20, 0, 8),
      field("GRUPO", FieldType::Numeric, 2, 0, 28),
      field("SUPERF", FieldType::Float, 8, 2, 30),
      field("ACTIVO", FieldType::Logical, 1, 0, 38),
      field("ALTA", FieldType::Date, 8, 0, 39),
      field("NOTAS", FieldType::Memo, 10, 0, 47),
  };
  return fields;
}
constexpr size_t kRecordLength = 57;

const CodePage& cp850() { return CodePage::forLanguageDriver(0x14); }

// A live record with the given raw field bytes: text left-justified, N and F
// right-justified, everything else blank.
std::string record(const std::map<std::string, std::string>& values) {
  std::string rec(kRecordLength, ' ');
  for (const auto& [name, bytes] : values) {
    for (const FieldDescriptor& f : layout()) {
      if (f.name != name) continue;
      EXPECT_LE(bytes.size(), f.length) << name;
      size_t at = f.numeric() ? f.offset + f.length - bytes.size() : f.offset;
      std::memcpy(rec.data() + at, bytes.data(), bytes.size());
    }
  }
  return rec;
}

bool matches(const std::string& filter, const std::string& rec) {
  CompiledFilter compiled(parseFilter(filter), layout(), cp850());
  return compiled.matches(rec.data());
}

// The fault of the error a bad filter raises; fails the test when none is.
dbase::Error parseError(const std::string& text) {
  try {
    parseFilter(text);
  } catch (const dbase::Error& e) {
    return e;
  }
  ADD_FAILURE() << "no error for: " << text;
  return dbase::Error(ErrorKind::State, "", "");
}

// --- parsing ---

TEST(FilterParse, NumberTermKeepsTheNumberAsWritten) {
  auto e = parseFilter("COD_PROV=08");
  EXPECT_EQ(e.source, "COD_PROV=08");
  ASSERT_EQ(e.terms.size(), 1u);
  EXPECT_EQ(e.terms[0].field, "COD_PROV");
  EXPECT_FALSE(e.terms[0].quoted);
  EXPECT_EQ(e.terms[0].text, "08");
  EXPECT_EQ(e.terms[0].number, 8.0);
}

TEST(FilterParse, SignedAndDecimalNumbers) {
  auto e = parseFilter("SUPERF=-12.50");
  ASSERT_EQ(e.terms.size(), 1u);
  EXPECT_EQ(e.terms[0].text, "-12.50");
  EXPECT_DOUBLE_EQ(e.terms[0].number, -12.5);
  EXPECT_DOUBLE_EQ(parseFilter("GRUPO=+3").terms[0].number, 3.0);
}

TEST(FilterParse, QuotedTextWithBlanksAroundAndLowerCaseField) {
  auto e = parseFilter("  municipi = 'A CORUÑA'  ");
  ASSERT_EQ(e.terms.size(), 1u);
  EXPECT_EQ(e.terms[0].field, "MUNICIPI");
  EXPECT_TRUE(e.terms[0].quoted);
  EXPECT_EQ(e.terms[0].text, "A CORUÑA");
}

TEST(FilterParse, EmptyQuotedText) {
  auto e = parseFilter("MUNICIPI=''");
  ASSERT_EQ(e.terms.size(), 1u);
  EXPECT_TRUE(e.terms[0].quoted);
  EXPECT_EQ(e.terms[0].text, "");
}

TEST(FilterParse, TwoTermsJoinedByAnd) {
  auto e = parseFilter("COD_INE=28079 AND MUNICIPI='MADRID'");
  ASSERT_EQ(e.terms.size(), 2u);
  EXPECT_EQ(e.terms[0].field, "COD_INE");
  EXPECT_EQ(e.terms[0].text, "28079");
  EXPECT_EQ(e.terms[1].field, "MUNICIPI");
  EXPECT_EQ(e.terms[1].text, "MADRID");
}

TEST(FilterParse, LowerCaseAndAndTabs) {
  auto e = parseFilter("cod_prov=08\tand  grupo=1");
  ASSERT_EQ(e.terms.size(), 2u);
  EXPECT_EQ(e.terms[0].field, "COD_PROV");
  EXPECT_EQ(e.terms[1].field, "GRUPO");
  EXPECT_EQ(parseFilter("A=1 And B=2").terms.size(), 2u);
}

TEST(FilterParse, EmptyOrBlankTextGivesNoTerms) {
  EXPECT_TRUE(parseFilter("").terms.empty());
  EXPECT_TRUE(parseFilter("   \t ").terms.empty());
}

TEST(FilterParse, ApostropheInsideTextIsAnErrorNamingTheFilter) {
  const std::string text = "MUNICIPI='L'HOSPITALET'";
  dbase::Error e = parseError(text);
  EXPECT_EQ(e.kind(), ErrorKind::InvalidArgument);
  EXPECT_EQ(e.subject(), text);
  EXPECT_NE(std::string(e.what()).find(text), std::string::npos);
  EXPECT_NE(e.fault().find("comilla de cierre en la posición 12"), std::string::npos) << e.fault();
}

TEST(FilterParse, UnclosedQuoteSaysWhere) {
  dbase::Error e = parseError("MUNICIPI='MADRID");
  EXPECT_EQ(e.fault(), "comilla sin cerrar en la posición 10");
  // Positions count characters, not UTF-8 bytes.
  EXPECT_EQ(parseError("MUNICIPI='Ñ' AND COD_INE='2").fault(), "comilla sin cerrar en la posición 26");
}

TEST(FilterParse, MissingEqualsNamesTheField) {
  dbase::Error e = parseError("COD_PROV 08");
  EXPECT_EQ(e.kind(), ErrorKind::InvalidArgument);
  EXPECT_NE(e.fault().find("se esperaba '=' tras COD_PROV"), std::string::npos) << e.fault();
}

TEST(FilterParse, MoreThanTwoTermsIsAnError) {
  dbase::Error e = parseError("A=1 AND B=2 AND C=3");
  EXPECT_EQ(e.kind(), ErrorKind::InvalidArgument);
  EXPECT_NE(e.fault().find("como mucho dos"), std::string::npos) << e.fault();
}

TEST(FilterParse, MalformedTextsAreErrors) {
  for (const char* text : {"COD_PROV=", "COD_PROV=08 AND", "COD_PROV=08 AND ", "COD_PROV=08X", "COD_PROV=08 OR A=1",
                           "1COD=2", "=2", "COD_PROV=08 ANDGRUPO=1", "COD_PROV=08AND GRUPO=1", "COD_PROV==08",
                           "COD_PROV=\"08\"", "COD_PROV=1.", "COD_PROV=.5", "COD_PROV=-", "MUNICIPI='A''B'",
                           "MUNICIPI='A' 'B'", "AND", "COD_PROV=08 AND AND GRUPO=1", "COD-PROV=1"}) {
    dbase::Error e = parseError(text);
    EXPECT_EQ(e.kind(), ErrorKind::InvalidArgument) << text;
    EXPECT_EQ(e.subject(), text);
    EXPECT_FALSE(e.fault().empty()) << text;
  }
}

TEST(FilterParse, AndIsAWholeWordOnlyBetweenBlanks) {
  // A field may be called AND: only the word between blanks joins terms.
  auto e = parseFilter("AND=1 AND ANDES='X'");
  ASSERT_EQ(e.terms.size(), 2u);
  EXPECT_EQ(e.terms[0].field, "AND");
  EXPECT_EQ(e.terms[1].field, "ANDES");
}

// --- evaluation ---

TEST(CompiledFilterTest, NumberMatchesCharacterCodeWithLeadingZero) {
  const std::string madrid = record({{"COD_PROV", "28"}});
  const std::string barcelona = record({{"COD_PROV", "08"}});
  const std::string blank = record({});
  const std::string letters = record({{"COD_PROV", "0A"}});
  for (const char* text : {"COD_PROV=08", "COD_PROV=8", "COD_PROV=8.0", "COD_PROV=+8"}) {
    EXPECT_TRUE(matches(text, barcelona)) << text;
    EXPECT_FALSE(matches(text, madrid)) << text;
    EXPECT_FALSE(matches(text, blank)) << text;
    EXPECT_FALSE(matches(text, letters)) << text;
  }
  EXPECT_FALSE(matches("COD_PROV=80", barcelona));
}

TEST(CompiledFilterTest, QuotedCodeComparesBytes) {
  const std::string barcelona = record({{"COD_PROV", "08"}});
  EXPECT_TRUE(matches("COD_PROV='08'", barcelona));
  EXPECT_FALSE(matches("COD_PROV='8'", barcelona));
}

TEST(CompiledFilterTest, NumberMatchesNumericField) {
  EXPECT_TRUE(matches("GRUPO=1", record({{"GRUPO", "1"}})));
  EXPECT_TRUE(matches("GRUPO=01", record({{"GRUPO", "1"}})));
  EXPECT_FALSE(matches("GRUPO=1", record({{"GRUPO", "10"}})));
  EXPECT_FALSE(matches("GRUPO=1", record({})));
  EXPECT_FALSE(matches("GRUPO=1", record({{"GRUPO", "**"}})));
  EXPECT_TRUE(matches("GRUPO=0", record({{"GRUPO", "-0"}})));
}

TEST(CompiledFilterTest, DecimalsCompareExactly) {
  const std::string rec = record({{"SUPERF", "12.50"}});
  EXPECT_TRUE(matches("SUPERF=12.5", rec));
  EXPECT_TRUE(matches("SUPERF=12.500", rec));
  EXPECT_TRUE(matches("SUPERF=012.50", rec));
  EXPECT_FALSE(matches("SUPERF=12.51", rec));
  EXPECT_FALSE(matches("SUPERF=-12.5", rec));
  EXPECT_FALSE(matches("SUPERF=125", rec));
  EXPECT_TRUE(matches("SUPERF=-0.75", record({{"SUPERF", "-0.75"}})));
  EXPECT_TRUE(matches("SUPERF=-0.75", record({{"SUPERF", "-.75"}})));
  EXPECT_TRUE(matches("SUPERF=3", record({{"SUPERF", "3."}})));
}

TEST(CompiledFilterTest, QuotedTextAgainstNumericFieldIsReadAsNumber) {
  const std::string rec = record({{"GRUPO", "7"}});
  EXPECT_TRUE(matches("GRUPO='7'", rec));
  EXPECT_TRUE(matches("GRUPO=' 07 '", rec));
  EXPECT_FALSE(matches("GRUPO='8'", rec));
  EXPECT_FALSE(matches("GRUPO='SIETE'", rec));
  EXPECT_FALSE(matches("GRUPO=''", record({})));
}

TEST(CompiledFilterTest, TextIgnoresTrailingBlanksOfTheField) {
  const std::string madrid = record({{"MUNICIPI", "MADRID"}});
  EXPECT_TRUE(matches("MUNICIPI='MADRID'", madrid));
  EXPECT_TRUE(matches("MUNICIPI='MADRID  '", madrid));
  EXPECT_FALSE(matches("MUNICIPI='madrid'", madrid));
  EXPECT_FALSE(matches("MUNICIPI='MADRI'", madrid));
  EXPECT_FALSE(matches("MUNICIPI='MADRID'", record({{"MUNICIPI", "MADRIDEJOS"}})));
  EXPECT_FALSE(matches("MUNICIPI='MADRID'", record({{"MUNICIPI", " MADRID"}})));
  EXPECT_TRUE(matches("MUNICIPI=''", record({})));
  EXPECT_FALSE(matches("MUNICIPI=''", madrid));
}

TEST(CompiledFilterTest, TextMatchesFieldPaddedWithNuls) {
  std::string rec = record({{"MUNICIPI", "MADRID"}});
  std::memset(rec.data() + 8 + 6, '\0', 14);
  EXPECT_TRUE(matches("MUNICIPI='MADRID'", rec));
}

TEST(CompiledFilterTest, AccentedTextIsComparedInTheTableCodePage) {
  const std::string bytes = cp850().encode("MÁLAGA");
  ASSERT_EQ(bytes.size(), 6u);
  const std::string rec = record({{"MUNICIPI", bytes}});
  EXPECT_TRUE(matches("MUNICIPI='MÁLAGA'", rec));
  EXPECT_FALSE(matches("MUNICIPI='MALAGA'", rec));
}

TEST(CompiledFilterTest, TextTheCodePageCannotHoldNeverMatches) {
  CompiledFilter compiled(parseFilter("MUNICIPI='東京'"), layout(), cp850());
  EXPECT_FALSE(compiled.empty());
  EXPECT_FALSE(compiled.matches(record({}).data()));
  EXPECT_FALSE(compiled.matches(record({{"MUNICIPI", "??"}}).data()));
}

TEST(CompiledFilterTest, TextLongerThanTheFieldNeverMatches) {
  EXPECT_FALSE(matches("COD_PROV='080'", record({{"COD_PROV", "08"}})));
}

TEST(CompiledFilterTest, BothTermsMustHold) {
  const std::string text = "COD_INE=28079 AND MUNICIPI='MADRID'";
  EXPECT_TRUE(matches(text, record({{"COD_INE", "28079"}, {"MUNICIPI", "MADRID"}})));
  EXPECT_FALSE(matches(text, record({{"COD_INE", "28079"}, {"MUNICIPI", "MOSTOLES"}})));
  EXPECT_FALSE(matches(text, record({{"COD_INE", "28092"}, {"MUNICIPI", "MADRID"}})));
}

TEST(CompiledFilterTest, NumberMatchesCodeWrittenWithLeadingZero) {
  const std::string rec = record({{"COD_INE", "08019"}});
  EXPECT_TRUE(matches("COD_INE=8019", rec));
  EXPECT_TRUE(matches("COD_INE=08019", rec));
  EXPECT_FALSE(matches("COD_INE='8019'", rec));
  EXPECT_FALSE(matches("COD_INE=80190", rec));
}

TEST(CompiledFilterTest, FieldNamesAreCaseInsensitive) {
  EXPECT_TRUE(matches("cod_prov=8 and Municipi='X'", record({{"COD_PROV", "08"}, {"MUNICIPI", "X"}})));
}

TEST(CompiledFilterTest, UnknownFieldIsAnErrorNamingFieldAndFilter) {
  try {
    CompiledFilter(parseFilter("FOO=1"), layout(), cp850());
    FAIL() << "no error";
  } catch (const dbase::Error& e) {
    EXPECT_EQ(e.kind(), ErrorKind::InvalidArgument);
    EXPECT_EQ(e.subject(), "FOO=1");
    EXPECT_EQ(e.fault(), "campo desconocido: FOO");
  }
}

TEST(CompiledFilterTest, LogicalFieldComparesTheFlag) {
  EXPECT_TRUE(matches("ACTIVO='T'", record({{"ACTIVO", "T"}})));
  EXPECT_TRUE(matches("ACTIVO='t'", record({{"ACTIVO", "y"}})));
  EXPECT_TRUE(matches("ACTIVO='.F.'", record({{"ACTIVO", "N"}})));
  EXPECT_FALSE(matches("ACTIVO='T'", record({{"ACTIVO", "F"}})));
  EXPECT_FALSE(matches("ACTIVO='T'", record({{"ACTIVO", "?"}})));
  EXPECT_FALSE(matches("ACTIVO='F'", record({})));
  EXPECT_THROW(CompiledFilter(parseFilter("ACTIVO=1"), layout(), cp850()), dbase::Error);
  EXPECT_THROW(CompiledFilter(parseFilter("ACTIVO='SI'"), layout(), cp850()), dbase::Error);
}

TEST(CompiledFilterTest, DateFieldComparesDigits) {
  const std::string rec = record({{"ALTA", "20240131"}});
  EXPECT_TRUE(matches("ALTA='20240131'", rec));
  EXPECT_TRUE(matches("ALTA=20240131", rec));
  EXPECT_FALSE(matches("ALTA='20240130'", rec));
  EXPECT_TRUE(matches("ALTA=''", record({})));
}

TEST(CompiledFilterTest, MemoFieldCannotBeFiltered) {
  EXPECT_THROW(CompiledFilter(parseFilter("NOTAS='X'"), layout(), cp850()), dbase::Error);
}

TEST(CompiledFilterTest, NoTermsMatchesEveryRecord) {
  CompiledFilter compiled(parseFilter("  "), layout(), cp850());
  EXPECT_TRUE(compiled.empty());
  EXPECT_TRUE(compiled.matches(record({}).data()));
}

TEST(CompiledFilterTest, EvaluatesTwoHundredThousandRecordsQuickly) {
  std::vector<std::string> rows;
  for (int i = 0; i < 1000; ++i)
    rows.push_back(record({{"COD_INE", std::to_string(10000 + i * 53 % 90000)}, {"MUNICIPI", "PUEBLO"}}));
  CompiledFilter compiled(parseFilter("COD_INE=10053 AND MUNICIPI='PUEBLO'"), layout(), cp850());
  const auto start = std::chrono::steady_clock::now();
  size_t hits = 0;
  for (int pass = 0; pass < 200; ++pass)
    for (const std::string& row : rows) hits += compiled.matches(row.data());
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(hits, 200u);
  // Generous even for a sanitizer build; the release build takes a few ms.
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(), 2000);
}

}  // namespace
