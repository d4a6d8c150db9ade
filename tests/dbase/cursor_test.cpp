// Cursors over a table: orders, searches, filters, and the VCL cursor states.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "dbase/core/codepage.h"
#include "dbase/core/collation.h"
#include "dbase/core/cursor.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;

namespace {

class CursorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    file = makeTable(dir.path(), "MUNICIPI.DBF",
                     {charField("COD_INE", 5), charField("NOMBRE", 30), charField("COD_PROV", 2), numField("HAB", 8)},
                     {{"28079", "MADRID", "28", "3300000"},
                      {"45087", "MADRIDEJOS", "45", "10000"},
                      {"33044", "NUÑEZ", "33", "50"},
                      {"33045", "NUNO", "33", "40"},
                      {"08019", "BARCELONA", "08", "1600000"},
                      {"05019", "ÁVILA", "05", "58000"},
                      {"05020", "AVILA", "05", "9"},
                      {"15030", "CORUÑA (A)", "15", "245000"},
                      {"10001", "CHERA", "10", "300"},
                      {"10002", "CUENCA", "10", "2"},
                      {"10003", "DAIMIEL", "10", "10"},
                      {"28001", "MADRID", "28", "1"}});
  }
  std::vector<std::string> walk(Cursor& c, const char* field = "NOMBRE") {
    std::vector<std::string> out;
    for (c.first(); !c.eof(); c.next()) out.push_back(fieldText(file->field(field), c.record(), file->codePage()));
    return out;
  }
  std::string current(Cursor& c, const char* field = "NOMBRE") {
    return fieldText(file->field(field), c.record(), file->codePage());
  }
  std::vector<int> fields(std::initializer_list<const char*> names) {
    std::vector<int> out;
    for (auto n : names) out.push_back(file->fieldIndex(n));
    return out;
  }
  void appendRow(const Row& row) {
    std::string record = file->blankRecord();
    for (size_t i = 0; i < row.size(); ++i) setFieldText(file->fields()[i], record.data(), row[i], file->codePage(), "T");
    file->append(record);
  }
  TempDir dir;
  std::shared_ptr<DbfFile> file;
};

}  // namespace

TEST_F(CursorTest, PhysicalOrderWithoutATag) {
  Cursor c(file);
  auto names = walk(c);
  ASSERT_EQ(names.size(), 12u);
  EXPECT_EQ(names.front(), "MADRID");
  EXPECT_EQ(names.back(), "MADRID");
}

TEST_F(CursorTest, NameOrderFollowsTheSpanishCollation) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  EXPECT_EQ(walk(c), (std::vector<std::string>{"AVILA", "ÁVILA", "BARCELONA", "CORUÑA (A)", "CUENCA", "CHERA",
                                               "DAIMIEL", "MADRID", "MADRID", "MADRIDEJOS", "NUNO", "NUÑEZ"}));
}

TEST_F(CursorTest, EqualKeysKeepRecordNumberOrder) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  ASSERT_TRUE(c.seek({"MADRID"}, true));
  EXPECT_EQ(c.recno(), 1u);
  c.next();
  EXPECT_EQ(c.recno(), 12u);
}

TEST_F(CursorTest, NumericKeysSortByValue) {
  Cursor c(file);
  c.setOrder(fields({"HAB"}));
  auto habitants = walk(c, "HAB");
  EXPECT_EQ(habitants.front(), "1");
  EXPECT_EQ(habitants[1], "2");
  EXPECT_EQ(habitants[2], "9");
  EXPECT_EQ(habitants[3], "10");
  EXPECT_EQ(habitants.back(), "3300000");
}

TEST_F(CursorTest, ExactSearchFindsTheFirstEqualRowIgnoringTrailingBlanks) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  ASSERT_TRUE(c.seek({"NUNO   "}, true));
  EXPECT_EQ(current(c), "NUNO");
  EXPECT_FALSE(c.eof());
  EXPECT_FALSE(c.bof());
}

TEST_F(CursorTest, FailedExactSearchLeavesTheCursorWhereItWas) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  ASSERT_TRUE(c.seek({"CUENCA"}, true));
  EXPECT_FALSE(c.seek({"MAD"}, true));
  EXPECT_EQ(current(c), "CUENCA");
  EXPECT_FALSE(c.seek({"ZARAGOZA"}, true));
  EXPECT_EQ(current(c), "CUENCA");
}

TEST_F(CursorTest, PartialSearchFindsTheFirstRowAtOrAfterAPrefix) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  ASSERT_TRUE(c.seek({"MAD"}, false));
  EXPECT_EQ(current(c), "MADRID");
  ASSERT_TRUE(c.seek({"MADRIDE"}, false));
  EXPECT_EQ(current(c), "MADRIDEJOS");
  ASSERT_TRUE(c.seek({"C"}, false));
  EXPECT_EQ(current(c), "CORUÑA (A)");
  ASSERT_TRUE(c.seek({"CH"}, false));
  EXPECT_EQ(current(c), "CHERA");
  ASSERT_TRUE(c.seek({"NUÑ"}, false));
  EXPECT_EQ(current(c), "NUÑEZ");
}

TEST_F(CursorTest, PartialSearchPastTheEndLandsOnTheLastRow) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  ASSERT_TRUE(c.seek({"ZAMORA"}, false));
  EXPECT_EQ(current(c), "NUÑEZ");
  EXPECT_FALSE(c.eof());
}

TEST_F(CursorTest, CompoundTagSearchesWithFewerValuesThanFields) {
  Cursor c(file);
  c.setOrder(fields({"COD_PROV", "NOMBRE"}));
  ASSERT_TRUE(c.seek({"10"}, true));
  EXPECT_EQ(current(c), "CUENCA");
  ASSERT_TRUE(c.seek({"10", "D"}, false));
  EXPECT_EQ(current(c), "DAIMIEL");
  ASSERT_TRUE(c.seek({"28", "MADRID"}, true));
  EXPECT_EQ(c.recno(), 1u);
  EXPECT_FALSE(c.seek({"28", "MAD"}, true));
}

TEST_F(CursorTest, SearchWithoutATagIsAnError) {
  Cursor c(file);
  EXPECT_THROW(c.seek({"MADRID"}, true), Error);
}

TEST_F(CursorTest, StatesAtTheEdgesFollowTheVclRules) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  c.first();
  EXPECT_TRUE(c.bof());
  EXPECT_FALSE(c.eof());
  c.prior();
  EXPECT_TRUE(c.bof());
  EXPECT_EQ(current(c), "AVILA");
  c.last();
  EXPECT_TRUE(c.eof());
  EXPECT_EQ(current(c), "NUÑEZ");
  c.next();  // stays on the last row
  EXPECT_TRUE(c.eof());
  EXPECT_EQ(current(c), "NUÑEZ");
  c.prior();
  EXPECT_FALSE(c.eof());
  EXPECT_EQ(current(c), "NUNO");
}

TEST_F(CursorTest, EmptyViewIsAtBothEnds) {
  Cursor c(file);
  c.setFilter("COD_PROV='99'");
  EXPECT_TRUE(c.empty());
  EXPECT_TRUE(c.eof());
  EXPECT_TRUE(c.bof());
  EXPECT_EQ(c.recno(), 0u);
  c.next();
  EXPECT_EQ(c.record(), nullptr);
}

TEST_F(CursorTest, FilterCombinesWithAnyOrder) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  c.setFilter("COD_PROV=10");
  EXPECT_EQ(walk(c), (std::vector<std::string>{"CUENCA", "CHERA", "DAIMIEL"}));
  EXPECT_EQ(c.count(), 3u);
  c.setOrder(fields({"HAB"}));
  EXPECT_EQ(walk(c), (std::vector<std::string>{"CUENCA", "DAIMIEL", "CHERA"}));
}

TEST_F(CursorTest, SearchStaysInsideTheFilter) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  c.setFilter("COD_PROV='05' AND HAB=9");
  ASSERT_TRUE(c.seek({"A"}, false));
  EXPECT_EQ(current(c), "AVILA");
  EXPECT_FALSE(c.seek({"MADRID"}, true));
  ASSERT_TRUE(c.seek({"M"}, false));  // nothing at or after: the last row of the view
  EXPECT_EQ(current(c), "AVILA");
}

TEST_F(CursorTest, BadFilterIsAnErrorAndKeepsThePreviousOne) {
  Cursor c(file);
  c.setFilter("COD_PROV=10");
  try {
    c.setFilter("NOMBRE='L'HOSPITALET'");
    FAIL();
  } catch (const Error& e) {
    EXPECT_NE(std::string(e.what()).find("NOMBRE='L'HOSPITALET'"), std::string::npos);
  }
  EXPECT_EQ(c.count(), 3u);
  EXPECT_EQ(c.filterText(), "COD_PROV=10");
}

TEST_F(CursorTest, AppendedRowsJoinEveryCursorsViewInOrder) {
  Cursor byName(file), filtered(file);
  byName.setOrder(fields({"NOMBRE"}));
  filtered.setOrder(fields({"NOMBRE"}));
  filtered.setFilter("COD_PROV=10");
  ASSERT_EQ(filtered.count(), 3u);
  appendRow({"10004", "CIEZA", "10", "5"});
  appendRow({"20001", "CEUTA", "20", "5"});
  EXPECT_EQ(walk(filtered), (std::vector<std::string>{"CIEZA", "CUENCA", "CHERA", "DAIMIEL"}));
  ASSERT_TRUE(byName.seek({"CE"}, false));
  EXPECT_EQ(current(byName), "CEUTA");
  byName.next();
  EXPECT_EQ(current(byName), "CIEZA");
}

TEST_F(CursorTest, EditedKeyMovesTheRowInTheOrder) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  ASSERT_TRUE(c.seek({"CUENCA"}, true));
  std::string record(c.record(), file->recordLength());
  setFieldText(file->field("NOMBRE"), record.data(), "ZAFRA", file->codePage(), "T");
  file->update(c.recno(), record);
  EXPECT_EQ(current(c), "ZAFRA");  // the cursor follows its row
  c.last();
  EXPECT_EQ(current(c), "ZAFRA");
}

TEST_F(CursorTest, DeletedRowsAreSkippedInEveryOrder) {
  std::string record(file->record(2), file->recordLength());
  record[0] = '*';
  file->update(2, record);
  Cursor physical(file), byName(file);
  byName.setOrder(fields({"NOMBRE"}));
  auto names = walk(physical);
  EXPECT_EQ(std::count(names.begin(), names.end(), "MADRIDEJOS"), 0);
  EXPECT_EQ(physical.count(), 11u);
  EXPECT_FALSE(byName.seek({"MADRIDEJOS"}, true));
}

TEST_F(CursorTest, GotoRecnoReturnsToABookmarkedRow) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  ASSERT_TRUE(c.seek({"DAIMIEL"}, true));
  uint32_t mark = c.recno();
  c.first();
  ASSERT_TRUE(c.gotoRecno(mark));
  EXPECT_EQ(current(c), "DAIMIEL");
  c.setFilter("COD_PROV=28");
  EXPECT_FALSE(c.gotoRecno(mark));  // not in the view
}

TEST_F(CursorTest, LargeTableKeepsItsOrderThroughRandomAppendsAndEdits) {
  TempDir big;
  auto table = makeTable(big.path(), "BIG.DBF", {charField("NOMBRE", 12), numField("N", 7)}, {});
  std::mt19937 random(7);
  const char* letters[] = {"A", "B", "C", "CH", "D", "L", "LL", "M", "N", "Ñ", "O", "Á", " "};
  auto randomName = [&] {
    std::string s;
    int n = 1 + int(random() % 5);
    for (int i = 0; i < n; ++i) s += letters[random() % 13];
    return s;
  };
  std::string records;
  for (int i = 0; i < 3000; ++i) {
    std::string r = table->blankRecord();
    setFieldText(table->field("NOMBRE"), r.data(), randomName(), table->codePage(), "B");
    setFieldNumber(table->field("N"), r.data(), i, "B");
    records += r;
  }
  table->appendMany(records);
  Cursor c(table);
  c.setOrder({0});
  for (int i = 0; i < 2000; ++i) {
    std::string r = table->blankRecord();
    setFieldText(table->field("NOMBRE"), r.data(), randomName(), table->codePage(), "B");
    if (i % 3 == 0) {
      uint32_t recno = 1 + random() % table->recordCount();
      table->update(recno, r);
    } else {
      table->append(r);
    }
  }
  std::vector<std::string> expected;
  for (uint32_t r = 1; r <= table->recordCount(); ++r)
    expected.emplace_back(fieldBytes(table->field("NOMBRE"), table->record(r)));
  std::stable_sort(expected.begin(), expected.end(),
                   [&](const std::string& a, const std::string& b) { return table->collation().compare(a, b) < 0; });
  std::vector<std::string> seen;
  for (c.first(); !c.eof(); c.next()) seen.emplace_back(fieldBytes(table->field("NOMBRE"), c.record()));
  ASSERT_EQ(seen.size(), expected.size());
  for (size_t i = 0; i < seen.size(); ++i)
    ASSERT_EQ(table->collation().compare(seen[i], expected[i]), 0) << "at " << i;
}
