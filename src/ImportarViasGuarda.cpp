// TFImportarVias: storing the grid's streets in the street table.
#include "ImportarVias.h"
#include "services/Rmensaje.h"

void TFImportarVias::advGBGuardarPorMunicipioClick() {
  Mensaje_Info(this, QStringLiteral("El guardado de vías todavía no está disponible en esta versión."),
               QStringLiteral("Guardar vías"), 0);
}

void TFImportarVias::GuardaVias() {}

bool TFImportarVias::CompruebaMunicipioConUnicoCP() { return false; }
