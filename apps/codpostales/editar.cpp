// codpostales editar: rewrites fields of one row of a table in place. Every
// value is checked and encoded before anything is written, and the row goes
// to the file in one write (its production index kept with it), so a bad
// value leaves the table untouched.
#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"
#include "dbase/core/dbf_file.h"

namespace cli {

int editar(const std::vector<std::string>& args) {
  std::string ruta, textoRegistro;
  std::vector<std::string> asignaciones;
  Argumentos a(args);
  std::string nombre;
  while (a.quedan()) {
    if (a.siguienteEsOpcion(nombre)) {
      if (nombre == "ayuda") {
        muestraUso(stdout);
        return kSalidaBien;
      }
      if (nombre == "registro") {
        textoRegistro = a.valor(nombre);
        continue;
      }
      throw ErrorDeUso("opción desconocida para editar: --" + nombre);
    }
    if (ruta.empty())
      ruta = a.posicional();
    else
      asignaciones.push_back(a.posicional());
  }
  if (ruta.empty()) throw ErrorDeUso("editar: falta el fichero .DBF");
  if (textoRegistro.empty()) throw ErrorDeUso("editar: falta --registro N");
  if (asignaciones.empty()) throw ErrorDeUso("editar: falta algún CAMPO=VALOR");
  if (textoRegistro.find_first_not_of("0123456789") != std::string::npos || textoRegistro.size() > 9)
    throw ErrorDeUso("editar: --registro necesita un número de registro, no «" + textoRegistro + "»");
  const uint32_t numero = uint32_t(std::stoul(textoRegistro));

  auto tabla = abreTabla(ruta);
  if (!tabla->writable()) throw ErrorDeUso(tabla->name() + ": la tabla es de sólo lectura");
  if (numero == 0 || numero > tabla->recordCount())
    throw ErrorDeUso(tabla->name() + ": no hay registro " + textoRegistro + " (la tabla tiene " +
                     std::to_string(tabla->recordCount()) + ")");

  const std::string donde = "registro " + textoRegistro;
  std::string registro(tabla->record(numero), tabla->recordLength());
  std::vector<int> cambiados;
  for (const std::string& asignacion : asignaciones) {
    const size_t igual = asignacion.find('=');
    if (igual == std::string::npos || igual == 0)
      throw ErrorDeUso("editar: «" + asignacion + "» no es CAMPO=VALOR");
    const std::string campo = asignacion.substr(0, igual);
    const int i = tabla->fieldIndex(campo);
    if (i < 0) throw ErrorDeUso(tabla->name() + ": " + donde + ", campo " + campo + ": la tabla no tiene ese campo");
    for (int previo : cambiados)
      if (previo == i) throw ErrorDeUso(tabla->name() + ": " + donde + ", campo " + campo + ": campo repetido");
    cambiados.push_back(i);
    codificaValor(*tabla, tabla->fields()[size_t(i)], registro.data(), asignacion.substr(igual + 1), donde);
  }
  tabla->update(numero, registro);
  std::fprintf(stderr, "codpostales: %s: registro %u editado\n", tabla->name().c_str(), numero);
  return kSalidaBien;
}

}  // namespace cli
