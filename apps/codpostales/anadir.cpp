// codpostales anadir: appends the CSV rows of standard input to a table.
// Every row is checked and encoded before anything is written, and the rows
// go to the file in one append, so a bad row leaves the table untouched.
#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"
#include "dbase/core/dbf_file.h"

namespace cli {

namespace {

std::string leeEntrada() {
  std::string texto;
  char bloque[1 << 16];
  size_t n;
  while ((n = std::fread(bloque, 1, sizeof bloque, stdin)) > 0) texto.append(bloque, n);
  if (std::ferror(stdin)) throw ErrorDeUso("no se puede leer la entrada estándar");
  if (texto.compare(0, 3, "\xEF\xBB\xBF") == 0) texto.erase(0, 3);  // a BOM some editors write
  return texto;
}

[[noreturn]] void filaNoValida(const dbase::DbfFile& tabla, size_t linea, const std::string& campo,
                               const std::string& fallo) {
  throw ErrorDeUso(tabla.name() + ": línea " + std::to_string(linea) + (campo.empty() ? "" : ", campo " + campo) +
                   ": " + fallo);
}

}  // namespace

int anadir(const std::vector<std::string>& args) {
  std::string ruta;
  Argumentos a(args);
  std::string nombre;
  while (a.quedan()) {
    if (a.siguienteEsOpcion(nombre)) {
      if (nombre == "ayuda") {
        muestraUso(stdout);
        return kSalidaBien;
      }
      throw ErrorDeUso("opción desconocida para anadir: --" + nombre);
    }
    if (!ruta.empty()) throw ErrorDeUso("sobra el argumento «" + a.posicional() + "»");
    ruta = a.posicional();
  }
  if (ruta.empty()) throw ErrorDeUso("anadir: falta el fichero .DBF");

  auto tabla = abreTabla(ruta);
  if (!tabla->writable()) throw ErrorDeUso(tabla->name() + ": la tabla es de sólo lectura");
  const std::vector<FilaCsv> filas = leeCsv(leeEntrada());
  if (filas.empty()) throw ErrorDeUso(tabla->name() + ": la entrada no tiene fila de cabecera");

  const FilaCsv& cabecera = filas.front();
  std::vector<int> columnas;
  for (const auto& campo : cabecera.valores) {
    const int i = tabla->fieldIndex(campo);
    if (i < 0) filaNoValida(*tabla, cabecera.linea, campo, "la tabla no tiene ese campo");
    for (int previa : columnas)
      if (previa == i) filaNoValida(*tabla, cabecera.linea, campo, "columna repetida");
    columnas.push_back(i);
  }

  std::string registros;
  registros.reserve((filas.size() - 1) * tabla->recordLength());
  for (size_t n = 1; n < filas.size(); ++n) {
    const FilaCsv& fila = filas[n];
    if (fila.valores.size() != columnas.size())
      filaNoValida(*tabla, fila.linea, "",
                   std::to_string(fila.valores.size()) + " valores y la cabecera tiene " +
                       std::to_string(columnas.size()) + " columnas");
    std::string registro = tabla->blankRecord();
    for (size_t c = 0; c < columnas.size(); ++c)
      codificaValor(*tabla, tabla->fields()[size_t(columnas[c])], registro.data(), fila.valores[c],
                    "línea " + std::to_string(fila.linea));
    registros += registro;
  }

  const size_t anadidas = filas.size() - 1;
  if (anadidas > 0) tabla->appendMany(registros);
  std::fprintf(stderr, "codpostales: %s: %zu filas añadidas\n", tabla->name().c_str(), anadidas);
  return kSalidaBien;
}

}  // namespace cli
