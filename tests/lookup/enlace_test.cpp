// Construction, binding to the host's controls, the focus handlers, the
// timers and destruction of the controller.
#include <gtest/gtest.h>

#include <QApplication>
#include <QHeaderView>
#include <QTest>
#include <QTimer>

#include "formulario.h"
#include "platform/TLMDMessageHint.h"
#include "services/Rvarias.h"
#include "../services/qstring_print.h"

using namespace testsupport;

namespace {

class EnlaceTest : public ::testing::Test {
 protected:
  void SetUp() override { escribeJuegoDeReferencia(dir.path()); }
  QString alias() const { return QString::fromStdString(dir.path()); }
  // The balloon up, the focus on `foco`, and the message timer run for real
  // (at a short interval).
  void disparaTemporizadorDeMensajes(TClaseCodPostales& c, QWidget* foco) {
    Formulario::enfoca(foco);
    f.globo->Tag = 1;
    f.globo->ShowMessage("SOBRADO (CORUÑA (A))", QPoint(10, 10));
    c.oTMensajes->setInterval(20);
    c.oTMensajes->start();
    QTest::qWait(200);
  }
  TempDir dir;
  Formulario f;
};

}  // namespace

TEST_F(EnlaceTest, StreetModeWithoutAStreetEditDoesNotOpenTheStreetTable) {
  TClaseCodPostales c(&f.ventana, alias(), true, f.panelBotones, f.provincia, f.localidad, f.rejillaLocalidad,
                      nullptr, nullptr, nullptr, f.codPostal, f.codIne, f.tipoVia, f.pais, nullptr, nullptr, "", "",
                      "", "");
  EXPECT_TRUE(c.bPostales);
  EXPECT_FALSE(c.bDefectoPostal);
  EXPECT_FALSE(c.oDataModule->TPostal->Active());
}

TEST_F(EnlaceTest, StreetModeWithAStreetEditOpensTheStreetTable) {
  auto c = f.creaControlador(alias());
  EXPECT_TRUE(c->bDefectoPostal);
  EXPECT_TRUE(c->oDataModule->TPostal->Active());
}

TEST_F(EnlaceTest, LocalityEditWithoutItsGridGetsNoWorkerTimerButTheMessageTimer) {
  TClaseCodPostales c(&f.ventana, alias(), false, nullptr, nullptr, f.localidad, nullptr, nullptr, nullptr, nullptr,
                      nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, "", "", "", "");
  EXPECT_EQ(c.oTDomicilio, nullptr);
  ASSERT_NE(c.oTMensajes, nullptr);
  EXPECT_EQ(c.oTMensajes->interval(), 5000);
  EXPECT_FALSE(c.oTMensajes->isActive());
}

TEST_F(EnlaceTest, GridAndEditPairGetsTheRunningWorkerTimer) {
  auto c = f.creaControlador(alias());
  ASSERT_NE(c->oTDomicilio, nullptr);
  EXPECT_EQ(c->oTDomicilio->interval(), 200);
  EXPECT_TRUE(c->oTDomicilio->isActive());
  EXPECT_EQ(c->oTDomicilio->parent(), &f.ventana);
  EXPECT_EQ(c->oTMensajes->parent(), &f.ventana);
  EXPECT_TRUE(c->bHazCambioFoco);
}

TEST_F(EnlaceTest, HeadlessControllerHasNoTimersAndDoesNotMoveTheFocus) {
  TClaseCodPostales c(&f.ventana, alias(), true, "28079");
  EXPECT_EQ(c.oTDomicilio, nullptr);
  EXPECT_EQ(c.oTMensajes, nullptr);
  EXPECT_FALSE(c.bHazCambioFoco);
  EXPECT_EQ(c.oDataModule->parent(), &f.ventana);
  EXPECT_EQ(c.sAlias, alias());
  EXPECT_EQ(c.sDefectoCodINE, "28079");
}

TEST_F(EnlaceTest, EmptyDefaultsLeaveTheHostsTexts) {
  f.localidad->setText("LO QUE PUSO EL PROGRAMA");
  f.codPostal->setText("12345");
  auto c = f.creaControlador(alias());
  EXPECT_EQ(f.localidad->text(), "LO QUE PUSO EL PROGRAMA");
  EXPECT_EQ(f.codPostal->text(), "12345");
}

TEST_F(EnlaceTest, ListsAreFilledWhenTheirCombosAreGiven) {
  auto c = f.creaControlador(alias());
  EXPECT_EQ(f.provincia->count(), 6);  // the empty item and five provinces
  EXPECT_EQ(f.pais->count(), 5);
  EXPECT_EQ(f.tipoVia->count(), 6);
}

TEST_F(EnlaceTest, GridDropsDownUnderItsEditInsideTheFormDisplayContainer) {
  QWidget ventana;
  auto* contenedor = new TLMDFormDisplay(&ventana);
  contenedor->setGeometry(100, 200, 600, 400);
  auto* panelA = new QWidget(contenedor);
  panelA->setGeometry(5, 7, 500, 300);
  auto* panelB = new QWidget(panelA);
  panelB->setGeometry(3, 4, 400, 200);
  auto* edit = new QLineEdit(panelB);
  edit->setGeometry(2, 3, 250, 21);
  auto* rejilla = new QTableView(contenedor);
  rejilla->resize(100, 120);
  TClaseCodPostales c(&ventana, alias(), false, nullptr, nullptr, edit, rejilla, nullptr, nullptr, nullptr, nullptr,
                      nullptr, nullptr, nullptr, nullptr, nullptr, "", "", "", "");
  // The panels below the container count; the container itself does not.
  EXPECT_EQ(rejilla->geometry(), QRect(2 + 3 + 5, 3 + 4 + 7 + 21, 250, 120));
}

TEST_F(EnlaceTest, GridPositionSumsEveryParentBelowTheWindow) {
  QWidget ventana;
  auto* contenedor = new QWidget(&ventana);
  contenedor->setGeometry(100, 200, 600, 400);
  auto* edit = new QLineEdit(contenedor);
  edit->setGeometry(2, 3, 250, 21);
  auto* rejilla = new QTableView(&ventana);
  TClaseCodPostales c(&ventana, alias(), false, nullptr, nullptr, edit, rejilla, nullptr, nullptr, nullptr, nullptr,
                      nullptr, nullptr, nullptr, nullptr, nullptr, "", "", "", "");
  EXPECT_EQ(rejilla->pos(), QPoint(102, 224));
}

TEST_F(EnlaceTest, GridsFreeColumnTakesWhatTheOthersLeave) {
  f.localidad->resize(300, 21);
  f.domicilio->resize(320, 21);
  auto c = f.creaControlador(alias());
  QTableView* loc = f.rejillaLocalidad;
  EXPECT_EQ(loc->width(), 300);
  EXPECT_EQ(loc->columnWidth(0), 300 - loc->columnWidth(1) - loc->columnWidth(2) - 35);
  QTableView* dom = f.rejillaDomicilio;
  EXPECT_EQ(dom->width(), 320);
  EXPECT_EQ(dom->columnWidth(1), 320 - dom->columnWidth(0) - dom->columnWidth(2) - 35);
}

TEST_F(EnlaceTest, EnteringTheStreetTypeComboPostsOneHomeKey) {
  auto c = f.creaControlador(alias());
  ContadorTeclaInicio tipo(f.tipoVia), pais(f.pais);
  Formulario::enfoca(f.tipoVia);
  QApplication::processEvents();
  EXPECT_EQ(tipo.cuenta, 1);
  Formulario::enfoca(f.codPostal);
  QApplication::processEvents();
  EXPECT_EQ(tipo.cuenta, 2);  // leaving it posts one more
}

TEST_F(EnlaceTest, StreetTypeComboWithoutAnEditPartGetsNoHomeKey) {
  f.tipoVia->setEditable(false);
  auto c = f.creaControlador(alias());
  f.tipoVia->setCurrentIndex(3);
  ContadorTeclaInicio tipo(f.tipoVia);
  Formulario::enfoca(f.tipoVia);
  Formulario::enfoca(f.codPostal);
  QApplication::processEvents();
  EXPECT_EQ(tipo.cuenta, 0);
  EXPECT_EQ(f.tipoVia->currentIndex(), 3);  // the user's choice stays
}

TEST_F(EnlaceTest, EnteringAnotherComboPostsNothing) {
  // Editable like the street-type combo, so only the name tells them apart.
  f.pais->setEditable(true);
  f.provincia->setEditable(true);
  auto c = f.creaControlador(alias());
  ContadorTeclaInicio tipo(f.tipoVia), pais(f.pais), provincia(f.provincia);
  Formulario::enfoca(f.pais);
  Formulario::enfoca(f.provincia);
  Formulario::enfoca(f.codIne);
  QApplication::processEvents();
  EXPECT_EQ(tipo.cuenta, 0);
  EXPECT_EQ(pais.cuenta, 0);
  EXPECT_EQ(provincia.cuenta, 0);
}

TEST_F(EnlaceTest, EnteringAControlColoursItAndShowsItsHintInTheStatusBar) {
  auto c = f.creaControlador(alias());
  const QColor antes = f.codPostal->palette().color(QPalette::Base);
  Formulario::enfoca(f.codPostal);
  EXPECT_EQ(f.codPostal->palette().color(QPalette::Base), ColorFocoControl());
  EXPECT_EQ(f.barraEstado->currentMessage(), "Código postal");
  Formulario::enfoca(f.codIne);
  EXPECT_EQ(f.codPostal->palette().color(QPalette::Base), antes);
  EXPECT_EQ(f.codIne->palette().color(QPalette::Base), ColorFocoControl());
  EXPECT_EQ(f.barraEstado->currentMessage(), "");
}

TEST_F(EnlaceTest, ControlsOutsideStreetModeGetOnlyTheFocusLook) {
  auto c = f.creaControlador(alias(), false);
  Formulario::enfoca(f.numero);
  EXPECT_EQ(f.numero->palette().color(QPalette::Base), ColorFocoControl());
  Formulario::enfoca(f.codIne);
  EXPECT_NE(f.numero->palette().color(QPalette::Base), ColorFocoControl());
}

TEST_F(EnlaceTest, MessageTimerHidesTheBalloonWhenTheLocalityEditHasNoFocus) {
  auto c = f.creaControladorConGlobo(alias());
  disparaTemporizadorDeMensajes(*c, f.codPostal);
  EXPECT_FALSE(f.globo->IsShowing());
  EXPECT_EQ(f.globo->Tag, 0);
  EXPECT_FALSE(c->oTMensajes->isActive());
}

TEST_F(EnlaceTest, MessageTimerKeepsTheBalloonWhileTheUserTypesTheLocality) {
  auto c = f.creaControladorConGlobo(alias());
  disparaTemporizadorDeMensajes(*c, f.localidad);
  EXPECT_TRUE(f.globo->IsShowing());
  EXPECT_EQ(f.globo->Tag, 1);
  EXPECT_FALSE(c->oTMensajes->isActive());  // one shot in every case
}

TEST_F(EnlaceTest, CargaBindsAHeadlessControllerAndCreatesItsTimers) {
  TClaseCodPostales c(&f.ventana, alias(), true, "");
  c.sFiltroVias = "COD_INE=28079";
  TLMDMessageHint globo;
  c.Carga(f.panelBotones, f.provincia, f.localidad, f.rejillaLocalidad, f.domicilio, f.rejillaDomicilio, f.numero,
          f.codPostal, f.codIne, f.tipoVia, f.pais, nullptr, nullptr, &globo, "", "", "", "");
  EXPECT_TRUE(c.bHazCambioFoco);
  EXPECT_EQ(c.sFiltroVias, "");
  EXPECT_EQ(c.oLMDMHProvincias, &globo);
  ASSERT_NE(c.oTDomicilio, nullptr);
  EXPECT_TRUE(c.oTDomicilio->isActive());
  ASSERT_NE(c.oTMensajes, nullptr);
  EXPECT_EQ(f.provincia->count(), 6);
  Formulario::enfoca(f.codIne);
  EXPECT_EQ(f.codIne->palette().color(QPalette::Base), ColorFocoControl());
}

TEST_F(EnlaceTest, CargaAgainReusesTheTimers) {
  auto c = f.creaControlador(alias());
  QTimer* domicilio = c->oTDomicilio;
  QTimer* mensajes = c->oTMensajes;
  c->Carga(f.panelBotones, f.provincia, f.localidad, f.rejillaLocalidad, f.domicilio, f.rejillaDomicilio, f.numero,
           f.codPostal, f.codIne, f.tipoVia, f.pais, nullptr, nullptr, nullptr, "", "", "", "");
  EXPECT_EQ(c->oTDomicilio, domicilio);
  EXPECT_EQ(c->oTMensajes, mensajes);
  EXPECT_TRUE(domicilio->isActive());
}

TEST_F(EnlaceTest, CargaOnControlsWithoutAGridPairStopsTheWorkerTimer) {
  auto c = f.creaControlador(alias());
  QTimer* domicilio = c->oTDomicilio;
  c->Carga(nullptr, nullptr, f.localidad, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
           nullptr, nullptr, nullptr, "", "", "", "");
  EXPECT_EQ(c->oTDomicilio, domicilio);
  EXPECT_FALSE(domicilio->isActive());
}

TEST_F(EnlaceTest, DestructionFreesTheTimersAndClosesTheTablesButNotTheControls) {
  auto c = f.creaControlador(alias());
  QPointer<QTimer> domicilio = c->oTDomicilio, mensajes = c->oTMensajes;
  QPointer<TDMCodPostales> modulo = c->oDataModule;
  c.reset();
  EXPECT_TRUE(domicilio.isNull());
  EXPECT_TRUE(mensajes.isNull());
  EXPECT_TRUE(modulo.isNull());
  // The host's controls live on, and their events reach no handler.
  Formulario::enfoca(f.codPostal);
  QTest::keyClicks(f.localidad, "MAD");
  EXPECT_EQ(f.localidad->text(), "MAD");
}

TEST_F(EnlaceTest, OwnerGoneBeforeTheControllerIsNoCrash) {
  auto* ventana = new QWidget;
  auto* edit = new QLineEdit(ventana);
  auto* rejilla = new QTableView(ventana);
  auto c = std::make_unique<TClaseCodPostales>(ventana, alias(), false, nullptr, nullptr, edit, rejilla, nullptr,
                                               nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                               "", "", "", "");
  delete ventana;  // takes the data module and the timers with it
  EXPECT_NO_THROW(c.reset());
}
