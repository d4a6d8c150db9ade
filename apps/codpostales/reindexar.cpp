// codpostales reindexar: writes a table's production index (.MDX) whole,
// with the tags it had or with those given, as dBase's REINDEX does.
#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/mdx_build.h"

namespace cli {

namespace {

struct OpcionesReindexar {
  std::string fichero;
  std::vector<dbase::TagDefinition> tags;
  bool ayuda = false;
};

OpcionesReindexar leeOpciones(const std::vector<std::string>& args) {
  OpcionesReindexar o;
  Argumentos a(args);
  std::string nombre;
  auto ultimo = [&](const std::string& opcion) -> dbase::TagDefinition& {
    if (o.tags.empty()) throw ErrorDeUso("--" + opcion + " va detrás del --tag al que se refiere");
    return o.tags.back();
  };
  while (a.quedan()) {
    if (!a.siguienteEsOpcion(nombre)) {
      if (!o.fichero.empty()) throw ErrorDeUso("sobra el argumento «" + a.posicional() + "»");
      o.fichero = a.posicional();
      continue;
    }
    if (nombre == "ayuda") {
      o.ayuda = true;
    } else if (nombre == "tag") {
      const std::string valor = a.valor(nombre);
      const size_t igual = valor.find('=');
      if (igual == std::string::npos || igual == 0 || igual + 1 == valor.size())
        throw ErrorDeUso("--tag espera NOMBRE=EXPRESION, no «" + valor + "»");
      o.tags.push_back({valor.substr(0, igual), valor.substr(igual + 1), "", false, false});
    } else if (nombre == "para") {
      ultimo(nombre).forCondition = a.valor(nombre);
    } else if (nombre == "unico") {
      a.sinValor(nombre);
      ultimo(nombre).unique = true;
    } else if (nombre == "descendente") {
      a.sinValor(nombre);
      ultimo(nombre).descending = true;
    } else {
      throw ErrorDeUso("opción desconocida para reindexar: --" + nombre);
    }
  }
  if (!o.ayuda && o.fichero.empty()) throw ErrorDeUso("reindexar: falta el fichero .DBF");
  return o;
}

}  // namespace

int reindexar(const std::vector<std::string>& args) {
  const OpcionesReindexar o = leeOpciones(args);
  if (o.ayuda) {
    muestraUso(stdout);
    return kSalidaBien;
  }
  auto fichero = abreTabla(o.fichero);
  std::vector<dbase::TagDefinition> tags = o.tags.empty() ? dbase::productionTags(*fichero) : o.tags;
  if (tags.empty())
    throw ErrorDeUso(fichero->name() + ": la tabla no tiene índice de producción; dé sus índices con --tag");
  dbase::rebuildProductionIndex(*fichero, tags);
  std::fprintf(stderr, "%s: %zu índices escritos\n", fichero->name().c_str(), tags.size());
  return kSalidaBien;
}

}  // namespace cli
