// ovc-simulador: a local SOAP server that answers like the cadastre's
// OVCCallejero service (ConsultaProvincia, ConsultaMunicipio, ConsultaVia),
// with the recorded answers of the service, streets from dBase tables or
// made up, and the failures the street import has to survive.
#include <QCoreApplication>
#include <QSocketNotifier>
#include <csignal>
#include <cstdio>
#include <exception>
#include <sys/socket.h>
#include <unistd.h>

#include "datos.h"
#include "opciones.h"
#include "servidor.h"

namespace {

// SIGTERM and SIGINT reach the event loop through a socket pair, so the
// server stops as a normal return from main (exit status 0).
int gTuberiaSenales[2] = {-1, -1};

void alRecibirSenal(int) {
  const char c = 1;
  [[maybe_unused]] const ssize_t escrito = ::write(gTuberiaSenales[0], &c, 1);
}

void atiendeSenales(QCoreApplication& app) {
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, gTuberiaSenales) != 0) return;
  auto* aviso = new QSocketNotifier(gTuberiaSenales[1], QSocketNotifier::Read, &app);
  QObject::connect(aviso, &QSocketNotifier::activated, &app, [] { QCoreApplication::quit(); });
  struct sigaction accion = {};
  accion.sa_handler = alRecibirSenal;
  sigemptyset(&accion.sa_mask);
  accion.sa_flags = SA_RESTART;
  sigaction(SIGTERM, &accion, nullptr);
  sigaction(SIGINT, &accion, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  std::signal(SIGPIPE, SIG_IGN);
  try {
    QStringList argumentos = QCoreApplication::arguments();
    argumentos.removeFirst();
    const simulador::Opciones opciones = simulador::leeOpciones(argumentos);
    if (opciones.ayuda) {
      simulador::muestraUso(stdout);
      return simulador::kSalidaBien;
    }
    simulador::Datos datos(opciones.carpetaOvc, opciones.carpetaCalles);
    simulador::Servidor servidor(datos, opciones);
    servidor.escucha();
    atiendeSenales(app);
    std::printf("%s\n", servidor.url().toUtf8().constData());
    std::fflush(stdout);
    return app.exec();
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "ovc-simulador: %s\n", e.what());
    return simulador::kSalidaError;
  }
}
