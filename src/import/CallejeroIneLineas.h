// Lines of INE's street-directory files written from their record layouts,
// the other half of CallejeroIne's reading: for the generator of INE-format
// files and for the tests, so that the layout is written down once.
//
// Texts are the bytes INE writes (Latin-1, names upper case); fields longer
// than their place are cut, shorter ones padded with blanks.
#pragma once

#include <string>

#include "import/CallejeroIne.h"

namespace ine {

// One stretch of TRAM; both of its blocks (identification and result) alike,
// as in a complete file.
struct TramoEscrito {
  std::string provincia, municipio;  // "28", "079"
  int distrito = 1, seccion = 1, unidad = 1001;
  int via = 0, pseudovia = 0;        // CVIA, CPSVIA; 0 none
  std::string codPostal;             // "28013"
  int tinum = 0;                     // 0 unnumbered, 1 odd, 2 even
  int inicio = 0, fin = 0;           // EIN, ESN
  std::string entidad, nucleo, nombreVia, nombrePseudovia;
  std::string fecha = "20251231";    // FVAR
};

std::string LineaDeTramo(const TramoEscrito& t);

// One street of VIAS in the design given; `fecha` its FVAR.
std::string LineaDeVia(Diseno diseno, const std::string& provincia, const std::string& municipio, int via,
                       const std::string& tipo, const std::string& nombre, const std::string& fecha);

}  // namespace ine
