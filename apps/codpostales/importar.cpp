// codpostales importar: stores a saved answer's streets without a window.
#include "cli.h"

namespace cli {

int importar(const std::vector<std::string>&) { throw ErrorDeUso("importar: todavía no disponible"); }

}  // namespace cli
