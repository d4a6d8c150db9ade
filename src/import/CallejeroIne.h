// INE's electoral-census street directory ("callejero del censo electoral"):
// its street file (VIAS) and its stretch file (TRAM), read and joined, and the
// stretches of each street merged into the ranges a street row holds.
//
// Both are fixed-width Latin-1 text without separators, one record a line,
// CRLF or LF. TRAM lines are 273 characters in both designs INE has used;
// VIAS lines are 108 in the old design (up to January 2025) and 132 in the
// new one (from July 2025, a few files 152 with a trailing error vector that
// is not read). A file's design is told by its first line. Lines are never
// trimmed: only the line end comes off, then the length is checked and the
// fields are cut by position.
//
// Plain C++ without Qt, so that its fuzz target builds it alone. Names stay
// Latin-1 bytes here; the caller decodes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ine {

inline constexpr size_t kLargoTramo = 273;
inline constexpr size_t kLargoViaAntigua = 108;
inline constexpr size_t kLargoViaNueva = 132;
inline constexpr size_t kLargoViaNuevaConVector = 152;

enum class Diseno { Antiguo, Nuevo };

// The design of a VIAS file whose first line has this many characters.
std::optional<Diseno> DisenoDeVias(size_t largo);
const char* NombreDiseno(Diseno d);  // "antiguo (108)", "nuevo (132)"

// What one line of VIAS says. The views point into the line.
struct LineaVia {
  int provincia = 0;  // CPRO
  int municipio = 0;  // CMUN
  int via = 0;        // CVIA
  std::string_view tipo;    // TVIA, blanks trimmed
  std::string_view nombre;  // NVIA, blanks trimmed
};

// What one line of TRAM says (its identification block, which in a complete
// file equals the result block).
struct LineaTramo {
  int provincia = 0;   // CPRO
  int municipio = 0;   // CMUN
  int via = 0;         // CVIA; 0 = no street
  int pseudovia = 0;   // CPSVIA; 0 = none
  int codPostal = 0;   // CPOS
  int tinum = 0;       // 0 unnumbered, 1 odd, 2 even
  int inicio = 0;      // EIN (its letter CEIN is not read)
  int fin = 0;         // ESN (its letter CESN is not read)
};

// Cut one line (its end already off). False with `fallo` saying why, in
// Spanish, when the line is not a record of the kind: its length, a byte
// that is not Latin-1 text, a number field that is not digits, a numbering
// type or range that cannot be.
bool LeeLineaVia(std::string_view linea, Diseno diseno, LineaVia& via, std::string& fallo);
bool LeeLineaTramo(std::string_view linea, LineaTramo& tramo, std::string& fallo);

// The first byte of the line that is not Latin-1 text (a control character:
// 0x00-0x1F, 0x7F-0x9F), or npos. UTF-8 text written over Latin-1 shows as
// such bytes: Ñ is C3 91, É is C3 89.
size_t PrimerByteNoLatin1(std::string_view linea);

// Lines of a text, one at a time, without their end (LF, or CR LF). A Ctrl+Z
// at the end of the text ends it, as old DOS copies leave. Read from a file
// in large blocks, or from bytes in memory.
class LectorLineas {
 public:
  explicit LectorLineas(std::string_view bytes);
  // Throws std::runtime_error (in Spanish, naming the file) when it cannot
  // be opened; a read that fails later throws the same way.
  explicit LectorLineas(const std::string& ruta);
  ~LectorLineas();
  LectorLineas(const LectorLineas&) = delete;
  LectorLineas& operator=(const LectorLineas&) = delete;

  // The next line; false at the end. The view lives until the next call.
  bool Siguiente(std::string_view& linea);
  size_t NumeroLinea() const { return numero_; }  // of the line last given, from 1
  uint64_t BytesLeidos() const { return consumidos_; }
  uint64_t BytesTotales() const { return total_; }

 private:
  bool Rellena();
  std::FILE* fichero_ = nullptr;
  std::string ruta_;
  std::unique_ptr<char[]> bufer_;  // not cleared when it grows: it is read into at once
  size_t capacidad_ = 0, lleno_ = 0;
  std::string_view memoria_;
  size_t pos_ = 0;       // in bufer_ (file) or memoria_ (bytes)
  bool fin_ = false;     // nothing more to read from the file
  uint64_t consumidos_ = 0;
  uint64_t total_ = 0;
  size_t numero_ = 0;
};

// ------------------------------------------------------------- the directory

// A street of VIAS, its texts kept in the directory's arena.
struct Via {
  int municipio = 0;  // CPRO * 1000 + CMUN
  int codigo = 0;     // CVIA
  uint32_t tipoDesde = 0, nombreDesde = 0;
  uint8_t tipoLargo = 0, nombreLargo = 0;
};

// A stretch of TRAM that belongs to a street, as small as it can be kept:
// a national file has a million and a half.
struct Tramo {
  uint32_t via = 0;        // index into Callejero::vias
  uint32_t codPostal = 0;
  uint16_t inicio = 0, fin = 0;
  uint8_t tinum = 0;
};

// Why stretches were not joined to a street.
struct Descartes {
  size_t pseudovias = 0;       // CVIA 0 with a pseudo-street (CPSVIA)
  size_t unidades = 0;         // neither: a rural population unit
  size_t otrasProvincias = 0;  // left out by the provinces asked for
  size_t viaDesconocida = 0;   // CVIA not in VIAS (also a bad line)
  size_t erroneas = 0;         // lines that are not stretches
};

// A bad line, for the caller to tell: which file, which line, why.
struct LineaMala {
  std::string fichero;  // the file's name
  size_t linea = 0;
  std::string fallo;
};

struct Callejero {
  Diseno diseno = Diseno::Antiguo;
  std::vector<Via> vias;
  std::vector<Tramo> tramos;
  std::string textos;  // TVIA and NVIA of every street, Latin-1
  size_t lineasVias = 0, viasErroneas = 0, viasRepetidas = 0;
  size_t lineasTramos = 0;  // every line of TRAM, good or bad
  Descartes descartes;

  std::string_view Tipo(const Via& v) const { return {textos.data() + v.tipoDesde, v.tipoLargo}; }
  std::string_view Nombre(const Via& v) const { return {textos.data() + v.nombreDesde, v.nombreLargo}; }
};

// What the reading tells as it goes: every bad line, and how far it is.
struct Avisos {
  std::function<void(const LineaMala&)> lineaMala;
  // Bytes read of the stretch file and its size, every few thousand lines.
  std::function<void(uint64_t leidos, uint64_t total)> progreso;
};

// Which provinces to keep (empty: all).
using Provincias = std::vector<int>;

// Reads VIAS then TRAM (files, or bytes in memory for the tests and the
// fuzzer) and joins each stretch to its street. A file that is of neither
// design (judged by its first line) throws std::runtime_error naming the
// file and the line; bad lines after it are told through `avisos`, counted
// and skipped.
Callejero LeeCallejero(const std::string& rutaTramos, const std::string& rutaVias, const Provincias& provincias,
                       const Avisos& avisos);
Callejero LeeCallejeroDeBytes(std::string_view tramos, std::string_view vias, const Provincias& provincias,
                              const Avisos& avisos, const std::string& nombreTramos = "TRAM",
                              const std::string& nombreVias = "VIAS");

// ------------------------------------------------------------- ranges

// A street row's numbers: the odd and the even range, 0/0 on a side the row
// does not cover.
struct Rango {
  uint32_t codPostal = 0;
  int imparIni = 0, imparFin = 0, parIni = 0, parFin = 0;
  bool sinNumero = false;  // the street has no numbered stretch at all
  bool operator==(const Rango&) const = default;
};

struct Rangos {
  std::vector<Rango> filas;
  size_t sinNumeroDescartados = 0;  // unnumbered stretches of a numbered street
};

// The rows of one street from its stretches (any order). Odd and even
// stretches are sorted by their first number; a run of consecutive ones
// with the same postcode becomes one range, from the first's start to the
// furthest end. The n-th odd range of a postcode and its n-th even range
// share a row; a range without a partner has 0/0 on the other side. A street
// with no numbered stretch gives one unnumbered row per postcode; the
// unnumbered stretches of a numbered street are left out. Rows come by
// postcode, then by first number.
Rangos RangosDeCalle(const Tramo* tramos, size_t cuantos);

}  // namespace ine
