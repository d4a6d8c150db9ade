// The local OVCCallejero service (apps/ovc-simulador) run for one test: on a
// free port, with the recorded answers of the shared folder, and a log of
// every request it receives.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <memory>

#include "support/temp_dir.h"

class QProcess;

namespace testsupport {

// One request as the simulator logged it.
struct PeticionOvc {
  int n = 0;       // from 1, in order of arrival
  qint64 ms = 0;   // since the simulator started
  QString metodo;
  QString ruta;
  QString soapAction;   // the header as sent, quotes included
  QString userAgent;    // empty when the header was absent
  QString contentType;
  QByteArray cuerpo;    // the exact body bytes
};

class SimuladorOvc {
 public:
  // Starts ovc-simulador --puerto 0 --ovc <sharedDir()/ovc> --registro <log>
  // plus `argumentos`, and waits (15 s at most) for its address. Throws
  // std::runtime_error, with what the simulator wrote on stderr, when it does
  // not start. Tests check sharedDir() first and skip without it.
  explicit SimuladorOvc(const QStringList& argumentos = {});
  ~SimuladorOvc();
  SimuladorOvc(const SimuladorOvc&) = delete;
  SimuladorOvc& operator=(const SimuladorOvc&) = delete;

  // http://127.0.0.1:PORT/ovcservweb/OVCSWLocalizacionRC/OVCCallejero.asmx
  QString url() const { return url_; }
  // The requests received so far.
  QList<PeticionOvc> peticiones() const;

  // Where the program is: <build>/bin/ovc-simulador.
  static QString programa();

 private:
  TempDir carpeta_;
  std::unique_ptr<QProcess> proceso_;
  QString url_;
};

}  // namespace testsupport
