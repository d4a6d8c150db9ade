// TFImportarVias: storing the grid's streets in the street table.
//
// GuardaVias appends the rows of SGVias to the controller's TPostal, skipping
// streets already stored, or, for a municipality with several postcodes in
// modes 2 and 3, only fills in the empty street type of rows already there.
// It never deletes or replaces a row. A row that fails is cancelled and the
// run goes on with the next one.
#include <QComboBox>
#include <QRadioButton>
#include <QStringList>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>

#include "dbase/TTable.h"
#include "dbase/core/dbf_file.h"
#include "import/CallesImportadas.h"
#include "import/ImportarVias.h"
#include "import/ImportarViasEspera.h"
#include "import/OvcCallejero.h"
#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "platform/TStringGrid.h"
#include "services/Rmensaje.h"
#include "services/Rnumcad.h"
#include "services/Ruttb.h"

namespace {

using CallesImportadas::Tramo;

// Grid columns.
constexpr int kColTipo = 0, kColVia = 1, kColCodPostal = 2, kColImparIni = 3;

// The selected item's attached number, when an item is selected and has one.
bool NumeroElegido(const QComboBox* combo, int& numero) {
  const int indice = combo->currentIndex();
  if (indice < 0) return false;
  const QVariant dato = combo->itemData(indice);
  if (!dato.isValid()) return false;
  numero = dato.toInt();
  return true;
}

// The province code of the selected item ("07"), or empty without one.
QString CodigoProvincia(const QComboBox* provincias) {
  int codigo = 0;
  if (!NumeroElegido(provincias, codigo)) return QString();
  return StrRight(QStringLiteral("00") + Int_Cad(codigo), 2);
}

// The postcode of the selected municipality ("08001"), or empty without one.
QString CodigoPostal(const QComboBox* municipios) {
  int codigo = 0;
  if (!NumeroElegido(municipios, codigo)) return QString();
  return StrRight(QStringLiteral("00000") + Int_Cad(codigo), 5);
}

// A house number of the grid. An empty cell is 0: the postcode-file reader
// writes only the numbers a line gives. Unlike Cad_Int, other text that is
// not a whole number is a fault: the row is not stored.
int NumeroDeCelda(const QString& celda) {
  const QString texto = celda.trimmed();
  if (texto.isEmpty()) return 0;
  bool ok = false;
  const int numero = texto.toInt(&ok);
  if (!ok) throw std::invalid_argument("«" + celda.toStdString() + "» no es un número de portal");
  return numero;
}

// A row without a street name is not a street: clearing the grid leaves one
// blank, and a search that finds nothing leaves it so.
bool SinVia(const TStringGrid* rejilla, int fila) { return rejilla->Cells(kColVia, fila).trimmed().isEmpty(); }

bool HayVias(const TStringGrid* rejilla) {
  for (int fila = 1; fila < rejilla->RowCount(); ++fila)
    if (!SinVia(rejilla, fila)) return true;
  return false;
}

// Walks the MUNICIPI.DBF rows named `nombre` (tag NOMBRE, exact name) and
// shows each of province `provincia` to `visita`, until it answers false.
// Same-named municipalities of other provinces are passed over.
void RecorreMunicipiosDeNombre(const QString& alias, const QString& nombre, const QString& provincia,
                               const std::function<bool(TTable&)>& visita) {
  CallesImportadas::Municipios municipios(alias, QStringLiteral("NOMBRE"));
  municipios.Recorre(nombre, [&](TTable& municipio) {
    return municipio.FieldByName(QStringLiteral("COD_PROV"))->AsString() != provincia || visita(municipio);
  });
}

// The postcodes of the municipality chosen in the combos: every CODPOSTAL of
// MUNICIPI.DBF rows of that name in that province. Index 0 of the
// municipality combo is not taken as a choice here.
QStringList CodigosPostalesDelMunicipio(const TFImportarVias& f) {
  QStringList lista;
  const QString provincia = CodigoProvincia(f.CBProvinciasZelmor);
  const QString nombre =
      f.CBMunicipiosZelmor->currentIndex() > 0 ? UpperCase(f.CBMunicipiosZelmor->currentText()) : QString();
  if (provincia.isEmpty() || nombre.isEmpty()) return lista;
  RecorreMunicipiosDeNombre(f.sAlias, nombre, provincia, [&lista](TTable& municipio) {
    lista << municipio.FieldByName(QStringLiteral("CODPOSTAL"))->AsString();
    return true;
  });
  return lista;
}

// The state of one GuardaVias call, and the searches that need it.
class Guardado {
 public:
  explicit Guardado(TFImportarVias& dialogo)
      : f_(dialogo), dm_(dialogo.oCodPostales->oDataModule), postal_(dm_->TPostal) {}

  // Positions TPostal at the street's first stretch in the province: the
  // street tag orders by province, capital flag, name and type, so the seek
  // names the flag the import writes.
  void BuscaCalle(const QString& provincia, const QString& via) {
    TBIndexa(QStringLiteral("VIA"), postal_);
    postal_->First();
    TBBusca(postal_,
            {QStringLiteral("PROVINCIA"), provincia, QStringLiteral("CAPITAL"), CallesImportadas::CapitalImportado(),
             QStringLiteral("VIA"), via, QStringLiteral("TIPO_VIA"), QString()},
            false);
  }

  // Whether TPostal still stands on a stretch of the street.
  bool EnLaCalle(const QString& provincia, const QString& viaMayusculas) const {
    return !postal_->Eof() && dm_->TPostalPROVINCIA->AsString() == provincia &&
           UpperCase(dm_->TPostalVIA->AsString()) == viaMayusculas;
  }

  // The duplicate test: a stretch of the street with this postcode and type
  // and the same numbers, or the default stretch when the new one has none.
  // The walk goes on to the end of the street even after a match.
  bool BuscaEnPostal(const QString& provincia, const QString& tipo, const QString& via, const QString& codPostal,
                     const Tramo& nuevo) {
    BuscaCalle(provincia, via);
    const QString viaMayusculas = UpperCase(via);
    const QString tipoMayusculas = UpperCase(tipo);
    bool repetida = false;
    for (; EnLaCalle(provincia, viaMayusculas); postal_->Next()) {
      if (dm_->TPostalCODPOSTAL->AsString() != codPostal ||
          UpperCase(dm_->TPostalTIPO_VIA->AsString()) != tipoMayusculas)
        continue;
      const Tramo guardado{dm_->TPostalIMPAR_INI->AsInteger(), dm_->TPostalIMPAR_FIN->AsInteger(),
                           dm_->TPostalPAR_INI->AsInteger(), dm_->TPostalPAR_FIN->AsInteger()};
      if (CallesImportadas::MismoTramo(guardado, nuevo)) repetida = true;
    }
    return repetida;
  }

  // The review path's test: leaves TPostal on the first stretch of the
  // street under any of the municipality's postcodes.
  bool BuscaEnPostal2(const QString& provincia, const QString& via) {
    BuscaCalle(provincia, via);
    const QString viaMayusculas = UpperCase(via);
    for (; EnLaCalle(provincia, viaMayusculas); postal_->Next()) {
      const QString codPostal = dm_->TPostalCODPOSTAL->AsString();
      for (const QString& delMunicipio : postales_)
        if (codPostal == delMunicipio) return true;
    }
    return false;
  }

  // Modes 2 and 3 for a municipality with several postcodes: no street is
  // added; stored stretches of the grid's streets get their empty type.
  void Revisa() {
    if (f_.bPorProvincias) return;
    postales_ = CodigosPostalesDelMunicipio(f_);
    if (postales_.isEmpty()) return;
    {
      EsperaDelDialogo espera(f_, TextoEspera());
      PorCadaVia(espera, [&](int i) {
        const QString provincia = CodigoProvincia(f_.CBProvinciasZelmor);
        const QString tipo = f_.SGVias->Cells(kColTipo, i);
        const QString via = f_.SGVias->Cells(kColVia, i);
        if (BuscaEnPostal2(provincia, via) && dm_->TPostalTIPO_VIA->AsString().isEmpty()) {
          postal_->Edit();
          dm_->TPostalTIPO_VIA->SetAsString(UpperCase(tipo));
          TBPost(postal_);
          Cuenta();
        }
      });
    }
    Resumen();
  }

  // Mode 1, or a municipality with one postcode: the grid's streets not yet
  // stored are appended.
  void Inserta() {
    // Only a postcode file fills the postcode and number columns: a province
    // run's saved answers carry neither, whatever the mode.
    const bool delFichero = f_.RBMasDeUno->isChecked() && !f_.bPorProvincias;
    {
      // A province run keeps the window open for its next municipality.
      EsperaDelDialogo espera(f_, TextoEspera(), !f_.bPorProvincias);
      QString codigo = CallesImportadas::SiguienteCodigo(postal_->DatabaseName(), postal_->TableName());
      PorCadaVia(espera, [&](int i) {
        const QString provincia = CodigoProvincia(f_.CBProvinciasZelmor);
        const QString codPostal =
            delFichero ? f_.SGVias->Cells(kColCodPostal, i) : CodigoPostal(f_.CBMunicipiosZelmor);
        const QString tipo = f_.SGVias->Cells(kColTipo, i);
        const QString via = f_.SGVias->Cells(kColVia, i);
        Tramo tramo;
        if (delFichero)
          tramo = {NumeroDeCelda(f_.SGVias->Cells(kColImparIni, i)),
                   NumeroDeCelda(f_.SGVias->Cells(kColImparIni + 1, i)),
                   NumeroDeCelda(f_.SGVias->Cells(kColImparIni + 2, i)),
                   NumeroDeCelda(f_.SGVias->Cells(kColImparIni + 3, i))};
        if (BuscaEnPostal(provincia, tipo, via, codPostal, tramo)) return;
        // No numbers at all (modes 2 and 3, saved answers, a line without
        // range wording): the whole street.
        const Tramo escrito = CallesImportadas::TramoGuardado(tramo);
        const QString municipio = f_.CBMunicipiosZelmor->currentText();
        postal_->Append();
        dm_->TPostalPROVINCIA->SetAsString(provincia);
        dm_->TPostalCAPITAL->SetAsString(CallesImportadas::CapitalImportado());
        dm_->TPostalTIPO_VIA->SetAsString(CallesImportadas::TipoGuardado(tipo));
        dm_->TPostalVIA->SetAsString(CallesImportadas::ViaGuardada(via));
        dm_->TPostalIMPAR_INI->SetAsInteger(escrito.imparIni);
        dm_->TPostalIMPAR_FIN->SetAsInteger(escrito.imparFin);
        dm_->TPostalPAR_INI->SetAsInteger(escrito.parIni);
        dm_->TPostalPAR_FIN->SetAsInteger(escrito.parFin);
        dm_->TPostalCODPOSTAL->SetAsString(codPostal);
        dm_->TPostalMUNICIPI->SetAsString(municipio);
        dm_->TPostalCOD_INE->SetAsString(f_.oCodPostales->BuscaCodIne(municipio, provincia));
        dm_->TPostalNOMBRE_2->SetAsString(CallesImportadas::Nombre2Guardado(via));
        dm_->TPostalCODIGO1->SetAsString(codigo);
        TBPost(postal_);
        codigo = CallesImportadas::CodigoDespues(codigo);
        Cuenta();
      });
    }
    if (!f_.bPorProvincias) Resumen();
  }

 private:
  QString TextoEspera() const {
    return QStringLiteral("Importando las calles de ") + f_.CBMunicipiosZelmor->currentText();
  }

  // Each grid row that holds a street, the progress told: a row that fails
  // is cancelled and the loop goes on with the next.
  // The rows go to the street table as one run of writes: its index file
  // reaches the disk once, at the end, instead of after every street. In a
  // province run the next town is read while that end is written.
  void PorCadaVia(EsperaDelDialogo& espera, const std::function<void(int fila)>& guarda) {
    std::unique_ptr<dbase::WriteBatch> lote;
    try {
      lote = postal_->BeginWriteBatch();
    } catch (const std::exception& e) {
      qCWarning(lcOvc).noquote() << e.what();  // each street then waits for the table on its own
    }
    const int filas = f_.SGVias->RowCount();
    for (int i = 1; i < filas; ++i) {
      if (SinVia(f_.SGVias, i)) continue;
      Progreso(espera, i, filas);
      try {
        guarda(i);
      } catch (const std::exception&) {
        postal_->Cancel();
      }
    }
    try {
      if (lote && f_.bPorProvincias)
        lote->finishInBackground();
      else if (lote)
        lote->finish();
    } catch (const std::exception& e) {
      // The streets are in the table; its index is written anew at its next opening.
      qCWarning(lcOvc).noquote() << e.what();
    }
  }

  void Progreso(EsperaDelDialogo& espera, int fila, int filas) {
    espera.Cambia(QStringLiteral("Importando las calles... ") + Int_Cad(fila) + QStringLiteral(" de ") +
                  Int_Cad(filas - 1) + QStringLiteral(" de ") + f_.CBMunicipiosZelmor->currentText());
  }

  // The dialog sees the count as it goes, so a run cut short still tells.
  void Cuenta() { f_.nViasImportadas = ++importadas_; }

  void Resumen() {
    Mensaje_Info(f_.parent(),
                 QStringLiteral("Se han importado ") + Int_Cad(importadas_) +
                     QStringLiteral(" calles al módulo de Códigos Postales"),
                 QStringLiteral("Importación finalizada"), 0);
  }

  TFImportarVias& f_;
  TDMCodPostales* dm_;
  TTable* postal_;
  QStringList postales_;  // review path: the municipality's postcodes
  int importadas_ = 0;
};

}  // namespace

void TFImportarVias::advGBGuardarPorMunicipioClick() {
  if (!HayVias(SGVias)) {
    Mensaje_Info(parent(), QStringLiteral("No hay vías que importar. El listado está vacío"),
                 QStringLiteral("Busque antes las vías"), 0);
    return;
  }
  int provincia = 0, municipio = 0;
  if (NumeroElegido(CBProvinciasZelmor, provincia) && provincia != 0 && NumeroElegido(CBMunicipiosZelmor, municipio) &&
      municipio != 0) {
    GuardaVias();
    return;
  }
  Mensaje_Info(parent(), QStringLiteral("No ha indicado correctamente el nombre de la provincia o el municipio"),
               QStringLiteral("Seleccione donde importar las calles"), 0);
}

void TFImportarVias::GuardaVias() {
  nViasImportadas = 0;
  // A dialog made only to talk to the service has no street table.
  if (!oCodPostales)
    throw std::logic_error("GuardaVias necesita el controlador de códigos postales, y el diálogo no lo tiene");
  // The street file of the chosen province: with a "Postales" folder that
  // is its POSTALnn.DBF, where the look-up searches for these streets.
  const QString provincia = CodigoProvincia(CBProvinciasZelmor);
  if (!provincia.isEmpty()) oCodPostales->ActualizaTablaPostal(provincia + QStringLiteral("000"));
  Guardado guardado(*this);
  if ((RBUno->isChecked() || RBTodosConUno->isChecked()) && !CompruebaMunicipioConUnicoCP())
    guardado.Revisa();
  else
    guardado.Inserta();
}

bool TFImportarVias::CompruebaMunicipioConUnicoCP() {
  QString provincia = CodigoProvincia(CBProvinciasZelmor);
  QString postal = CodigoPostal(CBMunicipiosZelmor);
  if (provincia.isEmpty()) provincia = QStringLiteral("00");
  if (postal.isEmpty()) postal = QStringLiteral("00000");
  const QString nombre = CBMunicipiosZelmor->currentText();
  if (provincia == QLatin1String("00") || postal == QLatin1String("00000") || nombre.isEmpty()) return false;

  // The first row of the province decides.
  bool unico = false;
  RecorreMunicipiosDeNombre(sAlias, nombre, provincia, [&unico](TTable& municipio) {
    unico = municipio.FieldByName(QStringLiteral("UNICO"))->AsString() == QLatin1String("S");
    return false;
  });
  return unico;
}
