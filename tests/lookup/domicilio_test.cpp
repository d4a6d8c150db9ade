// The street search and the house-number rule, driven by keys and focus.
#include <gtest/gtest.h>

#include <QApplication>
#include <QTest>
#include <QTimer>

#include "formulario.h"
#include "platform/ControlesHost.h"
#include "services/Rmensaje.h"
#include "services/Ruttb.h"
#include "support/tables.h"
#include "../services/qstring_print.h"

using namespace testsupport;

namespace {

Row tramo(const std::string& via, const std::string& tipo, const std::string& impar, const std::string& par,
          const std::string& cp, const std::string& codigo = "00000007") {
  auto guion = impar.find('-'), guion2 = par.find('-');
  return {via, tipo, impar.substr(0, guion), impar.substr(guion + 1), par.substr(0, guion2), par.substr(guion2 + 1),
          cp, "S", "28", "MADRID", "28079", via, codigo};
}

class DomicilioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    escribeJuegoDeReferencia(dir.path());
    // The stretches of MAYOR in the street tag's order: the untyped one first.
    makeTable(dir.path() + "/Postales", "POSTAL28.DBF", camposCalle(),
              {tramo("MAYOR", "", "1-19", "2-20", "28001"),
               tramo("MAYOR", "CL", "1-19", "2-20", "28002"),
               tramo("MAYOR", "CL", "21-99", "22-98", "28003"),
               tramo("MAYOR", "CL", "21-41", "22-40", "28004"),
               tramo("MAYOR", "PZ", "1-9", "10-18", "28005"),  // 1 is odd-held, 2 even-held by none
               tramo("ALCALA", "CL", "1-201", "2-200", "28014", "00000012"),
               tramo("ARENAL", "CL", "1-50", "2-50", "28013", "00000013"),
               tramo("SOL", "PZ", "1-9", "2-8", "28013", "00000014")});
    c = f.creaControladorConGlobo(QString::fromStdString(dir.path()));
    f.eligeProvincia("MADRID [28]");
    Formulario::teclea(f.localidad, "MADRID");
    Formulario::enfoca(f.otroControl);
  }
  // The street table stands on the stretch of the street with that type, as
  // after the street search; the user goes into the number, types it and
  // leaves.
  void escribe(const QString& via, const QString& numero, const QString& tipo = "CL") {
    c->oDataModule->TPostal->First();  // another street
    f.domicilio->setText(via);
    c->BuscaDomicilioPorVia(via, "28", tipo, false);
    Formulario::enfoca(f.numero);
    f.numero->clear();
    QTest::keyClicks(f.numero, numero);
    Formulario::enfoca(f.otroControl);
  }
  TempDir dir;
  Formulario f;
  std::unique_ptr<TClaseCodPostales> c;
};

}  // namespace

TEST_F(DomicilioTest, StreetGridShowsTheMunicipalitysStreets) {
  ASSERT_EQ(f.rejillaDomicilio->model(), c->oDataModule->DSPostal);
  EXPECT_EQ(f.rejillaDomicilio->model()->rowCount(), 8);
}

TEST_F(DomicilioTest, TypingCompletesTheStreetAndMarksItsCode) {
  Formulario::teclea(f.domicilio, "ALC");
  EXPECT_EQ(f.domicilio->text(), "ALCALA");
  EXPECT_EQ(f.domicilio->selectedText(), "ALA");
  EXPECT_EQ(Tag(f.domicilio), 12);
  QTest::keyClick(f.domicilio, 'X');
  EXPECT_EQ(f.domicilio->text(), "ALCX");
  EXPECT_EQ(Tag(f.domicilio), 0);
}

TEST_F(DomicilioTest, LeavingTheStreetFillsPostcodeAndTypeAndGoesToTheNumber) {
  Formulario::teclea(f.domicilio, "ARE");
  ASSERT_EQ(f.domicilio->text(), "ARENAL");
  QTest::keyClick(f.domicilio, Qt::Key_Tab);
  QApplication::processEvents();
  EXPECT_EQ(f.codPostal->text(), "28013");
  EXPECT_EQ(f.tipoVia->currentText(), "CL - CALLE");
  EXPECT_EQ(QApplication::focusWidget(), f.numero);
}

TEST_F(DomicilioTest, StreetTypeTheUserChoseIsKept) {
  f.tipoVia->setCurrentIndex(f.tipoVia->findText("PZ - PLAZA"));
  Formulario::teclea(f.domicilio, "ARE");
  Formulario::enfoca(f.numero);
  EXPECT_EQ(f.tipoVia->currentText(), "PZ - PLAZA");
}

TEST_F(DomicilioTest, TypingAStreetANumberAndLeavingGivesTheStretchsPostcode) {
  Formulario::teclea(f.domicilio, "ALC");
  QTest::keyClick(f.domicilio, Qt::Key_Tab);
  QApplication::processEvents();
  ASSERT_EQ(QApplication::focusWidget(), f.numero);
  QTest::keyClicks(f.numero, "150");
  QTest::keyClick(f.numero, Qt::Key_Tab);
  EXPECT_EQ(f.codPostal->text(), "28014");
}

TEST_F(DomicilioTest, EmptyOrNonNumericNumberCountsAsOne) {
  // The square's odd range holds 1, its even range not 2 (nor 0): 2 would
  // fall to the untyped 2-20 (28001), 0 to nothing.
  escribe("MAYOR", "", "PZ");
  EXPECT_EQ(f.codPostal->text(), "28005");
  f.codPostal->clear();
  escribe("MAYOR", "abc", "PZ");
  EXPECT_EQ(f.codPostal->text(), "28005");
}

TEST_F(DomicilioTest, RangeBoundsCount) {
  escribe("MAYOR", "99");
  EXPECT_EQ(f.codPostal->text(), "28003");
  escribe("MAYOR", "22");
  EXPECT_EQ(f.codPostal->text(), "28003");
  escribe("MAYOR", "19");
  EXPECT_EQ(f.codPostal->text(), "28002");
  escribe("MAYOR", "100");  // beyond every even range: the postcode stays
  EXPECT_EQ(f.codPostal->text(), "28002");
}

TEST_F(DomicilioTest, FirstStretchInTableOrderWins) {
  escribe("MAYOR", "31");  // in 21-99 and in 21-41
  EXPECT_EQ(f.codPostal->text(), "28003");
}

TEST_F(DomicilioTest, StretchOfTheStreetsTypeBeatsAnEarlierUntypedOne) {
  escribe("MAYOR", "7");  // the untyped 1-19 comes first; the street's CL 1-19 wins
  EXPECT_EQ(c->oDataModule->TPostalTIPO_VIA->AsString(), "CL");
  EXPECT_EQ(f.codPostal->text(), "28002");
}

TEST_F(DomicilioTest, WithoutATypeTheUntypedStretchIsTheStreets) {
  escribe("MAYOR", "7", "");
  EXPECT_EQ(f.codPostal->text(), "28001");
}

TEST_F(DomicilioTest, UntypedStretchServesWhenNoStretchOfTheTypeHoldsTheNumber) {
  f.domicilio->setText("MAYOR");
  TBBusca(c->oDataModule->TPostal, {"PROVINCIA", "28", "CAPITAL", "S", "VIA", "MAYOR", "TIPO_VIA", "PZ"}, true);
  f.numero->setText("15");  // PZ holds 1-9 only
  Formulario::enfoca(f.numero);
  Formulario::enfoca(f.otroControl);
  EXPECT_EQ(f.codPostal->text(), "28001");
}

TEST_F(DomicilioTest, ChosenTypeWithNoStretchNorUntypedStretchWritesNothing) {
  // ARENAL has one stretch, CL 1-50, which holds 5; the user chose AV.
  f.tipoVia->setCurrentIndex(f.tipoVia->findText("AV - AVENIDA"));
  f.codPostal->setText("99999");
  f.domicilio->setText("ARENAL");
  // Not on ARENAL, so the type comes from the combo.
  TBBusca(c->oDataModule->TPostal, {"PROVINCIA", "28", "CAPITAL", "S", "VIA", "ALCALA"}, true);
  const int antes = c->oDataModule->TPostal->RecNo();
  f.numero->setText("5");
  Formulario::enfoca(f.numero);
  Formulario::enfoca(f.otroControl);
  EXPECT_EQ(f.codPostal->text(), "99999");
  EXPECT_EQ(c->oDataModule->TPostal->RecNo(), antes);  // back where it was
}

TEST_F(DomicilioTest, SameStreetWithTheTypeItHasGivesItsPostcode) {
  // The counterpart of the test above: only the type differs.
  f.tipoVia->setCurrentIndex(f.tipoVia->findText("CL - CALLE"));
  f.codPostal->setText("99999");
  f.domicilio->setText("ARENAL");
  TBBusca(c->oDataModule->TPostal, {"PROVINCIA", "28", "CAPITAL", "S", "VIA", "ALCALA"}, true);
  f.numero->setText("5");
  Formulario::enfoca(f.numero);
  Formulario::enfoca(f.otroControl);
  EXPECT_EQ(f.codPostal->text(), "28013");
}

TEST_F(DomicilioTest, BuscaDomicilioPorViaFindsTheStretchOfTheTypeAsked) {
  c->oDataModule->TPostal->First();  // ALCALA
  EXPECT_TRUE(c->BuscaDomicilioPorVia("MAYOR", "28", "PZ - PLAZA", false));
  EXPECT_EQ(c->oDataModule->TPostalTIPO_VIA->AsString(), "PZ");
  EXPECT_TRUE(c->BuscaDomicilioPorVia("SOL", "", "", false));  // province from the combo
  EXPECT_FALSE(c->BuscaDomicilioPorVia("SOLANA", "28", "", false));
  // The exact search asks for an empty street type: only untyped stretches.
  EXPECT_FALSE(c->BuscaDomicilioPorVia("ARENAL", "28", "", true));
  c->oDataModule->TPostal->First();
  EXPECT_TRUE(c->BuscaDomicilioPorVia("MAYOR", "28", "", true));
  EXPECT_EQ(c->oDataModule->TPostalTIPO_VIA->AsString(), "");
}

TEST_F(DomicilioTest, BuscaDomicilioPorViaOnTheStreetAlreadyMovesNothing) {
  c->oDataModule->TPostal->First();
  ASSERT_TRUE(c->BuscaDomicilioPorVia("MAYOR", "28", "", false));
  EXPECT_TRUE(c->BuscaDomicilioPorVia("MAYOR", "28", "PZ", false));
  EXPECT_EQ(c->oDataModule->TPostalTIPO_VIA->AsString(), "");  // stays on the untyped stretch
}

TEST_F(DomicilioTest, BuscaDomicilioPorViaStaysOnAStreetThatBeginsWithTheText) {
  ASSERT_TRUE(c->BuscaDomicilioPorVia("ARENAL", "28", "", false));
  EXPECT_FALSE(c->BuscaDomicilioPorVia("AREN", "28", "", false));
  EXPECT_EQ(c->oDataModule->TPostalVIA->AsString(), "ARENAL");
}

TEST_F(DomicilioTest, PostcodeAndIneByNameAndProvinceLeaveTheScreenTablesAlone) {
  const int fila = c->oDataModule->TMunicipi->RecNo();
  EXPECT_EQ(c->BuscaCodPostal("  SOBRADO ", "15"), "15960");
  EXPECT_EQ(c->BuscaCodIne("SOBRADO", "28"), "28140");
  EXPECT_EQ(c->BuscaCodIne("SOBRADO", "08"), "");
  EXPECT_EQ(c->BuscaCodIne("NINGUNO", "28"), "");
  EXPECT_EQ(c->oDataModule->TMunicipi->RecNo(), fila);
}

TEST_F(DomicilioTest, AccentedNameOfAStreet) {
  QString nombre;
  EXPECT_TRUE(c->BuscaDomicilioAcentos("SOL", nombre));
  EXPECT_EQ(nombre, "SOL");
  EXPECT_FALSE(c->BuscaDomicilioAcentos("NINGUNA", nombre));
}

TEST_F(DomicilioTest, AccentedNameWithTheStreetTableClosedTellsTheUser) {
  RegistroMensajes registro;
  PresentadorMensajesTemporal temporal(&registro);
  c->oDataModule->TPostal->Close();
  QString nombre;
  EXPECT_FALSE(c->BuscaDomicilioAcentos("SOL", nombre));
  ASSERT_EQ(registro.mensajes().size(), 1);
  const MensajeRegistrado& aviso = registro.ultimo();
  EXPECT_EQ(aviso.tipo, TipoMensaje::Emergente);
  EXPECT_EQ(aviso.titulo, "Tabla de códigos postales cerrada");
  EXPECT_EQ(aviso.texto, "La tabla de códigos postales está cerrada y no se ha podido completar la operación");
  EXPECT_EQ(aviso.posicion, "H");
  EXPECT_EQ(aviso.opcion, 4);
}

TEST_F(DomicilioTest, EnterInTheStreetGridTakesTheStreet) {
  Formulario::teclea(f.domicilio, "SO");
  QTest::keyClick(f.domicilio, Qt::Key_Down);
  QApplication::processEvents();
  ASSERT_EQ(QApplication::focusWidget(), f.rejillaDomicilio);
  QTest::keyClick(f.rejillaDomicilio, Qt::Key_Return);
  EXPECT_EQ(f.domicilio->text(), "SOL");
  EXPECT_EQ(f.codPostal->text(), "28001");  // still in the grid: nothing is filled yet
  Formulario::enfoca(f.codIne);  // leaving the grid fills postcode and type
  EXPECT_EQ(f.codPostal->text(), "28013");
  EXPECT_EQ(f.tipoVia->currentText(), "PZ - PLAZA");
  EXPECT_FALSE(f.rejillaDomicilio->isVisible());
}

TEST_F(DomicilioTest, ClickOnTheStreetGridSendsTheFocusToTheLocalityGrid) {
  Formulario::enfoca(f.domicilio);
  ASSERT_TRUE(f.rejillaDomicilio->isVisible());
  f.rejillaLocalidad->show();  // still dropped down from the locality
  c->oControlSiguienteAlDBGDomicilio = nullptr;  // leaving the street grid would go there
  QTest::mouseClick(f.rejillaDomicilio->viewport(), Qt::LeftButton, {}, QPoint(5, 5));
  QApplication::processEvents();
  EXPECT_EQ(QApplication::focusWidget(), f.rejillaLocalidad);
}

TEST_F(DomicilioTest, TimerHidesAGridOnceTheFocusLeftItAndItsEdit) {
  Formulario::enfoca(f.domicilio);
  ASSERT_TRUE(f.rejillaDomicilio->isVisible());
  ASSERT_TRUE(c->oTDomicilio->isActive());
  Formulario::enfoca(f.codIne);
  EXPECT_TRUE(QTest::qWaitFor([&] { return !f.rejillaDomicilio->isVisible(); }, 2000));
  EXPECT_TRUE(QTest::qWaitFor([&] { return !c->oTDomicilio->isActive(); }, 2000));
}
