// Index key expressions and FOR conditions: what each function and operator
// makes of a row, the width of the keys, the errors for what is not
// understood, and the keys of indexes dBASE IV wrote, byte for byte.
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "dbase/core/codepage.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/key_expression.h"
#include "dbase/core/mdx_key.h"
#include "dbase/mdx_sample.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;

namespace {

class KeyExpressionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    file_ = makeTable(dir_.path(), "GENTE.DBF",
                      {charField("NAME", 10), charField("CITY", 8), numField("NUM", 8, 2), numField("QTY", 3),
                       dateField("BORN"), logicalField("FLAG"), charField("CODE", 5)},
                      {{"ana", "MADRID", "12.5", "3", "20000101", "T", "  7"},
                       {"José", "Ávila", "-4.25", "", "", "F", "12abc"},
                       {"  Luis", "", "1234.56", "999", "19991231", "", ""}});
  }

  std::string key(std::string_view text, uint32_t recno = 1) const {
    const KeyExpression e = KeyExpression::compile(text, *file_);
    std::string k;
    e.appendKey(file_->record(recno), k);
    EXPECT_EQ(k.size(), e.keyLength()) << text;
    return k;
  }
  bool holds(std::string_view text, uint32_t recno = 1) const {
    const KeyExpression e = KeyExpression::compile(text, *file_);
    EXPECT_EQ(e.type(), 'L') << text;
    return e.isTrue(file_->record(recno));
  }
  std::string number(double v) const {
    std::string k;
    appendBcd(v, k);
    return k;
  }
  std::string day(std::string_view yyyymmdd) const {
    std::string k;
    appendJulianDay(yyyymmdd, k);
    return k;
  }
  std::string cp(std::string_view utf8) const { return file_->codePage().encode(utf8); }
  // The fault of compiling this text, or "" when it compiles.
  std::string fault(std::string_view text) const {
    try {
      KeyExpression::compile(text, *file_);
    } catch (const Error& e) {
      EXPECT_EQ(e.kind(), ErrorKind::NotSupported) << text;
      EXPECT_EQ(e.subject(), file_->name());
      return e.fault();
    }
    return {};
  }

  TempDir dir_;
  std::shared_ptr<DbfFile> file_;
};

}  // namespace

TEST_F(KeyExpressionTest, FieldKeyIsTheFieldBytesWithItsWidth) {
  const KeyExpression e = KeyExpression::compile("name", *file_);
  EXPECT_EQ(e.type(), 'C');
  EXPECT_EQ(e.keyLength(), 10u);
  EXPECT_EQ(e.text(), "name");
  EXPECT_EQ(key("NAME"), "ana       ");
  EXPECT_EQ(key("Name", 3), "  Luis    ");
  EXPECT_EQ(key("NAME", 2), cp("José") + "      ");
}

TEST_F(KeyExpressionTest, PlusJoinsTextsAtFullWidth) {
  EXPECT_EQ(key("NAME+CITY"), "ana       MADRID  ");
  EXPECT_EQ(key("CITY + 'x' + \"yz\" + [w]"), "MADRID  xyzw");
}

TEST_F(KeyExpressionTest, MinusMovesTheLeftTrailingBlanksToTheEnd) {
  EXPECT_EQ(key("NAME-CITY"), "anaMADRID         ");
  EXPECT_EQ(key("NAME-CITY-'!'"), "anaMADRID!         ");
  EXPECT_EQ(KeyExpression::compile("NAME-CITY", *file_).keyLength(), 18u);
}

TEST_F(KeyExpressionTest, UpperAndLowerChangeAccentedLettersOfTheCodePage) {
  EXPECT_EQ(key("UPPER(NAME)"), "ANA       ");
  EXPECT_EQ(key("UPPER(NAME)", 2), cp("JOSÉ") + "      ");
  EXPECT_EQ(key("LOWER(CITY)", 2), cp("ávila") + "   ");
  EXPECT_EQ(key("LOWER(UPPER(NAME))", 2), cp("josé") + "      ");
  struct Case {
    uint8_t driver;
    const char* lower;
    const char* upper;
  };
  for (const Case& c : {Case{0x1B, "ñçüéæåä", "ÑÇÜÉÆÅÄ"}, Case{0x14, "ñandú çà ü", "ÑANDÚ ÇÀ Ü"},
                        Case{0x57, "ñandú çà ü šœÿ", "ÑANDÚ ÇÀ Ü ŠŒŸ"}}) {
    auto t = makeTable(dir_.path(), "CP" + std::to_string(c.driver) + ".DBF", {charField("W", 16)},
                       {{c.lower}, {c.upper}}, c.driver);
    const CodePage& page = t->codePage();
    std::string up, low;
    KeyExpression::compile("UPPER(W)", *t).appendKey(t->record(1), up);
    KeyExpression::compile("LOWER(W)", *t).appendKey(t->record(2), low);
    std::string upExpected = page.encode(c.upper), lowExpected = page.encode(c.lower);
    upExpected.resize(16, ' ');
    lowExpected.resize(16, ' ');
    EXPECT_EQ(up, upExpected) << page.number();
    EXPECT_EQ(low, lowExpected) << page.number();
  }
  // A letter whose other case the code page lacks stays as it is (cp437 has ú but no Ú).
  auto t = makeTable(dir_.path(), "CP437.DBF", {charField("W", 2)}, {{"úß"}}, 0x1B);
  std::string up;
  KeyExpression::compile("UPPER(W)", *t).appendKey(t->record(1), up);
  EXPECT_EQ(up, t->codePage().encode("úß"));
}

TEST_F(KeyExpressionTest, TrimmedTextsKeepTheirWidthAndPadAtTheEnd) {
  const KeyExpression e = KeyExpression::compile("TRIM(NAME)+CITY", *file_);
  EXPECT_EQ(e.keyLength(), 18u);
  EXPECT_EQ(key("TRIM(NAME)+CITY"), "anaMADRID         ");
  EXPECT_EQ(key("RTRIM(NAME)+'|'"), "ana|       ");
  EXPECT_EQ(key("LTRIM(NAME)+'|'", 3), "Luis    |  ");
  EXPECT_EQ(key("TRIM(LTRIM(NAME))+'|'", 3), "Luis|      ");
}

TEST_F(KeyExpressionTest, StrRightJustifiesAndRoundsNumbers) {
  EXPECT_EQ(key("STR(NUM)"), "        13");
  EXPECT_EQ(key("STR(NUM,8,2)"), "   12.50");
  EXPECT_EQ(key("STR(NUM,6,1)", 2), "  -4.3");
  EXPECT_EQ(key("STR(NUM,8,3)", 3), "1234.560");
  EXPECT_EQ(key("STR(QTY,3)", 2), "  0");
  EXPECT_EQ(key("STR(2.5,1)"), "3");
  EXPECT_EQ(key("STR(-2.5,2)"), "-3");
  EXPECT_EQ(key("STR(-0.4,3)"), "  0");
  EXPECT_EQ(key("STR(2.345,5,2)"), " 2.35");
  EXPECT_EQ(KeyExpression::compile("STR(NUM,8,2)", *file_).keyLength(), 8u);
}

TEST_F(KeyExpressionTest, StrWritesAsterisksWhenTheNumberDoesNotFit) {
  EXPECT_EQ(key("STR(NUM,3)", 3), "***");
  EXPECT_EQ(key("STR(-100,3)"), "***");
  EXPECT_EQ(key("STR(999.6,3)"), "***");
  // Decimals that do not fit are rounded away first.
  EXPECT_EQ(key("STR(123.456,5,2)"), "123.5");
  EXPECT_EQ(key("STR(123.456,4,2)"), " 123");
}

TEST_F(KeyExpressionTest, DtosAndDtocWriteDates) {
  EXPECT_EQ(key("DTOS(BORN)"), "20000101");
  EXPECT_EQ(key("DTOS(BORN)", 2), "        ");
  EXPECT_EQ(key("DTOC(BORN)", 3), "12/31/99");
  EXPECT_EQ(key("DTOC(BORN)", 2), "  /  /  ");
  EXPECT_EQ(key("DTOS(BORN+1)", 3), "20000101");
  EXPECT_EQ(key("DTOS(BORN-1)"), "19991231");
  EXPECT_EQ(key("DTOS(31+BORN)"), "20000201");
  EXPECT_EQ(key("DTOS(BORN+1)", 2), "        ");
}

TEST_F(KeyExpressionTest, SubstrLeftAndRightCutAtFixedWidths) {
  EXPECT_EQ(key("SUBSTR(CITY,2,3)"), "ADR");
  EXPECT_EQ(key("SUBSTR(CITY,4)"), "RID  ");
  EXPECT_EQ(KeyExpression::compile("SUBSTR(CITY,4)", *file_).keyLength(), 5u);
  EXPECT_EQ(key("SUBSTR(CITY,7,10)+'|'"), "  |");
  EXPECT_EQ(key("LEFT(CITY,3)+RIGHT(NAME,2)"), "MAD  ");
  EXPECT_EQ(key("RIGHT(TRIM(NAME),2)+'|'"), "na|");
  EXPECT_EQ(key("LEFT(CITY,20)"), "MADRID  ");
  EXPECT_EQ(KeyExpression::compile("LEFT(CITY,20)", *file_).keyLength(), 8u);
  EXPECT_EQ(key("SUBS(CITY,2,2)"), "AD");  // dBASE's four-letter names
}

TEST_F(KeyExpressionTest, IifTakesTheWiderBranchWidth) {
  const KeyExpression e = KeyExpression::compile("IIF(FLAG,NAME,'x')+'|'", *file_);
  EXPECT_EQ(e.keyLength(), 11u);
  EXPECT_EQ(key("IIF(FLAG,NAME,'x')+'|'", 1), "ana       |");
  EXPECT_EQ(key("IIF(FLAG,NAME,'x')+'|'", 2), "x         |");
  EXPECT_EQ(key("IIF(NUM>0,NUM,-NUM)", 2), number(4.25));
  EXPECT_EQ(key("DTOS(IIF(FLAG,BORN,BORN+1))"), "20000101");
}

TEST_F(KeyExpressionTest, ValReadsTheLeadingNumber) {
  EXPECT_EQ(key("VAL(CODE)"), number(7));
  EXPECT_EQ(key("VAL(CODE)", 2), number(12));
  EXPECT_EQ(key("VAL(CODE)", 3), number(0));
  EXPECT_EQ(key("VAL('-3.5x')"), number(-3.5));
  EXPECT_EQ(key("STR(VAL(CODE)+1,3)"), "  8");
}

TEST_F(KeyExpressionTest, NumericExpressionsGiveDecimalKeys) {
  const KeyExpression e = KeyExpression::compile("NUM", *file_);
  EXPECT_EQ(e.type(), 'N');
  EXPECT_EQ(e.keyLength(), 12u);
  EXPECT_EQ(key("NUM"), number(12.5));
  EXPECT_EQ(key("NUM", 2), number(-4.25));
  EXPECT_EQ(key("QTY", 2), number(0));
  EXPECT_EQ(key("NUM+QTY"), number(15.5));
  EXPECT_EQ(key("NUM-QTY-1"), number(8.5));
  EXPECT_EQ(key("-NUM"), number(-12.5));
  EXPECT_EQ(key("-(NUM-QTY)+ +1"), number(-8.5));
  EXPECT_EQ(key("BORN-BORN+2"), number(2));
}

TEST_F(KeyExpressionTest, DateExpressionsGiveJulianDayKeys) {
  const KeyExpression e = KeyExpression::compile("BORN", *file_);
  EXPECT_EQ(e.type(), 'D');
  EXPECT_EQ(e.keyLength(), 8u);
  EXPECT_EQ(key("BORN"), day("20000101"));
  EXPECT_EQ(key("BORN", 2), day(""));
  EXPECT_EQ(key("BORN+1", 3), day("20000101"));
}

TEST_F(KeyExpressionTest, ConditionsCompareTextsAsWithExactOff) {
  EXPECT_TRUE(holds("CITY = 'MAD'"));
  EXPECT_TRUE(holds("CITY = ''"));
  EXPECT_FALSE(holds("'MAD' = CITY"));
  EXPECT_TRUE(holds("CITY = 'MADRID'"));
  EXPECT_TRUE(holds("CITY = 'MADRID  '"));
  EXPECT_FALSE(holds("CITY = 'MADRID   '"));
  EXPECT_TRUE(holds("CITY <> 'BARCELONA'"));
  EXPECT_TRUE(holds("CITY # 'X'"));
  EXPECT_FALSE(holds("CITY # 'MA'"));
  EXPECT_TRUE(holds("CITY > 'BARCELONA'"));
  EXPECT_TRUE(holds("CITY < 'TOLEDO'"));
  EXPECT_TRUE(holds("CITY >= 'MAD'"));
  EXPECT_TRUE(holds("CITY <= 'MAD'"));
  EXPECT_FALSE(holds("CITY < 'MAD'"));
  EXPECT_TRUE(holds("UPPER(NAME) = 'ANA'"));
}

TEST_F(KeyExpressionTest, ConditionsCompareNumbersAndDates) {
  EXPECT_TRUE(holds("NUM > 12"));
  EXPECT_FALSE(holds("NUM > 12", 2));
  EXPECT_TRUE(holds("NUM = 12.5"));
  EXPECT_TRUE(holds("NUM <= 12.5"));
  EXPECT_TRUE(holds("NUM >= 12.5"));
  EXPECT_TRUE(holds("QTY < NUM"));
  EXPECT_TRUE(holds("NUM <> QTY"));
  EXPECT_TRUE(holds("BORN > BORN - 1"));
  EXPECT_TRUE(holds("DTOS(BORN) >= '2000'"));
}

TEST_F(KeyExpressionTest, ConditionsCombineWithAndOrNot) {
  EXPECT_TRUE(holds("FLAG"));
  EXPECT_FALSE(holds("FLAG", 2));
  EXPECT_FALSE(holds("FLAG", 3));
  EXPECT_TRUE(holds(".NOT. FLAG", 2));
  EXPECT_TRUE(holds("FLAG .AND. NUM > 0"));
  EXPECT_FALSE(holds("FLAG .and. NUM < 0"));
  EXPECT_TRUE(holds("NUM < 0 .OR. FLAG"));
  EXPECT_TRUE(holds(".T. .OR. .F. .AND. .F."));  // .AND. binds tighter
  EXPECT_FALSE(holds("(.T. .OR. .F.) .AND. .F."));
  EXPECT_TRUE(holds(".NOT. .F. .AND. .T."));
  EXPECT_TRUE(holds("IIF(FLAG, .T., .F.)"));
  EXPECT_FALSE(KeyExpression::compile("NAME", *file_).isTrue(file_->record(1)));  // not a condition
}

TEST_F(KeyExpressionTest, DeletedTellsDeletedRows) {
  EXPECT_FALSE(holds("DELETED()"));
  std::string record(file_->record(2), file_->recordLength());
  record[0] = '*';
  file_->update(2, record);
  EXPECT_TRUE(holds("DELETED()", 2));
  EXPECT_TRUE(holds(".NOT. DELETED() .AND. NAME = 'ana'", 1));
}

TEST_F(KeyExpressionTest, NamesAndFunctionsIgnoreCase) {
  EXPECT_EQ(key("upper(name)+city"), key("UPPER(NAME)+CITY"));
  EXPECT_EQ(key("Dtos( Born )"), "20000101");
  EXPECT_EQ(key("uppe(name)"), "ANA       ");
}

TEST_F(KeyExpressionTest, ListsTheFieldsReadInOrder) {
  EXPECT_EQ(KeyExpression::compile("CITY+UPPER(NAME)+CITY+STR(NUM)", *file_).fields(), (std::vector<int>{1, 0, 2}));
  EXPECT_EQ(KeyExpression::compile("'x'", *file_).fields(), std::vector<int>{});
  EXPECT_EQ(KeyExpression::compile("DELETED() .OR. FLAG", *file_).fields(), std::vector<int>{5});
}

TEST_F(KeyExpressionTest, SpansPlaceEachFieldOfAConcatenation) {
  const KeyExpression e = KeyExpression::compile("UPPER(NAME)+LEFT(CITY,3)+STR(NUM,8)+'-'+DTOS(BORN)", *file_);
  using Span = std::optional<std::pair<uint32_t, uint32_t>>;
  EXPECT_EQ(e.span(0), Span({0, 10}));
  EXPECT_EQ(e.span(1), Span({10, 3}));
  EXPECT_EQ(e.span(2), Span({13, 8}));
  EXPECT_EQ(e.span(4), Span({22, 8}));
  EXPECT_EQ(e.span(3), std::nullopt);  // not read
  EXPECT_EQ(KeyExpression::compile("CITY", *file_).span(1), Span({0, 8}));
  EXPECT_EQ(KeyExpression::compile("UPPER(NAME+CITY)", *file_).span(1), Span({10, 8}));
  EXPECT_EQ(KeyExpression::compile("RIGHT(CITY,2)+NAME", *file_).span(0), Span({2, 10}));
}

TEST_F(KeyExpressionTest, SpansAreUnknownWhereTheKeyDoesNotPlaceAField) {
  EXPECT_EQ(KeyExpression::compile("TRIM(NAME)+CITY", *file_).span(1), std::nullopt);
  EXPECT_EQ(KeyExpression::compile("TRIM(NAME)+CITY", *file_).span(0), std::nullopt);
  EXPECT_EQ(KeyExpression::compile("NAME-CITY", *file_).span(0), std::nullopt);
  EXPECT_EQ(KeyExpression::compile("NAME+CITY+NAME", *file_).span(0), std::nullopt);
  EXPECT_EQ(KeyExpression::compile("NAME+CITY+NAME", *file_).span(1), (std::make_pair(10u, 8u)));
  EXPECT_EQ(KeyExpression::compile("IIF(FLAG,NAME,CITY)", *file_).span(0), std::nullopt);
  EXPECT_EQ(KeyExpression::compile("NUM", *file_).span(2), std::nullopt);
  EXPECT_EQ(KeyExpression::compile("NUM > 1", *file_).span(2), std::nullopt);
}

TEST_F(KeyExpressionTest, RefusesWhatItDoesNotUnderstandNamingTheExpression) {
  const std::string f = fault("FOO(X)");
  EXPECT_EQ(f.rfind("expresión de índice no admitida: FOO(X)", 0), 0u) << f;
  for (std::string_view text :
       {"NOPE", "NAME+NUM", "NAME-BORN", "NUM+FLAG", "UPPER(NUM)", "STR(NAME)", "DTOS(NAME)", "NAME->CITY",
        "NAME $ CITY", "'abc", "", "   ", "NAME CITY", "(NAME", "NAME)", "UPPER()", "UPPER(NAME,1)",
        "STR(NUM,QTY)", "STR(NUM,0)", "LEFT(NAME,-1)", "SUBSTR(NAME,0,2)", "IIF(FLAG,NAME,NUM)", "IIF(NAME,1,2)",
        "FLAG = FLAG", "NAME = NUM", ".X.", "NUM * 2", "NAME + ", ".NOT. NAME", "FLAG .AND. NUM",
        "DELETED(1)", "@", "NAME,CITY", "NAME+CITY+CITY+CITY+CITY+CITY+CITY+CITY+CITY+CITY+CITY+CITY+CITY",
        "LEFT(NAME,0)"}) {
    const std::string why = fault(text);
    EXPECT_FALSE(why.empty()) << "compiled: " << text;
    EXPECT_NE(why.find("expresión de índice no admitida: " + std::string(text)), std::string::npos) << why;
  }
}

TEST_F(KeyExpressionTest, RefusesCharacterKeysLongerThanAHundredBytes) {
  auto t = makeTable(dir_.path(), "WIDE.DBF", {charField("A", 60), charField("B", 40), charField("C", 41)}, {});
  EXPECT_EQ(KeyExpression::compile("A+B", *t).keyLength(), 100u);
  EXPECT_THROW(KeyExpression::compile("A+C", *t), Error);
  EXPECT_THROW(KeyExpression::compile("C+C+C", *t), Error);
  // Long texts are fine inside a condition.
  EXPECT_EQ(KeyExpression::compile("A+C+C = 'x'", *t).type(), 'L');
}

TEST_F(KeyExpressionTest, DeepOrLongExpressionsFailCleanly) {
  EXPECT_FALSE(fault(std::string(5000, '(') + "NAME" + std::string(5000, ')')).empty());
  EXPECT_FALSE(fault(std::string(5000, '-') + "NUM").empty());
  EXPECT_FALSE(fault(std::string(3000, '.') + "NOT. FLAG").empty());
  std::string sum = "NUM";
  for (int i = 0; i < 5000; ++i) sum += "+1";
  EXPECT_FALSE(fault(sum).empty());
  std::string upper = "NAME";
  for (int i = 0; i < 5000; ++i) upper = "UPPER(" + upper + ")";
  EXPECT_FALSE(fault(upper).empty());
  EXPECT_EQ(key("((((((NAME))))))"), "ana       ");
}

TEST_F(KeyExpressionTest, NeverFailsOtherwiseOnRandomText) {
  const std::vector<std::string> pieces = {"NAME", "CITY", "NUM", "QTY", "BORN", "FLAG", "CODE", "UPPER(", "LOWER(",
                                           "TRIM(", "LTRIM(", "STR(", "DTOS(", "DTOC(", "SUBSTR(", "LEFT(",
                                           "RIGHT(", "IIF(", "VAL(", "DELETED()", "(", ")", ",", "+", "-", "=",
                                           "<>", "#", "<", ">", "<=", ">=", ".AND.", ".OR.", ".NOT.", ".T.",
                                           "'ab '", "\"\"", "0", "1", "3", "2.5", "1e300", "99999999999999999999",
                                           " ", "'", "[", "."};
  std::mt19937 random(12345);
  int compiled = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    const int n = 1 + int(random() % 12);
    for (int j = 0; j < n; ++j) text += pieces[random() % pieces.size()];
    try {
      const KeyExpression e = KeyExpression::compile(text, *file_);
      ++compiled;
      for (uint32_t r = 1; r <= file_->recordCount(); ++r) {
        std::string k;
        e.appendKey(file_->record(r), k);
        ASSERT_EQ(k.size(), e.keyLength()) << text;
        (void)e.isTrue(file_->record(r));
      }
    } catch (const Error& e) {
      ASSERT_EQ(e.kind(), ErrorKind::NotSupported) << text;
    }
  }
  EXPECT_GT(compiled, 100);
}

TEST(KeyExpressionOfDbaseIndexes, GivesTheKeysDbaseFourStoredForEveryRow) {
  if (sharedDir().empty()) GTEST_SKIP() << "no shared data";
  TempDir dir;
  int tags = 0, keys = 0;
  for (const std::string& table : mdxsample::tables()) {
    const std::string copy = dir.file(table + ".DBF");
    std::filesystem::copy_file(mdxsample::folder() + table + ".DBF", copy);
    auto file = DbfFile::open(copy);
    for (const mdxsample::Tag& tag : mdxsample::readTags(mdxsample::folder() + table + ".MDX")) {
      SCOPED_TRACE(table + " " + tag.name + " " + tag.expression);
      const KeyExpression e = KeyExpression::compile(tag.expression, *file);
      EXPECT_EQ(e.type(), tag.type);
      EXPECT_EQ(e.keyLength(), tag.keyLength);
      EXPECT_TRUE(tag.forExpression.empty());
      EXPECT_EQ(tag.entries.size(), file->recordCount());
      for (const auto& [recno, stored] : tag.entries) {
        ASSERT_GE(recno, 1u);
        ASSERT_LE(recno, file->recordCount());
        std::string ours;
        e.appendKey(file->record(recno), ours);
        EXPECT_EQ(ours, stored) << "row " << recno;
        ++keys;
      }
      ++tags;
    }
  }
  EXPECT_EQ(tags, 22);
  EXPECT_EQ(keys, 5 * 3 + 8 * 2 + 39 * 2 + 20 + 7 * 2 + 33 * 2 + 16 + 15 + 17 * 2 + 7 + 19 + 2 + 12 * 2 + 8);
}
