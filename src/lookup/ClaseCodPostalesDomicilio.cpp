// The street and house-number search: completing the street name, the
// street grid, the postcode of the stretch that holds the house number, and
// the municipality look-ups by name that do not move the tables on screen.
#include <QComboBox>
#include <QGuiApplication>
#include <QLineEdit>
#include <QTableView>
#include <QTimer>

#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "platform/ControlesHost.h"
#include "platform/RejillaDatos.h"
#include "platform/TeclasWindows.h"
#include "services/Rmensaje.h"
#include "services/Rnumcad.h"
#include "services/Ruttb.h"
#include "services/Rvarias.h"

namespace {

bool shiftPulsado() { return QGuiApplication::queryKeyboardModifiers().testFlag(Qt::ShiftModifier); }

// Freezes a table's grids for the life of the object.
class Congelada {
 public:
  explicit Congelada(TTable* tabla) : tabla_(tabla) {
    if (tabla_) tabla_->DisableControls();
  }
  ~Congelada() {
    if (tabla_) tabla_->EnableControls();
  }
  Congelada(const Congelada&) = delete;
  Congelada& operator=(const Congelada&) = delete;

 private:
  TTable* tabla_;
};

// The first two characters of the chosen item of the street-type combo: its
// code ("CL - CALLE" gives "CL").
QString codigoDeTipoElegido(const QComboBox* tipos) {
  if (!tipos || tipos->currentIndex() < 0) return {};
  return StrLeft(tipos->currentText(), 2);
}

}  // namespace

bool TClaseCodPostales::BuscaDomicilioPorVia(const QString& psVia, const QString& psProvincia,
                                             const QString& psTipoVia, bool pbExacto) {
  TDMCodPostales* dm = oDataModule;
  Congelada congelada(TablaDe(oDBGDomicilio));
  const QString provincia = psProvincia.isEmpty() ? CodigoProvinciaElegida() : psProvincia;
  QString tipo = psTipoVia.size() > 2 ? psTipoVia.left(2) : psTipoVia;
  if (tipo.isEmpty()) tipo = codigoDeTipoElegido(oadvCBTipoVia);
  // Without a street table (a controller not in street mode) there is no street to find.
  if (!dm->TPostal->Active()) return false;

  const QString actual = dm->TPostalVIA->AsString();
  if (actual == psVia) return true;
  if (actual.size() >= psVia.size() && actual.startsWith(psVia)) return false;  // already on a street it begins

  TTable* postal = dm->TPostal;
  TBIndexa(QStringLiteral("VIA"), postal);
  const QString lsProvincia = StrRight(QStringLiteral("00") + provincia, 2);
  const QString lsCapital = dm->TMunicipiCAPITAL->AsString();
  TBBusca(postal,
          {QStringLiteral("PROVINCIA"), lsProvincia, QStringLiteral("CAPITAL"), lsCapital, QStringLiteral("VIA"), psVia,
           QStringLiteral("TIPO_VIA"), QString()},
          pbExacto);
  auto mismaCalle = [&] {
    return dm->TPostalPROVINCIA->AsString() == lsProvincia && dm->TPostalCAPITAL->AsString() == lsCapital &&
           dm->TPostalVIA->AsString() == psVia;
  };
  if (mismaCalle() && !tipo.isEmpty() && dm->TPostalTIPO_VIA->AsString() != tipo) {
    // The same street with the type asked for, further on.
    const TBookmark marca = postal->GetBookmark();
    bool hallada = false;
    while (!postal->Eof() && !hallada) {
      postal->Next();
      if (postal->Eof() || !mismaCalle()) break;
      hallada = dm->TPostalTIPO_VIA->AsString() == tipo;
    }
    if (!hallada && postal->BookmarkValid(marca)) postal->GotoBookmark(marca);
  }
  return dm->TPostalVIA->AsString() == psVia;
}

QString TClaseCodPostales::BuscaCodPostal(const QString& psLocalidad, const QString& psCodProvincia) {
  return BuscaEnMunicipioAuxiliar(psLocalidad, psCodProvincia, oDataModule->TMunicipiAuxCODPOSTAL);
}

QString TClaseCodPostales::BuscaCodIne(const QString& psLocalidad, const QString& psCodProvincia) {
  return BuscaEnMunicipioAuxiliar(psLocalidad, psCodProvincia, oDataModule->TMunicipiAuxCOD_INE);
}

// A field of the municipality of that name in that province, looked up on
// the auxiliary cursor so the tables on screen do not move.
QString TClaseCodPostales::BuscaEnMunicipioAuxiliar(const QString& psLocalidad, const QString& psCodProvincia,
                                                    TField* campo) {
  TDMCodPostales* dm = oDataModule;
  TTable* aux = dm->TMunicipiAux;
  const TBookmark marca = aux->GetBookmark();
  TBIndexa(QStringLiteral("NOMBRE"), aux);
  const QString nombre = psLocalidad.trimmed();
  QString resultado;
  if (TBBusca(aux, {QStringLiteral("NOMBRE"), nombre}, true)) {
    for (; !aux->Eof() && dm->TMunicipiAuxNOMBRE->AsString() == nombre; aux->Next()) {
      if (dm->TMunicipiAuxCOD_PROV->AsString() == psCodProvincia) {
        resultado = campo->AsString();
        break;
      }
    }
  }
  if (aux->BookmarkValid(marca)) aux->GotoBookmark(marca);
  return resultado;
}

bool TClaseCodPostales::BuscaDomicilioAcentos(const QString& psVia, QString& psNombreAcentos) {
  TDMCodPostales* dm = oDataModule;
  if (!dm->TPostal->Active()) {
    Mensaje_Emergente(Owner, QStringLiteral("La tabla de códigos postales está cerrada y no se ha podido completar la operación"),
                      QStringLiteral("Tabla de códigos postales cerrada"), QStringLiteral("H"), 4, QString());
    return false;
  }
  if (dm->TPostalVIA->AsString() == psVia) {
    psNombreAcentos = dm->TPostalNOMBRE_2->AsString();
    return true;
  }
  ActualizaTablaPostal(oadvECodINE ? oadvECodINE->text() : QString());
  TBIndexa(QStringLiteral("SOLOVIA"), dm->TPostal);
  if (!TBBusca(dm->TPostal, {QStringLiteral("VIA"), psVia}, true)) return false;
  psNombreAcentos = dm->TPostalNOMBRE_2->AsString();
  return true;
}

void TClaseCodPostales::advEDomicilioKeyDown(QObject*, int& Key, Qt::KeyboardModifiers) {
  EntraEnRejilla(oDBGDomicilio, Key);
}

void TClaseCodPostales::advEDomicilioKeyUp(QObject*, int& Key, Qt::KeyboardModifiers) {
  if (!oadvCBProvincia || !FuenteDe(oDBGDomicilio) || !IsCharAlphaNumericW(Key)) return;
  const QString codigo = CodigoProvinciaElegida();
  if (codigo.isEmpty()) return;
  const QString texto = oadvEDomicilio->text();
  if (oadvCBTipoVia)
    BuscaDomicilioPorVia(texto, StrRight(QStringLiteral("00") + codigo, 2), oadvCBTipoVia->currentText(), false);
  TDMCodPostales* dm = oDataModule;
  const QString via = dm->TPostal->Active() ? dm->TPostalVIA->AsString() : QString();
  if (!texto.isEmpty() && via.startsWith(texto)) {
    SetTag(oadvEDomicilio, dm->TPostalCODIGO1->AsInteger());
    Completa(oadvEDomicilio, via);
  } else {
    SetTag(oadvEDomicilio, 0);
  }
}

void TClaseCodPostales::advEDomicilioEnter(QObject* Sender) {
  TomaFoco(Sender);
  if (!oDBGDomicilio) return;
  MuestraRejilla(oDBGDomicilio, FuenteDe(oDBGDomicilio) != nullptr);
  if (oTDomicilio) oTDomicilio->start();
}

// The street the table stands on gives the postcode, and its type when the
// user has chosen none.
void TClaseCodPostales::RellenaDatosDeVia() {
  TDMCodPostales* dm = oDataModule;
  if (oadvECodPostal) oadvECodPostal->setText(dm->TPostalCODPOSTAL->AsString());
  const QString tipo = dm->TPostalTIPO_VIA->AsString();
  if (!tipo.isEmpty() && oadvCBTipoVia && oadvCBTipoVia->currentIndex() == -1) BuscaEnTipoViaPorCodigo(tipo);
}

bool TClaseCodPostales::EditaLaViaActual() const {
  return oadvEDomicilio && oDataModule->TPostal->Active() &&
         oadvEDomicilio->text() == oDataModule->TPostalVIA->AsString();
}

void TClaseCodPostales::advEDomicilioExit(QObject* Sender) {
  DejaFoco(Sender);
  if (!oDBGDomicilio || (Tag(oDBGDomicilio) == 0 && !oDBGDomicilio->hasFocus())) {
    if (EditaLaViaActual()) RellenaDatosDeVia();
    if (oadvENumero && !shiftPulsado() && bHazCambioFoco) HazSetFocus(oadvENumero);
  }
  if (oDBGDomicilio) SetTag(oDBGDomicilio, 0);
}

void TClaseCodPostales::DBGDomicilioKeyDown(QObject*, int& Key, Qt::KeyboardModifiers Shift) {
  if (!oadvEDomicilio) return;
  if (Key == VK_RETURN) {
    Key = 0;
    oadvEDomicilio->setText(oDataModule->TPostalVIA->AsString());
    advEDomicilioExit(oadvEDomicilio);
  } else if (Key == VK_ESCAPE) {
    if (bHazCambioFoco) {
      HazSetFocus(oadvEDomicilio);
      HazSetFocus(oadvEDomicilio);  // twice, as the host always did
    }
    Key = 0;
    advEDomicilioKeyUp(oadvEDomicilio, Key, Shift);
  }
}

// The locality grid's field, not the street grid's, as it always was.
void TClaseCodPostales::DBGDomicilioMouseDown(QObject*, Qt::MouseButton, Qt::KeyboardModifiers, int, int) {
  if (bHazCambioFoco) HazSetFocus(oDBGLocalidad);
}

void TClaseCodPostales::DBGDomicilioDblClick(QObject*) {
  if (!oadvEDomicilio) return;
  oadvEDomicilio->setText(oDataModule->TPostalVIA->AsString());
  advEDomicilioExit(oadvEDomicilio);
  MuestraRejilla(oDBGDomicilio, false);
}

void TClaseCodPostales::DBGDomicilioExit(QObject* Sender) {
  DejaFoco(Sender);
  if (!oDBGDomicilio) return;
  MuestraRejilla(oDBGDomicilio, false);
  if (EditaLaViaActual()) RellenaDatosDeVia();
  if (oControlSiguienteAlDBGDomicilio) HazSetFocus(oControlSiguienteAlDBGDomicilio);
}

// The house-number rule: the postcode of the stretch of the street whose odd
// or even range holds the number, bounds included. Stretches of the street's
// own type are tried first, then those without a type. When none holds it,
// the table goes back where it was and the postcode edit keeps its text.
void TClaseCodPostales::advENumeroExit(QObject* Sender) {
  DejaFoco(Sender);
  TDMCodPostales* dm = oDataModule;
  TTable* postal = dm->TPostal;
  if (!postal->Active()) return;
  int numero = Cad_Int(oadvENumero ? oadvENumero->text() : QString());
  if (numero == 0) numero = 1;
  const bool impar = numero % 2 != 0;
  const QString via = oadvEDomicilio ? oadvEDomicilio->text() : QString();
  const QString tipo = dm->TPostalVIA->AsString() == via ? dm->TPostalTIPO_VIA->AsString()
                                                          : codigoDeTipoElegido(oadvCBTipoVia);
  const TBookmark marca = postal->GetBookmark();

  auto alPrimerTramo = [&] {
    while (!postal->Bof() && dm->TPostalVIA->AsString() == via) postal->Prior();
    if (dm->TPostalVIA->AsString() != via) postal->Next();
  };
  auto pasada = [&](const QString& tipoBuscado) {
    for (; !postal->Eof() && dm->TPostalVIA->AsString() == via; postal->Next()) {
      if (dm->TPostalTIPO_VIA->AsString() != tipoBuscado) continue;
      const int inicio = (impar ? dm->TPostalIMPAR_INI : dm->TPostalPAR_INI)->AsInteger();
      const int fin = (impar ? dm->TPostalIMPAR_FIN : dm->TPostalPAR_FIN)->AsInteger();
      if (inicio <= numero && numero <= fin) {
        if (oadvECodPostal) oadvECodPostal->setText(dm->TPostalCODPOSTAL->AsString());
        return true;
      }
    }
    return false;
  };
  alPrimerTramo();
  if (!pasada(tipo)) {
    alPrimerTramo();
    pasada(QString());
  }
  if (marca.isValid() && oadvECodPostal && oadvECodPostal->text() != dm->TPostalCODPOSTAL->AsString() &&
      postal->BookmarkValid(marca))
    postal->GotoBookmark(marca);
}

// Hides a results grid once the focus has left both it and its edit, and
// stops when there is no grid left to watch.
void TClaseCodPostales::TDomicilioTimer(QObject*) {
  auto ocultaSiSinFoco = [this](QTableView* rejilla, QLineEdit* edit) {
    if (rejilla && rejilla->isVisible() && !rejilla->hasFocus() && (!edit || !edit->hasFocus())) {
      MuestraRejilla(rejilla, false);
      if (oTDomicilio) oTDomicilio->stop();
    }
  };
  ocultaSiSinFoco(oDBGDomicilio, oadvEDomicilio);
  ocultaSiSinFoco(oDBGLocalidad, oadvELocalidad);
  if (!oTDomicilio) return;
  const bool calle = oDBGDomicilio && oDBGDomicilio->isVisible();
  const bool localidad = oDBGLocalidad && oDBGLocalidad->isVisible();
  if ((oDBGDomicilio || oDBGLocalidad) && !calle && !localidad) oTDomicilio->stop();
}
