// Writes the small sample set committed in data/muestra: the reference tables
// of a few provinces and street directories for some of their municipalities.
//
//   generar_muestra SHARED_DATA_DIR OUT_DIR
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "generar_comun.h"

namespace fs = std::filesystem;

namespace {

// Madrid and Toledo so that "MAD" has more than one ending; A Coruña and
// Alicante for articles and bilingual names; León and Ourense because Sobrado
// is a municipality in A Coruña and in León and a village in Ourense.
const std::set<std::string> kProvincias = {"03", "08", "15", "24", "28", "32", "45"};

struct Reparto {
  const char* ine;
  size_t tramos;
};

// The general street table, for a host without the Postales folder.
const std::vector<Reparto> kPostal = {{"28079", 220}, {"45168", 80}};

const std::vector<std::pair<const char*, std::vector<Reparto>>> kPostales = {
    {"28",
     {{"28079", 1200}, {"28005", 150}, {"28065", 120}, {"28092", 120}, {"28074", 100}, {"28006", 100},
      {"28127", 80}, {"28015", 40}, {"28086", 30}, {"28078", 8}}},
    {"03", {{"03014", 300}, {"03065", 200}, {"03133", 80}, {"03031", 80}, {"03011", 40}, {"03139", 50}, {"03119", 40}}},
    {"15", {{"15030", 300}, {"15078", 200}, {"15036", 100}, {"15058", 60}, {"15005", 50}, {"15041", 30}, {"15080", 20}}},
    {"08", {{"08019", 400}, {"08101", 120}, {"08015", 100}, {"08187", 80}, {"08279", 80}, {"08005", 30}, {"08052", 10}}},
};

size_t escribirCalles(const fs::path& path, const gen::Datos& d, const std::vector<Reparto>& reparto) {
  gen::TablaPostal t(path);
  for (const auto& r : reparto) {
    const gen::Municipio* m = d.municipio(r.ine);
    if (!m) throw std::runtime_error(std::string("municipio ausente en los datos: ") + r.ine);
    t.agregar(*m, gen::inventarCalles(*m, r.tramos));
  }
  return t.cerrar();
}

// A host's postcode text file for a municipality with several postcodes, as
// mode 1 of the street import reads it from the alias folder's POSTAL
// folder: one line per stretch, "postcode: NAME, TYPE (ranges)".
size_t escribirFicheroPostal(const fs::path& carpeta, const gen::Datos& d, const char* ine, size_t tramos) {
  const gen::Municipio* m = d.municipio(ine);
  if (!m) throw std::runtime_error(std::string("municipio ausente en los datos: ") + ine);
  const std::map<std::string, std::string> nombresDeTipo(d.tiposVia.begin(), d.tiposVia.end());
  std::ofstream f(carpeta / (m->prov + "-" + m->nombre + ".txt"), std::ios::binary);
  size_t lineas = 0;
  for (const gen::Calle& calle : gen::inventarCalles(*m, tramos)) {
    const auto tipo = nombresDeTipo.find(calle.tipo);
    for (const gen::Tramo& t : calle.tramos) {
      std::string rango;
      if (t.imparIni || t.imparFin)
        rango = "IMPARES DEL " + std::to_string(t.imparIni) + " AL " + std::to_string(t.imparFin);
      if (t.parIni || t.parFin)
        rango += (rango.empty() ? "" : " Y ") + std::string("PARES DEL ") + std::to_string(t.parIni) + " AL " +
                 std::to_string(t.parFin);
      f << m->postales[t.postal] << ": " << calle.via << ", "
        << (tipo != nombresDeTipo.end() ? tipo->second : calle.tipo) << (rango.empty() ? "" : " (" + rango + ")")
        << "\r\n";
      ++lineas;
    }
  }
  if (!f) throw std::runtime_error("no se puede escribir el fichero de códigos postales de " + m->nombre);
  return lineas;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "uso: %s CARPETA_DATOS CARPETA_SALIDA\n", argv[0]);
    return 2;
  }
  try {
    const fs::path datos = argv[1], salida = argv[2];
    fs::create_directories(salida / "Postales");
    const gen::Datos d = gen::cargarDatos(datos);
    auto enMuestra = [](const gen::Municipio& m) { return kProvincias.count(m.prov) > 0; };

    std::vector<std::pair<fs::path, size_t>> hechas;
    hechas.push_back({salida / "PROVIN.DBF", gen::escribirProvin(salida / "PROVIN.DBF", d)});
    hechas.push_back({salida / "TIPO_VIA.DBF", gen::escribirTipoVia(salida / "TIPO_VIA.DBF", d)});
    gen::Cuenta c = gen::escribirMunicipi(salida / "MUNICIPI.DBF", d, enMuestra);
    hechas.push_back({salida / "MUNICIPI.DBF", c.municipios + c.entidades});
    hechas.push_back({salida / "MUNICIMJ.DBF", gen::escribirMunicimj(salida / "MUNICIMJ.DBF", d, enMuestra)});
    hechas.push_back({salida / "POSTAL.DBF", escribirCalles(salida / "POSTAL.DBF", d, kPostal)});
    for (const auto& [prov, reparto] : kPostales) {
      fs::path path = salida / "Postales" / (std::string("POSTAL") + prov + ".DBF");
      hechas.push_back({path, escribirCalles(path, d, reparto)});
    }

    for (const auto& [path, filas] : hechas) {
      gen::fecharCabecera(path, 2026, 1, 1);
      std::printf("%-24s %8zu filas\n", fs::relative(path, salida).string().c_str(), filas);
    }
    // Alcalá de Henares has several postcodes: its streets come by file.
    fs::create_directories(salida / "POSTAL");
    std::printf("POSTAL/28-ALCALÁ DE HENARES.txt %zu líneas\n",
                escribirFicheroPostal(salida / "POSTAL", d, "28005", 150));
    std::printf("MUNICIPI: %zu municipios y %zu entidades menores\n", c.municipios, c.entidades);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "generar_muestra: %s\n", e.what());
    return 1;
  }
  return 0;
}
