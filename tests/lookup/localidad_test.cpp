// The locality search, driven by keys and focus on the host's form.
#include <gtest/gtest.h>

#include <QApplication>
#include <QTest>
#include <QTimer>

#include "formulario.h"
#include "platform/ControlesHost.h"
#include "services/Ruttb.h"
#include "../services/qstring_print.h"

using namespace testsupport;

namespace {

class LocalidadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    escribeJuegoDeReferencia(dir.path());
    c = f.creaControladorConGlobo(QString::fromStdString(dir.path()));
  }
  TempDir dir;
  Formulario f;
  std::unique_ptr<TClaseCodPostales> c;
};

}  // namespace

TEST(NombreMunicipioConParentesis, LeadingElGoesBehindTheName) {
  EXPECT_EQ(TClaseCodPostales::NombreMunicipioConParentesis("EL MOLAR"), "MOLAR (EL)");
  EXPECT_EQ(TClaseCodPostales::NombreMunicipioConParentesis("LA ROSA"), "ROSA (LA)");
}

TEST(NombreMunicipioConParentesis, FourCharacterArticlesKeepABlankAndLoseTheLastLetter) {
  EXPECT_EQ(TClaseCodPostales::NombreMunicipioConParentesis("LOS SANTOS"), " SANTO (LOS)");
  EXPECT_EQ(TClaseCodPostales::NombreMunicipioConParentesis("ELS PRATS"), " PRAT (ELS)");
}

TEST(NombreMunicipioConParentesis, ArticleAnywhereInTheNameStillCutsAtTheFourthCharacter) {
  EXPECT_EQ(TClaseCodPostales::NombreMunicipioConParentesis("VILLANUEVA DE LA SERENA"), "LANUEVA DE LA SERENA (LA)");
  EXPECT_EQ(TClaseCodPostales::NombreMunicipioConParentesis("A CORUÑA"), "ORUÑA (A)");  // "A " loses a letter
}

TEST(NombreMunicipioConParentesis, ArticlesAreTriedInTheirOrder) {
  // "LA " is found before "A ", although "A " stands first.
  EXPECT_EQ(TClaseCodPostales::NombreMunicipioConParentesis("A LA MAR"), "A MAR (LA)");
  EXPECT_EQ(TClaseCodPostales::NombreMunicipioConParentesis("MADRID"), "MADRID");
}

TEST_F(LocalidadTest, NameWithElIsFoundInItsBracketedFormFirst) {
  // Both forms are in the table: the bracketed one is tried first.
  anadeMunicipio(c->oDataModule->TMunicipi, {"28901", "EL MOLAR", "28"});
  anadeMunicipio(c->oDataModule->TMunicipi, {"28082", "MOLAR (EL)", "28"});
  EXPECT_TRUE(c->BuscaLocalidadPorNombre("EL MOLAR", true));
  EXPECT_EQ(c->oDataModule->TMunicipiNOMBRE->AsString(), "MOLAR (EL)");
  EXPECT_EQ(c->oDataModule->TMunicipiCOD_INE->AsString(), "28082");
}

TEST_F(LocalidadTest, NameWithLosIsTriedRewrittenThenAsTyped) {
  anadeMunicipio(c->oDataModule->TMunicipi, {"28130", "LOS SANTOS"});
  // " SANTO (LOS)" is not in the table; the name as typed is.
  EXPECT_TRUE(c->BuscaLocalidadPorNombre("LOS SANTOS", true));
  EXPECT_EQ(c->oDataModule->TMunicipiNOMBRE->AsString(), "LOS SANTOS");
}

TEST_F(LocalidadTest, TypingCompletesTheNameAndSelectsTheRest) {
  f.eligeProvincia("MADRID [28]");
  Formulario::teclea(f.localidad, "MAD");
  EXPECT_EQ(f.localidad->text(), "MADRID");
  EXPECT_EQ(f.localidad->selectedText(), "RID");
  EXPECT_EQ(Tag(f.localidad), 1);
  EXPECT_EQ(f.codPostal->text(), "28001");
  EXPECT_EQ(f.codIne->text(), "28079");
  EXPECT_TRUE(f.rejillaLocalidad->isVisible());
}

TEST_F(LocalidadTest, TheNextKeyReplacesTheCompletion) {
  f.eligeProvincia("MADRID [28]");
  Formulario::teclea(f.localidad, "AL");
  EXPECT_EQ(f.localidad->text(), "ALCALA DE HENARES");
  QTest::keyClick(f.localidad, 'X');  // nothing begins with ALX
  EXPECT_EQ(f.localidad->text(), "ALX");
  EXPECT_EQ(Tag(f.localidad), 0);
}

TEST_F(LocalidadTest, LeavingAConfirmedLocalityFillsTheCodesAndFiltersTheStreets) {
  f.eligeProvincia("MADRID [28]");
  Formulario::teclea(f.localidad, "GET");
  QTest::keyClick(f.localidad, Qt::Key_Tab);
  QApplication::processEvents();
  EXPECT_EQ(f.localidad->text(), "GETAFE");
  EXPECT_EQ(f.codPostal->text(), "28901");
  EXPECT_EQ(f.codIne->text(), "28065");
  EXPECT_EQ(ColorTexto(f.localidad), clWindowText());
  EXPECT_EQ(c->sFiltroVias, "COD_INE=28065 AND MUNICIPI='GETAFE'");
  ASSERT_EQ(f.rejillaDomicilio->model(), c->oDataModule->DSPostal);
  EXPECT_EQ(f.rejillaDomicilio->model()->rowCount(), 2);
  // The postcode edit comes before the street type in the tab order.
  EXPECT_EQ(QApplication::focusWidget(), f.codPostal);
}

TEST_F(LocalidadTest, LeavingAnUnknownLocalityTurnsTheEditsMaroonAndUnbindsTheStreets) {
  f.eligeProvincia("MADRID [28]");
  c->FiltraVias("28079", "MADRID");
  Formulario::teclea(f.localidad, "XYZ");
  Formulario::enfoca(f.otroControl);
  EXPECT_EQ(f.localidad->text(), "XYZ");
  EXPECT_EQ(ColorTexto(f.localidad), clMaroon());
  EXPECT_EQ(ColorTexto(f.codPostal), clMaroon());
  EXPECT_EQ(ColorTexto(f.codIne), clMaroon());
  EXPECT_EQ(f.rejillaDomicilio->model(), nullptr);
}

TEST_F(LocalidadTest, LeavingWithTheFocusRedirectedGivesTheSkippedControlNoExit) {
  // Tab from the locality would reach the street edit; the controller sends
  // the focus to the postcode instead, so the street edit is never left.
  f.eligeProvincia("MADRID [28]");
  Formulario::teclea(f.localidad, "GETAFE");
  f.codPostal->setText("");
  QTest::keyClick(f.localidad, Qt::Key_Tab);
  QApplication::processEvents();
  // An exit of the street edit would have sent the focus on to the number.
  EXPECT_EQ(QApplication::focusWidget(), f.codPostal);
  EXPECT_EQ(f.codPostal->text(), "28901");
}

TEST_F(LocalidadTest, NameOnlyInAnotherProvinceShowsTheListBalloon) {
  f.eligeProvincia("BARCELONA [8]");
  Formulario::teclea(f.localidad, "SOB");
  EXPECT_EQ(Tag(f.localidad), 0);
  ASSERT_TRUE(f.globo->IsShowing());
  EXPECT_EQ(f.globo->Tag, 1);
  // In name order, then in the table's order.
  EXPECT_EQ(c->sMensajeProvincias, "SOBRADO (MADRID)\rSOBRADO (CORUÑA (A))");
  EXPECT_EQ(f.globo->Texto(), "SOBRADO (MADRID)\nSOBRADO (CORUÑA (A))");
  EXPECT_EQ(f.globo->pos(), f.localidad->mapToGlobal(QPoint(0, f.localidad->height())));
  EXPECT_EQ(f.globo->TipoIcono(), TLMDMessageHint::iconoAviso);
}

TEST_F(LocalidadTest, LeavingWithOneOtherProvinceSwitchesToItSilently) {
  f.eligeProvincia("BARCELONA [8]");
  Formulario::teclea(f.localidad, "GET");
  ASSERT_EQ(c->sMensajeProvincias, "GETAFE (MADRID)");
  Formulario::enfoca(f.otroControl);
  EXPECT_EQ(f.provincia->currentText(), "MADRID [28]");
  EXPECT_EQ(c->oDataModule->TMunicipi->Filter(), "COD_PROV=28");
  EXPECT_EQ(f.localidad->text(), "GETAFE");
  EXPECT_EQ(f.codIne->text(), "28065");
  EXPECT_FALSE(f.globo->IsShowing());
  EXPECT_EQ(f.globo->Tag, 0);
}

TEST_F(LocalidadTest, LeavingWithSeveralOtherProvincesSaysTheProvinceDoesNotMatch) {
  f.eligeProvincia("BARCELONA [8]");
  Formulario::teclea(f.localidad, "SOB");
  Formulario::enfoca(f.otroControl);
  EXPECT_EQ(f.provincia->currentText(), "BARCELONA [8]");
  ASSERT_TRUE(f.globo->IsShowing());
  EXPECT_EQ(f.globo->Texto(), "La provincia especificada no coincide con el municipio indicado");
  EXPECT_EQ(f.globo->pos(), f.provincia->mapToGlobal(QPoint(0, f.provincia->height())));
  EXPECT_EQ(f.globo->Tag, 0);
  EXPECT_TRUE(c->oTMensajes->isActive());
}

TEST_F(LocalidadTest, ProvinceNameWithBracketsNeverSwitches) {
  // "CORUÑA (A) (CORUÑA (A))" holds two "(": it reads as several entries.
  f.eligeProvincia("MADRID [28]");
  Formulario::teclea(f.localidad, "COR");
  ASSERT_EQ(c->sMensajeProvincias, "CORUÑA (A) (CORUÑA (A))");
  Formulario::enfoca(f.otroControl);
  EXPECT_EQ(f.provincia->currentText(), "MADRID [28]");
  EXPECT_EQ(f.globo->Texto(), "La provincia especificada no coincide con el municipio indicado");
}

TEST_F(LocalidadTest, ProvinceAbroadBuildsNoBalloon) {
  f.eligeProvincia("EXTRANJERO [99]");
  Formulario::teclea(f.localidad, "GET");
  EXPECT_FALSE(f.globo->IsShowing());
  EXPECT_EQ(c->sMensajeProvincias, "");
}

TEST_F(LocalidadTest, BackspaceAndDeleteDoNotStartASearch) {
  f.eligeProvincia("MADRID [28]");
  Formulario::teclea(f.localidad, "MAD");
  ASSERT_EQ(f.localidad->text(), "MADRID");
  // A search would write the postcode and INE code of the row it reached.
  f.codPostal->clear();
  f.codIne->clear();
  QTest::keyClick(f.localidad, Qt::Key_Backspace);  // removes the selected completion
  EXPECT_EQ(f.localidad->text(), "MAD");
  EXPECT_EQ(f.codIne->text(), "") << "Backspace searched";
  f.localidad->setCursorPosition(1);
  QTest::keyClick(f.localidad, Qt::Key_Delete);
  EXPECT_EQ(f.localidad->text(), "MD");
  EXPECT_EQ(f.codIne->text(), "") << "Delete searched";
  EXPECT_EQ(f.codPostal->text(), "");
  EXPECT_EQ(Tag(f.localidad), 1) << "the completion's mark stays";
}

TEST_F(LocalidadTest, HoldingShiftWhileLeavingKeepsTheFocusWhereTheUserSendsIt) {
  f.eligeProvincia("MADRID [28]");
  Formulario::teclea(f.localidad, "GETAFE");
  QWindow* ventana = f.ventana.windowHandle();
  QTest::keyPress(ventana, Qt::Key_Shift, Qt::ShiftModifier);
  QTest::keyClick(ventana, Qt::Key_Backtab, Qt::ShiftModifier);
  QApplication::processEvents();
  QTest::keyRelease(ventana, Qt::Key_Shift, Qt::NoModifier);
  EXPECT_EQ(QApplication::focusWidget(), f.provincia);
  EXPECT_EQ(f.codIne->text(), "28065");  // the rest of the exit still ran
}

TEST_F(LocalidadTest, ArrowKeysGoIntoTheGridAndEnterTakesItsRow) {
  f.eligeProvincia("MADRID [28]");
  Formulario::teclea(f.localidad, "AL");
  QTest::keyClick(f.localidad, Qt::Key_Down);
  QApplication::processEvents();
  EXPECT_EQ(QApplication::focusWidget(), f.rejillaLocalidad);
  // Leaving the edit for the grid confirmed nothing and cleared the mark.
  EXPECT_EQ(Tag(f.rejillaLocalidad), 0);
  EXPECT_EQ(f.codIne->text(), "28005");
  QTest::keyClick(f.rejillaLocalidad, Qt::Key_Down);  // the grid moves the table to the next row
  const QString siguiente = c->oDataModule->TMunicipiNOMBRE->AsString();
  EXPECT_NE(siguiente, "ALCALA DE HENARES");
  QTest::keyClick(f.rejillaLocalidad, Qt::Key_Return);
  EXPECT_EQ(f.localidad->text(), siguiente);
  EXPECT_EQ(Tag(f.localidad), 1);
  EXPECT_EQ(f.codIne->text(), c->oDataModule->TMunicipiCOD_INE->AsString());
  EXPECT_TRUE(f.rejillaLocalidad->isVisible());
}

TEST_F(LocalidadTest, EscapeInTheGridGoesBackToTheEdit) {
  f.eligeProvincia("MADRID [28]");
  Formulario::teclea(f.localidad, "AL");
  QTest::keyClick(f.localidad, Qt::Key_Down);
  QApplication::processEvents();
  QTest::keyClick(f.rejillaLocalidad, Qt::Key_Escape);
  QApplication::processEvents();
  EXPECT_EQ(QApplication::focusWidget(), f.localidad);
}

TEST_F(LocalidadTest, DoubleClickTakesTheRowAndHidesTheGrid) {
  f.eligeProvincia("MADRID [28]");
  Formulario::teclea(f.localidad, "GE");
  const QRect fila = f.rejillaLocalidad->visualRect(f.rejillaLocalidad->model()->index(
      c->oDataModule->DSMunicipi->CurrentRow(), 0));
  QTest::mouseDClick(f.rejillaLocalidad->viewport(), Qt::LeftButton, {}, fila.center());
  QApplication::processEvents();
  EXPECT_EQ(f.localidad->text(), "GETAFE");
  EXPECT_FALSE(f.rejillaLocalidad->isVisible());
}

TEST_F(LocalidadTest, SearchesByPostcodeIneAndMunicipalityNumber) {
  EXPECT_TRUE(c->BuscaLocalidadPorCodPostal("8740", true));
  EXPECT_EQ(c->oDataModule->TMunicipiNOMBRE->AsString(), "SANT ANDREU DE LA BARCA");
  EXPECT_TRUE(c->BuscaLocalidadPorCodIne("8019", true));
  EXPECT_EQ(c->oDataModule->TMunicipiNOMBRE->AsString(), "BARCELONA");
  EXPECT_TRUE(c->BuscaLocalidadPorCodMun("28", "65"));
  EXPECT_EQ(c->oDataModule->TMunicipiNOMBRE->AsString(), "GETAFE");
  EXPECT_FALSE(c->oDataModule->TMunicipi->Filtered());  // an unfiltered table stays so
}

TEST_F(LocalidadTest, SearchByMunicipalityNumberMovesTheProvinceFilter) {
  c->FiltraLocalidades("8");
  EXPECT_TRUE(c->BuscaLocalidadPorCodMun("15", "79"));
  EXPECT_EQ(c->oDataModule->TMunicipi->Filter(), "COD_PROV=15");
  EXPECT_EQ(c->oDataModule->TMunicipiNOMBRE->AsString(), "SOBRADO");
}

TEST_F(LocalidadTest, SampleDataCompletesMadrid) {
  Formulario g;
  auto muestra = g.creaControladorConGlobo(CODPOSTALES_SOURCE_DIR "/data/muestra");
  g.eligeProvincia("MADRID [28]");
  Formulario::teclea(g.localidad, "MADR");
  EXPECT_EQ(g.localidad->text(), "MADRID");
  EXPECT_EQ(g.localidad->selectedText(), "ID");
  EXPECT_EQ(g.codIne->text(), "28079");
  Formulario::enfoca(g.otroControl);
  ASSERT_EQ(g.rejillaDomicilio->model(), muestra->oDataModule->DSPostal);
  EXPECT_GT(g.rejillaDomicilio->model()->rowCount(), 100);
}

TEST_F(LocalidadTest, GridHighlightsTheRowTheSearchReached) {
  f.eligeProvincia("MADRID [28]");
  Formulario::teclea(f.localidad, "GET");
  QApplication::processEvents();
  const QModelIndex actual = f.rejillaLocalidad->currentIndex();
  ASSERT_TRUE(actual.isValid());
  EXPECT_EQ(actual.row(), c->oDataModule->TMunicipi->CurrentIndex());
  EXPECT_EQ(f.rejillaLocalidad->model()->index(actual.row(), 0).data().toString(), "GETAFE");
}

TEST_F(LocalidadTest, ClickingARowOfTheGridMovesTheTable) {
  f.eligeProvincia("MADRID [28]");
  Formulario::teclea(f.localidad, "A");
  QApplication::processEvents();
  const int fila = f.rejillaLocalidad->model()->rowCount() - 1;
  const QRect celda = f.rejillaLocalidad->visualRect(f.rejillaLocalidad->model()->index(fila, 0));
  ASSERT_TRUE(celda.isValid());
  QTest::mouseClick(f.rejillaLocalidad->viewport(), Qt::LeftButton, {}, celda.center());
  EXPECT_EQ(c->oDataModule->TMunicipi->CurrentIndex(), fila);
  EXPECT_EQ(QApplication::focusWidget(), f.rejillaLocalidad);  // the mouse-down handler took it there
}
