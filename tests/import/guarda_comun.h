// What the tests of storing imported streets share: a reference set in a
// scratch folder, the import dialog shown offscreen over a bare controller in
// street mode, the grid filled by hand (it is the hand-off between the
// readers and the storer), and the street table read back -- by the engine
// and by python3-dbfread.
#pragma once

#include <gtest/gtest.h>

#include <QMap>
#include <QString>
#include <QStringList>
#include <QWidget>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "import/ImportarVias.h"
#include "lookup/ClaseCodPostales.h"
#include "services/Rmensaje.h"
#include "support/tables.h"
#include "support/temp_dir.h"

namespace guarda {

// A row of a table: field name -> value as text (numbers without padding).
using Fila = QMap<QString, QString>;

// A street row as the import stores it (CAPITAL "9", default numbers).
testsupport::Row calleImportada(const std::string& via, const std::string& tipo, const std::string& cp,
                                const std::string& municipio, const std::string& ine, const std::string& codigo,
                                const std::string& provincia = "28");

// Appends rows to an existing table.
void anadeFilas(const std::string& ruta, const std::vector<testsupport::Row>& filas);

// The rows of a table in physical order, read by the engine.
std::vector<Fila> leeTabla(const std::string& ruta);

// The rows of a table read by python3-dbfread (code page 850), or an error
// text in `error` when the reader could not be run.
std::vector<Fila> leeConDbfread(const std::string& ruta, std::string& error);

// The rows a table file's length holds whole, by the lengths its header
// gave when this was made: what the next opening will see of a table
// another process is appending to.
class FilasPorTamano {
 public:
  explicit FilasPorTamano(std::string ruta);
  int operator()() const;

 private:
  std::string ruta_;
  uint64_t cabecera_ = 0, registro_ = 0;
};

// The codpostales command of this build.
std::string rutaCodpostales();

struct Ejecucion {
  int salida = -1;  // exit status; -1 when it did not end by itself
  std::string out;
  std::string err;
};
// Runs `codpostales importar` with these arguments to its end.
Ejecucion ejecutaImportar(const QStringList& args);

// A saved answer of the street-directory service listing these streets
// (type, name), as ConsultaVia answers.
QByteArray respuestaDeVias(const QList<std::pair<QString, QString>>& calles);

class GuardaViasTest : public ::testing::Test {
 protected:
  GuardaViasTest();
  ~GuardaViasTest() override;

  // The alias folder holds the reference set without a "Postales" folder;
  // MUNICIPI.DBF also has GETAFE under two more postcodes (28902, 28903)
  // and a SOBRADO of province 08 with several postcodes. The street table
  // of the bare controller is the folder's POSTAL.DBF, which escribeCalles
  // replaces.
  void escribeCalles(const std::vector<testsupport::Row>& filas);
  std::string rutaCalles() const { return dir.file("POSTAL.DBF"); }
  std::vector<Fila> calles() const { return leeTabla(rutaCalles()); }

  // Opens the controller and shows the dialog (mode 1, as it starts).
  void abre();
  // 1, 2 or 3: checks the radio button without its click handler, which
  // would ask the service for its lists.
  void modo(int n);
  // Chooses the province as the user does (its exit handler loads the
  // municipalities), then the municipality. Fails the test when either is
  // not in the combos.
  void elige(const QString& provincia, const QString& municipio);
  // The grid's streets: rows of cells from column 0 (type, name, postcode,
  // odd start, odd end, even start, even end).
  void rejilla(const QList<QStringList>& filas);
  void pulsaGuardar();

  QStringList textosInfo() const { return mensajes.textos(TipoMensaje::Info); }

  testsupport::TempDir dir;
  RegistroMensajes mensajes;
  std::optional<PresentadorMensajesTemporal> presentador;
  std::unique_ptr<QWidget> anfitrion;  // the dialog's owner
  std::unique_ptr<TClaseCodPostales> controlador;
  std::unique_ptr<TFImportarVias> dialogo;
};

}  // namespace guarda
