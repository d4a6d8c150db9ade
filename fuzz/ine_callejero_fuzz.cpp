// INE's street directory from the fuzzer: the input is a street file and a
// stretch file (split at the first byte 0xFF; without one, the same bytes
// are both), read and joined as the import reads them, then every street's
// stretches turned into ranges. A file of neither design may be refused
// with its error; anything else must read, and what it gives must hold
// together.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "import/CallejeroIne.h"

namespace {

void check(bool condition) {
  if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const size_t corte = bytes.find('\xFF');
  const std::string_view vias = corte == std::string_view::npos ? bytes : bytes.substr(0, corte);
  const std::string_view tramos = corte == std::string_view::npos ? bytes : bytes.substr(corte + 1);
  size_t malas = 0;
  ine::Avisos avisos;
  avisos.lineaMala = [&malas](const ine::LineaMala& m) {
    check(m.linea >= 1 && !m.fallo.empty());
    ++malas;
  };
  ine::Callejero c;
  try {
    c = ine::LeeCallejeroDeBytes(tramos, vias, {}, avisos);
  } catch (const std::runtime_error&) {
    return 0;  // a file of neither design, or empty
  }
  const ine::Descartes& d = c.descartes;
  check(c.tramos.size() + d.pseudovias + d.unidades + d.otrasProvincias + d.viaDesconocida + d.erroneas ==
        c.lineasTramos);
  check(malas == c.viasErroneas + d.erroneas + d.viaDesconocida);
  std::vector<std::vector<ine::Tramo>> porVia(c.vias.size());
  for (const ine::Tramo& t : c.tramos) {
    check(t.via < c.vias.size());
    check(t.tinum <= 2 && (t.tinum == 0 || t.inicio <= t.fin));
    check(t.codPostal >= 1000 && t.codPostal <= 52999);
    porVia[t.via].push_back(t);
  }
  for (const ine::Via& v : c.vias) {
    check(v.nombreLargo > 0 && v.nombreLargo <= 50 && v.tipoLargo <= 5);
    check(size_t(v.nombreDesde) + v.nombreLargo <= c.textos.size());
  }
  for (const auto& lista : porVia) {
    const ine::Rangos r = ine::RangosDeCalle(lista.data(), lista.size());
    for (const ine::Rango& f : r.filas) {
      check(f.imparIni <= f.imparFin && f.parIni <= f.parFin);
      check(f.sinNumero == (f.imparIni == 0 && f.imparFin == 0 && f.parIni == 0 && f.parFin == 0));
    }
  }
  return 0;
}
