#include "import/CallejeroIne.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <stdexcept>
#include <tuple>

namespace ine {

namespace {

// Positions of the fields read, 0-based, with their lengths.
struct Campo {
  size_t desde, largo;
  const char* nombre;
};
constexpr Campo kTramoProvincia{0, 2, "CPRO"}, kTramoMunicipio{2, 3, "CMUN"}, kTramoVia{20, 5, "CVIA"},
    kTramoPseudovia{25, 5, "CPSVIA"}, kTramoCodPostal{42, 5, "CPOS"}, kTramoTinum{47, 1, "TINUM"},
    kTramoInicio{48, 4, "EIN"}, kTramoFin{53, 4, "ESN"};
constexpr Campo kViaProvincia{0, 2, "CPRO"}, kViaMunicipio{2, 3, "CMUN"}, kViaCodigo{5, 5, "CVIA"};
// TVIA and NVIA: where the two designs differ.
constexpr Campo kViaTipoAntiguo{27, 5, "TVIA"}, kViaNombreAntiguo{33, 50, "NVIA"};
constexpr Campo kViaTipoNuevo{52, 5, "TVIA"}, kViaNombreNuevo{57, 50, "NVIA"};

std::string_view Recorta(std::string_view s) {
  while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
  while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
  return s;
}

// Line text quoted in a message, which is UTF-8.
std::string Latin1AUtf8(std::string_view s) {
  std::string out;
  for (char ch : s) {
    const auto b = static_cast<unsigned char>(ch);
    if (b < 0x80) {
      out += ch;
    } else {
      out += char(0xC0 | (b >> 6));
      out += char(0x80 | (b & 0x3F));
    }
  }
  return out;
}

std::string Columnas(const Campo& c) {
  return c.largo == 1 ? "columna " + std::to_string(c.desde + 1)
                      : "columnas " + std::to_string(c.desde + 1) + "-" + std::to_string(c.desde + c.largo);
}

// A number field: every character a digit.
bool Numero(std::string_view linea, const Campo& c, int& valor, std::string& fallo) {
  const std::string_view texto = linea.substr(c.desde, c.largo);
  int n = 0;
  for (char ch : texto) {
    if (ch < '0' || ch > '9') {
      fallo = std::string("el campo ") + c.nombre + " (" + Columnas(c) + ") no es un número: «" + Latin1AUtf8(texto) + "»";
      return false;
    }
    n = n * 10 + (ch - '0');
  }
  valor = n;
  return true;
}

std::string Hex(unsigned char b) {
  static const char kCifras[] = "0123456789ABCDEF";
  return std::string("0x") + kCifras[b >> 4] + kCifras[b & 15];
}

// Why a line is not Latin-1 text, or empty when it is.
std::string FalloLatin1(std::string_view linea) {
  const size_t en = PrimerByteNoLatin1(linea);
  if (en == std::string_view::npos) return {};
  const auto b = static_cast<unsigned char>(linea[en]);
  std::string fallo = "no es texto Latin-1: byte " + Hex(b) + " en la columna " + std::to_string(en + 1);
  // A lead byte of UTF-8 just before: the file was converted to UTF-8.
  if (en > 0 && b >= 0x80 && b <= 0xBF) {
    const auto antes = static_cast<unsigned char>(linea[en - 1]);
    if (antes >= 0xC2 && antes <= 0xF4) fallo += " (parece texto en UTF-8)";
  }
  return fallo;
}

std::string Codigo(int valor, int cifras) {
  std::string s = std::to_string(valor);
  return std::string(size_t(std::max(0, cifras - int(s.size()))), '0') + s;
}

uint64_t ClaveVia(int municipio, int via) { return uint64_t(municipio) * 100000u + uint64_t(via); }

bool Quiere(const Provincias& provincias, int provincia) {
  return provincias.empty() || std::find(provincias.begin(), provincias.end(), provincia) != provincias.end();
}

// The province of a line when its first two characters are digits.
std::optional<int> ProvinciaDeLinea(std::string_view linea) {
  if (linea.size() < 2 || linea[0] < '0' || linea[0] > '9' || linea[1] < '0' || linea[1] > '9') return std::nullopt;
  return (linea[0] - '0') * 10 + (linea[1] - '0');
}

// The first line with text, for telling the design; empty lines are skipped
// (and are not records).
bool PrimeraLinea(LectorLineas& lector, std::string_view& linea) {
  while (lector.Siguiente(linea))
    if (!linea.empty()) return true;
  return false;
}

std::string EnLinea(const std::string& fichero, size_t linea) {
  return fichero + ", línea " + std::to_string(linea) + ": ";
}

void LeeVias(LectorLineas& lector, const std::string& nombre, const Provincias& provincias, const Avisos& avisos,
             Callejero& c, std::unordered_map<uint64_t, uint32_t>& indice) {
  std::string_view linea;
  if (!PrimeraLinea(lector, linea))
    throw std::runtime_error(nombre + ": el fichero de vías está vacío");
  const std::optional<Diseno> diseno = DisenoDeVias(linea.size());
  if (!diseno) {
    std::string fallo = EnLinea(nombre, lector.NumeroLinea()) + "no es un fichero de vías del INE: la línea tiene " +
                        std::to_string(linea.size()) + " caracteres, y una vía tiene " +
                        std::to_string(kLargoViaAntigua) + " (diseño antiguo) o " + std::to_string(kLargoViaNueva) +
                        " (diseño nuevo)";
    if (linea.size() == kLargoTramo) fallo += "; ¿es el fichero de tramos?";
    const std::string latin1 = FalloLatin1(linea);
    if (!latin1.empty()) fallo += "; además " + latin1;
    throw std::runtime_error(fallo);
  }
  c.diseno = *diseno;
  auto mala = [&](std::string fallo) {
    ++c.viasErroneas;
    if (avisos.lineaMala) avisos.lineaMala({nombre, lector.NumeroLinea(), std::move(fallo)});
  };
  std::string fallo;
  LineaVia v;
  do {
    if (linea.empty()) continue;
    ++c.lineasVias;
    const std::optional<int> provincia = ProvinciaDeLinea(linea);
    if (provincia && !Quiere(provincias, *provincia)) continue;
    if (!LeeLineaVia(linea, c.diseno, v, fallo)) {
      mala(fallo);
      continue;
    }
    const int municipio = v.provincia * 1000 + v.municipio;
    if (!indice.try_emplace(ClaveVia(municipio, v.via), uint32_t(c.vias.size())).second) {
      ++c.viasRepetidas;
      mala("la vía " + Codigo(v.via, 5) + " del municipio " + Codigo(municipio, 5) +
           " ya estaba en la línea de antes; vale la primera");
      continue;
    }
    Via via;
    via.municipio = municipio;
    via.codigo = v.via;
    via.tipoDesde = uint32_t(c.textos.size());
    via.tipoLargo = uint8_t(v.tipo.size());
    c.textos.append(v.tipo);
    via.nombreDesde = uint32_t(c.textos.size());
    via.nombreLargo = uint8_t(v.nombre.size());
    c.textos.append(v.nombre);
    c.vias.push_back(via);
  } while (lector.Siguiente(linea));
}

void LeeTramos(LectorLineas& lector, const std::string& nombre, const std::string& nombreVias,
               const Provincias& provincias, const Avisos& avisos, Callejero& c,
               const std::unordered_map<uint64_t, uint32_t>& indice) {
  std::string_view linea;
  if (!PrimeraLinea(lector, linea))
    throw std::runtime_error(nombre + ": el fichero de tramos está vacío");
  if (linea.size() != kLargoTramo) {
    std::string fallo = EnLinea(nombre, lector.NumeroLinea()) + "no es un fichero de tramos del INE: la línea tiene " +
                        std::to_string(linea.size()) + " caracteres, y un tramo tiene " + std::to_string(kLargoTramo) +
                        " en los dos diseños";
    if (DisenoDeVias(linea.size())) fallo += "; ¿es el fichero de vías?";
    const std::string latin1 = FalloLatin1(linea);
    if (!latin1.empty()) fallo += "; además " + latin1;
    throw std::runtime_error(fallo);
  }
  std::string fallo;
  LineaTramo t;
  size_t vistas = 0;
  do {
    if (linea.empty()) continue;
    ++c.lineasTramos;
    if (avisos.progreso && (++vistas & 0xFFFF) == 0) avisos.progreso(lector.BytesLeidos(), lector.BytesTotales());
    const std::optional<int> provincia = ProvinciaDeLinea(linea);
    if (provincia && !Quiere(provincias, *provincia)) {
      ++c.descartes.otrasProvincias;
      continue;
    }
    if (!LeeLineaTramo(linea, t, fallo)) {
      ++c.descartes.erroneas;
      if (avisos.lineaMala) avisos.lineaMala({nombre, lector.NumeroLinea(), fallo});
      continue;
    }
    if (t.via == 0) {
      ++(t.pseudovia != 0 ? c.descartes.pseudovias : c.descartes.unidades);
      continue;
    }
    const int municipio = t.provincia * 1000 + t.municipio;
    const auto donde = indice.find(ClaveVia(municipio, t.via));
    if (donde == indice.end()) {
      ++c.descartes.viaDesconocida;
      if (avisos.lineaMala)
        avisos.lineaMala({nombre, lector.NumeroLinea(),
                          "la vía " + Codigo(t.via, 5) + " del municipio " + Codigo(municipio, 5) + " no está en " +
                              nombreVias});
      continue;
    }
    Tramo tramo;
    tramo.via = donde->second;
    tramo.codPostal = uint32_t(t.codPostal);
    tramo.tinum = uint8_t(t.tinum);
    tramo.inicio = uint16_t(t.inicio);
    tramo.fin = uint16_t(t.fin);
    c.tramos.push_back(tramo);
  } while (lector.Siguiente(linea));
  if (avisos.progreso) avisos.progreso(lector.BytesTotales(), lector.BytesTotales());
}

std::string NombreDeRuta(const std::string& ruta) {
  const size_t barra = ruta.find_last_of('/');
  return barra == std::string::npos ? ruta : ruta.substr(barra + 1);
}

Callejero Lee(LectorLineas& tramos, LectorLineas& vias, const Provincias& provincias, const Avisos& avisos,
              const std::string& nombreTramos, const std::string& nombreVias) {
  Callejero c;
  std::unordered_map<uint64_t, uint32_t> indice;
  LeeVias(vias, nombreVias, provincias, avisos, c, indice);
  LeeTramos(tramos, nombreTramos, nombreVias, provincias, avisos, c, indice);
  return c;
}

}  // namespace

std::optional<Diseno> DisenoDeVias(size_t largo) {
  if (largo == kLargoViaAntigua) return Diseno::Antiguo;
  if (largo == kLargoViaNueva || largo == kLargoViaNuevaConVector) return Diseno::Nuevo;
  return std::nullopt;
}

const char* NombreDiseno(Diseno d) { return d == Diseno::Antiguo ? "antiguo (108)" : "nuevo (132)"; }

size_t PrimerByteNoLatin1(std::string_view linea) {
  // Eight bytes at a time while they are all printable ASCII (0x20-0x7E),
  // as nearly every byte of these files is; byte by byte from the first
  // word that is not.
  constexpr uint64_t kUnos = ~uint64_t(0) / 255, kAltos = kUnos * 0x80;
  size_t i = 0;
  for (; i + 8 <= linea.size(); i += 8) {
    uint64_t x;
    std::memcpy(&x, linea.data() + i, 8);
    const uint64_t bajo = (x - kUnos * 0x20) & ~x & kAltos;        // a byte below 0x20
    const uint64_t alto = ((x + kUnos * (127 - 0x7E)) | x) & kAltos;  // a byte above 0x7E
    if (bajo | alto) break;
  }
  for (; i < linea.size(); ++i) {
    const auto b = static_cast<unsigned char>(linea[i]);
    if (b < 0x20 || (b >= 0x7F && b <= 0x9F)) return i;
  }
  return std::string_view::npos;
}

bool LeeLineaVia(std::string_view linea, Diseno diseno, LineaVia& via, std::string& fallo) {
  fallo = FalloLatin1(linea);
  if (!fallo.empty()) return false;
  const bool antiguo = diseno == Diseno::Antiguo;
  if (antiguo ? linea.size() != kLargoViaAntigua
              : linea.size() != kLargoViaNueva && linea.size() != kLargoViaNuevaConVector) {
    fallo = "línea cortada o de otro diseño: tiene " + std::to_string(linea.size()) +
            " caracteres, y una vía del diseño " + (antiguo ? "antiguo" : "nuevo") + " tiene " +
            std::to_string(antiguo ? kLargoViaAntigua : kLargoViaNueva);
    return false;
  }
  if (!Numero(linea, kViaProvincia, via.provincia, fallo) || !Numero(linea, kViaMunicipio, via.municipio, fallo) ||
      !Numero(linea, kViaCodigo, via.via, fallo))
    return false;
  const Campo& tipo = antiguo ? kViaTipoAntiguo : kViaTipoNuevo;
  const Campo& nombre = antiguo ? kViaNombreAntiguo : kViaNombreNuevo;
  via.tipo = Recorta(linea.substr(tipo.desde, tipo.largo));
  via.nombre = Recorta(linea.substr(nombre.desde, nombre.largo));
  if (via.via == 0) {
    fallo = "la vía tiene el código 00000, que en los tramos quiere decir «sin vía»";
    return false;
  }
  if (via.nombre.empty()) {
    fallo = "la vía " + Codigo(via.via, 5) + " no tiene nombre (" + Columnas(nombre) + ")";
    return false;
  }
  return true;
}

bool LeeLineaTramo(std::string_view linea, LineaTramo& t, std::string& fallo) {
  fallo = FalloLatin1(linea);
  if (!fallo.empty()) return false;
  if (linea.size() != kLargoTramo) {
    fallo = "línea cortada: tiene " + std::to_string(linea.size()) + " caracteres, y un tramo tiene " +
            std::to_string(kLargoTramo);
    return false;
  }
  if (!Numero(linea, kTramoProvincia, t.provincia, fallo) || !Numero(linea, kTramoMunicipio, t.municipio, fallo) ||
      !Numero(linea, kTramoVia, t.via, fallo) || !Numero(linea, kTramoPseudovia, t.pseudovia, fallo) ||
      !Numero(linea, kTramoCodPostal, t.codPostal, fallo) || !Numero(linea, kTramoTinum, t.tinum, fallo) ||
      !Numero(linea, kTramoInicio, t.inicio, fallo) || !Numero(linea, kTramoFin, t.fin, fallo))
    return false;
  if (t.codPostal < 1000 || t.codPostal / 1000 > 52) {
    fallo = "el código postal " + Codigo(t.codPostal, 5) + " (" + Columnas(kTramoCodPostal) +
            ") no es de ninguna provincia";
    return false;
  }
  if (t.tinum > 2) {
    fallo = "el tipo de numeración TINUM (" + Columnas(kTramoTinum) + ") es " + std::to_string(t.tinum) +
            ", y sólo puede ser 0 (sin número), 1 (impares) o 2 (pares)";
    return false;
  }
  if (t.tinum != 0 && t.inicio > t.fin) {
    fallo = "el tramo empieza en el número " + std::to_string(t.inicio) + " y acaba antes, en el " +
            std::to_string(t.fin);
    return false;
  }
  return true;
}

// ------------------------------------------------------------- lines

namespace {
constexpr size_t kBloque = size_t(4) << 20;
}

LectorLineas::LectorLineas(std::string_view bytes) : memoria_(bytes), fin_(true), total_(bytes.size()) {}

LectorLineas::LectorLineas(const std::string& ruta) : ruta_(ruta) {
  fichero_ = std::fopen(ruta.c_str(), "rb");
  if (!fichero_)
    throw std::runtime_error(NombreDeRuta(ruta) + ": no se puede abrir: " + std::strerror(errno));
  if (std::fseek(fichero_, 0, SEEK_END) == 0) {
    const long largo = std::ftell(fichero_);
    if (largo > 0) total_ = uint64_t(largo);
    std::fseek(fichero_, 0, SEEK_SET);
  }
}

LectorLineas::~LectorLineas() {
  if (fichero_) std::fclose(fichero_);
}

bool LectorLineas::Rellena() {
  if (fin_) return false;
  // What is left of the block goes to the front, the next block after it.
  const size_t queda = lleno_ - pos_;
  if (queda + kBloque > capacidad_) {
    capacidad_ = queda + kBloque;
    std::unique_ptr<char[]> mayor(new char[capacidad_]);
    if (queda) std::memcpy(mayor.get(), bufer_.get() + pos_, queda);
    bufer_ = std::move(mayor);
  } else if (queda) {
    std::memmove(bufer_.get(), bufer_.get() + pos_, queda);
  }
  pos_ = 0;
  const size_t leidos = std::fread(bufer_.get() + queda, 1, kBloque, fichero_);
  lleno_ = queda + leidos;
  if (leidos < kBloque) {
    if (std::ferror(fichero_))
      throw std::runtime_error(NombreDeRuta(ruta_) + ": no se puede leer: " + std::strerror(errno));
    fin_ = true;
  }
  return leidos > 0;
}

bool LectorLineas::Siguiente(std::string_view& linea) {
  while (true) {
    const std::string_view datos = fichero_ ? std::string_view(bufer_.get(), lleno_) : memoria_;
    const size_t salto = datos.find('\n', pos_);
    if (salto != std::string_view::npos) {
      linea = datos.substr(pos_, salto - pos_);
      consumidos_ += salto + 1 - pos_;
      pos_ = salto + 1;
      if (!linea.empty() && linea.back() == '\r') linea.remove_suffix(1);
      ++numero_;
      return true;
    }
    if (fichero_ && !fin_) {
      Rellena();
      continue;
    }
    if (pos_ >= datos.size()) return false;
    // The last line, without an end.
    linea = datos.substr(pos_);
    consumidos_ += datos.size() - pos_;
    pos_ = datos.size();
    if (!linea.empty() && linea.back() == '\x1A') linea.remove_suffix(1);
    if (!linea.empty() && linea.back() == '\r') linea.remove_suffix(1);
    if (linea.empty()) return false;
    ++numero_;
    return true;
  }
}

// ------------------------------------------------------------- reading

Callejero LeeCallejero(const std::string& rutaTramos, const std::string& rutaVias, const Provincias& provincias,
                       const Avisos& avisos) {
  LectorLineas vias(rutaVias);
  LectorLineas tramos(rutaTramos);
  return Lee(tramos, vias, provincias, avisos, NombreDeRuta(rutaTramos), NombreDeRuta(rutaVias));
}

Callejero LeeCallejeroDeBytes(std::string_view bytesTramos, std::string_view bytesVias, const Provincias& provincias,
                              const Avisos& avisos, const std::string& nombreTramos, const std::string& nombreVias) {
  LectorLineas vias(bytesVias);
  LectorLineas tramos(bytesTramos);
  return Lee(tramos, vias, provincias, avisos, nombreTramos, nombreVias);
}

// ------------------------------------------------------------- ranges

namespace {

struct Tramado {
  int inicio, fin;
  uint32_t codPostal;
};

// Consecutive stretches of one postcode, in number order, become one range.
std::vector<Tramado> Une(std::vector<Tramado> tramos) {
  std::sort(tramos.begin(), tramos.end(), [](const Tramado& a, const Tramado& b) {
    return std::tie(a.inicio, a.fin, a.codPostal) < std::tie(b.inicio, b.fin, b.codPostal);
  });
  std::vector<Tramado> unidos;
  for (const Tramado& t : tramos) {
    if (!unidos.empty() && unidos.back().codPostal == t.codPostal) {
      unidos.back().fin = std::max(unidos.back().fin, t.fin);
      continue;
    }
    unidos.push_back(t);
  }
  return unidos;
}

}  // namespace

Rangos RangosDeCalle(const Tramo* tramos, size_t cuantos) {
  Rangos r;
  std::vector<Tramado> impares, pares;
  std::vector<uint32_t> sinNumero;
  for (size_t i = 0; i < cuantos; ++i) {
    const Tramo& t = tramos[i];
    if (t.tinum == 1)
      impares.push_back({t.inicio, t.fin, t.codPostal});
    else if (t.tinum == 2)
      pares.push_back({t.inicio, t.fin, t.codPostal});
    else
      sinNumero.push_back(t.codPostal);
  }
  if (impares.empty() && pares.empty()) {
    std::sort(sinNumero.begin(), sinNumero.end());
    sinNumero.erase(std::unique(sinNumero.begin(), sinNumero.end()), sinNumero.end());
    for (uint32_t cp : sinNumero) {
      Rango fila;
      fila.codPostal = cp;
      fila.sinNumero = true;
      r.filas.push_back(fila);
    }
    return r;
  }
  r.sinNumeroDescartados = sinNumero.size();
  // By postcode: its odd ranges and its even ranges, in number order.
  std::map<uint32_t, std::pair<std::vector<Tramado>, std::vector<Tramado>>> porCodigo;
  for (const Tramado& t : Une(std::move(impares))) porCodigo[t.codPostal].first.push_back(t);
  for (const Tramado& t : Une(std::move(pares))) porCodigo[t.codPostal].second.push_back(t);
  for (const auto& [cp, lados] : porCodigo) {
    const auto& [imp, par] = lados;
    for (size_t i = 0; i < std::max(imp.size(), par.size()); ++i) {
      Rango fila;
      fila.codPostal = cp;
      if (i < imp.size()) fila.imparIni = imp[i].inicio, fila.imparFin = imp[i].fin;
      if (i < par.size()) fila.parIni = par[i].inicio, fila.parFin = par[i].fin;
      // An even stretch 0-0 alone would read as "no numbers": the whole
      // street. It holds no house.
      if (fila.imparIni == 0 && fila.imparFin == 0 && fila.parIni == 0 && fila.parFin == 0) continue;
      r.filas.push_back(fila);
    }
  }
  return r;
}

}  // namespace ine
