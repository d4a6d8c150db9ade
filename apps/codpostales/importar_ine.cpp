// codpostales importar-ine: stores INE's electoral-census street directory
// (a TRAM file and its VIAS file) in the street tables of an alias or folder,
// and prints what it did as CSV. Bad lines, unknown street types and
// municipalities the tables lack are told on standard error, and so is the
// progress while a national file is read.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"
#include "controlador.h"
#include "import/ImportarCallejeroIne.h"

namespace cli {

namespace {

// Bad lines told one by one, then only counted.
constexpr size_t kLineasMalasDichas = 20;
// A stretch file this large is a national one (or near): its reading is told.
constexpr uint64_t kTramosConProgreso = uint64_t(64) << 20;

struct Opciones {
  std::string alias = ".";
  std::string tramos, vias, tipos;
  QList<int> provincias;
  bool ayuda = false;
};

Opciones leeOpciones(const std::vector<std::string>& args) {
  Opciones o;
  Argumentos a(args);
  std::vector<std::string> posicionales;
  bool aliasDado = false, tiposDado = false;
  std::string nombre;
  while (a.quedan()) {
    if (!a.siguienteEsOpcion(nombre)) {
      posicionales.push_back(a.posicional());
      continue;
    }
    if (nombre == "ayuda") {
      a.sinValor(nombre);
      o.ayuda = true;
    } else if (nombre == "alias") {
      if (aliasDado) throw ErrorDeUso("--alias repetida");
      o.alias = a.valor(nombre);
      if (o.alias.empty()) throw ErrorDeUso("--alias vacía");
      aliasDado = true;
    } else if (nombre == "tipos") {
      if (tiposDado) throw ErrorDeUso("--tipos repetida");
      o.tipos = a.valor(nombre);
      if (o.tipos.empty()) throw ErrorDeUso("--tipos vacía");
      tiposDado = true;
    } else if (nombre == "provincia") {
      const int p = codigoDeProvincia(a.valor(nombre), nombre).toInt();
      if (p < 1) throw ErrorDeUso("--provincia espera el código de una provincia, del 1 al 52");
      if (!o.provincias.contains(p)) o.provincias << p;
    } else {
      throw ErrorDeUso("opción desconocida para importar-ine: --" + nombre);
    }
  }
  if (o.ayuda) return o;
  if (posicionales.size() < 2) throw ErrorDeUso("importar-ine: faltan los ficheros TRAM y VIAS");
  if (posicionales.size() > 2) throw ErrorDeUso("sobra el argumento «" + posicionales[2] + "»");
  o.tramos = posicionales[0];
  o.vias = posicionales[1];
  if (o.tramos.empty() || o.vias.empty()) throw ErrorDeUso("importar-ine: nombre de fichero vacío");
  return o;
}

// The reading of a large stretch file: in place on a terminal, a line every
// tenth otherwise.
class Progreso {
 public:
  void operator()(uint64_t leidos, uint64_t total) {
    if (total < kTramosConProgreso) return;
    const int ciento = int(leidos * 100 / total);
    if (terminal_) {
      if (ciento == dicho_) return;
      std::fprintf(stderr, "\rcodpostales: leyendo los tramos: %3d %%", ciento);
      if (ciento == 100) std::fputc('\n', stderr);
    } else {
      if (ciento / 10 == dicho_ / 10) return;
      std::fprintf(stderr, "codpostales: leyendo los tramos: %d %%\n", ciento / 10 * 10);
    }
    std::fflush(stderr);
    dicho_ = ciento;
  }

 private:
  const bool terminal_ = isatty(2) != 0;
  int dicho_ = -1;
};

}  // namespace

int importarIne(const std::vector<std::string>& args) {
  const Opciones o = leeOpciones(args);
  if (o.ayuda) {
    muestraUso(stdout);
    return kSalidaBien;
  }

  size_t malas = 0;
  Progreso progreso;
  AvisosCallejeroIne avisos;
  avisos.lineaMala = [&malas](const QString& texto) {
    if (++malas <= kLineasMalasDichas) std::fprintf(stderr, "codpostales: %s\n", aUtf8(texto).c_str());
  };
  avisos.progreso = [&progreso](uint64_t leidos, uint64_t total) { progreso(leidos, total); };
  const ResumenCallejeroIne r = ImportaCallejeroIne(deUtf8(o.alias), deUtf8(o.tramos), deUtf8(o.vias),
                                                    deUtf8(o.tipos), o.provincias, avisos);
  if (malas > kLineasMalasDichas)
    std::fprintf(stderr, "codpostales: y %zu líneas erróneas más\n", malas - kLineasMalasDichas);
  for (const auto& [fichero, filas] : r.ficheros)
    std::fprintf(stderr, "codpostales: %s: %zu filas nuevas\n", aUtf8(fichero).c_str(), filas);
  if (!r.tiposDesconocidos.isEmpty())
    std::fprintf(stderr, "codpostales: tipos de vía que no conoce ninguna tabla (filas sin tipo): %s\n",
                 aUtf8(r.tiposDesconocidos.join(u' ')).c_str());
  if (!r.municipiosAusentes.isEmpty())
    std::fprintf(stderr, "codpostales: municipios que no están en MUNICIPI.DBF (sus tramos no se guardan): %s\n",
                 aUtf8(r.municipiosAusentes.join(u' ')).c_str());

  std::string salida;
  anadeCsv(salida, {"diseno", "tramos", "filas_guardadas", "ya_guardadas", "pseudovias", "unidades_poblacionales",
                    "sin_numero_en_calle_numerada", "otras_provincias", "municipio_ausente", "via_desconocida",
                    "lineas_erroneas", "vias_erroneas", "tipos_desconocidos", "filas_sin_tipo",
                    "municipios_ausentes"});
  auto n = [](size_t v) { return std::to_string(v); };
  anadeCsv(salida, {aUtf8(r.diseno), n(r.tramos), n(r.filasGuardadas), n(r.filasYaGuardadas), n(r.sinViaPseudovia),
                    n(r.sinViaUnidad), n(r.sinNumeroEnCalleNumerada), n(r.deOtrasProvincias), n(r.deMunicipioAusente),
                    n(r.viaDesconocida), n(r.lineasErroneas), n(r.viasErroneas), n(size_t(r.tiposDesconocidos.size())),
                    n(r.filasSinTipo), n(size_t(r.municipiosAusentes.size()))});
  escribe(salida);
  return kSalidaBien;
}

}  // namespace cli
