// Opening, closing and narrowing the reference tables: the country, province
// and municipality filters, and the choice of the street file.
#include <QComboBox>
#include <exception>
#include <QTableView>

#include "dbase/core/path.h"
#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "platform/RejillaDatos.h"
#include "services/Rficheros.h"
#include "services/Rnumcad.h"
#include "services/Ruttb.h"

namespace {

const QString kCodigoEspana = QStringLiteral("900");
const QString kProvinciaExtranjero = QStringLiteral("99");

bool DirectoryExists(const QString& ruta) { return dbase::directoryExistsCaseInsensitive(ruta.toStdString()); }

void abreEnAlias(TTable* tabla, const QString& alias) {
  if (!tabla->Active()) tabla->SetDatabaseName(alias);
  TBOpen(tabla);
}

// Points the street table at a file and opens it, unfiltered.
void reabreCalles(TTable* tabla, const QString& carpeta, const QString& fichero) {
  tabla->SetFilter(QString());
  tabla->SetDatabaseName(carpeta);
  tabla->SetTableName(fichero);
  TBOpen(tabla);
  tabla->SetFiltered(false);
}

// Applies a filter unless the table is already filtered with that text:
// filtering re-reads the table.
void filtraSiCambia(TTable* tabla, const QString& filtro) {
  if (tabla->Filtered() && tabla->Filter() == filtro) return;
  TBFiltra(tabla, filtro);
}

// While the street table is re-indexed and filtered: the street grid's data
// set is frozen and the table's previous index is kept, both put back on the
// way out (an engine error included, so the grid is never left frozen).
class CambioDeIndice {
 public:
  CambioDeIndice(TTable* tabla, QTableView* rejilla, const QString& indice)
      : tabla_(tabla), indice_(indice), congelada_(TablaDe(rejilla)) {
    if (congelada_) congelada_->DisableControls();
    TBIndexa(tabla_, indice_);
  }
  ~CambioDeIndice() noexcept(false) {
    std::exception_ptr fallo;
    try {
      TBIndexa(indice_, tabla_);
    } catch (...) {
      fallo = std::current_exception();
    }
    if (congelada_) congelada_->EnableControls();
    // An error already on its way wins over one putting the index back.
    if (fallo && !std::uncaught_exceptions()) std::rethrow_exception(fallo);
  }
  CambioDeIndice(const CambioDeIndice&) = delete;
  CambioDeIndice& operator=(const CambioDeIndice&) = delete;

 private:
  TTable* tabla_;
  QString indice_;
  TTable* congelada_;
};

}  // namespace

void TClaseCodPostales::AbreTablas() {
  TDMCodPostales* dm = oDataModule;
  abreEnAlias(dm->TPaises, sAlias);
  TBFiltra(dm->TPaises, QStringLiteral("GRUPO=2"));
  abreEnAlias(dm->TProvin, sAlias);
  TBFiltra(dm->TProvin, QStringLiteral("GRUPO=1"));
  abreEnAlias(dm->TMunicipiAux, sAlias);
  TBIndexa(QStringLiteral("NOMBRE"), dm->TMunicipi);
  abreEnAlias(dm->TMunicipi, sAlias);
  TBIndexa(QStringLiteral("NOMBRE"), dm->TMunicipiSinFiltro);
  abreEnAlias(dm->TMunicipiSinFiltro, sAlias);
  TBIndexa(QStringLiteral("POBLLITE"), dm->TMunicipiMJ);
  abreEnAlias(dm->TMunicipiMJ, sAlias);
  if (bDefectoPostal) {
    if (!sDefectoCodINE.isEmpty()) {
      ActualizaTablaPostal(sDefectoCodINE);
    } else if (dm->TPostal->Tag > 0) {
      // Tag 8 gives "80000": only the first two characters matter there.
      ActualizaTablaPostal(StrLeft(Int_Cad(dm->TPostal->Tag) + QStringLiteral("00000"), 5));
    } else {
      TBIndexa(QStringLiteral("VIA"), dm->TPostal);
      abreEnAlias(dm->TPostal, sAlias);
    }
  }
  TBIndexa(QStringLiteral("CODIGO"), dm->TTipo_Via);
  abreEnAlias(dm->TTipo_Via, sAlias);
}

void TClaseCodPostales::CierraTablas() {
  TDMCodPostales* dm = oDataModule;
  for (TTable* tabla : {dm->TPaises, dm->TProvin, dm->TMunicipi, dm->TMunicipiSinFiltro, dm->TMunicipiAux,
                        dm->TMunicipiMJ, dm->TPostal, dm->TTipo_Via})
    tabla->Close();
}

void TClaseCodPostales::ActualizaTablaPostal(const QString& psCodIne) {
  TTable* postal = oDataModule->TPostal;
  if (psCodIne.size() >= 2 && Cad_Int(psCodIne) >= 1) {
    const QString lsProvincia = StrLeft(psCodIne, 2);
    QString lsCarpeta = RutaDelAlias(sAlias);
    if (DirectoryExists(lsCarpeta)) {
      lsCarpeta = SlashSep(lsCarpeta, QStringLiteral("Postales"), u'\\');
      if (DirectoryExists(lsCarpeta)) {
        const QString lsFichero = QStringLiteral("POSTAL") + lsProvincia + QStringLiteral(".DBF");
        if (postal->TableName() != lsFichero) {
          postal->Tag = Cad_Int(lsProvincia);
          postal->Close();
          reabreCalles(postal, lsCarpeta, lsFichero);
        } else if (!postal->Active()) {
          reabreCalles(postal, lsCarpeta, lsFichero);
        }
      }
    }
  }
  if (!postal->Active()) reabreCalles(postal, RutaDelAlias(sAlias), QStringLiteral("POSTAL.DBF"));
}

void TClaseCodPostales::FiltraProvincias(const QString& psCodPais) {
  if (psCodPais.isEmpty()) return;
  if (psCodPais != kCodigoEspana) {
    BuscaEnProvinciaPorCodigo(kProvinciaExtranjero);
    if (oadvCBProvincia) oadvCBProvincia->setEnabled(false);
    DesenlazaRejilla(oDBGLocalidad);
  } else {
    if (oadvCBProvincia) oadvCBProvincia->setEnabled(true);
    EnlazaRejilla(oDBGLocalidad, oDataModule->DSMunicipi);
  }
}

void TClaseCodPostales::FiltraLocalidades(const QString& psCodProv) {
  QString lsFiltro;
  // Deliberately unquoted: the engine compares the code as a number.
  if (!psCodProv.isEmpty()) lsFiltro = QStringLiteral("COD_PROV=") + StrRight(QStringLiteral("00") + psCodProv, 2);
  filtraSiCambia(oDataModule->TMunicipi, lsFiltro);
}

bool TClaseCodPostales::FiltraVias(const QString& psCodIne, const QString& psNombre) {
  sFiltroVias.clear();
  if (psCodIne.isEmpty()) return true;
  ActualizaTablaPostal(psCodIne);
  TTable* postal = oDataModule->TPostal;
  CambioDeIndice indice(postal, oDBGDomicilio, QStringLiteral("MUNICIPI"));
  // The code unpadded and the name unescaped, as given.
  sFiltroVias = QStringLiteral("COD_INE=") + psCodIne + QStringLiteral(" AND MUNICIPI='") + psNombre +
                QStringLiteral("'");
  filtraSiCambia(postal, sFiltroVias);
  const bool lbHayVias = !postal->IsEmpty();
  if (!lbHayVias) {
    sFiltroVias.clear();
    TBFiltra(postal, sFiltroVias);
  }
  return lbHayVias;
}

bool TClaseCodPostales::FiltraVias(const QString& psCodIne) {
  sFiltroVias.clear();
  if (psCodIne.isEmpty()) return true;
  ActualizaTablaPostal(psCodIne);
  TTable* postal = oDataModule->TPostal;
  CambioDeIndice indice(postal, oDBGDomicilio, QStringLiteral("COD_INE"));
  const QString lsCodigo = StrRight(QStringLiteral("00000") + psCodIne, 5);
  // On a miss the filter in force stays as it was.
  if (!TBBusca(postal, {QStringLiteral("COD_INE"), lsCodigo}, true)) return false;
  sFiltroVias = QStringLiteral("COD_INE=") + lsCodigo;
  filtraSiCambia(postal, sFiltroVias);
  return true;
}
