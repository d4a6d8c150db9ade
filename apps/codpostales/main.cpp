// codpostales: command-line access to the dBase tables of the address
// component and to the searches of its controller. Each subcommand lives in
// a file of its own.
#include <exception>
#include <string>
#include <vector>

#include "cli.h"
#include "dbase/core/error.h"

namespace {

bool esAyuda(const std::string& arg) { return arg == "--ayuda" || arg == "-h" || arg == "--help"; }

int ejecuta(const std::vector<std::string>& args) {
  if (args.empty()) {
    cli::muestraUso(stderr);
    return cli::kSalidaError;
  }
  if (esAyuda(args[0])) {
    cli::muestraUso(stdout);
    return cli::kSalidaBien;
  }
  const std::vector<std::string> resto(args.begin() + 1, args.end());
  if (args[0] == "tabla") return cli::tabla(resto);
  if (args[0] == "anadir" || args[0] == "añadir") return cli::anadir(resto);
  if (args[0] == "editar") return cli::editar(resto);
  if (args[0] == "reindexar") return cli::reindexar(resto);
  if (args[0] == "municipio") return cli::municipio(resto);
  if (args[0] == "sugerir") return cli::sugerir(resto);
  if (args[0] == "cp") return cli::cp(resto);
  if (args[0] == "ine") return cli::ine(resto);
  if (args[0] == "ovc") return cli::ovc(resto);
  if (args[0] == "importar") return cli::importar(resto);
  if (args[0] == "importar-guardadas") return cli::importarGuardadas(resto);
  if (args[0] == "importar-ine") return cli::importarIne(resto);
  throw cli::ErrorDeUso("orden desconocida: «" + args[0] + "» (codpostales --ayuda muestra las órdenes)");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const int salida = ejecuta(std::vector<std::string>(argv + 1, argv + argc));
    if (std::fflush(stdout) != 0) throw cli::ErrorDeUso("no se puede escribir en la salida estándar");
    return salida;
  } catch (const std::exception& e) {
    std::fflush(stdout);
    std::fprintf(stderr, "codpostales: %s\n", e.what());
    return cli::kSalidaError;
  }
}
