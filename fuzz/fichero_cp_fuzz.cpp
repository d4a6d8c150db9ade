// Postcode text files of mode 1 from the fuzzer: any bytes, read as the
// import reads them (UTF-8 or Windows-1252, Ctrl+Z, line ends, the range
// wording, the type's comma). Reading never throws, and every line it gives
// names a street with sensible numbers.
#include <QByteArray>
#include <cstddef>
#include <cstdint>

#include "import/FicheroCodigosPostales.h"

namespace {

void check(bool condition) {
  if (!condition) __builtin_trap();
}

bool Recortado(const QString& texto) { return texto == texto.trimmed(); }

bool NumeroValido(int n) { return n >= 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
  const QList<LineaCodigoPostal> lineas = LeeFicheroCodigosPostales(bytes);
  const QString texto = TextoDeFicheroCodigosPostales(bytes);
  check(!texto.contains(QChar(0x1A)));
  check(lineas.size() <= texto.size());
  for (const LineaCodigoPostal& l : lineas) {
    check(!l.nombre.isEmpty() && Recortado(l.nombre));
    check(Recortado(l.codigoPostal) && !l.codigoPostal.contains(u':'));
    check(l.conTipo || l.tipoEscrito.isEmpty());
    check(!l.conTipo || (!l.tipoEscrito.isEmpty() && Recortado(l.tipoEscrito)));
    check(!l.nombre.contains(u'\n') && !l.nombre.contains(u'\r'));
    check(NumeroValido(l.imparIni) && NumeroValido(l.imparFin) && NumeroValido(l.parIni) && NumeroValido(l.parFin));
    (void)TipoEscritoSinRango(l.tipoEscrito);
  }
  return 0;
}
