// codpostales importar: stores a saved answer's streets in the street table
// of a municipality of the tables, as the import dialog's save button does,
// without a window. Prints the count as CSV.
#include <QApplication>
#include <QComboBox>
#include <QRadioButton>
#include <memory>

#include "cli.h"
#include "controlador.h"
#include "import/ImportarVias.h"
#include "lookup/ClaseCodPostales.h"
#include "platform/TStringGrid.h"
#include "platform/TXMLDocument.h"

namespace cli {

namespace {

// Whether the grid holds a street: a cleared grid keeps one empty row.
bool hayVias(const TStringGrid* rejilla) {
  return rejilla->RowCount() >= 2 && !rejilla->Cells(1, 1).trimmed().isEmpty();
}

// Selects the item of that name (as the dialog matches names), or fails
// naming what was not found.
void elige(TFImportarVias& dialogo, QComboBox* combo, const std::string& nombre, const char* que) {
  const int indice = dialogo.Indice(combo, deUtf8(nombre));
  if (indice < 0) throw ErrorDeUso(std::string("importar: no hay ") + que + " «" + nombre + "» en las tablas");
  combo->setCurrentIndex(indice);
}

std::string cuenta(int importadas) {
  std::string salida;
  anadeCsv(salida, {"importadas"});
  anadeCsv(salida, {std::to_string(importadas)});
  return salida;
}

}  // namespace

int importar(const std::vector<std::string>& args) {
  const OpcionesBusqueda o = leeOpcionesBusqueda("importar", args, {"xml", "provincia", "municipio", "modo"});
  if (o.ayuda) {
    muestraUso(stdout);
    return kSalidaBien;
  }
  if (!o.posicionales.empty()) throw ErrorDeUso("sobra el argumento «" + o.posicionales[0] + "»");
  for (const char* opcion : {"xml", "provincia", "municipio"}) {
    if (!o.tiene(opcion)) throw ErrorDeUso(std::string("importar: falta --") + opcion);
    if (o.valor(opcion).empty()) throw ErrorDeUso(std::string("importar: --") + opcion + " vacía");
  }
  const std::string modo = o.tiene("modo") ? o.valor("modo") : "2";
  if (modo != "2" && modo != "3") throw ErrorDeUso("--modo espera 2 o 3, no «" + modo + "»");

  const auto aplicacion = creaAplicacion();
  PresentadorConsola mensajes;
  const PresentadorMensajesTemporal presentador(&mensajes);
  const std::unique_ptr<TClaseCodPostales> controlador = abreControlador(o.alias, true);
  TFImportarVias dialogo(nullptr, controlador.get());
  (modo == "3" ? dialogo.RBTodosConUno : dialogo.RBUno)->setChecked(true);

  dialogo.XML->LoadFromFile(deUtf8(o.valor("xml")));
  if (!dialogo.CargaVias())
    throw ErrorDeUso("importar: «" + o.valor("xml") + "» no es una respuesta de vías del servicio");

  dialogo.CargaProvinciasZelmor();
  elige(dialogo, dialogo.CBProvinciasZelmor, o.valor("provincia"), "ninguna provincia");
  dialogo.CBProvinciasZelmorExit(dialogo.CBProvinciasZelmor);
  elige(dialogo, dialogo.CBMunicipiosZelmor, o.valor("municipio"), "ningún municipio");

  // A cleared grid's empty row is not a street to store.
  if (!hayVias(dialogo.SGVias)) {
    std::fprintf(stderr, "codpostales: la respuesta no trae vías; no se ha importado nada\n");
    escribe(cuenta(0));
    return kSalidaBien;
  }
  dialogo.GuardaVias();
  escribe(cuenta(dialogo.nViasImportadas));
  return kSalidaBien;
}

}  // namespace cli
