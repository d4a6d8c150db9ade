// The TTable facade: opening through an alias, tags by name, fields, editing,
// calculated fields and the signals grids listen to.
#include <gtest/gtest.h>

#include <QSignalSpy>
#include <filesystem>

#include "dbase/TTable.h"
#include "dbase/core/alias.h"
#include "dbase/core/error.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace testsupport;

namespace {

class TTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeTable(dir.path(), "PROVIN.DBF", {numField("CODIGO", 3), charField("PROVINCIA", 30), numField("GRUPO", 1)},
              {{"28", "MADRID", "1"},
               {"8", "BARCELONA", "1"},
               {"900", "ESPAÑA", "2"},
               {"250", "FRANCIA", "2"},
               {"15", "CORUÑA (A)", "1"}});
    table.SetDatabaseName(QString::fromStdString(dir.path()));
    table.SetTableName("provin.dbf");
    table.AddIndexDef("CODIGO", {"CODIGO"});
    table.AddIndexDef("ALFABETICO", {"PROVINCIA"});
  }
  QStringList names() {
    QStringList out;
    for (table.First(); !table.Eof(); table.Next()) out << table.FieldByName("PROVINCIA")->AsString();
    return out;
  }
  TempDir dir;
  TTable table;
};

}  // namespace

TEST_F(TTableTest, OpensThroughARegisteredAlias) {
  dbase::registerAlias("PRUEBAS", dir.path());
  TTable t;
  t.SetDatabaseName("PRUEBAS");
  t.SetTableName("PROVIN");
  t.Open();
  EXPECT_TRUE(t.Active());
  EXPECT_EQ(t.RecordCount(), 5);
  dbase::unregisterAlias("PRUEBAS");
}

TEST_F(TTableTest, IndexNameChoosesTheDeclaredTag) {
  table.SetIndexName("ALFABETICO");
  table.Open();
  EXPECT_EQ(names(), (QStringList{"BARCELONA", "CORUÑA (A)", "ESPAÑA", "FRANCIA", "MADRID"}));
  table.SetIndexName("CODIGO");
  EXPECT_EQ(names(), (QStringList{"BARCELONA", "CORUÑA (A)", "MADRID", "FRANCIA", "ESPAÑA"}));
  EXPECT_THROW(table.SetIndexName("NOEXISTE"), dbase::Error);
}

TEST_F(TTableTest, FieldsReadAsTextIntegerAndFlag) {
  table.SetIndexName("CODIGO");
  table.Open();
  ASSERT_TRUE(table.FindKey({8}));
  EXPECT_EQ(table.FieldByName("PROVINCIA")->AsString(), "BARCELONA");
  EXPECT_EQ(table.FieldByName("CODIGO")->AsInteger(), 8);
  EXPECT_EQ(table.FieldByName("codigo")->AsString(), "8");
  EXPECT_THROW(table.FieldByName("NADA"), dbase::Error);
}

TEST_F(TTableTest, FilterAndFilteredSwitch) {
  table.SetIndexName("ALFABETICO");
  table.SetFilter("GRUPO=2");
  table.Open();
  EXPECT_EQ(table.RecordCount(), 5);
  table.SetFiltered(true);
  EXPECT_EQ(names(), (QStringList{"ESPAÑA", "FRANCIA"}));
  table.SetFilter("GRUPO=1");
  EXPECT_EQ(table.RecordCount(), 3);
  EXPECT_THROW(table.SetFilter("GRUPO=1 OR GRUPO=2"), dbase::Error);
  EXPECT_EQ(table.Filter(), "GRUPO=1");
  EXPECT_EQ(table.RecordCount(), 3);
  table.SetFiltered(false);
  EXPECT_EQ(table.RecordCount(), 5);
}

TEST_F(TTableTest, AppendPostAddsARowInOrder) {
  table.SetIndexName("ALFABETICO");
  table.Open();
  table.Append();
  EXPECT_EQ(table.State(), dsInsert);
  table.FieldByName("CODIGO")->SetAsInteger(3);
  table.FieldByName("PROVINCIA")->SetAsString("ALICANTE/ALACANT");
  table.FieldByName("GRUPO")->SetAsInteger(1);
  table.Post();
  EXPECT_EQ(table.State(), dsBrowse);
  EXPECT_EQ(table.FieldByName("PROVINCIA")->AsString(), "ALICANTE/ALACANT");
  EXPECT_EQ(names().first(), "ALICANTE/ALACANT");
  TTable other;
  other.SetDatabaseName(QString::fromStdString(dir.path()));
  other.SetTableName("PROVIN.DBF");
  other.Open();
  EXPECT_EQ(other.RecordCount(), 6);
}

TEST_F(TTableTest, EditPostChangesTheRowAndCancelDropsTheChange) {
  table.SetIndexName("CODIGO");
  table.Open();
  ASSERT_TRUE(table.FindKey({28}));
  table.Edit();
  table.FieldByName("PROVINCIA")->SetAsString("MADRID (COMUNIDAD)");
  table.Cancel();
  EXPECT_EQ(table.FieldByName("PROVINCIA")->AsString(), "MADRID");
  table.Edit();
  table.FieldByName("PROVINCIA")->SetAsString("MADRID (COMUNIDAD)");
  table.Post();
  ASSERT_TRUE(table.FindKey({28}));
  EXPECT_EQ(table.FieldByName("PROVINCIA")->AsString(), "MADRID (COMUNIDAD)");
}

TEST_F(TTableTest, WritingOutsideEditIsAnError) {
  table.Open();
  EXPECT_THROW(table.FieldByName("PROVINCIA")->SetAsString("X"), dbase::Error);
}

TEST_F(TTableTest, MovingWhileEditingPostsFirst) {
  table.SetIndexName("CODIGO");
  table.Open();
  table.First();
  table.Edit();
  table.FieldByName("PROVINCIA")->SetAsString("BARNA");
  table.Next();
  EXPECT_EQ(table.State(), dsBrowse);
  ASSERT_TRUE(table.FindKey({8}));
  EXPECT_EQ(table.FieldByName("PROVINCIA")->AsString(), "BARNA");
}

TEST_F(TTableTest, PostOfAnUnwritableCharacterFailsAndKeepsTheEdit) {
  table.Open();
  table.Append();
  EXPECT_THROW(table.FieldByName("PROVINCIA")->SetAsString("5 €"), dbase::Error);
  EXPECT_EQ(table.State(), dsInsert);
  table.Cancel();
  EXPECT_EQ(table.RecordCount(), 5);
}

TEST_F(TTableTest, BookmarksReturnToTheirRow) {
  table.SetIndexName("ALFABETICO");
  table.Open();
  ASSERT_TRUE(table.FindKey({"FRANCIA"}));
  TBookmark mark = table.GetBookmark();
  table.First();
  table.GotoBookmark(mark);
  EXPECT_EQ(table.FieldByName("PROVINCIA")->AsString(), "FRANCIA");
  table.SetFilter("GRUPO=1");
  table.SetFiltered(true);
  EXPECT_FALSE(table.BookmarkValid(mark));
  EXPECT_THROW(table.GotoBookmark(mark), dbase::Error);
}

TEST_F(TTableTest, CalculatedFieldsAreComputedForEveryRowMaterialised) {
  TField* upper = table.AddCalcField("ccTIPO", 20);
  int calls = 0;
  table.OnCalcFields = [&](TTable* t) {
    ++calls;
    EXPECT_EQ(t->State(), dsCalcFields);
    upper->SetAsString(t->FieldByName("GRUPO")->AsInteger() == 1 ? "PROVINCIA" : "PAIS");
  };
  table.SetIndexName("CODIGO");
  table.Open();
  EXPECT_EQ(upper->AsString(), "PROVINCIA");  // BARCELONA, the first row
  table.Last();
  EXPECT_EQ(upper->AsString(), "PAIS");
  const int before = calls;
  QStringList row = table.RowValues(0, {table.FieldByName("PROVINCIA"), upper});
  EXPECT_EQ(row, (QStringList{"BARCELONA", "PROVINCIA"}));
  EXPECT_GT(calls, before);
  EXPECT_EQ(upper->AsString(), "PAIS");  // the current row is left as it was
  EXPECT_EQ(table.FieldByName("PROVINCIA")->AsString(), "ESPAÑA");
  EXPECT_THROW(upper->SetAsString("X"), dbase::Error);  // only while calculating
}

TEST_F(TTableTest, DisabledControlsSilenceSignalsUntilEnabled) {
  table.SetIndexName("CODIGO");
  table.Open();
  QSignalSpy changed(&table, &TTable::dataSetChanged);
  QSignalSpy moved(&table, &TTable::currentChanged);
  table.DisableControls();
  table.DisableControls();
  table.Next();
  table.SetFilter("GRUPO=1");
  table.SetFiltered(true);
  table.EnableControls();
  EXPECT_TRUE(table.ControlsDisabled());
  EXPECT_EQ(changed.count(), 0);
  EXPECT_EQ(moved.count(), 0);
  table.EnableControls();
  EXPECT_FALSE(table.ControlsDisabled());
  EXPECT_EQ(changed.count(), 1);
  table.Next();
  EXPECT_EQ(moved.count(), 1);
}

TEST_F(TTableTest, OpeningAMissingTableNamesTheFile) {
  TTable t;
  t.SetDatabaseName(QString::fromStdString(dir.path()));
  t.SetTableName("POSTAL.DBF");
  try {
    t.Open();
    FAIL();
  } catch (const dbase::Error& e) {
    EXPECT_NE(std::string(e.what()).find("POSTAL.DBF"), std::string::npos);
  }
  EXPECT_FALSE(t.Active());
}

TEST_F(TTableTest, ClosingAClosedTableIsHarmless) {
  table.Close();
  table.Open();
  table.Close();
  table.Close();
  EXPECT_FALSE(table.Active());
  EXPECT_EQ(table.State(), dsInactive);
}

TEST_F(TTableTest, TagFieldUnknownToTheFileIsAnErrorOnOpen) {
  table.AddIndexDef("MAL", {"NOEXISTE"});
  table.SetIndexName("MAL");
  EXPECT_THROW(table.Open(), dbase::Error);
  EXPECT_FALSE(table.Active());
}
