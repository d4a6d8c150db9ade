// codpostales ine: a municipality's INE code by its name and province, the
// look-up the controller makes without moving the tables on screen.
#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"
#include "controlador.h"
#include "lookup/ClaseCodPostales.h"
#include "services/Rnumcad.h"

namespace cli {

int ine(const std::vector<std::string>& args) {
  const OpcionesBusqueda o = leeOpcionesBusqueda("ine", args, {"provincia"});
  if (o.ayuda) {
    muestraUso(stdout);
    return kSalidaBien;
  }
  const QString nombre = UpperCase(deUtf8(unicoPosicional("ine", o, "el nombre del municipio")));
  if (!o.tiene("provincia")) throw ErrorDeUso("ine: falta --provincia (el código de la provincia)");
  const QString provincia = codigoDeProvincia(o.valor("provincia"), "provincia");

  auto c = abreControlador(o.alias, false);
  const QString codigo = c->BuscaCodIne(nombre, provincia);
  std::string salida = "COD_INE\n";
  if (codigo.isEmpty()) {
    escribe(salida);
    std::fprintf(stderr, "codpostales: ningún municipio %s en la provincia %s\n", aUtf8(nombre).c_str(),
                 aUtf8(provincia).c_str());
    return kSalidaNoEncontrado;
  }
  anadeCsv(salida, {aUtf8(codigo)});
  escribe(salida);
  return kSalidaBien;
}

}  // namespace cli
