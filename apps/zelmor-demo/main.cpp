// A host form that uses the component as Zelmor does.
//
//   zelmor-demo [--alias CARPETA_O_ALIAS] [--guion] [--capturas CARPETA]
//
// Opens the bundled sample reference data unless told another alias. With a
// display it shows the form for a person to use; without one (or with
// --guion) it runs offscreen, types an address, prints what every control
// shows and writes pictures of the form and of the municipality list.
#include <QApplication>
#include <QCommandLineParser>
#include <QTextStream>
#include <exception>

#include "FormularioZelmor.h"
#include "Guion.h"

int main(int argc, char** argv) {
  const bool sinPantalla = qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
  if (sinPantalla && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  QApplication::setApplicationName(QStringLiteral("Zelmor"));

  QCommandLineParser opciones;
  opciones.setApplicationDescription(QStringLiteral("Ficha de cliente de Zelmor con el asistente de direcciones"));
  opciones.addHelpOption();
  opciones.addOption({QStringLiteral("alias"), QStringLiteral("Alias o carpeta de las tablas de referencia."),
                      QStringLiteral("alias"), QStringLiteral(CODPOSTALES_MUESTRA)});
  opciones.addOption({QStringLiteral("guion"), QStringLiteral("Escribe una dirección sin esperar a nadie.")});
  opciones.addOption({QStringLiteral("capturas"), QStringLiteral("Carpeta de las capturas de pantalla."),
                      QStringLiteral("carpeta"), QApplication::applicationDirPath() + QStringLiteral("/..")});
  opciones.process(app);

  try {
    TFZelmor formulario(opciones.value(QStringLiteral("alias")));
    if (sinPantalla || opciones.isSet(QStringLiteral("guion")) ||
        QGuiApplication::platformName() == QLatin1String("offscreen"))
      return EjecutaGuion(formulario, opciones.value(QStringLiteral("capturas")));
    formulario.show();
    return app.exec();
  } catch (const std::exception& e) {
    QTextStream(stderr) << "zelmor-demo: " << QString::fromUtf8(e.what()) << Qt::endl;
    return 2;
  }
}
