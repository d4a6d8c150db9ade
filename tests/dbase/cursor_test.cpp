// Cursors over a table: orders, searches, filters, and the VCL cursor states.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <random>

#include "dbase/core/codepage.h"
#include "dbase/core/collation.h"
#include "dbase/core/cursor.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/filter.h"
#include "dbase/core/index_tag.h"
#include "dbase/core/tag_set.h"
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

// ---- views rebuilt lazily, from the rows that pass -------------------------

TEST_F(CursorTest, OrderChangeKeepsTheRowOfAFilteredView) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  c.setFilter("COD_PROV=10");
  ASSERT_TRUE(c.seek({"CHERA"}, true));
  c.setOrder(fields({"HAB"}));  // CUENCA 2, DAIMIEL 10, CHERA 300
  EXPECT_EQ(current(c), "CHERA");
  EXPECT_EQ(c.position(), 2u);
  EXPECT_FALSE(c.eof());
  c.prior();
  EXPECT_EQ(current(c), "DAIMIEL");
  c.setOrder({});  // physical: CHERA, CUENCA, DAIMIEL
  EXPECT_EQ(c.position(), 2u);
  EXPECT_EQ(current(c), "DAIMIEL");
}

TEST_F(CursorTest, OrderChangeThenFilterChangeStartsAtTheFirstRowOfTheNewView) {
  Cursor c(file);
  c.setFilter("COD_PROV=33");
  c.last();
  c.setOrder(fields({"NOMBRE"}));
  c.setFilter("COD_PROV=05");
  EXPECT_TRUE(c.bof());
  EXPECT_FALSE(c.eof());
  EXPECT_EQ(current(c), "AVILA");
  EXPECT_EQ(c.position(), 0u);
  EXPECT_EQ(walk(c), (std::vector<std::string>{"AVILA", "ÁVILA"}));
}

TEST_F(CursorTest, RepeatedOrderChangesKeepTheRowAndTheEdgeStates) {
  Cursor c(file);
  c.setFilter("COD_PROV=28");
  c.last();
  ASSERT_TRUE(c.eof());
  const uint32_t row = c.recno();
  c.setOrder(fields({"NOMBRE"}));
  c.setOrder(fields({"HAB"}));
  c.setOrder(fields({"COD_INE"}));
  EXPECT_EQ(c.recno(), row);
  EXPECT_TRUE(c.eof());  // untouched by a change of order
  EXPECT_EQ(c.count(), 2u);
  EXPECT_EQ(c.position(), 0u);  // 28001 before 28079
}

TEST_F(CursorTest, EmptyFilteredViewStaysEmptyAcrossOrderChanges) {
  Cursor c(file);
  c.setFilter("COD_PROV=99");
  c.setOrder(fields({"NOMBRE"}));
  EXPECT_TRUE(c.empty());
  EXPECT_EQ(c.recno(), 0u);
  EXPECT_TRUE(c.eof());
  EXPECT_TRUE(c.bof());
  c.first();
  EXPECT_EQ(c.record(), nullptr);
}

TEST_F(CursorTest, AppendsAfterAReorderJoinTheFilteredViewInTheNewOrder) {
  Cursor c(file);
  c.setFilter("COD_PROV=10");
  ASSERT_EQ(c.count(), 3u);
  c.setOrder(fields({"NOMBRE"}));
  appendRow({"10005", "BAENA", "10", "7"});
  appendRow({"28002", "ALCALA", "28", "7"});  // filtered out
  EXPECT_EQ(c.count(), 4u);
  EXPECT_EQ(walk(c), (std::vector<std::string>{"BAENA", "CUENCA", "CHERA", "DAIMIEL"}));
  appendRow({"10006", "ZUERA", "10", "7"});
  c.last();
  EXPECT_EQ(current(c), "ZUERA");
  c.setOrder({});
  EXPECT_EQ(walk(c), (std::vector<std::string>{"CHERA", "CUENCA", "DAIMIEL", "BAENA", "ZUERA"}));
}

TEST_F(CursorTest, EditsAfterAReorderMoveRowsIntoAndOutOfTheFilter) {
  Cursor c(file);
  c.setFilter("COD_PROV=10");
  c.setOrder(fields({"NOMBRE"}));
  auto setProvince = [&](uint32_t recno, const char* province) {
    std::string record(file->record(recno), file->recordLength());
    setFieldText(file->field("COD_PROV"), record.data(), province, file->codePage(), "T");
    file->update(recno, record);
  };
  setProvince(5, "10");   // BARCELONA joins
  setProvince(10, "16");  // CUENCA leaves
  EXPECT_EQ(c.count(), 3u);
  EXPECT_EQ(walk(c), (std::vector<std::string>{"BARCELONA", "CHERA", "DAIMIEL"}));
  c.setOrder(fields({"HAB"}));
  setProvince(5, "08");
  EXPECT_EQ(walk(c), (std::vector<std::string>{"DAIMIEL", "CHERA"}));
}

TEST_F(CursorTest, CurrentRowEditedOutOfTheFilterAfterAReorderLeavesTheCursorOnAViewRow) {
  Cursor c(file);
  c.setFilter("COD_PROV=10");
  ASSERT_TRUE(c.gotoRecno(11));  // DAIMIEL
  c.setOrder(fields({"NOMBRE"}));
  std::string record(file->record(11), file->recordLength());
  setFieldText(file->field("COD_PROV"), record.data(), "13", file->codePage(), "T");
  file->update(11, record);
  const uint32_t now = c.recno();
  EXPECT_TRUE(now == 9u || now == 10u);  // CHERA or CUENCA
  EXPECT_EQ(c.count(), 2u);
  EXPECT_LT(c.position(), 2u);
}

TEST_F(CursorTest, DeletedRowsStayOutOfFilteredViewsInEveryOrder) {
  Cursor c(file);
  c.setFilter("COD_PROV=10");
  std::string record(file->record(9), file->recordLength());  // CHERA
  record[0] = '*';
  file->update(9, record);
  EXPECT_EQ(walk(c), (std::vector<std::string>{"CUENCA", "DAIMIEL"}));
  c.setOrder(fields({"NOMBRE"}));
  EXPECT_EQ(c.count(), 2u);
  EXPECT_EQ(walk(c), (std::vector<std::string>{"CUENCA", "DAIMIEL"}));
  record[0] = ' ';
  file->update(9, record);
  EXPECT_EQ(walk(c), (std::vector<std::string>{"CUENCA", "CHERA", "DAIMIEL"}));
}

TEST_F(CursorTest, AnotherProgramsEditIsNoticedByAFilteredViewAfterAReorder) {
  Cursor c(file);
  c.setFilter("COD_PROV=10");
  c.setOrder(fields({"NOMBRE"}));
  ASSERT_EQ(c.count(), 3u);
  // Another program moves DAIMIEL (row 11) to province 28 and appends a row
  // of province 10.
  std::string bytes = readFile(dir.file("MUNICIPI.DBF"));
  const size_t header = bytes.size() - 1 - size_t(file->recordCount()) * file->recordLength();
  const auto& province = file->field("COD_PROV");
  bytes.replace(header + 10 * file->recordLength() + province.offset, 2, "28");
  std::string extra = file->blankRecord();
  setFieldText(file->field("NOMBRE"), extra.data(), "ALMADEN", file->codePage(), "T");
  setFieldText(province, extra.data(), "10", file->codePage(), "T");
  bytes.insert(bytes.size() - 1, extra);
  putU32(reinterpret_cast<unsigned char*>(bytes.data()) + 4, file->recordCount() + 1);
  writeFile(dir.file("MUNICIPI.DBF"), bytes);
  EXPECT_EQ(c.count(), 3u);
  EXPECT_EQ(walk(c), (std::vector<std::string>{"ALMADEN", "CUENCA", "CHERA"}));
}

TEST_F(CursorTest, CountAndEmptinessAfterAReorderKeepTheRow) {
  Cursor c(file);
  c.setOrder(fields({"NOMBRE"}));
  c.setFilter("COD_PROV=05");
  c.setOrder(fields({"HAB"}));
  EXPECT_FALSE(c.empty());
  EXPECT_EQ(c.count(), 2u);
  EXPECT_EQ(current(c), "AVILA");  // still the row setFilter went to
  EXPECT_EQ(c.position(), 0u);     // 9 inhabitants before 58000
}

TEST_F(CursorTest, OrderChangeAfterTheLastRowWasDeletedElsewhereShowsAnEmptyView) {
  Cursor c(file);
  c.setFilter("COD_PROV=45");
  ASSERT_EQ(c.recno(), 2u);
  std::string record(file->record(2), file->recordLength());
  record[0] = '*';
  file->update(2, record);  // through another cursor, say
  c.setOrder(fields({"NOMBRE"}));
  EXPECT_TRUE(c.eof());
  EXPECT_TRUE(c.bof());
  EXPECT_EQ(c.recno(), 0u);
}

TEST_F(CursorTest, TableWhoseRowsAreAllDeletedIsEmptyAndOneLiveRowMakesItNot) {
  Cursor c(file);
  const uint32_t rows = file->recordCount();
  for (uint32_t r = 1; r <= rows; ++r) {
    std::string record(file->record(r), file->recordLength());
    record[0] = '*';
    file->update(r, record);
  }
  EXPECT_TRUE(c.empty());
  EXPECT_EQ(c.count(), 0u);
  std::string last(file->record(rows), file->recordLength());
  last[0] = ' ';
  file->update(rows, last);
  EXPECT_FALSE(c.empty());
  EXPECT_EQ(c.count(), 1u);
}

namespace {

// A table bigger than the small fixture: NOMBRE unique and in reverse name
// order, GRUPO "A" everywhere but one row.
std::shared_ptr<DbfFile> bigTable(const std::string& dir, int rows, int odd) {
  auto table = makeTable(dir, "BIG.DBF", {charField("NOMBRE", 10), charField("GRUPO", 1), numField("N", 6)}, {});
  std::string records;
  for (int i = 0; i < rows; ++i) {
    std::string r = table->blankRecord();
    char name[16];
    std::snprintf(name, sizeof name, "N%06d", rows - i);
    setFieldText(table->field("NOMBRE"), r.data(), name, table->codePage(), "B");
    setFieldText(table->field("GRUPO"), r.data(), i == odd ? "B" : "A", table->codePage(), "B");
    setFieldNumber(table->field("N"), r.data(), i + 1, "B");
    records += r;
  }
  table->appendMany(records);
  return table;
}

}  // namespace

TEST(CursorViews, SinglePassingRowAtTheEndOfTheTagIsFound) {
  TempDir dir;
  auto table = bigTable(dir.path(), 6000, 0);  // row 1 holds the last name
  Cursor c(table);
  c.setOrder({0});
  c.setFilter("GRUPO='B'");
  EXPECT_FALSE(c.empty());
  EXPECT_EQ(c.count(), 1u);
  EXPECT_EQ(c.recno(), 1u);
  EXPECT_TRUE(c.bof());
  c.next();
  EXPECT_TRUE(c.eof());
  EXPECT_EQ(c.recno(), 1u);
  c.setFilter("GRUPO='C'");
  EXPECT_TRUE(c.empty());
}

TEST(CursorViews, FieldWithAValuePerRowFiltersRightInEveryOrder) {
  TempDir dir;
  auto table = bigTable(dir.path(), 6000, -1);
  Cursor c(table);
  c.setFilter("N=4321");
  ASSERT_EQ(c.count(), 1u);
  EXPECT_EQ(c.recno(), 4321u);
  c.setOrder({0});
  EXPECT_EQ(c.recno(), 4321u);
  EXPECT_EQ(c.position(), 0u);
  c.setFilter("NOMBRE='N000002' AND N=5999");
  EXPECT_EQ(c.recno(), 5999u);
  std::string r = table->blankRecord();
  setFieldText(table->field("NOMBRE"), r.data(), "N000002", table->codePage(), "B");
  setFieldNumber(table->field("N"), r.data(), 5999, "B");
  table->append(r);
  EXPECT_EQ(c.count(), 2u);
  c.last();
  EXPECT_EQ(c.recno(), 6001u);
}

TEST(CursorViews, ManyFilteredFieldsInTurnKeepGivingTheRightRows) {
  TempDir dir;
  auto table = makeTable(dir.path(), "T.DBF",
                         {charField("A", 2), charField("B", 2), charField("C", 2), charField("D", 2), charField("E", 2),
                          charField("F", 2)},
                         {{"1", "2", "3", "4", "5", "6"},
                          {"1", "1", "1", "1", "1", "1"},
                          {"6", "5", "4", "3", "2", "1"}});
  Cursor c(table);
  for (int round = 0; round < 2; ++round)
    for (const char* name : {"A", "B", "C", "D", "E", "F"}) {
      c.setFilter(std::string(name) + "=1");
      EXPECT_EQ(c.count(), size_t(name[0] == 'A' || name[0] == 'F' ? 2 : 1)) << name;
      EXPECT_EQ(c.recno(), name[0] == 'A' ? 1u : 2u) << name;
    }
}

namespace {

// Random orders, filters, appends, edits and deletions, each followed by a
// check against the plain definition of the view: the tag's rows (or the
// file's) that are live and match the filter. The table starts with rows in
// runs of `run` equal rows.
void checkRandomChanges(int run, unsigned seed) {
  TempDir dir;
  auto table = makeTable(dir.path(), "R.DBF", {charField("PROV", 2), charField("NOMBRE", 8), numField("N", 6)}, {});
  std::mt19937 random(seed);
  const char* provinces[] = {"08", "8", " 8", "28", "10", "X"};
  const char* names[] = {"MADRID", "ÁVILA", "AVILA", "CHERA", "CUENCA", "ZUERA"};
  auto randomRecord = [&](int n) {
    std::string r = table->blankRecord();
    setFieldText(table->field("PROV"), r.data(), provinces[random() % 6], table->codePage(), "R");
    setFieldText(table->field("NOMBRE"), r.data(), names[random() % 6], table->codePage(), "R");
    setFieldNumber(table->field("N"), r.data(), n, "R");
    return r;
  };
  std::string records;
  for (int i = 0; i < 300; ++i)
    records += i % run ? records.substr(records.size() - table->recordLength()) : randomRecord(i);
  table->appendMany(records);

  const std::vector<std::vector<int>> orders = {{}, {1}, {0, 1}, {2}, {0}};
  const std::vector<std::string> filters = {"",       "PROV=8",      "PROV='08'", "PROV=8 AND NOMBRE='AVILA'",
                                            "N=17",   "NOMBRE='ÁVILA'", "PROV='X'", "PROV=28 AND N=5"};
  Cursor c(table);
  size_t order = 0, filter = 0;
  auto expected = [&] {
    std::vector<uint32_t> rows;
    if (orders[order].empty())
      for (uint32_t r = 1; r <= table->recordCount(); ++r) rows.push_back(r);
    else
      TagSet::of(*table).tag(orders[order]).appendAll(rows);
    std::optional<CompiledFilter> compiled;
    FilterExpression e = parseFilter(filters[filter]);
    if (!e.terms.empty()) compiled.emplace(e, table->fields(), table->codePage());
    std::erase_if(rows, [&](uint32_t r) {
      return table->isDeleted(r) || (compiled && !compiled->matches(table->record(r)));
    });
    return rows;
  };

  for (int step = 0; step < 400; ++step) {
    const uint32_t before = c.recno();
    const bool beforeEof = c.eof(), beforeBof = c.bof();
    const int action = int(random() % 6);
    switch (action) {
      case 0:
        order = random() % orders.size();
        c.setOrder(orders[order]);
        ASSERT_EQ(c.recno(), before) << "step " << step;  // the same rows: the row stays
        ASSERT_EQ(c.eof(), beforeEof);
        ASSERT_EQ(c.bof(), beforeBof);
        break;
      case 1:
        filter = random() % filters.size();
        c.setFilter(filters[filter]);
        break;
      case 2:
        table->append(randomRecord(int(random() % 40)));
        break;
      case 3: {
        const uint32_t r = 1 + uint32_t(random() % table->recordCount());
        std::string record =
            random() % 2 ? randomRecord(int(random() % 40)) : std::string(table->record(r), table->recordLength());
        record[0] = random() % 4 == 0 ? '*' : ' ';
        table->update(r, record);
        break;
      }
      case 4:
        c.next();
        break;
      default:
        c.prior();
        break;
    }
    const std::vector<uint32_t> rows = expected();
    if (random() % 2) {
      ASSERT_EQ(c.count(), rows.size()) << "step " << step;
    }
    ASSERT_EQ(c.empty(), rows.empty()) << "step " << step;
    if (rows.empty()) {
      ASSERT_EQ(c.recno(), 0u);
      ASSERT_TRUE(c.eof() && c.bof());
      continue;
    }
    const uint32_t now = c.recno();
    auto at = std::find(rows.begin(), rows.end(), now);
    ASSERT_NE(at, rows.end()) << "step " << step << ": row " << now << " is not in the view";
    ASSERT_EQ(c.position(), size_t(at - rows.begin())) << "step " << step;
    if (action == 1) {
      ASSERT_EQ(now, rows.front()) << "step " << step;
    }
    if (step % 25 == 0) {
      std::vector<uint32_t> seen;
      for (c.first(); !c.eof(); c.next()) seen.push_back(c.recno());
      ASSERT_EQ(seen, rows) << "step " << step;
    }
  }
}

}  // namespace

TEST(CursorViews, RandomChangesOnRowsInRunsMatchThePlainDefinitionOfTheView) {
  checkRandomChanges(30, 11);
  checkRandomChanges(60, 12);
}

TEST(CursorViews, RandomChangesOnMixedRowsMatchThePlainDefinitionOfTheView) {
  checkRandomChanges(1, 13);
  checkRandomChanges(2, 14);
}
