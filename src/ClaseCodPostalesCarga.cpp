// Writing a known address into the bound controls.
#include "ClaseCodPostales.h"

void TClaseCodPostales::CargaEnComponentes(const QString&, const QString&, const QString&, const QString&,
                                           const QString&, const QString&, const QString&, const QString&) {}
