// Narrowing the tables to what the user has chosen: country, province,
// municipality, and the choice of the street file.
#include <gtest/gtest.h>

#include <QDir>
#include <QSignalSpy>
#include <filesystem>

#include "../services/qstring_print.h"
#include "dbase/core/error.h"
#include "formulario.h"
#include "services/Ruttb.h"

using namespace testsupport;

namespace {

class FiltrosTest : public ::testing::Test {
 protected:
  void SetUp() override { escribeJuegoDeReferencia(dir.path()); }
  QString alias() const { return QString::fromStdString(dir.path()); }
  TempDir dir;
};

}  // namespace

TEST_F(FiltrosTest, FiltraLocalidadesPadsTheProvinceCodeUnquoted) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  c.FiltraLocalidades("8");
  TTable* m = c.oDataModule->TMunicipi;
  EXPECT_TRUE(m->Filtered());
  EXPECT_EQ(m->Filter(), "COD_PROV=08");
  EXPECT_EQ(nombres(m, "NOMBRE"), (QStringList{"BARCELONA", "SANT ANDREU DE LA BARCA"}));
}

TEST_F(FiltrosTest, FiltraLocalidadesWithAnEmptyCodeRemovesTheFilter) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  c.FiltraLocalidades("28");
  c.FiltraLocalidades("");
  EXPECT_FALSE(c.oDataModule->TMunicipi->Filtered());
  EXPECT_EQ(c.oDataModule->TMunicipi->RecordCount(), 11);
}

TEST_F(FiltrosTest, FiltraLocalidadesTwiceWithTheSameCodeFiltersOnce) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  QSignalSpy cambios(c.oDataModule->TMunicipi, &TTable::dataSetChanged);
  c.FiltraLocalidades("28");
  const int trasLaPrimera = cambios.count();
  EXPECT_GT(trasLaPrimera, 0);
  c.FiltraLocalidades("28");
  EXPECT_EQ(cambios.count(), trasLaPrimera);
}

TEST_F(FiltrosTest, FiltraProvinciasAbroadChoosesProvince99DisablesTheComboAndUnbindsTheGrid) {
  Formulario f;
  auto c = f.creaControlador(alias());
  ASSERT_EQ(f.rejillaLocalidad->model(), c->oDataModule->DSMunicipi);
  c->FiltraProvincias("250");
  EXPECT_FALSE(f.provincia->isEnabled());
  EXPECT_EQ(f.provincia->currentText(), "EXTRANJERO [99]");
  EXPECT_EQ(f.rejillaLocalidad->model(), nullptr);
  EXPECT_FALSE(c->oDataModule->TMunicipi->Filtered());  // no table filter is touched
}

TEST_F(FiltrosTest, FiltraProvinciasWithSpainEnablesTheComboAndBindsTheGrid) {
  Formulario f;
  auto c = f.creaControlador(alias());
  c->FiltraProvincias("250");
  c->FiltraProvincias("900");
  EXPECT_TRUE(f.provincia->isEnabled());
  EXPECT_EQ(f.rejillaLocalidad->model(), c->oDataModule->DSMunicipi);
}

TEST_F(FiltrosTest, FiltraProvinciasWithAnEmptyCodeChangesNothing) {
  Formulario f;
  auto c = f.creaControlador(alias());
  c->FiltraProvincias("250");
  c->FiltraProvincias("");
  EXPECT_FALSE(f.provincia->isEnabled());
  EXPECT_EQ(f.rejillaLocalidad->model(), nullptr);
  c->FiltraProvincias("900");
  f.provincia->setCurrentIndex(2);
  c->FiltraProvincias("");
  EXPECT_TRUE(f.provincia->isEnabled());
  EXPECT_EQ(f.provincia->currentIndex(), 2);
  EXPECT_EQ(f.rejillaLocalidad->model(), c->oDataModule->DSMunicipi);
}

TEST_F(FiltrosTest, ActualizaTablaPostalOpensTheProvinceFileAndKeepsItForTheSameProvince) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  TTable* postal = c.oDataModule->TPostal;
  c.ActualizaTablaPostal("28079");
  EXPECT_EQ(postal->TableName(), "POSTAL28.DBF");
  EXPECT_EQ(postal->Tag, 28);
  QSignalSpy cambios(postal, &TTable::dataSetChanged);
  c.ActualizaTablaPostal("28065");
  EXPECT_EQ(cambios.count(), 0);
  EXPECT_EQ(postal->TableName(), "POSTAL28.DBF");
  c.ActualizaTablaPostal("08019");
  EXPECT_EQ(postal->TableName(), "POSTAL08.DBF");
  EXPECT_EQ(postal->Tag, 8);
  EXPECT_EQ(nombres(postal, "VIA"), (QStringList{"ARAGO", "DIAGONAL"}));
}

TEST_F(FiltrosTest, ActualizaTablaPostalDropsTheFilterOfTheFileItLeaves) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  TTable* postal = c.oDataModule->TPostal;
  c.ActualizaTablaPostal("28079");
  TBFiltra(postal, "COD_INE=28065");
  c.ActualizaTablaPostal("08019");
  EXPECT_FALSE(postal->Filtered());
  EXPECT_EQ(postal->Filter(), "");
}

TEST_F(FiltrosTest, ActualizaTablaPostalOpensAgainTheClosedFileOfTheSameProvince) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  TTable* postal = c.oDataModule->TPostal;
  c.ActualizaTablaPostal("28079");
  TBFiltra(postal, "COD_INE=28065");
  postal->Close();
  c.ActualizaTablaPostal("28065");
  ASSERT_TRUE(postal->Active());
  EXPECT_EQ(postal->TableName(), "POSTAL28.DBF");
  EXPECT_EQ(QDir(postal->DatabaseName()).dirName().toUpper(), "POSTALES");
  EXPECT_EQ(postal->Tag, 28);
  EXPECT_FALSE(postal->Filtered());
  EXPECT_EQ(postal->Filter(), "");
  EXPECT_EQ(nombres(postal, "VIA"), (QStringList{"ALCALA", "CASTELLANA", "MADRID", "MAYOR", "TOLEDO"}));
}

TEST_F(FiltrosTest, ActualizaTablaPostalFindsThePostalesFolderWhateverItsCase) {
  std::filesystem::rename(dir.file("Postales"), dir.file("POSTALES"));
  TClaseCodPostales c(nullptr, alias(), false, "");
  c.ActualizaTablaPostal("28079");
  EXPECT_EQ(c.oDataModule->TPostal->TableName(), "POSTAL28.DBF");
}

TEST_F(FiltrosTest, ActualizaTablaPostalWithACodeOfValueZeroNeverUsesTheFolder) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  for (const char* codigo : {"00000", "AB079", "0"}) {
    c.oDataModule->TPostal->Close();
    c.ActualizaTablaPostal(codigo);
    EXPECT_EQ(c.oDataModule->TPostal->TableName(), "POSTAL.DBF") << codigo;
    EXPECT_EQ(c.oDataModule->TPostal->Tag, 0) << codigo;
    EXPECT_TRUE(c.oDataModule->TPostal->Active()) << codigo;
  }
}

TEST_F(FiltrosTest, ActualizaTablaPostalWithoutThePostalesFolderKeepsTheSingleFile) {
  std::filesystem::remove_all(dir.file("Postales"));
  TClaseCodPostales c(nullptr, alias(), false, "");
  c.ActualizaTablaPostal("28079");
  EXPECT_EQ(c.oDataModule->TPostal->TableName(), "POSTAL.DBF");
  EXPECT_EQ(c.oDataModule->TPostal->Tag, 0);
}

TEST_F(FiltrosTest, ActualizaTablaPostalOnAMissingProvinceFileIsTheEnginesError) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  try {
    c.ActualizaTablaPostal("45168");
    FAIL() << "opened a missing POSTAL45.DBF";
  } catch (const dbase::Error& e) {
    EXPECT_NE(std::string(e.what()).find("POSTAL45.DBF"), std::string::npos) << e.what();
  }
}

TEST_F(FiltrosTest, OneArgumentFiltraViasPadsTheCodeAndSearchesBeforeFiltering) {
  std::filesystem::remove_all(dir.file("Postales"));  // the single street file
  TClaseCodPostales c(nullptr, alias(), false, "");
  EXPECT_TRUE(c.FiltraVias("8019"));
  EXPECT_EQ(c.sFiltroVias, "COD_INE=08019");
  TTable* postal = c.oDataModule->TPostal;
  EXPECT_EQ(postal->Filter(), "COD_INE=08019");
  EXPECT_EQ(postal->IndexName(), "VIA");  // the index in force comes back
  EXPECT_EQ(nombres(postal, "VIA"), (QStringList{"DIAGONAL"}));
}

TEST_F(FiltrosTest, UnpaddedCodeLooksForTheFileOfItsFirstTwoDigits) {
  // The street file is chosen before the code is padded: 8019 asks for
  // POSTAL80.DBF, which the engine cannot open.
  TClaseCodPostales c(nullptr, alias(), false, "");
  try {
    c.FiltraVias("8019");
    FAIL() << "opened POSTAL80.DBF";
  } catch (const dbase::Error& e) {
    EXPECT_NE(std::string(e.what()).find("POSTAL80.DBF"), std::string::npos) << e.what();
  }
}

TEST_F(FiltrosTest, OneArgumentFiltraViasOnTheProvinceFile) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  EXPECT_TRUE(c.FiltraVias("08019"));
  EXPECT_EQ(c.oDataModule->TPostal->TableName(), "POSTAL08.DBF");
  EXPECT_EQ(nombres(c.oDataModule->TPostal, "VIA"), (QStringList{"ARAGO", "DIAGONAL"}));
}

TEST_F(FiltrosTest, OneArgumentFiltraViasMissLeavesTheFilterAsItWas) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  ASSERT_TRUE(c.FiltraVias("28065"));
  EXPECT_FALSE(c.FiltraVias("28140"));  // SOBRADO has no streets
  EXPECT_EQ(c.sFiltroVias, "");
  EXPECT_EQ(c.oDataModule->TPostal->Filter(), "COD_INE=28065");
  EXPECT_TRUE(c.oDataModule->TPostal->Filtered());
}

TEST_F(FiltrosTest, TwoArgumentFiltraViasKeepsTheCodeUnpadded) {
  std::filesystem::remove_all(dir.file("Postales"));
  TClaseCodPostales c(nullptr, alias(), false, "");
  EXPECT_TRUE(c.FiltraVias("8019", "BARCELONA"));
  EXPECT_EQ(c.sFiltroVias, "COD_INE=8019 AND MUNICIPI='BARCELONA'");
  EXPECT_EQ(c.oDataModule->TPostal->Filter(), "COD_INE=8019 AND MUNICIPI='BARCELONA'");
  EXPECT_EQ(c.oDataModule->TPostal->IndexName(), "VIA");
  EXPECT_EQ(nombres(c.oDataModule->TPostal, "VIA"), (QStringList{"DIAGONAL"}));
}

TEST_F(FiltrosTest, TwoArgumentFiltraViasWithNoStreetsShowsThemAll) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  EXPECT_FALSE(c.FiltraVias("28079", "GETAFE"));
  EXPECT_EQ(c.sFiltroVias, "");
  EXPECT_FALSE(c.oDataModule->TPostal->Filtered());
  EXPECT_EQ(c.oDataModule->TPostal->RecordCount(), 5);
}

TEST_F(FiltrosTest, FiltraViasWithAnEmptyCodeDoesNothing) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  EXPECT_TRUE(c.FiltraVias(""));
  EXPECT_TRUE(c.FiltraVias("", "MADRID"));
  EXPECT_FALSE(c.oDataModule->TPostal->Active());
}

TEST_F(FiltrosTest, NameWithAnApostropheGivesAnUnbalancedFilterError) {
  Formulario f;
  auto c = f.creaControlador(alias());
  c->FiltraVias("28079");
  try {
    c->FiltraVias("08019", "L'HOSPITALET");
    FAIL() << "the filter was accepted";
  } catch (const dbase::Error& e) {
    EXPECT_NE(std::string(e.what()).find("COD_INE=08019 AND MUNICIPI='L'HOSPITALET'"), std::string::npos) << e.what();
  }
  // The grid is not left frozen, nor the street table on another index.
  EXPECT_FALSE(c->oDataModule->TPostal->ControlsDisabled());
  EXPECT_EQ(c->oDataModule->TPostal->IndexName(), "VIA");
}

TEST_F(FiltrosTest, StreetGridStaysFrozenWhileTheStreetTableIsFiltered) {
  Formulario f;
  auto c = f.creaControlador(alias());
  c->FiltraVias("28079");
  ASSERT_EQ(f.rejillaDomicilio->model(), c->oDataModule->DSPostal);
  QSignalSpy reinicios(c->oDataModule->DSPostal, &QAbstractItemModel::modelReset);
  c->FiltraVias("28065", "GETAFE");
  // Index, filter and index again: one repaint, when the grid thaws.
  EXPECT_EQ(reinicios.count(), 1);
  EXPECT_EQ(c->oDataModule->DSPostal->rowCount(), 2);
}
