// What generar_muestra and generar_nacional share: reading the INE and
// iso-codes files, turning their names into the host's form, writing the
// reference tables and making up street directories.
//
// No national street directory with number ranges is public, so the streets
// are invented: real municipalities, real postcodes and the cadastre's street
// types, with names drawn from common Spanish street names. Every
// municipality's streets come from its own random sequence (seeded by its INE
// code), so a municipality gets the same streets whatever else is generated.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "azar.h"
#include "dbase/core/codepage.h"
#include "dbase/ReferenceTags.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/field_value.h"
#include "import/CallesImportadas.h"

namespace gen {

// BDE "dBase ESP cp850", the driver the host's tables carry.
inline constexpr uint8_t kDriverEsp850 = 0x14;
inline constexpr uint64_t kSemilla = 0x436F64506F7374ull;

// ---------------------------------------------------------------- CSV

struct Csv {
  std::vector<std::string> header;
  std::vector<std::vector<std::string>> rows;

  size_t col(std::string_view name) const {
    for (size_t i = 0; i < header.size(); ++i)
      if (header[i] == name) return i;
    throw std::runtime_error("columna ausente: " + std::string(name));
  }
};

// Quoted fields may hold the separator ("Coruña, A"); none spans lines.
inline std::vector<std::string> splitCsvLine(std::string_view line, char sep) {
  std::vector<std::string> out;
  std::string cell;
  bool quoted = false;
  for (size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (quoted) {
      if (c == '"' && i + 1 < line.size() && line[i + 1] == '"') {
        cell += '"';
        ++i;
      } else if (c == '"') {
        quoted = false;
      } else {
        cell += c;
      }
    } else if (c == '"') {
      quoted = true;
    } else if (c == sep) {
      out.push_back(std::move(cell));
      cell.clear();
    } else {
      cell += c;
    }
  }
  out.push_back(std::move(cell));
  return out;
}

inline Csv readCsv(const std::filesystem::path& path, char sep = ',') {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("no se puede leer " + path.string());
  Csv csv;
  std::string line;
  bool first = true;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    auto cells = splitCsvLine(line, sep);
    if (first) {
      csv.header = std::move(cells);
      first = false;
    } else {
      cells.resize(csv.header.size());
      csv.rows.push_back(std::move(cells));
    }
  }
  return csv;
}

// ---------------------------------------------------------------- UTF-8 text

inline std::u32string decodeUtf8(std::string_view s) {
  std::u32string out;
  for (size_t i = 0; i < s.size();) {
    unsigned char c = uint8_t(s[i]);
    int extra = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : -1;
    if (extra < 0 || s.size() - i <= size_t(extra))
      throw std::runtime_error("UTF-8 inválido: " + std::string(s));
    char32_t cp = extra == 0 ? c : extra == 1 ? (c & 0x1F) : extra == 2 ? (c & 0x0F) : (c & 0x07);
    for (int k = 1; k <= extra; ++k) cp = (cp << 6) | (uint8_t(s[i + size_t(k)]) & 0x3F);
    out.push_back(cp);
    i += size_t(extra) + 1;
  }
  return out;
}

inline std::string encodeUtf8(std::u32string_view s) {
  std::string out;
  for (char32_t c : s) {
    if (c < 0x80) {
      out += char(c);
    } else if (c < 0x800) {
      out += char(0xC0 | (c >> 6));
      out += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += char(0xE0 | (c >> 12));
      out += char(0x80 | ((c >> 6) & 0x3F));
      out += char(0x80 | (c & 0x3F));
    } else {
      out += char(0xF0 | (c >> 18));
      out += char(0x80 | ((c >> 12) & 0x3F));
      out += char(0x80 | ((c >> 6) & 0x3F));
      out += char(0x80 | (c & 0x3F));
    }
  }
  return out;
}

// Latin-1 letters only: every name in the sources is Latin-1, and ÿ stays
// because code page 850 has no capital for it.
inline char32_t upperChar(char32_t c) {
  if (c >= U'a' && c <= U'z') return c - 32;
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return c - 32;
  return c;
}

// The accent-free form of a capital: Ñ is a letter of its own and stays.
inline char32_t plainChar(char32_t c) {
  switch (c) {
    case U'À': case U'Á': case U'Â': case U'Ã': case U'Ä': case U'Å': return U'A';
    case U'Ç': return U'C';
    case U'È': case U'É': case U'Ê': case U'Ë': return U'E';
    case U'Ì': case U'Í': case U'Î': case U'Ï': return U'I';
    case U'Ò': case U'Ó': case U'Ô': case U'Õ': case U'Ö': return U'O';
    case U'Ù': case U'Ú': case U'Û': case U'Ü': return U'U';
    case U'Ý': return U'Y';
    default: return c;
  }
}

inline std::string upper(std::string_view s) {
  std::u32string u = decodeUtf8(s);
  for (char32_t& c : u) c = upperChar(c);
  return encodeUtf8(u);
}

inline std::string withoutAccents(std::string_view s) {
  std::u32string u = decodeUtf8(s);
  for (char32_t& c : u) c = plainChar(upperChar(c));
  return encodeUtf8(u);
}

// The first `width` characters, without the blanks, slash or bracket a cut
// leaves at the end ("POBLE NOU DE BENITATXELL (EL)/"); the INE's own unit
// names come cut at 25 characters too.
inline std::string cut(std::string_view s, size_t width) {
  std::u32string u = decodeUtf8(s);
  if (u.size() > width) u.resize(width);
  while (!u.empty() && (u.back() == U'/' || u.back() == U'(' || u.back() == U' ')) u.pop_back();
  return encodeUtf8(u);
}

// ---------------------------------------------------------------- host names

// Articles the INE puts after the name ("Gineta, La"), in every official
// language of Spain.
inline bool isArticle(std::string_view upperWord) {
  static const std::set<std::string, std::less<>> kArticles = {
      "EL", "LA", "LOS", "LAS", "LO", "L'", "O", "A", "OS", "AS", "ES", "SA", "SES", "ELS", "LES", "ERA", "ETH", "ETH'"};
  return kArticles.count(upperWord) > 0;
}

// INE style to host style: upper case, "Gineta, La" -> "GINETA (LA)" in every
// half of a bilingual name. anyTrailer also brackets what is not an article
// ("Balears, Illes"), which only province names need.
inline std::string hostName(std::string_view ine, bool anyTrailer = false) {
  std::string out;
  size_t start = 0;
  while (true) {
    size_t slash = ine.find('/', start);
    std::string trozo = upper(ine.substr(start, slash == std::string_view::npos ? ine.npos : slash - start));
    size_t comma = trozo.rfind(',');
    if (comma != std::string::npos) {
      std::string head = trozo.substr(0, comma);
      std::string tail = trozo.substr(comma + 1);
      while (!tail.empty() && tail.front() == ' ') tail.erase(0, 1);
      while (!head.empty() && head.back() == ' ') head.pop_back();
      if (!tail.empty() && tail.find(' ') == std::string::npos && (anyTrailer || isArticle(tail)))
        trozo = head + " (" + tail + ")";
    }
    out += trozo;
    if (slash == std::string_view::npos) break;
    out += '/';
    start = slash + 1;
  }
  return out;
}

// The host's name of each province, by INE code. PROVIN.DBF names provinces
// as the street-directory service does (upper case, unaccented), save the
// nine the import converts to their traditional form (GERONA, LERIDA,
// SANTANDER...), and the four foral provinces the service leaves out in
// theirs; the import finds the host province by that name.
inline const std::map<int, std::string>& nombresProvinciaAnfitrion() {
  static const std::map<int, std::string> kNombres = {
      {1, "ALAVA"},        {2, "ALBACETE"},      {3, "ALICANTE"},    {4, "ALMERIA"},      {5, "AVILA"},
      {6, "BADAJOZ"},      {7, "BALEARES"},      {8, "BARCELONA"},   {9, "BURGOS"},       {10, "CACERES"},
      {11, "CADIZ"},       {12, "CASTELLON"},    {13, "CIUDAD REAL"}, {14, "CORDOBA"},    {15, "CORUÑA"},
      {16, "CUENCA"},      {17, "GERONA"},       {18, "GRANADA"},    {19, "GUADALAJARA"}, {20, "GUIPUZCOA"},
      {21, "HUELVA"},      {22, "HUESCA"},       {23, "JAEN"},       {24, "LEON"},        {25, "LERIDA"},
      {26, "RIOJA"},       {27, "LUGO"},         {28, "MADRID"},     {29, "MALAGA"},      {30, "MURCIA"},
      {31, "NAVARRA"},     {32, "ORENSE"},       {33, "ASTURIAS"},   {34, "PALENCIA"},    {35, "LAS PALMAS"},
      {36, "PONTEVEDRA"},  {37, "SALAMANCA"},    {38, "S.C. TENERIFE"}, {39, "SANTANDER"}, {40, "SEGOVIA"},
      {41, "SEVILLA"},     {42, "SORIA"},        {43, "TARRAGONA"},  {44, "TERUEL"},      {45, "TOLEDO"},
      {46, "VALENCIA"},    {47, "VALLADOLID"},   {48, "VIZCAYA"},    {49, "ZAMORA"},      {50, "ZARAGOZA"},
      {51, "CEUTA"},       {52, "MELILLA"}};
  return kNombres;
}

inline std::string nombreProvinciaAnfitrion(int codigo) {
  const auto& nombres = nombresProvinciaAnfitrion();
  const auto it = nombres.find(codigo);
  if (it == nombres.end()) throw std::runtime_error("provincia sin nombre del programa: " + std::to_string(codigo));
  return it->second;
}

// ---------------------------------------------------------------- reference data

struct Provincia {
  int codigo = 0;
  std::string nombre;  // host form, whole
};

struct Municipio {
  std::string ine;       // "28079"
  std::string prov;      // "28"
  std::string numero;    // "079"
  std::string nombre;    // host form, whole
  std::vector<std::string> postales;  // the first is the municipality's own
  bool unico = true;
  bool capital = false;
  double peso = 1;       // share of the street directory
};

struct Entidad {
  std::string nombre;  // host form, whole
  std::string postal;
  bool unico = true;   // the unit has only this postcode
};

struct Datos {
  std::vector<Provincia> provincias;
  std::vector<Municipio> municipios;              // by INE code
  std::map<std::string, std::vector<Entidad>> entidades;  // by INE code
  std::vector<std::pair<std::string, std::string>> tiposVia;
  std::vector<std::pair<int, std::string>> paises;  // Spain left out

  const Municipio* municipio(std::string_view ine) const {
    auto it = std::lower_bound(municipios.begin(), municipios.end(), ine,
                               [](const Municipio& m, std::string_view k) { return m.ine < k; });
    return it != municipios.end() && it->ine == ine ? &*it : nullptr;
  }
  std::string provincia(std::string_view prov) const {
    int code = std::stoi(std::string(prov));
    for (const auto& p : provincias)
      if (p.codigo == code) return p.nombre;
    throw std::runtime_error("provincia desconocida: " + std::string(prov));
  }
};

// The INE codes of the province capitals.
inline bool esCapital(std::string_view ine) {
  static const std::set<std::string, std::less<>> kCapitales = {
      "01059", "02003", "03014", "04013", "05019", "06015", "07040", "08019", "09059", "10037", "11012",
      "12040", "13034", "14021", "15030", "16078", "17079", "18087", "19130", "20069", "21041", "22125",
      "23050", "24089", "25120", "26089", "27028", "28079", "29067", "30030", "31201", "32054", "33044",
      "34120", "35016", "36038", "37274", "38038", "39075", "40194", "41091", "42173", "43148", "44216",
      "45168", "46250", "47186", "48020", "49275", "50297", "51001", "52001"};
  return kCapitales.count(ine) > 0;
}

// The callejero files a few addresses under "28000", "10000"...: no house
// has such a postcode, so it is never offered.
inline bool esComodin(const std::string& postal) { return postal.size() == 5 && postal.compare(2, 3, "000") == 0; }

inline std::vector<std::string> splitWords(std::string_view s) {
  std::vector<std::string> out;
  std::istringstream in{std::string(s)};
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

// Whether a population unit is only the municipality under another spelling:
// the INE writes unit names without accents and cuts them at 25 characters.
inline bool mismoNombre(const std::string& unidad, const std::string& municipio) {
  std::string u = withoutAccents(unidad), m = withoutAccents(municipio);
  if (u == m) return true;
  size_t start = 0;
  while (true) {
    size_t slash = m.find('/', start);
    if (m.substr(start, slash == std::string::npos ? m.npos : slash - start) == u) return true;
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  return u.size() >= 24 && m.compare(0, u.size(), u) == 0;
}

inline Datos cargarDatos(const std::filesystem::path& dir) {
  Datos d;
  {
    Csv csv = readCsv(dir / "provincias_ine.csv");
    size_t id = csv.col("provincia_id");
    for (const auto& r : csv.rows) {
      const int codigo = std::stoi(r[id]);
      d.provincias.push_back({codigo, nombreProvinciaAnfitrion(codigo)});
    }
    std::sort(d.provincias.begin(), d.provincias.end(),
              [](const Provincia& a, const Provincia& b) { return a.codigo < b.codigo; });
  }
  {
    Csv csv = readCsv(dir / "municipios_2026.csv");
    size_t id = csv.col("municipio_id"), prov = csv.col("provincia_id"), cmun = csv.col("cmun"),
           nombre = csv.col("nombre"), unico = csv.col("cp_unico"), primero = csv.col("cp_primero"),
           todos = csv.col("codigos_postales");
    for (const auto& r : csv.rows) {
      Municipio m;
      m.ine = r[id];
      m.prov = r[prov];
      m.numero = r[cmun];
      m.nombre = hostName(r[nombre]);
      m.unico = r[unico] == "S";
      m.capital = esCapital(m.ine);
      m.postales.push_back(r[primero]);
      for (auto& cp : splitWords(r[todos]))
        if (cp != r[primero]) m.postales.push_back(cp);
      std::erase_if(m.postales, esComodin);
      if (m.postales.empty()) m.postales.push_back(r[primero]);
      d.municipios.push_back(std::move(m));
    }
    std::sort(d.municipios.begin(), d.municipios.end(),
              [](const Municipio& a, const Municipio& b) { return a.ine < b.ine; });
  }
  {
    Csv csv = readCsv(dir / "codigos_postales_entidades_2026-01.csv");
    size_t cp = csv.col("codigo_postal"), mun = csv.col("municipio_id"), unidad = csv.col("codigo_unidad_poblacional"),
           entidad = csv.col("entidad_singular_nombre"), nucleo = csv.col("nucleo_nombre");
    // Population units per postcode: a postcode that serves one unit only is
    // a town's own, and towns have many streets per postcode.
    std::map<std::pair<std::string, std::string>, std::set<std::string>> porPostal;
    std::map<std::string, std::set<std::pair<std::string, std::string>>> vistas;
    for (const auto& r : csv.rows) {
      porPostal[{r[mun], r[cp]}].insert(r[unidad]);
      const Municipio* m = d.municipio(r[mun]);
      if (!m || esComodin(r[cp])) continue;
      // Scattered dwellings take the name of their singular entity: a
      // hamlet that is only scattered houses is still a place people write.
      bool disperso = r[nucleo].find("iseminado") != std::string::npos ||
                      r[nucleo].find("ISEMINADO") != std::string::npos;
      std::string nombre = hostName(disperso ? r[entidad] : r[nucleo]);
      if (nombre.empty() || withoutAccents(nombre).find("DISEMINADO") != std::string::npos) continue;
      if (mismoNombre(nombre, m->nombre)) continue;
      if (!vistas[m->ine].insert({nombre, r[cp]}).second) continue;
      d.entidades[m->ine].push_back({nombre, r[cp], true});
    }
    for (auto& [ine, lista] : d.entidades) {
      std::sort(lista.begin(), lista.end(), [](const Entidad& a, const Entidad& b) {
        return std::tie(a.nombre, a.postal) < std::tie(b.nombre, b.postal);
      });
      for (size_t i = 0; i < lista.size(); ++i) {
        bool otra = (i > 0 && lista[i - 1].nombre == lista[i].nombre) ||
                    (i + 1 < lista.size() && lista[i + 1].nombre == lista[i].nombre);
        lista[i].unico = !otra;
      }
    }
    std::map<std::string, int> urbanos;
    for (const auto& [clave, unidades] : porPostal)
      if (unidades.size() == 1) ++urbanos[clave.first];
    // A city's streets grow faster than its postcodes: weigh the town
    // postcodes squared, the rural ones plainly.
    for (auto& m : d.municipios) {
      double u = urbanos.count(m.ine) ? urbanos[m.ine] : 0;
      m.peso = 1 + u * u + 0.5 * double(m.postales.size());
    }
  }
  {
    Csv csv = readCsv(dir / "catastro_tipos_via.csv");
    size_t codigo = csv.col("codigo"), desc = csv.col("descripcion");
    std::set<std::string> vistos;
    // Where the cadastre gives a code two meanings, the first listed stays.
    for (const auto& r : csv.rows)
      if (vistos.insert(r[codigo]).second) d.tiposVia.push_back({r[codigo], upper(r[desc])});
  }
  {
    Csv csv = readCsv(dir / "paises_iso3166_es.csv");
    size_t num = csv.col("numeric"), nombre = csv.col("nombre_es");
    for (const auto& r : csv.rows) {
      int code = std::stoi(r[num]);
      if (code == 724) continue;  // Spain is 900, after the provinces
      d.paises.push_back({code, upper(r[nombre])});
    }
    std::sort(d.paises.begin(), d.paises.end());
  }
  return d;
}

// ---------------------------------------------------------------- table writing

// Collects rows and hands them to the table in large batches: one write and
// one header update per batch keeps a million-row load to seconds.
class Tabla {
 public:
  static constexpr size_t kLote = 65536;

  Tabla(const std::filesystem::path& path, const std::vector<dbase::FieldSpec>& campos)
      : file_(dbase::DbfFile::create(path.string(), campos, kDriverEsp850, true)),
        cp_(&file_->codePage()),
        blank_(file_->blankRecord()) {
    for (const auto& c : campos) index_.push_back(&file_->field(c.name));
  }
  ~Tabla() {
    try {
      cerrar();
    } catch (...) {
    }
  }

  // A blank row at the end of the batch; valid until the next call.
  char* nueva() {
    if (pendientes_ == kLote) volcar();
    lote_.append(blank_);
    ++pendientes_;
    return lote_.data() + lote_.size() - blank_.size();
  }
  // A copy of a prepared row.
  char* copia(const std::string& fila) {
    char* r = nueva();
    std::memcpy(r, fila.data(), fila.size());
    return r;
  }
  std::string filaEnBlanco() const { return blank_; }

  void texto(char* fila, size_t campo, std::string_view utf8) {
    dbase::setFieldText(*index_[campo], fila, utf8, *cp_, file_->name());
  }
  void numero(char* fila, size_t campo, double v) { dbase::setFieldNumber(*index_[campo], fila, v, file_->name()); }
  void logico(char* fila, size_t campo, bool v) { dbase::setFieldFlag(*index_[campo], fila, v); }

  size_t filas() const { return escritas_ + pendientes_; }

  // Writes what is left and the table's production index with the tags the
  // reference tables declare, as an installation's tables have it.
  size_t cerrar() {
    if (file_) {
      volcar();
      const auto tags = DefinicionesDeIndiceDeReferencia(QString::fromStdString(file_->path()), *file_);
      if (!tags.empty()) dbase::rebuildProductionIndex(*file_, tags);
      file_.reset();
    }
    return escritas_;
  }

 private:
  void volcar() {
    if (pendientes_ == 0) return;
    file_->appendMany(lote_);
    escritas_ += pendientes_;
    pendientes_ = 0;
    lote_.clear();
  }

  std::shared_ptr<dbase::DbfFile> file_;
  const dbase::CodePage* cp_;
  std::string blank_;
  std::vector<const dbase::FieldDescriptor*> index_;
  std::string lote_;
  size_t pendientes_ = 0;
  size_t escritas_ = 0;
};

inline dbase::FieldSpec C(const char* name, uint32_t length) {
  return {name, dbase::FieldType::Character, length, 0};
}
inline dbase::FieldSpec N(const char* name, uint32_t length) { return {name, dbase::FieldType::Numeric, length, 0}; }
inline dbase::FieldSpec L(const char* name) { return {name, dbase::FieldType::Logical, 1, 0}; }

// Field widths of the host's tables.
inline constexpr size_t kAnchoProvincia = 30;
inline constexpr size_t kAnchoNombre = 30;
inline constexpr size_t kAnchoPoblLite = 41;
inline constexpr size_t kAnchoVia = 45;

inline size_t escribirProvin(const std::filesystem::path& path, const Datos& d) {
  Tabla t(path, {N("CODIGO", 3), C("PROVINCIA", 30), N("GRUPO", 1)});
  auto fila = [&](int codigo, const std::string& nombre, int grupo) {
    char* r = t.nueva();
    t.numero(r, 0, codigo);
    t.texto(r, 1, cut(nombre, kAnchoProvincia));
    t.numero(r, 2, grupo);
  };
  for (const auto& p : d.provincias) fila(p.codigo, p.nombre, 1);
  fila(99, "EXTRANJERO", 1);
  fila(900, "ESPAÑA", 2);
  for (const auto& [codigo, nombre] : d.paises) fila(codigo, nombre, 2);
  return t.cerrar();
}

inline size_t escribirTipoVia(const std::filesystem::path& path, const Datos& d) {
  Tabla t(path, {C("CODIGO", 5), C("NOMBRE", 30)});
  for (const auto& [codigo, nombre] : d.tiposVia) {
    char* r = t.nueva();
    t.texto(r, 0, codigo);
    t.texto(r, 1, cut(nombre, kAnchoNombre));
  }
  return t.cerrar();
}

struct Cuenta {
  size_t municipios = 0;
  size_t entidades = 0;
};

// Every municipality's own row comes before its minor entities, so a
// municipality with entities always has its row.
template <class Filtro>
Cuenta escribirMunicipi(const std::filesystem::path& path, const Datos& d, Filtro incluir) {
  Tabla t(path, {C("COD_INE", 5), C("CODPOSTAL", 5), C("UNICO", 1), C("CAPITAL", 1), C("NOMBRE", 30),
                 C("COD_PROV", 2), C("COD_MUN", 4), C("COD_MUNMJ", 3), L("ENT_MENOR")});
  Cuenta c;
  for (const auto& m : d.municipios) {
    if (!incluir(m)) continue;
    std::string base = t.filaEnBlanco();
    t.texto(base.data(), 0, m.ine);
    t.texto(base.data(), 5, m.prov);
    t.texto(base.data(), 6, "0" + m.numero);
    t.texto(base.data(), 7, m.numero);

    char* r = t.copia(base);
    t.texto(r, 1, m.postales.front());
    t.texto(r, 2, m.unico ? "S" : "N");
    t.texto(r, 3, m.capital ? "S" : "N");
    t.texto(r, 4, cut(m.nombre, kAnchoNombre));
    t.logico(r, 8, false);
    ++c.municipios;

    auto it = d.entidades.find(m.ine);
    if (it == d.entidades.end()) continue;
    for (const auto& e : it->second) {
      char* r2 = t.copia(base);
      t.texto(r2, 1, e.postal);
      t.texto(r2, 2, e.unico ? "S" : "N");
      t.texto(r2, 3, "N");
      t.texto(r2, 4, cut(e.nombre, kAnchoNombre));
      t.logico(r2, 8, true);
      ++c.entidades;
    }
  }
  t.cerrar();
  return c;
}

template <class Filtro>
size_t escribirMunicimj(const std::filesystem::path& path, const Datos& d, Filtro incluir) {
  Tabla t(path, {C("PROVCOD", 10), C("POBLCOD", 10), C("POBLLITE", 41)});
  for (const auto& m : d.municipios) {
    if (!incluir(m)) continue;
    char* r = t.nueva();
    t.texto(r, 0, m.prov);
    t.texto(r, 1, m.numero);
    t.texto(r, 2, cut(m.nombre, kAnchoPoblLite));
  }
  return t.cerrar();
}

// ---------------------------------------------------------------- streets

inline uint64_t semillaDe(std::string_view clave) {
  uint64_t h = 1469598103934665603ull;
  for (char c : clave) h = (h ^ uint8_t(c)) * 1099511628211ull;
  return h ^ kSemilla;
}

enum class Region { General, Catalana, Gallega, Vasca };

inline Region regionDe(std::string_view prov) {
  static const std::set<std::string, std::less<>> kCatalana = {"03", "07", "08", "12", "17", "25", "43", "46"};
  static const std::set<std::string, std::less<>> kGallega = {"15", "27", "32", "36"};
  static const std::set<std::string, std::less<>> kVasca = {"01", "20", "31", "48"};
  if (kCatalana.count(prov)) return Region::Catalana;
  if (kGallega.count(prov)) return Region::Gallega;
  if (kVasca.count(prov)) return Region::Vasca;
  return Region::General;
}

struct Nombres {
  // What nearly every town has, most likely first.
  std::vector<std::string> comunes = {
      "MAYOR", "IGLESIA (LA)", "REAL", "CONSTITUCIÓN", "ESPAÑA", "FUENTE (LA)", "ERAS (LAS)", "SAN ROQUE",
      "CERVANTES", "NUEVA", "CASTILLO (EL)", "ESTACIÓN (LA)", "HUERTAS (LAS)", "MOLINO (EL)", "ANCHA",
      "ESCUELAS (LAS)", "CRUZ (LA)", "SOL (EL)", "PAZ (LA)", "CALVARIO (EL)", "HOSPITAL", "LLANO (EL)",
      "AYUNTAMIENTO", "PORTILLO (EL)", "POZO (EL)", "ARRABAL (EL)", "HORNO (EL)"};
  std::vector<std::string> santos = {
      "SAN ANTONIO", "SAN JOSÉ", "SAN JUAN", "SAN PEDRO", "SAN PABLO", "SAN MIGUEL", "SAN FRANCISCO",
      "SAN SEBASTIÁN", "SAN ISIDRO", "SAN MARTÍN", "SAN BLAS", "SAN LORENZO", "SAN VICENTE", "SAN ANDRÉS",
      "SAN BARTOLOMÉ", "SAN CRISTÓBAL", "SAN FERNANDO", "SAN JORGE", "SAN AGUSTÍN", "SAN IGNACIO",
      "SAN BERNARDO", "SAN MATEO", "SAN MARCOS", "SAN LUCAS", "SAN ILDEFONSO", "SAN GREGORIO", "SAN NICOLÁS",
      "SAN SALVADOR", "SAN TELMO", "SAN JULIÁN", "SAN ESTEBAN", "SAN FELIPE", "SAN GINÉS", "SAN ANTÓN",
      "SAN BENITO", "SAN CAYETANO", "SAN EUGENIO", "SAN LEANDRO", "SAN MILLÁN", "SAN RAFAEL", "SAN TIRSO",
      "SANTA ANA", "SANTA MARÍA", "SANTA BÁRBARA", "SANTA TERESA", "SANTA LUCÍA", "SANTA CATALINA",
      "SANTA ISABEL", "SANTA CLARA", "SANTA ENGRACIA", "SANTA EULALIA", "SANTA RITA", "SANTA CRUZ",
      "SANTA ÁGUEDA", "SANTA INÉS", "SANTA MARTA", "SANTA CECILIA", "SANTO DOMINGO", "SANTO TOMÁS",
      "SANTIAGO", "SANTIAGO APÓSTOL", "VIRGEN DEL CARMEN", "VIRGEN DE LA PEÑA", "VIRGEN DEL PILAR",
      "VIRGEN DE LOURDES", "VIRGEN DE FÁTIMA", "VIRGEN DE LA CABEZA", "VIRGEN DEL ROSARIO",
      "NUESTRA SEÑORA DE LA ASUNCIÓN", "CRISTO DE LA VEGA", "SANTÍSIMA TRINIDAD", "SAGRADO CORAZÓN"};
  std::vector<std::string> oficios = {
      "HERREROS (LOS)", "ALFAREROS (LOS)", "CARPINTEROS (LOS)", "TEJEDORES (LOS)", "CURTIDORES (LOS)",
      "PANADEROS (LOS)", "PLATEROS (LOS)", "ZAPATEROS (LOS)", "CUCHILLEROS (LOS)", "TINTOREROS (LOS)",
      "ALBAÑILES (LOS)", "CANTEROS (LOS)", "LABRADORES (LOS)", "PESCADORES (LOS)", "MOLINEROS (LOS)",
      "ARRIEROS (LOS)", "CERRAJEROS (LOS)", "BORDADORAS (LAS)", "HILANDERAS (LAS)", "LAVANDERAS (LAS)",
      "TONELEROS (LOS)", "ESPARTEROS (LOS)", "CORDELEROS (LOS)", "SOMBREREROS (LOS)", "CALDEREROS (LOS)",
      "VIDRIEROS (LOS)", "CESTEROS (LOS)", "TEJEROS (LOS)", "CARRETEROS (LOS)", "HERRADORES (LOS)",
      "BODEGUEROS (LOS)", "PASTORES (LOS)", "SEGADORES (LOS)", "VENDIMIADORES (LOS)", "IMPRESORES (LOS)"};
  std::vector<std::string> naturaleza = {
      "ÁLAMOS (LOS)", "ACACIAS (LAS)", "OLMOS (LOS)", "PINOS (LOS)", "ROBLE (EL)", "ENCINA (LA)",
      "CASTAÑOS (LOS)", "CEREZOS (LOS)", "ALMENDROS (LOS)", "OLIVOS (LOS)", "NARANJOS (LOS)",
      "LIMONEROS (LOS)", "MAGNOLIAS (LAS)", "ROSALES (LOS)", "ROSA (LA)", "JAZMÍN (EL)", "AZUCENA (LA)",
      "AMAPOLA (LA)", "VIOLETA (LA)", "MADROÑO (EL)", "SAUCE (EL)", "CHOPOS (LOS)", "FRESNO (EL)",
      "ABEDUL (EL)", "LAUREL (EL)", "TOMILLO (EL)", "ROMERO (EL)", "LAVANDA (LA)", "HIGUERA (LA)",
      "PALMERAS (LAS)", "GIRASOLES (LOS)", "MIMOSAS (LAS)", "CIPRESES (LOS)", "TEJO (EL)", "ACEBO (EL)",
      "NOGAL (EL)", "ENEBRO (EL)", "LILAS (LAS)", "MADRESELVA (LA)", "HIEDRA (LA)", "MALVA (LA)",
      "CLAVEL (EL)", "ORQUÍDEA (LA)", "TULIPÁN (EL)", "MARGARITAS (LAS)", "ENCINAR (EL)", "PINAR (EL)",
      "ALAMEDA (LA)", "CIGÜEÑA (LA)", "GOLONDRINAS (LAS)", "ÁGUILAS (LAS)", "HALCÓN (EL)", "RUISEÑOR (EL)",
      "ALONDRA (LA)", "GAVIOTA (LA)", "JILGUERO (EL)", "PALOMA (LA)", "GRULLAS (LAS)", "ÑANDÚ (EL)",
      "ÑORA (LA)", "LINCE (EL)", "CIERVO (EL)", "CHARCA (LA)", "ARROYO (EL)", "VIÑA (LA)", "VIÑAS (LAS)",
      "CAÑADA (LA)", "CERRO (EL)", "COLINA (LA)", "BARRANCO (EL)", "PEÑA (LA)", "PEÑAS (LAS)",
      "MONTAÑA (LA)", "LAGUNA (LA)", "ALBERCA (LA)", "VEGA (LA)", "SOTO (EL)", "PRADO (EL)", "PRADERA (LA)",
      "RIBERA (LA)", "OLIVAR (EL)", "CAÑAVERAL (EL)", "NORTE", "SUR", "LEVANTE", "PONIENTE", "LUNA (LA)",
      "ESTRELLA (LA)", "LUCERO (EL)", "AURORA (LA)", "PRIMAVERA (LA)", "OTOÑO (EL)"};
  std::vector<std::string> personajes = {
      "ANTONIO MACHADO", "FEDERICO GARCÍA LORCA", "MIGUEL DE UNAMUNO", "ROSALÍA DE CASTRO",
      "BENITO PÉREZ GALDÓS", "JUAN RAMÓN JIMÉNEZ", "MIGUEL HERNÁNDEZ", "GUSTAVO ADOLFO BÉCQUER",
      "RAMÓN Y CAJAL", "SEVERO OCHOA", "ISAAC PERAL", "ISAAC ALBÉNIZ", "MANUEL DE FALLA", "FRANCISCO DE GOYA",
      "DIEGO VELÁZQUEZ", "PABLO PICASSO", "JOAN MIRÓ", "SALVADOR DALÍ", "JOAQUÍN SOROLLA",
      "VICENTE BLASCO IBÁÑEZ", "CLARA CAMPOAMOR", "EMILIA PARDO BAZÁN", "CONCEPCIÓN ARENAL", "BLAS DE LEZO",
      "JORGE JUAN", "CRISTÓBAL COLÓN", "JUAN DE LA CIERVA", "JUAN SEBASTIÁN ELCANO", "FRANCISCO DE QUEVEDO",
      "LOPE DE VEGA", "CALDERÓN DE LA BARCA", "TIRSO DE MOLINA", "ANTONIO GAUDÍ", "PAU CASALS", "CHURRUCA",
      "RUPERTO CHAPÍ", "FEDERICO CHUECA", "BARTOLOMÉ ESTEBAN MURILLO", "JOVELLANOS", "GÓNGORA", "ZURBARÁN",
      "EL GRECO", "ISABEL LA CATÓLICA", "REYES CATÓLICOS", "ALFONSO X EL SABIO", "JAIME I", "FERNANDO III",
      "CARLOS III", "DOÑA URRACA", "BLAS INFANTE", "NEBRIJA", "VELARDE", "DAOIZ", "AGUSTINA DE ARAGÓN",
      "MARIANA PINEDA", "ÁNGEL GANIVET", "AZORÍN", "PÍO BAROJA", "ORTEGA Y GASSET", "MENÉNDEZ PELAYO",
      "RUBÉN DARÍO", "GABRIELA MISTRAL", "PABLO NERUDA", "ALBERTO ALONSO", "MARÍA MOLINER",
      "GLORIA FUERTES", "ROSA CHACEL", "VICTORIA KENT", "MARGARITA XIRGU", "LEONARDO TORRES QUEVEDO",
      "MIGUEL SERVET", "JUAN DE HERRERA", "VENTURA RODRÍGUEZ", "JUAN BRAVO", "PADILLA", "MALDONADO",
      "HERNÁN CORTÉS", "PIZARRO", "NÚÑEZ DE BALBOA", "LEGAZPI", "JUNÍPERO SERRA", "FRAY LUIS DE LEÓN",
      "SAN JUAN DE LA CRUZ", "SANTA TERESA DE JESÚS", "ALONSO CANO", "MARTÍNEZ MONTAÑÉS", "DOCTOR FLEMING",
      "DOCTOR MARAÑÓN", "DOCTOR ESQUERDO", "PINTOR ROSALES", "GENERAL RICARDOS", "CARDENAL CISNEROS",
      "ALMIRANTE CERVERA", "CAPITÁN HAYA", "PADRE DAMIÁN", "HERMANOS PINZÓN", "HERMANOS MACHADO",
      "HERMANOS ÁLVAREZ QUINTERO", "MARQUÉS DE LA ENSENADA", "CONDE DE PEÑALVER", "DUQUE DE ALBA"};
  std::vector<std::string> lugares = {
      "ALICANTE", "ALMERÍA", "ÁVILA", "BADAJOZ", "BARCELONA", "BURGOS", "CÁCERES", "CÁDIZ", "CASTELLÓN",
      "CÓRDOBA", "CUENCA", "GERONA", "GRANADA", "GUADALAJARA", "HUELVA", "HUESCA", "JAÉN", "LEÓN", "LÉRIDA",
      "LOGROÑO", "LUGO", "MADRID", "MÁLAGA", "MURCIA", "ORENSE", "OVIEDO", "PALENCIA", "PAMPLONA",
      "PONTEVEDRA", "SALAMANCA", "SEGOVIA", "SEVILLA", "SORIA", "TARRAGONA", "TERUEL", "TOLEDO", "VALENCIA",
      "VALLADOLID", "ZAMORA", "ZARAGOZA", "ANDALUCÍA", "ARAGÓN", "ASTURIAS", "CANARIAS", "CANTABRIA",
      "CASTILLA", "CATALUÑA", "EXTREMADURA", "GALICIA", "NAVARRA", "LA RIOJA", "BALEARES", "RÍO TAJO",
      "RÍO EBRO", "RÍO DUERO", "RÍO GUADALQUIVIR", "RÍO MIÑO", "RÍO JÚCAR", "RÍO SEGURA", "RÍO GUADIANA",
      "RÍO SIL", "RÍO JARAMA", "RÍO HENARES", "RÍO MANZANARES", "SIERRA NEVADA", "SIERRA DE GREDOS",
      "GUADARRAMA", "MONCAYO", "PICOS DE EUROPA", "PIRINEOS (LOS)", "SIERRA MORENA", "MONTSERRAT",
      "TEIDE (EL)", "ARGENTINA", "MÉXICO", "PERÚ", "CHILE", "PORTUGAL", "FRANCIA", "ITALIA", "CUBA",
      "VENEZUELA", "COLOMBIA", "URUGUAY", "PARAGUAY", "BOLIVIA", "ECUADOR", "FILIPINAS", "EUROPA",
      "AMÉRICA", "ÁFRICA", "MEDITERRÁNEO", "ATLÁNTICO", "CANTÁBRICO", "COVADONGA", "LEPANTO", "BAILÉN",
      "NUMANCIA", "SAGUNTO", "OTUMBA", "PAVÍA", "BRUSELAS", "LISBOA", "ROMA", "PARÍS", "VIENA", "ATENAS"};
  std::vector<std::string> valores = {
      "LIBERTAD", "PROGRESO", "INDUSTRIA", "AGRICULTURA", "TRABAJO", "INDEPENDENCIA", "ESPERANZA",
      "AMISTAD", "CONCORDIA", "UNIÓN", "CARIDAD", "SOLIDARIDAD", "JUVENTUD", "DEPORTE", "CULTURA",
      "COMERCIO", "MÚSICA", "POESÍA", "ARTES (LAS)", "CIENCIAS (LAS)", "LETRAS (LAS)", "DEMOCRACIA",
      "REPÚBLICA", "ESTATUTO", "AUTONOMÍA", "EUROPA UNIDA", "DERECHOS HUMANOS", "MAESTROS (LOS)",
      "MÁRTIRES (LOS)", "SOLDADOS (LOS)", "MARINEROS (LOS)", "BOMBEROS (LOS)", "DOS DE MAYO",
      "PRIMERO DE MAYO", "DOCE DE OCTUBRE", "SEIS DE DICIEMBRE"};
  std::vector<std::string> catalanes = {
      "L'ALBUFERA", "MAJOR", "SANT JORDI", "SANT JOAN", "SANT ANTONI", "SANT JOSEP", "SANT PERE",
      "SANT VICENT", "SANTA ANNA", "SANTA LLÚCIA", "SANTA EULÀLIA", "L'ESGLÉSIA", "L'HORTA", "L'ERA",
      "L'ESTACIÓ", "L'HOSPITAL", "FONT (LA)", "MOLÍ (EL)", "RAVAL (EL)", "PLA (EL)", "MAR (EL)", "LLEVANT",
      "PONENT", "TRAMUNTANA", "GARBÍ", "MESTRAL", "CAMÍ VELL", "VERGE DEL CARME", "MOSSÈN CINTO VERDAGUER",
      "MOSSÈN ALCOVER", "ESCOLES (LES)", "PORTAL NOU", "AUSIÀS MARCH", "ISABEL DE VILLENA", "JOAN FUSTER",
      "VICENT ANDRÉS ESTELLÉS", "LLUÍS COMPANYS", "FRANCESC MACIÀ", "PAU CLARIS", "RAFAEL CASANOVA",
      "ÀNGEL GUIMERÀ", "NARCÍS MONTURIOL", "RAMON LLULL", "JAUME I", "ONZE DE SETEMBRE", "NOU D'OCTUBRE",
      "PERE IV", "GERMANIES (LES)", "TARONGERS (ELS)", "GARROFERS (ELS)", "OLIVERES (LES)", "PINS (ELS)",
      "ROSERS (ELS)", "VINYES (LES)", "FORN (EL)", "POU (EL)", "CREU (LA)", "CASTELL (EL)", "SÉQUIA (LA)",
      "BARRANC (EL)", "COLL (EL)", "PUIG (EL)", "MUNTANYA (LA)", "SOL I PADRÍS", "EN ROBADOR",
      "SANT JOAN D'ALACANT", "L'ALCÚDIA", "L'AMETLLA", "ROC BORONAT", "DOCTOR TRUETA"};
  std::vector<std::string> gallegos = {
      "CASTELAO", "CURROS ENRÍQUEZ", "MANUEL MURGUÍA", "EDUARDO PONDAL", "RAMÓN CABANILLAS",
      "CELSO EMILIO FERREIRO", "ÁLVARO CUNQUEIRO", "RAMÓN OTERO PEDRAYO", "IGREXA (A)", "FONTE (A)",
      "PONTE (A)", "CRUCEIRO (O)", "CASTRO (O)", "EIRA (A)", "CARBALLO (O)", "CASTIÑEIRAS (AS)", "MUIÑO (O)",
      "PEDREIRA (A)", "SAN XOÁN", "SAN XIAO", "SANTA MARIÑA", "SAN MAMEDE", "SAN PAIO", "NOVA", "VELLA",
      "PRAIA (A)", "PORTO (O)", "AREAS (AS)", "CAMPIÑO (O)", "OUTEIRO (O)", "AGRA (A)", "RIBEIRA (A)",
      "CAMIÑO NOVO", "CARBALLEIRA (A)", "SOUTO (O)", "HORTA (A)", "AVELEIRA (A)", "CORREDOIRA (A)",
      "FERRADURA (A)", "PEIRAO (O)", "LAMAS (AS)", "REGO (O)", "MOSTEIRO (O)", "PAZO (O)", "VILAR (O)",
      "ALDEA (A)", "CHOUSA (A)", "VIÑA (A)", "PIÑEIRO (O)", "MARIÑA (A)"};
  std::vector<std::string> vascos = {
      "NAGUSIA", "ELIZA", "ERREKA", "SABINO ARANA", "ZUMALAKARREGI", "ETXEBARRIA", "GERNIKA",
      "AITA LARRAMENDI", "UDALETXE", "LEHENDAKARI AGIRRE", "ANDRA MARI", "SAN IGNAZIO", "FUEROS (LOS)",
      "IPARRAGIRRE", "TXURRUKA", "ARRIAGA", "ARANTZAZU", "IZARRAITZ", "ARALAR", "GORBEA", "URKIOLA",
      "JAUREGI", "ZUBIETA", "BIDEBARRIETA", "GOIKOA", "BEHEKOA", "ARRIBERRI", "ITURRIBIDE", "TELLERIA"};
  std::vector<std::string> titulos = {
      "DOCTOR", "PINTOR", "POETA", "MAESTRO", "ESCULTOR", "MÚSICO", "ESCRITOR", "ALCALDE", "GENERAL",
      "CAPITÁN", "ALMIRANTE", "PADRE", "HERMANOS", "INGENIERO", "ARQUITECTO", "NOTARIO", "PROFESOR",
      "COMPOSITOR", "MAESTRA", "DOCTORA", "COMANDANTE", "CONDE", "MARQUÉS", "OBISPO", "PRESBÍTERO"};
  std::vector<std::string> nombresPila = {
      "ANTONIO", "JOSÉ", "MANUEL", "FRANCISCO", "JUAN", "PEDRO", "JESÚS", "ÁNGEL", "MIGUEL", "RAFAEL",
      "LUIS", "CARLOS", "JAVIER", "FERNANDO", "ALFONSO", "ALBERTO", "RAMÓN", "ENRIQUE", "VICENTE", "ANDRÉS",
      "JOAQUÍN", "SANTIAGO", "EDUARDO", "IGNACIO", "GREGORIO", "JULIÁN", "EMILIO", "FELIPE", "SALVADOR",
      "TOMÁS", "AGUSTÍN", "GONZALO", "RICARDO", "EUGENIO", "BENITO", "LORENZO", "MARIANO", "NICOLÁS",
      "CLEMENTE", "EUSEBIO", "LEANDRO", "MATÍAS", "ÓSCAR", "ADOLFO", "BALTASAR", "CELESTINO", "DAMIÁN",
      "MARÍA", "CARMEN", "ANA", "ISABEL", "DOLORES", "PILAR", "TERESA", "ROSARIO", "JOSEFA", "MERCEDES",
      "CONCEPCIÓN", "LUCÍA", "ELENA", "CRISTINA", "MARTA", "BEATRIZ", "ROSA", "JULIA", "INÉS", "SOFÍA",
      "ENCARNACIÓN", "ASUNCIÓN", "AMPARO", "MONTSERRAT", "REMEDIOS", "NURIA", "LOURDES", "BEGOÑA",
      "ESPERANZA", "CONSUELO", "VICTORIA", "CATALINA", "MAGDALENA", "AURORA", "GUADALUPE", "ÁFRICA"};
  std::vector<std::string> apellidos = {
      "GARCÍA", "FERNÁNDEZ", "GONZÁLEZ", "RODRÍGUEZ", "LÓPEZ", "MARTÍNEZ", "SÁNCHEZ", "PÉREZ", "GÓMEZ",
      "MARTÍN", "JIMÉNEZ", "RUIZ", "HERNÁNDEZ", "DÍAZ", "MORENO", "MUÑOZ", "ÁLVAREZ", "ROMERO", "ALONSO",
      "GUTIÉRREZ", "NAVARRO", "TORRES", "DOMÍNGUEZ", "VÁZQUEZ", "RAMOS", "GIL", "RAMÍREZ", "SERRANO",
      "BLANCO", "MOLINA", "MORALES", "SUÁREZ", "ORTEGA", "DELGADO", "CASTRO", "ORTIZ", "RUBIO", "MARÍN",
      "SANZ", "NÚÑEZ", "IGLESIAS", "MEDINA", "GARRIDO", "CORTÉS", "CASTILLO", "SANTOS", "LOZANO",
      "GUERRERO", "CANO", "PRIETO", "MÉNDEZ", "CRUZ", "CALVO", "GALLEGO", "VIDAL", "LEÓN", "MÁRQUEZ",
      "HERRERA", "PEÑA", "FLORES", "CABRERA", "CAMPOS", "VEGA", "FUENTES", "CARRASCO", "DIEZ", "CABALLERO",
      "REYES", "NIETO", "AGUILAR", "PASCUAL", "SANTANA", "HERRERO", "LORENZO", "MONTERO", "HIDALGO",
      "GIMÉNEZ", "IBÁÑEZ", "FERRER", "DURÁN", "BENÍTEZ", "MORA", "VICENTE", "VARGAS", "ARIAS", "CARMONA",
      "CRESPO", "ROMÁN", "PASTOR", "SOTO", "SÁEZ", "VELASCO", "MOYA", "SOLER", "PARRA", "ESTEBAN", "BRAVO",
      "GALLARDO", "ROJAS", "PARDO", "MERINO", "FRANCO", "ESPINOSA", "IZQUIERDO", "LARA", "RIVAS", "SILVA",
      "RIVERA", "CASADO", "ARROYO", "REDONDO", "CAMACHO", "REY", "VERA", "OTERO", "LUQUE", "GALÁN",
      "MONTES", "RÍOS", "SIERRA", "SEGURA", "CARRILLO", "MARCOS", "SORIANO", "MENDOZA", "LLORENTE",
      "CHACÓN", "ECHEVARRÍA", "ORDÓÑEZ", "MUÑIZ", "CEBRIÁN", "QUIÑONES", "LLAMAS", "CHAMORRO", "VILLALBA",
      "BALLESTEROS", "ZAMORA", "MONTOYA", "VALLEJO", "OLMEDO", "TRUJILLO", "ESCOBAR", "BARRIOS", "QUINTANA"};
};

inline const Nombres& nombres() {
  static const Nombres n;
  return n;
}

struct Tramo {
  int imparIni = 0, imparFin = 0, parIni = 0, parFin = 0;
  size_t postal = 0;  // index into the municipality's postcodes
};

struct Calle {
  std::string tipo;
  std::string via;
  std::string llano;  // via without accents
  std::vector<Tramo> tramos;
};

// Street types with their share of a street directory.
inline const std::vector<std::pair<std::string, int>>& tiposFrecuentes(Region r) {
  static const std::vector<std::pair<std::string, int>> general = {
      {"CL", 720}, {"AV", 60}, {"PZ", 70}, {"PS", 20}, {"TR", 30}, {"CM", 30}, {"CR", 8}, {"GL", 8},
      {"RD", 8},   {"CJ", 8},  {"PJ", 10}, {"UR", 10}, {"BO", 4},  {"CT", 8},  {"BJ", 3}, {"SU", 3}};
  static const std::vector<std::pair<std::string, int>> catalana = {
      {"CL", 680}, {"AV", 60}, {"PZ", 80}, {"PS", 30}, {"TR", 20}, {"CM", 40}, {"CR", 8}, {"RB", 20},
      {"RD", 8},   {"PJ", 30}, {"UR", 10}, {"BO", 4},  {"RR", 6}};
  static const std::vector<std::pair<std::string, int>> gallega = {
      {"CL", 420}, {"RU", 300}, {"AV", 50}, {"PZ", 70}, {"TR", 40}, {"CM", 50}, {"CR", 10},
      {"LG", 40},  {"PS", 10},  {"CT", 8},  {"UR", 10}, {"BO", 6}};
  switch (r) {
    case Region::Catalana: return catalana;
    case Region::Gallega: return gallega;
    default: return general;
  }
}

inline std::string elegirTipo(Azar& azar, Region region) {
  const auto& tipos = tiposFrecuentes(region);
  int total = 0;
  for (const auto& t : tipos) total += t.second;
  int x = int(azar.menor(size_t(total)));
  for (const auto& t : tipos) {
    if (x < t.second) return t.first;
    x -= t.second;
  }
  return "CL";
}

inline std::string elegirNombre(Azar& azar, Region region, size_t intento) {
  const Nombres& n = nombres();
  // Too many repeats: a name with two surnames is as good as new.
  if (intento > 20)
    return azar.uno(n.nombresPila) + " " + azar.uno(n.apellidos) + " " + azar.uno(n.apellidos);
  if (region == Region::Catalana && azar.probable(0.3)) return azar.uno(n.catalanes);
  if (region == Region::Gallega && azar.probable(0.3)) return azar.uno(n.gallegos);
  if (region == Region::Vasca && azar.probable(0.2)) return azar.uno(n.vascos);
  double x = azar.unidad();
  if (x < 0.14) return azar.uno(n.santos);
  if (x < 0.22) return azar.uno(n.oficios);
  if (x < 0.40) return azar.uno(n.naturaleza);
  if (x < 0.54) return azar.uno(n.personajes);
  if (x < 0.66) return azar.uno(n.lugares);
  if (x < 0.72) return azar.uno(n.valores);
  if (x < 0.84) return azar.uno(n.titulos) + " " + azar.uno(n.apellidos);
  return azar.uno(n.nombresPila) + " " + azar.uno(n.apellidos);
}

// The streets of a municipality, `tramos` stretches in all, sorted by name.
// Each street's stretches follow each other along odd and even numbers; a
// stretch may cover one side only, and in a municipality with several
// postcodes a street crosses from one postcode to a neighbouring one.
inline std::vector<Calle> inventarCalles(const Municipio& m, size_t tramos) {
  std::vector<Calle> calles;
  if (tramos == 0) return calles;
  Azar azar(semillaDe(m.ine));
  const Region region = regionDe(m.prov);
  const Nombres& n = nombres();
  const size_t postales = m.postales.size();
  const int maxTramos = std::clamp(int(2 + std::sqrt(double(tramos)) / 4), 2, 30);
  const int portalesMax = tramos > 400 ? 40 : 12;
  std::unordered_set<std::string> usados;
  size_t comun = 0;
  size_t quedan = tramos;

  while (quedan > 0) {
    Calle c;
    for (size_t intento = 0;; ++intento) {
      c.tipo = elegirTipo(azar, region);
      if (comun < n.comunes.size() && azar.probable(0.6)) {
        c.via = n.comunes[comun++];
      } else {
        c.via = elegirNombre(azar, region, intento);
      }
      if (usados.insert(c.tipo + "|" + c.via).second) break;
    }
    c.llano = withoutAccents(c.via);

    const bool corta = c.tipo == "PZ" || c.tipo == "GL" || c.tipo == "PJ" || c.tipo == "CJ";
    size_t cuantos = corta ? 1 + azar.menor(2) : size_t(1 + std::floor(maxTramos * std::pow(azar.unidad(), 2)));
    cuantos = std::min(cuantos, quedan);

    size_t postal = azar.menor(postales);
    int impar = 1, par = 2;
    auto largo = [&] { return 2 + int(azar.menor(size_t(portalesMax))); };
    while (c.tramos.size() < cuantos) {
      if (!c.tramos.empty() && postales > 1 && azar.probable(0.3)) {
        // Onwards into the next postcode, or back into the previous one.
        postal = (postal + (azar.probable(0.5) ? 1 : postales - 1)) % postales;
      }
      double x = azar.unidad();
      Tramo t;
      t.postal = postal;
      if (!corta && postales > 1 && x < 0.08 && cuantos - c.tramos.size() >= 2) {
        // The two sides of one stretch in different postcodes.
        Tramo otro;
        t.imparIni = impar, t.imparFin = impar + 2 * (largo() - 1), impar = t.imparFin + 2;
        otro.parIni = par, otro.parFin = par + 2 * (largo() - 1), par = otro.parFin + 2;
        otro.postal = (postal + 1) % postales;
        c.tramos.push_back(t);
        c.tramos.push_back(otro);
        continue;
      }
      const bool soloImpares = !corta && x >= 0.08 && x < 0.15;
      const bool soloPares = !corta && x >= 0.15 && x < 0.22;
      if (!soloPares) t.imparIni = impar, t.imparFin = impar + 2 * (largo() - 1), impar = t.imparFin + 2;
      if (!soloImpares) t.parIni = par, t.parFin = par + 2 * (largo() - 1), par = t.parFin + 2;
      c.tramos.push_back(t);
    }
    quedan -= c.tramos.size();
    calles.push_back(std::move(c));
  }
  std::sort(calles.begin(), calles.end(), [](const Calle& a, const Calle& b) {
    return std::tie(a.llano, a.tipo) < std::tie(b.llano, b.tipo);
  });
  return calles;
}

// A street table (POSTAL.DBF or Postales/POSTALnn.DBF). CODIGO1 numbers the
// streets of the file. PROVINCIA holds the two-digit province code, as the
// street import writes it and the street search compares it.
class TablaPostal {
 public:
  explicit TablaPostal(const std::filesystem::path& path)
      : t_(path, CallesImportadas::CamposDeCalles()) {}

  void agregar(const Municipio& m, const std::vector<Calle>& calles) {
    std::string base = t_.filaEnBlanco();
    t_.texto(base.data(), 7, m.capital ? "S" : "N");
    t_.texto(base.data(), 8, m.prov);
    t_.texto(base.data(), 9, cut(m.nombre, kAnchoNombre));
    t_.texto(base.data(), 10, m.ine);
    for (const auto& c : calles) {
      char codigo[16];
      std::snprintf(codigo, sizeof codigo, "%08zu", ++calles_);
      std::string fila = base;
      t_.texto(fila.data(), 0, cut(c.via, kAnchoVia));
      t_.texto(fila.data(), 1, c.tipo);
      t_.texto(fila.data(), 11, cut(c.llano, kAnchoVia));
      t_.texto(fila.data(), 12, codigo);
      for (const auto& tr : c.tramos) {
        char* r = t_.copia(fila);
        t_.numero(r, 2, tr.imparIni);
        t_.numero(r, 3, tr.imparFin);
        t_.numero(r, 4, tr.parIni);
        t_.numero(r, 5, tr.parFin);
        t_.texto(r, 6, m.postales[tr.postal]);
      }
    }
  }
  size_t calles() const { return calles_; }
  size_t cerrar() { return t_.cerrar(); }

 private:
  Tabla t_;
  size_t calles_ = 0;
};

// Splits `total` among weights in proportion, exactly (largest remainder).
inline std::vector<size_t> repartir(const std::vector<double>& pesos, size_t total) {
  double suma = 0;
  for (double p : pesos) suma += p;
  std::vector<size_t> out(pesos.size(), 0);
  if (suma <= 0 || pesos.empty()) return out;
  std::vector<std::pair<double, size_t>> restos;
  size_t dado = 0;
  for (size_t i = 0; i < pesos.size(); ++i) {
    double exacto = double(total) * pesos[i] / suma;
    out[i] = size_t(std::floor(exacto));
    dado += out[i];
    restos.push_back({exacto - double(out[i]), i});
  }
  std::stable_sort(restos.begin(), restos.end(), [](auto& a, auto& b) { return a.first > b.first; });
  for (size_t k = 0; dado < total; ++k, ++dado) ++out[restos[k % restos.size()].second];
  return out;
}

// The stretches of the national set, split among the municipalities by
// their weights (the data generator and INE's use the same split).
inline constexpr size_t kTramosPorDefecto = 1'600'000;

// The command line of a generator: CARPETA_DATOS CARPETA_SALIDA, `--tramos N`
// and whatever options `otra(nombre, valor)` takes (false: not one of them),
// shown in the usage line as `otrasEnElUso`. Empty, the usage line printed on
// standard error, when the line is not of that form.
struct LineaDeOrdenes {
  std::filesystem::path datos, salida;
  size_t tramos = kTramosPorDefecto;
};
template <typename OtraOpcion>
std::optional<LineaDeOrdenes> leerLineaDeOrdenes(int argc, char** argv, const char* otrasEnElUso, OtraOpcion&& otra) {
  const auto uso = [&] {
    std::fprintf(stderr, "uso: %s CARPETA_DATOS CARPETA_SALIDA [--tramos N]%s%s\n", argv[0], *otrasEnElUso ? " " : "",
                 otrasEnElUso);
    return std::optional<LineaDeOrdenes>();
  };
  LineaDeOrdenes linea;
  std::vector<std::string> carpetas;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a.rfind("--", 0) == 0 && i + 1 < argc) {
      const std::string valor = argv[++i];
      if (a == "--tramos") {
        char* fin = nullptr;
        linea.tramos = std::strtoull(valor.c_str(), &fin, 10);
        if (!fin || *fin) return uso();
      } else if (!otra(a, valor)) {
        return uso();
      }
    } else {
      carpetas.push_back(a);
    }
  }
  if (carpetas.size() != 2) return uso();
  linea.datos = carpetas[0];
  linea.salida = carpetas[1];
  return linea;
}

// The header keeps the date of the data, not of the run, so that the same
// sources give byte-identical tables.
inline void fecharCabecera(const std::filesystem::path& path, int anio, int mes, int dia) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  if (!f) throw std::runtime_error("no se puede fechar " + path.string());
  const char fecha[3] = {char(anio - 1900), char(mes), char(dia)};
  f.seekp(dbase::kOffUpdateDate);
  f.write(fecha, 3);
}

}  // namespace gen
