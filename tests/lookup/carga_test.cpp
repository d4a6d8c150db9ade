// Writing a known address into the bound controls: CargaEnComponentes and
// the defaults of the bound constructor.
#include <gtest/gtest.h>

#include <QApplication>
#include <QTest>

#include "formulario.h"
#include "platform/ControlesHost.h"
#include "services/Ruttb.h"
#include "services/Rvarias.h"
#include "../services/qstring_print.h"

using namespace testsupport;

namespace {

class CargaTest : public ::testing::Test {
 protected:
  void SetUp() override { escribeJuegoDeReferencia(dir.path()); }
  QString alias() const { return QString::fromStdString(dir.path()); }
  TempDir dir;
  Formulario f;
};

}  // namespace

TEST_F(CargaTest, FullAddressFillsEveryControl) {
  auto c = f.creaControlador(alias());
  c->CargaEnComponentes("28", "MADRID", " GETAFE ", "28065", "28901", "CL", "TOLEDO", "5");
  EXPECT_EQ(f.provincia->currentText(), "MADRID [28]");
  EXPECT_EQ(c->oDataModule->TMunicipi->Filter(), "COD_PROV=28");
  EXPECT_EQ(f.localidad->text(), "GETAFE");
  EXPECT_EQ(Tag(f.localidad), 1);
  EXPECT_EQ(f.codIne->text(), "28065");
  EXPECT_EQ(f.codPostal->text(), "28901");
  EXPECT_EQ(f.tipoVia->currentText(), "CL - CALLE");
  EXPECT_EQ(f.domicilio->text(), "TOLEDO");
  EXPECT_EQ(f.numero->text(), "5");
  EXPECT_EQ(c->oDataModule->TPostalVIA->AsString(), "TOLEDO");
  EXPECT_EQ(f.rejillaDomicilio->model(), c->oDataModule->DSPostal);
}

TEST_F(CargaTest, UnknownProvinceCodeFallsBackToTheName) {
  auto c = f.creaControlador(alias());
  c->CargaEnComponentes("77", "BARCELONA", "BARCELONA", "08019", "08001", "", "", "");
  EXPECT_EQ(f.provincia->currentText(), "BARCELONA [8]");
}

TEST_F(CargaTest, EmptyLocalityStillFillsTheIneButNotThePostcode) {
  auto c = f.creaControlador(alias());
  // An empty name finds the municipality whose name is blank: none here,
  // so the INE look-up gives nothing either, but it is made.
  c->CargaEnComponentes("28", "MADRID", "", "", "", "", "", "");
  EXPECT_EQ(f.codIne->text(), "");
  EXPECT_EQ(f.codPostal->text(), "");
  // With a municipality named blank in the province, the INE edit gets its code.
  anadeMunicipio(c->oDataModule->TMunicipiAux, {"28999", "", "28", "28999"});
  c->CargaEnComponentes("28", "MADRID", "", "", "", "", "", "");
  EXPECT_EQ(f.codIne->text(), "28999");
  EXPECT_EQ(f.codPostal->text(), "");
}

TEST_F(CargaTest, MissingPostcodeIsLookedUpByLocalityAndProvince) {
  auto c = f.creaControlador(alias());
  c->CargaEnComponentes("28", "MADRID", "SOBRADO", "", "", "", "", "");
  EXPECT_EQ(f.codIne->text(), "28140");
  EXPECT_EQ(f.codPostal->text(), "28140");
}

TEST_F(CargaTest, ExactLocalityIsMarkedBeforeItsExitRuns) {
  auto c = f.creaControlador(alias());
  c->CargaEnComponentes("28", "MADRID", "GETAFE", "28065", "28901", "", "", "");
  EXPECT_EQ(Tag(f.localidad), 1);
  // Marked, so the exit filtered the streets by code and name.
  EXPECT_EQ(c->sFiltroVias, "COD_INE=28065 AND MUNICIPI='GETAFE'");
}

TEST_F(CargaTest, PrefixOfALocalityIsNotMarked) {
  auto c = f.creaControlador(alias());
  c->CargaEnComponentes("28", "MADRID", "GETA", "", "", "", "", "");
  EXPECT_EQ(Tag(f.localidad), 0);
  EXPECT_EQ(f.localidad->text(), "GETA");
  EXPECT_EQ(ColorTexto(f.localidad), clMaroon());
}

TEST_F(CargaTest, FirstProvinceItemGivesNoProvinceForTheLookUps) {
  auto c = f.creaControlador(alias());
  // SOBRADO is in 15 and 28, and once more with a blank province: the
  // look-ups, asked with an empty province code, find that one.
  anadeMunicipio(c->oDataModule->TMunicipiAux, {"00123", "SOBRADO", "", "00777"});
  // No province by code or name: the combo keeps its empty first item.
  f.provincia->setCurrentIndex(0);
  c->CargaEnComponentes("77", "NINGUNA", "SOBRADO", "", "", "", "", "");
  EXPECT_EQ(f.provincia->currentIndex(), 0);
  EXPECT_EQ(f.codIne->text(), "00123");
  EXPECT_EQ(f.codPostal->text(), "00777");
}

TEST_F(CargaTest, EmptyStreetTypeAndNumberStillRunTheTypeSearchAndTheNumberExit) {
  auto c = f.creaControlador(alias());
  f.tipoVia->setCurrentIndex(2);
  // Only the number's exit handler takes the focus colour off the number
  // edit (its DejaFoco); nothing else here leaves that edit.
  TomaFocoControl(f.numero);
  ASSERT_EQ(f.numero->palette().color(QPalette::Base), ColorFocoControl());
  c->CargaEnComponentes("28", "MADRID", "MADRID", "28079", "", "", "", "");
  EXPECT_NE(f.numero->palette().color(QPalette::Base), ColorFocoControl()) << "the number's exit did not run";
  // An empty type code matches no item: the user's type stays.
  EXPECT_EQ(f.tipoVia->currentIndex(), 2);
  EXPECT_EQ(f.numero->text(), "");
  EXPECT_EQ(f.codPostal->text(), "28001");
}

TEST_F(CargaTest, TypeAloneWithEmptyStreetAndNumberIsChosenByTheTypeSearch) {
  auto c = f.creaControlador(alias());
  f.tipoVia->setCurrentIndex(-1);
  c->CargaEnComponentes("28", "MADRID", "MADRID", "28079", "", "PZ", "", "");
  EXPECT_EQ(f.tipoVia->currentText(), "PZ - PLAZA");
  EXPECT_EQ(f.domicilio->text(), "");
}

TEST_F(CargaTest, ShortFormChoosesCountryProvinceAndLocality) {
  auto c = f.creaControlador(alias());
  c->CargaEnComponentes(" ESPAÑA ", "BARCELONA", "BARCELONA");
  EXPECT_EQ(f.pais->currentText(), "ESPAÑA [900]");
  EXPECT_TRUE(f.provincia->isEnabled());
  EXPECT_EQ(f.provincia->currentText(), "BARCELONA [8]");
  EXPECT_EQ(f.localidad->text(), "BARCELONA");
  EXPECT_EQ(f.codIne->text(), "08019");
}

TEST_F(CargaTest, ShortFormWithACountryNotInTheListEndsInTheListsIndexError) {
  auto c = f.creaControlador(alias());
  EXPECT_THROW(c->CargaEnComponentes("ATLANTIDA", "", ""), EListError);
}

TEST_F(CargaTest, BoundConstructorShowsItsDefaultAddress) {
  TClaseCodPostales c(&f.ventana, alias(), true, f.panelBotones, f.provincia, f.localidad, f.rejillaLocalidad,
                      f.domicilio, f.rejillaDomicilio, f.numero, f.codPostal, f.codIne, f.tipoVia, f.pais, nullptr,
                      nullptr, "8", "BARCELONA", "08019", "");
  EXPECT_EQ(f.provincia->currentText(), "BARCELONA [8]");
  EXPECT_EQ(f.localidad->text(), "BARCELONA");
  EXPECT_EQ(f.codIne->text(), "08019");
  EXPECT_EQ(f.codPostal->text(), "08001");
  EXPECT_EQ(c.oDataModule->TPostal->TableName(), "POSTAL08.DBF");
}

TEST_F(CargaTest, LocalityEditIsRequired) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  EXPECT_THROW(c.CargaEnComponentes("28", "MADRID", "GETAFE", "", "", "", "", ""), std::logic_error);
}
