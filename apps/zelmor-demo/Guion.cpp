#include "Guion.h"

#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QKeyEvent>
#include <QLineEdit>
#include <QPixmap>
#include <QPushButton>
#include <QTableView>
#include <QTextStream>
#include <QThread>
#include <QTimer>

#include "FormularioZelmor.h"
#include "import/ImportarVias.h"
#include "municipalities/ListadoMunicipios.h"
#include "services/Rmensaje.h"

namespace {

void espera(int ms = 30) {
  QApplication::processEvents();
  QThread::msleep(ms);
  QApplication::processEvents();
}

// One key, down and up, to the control that has the focus.
void pulsa(int tecla, const QString& texto = QString(), Qt::KeyboardModifiers mod = Qt::NoModifier) {
  QWidget* destino = QApplication::focusWidget();
  if (!destino) return;
  QKeyEvent abajo(QEvent::KeyPress, tecla, mod, texto);
  QApplication::sendEvent(destino, &abajo);
  if (QWidget* ahora = QApplication::focusWidget()) {
    QKeyEvent arriba(QEvent::KeyRelease, tecla, mod, texto);
    QApplication::sendEvent(ahora, &arriba);
  }
  espera(5);
}

void teclea(const QString& texto) {
  for (QChar c : texto) pulsa(c.toUpper().unicode(), QString(c));
}

void eligeEnCombo(QComboBox* combo, const QString& texto) {
  combo->setFocus(Qt::TabFocusReason);
  espera();
  combo->setCurrentIndex(combo->findText(texto));
  pulsa(Qt::Key_Tab);
}

bool guarda(QWidget* w, const QString& fichero) {
  const bool ok = w->grab().save(fichero);
  QTextStream(stdout) << (ok ? "Captura: " : "No se pudo guardar la captura: ") << fichero << Qt::endl;
  return ok;
}

}  // namespace

int EjecutaGuion(TFZelmor& f, const QString& carpeta) {
  // Boxes go to the output instead of waiting for a click nobody will make.
  RegistroMensajes mensajes;
  PresentadorMensajesTemporal temporal(&mensajes);
  QDir().mkpath(carpeta);
  f.show();
  QApplication::setActiveWindow(&f);
  espera(100);

  eligeEnCombo(f.advCBPais, QStringLiteral("ESPAÑA [900]"));
  eligeEnCombo(f.advCBProvincia, QStringLiteral("MADRID [28]"));
  f.advELocalidad->setFocus(Qt::TabFocusReason);
  espera();
  teclea(QStringLiteral("GETAF"));
  espera();
  guarda(&f, carpeta + QStringLiteral("/zelmor-demo-localidad.png"));
  pulsa(Qt::Key_Tab);
  f.advEDomicilio->setFocus(Qt::TabFocusReason);
  espera();
  teclea(QStringLiteral("ARRA"));
  pulsa(Qt::Key_Tab);
  teclea(QStringLiteral("12"));
  pulsa(Qt::Key_Tab);
  espera(300);  // the grids fold away at the timer's next tick

  QTextStream salida(stdout);
  for (const QString& linea : f.Textos()) salida << linea << Qt::endl;
  for (const QString& texto : mensajes.textos(TipoMensaje::Error)) salida << "Error: " << texto << Qt::endl;
  guarda(&f, carpeta + QStringLiteral("/zelmor-demo.png"));

  // The municipality list as the host's button opens it, pictured and closed.
  QTimer::singleShot(200, [&] {
    if (auto* listado = qobject_cast<TFListadoMunicipios*>(QApplication::activeModalWidget())) {
      listado->advELocalidad->setFocus();
      espera();
      teclea(QStringLiteral("ALC"));
      espera();
      guarda(listado, carpeta + QStringLiteral("/listado-municipios.png"));
      listado->advGBCancelar->click();
    }
  });
  f.advGBMunicipios->click();

  // The street import as the host's button opens it: mode 1 reads the sample
  // postcode file of Alcalá de Henares and chooses the host's municipality;
  // pictured and closed without saving, so the sample data stays as it is.
  QTimer::singleShot(200, [&] {
    if (auto* importar = qobject_cast<TFImportarVias*>(QApplication::activeModalWidget())) {
      importar->CBProvincias->setCurrentIndex(importar->CBProvincias->findText(QStringLiteral("28-ALCALÁ DE HENARES")));
      importar->advGBBuscarViasPorMunicipio->click();
      espera(100);
      guarda(importar, carpeta + QStringLiteral("/importar-vias.png"));
      importar->advGBCancelar->click();
    }
  });
  f.advGBImportarVias->click();

  const bool completa = f.advELocalidad->text() == QStringLiteral("GETAFE") &&
                        f.advEDomicilio->text() == QStringLiteral("ARRABAL (EL)") &&
                        !f.advECodPostal->text().isEmpty() && f.advECodINE->text() == QStringLiteral("28065");
  return completa ? 0 : 1;
}
