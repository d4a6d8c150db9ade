// The country, province and street-type lists: loading them from the
// reference tables, and choosing an item by code or by name.
//
// Country and province items carry their code as item data; item 0 is an
// empty item without code, meaning that nothing is chosen.
#include <QComboBox>
#include <QGuiApplication>
#include <QLineEdit>
#include <QTableView>

#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "platform/RejillaDatos.h"
#include "services/Rnumcad.h"
#include "services/Ruttb.h"
#include "services/Rvarias.h"

namespace {

const QString kCodigoEspana = QStringLiteral("900");

bool tieneCodigo(const QComboBox* combo, int indice) { return combo->itemData(indice).isValid(); }
QString codigo(const QComboBox* combo, int indice) { return combo->itemData(indice).toString(); }

// The code of the chosen item, or nothing when the empty item (or none) is.
QString codigoElegido(const QComboBox* combo) {
  if (!combo || combo->currentIndex() <= 0 || !tieneCodigo(combo, combo->currentIndex())) return {};
  return codigo(combo, combo->currentIndex());
}

// Fills a country or province list: the empty item, then every row of the
// table in alphabetical order, "NAME [code]" with its code as item data.
void cargaLista(QComboBox* combo, TTable* tabla, TField* codigoCampo, TField* nombreCampo, int cifras,
                bool rellenaCodigo) {
  combo->clear();
  combo->addItem(QString());
  TBIndexa(QStringLiteral("ALFABETICO"), tabla);
  const QString ceros(cifras, u'0');
  for (tabla->First(); !tabla->Eof(); tabla->Next()) {
    const QString cod = codigoCampo->AsString();
    combo->addItem(nombreCampo->AsString() + QStringLiteral(" [") + StrRight(cod, cifras) + QStringLiteral("]"),
                   rellenaCodigo ? StrRight(ceros + cod, cifras) : cod);
  }
}

// The code of the chosen item, padded with zeros and cut to two characters.
QString codigoDeDosCifras(const QComboBox* combo, const QString& ceros) {
  if (!combo || combo->currentIndex() < 0 || !tieneCodigo(combo, combo->currentIndex())) return {};
  return StrRight(ceros + codigo(combo, combo->currentIndex()), 2);
}

}  // namespace

EListError::EListError(int indice)
    : std::out_of_range("Índice de lista fuera de límites (" + std::to_string(indice) + ")"), Indice(indice) {}

QString TClaseCodPostales::CodigoProvinciaElegida() const { return codigoElegido(oadvCBProvincia); }

void TClaseCodPostales::CargaPaises(QComboBox* poadvPaises) {
  QComboBox* combo = poadvPaises ? poadvPaises : oadvCBPais;
  if (!combo) return;
  cargaLista(combo, oDataModule->TPaises, oDataModule->TPaisesCODIGO, oDataModule->TPaisesPROVINCIA, 3, false);
}

void TClaseCodPostales::CargaProvincias(QComboBox* poadvProvincias) {
  QComboBox* combo = poadvProvincias ? poadvProvincias : oadvCBProvincia;
  if (!combo) return;
  cargaLista(combo, oDataModule->TProvin, oDataModule->TProvinCODIGO, oDataModule->TProvinPROVINCIA, 2, true);
}

void TClaseCodPostales::CargaTiposVia(QComboBox* poadvTipo_Vias) {
  QComboBox* combo = poadvTipo_Vias ? poadvTipo_Vias : oadvCBTipoVia;
  if (!combo) return;
  combo->clear();
  TTable* tipos = oDataModule->TTipo_Via;
  TBIndexa(QStringLiteral("NOMBRE"), tipos);
  for (tipos->First(); !tipos->Eof(); tipos->Next())
    combo->addItem(oDataModule->TTipo_ViaCODIGO->AsString() + QStringLiteral(" - ") +
                   oDataModule->TTipo_ViaNOMBRE->AsString());
  // Nothing chosen until the user or a street chooses (a combo would take
  // the first item).
  combo->setCurrentIndex(-1);
}

void TClaseCodPostales::DescargaPaises(QComboBox* poadvPaises) {
  if (QComboBox* combo = poadvPaises ? poadvPaises : oadvCBPais) combo->clear();
}

void TClaseCodPostales::DescargaProvincias(QComboBox* poadvProvincias) {
  if (QComboBox* combo = poadvProvincias ? poadvProvincias : oadvCBProvincia) combo->clear();
}

bool TClaseCodPostales::BuscaPaisPorCodigo(const QString& psCodPais, bool pbExacto) {
  TBIndexa(QStringLiteral("CODIGO"), oDataModule->TPaises);
  return TBBusca(oDataModule->TPaises, {QStringLiteral("CODIGO"), psCodPais}, pbExacto);
}

bool TClaseCodPostales::BuscaPaisPorNombre(const QString& psPais, bool pbExacto) {
  TBIndexa(QStringLiteral("ALFABETICO"), oDataModule->TPaises);
  return TBBusca(oDataModule->TPaises, {QStringLiteral("PROVINCIA"), psPais}, pbExacto);
}

bool TClaseCodPostales::BuscaProvinciaPorCodigo(const QString& psCodProv, bool pbExacto) {
  TBIndexa(QStringLiteral("CODIGO"), oDataModule->TProvin);
  return TBBusca(oDataModule->TProvin, {QStringLiteral("CODIGO"), psCodProv}, pbExacto);
}

bool TClaseCodPostales::BuscaProvinciaPorNombre(const QString& psProvincia, bool pbExacto) {
  TBIndexa(QStringLiteral("ALFABETICO"), oDataModule->TProvin);
  return TBBusca(oDataModule->TProvin, {QStringLiteral("PROVINCIA"), psProvincia}, pbExacto);
}

int TClaseCodPostales::BuscaEnPaisPorCodigo(const QString& psCodPais, QComboBox* poadvPaises) {
  QComboBox* combo = poadvPaises ? poadvPaises : oadvCBPais;
  if (!combo || combo->count() < 1 || psCodPais.isEmpty()) return -1;
  const QString buscado = StrRight(QStringLiteral("000") + psCodPais, 3);
  for (int i = 0; i < combo->count(); ++i) {
    if (!tieneCodigo(combo, i)) continue;
    if (StrRight(QStringLiteral("000") + codigo(combo, i), 3) == buscado) {
      combo->setCurrentIndex(i);
      return i;
    }
  }
  return -1;
}

int TClaseCodPostales::BuscaEnPaisPorNombre(const QString& psPais, QComboBox* poadvPaises) {
  QComboBox* combo = poadvPaises ? poadvPaises : oadvCBPais;
  if (!combo || combo->count() < 1 || psPais.isEmpty()) return -1;
  // The bound is one past the last item: a name that matches nothing ends in
  // the list's index error, as it always has.
  for (int i = 0; i <= combo->count(); ++i) {
    if (i == combo->count()) throw EListError(i);
    QString texto = combo->itemText(i);
    if (texto.contains(u'[')) texto = texto.left(texto.indexOf(u'[')).trimmed();
    if (texto == psPais) {
      combo->setCurrentIndex(i);
      return i;
    }
  }
  return -1;
}

int TClaseCodPostales::BuscaEnProvinciaPorCodigo(const QString& psCodProv, QComboBox* poadvProvincias,
                                                 QComboBox* poadvPaises) {
  QComboBox* provincias = poadvProvincias ? poadvProvincias : oadvCBProvincia;
  QComboBox* paises = poadvPaises ? poadvPaises : oadvCBPais;
  int resultado = -1;
  if (provincias) {
    // No test for an empty code: it matches a province coded "00".
    const QString buscado = StrRight(QStringLiteral("00") + psCodProv, 2);
    for (int i = 0; i < provincias->count() && resultado == -1; ++i) {
      if (!tieneCodigo(provincias, i)) continue;
      if (StrRight(QStringLiteral("00") + codigo(provincias, i), 2) == buscado) {
        provincias->setCurrentIndex(i);
        resultado = i;
      }
    }
  }
  // Provinces are chosen only in the home country.
  const QString pais = codigoElegido(paises);
  if (provincias && !pais.isEmpty()) provincias->setEnabled(pais == kCodigoEspana);
  return resultado;
}

int TClaseCodPostales::BuscaEnProvinciaPorNombre(const QString& psProvincia, QComboBox* poadvProvincias) {
  QComboBox* combo = poadvProvincias ? poadvProvincias : oadvCBProvincia;
  if (!combo) return -1;
  const QString conCodigo = psProvincia + QStringLiteral(" [");
  for (int i = 0; i < combo->count(); ++i) {
    const QString texto = combo->itemText(i);
    if (texto == psProvincia || texto.contains(conCodigo)) {
      combo->setCurrentIndex(i);
      return i;
    }
  }
  return -1;
}

int TClaseCodPostales::BuscaEnTipoViaPorCodigo(const QString& psCodTipoVia, QComboBox* poadvTipo_Vias) {
  QComboBox* combo = poadvTipo_Vias ? poadvTipo_Vias : oadvCBTipoVia;
  if (!combo) return 0;
  if (psCodTipoVia.isEmpty()) return -1;
  // A prefix match on "CODE - NAME": a shorter code may take a longer one.
  for (int i = 0; i < combo->count(); ++i) {
    if (combo->itemText(i).startsWith(psCodTipoVia)) {
      combo->setCurrentIndex(i);
      return i;
    }
  }
  return -1;
}

// Deliberately reads the province combo when called without a combo, and
// cuts the padded country code to two characters.
QString TClaseCodPostales::DevuelveCodPais(QComboBox* poadvPaises) {
  return codigoDeDosCifras(poadvPaises ? poadvPaises : oadvCBProvincia, QStringLiteral("000"));
}

QString TClaseCodPostales::DevuelveCodProv(QComboBox* poadvProvincias) {
  return codigoDeDosCifras(poadvProvincias ? poadvProvincias : oadvCBProvincia, QStringLiteral("00"));
}

void TClaseCodPostales::advCBPaisExit(QObject* Sender) {
  DejaFoco(Sender);
  const QString lsCodPais = codigoElegido(oadvCBPais);
  if (!lsCodPais.isEmpty()) FiltraProvincias(lsCodPais);
  if (QGuiApplication::queryKeyboardModifiers().testFlag(Qt::ShiftModifier) || !bHazCambioFoco) return;
  if (oadvCBProvincia && oadvCBProvincia->isEnabled()) {
    oadvCBProvincia->setFocus();
  } else if (oadvELocalidad) {
    HazSetFocus(oadvELocalidad);
    HazSetFocus(oadvELocalidad);  // twice, as the host always did
  }
}

void TClaseCodPostales::advCBProvinciaExit(QObject* Sender) {
  DejaFoco(Sender);
  const QString lsCodProv = codigoElegido(oadvCBProvincia);
  if (!lsCodProv.isEmpty()) {
    // The grid is detached while the filter changes, so it is not repainted.
    if (oDBGLocalidad) {
      DesenlazaRejilla(oDBGLocalidad);
      FiltraLocalidades(lsCodProv);
      EnlazaRejilla(oDBGLocalidad, oDataModule->DSMunicipi);
    } else {
      FiltraLocalidades(lsCodProv);
    }
  }
  BuscaLocalidad();
}
