// TFImportarVias: mode 1, the streets of a municipality with several
// postcodes read from its postcode text file.
#include "ImportarVias.h"
#include "services/Rmensaje.h"

bool TFImportarVias::ImportarViasMasUnCodigo() {
  Mensaje_Info(this,
               QStringLiteral("La importación desde los ficheros de códigos postales todavía no está disponible en "
                              "esta versión."),
               QStringLiteral("No se puede realizar la importación"), 0);
  return false;
}
