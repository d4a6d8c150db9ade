// Shared by the tests of the street-directory client: the dialog used as the
// client (no controller), pointed at a local simulator, with its messages
// recorded instead of shown.
#pragma once

#include <QByteArray>
#include <QString>
#include <gtest/gtest.h>
#include <memory>
#include <optional>

#include "import/ImportarVias.h"
#include "services/Rmensaje.h"
#include "support/simulador_ovc.h"
#include "support/temp_dir.h"

namespace testsupport {

// Sets an environment variable for the span of a test, then puts back what
// was there.
class EntornoTemporal {
 public:
  EntornoTemporal(const char* nombre, const QByteArray& valor);
  ~EntornoTemporal();
  EntornoTemporal(const EntornoTemporal&) = delete;
  EntornoTemporal& operator=(const EntornoTemporal&) = delete;

 private:
  const char* nombre_;
  std::optional<QByteArray> anterior_;
};

// A cliente (the dialog without controller) talking to a simulator started
// with the given options. Its "POSTAL" folder lives in a scratch folder.
class ClienteOvc {
 public:
  explicit ClienteOvc(const QStringList& opcionesSimulador = {});

  TFImportarVias& dialogo() { return *dialogo_; }
  SimuladorOvc& simulador() { return *simulador_; }
  RegistroMensajes& mensajes() { return mensajes_; }
  const TempDir& carpeta() const { return carpeta_; }

  // Chooses a text in a combo, adding it when the list lacks it.
  static void Elige(QComboBox* combo, const QString& texto);

 private:
  TempDir carpeta_;
  RegistroMensajes mensajes_;
  PresentadorMensajesTemporal presentador_{&mensajes_};
  std::unique_ptr<SimuladorOvc> simulador_;
  std::unique_ptr<EntornoTemporal> url_;
  EntornoTemporal intervalo_{"CODPOSTALES_OVC_INTERVALO_MS", "0"};
  std::unique_ptr<TFImportarVias> dialogo_;
};

// A SOAP answer of the service around a consulta_* document, as the client
// receives it: the operation's response element (Provincias, Municipios,
// Callejero) around the document.
QByteArray RespuestaSoap(const char* elemento, const QString& documento);

}  // namespace testsupport

// Skips a test when the shared reference data (recorded answers) is absent.
#define REQUIERE_DATOS_COMPARTIDOS()                                                    \
  do {                                                                                  \
    if (testsupport::sharedDir().empty()) GTEST_SKIP() << "sin la carpeta ../shared"; \
  } while (0)
