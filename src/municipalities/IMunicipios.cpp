// IMunicipios: the municipality list, shown modally, handing back the codes.
#include "municipalities/IMunicipios.h"

#include <memory>

#include "lookup/ClaseCodPostales.h"
#include "municipalities/ListadoMunicipios.h"

bool IMunicipios(QObject* AOwner, const QString& psAlias, bool pbModuloCodigosPostales, QString& psCod_Ine,
                 QString& psCodPostal, QString& psMunicipio, QString& psProvincia, QString& psCodProvincia,
                 QString& psCodMunicipio, const QString& /*psReservado*/, const QString& psCaption) {
  auto listado = std::make_unique<TFListadoMunicipios>(qobject_cast<QWidget*>(AOwner), psAlias,
                                                       pbModuloCodigosPostales, psProvincia);
  listado->setWindowTitle(psCaption);
  listado->oClaseCodPostales->BuscaLocalidadPorNombre(psMunicipio, false);
  if (listado->exec() != QDialog::Accepted) return false;
  psCod_Ine = listado->sCodIne;
  psCodPostal = listado->sCodPostal;
  psMunicipio = listado->sNombre;
  psCodMunicipio = listado->sCodMun;
  psCodProvincia = listado->sCodProv;
  return true;
}
