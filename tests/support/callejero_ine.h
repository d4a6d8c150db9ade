// INE street-directory files for the tests, written from the record layouts:
// TRAM lines of 273 characters (both blocks alike, as in a complete file) and
// VIAS lines of the old (108) and the new (132) design, in Latin-1.
#pragma once

#include <string>
#include <vector>

namespace inetest {

struct TramoDePrueba {
  std::string provincia, municipio;  // "28", "079"
  int via = 0;                       // CVIA; 0 none
  std::string codPostal;             // "28013"
  int tinum = 0;                     // 0 unnumbered, 1 odd, 2 even
  int inicio = 0, fin = 0;
  int pseudovia = 0;
  int seccion = 1;
};

std::string lineaTramo(const TramoDePrueba& t);
// A street of VIAS; `nombre` in UTF-8, written in Latin-1.
std::string lineaVia(bool nuevo, const std::string& provincia, const std::string& municipio, int via,
                     const std::string& tipo, const std::string& nombre);
// UTF-8 text as Latin-1 bytes.
std::string latin1(const std::string& utf8);
// Lines joined with their ends.
std::string texto(const std::vector<std::string>& lineas, const std::string& fin = "\r\n");

// The real VIAS lines of the reference note on INE's files (../shared),
// in Latin-1: the old design's and the new design's. Empty without the note.
std::vector<std::string> viasRealesAntiguas();
std::vector<std::string> viasRealesNuevas();

// INE's street-type table of the shared data ("" without it).
std::string tablaDeTiposDelIne();

}  // namespace inetest
