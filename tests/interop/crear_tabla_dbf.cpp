// crear_tabla_dbf: writes a new empty table with DbfFile::create, so that the
// interoperability checks can fill it with `codpostales anadir` and hand a
// file written only by this engine to other dBase readers.
//
//   crear_tabla_dbf FICHERO.DBF CONTROLADOR CAMPO:TIPO:LONGITUD[:DECIMALES]...
//
// CONTROLADOR is the language driver byte (0x14, 87, ...). TIPO is C, N, F, L
// or D. Exits with 2 and a message on any fault.
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <exception>
#include <string>
#include <vector>

#include "dbase/core/dbf_file.h"
#include "dbase/core/dbf_format.h"

namespace {

unsigned long numero(const std::string& texto, const char* que) {
  size_t usados = 0;
  unsigned long n = std::stoul(texto, &usados, 0);
  if (usados != texto.size()) throw std::invalid_argument(std::string(que) + " no válido: " + texto);
  return n;
}

dbase::FieldSpec campo(const std::string& texto) {
  std::vector<std::string> piezas(1);
  for (char c : texto) {
    if (c == ':')
      piezas.emplace_back();
    else
      piezas.back() += c;
  }
  if (piezas.size() < 3 || piezas.size() > 4 || piezas[1].size() != 1 || !std::strchr("CNFLD", piezas[1][0]))
    throw std::invalid_argument("campo no válido (CAMPO:TIPO:LONGITUD[:DECIMALES]): " + texto);
  dbase::FieldSpec f;
  f.name = piezas[0];
  f.type = dbase::FieldType(piezas[1][0]);
  f.length = uint32_t(numero(piezas[2], "longitud"));
  if (piezas.size() == 4) f.decimals = uint32_t(numero(piezas[3], "decimales"));
  return f;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "uso: crear_tabla_dbf FICHERO.DBF CONTROLADOR CAMPO:TIPO:LONGITUD[:DECIMALES]...\n");
    return 2;
  }
  try {
    const unsigned long controlador = numero(argv[2], "controlador de idioma");
    if (controlador > 0xFF) throw std::invalid_argument("el controlador de idioma es un byte");
    std::vector<dbase::FieldSpec> campos;
    for (int i = 3; i < argc; ++i) campos.push_back(campo(argv[i]));
    dbase::DbfFile::create(argv[1], campos, uint8_t(controlador));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "crear_tabla_dbf: %s\n", e.what());
    return 2;
  }
  return 0;
}
