#include "support/callejero_ine.h"

#include <filesystem>
#include <fstream>

#include "import/CallejeroIneLineas.h"
#include "support/temp_dir.h"

namespace inetest {

namespace {

// The lines of the reference note that begin with the municipality of its
// samples, 48912, of one length in characters.
std::vector<std::string> viasReales(size_t caracteres) {
  std::vector<std::string> out;
  const std::string ruta = testsupport::sharedDir() + "/reference/ine-callejero.md";
  if (testsupport::sharedDir().empty() || !std::filesystem::exists(ruta)) return out;
  std::ifstream in(ruta);
  for (std::string l; std::getline(in, l);) {
    if (l.rfind("48912", 0) != 0) continue;
    const std::string bytes = latin1(l);
    if (bytes.size() == caracteres) out.push_back(bytes);
  }
  return out;
}

}  // namespace

std::string latin1(const std::string& utf8) {
  std::string out;
  for (size_t i = 0; i < utf8.size(); ++i) {
    const auto c = static_cast<unsigned char>(utf8[i]);
    if (c >= 0xC0 && i + 1 < utf8.size()) {
      out += char(((c & 0x1F) << 6) | (static_cast<unsigned char>(utf8[i + 1]) & 0x3F));
      ++i;
    } else {
      out += char(c);
    }
  }
  return out;
}

std::string lineaTramo(const TramoDePrueba& t) {
  ine::TramoEscrito e;
  e.provincia = t.provincia;
  e.municipio = t.municipio;
  e.seccion = t.seccion;
  e.via = t.via;
  e.pseudovia = t.pseudovia;
  e.codPostal = t.codPostal;
  e.tinum = t.tinum;
  e.inicio = t.inicio;
  e.fin = t.fin;
  e.entidad = e.nucleo = "EJEMPLO";
  return ine::LineaDeTramo(e);
}

std::string lineaVia(bool nuevo, const std::string& provincia, const std::string& municipio, int via,
                     const std::string& tipo, const std::string& nombre) {
  return ine::LineaDeVia(nuevo ? ine::Diseno::Nuevo : ine::Diseno::Antiguo, provincia, municipio, via, tipo,
                         latin1(nombre), nuevo ? "20251231" : "20241231");
}

std::string texto(const std::vector<std::string>& lineas, const std::string& fin) {
  std::string out;
  for (const std::string& l : lineas) out += l + fin;
  return out;
}

std::vector<std::string> viasRealesAntiguas() { return viasReales(108); }
std::vector<std::string> viasRealesNuevas() { return viasReales(132); }

std::string tablaDeTiposDelIne() {
  if (testsupport::sharedDir().empty()) return {};
  const std::string ruta = testsupport::sharedDir() + "/data/ine_tipos_via.csv";
  return std::filesystem::exists(ruta) ? ruta : std::string();
}

}  // namespace inetest
