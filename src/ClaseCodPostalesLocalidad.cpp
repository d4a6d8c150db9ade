// The locality search and the handlers of the locality edit and its grid.
// For now the handlers give the focus look; the completion comes with the
// locality search itself.
#include "ClaseCodPostales.h"

void TClaseCodPostales::BuscaLocalidad() {}

void TClaseCodPostales::advELocalidadEnter(QObject* Sender) { TomaFoco(Sender); }

void TClaseCodPostales::advELocalidadExit(QObject* Sender) { DejaFoco(Sender); }

void TClaseCodPostales::advELocalidadKeyDown(QObject*, int&, Qt::KeyboardModifiers) {}

void TClaseCodPostales::advELocalidadKeyUp(QObject*, int&, Qt::KeyboardModifiers) {}

void TClaseCodPostales::DBGLocalidadExit(QObject* Sender) { DejaFoco(Sender); }

void TClaseCodPostales::DBGLocalidadKeyDown(QObject*, int&, Qt::KeyboardModifiers) {}

void TClaseCodPostales::DBGLocalidadMouseDown(QObject*, Qt::MouseButton, Qt::KeyboardModifiers, int, int) {}

void TClaseCodPostales::DBGLocalidadDblClick(QObject*) {}
