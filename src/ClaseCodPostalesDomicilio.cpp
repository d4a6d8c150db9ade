// The street and house-number search and the handlers of the address edit,
// its grid and the number edit. For now the handlers give the focus look;
// the completion comes with the street search itself.
#include "ClaseCodPostales.h"

void TClaseCodPostales::TDomicilioTimer(QObject*) {}

void TClaseCodPostales::advEDomicilioEnter(QObject* Sender) { TomaFoco(Sender); }

void TClaseCodPostales::advEDomicilioExit(QObject* Sender) { DejaFoco(Sender); }

void TClaseCodPostales::advEDomicilioKeyDown(QObject*, int&, Qt::KeyboardModifiers) {}

void TClaseCodPostales::advEDomicilioKeyUp(QObject*, int&, Qt::KeyboardModifiers) {}

void TClaseCodPostales::DBGDomicilioExit(QObject* Sender) { DejaFoco(Sender); }

void TClaseCodPostales::DBGDomicilioKeyDown(QObject*, int&, Qt::KeyboardModifiers) {}

void TClaseCodPostales::DBGDomicilioMouseDown(QObject*, Qt::MouseButton, Qt::KeyboardModifiers, int, int) {}

void TClaseCodPostales::DBGDomicilioDblClick(QObject*) {}

void TClaseCodPostales::advENumeroExit(QObject* Sender) { DejaFoco(Sender); }
