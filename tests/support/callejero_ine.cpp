#include "support/callejero_ine.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "support/temp_dir.h"

namespace inetest {

namespace {

void pon(std::string& l, size_t desde, size_t largo, const std::string& texto) {
  for (size_t i = 0; i < largo; ++i) l[desde + i] = i < texto.size() ? texto[i] : ' ';
}

std::string cifras(int valor, int n) {
  char b[16];
  std::snprintf(b, sizeof b, "%0*d", n, valor);
  return b;
}

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
  std::string l(273, ' ');
  const std::string secc = cifras(t.seccion, 3), cvia = cifras(t.via, 5), cpsvia = cifras(t.pseudovia, 5),
                    tinum = std::to_string(t.tinum);
  const std::string ein = t.tinum == 0 ? "0000S" : cifras(t.inicio, 4) + " ";
  const std::string esn = t.tinum == 0 ? "0000S" : cifras(t.fin, 4) + " ";
  for (size_t bloque : {size_t(0), size_t(1)}) {
    // The identification block and, after the control fields, the result.
    const size_t dist = bloque ? 70 : 5, seccion = bloque ? 72 : 7, cun = bloque ? 78 : 13;
    pon(l, dist, 2, "01");
    pon(l, seccion, 3, secc);
    pon(l, cun, 7, "0001001");
  }
  pon(l, 0, 2, t.provincia);
  pon(l, 2, 3, t.municipio);
  pon(l, 20, 5, cvia);
  pon(l, 25, 5, cpsvia);
  pon(l, 42, 5, t.codPostal);
  pon(l, 47, 1, tinum);
  pon(l, 48, 5, ein);
  pon(l, 53, 5, esn);
  pon(l, 61, 8, "20251231");
  pon(l, 110, 25, "EJEMPLO");
  pon(l, 135, 25, "EJEMPLO");
  pon(l, 160, 5, cvia);
  pon(l, 190, 5, cpsvia);
  pon(l, 257, 5, t.codPostal);
  pon(l, 262, 1, tinum);
  pon(l, 263, 5, ein);
  pon(l, 268, 5, esn);
  return l;
}

std::string lineaVia(bool nuevo, const std::string& provincia, const std::string& municipio, int via,
                     const std::string& tipo, const std::string& nombre) {
  const std::string n = latin1(nombre), codigo = cifras(via, 5);
  const std::string corto = n.substr(0, std::min<size_t>(25, n.size()));
  std::string l(nuevo ? 132 : 108, ' ');
  pon(l, 0, 2, provincia);
  pon(l, 2, 3, municipio);
  pon(l, 5, 5, codigo);
  if (nuevo) {
    pon(l, 10, 25, corto);
    pon(l, 38, 8, "20251231");
    pon(l, 47, 5, codigo);
    pon(l, 52, 5, tipo);
    pon(l, 57, 50, n);
    pon(l, 107, 25, corto);
  } else {
    pon(l, 13, 8, "20241231");
    pon(l, 22, 5, codigo);
    pon(l, 27, 5, tipo);
    pon(l, 32, 1, "0");
    pon(l, 33, 50, n);
    pon(l, 83, 25, corto);
  }
  return l;
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
