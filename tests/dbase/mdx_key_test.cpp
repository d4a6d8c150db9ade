// Key bytes of dBase IV production indexes: packed-decimal numbers and
// Julian-day dates, held against what dBASE IV itself wrote.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>

#include "dbase/core/collation.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"
#include "dbase/core/mdx_key.h"
#include "dbase/mdx_sample.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;

namespace {

std::string hex(std::string_view bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    if (!out.empty()) out.push_back(' ');
    out.push_back(digits[c >> 4]);
    out.push_back(digits[c & 15]);
  }
  return out;
}

std::string bcd(double v) {
  std::string out;
  appendBcd(v, out);
  return hex(out);
}

std::string bcdText(std::string_view text) {
  std::string out;
  EXPECT_TRUE(appendBcdText(text, out)) << text;
  return hex(out);
}

std::string key(std::initializer_list<int> bytes) {
  std::string k;
  for (int b : bytes) k.push_back(char(b));
  k.resize(12, '\0');
  return hex(k);
}

}  // namespace

TEST(MdxNumericKey, WritesTheBytesDbaseFourWritesForWholeNumbers) {
  // Keys copied from indexes dBASE IV made.
  EXPECT_EQ(bcd(202), key({0x37, 0x29, 0x20, 0x20}));
  EXPECT_EQ(bcd(818), key({0x37, 0x29, 0x81, 0x80}));
  EXPECT_EQ(bcd(1000), key({0x38, 0x29, 0x10}));
  EXPECT_EQ(bcd(350), key({0x37, 0x29, 0x35}));
  EXPECT_EQ(bcd(125), key({0x37, 0x29, 0x12, 0x50}));
  EXPECT_EQ(bcd(-200), key({0x37, 0xA9, 0x20}));
  EXPECT_EQ(bcd(0), key({0x34, 0x01}));
}

TEST(MdxNumericKey, PlacesTheDecimalPointInTheFirstByte) {
  EXPECT_EQ(bcd(12.5), key({0x36, 0x29, 0x12, 0x50}));
  EXPECT_EQ(bcd(1), key({0x35, 0x29, 0x10}));
  EXPECT_EQ(bcd(0.5), key({0x34, 0x29, 0x50}));
  EXPECT_EQ(bcd(0.05), key({0x33, 0x29, 0x50}));
  EXPECT_EQ(bcd(0.001), key({0x32, 0x29, 0x10}));
  EXPECT_EQ(bcd(-3), key({0x35, 0xA9, 0x30}));
  EXPECT_EQ(bcd(123456.789), key({0x3A, 0x29, 0x12, 0x34, 0x56, 0x78, 0x90}));
}

TEST(MdxNumericKey, CountsTheDigitsOfLongNumbers) {
  // Eleven significant digits and more: the count says how many.
  EXPECT_EQ(bcd(12345678901.0), key({0x3F, 0x2D, 0x12, 0x34, 0x56, 0x78, 0x90, 0x10}));
  EXPECT_EQ(bcdText("12345678901234567891"),
            key({0x48, 0x51, 0x12, 0x34, 0x56, 0x78, 0x90, 0x12, 0x34, 0x56, 0x78, 0x91}));
  // Trailing zeros are not digits of the count.
  EXPECT_EQ(bcdText("12345678901234567890"),
            key({0x48, 0x4D, 0x12, 0x34, 0x56, 0x78, 0x90, 0x12, 0x34, 0x56, 0x78, 0x90}));
}

TEST(MdxNumericKey, ReadsFieldTextWithBlanksSignsAndPoint) {
  EXPECT_EQ(bcdText("  125"), bcd(125));
  EXPECT_EQ(bcdText(" -200.00"), bcd(-200));
  EXPECT_EQ(bcdText("   "), bcd(0));
  EXPECT_EQ(bcdText(""), bcd(0));
  EXPECT_EQ(bcdText("  -0.00"), bcd(0));
  EXPECT_EQ(bcdText("0.050"), bcd(0.05));
  EXPECT_EQ(bcdText("+7"), bcd(7));
  EXPECT_EQ(bcdText(".25"), bcd(0.25));
  EXPECT_EQ(bcdText("0012.50 "), bcd(12.5));
}

TEST(MdxNumericKey, RefusesTextThatIsNotANumber) {
  for (std::string_view bad : {"abc", "1.2.3", "-", ".", "12 3", "1e5", "***"}) {
    std::string out = "x";
    EXPECT_FALSE(appendBcdText(bad, out)) << bad;
    EXPECT_EQ(out, "x");
  }
}

TEST(MdxNumericKey, ReadsBackTheNumberItHolds) {
  for (double v : {0.0, 1.0, -1.0, 12.5, 0.001, -0.05, 213.0, 500200.0, -123456.789, 1e15, 2.5e-10}) {
    std::string k;
    appendBcd(v, k);
    ASSERT_EQ(k.size(), 12u);
    EXPECT_DOUBLE_EQ(bcdValue(k.data()), v);
  }
}

TEST(MdxNumericKey, OrdersKeysAsTheirNumbers) {
  const std::vector<double> values = {-1e6, -500.5, -12.5, -12, -1, -0.5, -0.001, 0, 0.001, 0.05,
                                      0.5,  1,      9.99,  10,  12, 12.5, 100,    999, 1000, 1e12};
  for (size_t i = 0; i < values.size(); ++i)
    for (size_t j = 0; j < values.size(); ++j) {
      std::string a, b;
      appendBcd(values[i], a);
      appendBcd(values[j], b);
      const int expected = (i > j) - (i < j);
      EXPECT_EQ(compareBcd(a.data(), b.data()), expected) << values[i] << " vs " << values[j];
      EXPECT_EQ(compareMdxKeys('N', a, b, Collation::forLanguageDriver(0x1B)), expected);
    }
}

TEST(MdxNumericKey, TreatsEveryZeroAsEqual) {
  std::string plain, negative, noDigits;
  appendBcd(0, plain);
  appendBcd(-0.0, negative);
  noDigits = plain;
  noDigits[1] = char(0x29);  // a count but no digits
  EXPECT_EQ(compareBcd(plain.data(), negative.data()), 0);
  EXPECT_EQ(compareBcd(plain.data(), noDigits.data()), 0);
  EXPECT_EQ(bcdValue(noDigits.data()), 0.0);
}

TEST(MdxNumericKey, SurvivesValuesOutOfRange) {
  std::string nan, inf, minusInf, tiny;
  appendBcd(std::nan(""), nan);
  appendBcd(INFINITY, inf);
  appendBcd(-INFINITY, minusInf);
  appendBcd(1e-300, tiny);
  EXPECT_EQ(hex(nan), bcd(0));
  EXPECT_EQ(hex(tiny), bcd(0));
  std::string big;
  appendBcd(1e200, big);
  EXPECT_EQ(compareBcd(inf.data(), big.data()), 1);
  EXPECT_EQ(compareBcd(minusInf.data(), nan.data()), -1);
}

TEST(MdxNumericKey, MatchesEveryNumericKeyDbaseFourStored) {
  if (sharedDir().empty()) GTEST_SKIP() << "no shared data";
  TempDir dir;
  int checked = 0;
  for (const std::string& table : mdxsample::tables()) {
    for (const mdxsample::Tag& tag : mdxsample::readTags(mdxsample::folder() + table + ".MDX")) {
      if (tag.type != 'N') continue;
      const std::string copy = dir.file(table + ".DBF");
      std::filesystem::copy_file(mdxsample::folder() + table + ".DBF", copy,
                                 std::filesystem::copy_options::overwrite_existing);
      auto file = DbfFile::open(copy);
      const FieldDescriptor& f = file->field(tag.expression);
      ASSERT_FALSE(tag.entries.empty());
      for (const auto& [recno, stored] : tag.entries) {
        std::string fromText, fromNumber;
        ASSERT_TRUE(appendBcdText(fieldBytes(f, file->record(recno)), fromText));
        appendBcd(fieldNumber(f, file->record(recno)).value_or(0), fromNumber);
        EXPECT_EQ(hex(fromText), hex(stored)) << table << " row " << recno;
        EXPECT_EQ(hex(fromNumber), hex(stored)) << table << " row " << recno;
        ++checked;
      }
    }
  }
  EXPECT_EQ(checked, 5 + 39);
}

TEST(MdxDateKey, IsTheJulianDayAsALittleEndianDouble) {
  std::string k;
  appendJulianDay("20000101", k);
  ASSERT_EQ(k.size(), 8u);
  EXPECT_EQ(hex(k), "00 00 00 80 2c b4 42 41");  // 2451545.0
  EXPECT_EQ(dayKeyValue(k.data()), 2451545.0);
}

TEST(MdxDateKey, CountsDaysAcrossCalendarEdges) {
  EXPECT_EQ(julianDayOf("19700101"), 2440588);
  EXPECT_EQ(julianDayOf("19000228") + 1, julianDayOf("19000301"));  // 1900 is not a leap year
  EXPECT_EQ(julianDayOf("20000228") + 2, julianDayOf("20000301"));  // 2000 is
  EXPECT_EQ(julianDayOf("15821015"), 2299161);  // first Gregorian day
  EXPECT_EQ(julianDayOf("00010101"), 1721426);
  for (int64_t jdn : {1721426LL, 2299161LL, 2451545LL, 2460000LL, 5373484LL}) {
    int y, m, d;
    civilDate(jdn, y, m, d);
    EXPECT_EQ(julianDay(y, m, d), jdn);
  }
}

TEST(MdxDateKey, WritesZeroForBlankOrUnreadableDates) {
  for (std::string_view text : {"        ", "", "1999", "19991301", "19990100", "1999O101"}) {
    std::string k;
    appendJulianDay(text, k);
    EXPECT_EQ(hex(k), "00 00 00 00 00 00 00 00") << text;
  }
}

TEST(MdxDateKey, OrdersKeysAsDays) {
  std::string a, b, blank;
  appendJulianDay("19991231", a);
  appendJulianDay("20000101", b);
  appendJulianDay("        ", blank);
  const Collation& c = Collation::forLanguageDriver(0x1B);
  EXPECT_LT(compareMdxKeys('D', a, b, c), 0);
  EXPECT_GT(compareMdxKeys('D', b, a, c), 0);
  EXPECT_LT(compareMdxKeys('D', blank, a, c), 0);
  EXPECT_EQ(compareMdxKeys('D', a, a, c), 0);
}

TEST(MdxCharacterKey, ComparesInTheCollationOfTheTable) {
  const Collation& bytes = Collation::forLanguageDriver(0x1B);
  EXPECT_LT(compareMdxKeys('C', "ABC  ", "ABD  ", bytes), 0);
  EXPECT_EQ(compareMdxKeys('C', "ABC  ", "ABC", bytes), 0);
  EXPECT_GT(compareMdxKeys('C', "b    ", "a    ", bytes), 0);
  const Collation& spanish = Collation::forLanguageDriver(0x14);
  EXPECT_EQ(compareMdxKeys('C', "ab", "AC", spanish), spanish.compare("ab", "AC"));
}
