#include "services/Rmensaje.h"

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QPointer>
#include <QTest>
#include <QThread>
#include <QElapsedTimer>
#include <QTimer>
#include <QWidget>

#include <functional>
#include <memory>

#include "qstring_print.h"

namespace {

// What a modal box looked like when it was dismissed.
struct CajaVista {
  bool vista = false;
  QString titulo;
  QString texto;
  QMessageBox::Icon icono = QMessageBox::NoIcon;
  Qt::TextFormat formato = Qt::AutoText;
  QWidget* padre = nullptr;
};

// Runs `accion`, which opens a modal box, and presses its OK button as soon as
// the box appears, noting what it showed.
CajaVista pulsaOkEnLaCajaDe(const std::function<void()>& accion) {
  CajaVista vista;
  QTimer vigia;
  vigia.setInterval(10);
  QObject::connect(&vigia, &QTimer::timeout, [&] {
    auto* caja = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
    if (!caja) return;
    vigia.stop();
    vista = {true, caja->windowTitle(), caja->text(), caja->icon(), caja->textFormat(), caja->parentWidget()};
    caja->button(QMessageBox::Ok)->click();
  });
  vigia.start();
  accion();
  return vista;
}

TAvisoEmergente* avisoVisible() {
  for (QWidget* w : QApplication::topLevelWidgets())
    if (auto* aviso = qobject_cast<TAvisoEmergente*>(w); aviso && aviso->isVisible()) return aviso;
  return nullptr;
}

}  // namespace

// --- Line breaks -------------------------------------------------------------

TEST(Rmensaje, CarriageReturnsBecomeLineBreaks) {
  EXPECT_EQ(SaltosDeLinea("uno\rdos"), "uno\ndos");
  EXPECT_EQ(SaltosDeLinea("uno\r\ndos"), "uno\ndos");
  EXPECT_EQ(SaltosDeLinea("uno\r\rdos\n"), "uno\n\ndos\n");
  EXPECT_EQ(SaltosDeLinea("sin saltos"), "sin saltos");
}

// --- Recording presenter ------------------------------------------------------

TEST(Rmensaje, MensajeErrorReachesTheRecordingPresenterWithTitleAndText) {
  RegistroMensajes registro;
  PresentadorMensajesTemporal usa(&registro);
  QWidget ventana;

  Mensaje_Error(&ventana, "No existe el fichero\rCODPOST.DBF", "Codigos postales");

  ASSERT_EQ(registro.mensajes().size(), 1);
  const MensajeRegistrado& m = registro.ultimo();
  EXPECT_EQ(m.tipo, TipoMensaje::Error);
  EXPECT_EQ(m.titulo, "Codigos postales");
  EXPECT_EQ(m.texto, "No existe el fichero\nCODPOST.DBF");
  EXPECT_EQ(m.propietario, &ventana);
}

TEST(Rmensaje, MensajeErrorWithoutOwnerIsRecorded) {
  RegistroMensajes registro;
  PresentadorMensajesTemporal usa(&registro);
  Mensaje_Error(nullptr, "Fallo", "");
  ASSERT_EQ(registro.cuenta(TipoMensaje::Error), 1);
  EXPECT_EQ(registro.ultimo().propietario, nullptr);
  EXPECT_EQ(registro.ultimo().titulo, "");
}

TEST(Rmensaje, MensajeInfoReachesTheRecordingPresenterWithItsOption) {
  RegistroMensajes registro;
  PresentadorMensajesTemporal usa(&registro);
  QObject duenno;

  Mensaje_Info(&duenno, "Proceso\r\nterminado", "Aviso", 0);
  Mensaje_Info(nullptr, "Otro", "Aviso", 7);

  const auto infos = registro.deTipo(TipoMensaje::Info);
  ASSERT_EQ(infos.size(), 2);
  EXPECT_EQ(infos[0].texto, "Proceso\nterminado");
  EXPECT_EQ(infos[0].titulo, "Aviso");
  EXPECT_EQ(infos[0].opcion, 0);
  EXPECT_EQ(infos[0].propietario, &duenno);
  EXPECT_EQ(infos[1].opcion, 7);
  EXPECT_EQ(registro.cuenta(TipoMensaje::Error), 0);
}

TEST(Rmensaje, MensajeEmergenteReachesTheRecordingPresenterWithAllItsTexts) {
  RegistroMensajes registro;
  PresentadorMensajesTemporal usa(&registro);

  Mensaje_Emergente(nullptr, "Calle\rencontrada", "Busqueda", "H", IconoInformacion, "");

  ASSERT_EQ(registro.cuenta(TipoMensaje::Emergente), 1);
  const MensajeRegistrado& m = registro.ultimo();
  EXPECT_EQ(m.texto, "Calle\nencontrada");
  EXPECT_EQ(m.titulo, "Busqueda");
  EXPECT_EQ(m.posicion, "H");
  EXPECT_EQ(m.opcion, 4);
  EXPECT_EQ(m.detalle, "");
}

TEST(Rmensaje, RecordingPresenterKeepsTheOrderOfCalls) {
  RegistroMensajes registro;
  PresentadorMensajesTemporal usa(&registro);
  Mensaje_Info(nullptr, "uno", "t", 0);
  Mensaje_Error(nullptr, "dos", "t");
  Mensaje_Info(nullptr, "tres", "t", 0);
  ASSERT_EQ(registro.mensajes().size(), 3);
  EXPECT_EQ(registro.mensajes()[1].tipo, TipoMensaje::Error);
  EXPECT_EQ(registro.textos(TipoMensaje::Info), QStringList({"uno", "tres"}));
  registro.limpia();
  EXPECT_TRUE(registro.vacio());
}

TEST(Rmensaje, WaitWindowCallsReachTheRecordingPresenter) {
  RegistroMensajes registro;
  PresentadorMensajesTemporal usa(&registro);
  QWidget duenno;

  TVentanaEspera* espera = MuestraMensaje("Leyendo\rcalles", &duenno);
  ASSERT_NE(espera, nullptr);
  EXPECT_FALSE(espera->isVisible());
  CambiaMensaje("Calle 10 de 20", espera);
  CierraMensaje(espera);

  ASSERT_EQ(registro.mensajes().size(), 3);
  EXPECT_EQ(registro.mensajes()[0].tipo, TipoMensaje::Muestra);
  EXPECT_EQ(registro.mensajes()[0].texto, "Leyendo\ncalles");
  EXPECT_EQ(registro.mensajes()[0].propietario, &duenno);
  EXPECT_EQ(registro.mensajes()[1].tipo, TipoMensaje::Cambia);
  EXPECT_EQ(registro.mensajes()[1].texto, "Calle 10 de 20");
  EXPECT_EQ(registro.mensajes()[2].tipo, TipoMensaje::Cierra);
  EXPECT_EQ(registro.mensajes()[2].texto, "Calle 10 de 20");
  for (const MensajeRegistrado& m : registro.mensajes()) EXPECT_EQ(m.ventana, espera);
  EXPECT_FALSE(TVentanaEspera::existe(espera));
}

TEST(Rmensaje, RecordingPresenterFreesWaitWindowsLeftOpen) {
  TVentanaEspera* espera = nullptr;
  {
    RegistroMensajes registro;
    PresentadorMensajesTemporal usa(&registro);
    espera = MuestraMensaje("Sin cerrar", nullptr);
    ASSERT_TRUE(TVentanaEspera::existe(espera));
  }
  EXPECT_FALSE(TVentanaEspera::existe(espera));
  CierraMensaje(espera);  // a stale handle is ignored
}

TEST(Rmensaje, TemporaryPresenterPutsThePreviousOneBack) {
  PresentadorMensajes* original = PresentadorMensajesActual();
  RegistroMensajes exterior;
  RegistroMensajes interior;
  {
    PresentadorMensajesTemporal a(&exterior);
    {
      PresentadorMensajesTemporal b(&interior);
      Mensaje_Error(nullptr, "dentro", "t");
    }
    Mensaje_Error(nullptr, "fuera", "t");
  }
  EXPECT_EQ(PresentadorMensajesActual(), original);
  EXPECT_EQ(interior.textos(TipoMensaje::Error), QStringList({"dentro"}));
  EXPECT_EQ(exterior.textos(TipoMensaje::Error), QStringList({"fuera"}));
}

TEST(Rmensaje, InstallingNullPresenterBringsBackTheDefault) {
  RegistroMensajes registro;
  PresentadorMensajes* previo = EstablecePresentadorMensajes(&registro);
  EXPECT_EQ(PresentadorMensajesActual(), &registro);
  EXPECT_EQ(EstablecePresentadorMensajes(nullptr), &registro);
  EXPECT_NE(PresentadorMensajesActual(), nullptr);
  EXPECT_NE(dynamic_cast<PresentadorMensajesQt*>(PresentadorMensajesActual()), nullptr);
  EstablecePresentadorMensajes(previo);
}

TEST(Rmensaje, WaitWindowCallsWithNullHandleDoNothing) {
  RegistroMensajes registro;
  PresentadorMensajesTemporal usa(&registro);
  CambiaMensaje("nada", nullptr);
  CierraMensaje(nullptr);
  EXPECT_TRUE(registro.vacio());
}

// --- Default presenter -----------------------------------------------------------

TEST(Rmensaje, WaitWindowShowsTheChangedText) {
  PresentadorMensajesQt qt;
  PresentadorMensajesTemporal usa(&qt);

  TVentanaEspera* espera = MuestraMensaje("Cargando\rcodigos", nullptr);
  ASSERT_NE(espera, nullptr);
  QPointer<TVentanaEspera> vigilada(espera);
  EXPECT_TRUE(espera->isVisible());
  EXPECT_FALSE(espera->isModal());
  EXPECT_EQ(QApplication::activeModalWidget(), nullptr);
  auto* etiqueta = espera->findChild<QLabel*>();
  ASSERT_NE(etiqueta, nullptr);
  EXPECT_EQ(etiqueta->text(), "Cargando\ncodigos");

  CambiaMensaje("Provincia 28 de 52", espera);
  EXPECT_EQ(etiqueta->text(), "Provincia 28 de 52");
  EXPECT_EQ(espera->texto(), "Provincia 28 de 52");

  CierraMensaje(espera);
  EXPECT_TRUE(vigilada.isNull());
  EXPECT_FALSE(TVentanaEspera::existe(espera));
}

namespace {
class CuentaPintados : public QObject {
 public:
  int pintados = 0;
  bool eventFilter(QObject*, QEvent* e) override {
    if (e->type() == QEvent::Paint) ++pintados;
    return false;
  }
};
}  // namespace

TEST(Rmensaje, WaitWindowRepaintsAtOnceWhenTheTextChanges) {
  PresentadorMensajesQt qt;
  qt.setIntervaloPintura(0);  // every change painted
  PresentadorMensajesTemporal usa(&qt);
  TVentanaEspera* espera = MuestraMensaje("Paso 1", nullptr);
  ASSERT_NE(espera, nullptr);
  ASSERT_TRUE(QTest::qWaitForWindowExposed(espera));

  CuentaPintados cuenta;
  espera->etiqueta()->installEventFilter(&cuenta);
  // No return to the event loop in between, as in the host's long loops.
  for (int i = 2; i <= 4; ++i) CambiaMensaje("Paso " + QString::number(i), espera);
  EXPECT_GE(cuenta.pintados, 3);
  EXPECT_EQ(espera->texto(), "Paso 4");
  CierraMensaje(espera);
}

TEST(Rmensaje, WaitWindowPaintsAtMostOncePerIntervalHoweverOftenItsTextChanges) {
  PresentadorMensajesQt qt;
  ASSERT_EQ(qt.intervaloPintura(), 250);
  PresentadorMensajesTemporal usa(&qt);
  TVentanaEspera* espera = MuestraMensaje("Importando las calles de BURGOS", nullptr);
  ASSERT_NE(espera, nullptr);
  ASSERT_TRUE(QTest::qWaitForWindowExposed(espera));
  QTest::qWait(300);

  CuentaPintados cuenta;
  espera->etiqueta()->installEventFilter(&cuenta);
  // A street at a time, without a return to the event loop: the first change
  // is painted at once, the others within the interval only take the text.
  QElapsedTimer reloj;
  reloj.start();
  for (int i = 1; i <= 200; ++i)
    CambiaMensaje(QStringLiteral("Importando las calles... %1 de 200 de BURGOS").arg(i), espera);
  ASSERT_LT(reloj.elapsed(), 250) << "too slow a machine to tell";
  EXPECT_EQ(cuenta.pintados, 1);
  EXPECT_EQ(espera->texto(), "Importando las calles... 200 de 200 de BURGOS") << "every text is taken";

  // Once the interval has passed the next change is painted at once, still
  // without the event loop.
  QThread::msleep(300);
  CambiaMensaje("Importando las calles de BURGOS", espera);
  EXPECT_EQ(cuenta.pintados, 2);
  CierraMensaje(espera);
}

TEST(Rmensaje, WaitWindowOpenedWithinTheIntervalShowsWhenItEndsOrNeverIfClosedBefore) {
  PresentadorMensajesQt qt;
  PresentadorMensajesTemporal usa(&qt);
  TVentanaEspera* primera = MuestraMensaje("Importando las calles de ABAJAS", nullptr);
  ASSERT_NE(primera, nullptr);
  EXPECT_TRUE(primera->isVisible()) << "the first one at once";
  CierraMensaje(primera);

  // One per municipality, each closed at once: none is shown.
  int vistas = 0;
  for (int i = 0; i < 50; ++i) {
    TVentanaEspera* v = MuestraMensaje(QStringLiteral("Importando las calles de %1").arg(i), nullptr);
    vistas += v->isVisible();
    CierraMensaje(v);
  }
  EXPECT_EQ(vistas, 0);

  // One that stays: shown when the interval ends, the events running (as
  // they do while a fetch waits).
  TVentanaEspera* espera = MuestraMensaje("Importando el listado de provincias", nullptr);
  QPointer<TVentanaEspera> vigilada(espera);
  EXPECT_TRUE(QTest::qWaitFor([&] { return vigilada && vigilada->isVisible(); }, 1000));
  EXPECT_EQ(espera->texto(), "Importando el listado de provincias");
  CierraMensaje(espera);
}

TEST(Rmensaje, WaitWindowGrowsToFitALongerText) {
  PresentadorMensajesQt qt;
  PresentadorMensajesTemporal usa(&qt);
  TVentanaEspera* espera = MuestraMensaje("Corto", nullptr);
  ASSERT_NE(espera, nullptr);
  CambiaMensaje(QString(200, 'x'), espera);
  // Fitted when it is painted next, a moment later at most.
  QPointer<TVentanaEspera> vigilada(espera);
  EXPECT_TRUE(QTest::qWaitFor([&] { return vigilada && vigilada->width() >= vigilada->sizeHint().width(); }, 1000));
  EXPECT_GE(espera->width(), espera->sizeHint().width());
  CierraMensaje(espera);
}

// A run changes the text at every row; measuring it each time cost more
// than the run's own work. The window is fitted when it is painted.
TEST(Rmensaje, WaitWindowIsFittedToItsTextWhenPaintedNotAtEveryChange) {
  PresentadorMensajesQt qt;
  qt.setIntervaloPintura(60000);
  PresentadorMensajesTemporal usa(&qt);
  TVentanaEspera* espera = MuestraMensaje("Corto", nullptr);
  ASSERT_NE(espera, nullptr);
  ASSERT_TRUE(espera->isVisible());  // the first paint is at once
  const int ancho = espera->width();
  CambiaMensaje(QString(200, 'x'), espera);  // within the interval: not painted
  EXPECT_EQ(espera->width(), ancho);
  EXPECT_LT(ancho, espera->sizeHint().width());
  qt.setIntervaloPintura(0);
  CambiaMensaje(QString(201, 'x'), espera);  // painted
  EXPECT_GE(espera->width(), espera->sizeHint().width());
  CierraMensaje(espera);
}

TEST(Rmensaje, WaitWindowGoneWithItsOwnerIgnoresLaterCalls) {
  PresentadorMensajesQt qt;
  PresentadorMensajesTemporal usa(&qt);
  auto duenno = std::make_unique<QWidget>();
  duenno->show();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(duenno.get()));

  TVentanaEspera* espera = MuestraMensaje("Espere", duenno.get());
  ASSERT_NE(espera, nullptr);
  EXPECT_TRUE(espera->isVisible());
  duenno.reset();

  EXPECT_FALSE(TVentanaEspera::existe(espera));
  CambiaMensaje("tarde", espera);
  CierraMensaje(espera);
}

TEST(Rmensaje, WaitWindowOpenedWithOwnerIsPlacedOverIt) {
  PresentadorMensajesQt qt;
  PresentadorMensajesTemporal usa(&qt);
  QWidget duenno;
  duenno.setGeometry(100, 100, 600, 400);
  duenno.show();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&duenno));

  TVentanaEspera* espera = MuestraMensaje("Espere", &duenno);
  ASSERT_NE(espera, nullptr);
  EXPECT_TRUE(duenno.frameGeometry().contains(espera->geometry().center()));
  CierraMensaje(espera);
}

TEST(Rmensaje, DefaultErrorBoxShowsTitleAndTextAndReturnsWhenDismissed) {
  PresentadorMensajesQt qt;
  PresentadorMensajesTemporal usa(&qt);
  QWidget ventana;
  ventana.show();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&ventana));

  const CajaVista vista =
      pulsaOkEnLaCajaDe([&] { Mensaje_Error(&ventana, "No se puede abrir\r<CODPOST.DBF>", "Error"); });

  ASSERT_TRUE(vista.vista);
  EXPECT_EQ(vista.titulo, "Error");
  EXPECT_EQ(vista.texto, "No se puede abrir\n<CODPOST.DBF>");
  EXPECT_EQ(vista.icono, QMessageBox::Critical);
  EXPECT_EQ(vista.formato, Qt::PlainText);
  EXPECT_EQ(vista.padre, &ventana);
}

TEST(Rmensaje, DefaultInfoBoxShowsTitleAndTextAndReturnsWhenDismissed) {
  PresentadorMensajesQt qt;
  PresentadorMensajesTemporal usa(&qt);

  const CajaVista vista = pulsaOkEnLaCajaDe([] { Mensaje_Info(nullptr, "Hecho", "Informacion", 0); });

  ASSERT_TRUE(vista.vista);
  EXPECT_EQ(vista.titulo, "Informacion");
  EXPECT_EQ(vista.texto, "Hecho");
  EXPECT_EQ(vista.icono, QMessageBox::Information);
}

TEST(Rmensaje, DefaultPopUpNoticeShowsWithoutBlockingAndClosesItself) {
  PresentadorMensajesQt qt;
  qt.setDuracionEmergente(150);
  PresentadorMensajesTemporal usa(&qt);

  Mensaje_Emergente(nullptr, "Codigo\rasignado", "Aviso", "H", IconoInformacion, "");

  QPointer<TAvisoEmergente> aviso = avisoVisible();
  ASSERT_FALSE(aviso.isNull());
  EXPECT_EQ(QApplication::activeModalWidget(), nullptr);
  EXPECT_EQ(aviso->texto(), "Codigo\nasignado");
  EXPECT_EQ(aviso->titulo(), "Aviso");
  EXPECT_EQ(aviso->icono(), IconoInformacion);
  EXPECT_TRUE(aviso->windowFlags().testFlag(Qt::FramelessWindowHint));
  EXPECT_TRUE(QTest::qWaitFor([&] { return aviso.isNull(); }, 5000));
}

TEST(Rmensaje, DefaultPopUpNoticeShowsTheDetailLine) {
  PresentadorMensajesQt qt;
  PresentadorMensajesTemporal usa(&qt);
  QWidget ventana;
  ventana.setGeometry(50, 50, 500, 300);
  ventana.show();
  ASSERT_TRUE(QTest::qWaitForWindowExposed(&ventana));

  Mensaje_Emergente(&ventana, "Texto", "", "C", IconoAviso, "mas datos");

  QPointer<TAvisoEmergente> aviso = avisoVisible();
  ASSERT_FALSE(aviso.isNull());
  EXPECT_EQ(aviso->detalle(), "mas datos");
  EXPECT_EQ(aviso->parentWidget(), &ventana);
  EXPECT_TRUE(ventana.frameGeometry().contains(aviso->geometry().center()));
  // A click dismisses it at once.
  QTest::mouseClick(aviso.data(), Qt::LeftButton);
  EXPECT_TRUE(QTest::qWaitFor([&] { return aviso.isNull(); }, 2000));
}
