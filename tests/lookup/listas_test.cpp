// The country, province and street-type lists: loading, choosing by code or
// name, reading the chosen code, and leaving the country and province combos.
#include <gtest/gtest.h>

#include <QApplication>
#include <QTest>

#include "../services/qstring_print.h"
#include "formulario.h"
#include "services/Ruttb.h"

using namespace testsupport;

namespace {

class ListasTest : public ::testing::Test {
 protected:
  void SetUp() override {
    escribeJuegoDeReferencia(dir.path());
    c = f.creaControlador(QString::fromStdString(dir.path()));
  }
  static QStringList textos(const QComboBox* combo) {
    QStringList out;
    for (int i = 0; i < combo->count(); ++i) out << combo->itemText(i);
    return out;
  }
  TempDir dir;
  Formulario f;
  std::unique_ptr<TClaseCodPostales> c;
};

}  // namespace

TEST_F(ListasTest, ProvinceListStartsEmptyAndFollowsTheAlphabet) {
  EXPECT_EQ(textos(f.provincia), (QStringList{"", "BARCELONA [8]", "CORUÑA (A) [15]", "EXTRANJERO [99]",
                                              "MADRID [28]", "TOLEDO [45]"}));
  EXPECT_FALSE(f.provincia->itemData(0).isValid());
}

TEST_F(ListasTest, OneCharacterProvinceCodeShowsOneCharacterAndKeepsTwoDigits) {
  EXPECT_EQ(f.provincia->itemText(1), "BARCELONA [8]");
  EXPECT_EQ(f.provincia->itemData(1).toString(), "08");
  f.provincia->setCurrentIndex(0);
  EXPECT_EQ(c->BuscaEnProvinciaPorCodigo("8"), 1);
  EXPECT_EQ(f.provincia->currentIndex(), 1);
  f.provincia->setCurrentIndex(0);
  EXPECT_EQ(c->BuscaEnProvinciaPorCodigo("08"), 1);
  EXPECT_EQ(f.provincia->currentIndex(), 1);
}

TEST_F(ListasTest, CountryListShowsTheLastThreeDigitsAndKeepsTheCodeAsStored) {
  EXPECT_EQ(textos(f.pais), (QStringList{"", "AFGANISTAN [4]", "ESPAÑA [900]", "FRANCIA [250]", "PORTUGAL [620]"}));
  EXPECT_EQ(f.pais->itemData(1).toString(), "4");
  EXPECT_EQ(c->BuscaEnPaisPorCodigo("004"), 1);
  EXPECT_EQ(c->BuscaEnPaisPorCodigo("900"), 2);
  EXPECT_EQ(c->BuscaEnPaisPorCodigo("1"), -1);
  EXPECT_EQ(c->BuscaEnPaisPorCodigo(""), -1);
  EXPECT_EQ(f.pais->currentIndex(), 2);  // a miss leaves the choice
}

TEST_F(ListasTest, DevuelveCodPaisOfSpainIsItsLastTwoDigits) {
  c->BuscaEnPaisPorCodigo("900");
  EXPECT_EQ(c->DevuelveCodPais(f.pais), "00");
}

TEST_F(ListasTest, DevuelveCodPaisWithoutAComboReadsTheProvinceCombo) {
  c->BuscaEnPaisPorCodigo("250");
  c->BuscaEnProvinciaPorCodigo("28");
  EXPECT_EQ(c->DevuelveCodPais(), "28");
  EXPECT_EQ(c->DevuelveCodProv(), "28");
  f.provincia->setCurrentIndex(0);
  EXPECT_EQ(c->DevuelveCodProv(), "");
}

TEST_F(ListasTest, ChoosingSpainEnablesTheProvinceCombo) {
  f.provincia->setEnabled(false);
  c->BuscaEnPaisPorCodigo("900");
  c->BuscaEnProvinciaPorCodigo("28");
  EXPECT_TRUE(f.provincia->isEnabled());
}

TEST_F(ListasTest, ChoosingAnotherCountryDisablesTheProvinceCombo) {
  c->BuscaEnPaisPorCodigo("250");
  EXPECT_EQ(c->BuscaEnProvinciaPorCodigo("28"), 4);  // found, and still disabled
  EXPECT_FALSE(f.provincia->isEnabled());
}

TEST_F(ListasTest, EmptyCountryItemLeavesTheProvinceComboAsItWas) {
  f.pais->setCurrentIndex(0);
  f.provincia->setEnabled(false);
  c->BuscaEnProvinciaPorCodigo("28");
  EXPECT_FALSE(f.provincia->isEnabled());
  f.provincia->setEnabled(true);
  c->BuscaEnProvinciaPorCodigo("28");
  EXPECT_TRUE(f.provincia->isEnabled());
}

TEST_F(ListasTest, ProvinceByNameMatchesTheWholeTextOrTheNameBeforeItsCode) {
  EXPECT_EQ(c->BuscaEnProvinciaPorNombre("MADRID"), 4);
  EXPECT_EQ(c->BuscaEnProvinciaPorNombre("CORUÑA (A) [15]"), 2);
  EXPECT_EQ(c->BuscaEnProvinciaPorNombre("MADRI"), -1);
  EXPECT_EQ(f.provincia->currentIndex(), 2);
  EXPECT_EQ(c->BuscaEnProvinciaPorNombre(""), 0);  // the empty item matches an empty name
}

TEST_F(ListasTest, CountryByNameComparesTheTextBeforeTheBracket) {
  EXPECT_EQ(c->BuscaEnPaisPorNombre("FRANCIA"), 3);
  EXPECT_EQ(f.pais->currentIndex(), 3);
  EXPECT_EQ(c->BuscaEnPaisPorNombre(""), -1);
}

TEST_F(ListasTest, CountryByNameThatMatchesNothingEndsInTheListsIndexError) {
  f.pais->setCurrentIndex(2);
  try {
    c->BuscaEnPaisPorNombre("francia");  // case matters
    FAIL() << "the walk ended inside the list";
  } catch (const EListError& e) {
    EXPECT_EQ(e.Indice, 5);
    EXPECT_STREQ(e.what(), "Índice de lista fuera de límites (5)");
  }
  EXPECT_EQ(f.pais->currentIndex(), 2);
}

TEST_F(ListasTest, StreetTypeListHasNoEmptyItemAndFollowsTheNames) {
  EXPECT_EQ(textos(f.tipoVia), (QStringList{"AV - AVENIDA", "CL - CALLE", "CJ - CALLEJON", "C - CAMINO",
                                            "PS - PASEO", "PZ - PLAZA"}));
}

TEST_F(ListasTest, StreetTypeCodeIsAPrefixMatch) {
  EXPECT_EQ(c->BuscaEnTipoViaPorCodigo("PZ"), 5);
  // "C" is CAMINO's code, but "CL - CALLE" comes first by name and starts with it.
  EXPECT_EQ(c->BuscaEnTipoViaPorCodigo("C"), 1);
  EXPECT_EQ(c->BuscaEnTipoViaPorCodigo(""), -1);
  EXPECT_EQ(c->BuscaEnTipoViaPorCodigo("XX"), -1);
  EXPECT_EQ(f.tipoVia->currentIndex(), 1);
}

TEST_F(ListasTest, StreetTypeSearchWithoutAnyComboGivesZero) {
  TClaseCodPostales sinControles(nullptr, QString::fromStdString(dir.path()), false, "");
  EXPECT_EQ(sinControles.BuscaEnTipoViaPorCodigo("CL"), 0);
}

TEST_F(ListasTest, ListsLoadIntoAComboGivenByTheCaller) {
  QComboBox otra;
  c->CargaProvincias(&otra);
  EXPECT_EQ(otra.count(), 6);
  EXPECT_EQ(c->BuscaEnProvinciaPorCodigo("15", &otra, nullptr), 2);
  c->DescargaProvincias(&otra);
  EXPECT_EQ(otra.count(), 0);
  EXPECT_EQ(f.provincia->count(), 6);
  c->DescargaPaises();
  EXPECT_EQ(f.pais->count(), 0);
}

TEST_F(ListasTest, TablePositioningByCodeAndByName) {
  EXPECT_TRUE(c->BuscaProvinciaPorCodigo("8", true));
  EXPECT_EQ(c->oDataModule->TProvinPROVINCIA->AsString(), "BARCELONA");
  EXPECT_TRUE(c->BuscaProvinciaPorCodigo("08", true));
  EXPECT_FALSE(c->BuscaProvinciaPorCodigo("900", true));  // countries are filtered out
  EXPECT_TRUE(c->BuscaProvinciaPorNombre("MAD", false));
  EXPECT_EQ(c->oDataModule->TProvinPROVINCIA->AsString(), "MADRID");
  EXPECT_EQ(c->oDataModule->TProvin->IndexName(), "ALFABETICO");
  EXPECT_TRUE(c->BuscaPaisPorNombre("FRANCIA", true));
  EXPECT_EQ(c->oDataModule->TPaisesCODIGO->AsInteger(), 250);
  EXPECT_TRUE(c->BuscaPaisPorCodigo("620", true));
  EXPECT_EQ(c->oDataModule->TPaisesPROVINCIA->AsString(), "PORTUGAL");
  EXPECT_FALSE(c->BuscaPaisPorCodigo("28", true));
}

TEST_F(ListasTest, LeavingTheCountryComboWithSpainGoesToTheProvinceCombo) {
  Formulario::enfoca(f.pais);
  f.pais->setCurrentIndex(2);
  QTest::keyClick(f.pais, Qt::Key_Tab);
  QApplication::processEvents();
  EXPECT_EQ(QApplication::focusWidget(), f.provincia);
  EXPECT_TRUE(f.provincia->isEnabled());
}

TEST_F(ListasTest, LeavingTheCountryComboAbroadGoesToTheLocalityEdit) {
  Formulario::enfoca(f.pais);
  f.pais->setCurrentIndex(3);  // FRANCIA
  QTest::keyClick(f.pais, Qt::Key_Tab);
  QApplication::processEvents();
  EXPECT_FALSE(f.provincia->isEnabled());
  EXPECT_EQ(f.provincia->currentText(), "EXTRANJERO [99]");
  EXPECT_EQ(f.rejillaLocalidad->model(), nullptr);
  EXPECT_EQ(QApplication::focusWidget(), f.localidad);
}

TEST_F(ListasTest, LeavingTheCountryComboWithShiftHeldKeepsTheFocusWhereTheUserSendsIt) {
  Formulario::enfoca(f.pais);
  f.pais->setCurrentIndex(2);
  QWindow* ventana = f.ventana.windowHandle();
  QTest::keyPress(ventana, Qt::Key_Shift, Qt::ShiftModifier);
  QTest::keyClick(ventana, Qt::Key_Backtab, Qt::ShiftModifier);
  QApplication::processEvents();
  QTest::keyRelease(ventana, Qt::Key_Shift, Qt::NoModifier);
  EXPECT_NE(QApplication::focusWidget(), f.provincia);
  EXPECT_NE(QApplication::focusWidget(), f.pais);
}

TEST_F(ListasTest, LeavingTheProvinceComboFiltersTheLocalitiesBehindADetachedGrid) {
  Formulario::enfoca(f.provincia);
  f.provincia->setCurrentIndex(1);  // BARCELONA
  const int ancho = f.rejillaLocalidad->columnWidth(0);
  Formulario::enfoca(f.codPostal);
  EXPECT_EQ(c->oDataModule->TMunicipi->Filter(), "COD_PROV=08");
  EXPECT_EQ(f.rejillaLocalidad->model(), c->oDataModule->DSMunicipi);
  EXPECT_EQ(f.rejillaLocalidad->model()->rowCount(), 2);
  EXPECT_EQ(f.rejillaLocalidad->columnWidth(0), ancho);
}

TEST_F(ListasTest, LeavingTheProvinceComboOnTheEmptyItemKeepsTheFilter) {
  c->FiltraLocalidades("28");
  Formulario::enfoca(f.provincia);
  f.provincia->setCurrentIndex(0);
  Formulario::enfoca(f.codPostal);
  EXPECT_EQ(c->oDataModule->TMunicipi->Filter(), "COD_PROV=28");
}
