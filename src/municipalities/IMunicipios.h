// IMunicipios: the entry point the host (and the street import) calls to let
// the user pick a municipality from the modal list.
#pragma once

#include <QString>

class QObject;

// Shows the municipality list (TFListadoMunicipios) modally on the alias,
// within the province named by psProvincia and positioned on psMunicipio.
// On Seleccionar: fills psCod_Ine, psCodPostal, psMunicipio (the name
// chosen), psCodProvincia and psCodMunicipio, and returns true. On Cancelar
// or Escape: returns false and changes nothing. psReservado is not used.
bool IMunicipios(QObject* AOwner, const QString& psAlias, bool pbModuloCodigosPostales, QString& psCod_Ine,
                 QString& psCodPostal, QString& psMunicipio, QString& psProvincia, QString& psCodProvincia,
                 QString& psCodMunicipio, const QString& psReservado, const QString& psCaption);
