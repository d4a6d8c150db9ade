// Writes INE-format street-directory files (TRAM and VIAS, the electoral
// census's "callejero") for the streets of the national set: the same
// municipalities, streets, types and postcodes generar_nacional invents, laid
// out as INE lays out its files, in both record designs, national and for
// chosen provinces. They feed the import's benchmarks and tests at full size.
//
//   generar_ine SHARED_DATA_DIR OUT_DIR [--tramos N] [--provincias 28,08]
//
// OUT_DIR/antiguo holds the old design (VIAS of 108 characters, LF line
// ends, reference date 31-12-2024), OUT_DIR/nuevo the new one (VIAS of 132,
// CRLF, 31-12-2025); TRAM is 273 in both. Each holds the national pair
// (TRAM.P01-52..., VIAS.P01-52... in the old design; TRAM.D..., VIAS.D... in
// the new one) and a pair per province asked for (TRAM.Pnn..., VIAS.Pnn...).
//
// How the national set's stretches become INE stretches: the odd (or even)
// numbers of consecutive rows of a street with one postcode are one INE
// stretch, as INE cuts stretches where the postcode or the census section
// changes; a few of those are cut again between two sections, so
// the import has stretches to join. A few short streets go unnumbered, and
// every municipality gets stretches without a street: its population units
// (rural addresses) and pseudo-streets. Street names are INE's way: upper
// case without accents (Ñ kept), the article in brackets at the end; types
// are INE's codes (KALEA and C/ where those languages are spoken), and the
// cadastre's types INE has no name for keep the host's code, which no table
// knows.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "generar_comun.h"
#include "import/CallejeroIneLineas.h"

namespace fs = std::filesystem;

namespace {

// Share of the stretches cut once more between two census sections: enough
// for the import to have stretches to join everywhere, few enough for the
// national file to keep INE's size (about a million and a half stretches).
constexpr double kCorteEntreSecciones = 0.04;

struct Diseno {
  const char* carpeta;
  bool nuevo;
  const char* fecha;      // FVAR: the reference date
  const char* nacional;   // suffix of the national files' names
  const char* sufijo;     // suffix of the provincial files' names
  const char* finLinea;
};
const Diseno kAntiguo{"antiguo", false, "20241231", ".P01-52.D241231.G250115", ".D241231.G250115", "\n"};
const Diseno kNuevo{"nuevo", true, "20251231", ".D251231.G260115", ".D251231.G260115", "\r\n"};

// UTF-8 to the Latin-1 bytes INE writes.
std::string latin1(std::string_view utf8) {
  std::string out;
  for (char32_t c : gen::decodeUtf8(utf8)) out += c <= 0xFF ? char(c) : '?';
  return out;
}

// INE's form of a name: upper case, no accents but Ñ, Latin-1.
std::string nombreIne(std::string_view utf8) { return latin1(gen::withoutAccents(utf8)); }

// The INE type of each of the host's (cadastre) codes: the INE code whose
// name is the host type's name; the host code itself where INE has none.
std::map<std::string, std::string> tiposIne(const fs::path& datos, const gen::Datos& d) {
  const gen::Csv csv = gen::readCsv(datos / "ine_tipos_via.csv", ';');
  const size_t tipo = csv.col("TIPO_VIA"), descripcion = csv.col("DESCRIPCION");
  std::map<std::string, std::string> porNombre;
  for (const auto& r : csv.rows)
    if (!r[tipo].empty()) porNombre.emplace(gen::withoutAccents(r[descripcion]), r[tipo]);
  std::map<std::string, std::string> out;
  for (const auto& [codigo, nombre] : d.tiposVia) {
    auto en = porNombre.find(gen::withoutAccents(nombre));
    out[codigo] = en != porNombre.end() ? en->second : codigo;
  }
  return out;
}

struct Linea {
  std::tuple<int, int, int, int, int, int> orden;  // section, unit, street, pseudo-street, parity, first number
  std::string texto;
};

const std::vector<std::string> kPseudovias = {"POLIGONO INDUSTRIAL", "URBANIZACION LOS PINOS", "AREA RECREATIVA",
                                              "ZONA DEPORTIVA",      "POLIGONO AGRICOLA",      "DISEMINADO"};

// The lines of one municipality, VIAS and TRAM, in INE's order.
struct Municipio {
  std::vector<std::string> vias;
  std::vector<Linea> tramos;
  size_t tramosDeCalle = 0;
};

Municipio municipio(const gen::Municipio& m, const std::vector<gen::Calle>& calles,
                    const std::vector<gen::Entidad>* entidades, const std::map<std::string, std::string>& tipos,
                    const Diseno& d) {
  Municipio out;
  Azar azar(gen::semillaDe("INE" + m.ine));
  const gen::Region region = gen::regionDe(m.prov);
  const std::string nucleo = nombreIne(gen::cut(m.nombre, 25));
  const int secciones = int(std::max<size_t>(1, calles.size() / 40));
  auto seccion = [&](ine::TramoEscrito& t) {
    const int s = int(azar.menor(size_t(secciones)));
    t.distrito = 1 + s / 30;
    t.seccion = 1 + s % 30;
  };
  auto anade = [&](ine::TramoEscrito t) {
    t.fecha = d.fecha;
    out.tramos.push_back(
        {{t.distrito * 1000 + t.seccion, t.unidad, t.via, t.pseudovia, t.tinum, t.inicio}, ine::LineaDeTramo(t)});
  };
  int cvia = 0;
  for (const gen::Calle& c : calles) {
    cvia += 1 + int(azar.menor(3));  // codes with gaps, as councils leave them
    std::string tvia = tipos.at(c.tipo);
    if (c.tipo == "CL" && region == gen::Region::Vasca && azar.probable(0.5)) tvia = "KALEA";
    if (c.tipo == "CL" && region == gen::Region::Catalana && azar.probable(0.5)) tvia = "C/";
    std::string nvia = nombreIne(c.via);
    if (nvia.size() > 50) nvia.resize(50);
    while (!nvia.empty() && nvia.back() == ' ') nvia.pop_back();
    out.vias.push_back(ine::LineaDeVia(d.nuevo ? ine::Diseno::Nuevo : ine::Diseno::Antiguo, m.prov, m.numero, cvia, tvia,
                                       nvia, d.fecha));

    ine::TramoEscrito base;
    base.provincia = m.prov;
    base.municipio = m.numero;
    base.via = cvia;
    base.entidad = nucleo;
    base.nucleo = nucleo;
    base.nombreVia = nvia.substr(0, std::min<size_t>(nvia.size(), 25));

    const bool corta = c.tipo == "PZ" || c.tipo == "GL" || c.tipo == "PJ" || c.tipo == "CJ";
    if (corta && azar.probable(0.25)) {
      // Unnumbered: one stretch per postcode.
      std::set<size_t> postales;
      for (const auto& tr : c.tramos) postales.insert(tr.postal);
      for (size_t p : postales) {
        ine::TramoEscrito t = base;
        t.codPostal = m.postales[p];
        seccion(t);
        anade(t);
        ++out.tramosDeCalle;
      }
      continue;
    }
    // Per parity: runs of consecutive rows of one postcode, each one
    // stretch, or two in different sections.
    for (int paridad : {1, 2}) {
      struct Tramado {
        int ini, fin;
        size_t postal;
      };
      std::vector<Tramado> runs;
      for (const auto& tr : c.tramos) {
        const int ini = paridad == 1 ? tr.imparIni : tr.parIni, fin = paridad == 1 ? tr.imparFin : tr.parFin;
        if (ini == 0 && fin == 0) continue;
        if (!runs.empty() && runs.back().postal == tr.postal) {
          runs.back().fin = fin;
          continue;
        }
        runs.push_back({ini, fin, tr.postal});
      }
      for (const Tramado& r : runs) {
        ine::TramoEscrito t = base;
        t.tinum = paridad;
        t.codPostal = m.postales[r.postal];
        const int numeros = (r.fin - r.ini) / 2 + 1;
        if (numeros >= 4 && azar.probable(kCorteEntreSecciones)) {
          const int corte = r.ini + 2 * (1 + int(azar.menor(size_t(numeros - 2))));
          ine::TramoEscrito a = t, b = t;
          a.inicio = r.ini, a.fin = corte - 2;
          b.inicio = corte, b.fin = r.fin;
          seccion(a);
          seccion(b);
          anade(a);
          anade(b);
          out.tramosDeCalle += 2;
        } else {
          t.inicio = r.ini, t.fin = r.fin;
          seccion(t);
          anade(t);
          ++out.tramosDeCalle;
        }
      }
    }
  }
  // Stretches without a street: the municipality's population units, and a
  // few pseudo-streets with numbers.
  int cun = 2;
  if (entidades)
    for (const gen::Entidad& e : *entidades) {
      ine::TramoEscrito t;
      t.provincia = m.prov;
      t.municipio = m.numero;
      t.unidad = (cun++) * 1000 + 99;
      t.codPostal = e.postal;
      t.entidad = nombreIne(gen::cut(e.nombre, 25));
      t.nucleo = t.entidad;
      seccion(t);
      anade(t);
    }
  const size_t pseudovias = calles.size() / 60;
  for (size_t i = 0; i < pseudovias; ++i) {
    ine::TramoEscrito t;
    t.provincia = m.prov;
    t.municipio = m.numero;
    t.pseudovia = int(i + 1) * 10;
    t.codPostal = m.postales[azar.menor(m.postales.size())];
    t.nombrePseudovia = kPseudovias[i % kPseudovias.size()];
    t.entidad = nucleo;
    t.nucleo = nucleo;
    t.tinum = 1 + int(azar.menor(2));
    t.inicio = t.tinum;
    t.fin = t.tinum + 2 * int(azar.menor(20));
    seccion(t);
    anade(t);
  }
  std::sort(out.tramos.begin(), out.tramos.end(),
            [](const Linea& a, const Linea& b) { return a.orden < b.orden; });
  return out;
}

// A file written line by line with the design's line ends.
class Fichero {
 public:
  Fichero(const fs::path& ruta, const char* fin) : out_(ruta, std::ios::binary), fin_(fin), ruta_(ruta) {
    if (!out_) throw std::runtime_error("no se puede escribir " + ruta.string());
  }
  void linea(const std::string& l) {
    out_ << l << fin_;
    ++lineas_;
  }
  size_t cerrar() {
    out_.close();
    if (!out_) throw std::runtime_error("no se pudo escribir entero " + ruta_.string());
    return lineas_;
  }

 private:
  std::ofstream out_;
  const char* fin_;
  fs::path ruta_;
  size_t lineas_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  std::set<std::string> provincias = {"28"};
  const auto linea = gen::leerLineaDeOrdenes(argc, argv, "[--provincias 28,08]", [&](const std::string& opcion,
                                                                                      const std::string& lista) {
    if (opcion != "--provincias") return false;
    provincias.clear();
    for (size_t desde = 0; desde <= lista.size();) {
      size_t coma = lista.find(',', desde);
      if (coma == std::string::npos) coma = lista.size();
      std::string p = lista.substr(desde, coma - desde);
      if (p.size() == 1) p = "0" + p;
      if (!p.empty()) provincias.insert(p);
      desde = coma + 1;
    }
    return true;
  });
  if (!linea) return 2;
  const size_t tramos = linea->tramos;
  try {
    const auto inicio = std::chrono::steady_clock::now();
    const fs::path& datos = linea->datos;
    const fs::path& salida = linea->salida;
    const gen::Datos d = gen::cargarDatos(datos);
    const auto tipos = tiposIne(datos, d);
    std::vector<double> pesos;
    for (const auto& m : d.municipios) pesos.push_back(m.peso);
    const std::vector<size_t> reparto = gen::repartir(pesos, tramos);

    for (const Diseno* diseno : {&kAntiguo, &kNuevo}) {
      const fs::path dir = salida / diseno->carpeta;
      fs::create_directories(dir);
      Fichero tram(dir / (std::string("TRAM") + diseno->nacional), diseno->finLinea);
      Fichero vias(dir / (std::string("VIAS") + diseno->nacional), diseno->finLinea);
      std::map<std::string, std::pair<Fichero, Fichero>> sueltas;
      for (const std::string& p : provincias)
        sueltas.try_emplace(p, std::piecewise_construct,
                            std::forward_as_tuple(dir / ("TRAM.P" + p + diseno->sufijo), diseno->finLinea),
                            std::forward_as_tuple(dir / ("VIAS.P" + p + diseno->sufijo), diseno->finLinea));
      size_t deCalle = 0;
      for (size_t i = 0; i < d.municipios.size(); ++i) {
        const gen::Municipio& m = d.municipios[i];
        const auto calles = gen::inventarCalles(m, reparto[i]);
        const auto e = d.entidades.find(m.ine);
        const Municipio lineas =
            municipio(m, calles, e == d.entidades.end() ? nullptr : &e->second, tipos, *diseno);
        deCalle += lineas.tramosDeCalle;
        auto suelta = sueltas.find(m.prov);
        for (const std::string& l : lineas.vias) {
          vias.linea(l);
          if (suelta != sueltas.end()) suelta->second.second.linea(l);
        }
        for (const Linea& l : lineas.tramos) {
          tram.linea(l.texto);
          if (suelta != sueltas.end()) suelta->second.first.linea(l.texto);
        }
      }
      const size_t nt = tram.cerrar(), nv = vias.cerrar();
      std::printf("%s: %zu tramos (%zu de calles), %zu vías\n", dir.c_str(), nt, deCalle, nv);
      for (auto& [p, f] : sueltas) {
        const size_t pt = f.first.cerrar(), pv = f.second.cerrar();
        std::printf("%s: provincia %s, %zu tramos, %zu vías\n", dir.c_str(), p.c_str(), pt, pv);
      }
    }
    const double segundos = std::chrono::duration<double>(std::chrono::steady_clock::now() - inicio).count();
    std::printf("Hecho en %.1f s\n", segundos);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "generar_ine: %s\n", e.what());
    return 1;
  }
  return 0;
}
