#include "import/CallejeroIneLineas.h"

#include <algorithm>
#include <cstdio>

namespace ine {

namespace {

void pon(std::string& linea, size_t desde, size_t largo, const std::string& texto) {
  for (size_t i = 0; i < largo; ++i) linea[desde + i] = i < texto.size() ? texto[i] : ' ';
}

std::string cifras(long valor, int n) {
  char b[32];
  std::snprintf(b, sizeof b, "%0*ld", n, valor);
  return b;
}

std::string corto(const std::string& nombre) { return nombre.substr(0, std::min<size_t>(nombre.size(), 25)); }

}  // namespace

std::string LineaDeTramo(const TramoEscrito& t) {
  std::string l(kLargoTramo, ' ');
  const std::string dist = cifras(t.distrito, 2), secc = cifras(t.seccion, 3), cun = cifras(t.unidad, 7),
                    cvia = cifras(t.via, 5), cpsvia = cifras(t.pseudovia, 5), tinum = std::to_string(t.tinum);
  const std::string ein = t.tinum == 0 ? "0000S" : cifras(t.inicio, 4) + " ";
  const std::string esn = t.tinum == 0 ? "0000S" : cifras(t.fin, 4) + " ";
  pon(l, 0, 2, t.provincia);
  pon(l, 2, 3, t.municipio);
  pon(l, 5, 2, dist);
  pon(l, 7, 3, secc);
  pon(l, 13, 7, cun);
  pon(l, 20, 5, cvia);
  pon(l, 25, 5, cpsvia);
  pon(l, 42, 5, t.codPostal);
  pon(l, 47, 1, tinum);
  pon(l, 48, 5, ein);
  pon(l, 53, 5, esn);
  pon(l, 61, 8, t.fecha);
  // The result block, after the control fields: the same stretch.
  pon(l, 70, 2, dist);
  pon(l, 72, 3, secc);
  pon(l, 78, 7, cun);
  pon(l, 85, 25, t.nucleo);
  pon(l, 110, 25, t.entidad);
  pon(l, 135, 25, t.nucleo);
  pon(l, 160, 5, cvia);
  pon(l, 165, 25, t.nombreVia);
  pon(l, 190, 5, cpsvia);
  pon(l, 195, 50, t.nombrePseudovia);
  pon(l, 257, 5, t.codPostal);
  pon(l, 262, 1, tinum);
  pon(l, 263, 5, ein);
  pon(l, 268, 5, esn);
  return l;
}

std::string LineaDeVia(Diseno diseno, const std::string& provincia, const std::string& municipio, int via,
                       const std::string& tipo, const std::string& nombre, const std::string& fecha) {
  const std::string codigo = cifras(via, 5);
  const bool nuevo = diseno == Diseno::Nuevo;
  std::string l(nuevo ? kLargoViaNueva : kLargoViaAntigua, ' ');
  pon(l, 0, 2, provincia);
  pon(l, 2, 3, municipio);
  pon(l, 5, 5, codigo);
  if (nuevo) {
    pon(l, 10, 25, corto(nombre));
    pon(l, 38, 8, fecha);
    pon(l, 47, 5, codigo);
    pon(l, 52, 5, tipo);
    pon(l, 57, 50, nombre);
    pon(l, 107, 25, corto(nombre));
  } else {
    pon(l, 13, 8, fecha);
    pon(l, 22, 5, codigo);
    pon(l, 27, 5, tipo);
    pon(l, 32, 1, "0");
    pon(l, 33, 50, nombre);
    pon(l, 83, 25, corto(nombre));
  }
  return l;
}

}  // namespace ine
