// TFImportarVias: the runs over the saved answers of whole provinces.
#include "ImportarVias.h"
#include "services/Rmensaje.h"

namespace {

void NoDisponible(QObject* propietario) {
  Mensaje_Info(propietario,
               QStringLiteral("El guardado de las vías de provincias enteras todavía no está disponible en esta "
                              "versión."),
               QStringLiteral("Guardar las vías de la provincia"), 0);
}

}  // namespace

void TFImportarVias::advGBGuardarPorProvinciaClick() { NoDisponible(this); }

void TFImportarVias::MIGuardarPorProvinciaClick() { NoDisponible(this); }
