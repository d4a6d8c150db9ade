// TDataSource: what a grid shows follows the table.
#include <gtest/gtest.h>

#include <QAbstractItemModelTester>
#include <QSignalSpy>
#include <QTableView>

#include "dbase/TDataSource.h"
#include "dbase/TTable.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/mdx_tag.h"
#include "dbase/core/mdx_tags.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace testsupport;

namespace {

class TDataSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeTable(dir.path(), "MUNICIPI.DBF", {charField("NOMBRE", 30), charField("COD_PROV", 2)},
              {{"MADRID", "28"}, {"GETAFE", "28"}, {"BARCELONA", "08"}, {"BADALONA", "08"}});
    table.SetDatabaseName(QString::fromStdString(dir.path()));
    table.SetTableName("MUNICIPI.DBF");
    table.AddIndexDef("NOMBRE", {"NOMBRE"});
    table.SetIndexName("NOMBRE");
    calc = table.AddCalcField("ccPROVINCIA", 30);
    table.OnCalcFields = [this](TTable* t) {
      calc->SetAsString(t->FieldByName("COD_PROV")->AsString() == "28" ? "MADRID" : "BARCELONA");
    };
    source.SetDataSet(&table);
    source.SetColumns({"NOMBRE", "ccPROVINCIA"}, {"Localidad", "Provincia"});
  }
  QString cell(int row, int column) { return source.data(source.index(row, column)).toString(); }
  TempDir dir;
  TTable table;
  TField* calc = nullptr;
  TDataSource source;
};

}  // namespace

TEST_F(TDataSourceTest, ShowsTheChosenColumnsCalculatedOnesIncluded) {
  QAbstractItemModelTester tester(&source, QAbstractItemModelTester::FailureReportingMode::Fatal);
  table.Open();
  ASSERT_EQ(source.rowCount(), 4);
  EXPECT_EQ(source.columnCount(), 2);
  EXPECT_EQ(source.headerData(0, Qt::Horizontal).toString(), "Localidad");
  EXPECT_EQ(cell(0, 0), "BADALONA");
  EXPECT_EQ(cell(0, 1), "BARCELONA");
  EXPECT_EQ(cell(3, 0), "MADRID");
  EXPECT_EQ(cell(3, 1), "MADRID");
}

TEST_F(TDataSourceTest, RefreshesOnFilterAndFollowsTheCursor) {
  QAbstractItemModelTester tester(&source, QAbstractItemModelTester::FailureReportingMode::Fatal);
  table.Open();
  QSignalSpy current(&source, &TDataSource::currentRowChanged);
  table.SetFilter("COD_PROV=28");
  table.SetFiltered(true);
  EXPECT_EQ(source.rowCount(), 2);
  EXPECT_EQ(cell(0, 0), "GETAFE");
  table.Last();
  EXPECT_EQ(source.CurrentRow(), 1);
  EXPECT_GE(current.count(), 1);
}

TEST_F(TDataSourceTest, StaysSilentWhileControlsAreDisabled) {
  table.Open();
  ASSERT_EQ(source.rowCount(), 4);  // a grid asks after every reset
  QSignalSpy reset(&source, &QAbstractItemModel::modelReset);
  table.DisableControls();
  table.SetFilter("COD_PROV=08");
  table.SetFiltered(true);
  EXPECT_EQ(reset.count(), 0);
  EXPECT_EQ(source.rowCount(), 4);  // what the grid showed
  table.EnableControls();
  EXPECT_EQ(reset.count(), 1);
  EXPECT_EQ(source.rowCount(), 2);
}

TEST_F(TDataSourceTest, AGridShowsTheRows) {
  table.Open();
  QTableView view;
  view.setModel(&source);
  view.resize(400, 200);
  view.show();
  EXPECT_EQ(view.model()->rowCount(), 4);
  EXPECT_EQ(view.model()->data(view.model()->index(1, 0)).toString(), "BARCELONA");
  table.Append();
  table.FieldByName("NOMBRE")->SetAsString("ALCALA DE HENARES");
  table.FieldByName("COD_PROV")->SetAsString("28");
  table.Post();
  EXPECT_EQ(view.model()->rowCount(), 5);
  EXPECT_EQ(view.model()->data(view.model()->index(0, 0)).toString(), "ALCALA DE HENARES");
}

TEST_F(TDataSourceTest, ATableNoViewShowsMovesWithoutItsIndexTagRanked) {
  auto file = dbase::DbfFile::open(dir.file("MUNICIPI.DBF"));
  dbase::rebuildProductionIndex(*file, {{"NOMBRE", "NOMBRE", "", false, false}});
  table.Open();
  dbase::MdxTag* tag = dbase::MdxTags::of(*file).tag("NOMBRE");
  ASSERT_NE(tag, nullptr);
  table.First();
  table.Next();
  ASSERT_TRUE(table.FindKey({"GETAFE"}));
  EXPECT_EQ(tag->memoryBytes(), 0u);  // nothing asked where the row stands among the others
  // A view that follows the cursor gets its row.
  QSignalSpy current(&source, &TDataSource::currentRowChanged);
  table.Last();
  ASSERT_EQ(current.count(), 1);
  EXPECT_EQ(current.back().front().toInt(), 3);
  EXPECT_EQ(source.CurrentRow(), 3);
}
