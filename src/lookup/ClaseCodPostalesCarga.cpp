// Writing a known address into the bound controls, then running the handlers
// the user would trigger by leaving each control, so that combos, filters,
// grids, postcode and INE code end up as if the address had been typed.
// Both forms need a locality edit.
#include <QComboBox>
#include <QLineEdit>
#include <stdexcept>

#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "platform/ControlesHost.h"

void TClaseCodPostales::CargaEnComponentes(const QString& psCodProvincia, const QString& psProvincia,
                                           const QString& psLocalidad, const QString& psCod_INE,
                                           const QString& psCodPostal, const QString& psTipoVia,
                                           const QString& psDomicilio, const QString& psNumero) {
  CompruebaLocalidad();
  ActualizaTablaPostal(psCod_INE);
  if (BuscaEnProvinciaPorCodigo(psCodProvincia) == -1) BuscaEnProvinciaPorNombre(psProvincia.trimmed());
  advCBProvinciaExit(oadvCBProvincia);
  CargaLocalidad(psLocalidad);

  if (oadvECodINE) oadvECodINE->setText(psCod_INE.trimmed());
  if (oadvECodPostal) oadvECodPostal->setText(psCodPostal.trimmed());
  // Index 0, the empty item, counts as no province.
  QString lsCodProvincia;
  if ((oadvECodINE && oadvECodINE->text().isEmpty()) || (oadvECodPostal && oadvECodPostal->text().isEmpty()))
    lsCodProvincia = CodigoProvinciaElegida();
  // The INE code is looked up even for an empty locality; the postcode
  // below is not.
  if (oadvECodINE && oadvECodINE->text().isEmpty())
    oadvECodINE->setText(BuscaCodIne(oadvELocalidad->text(), lsCodProvincia));

  BuscaEnTipoViaPorCodigo(psTipoVia);
  if (oadvEDomicilio) oadvEDomicilio->setText(psDomicilio.trimmed());
  if (oadvENumero) oadvENumero->setText(psNumero.trimmed());
  if (oadvEDomicilio) BuscaDomicilioPorVia(oadvEDomicilio->text(), psCodProvincia, psTipoVia, false);
  if (oadvENumero) advENumeroExit(oadvENumero);
  if (oadvECodPostal) {
    oadvECodPostal->setText(psCodPostal.trimmed());
    if (oadvECodPostal->text().isEmpty() && !oadvELocalidad->text().isEmpty())
      oadvECodPostal->setText(BuscaCodPostal(oadvELocalidad->text(), lsCodProvincia));
  }
}

void TClaseCodPostales::CargaEnComponentes(const QString& psPais, const QString& psProvincia,
                                           const QString& psLocalidad) {
  CompruebaLocalidad();
  BuscaEnPaisPorNombre(psPais.trimmed());
  advCBPaisExit(oadvCBPais);
  BuscaEnProvinciaPorNombre(psProvincia.trimmed());
  advCBProvinciaExit(oadvCBProvincia);
  CargaLocalidad(psLocalidad);
}

// The locality as if typed and left: a text that is the whole name found is
// marked as already confirmed, so leaving does not open the results grid.
void TClaseCodPostales::CompruebaLocalidad() const {
  if (!oadvELocalidad)
    throw std::logic_error("CargaEnComponentes necesita el campo de la localidad, y el controlador no lo tiene");
}

void TClaseCodPostales::CargaLocalidad(const QString& psLocalidad) {
  oadvELocalidad->setText(psLocalidad.trimmed());
  BuscaLocalidadPorNombre(oadvELocalidad->text(), false);
  if (oDataModule->TMunicipiNOMBRE->AsString() == oadvELocalidad->text()) SetTag(oadvELocalidad, 1);
  advELocalidadExit(oadvELocalidad);
}
