// codpostales sugerir: the ranked localities the controller offers for a
// name the strict search does not find (accents, articles, typos).
#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"
#include "controlador.h"
#include "lookup/ClaseCodPostales.h"

namespace cli {

namespace {

constexpr int kMaximoPorDefecto = 10;

}  // namespace

int sugerir(const std::vector<std::string>& args) {
  const OpcionesBusqueda o = leeOpcionesBusqueda("sugerir", args, {"maximo"});
  if (o.ayuda) {
    muestraUso(stdout);
    return kSalidaBien;
  }
  const QString texto = deUtf8(unicoPosicional("sugerir", o, "el texto a buscar"));
  const int maximo = o.tiene("maximo") ? enteroPositivo(o.valor("maximo"), "maximo") : kMaximoPorDefecto;

  auto c = abreControlador(o.alias, false);
  const QList<SugerenciaLocalidad> sugerencias = c->SugiereLocalidades(texto, maximo);

  std::string salida;
  anadeCsv(salida, {"NOMBRE", "PROVINCIA", "COD_INE", "CODPOSTAL", "ENT_MENOR", "DIFERENCIAS"});
  for (const SugerenciaLocalidad& s : sugerencias)
    anadeCsv(salida, {aUtf8(s.Nombre), aUtf8(s.Provincia), aUtf8(s.CodIne), aUtf8(s.CodPostal),
                      s.EntidadMenor ? "T" : "F", std::to_string(s.Diferencias)});
  escribe(salida);
  if (sugerencias.isEmpty()) {
    std::fprintf(stderr, "codpostales: ninguna localidad se parece a «%s»\n", aUtf8(texto).c_str());
    return kSalidaNoEncontrado;
  }
  return kSalidaBien;
}

}  // namespace cli
