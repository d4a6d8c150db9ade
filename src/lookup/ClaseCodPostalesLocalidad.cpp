// The locality search: completing the municipality name as the user types,
// the results grid under the edit, the balloon listing same-named places in
// other provinces, and the by-name, postcode, INE and municipality-number
// look-ups.
#include <QComboBox>
#include <QGuiApplication>
#include <QLineEdit>
#include <QSet>
#include <QTableView>
#include <QTimer>

#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "platform/ControlesHost.h"
#include "platform/RejillaDatos.h"
#include "platform/TeclasWindows.h"
#include "platform/TLMDMessageHint.h"
#include "services/Rnumcad.h"
#include "services/Ruttb.h"
#include "services/Rvarias.h"

namespace {

const QString kProvinciaExtranjero = QStringLiteral("99");
const QString kProvinciaNoCoincide = QStringLiteral("La provincia especificada no coincide con el municipio indicado");

struct Articulo {
  const char16_t* buscado;
  const char16_t* sufijo;
};

// In this order; the first one found anywhere in the name decides.
constexpr Articulo kArticulos[] = {
    {u"EL ", u" (EL)"},   {u"LA ", u" (LA)"},   {u"LOS ", u" (LOS)"}, {u"LAS ", u" (LAS)"}, {u"LES ", u" (LES)"},
    {u"ES ", u" (ES)"},   {u"L' ", u" (L')"},   {u"SA ", u" (SA)"},   {u"ELS ", u" (ELS)"}, {u"A ", u" (A)"},
};

bool shiftPulsado() { return QGuiApplication::queryKeyboardModifiers().testFlag(Qt::ShiftModifier); }

}  // namespace

QString TClaseCodPostales::NombreMunicipioConParentesis(const QString& psNombreMunicipio) {
  for (const Articulo& a : kArticulos) {
    const QString buscado = QString::fromUtf16(a.buscado);
    if (!psNombreMunicipio.contains(buscado)) continue;
    // The cut starts at the 4th character whatever the article and wherever
    // it stood: right for three-character articles at the start only.
    return psNombreMunicipio.mid(3, psNombreMunicipio.size() - buscado.size()) + QString::fromUtf16(a.sufijo);
  }
  return psNombreMunicipio;
}

bool TClaseCodPostales::BuscaLocalidadPorNombre(const QString& psNombre, bool pbExacto) {
  TTable* municipios = oDataModule->TMunicipi;
  TBIndexa(QStringLiteral("NOMBRE"), municipios);
  const QString conParentesis = NombreMunicipioConParentesis(psNombre);
  if (conParentesis != psNombre && TBBusca(municipios, {QStringLiteral("NOMBRE"), conParentesis}, pbExacto))
    return true;
  return TBBusca(municipios, {QStringLiteral("NOMBRE"), psNombre}, pbExacto);
}

bool TClaseCodPostales::BuscaLocalidadPorCodPostal(const QString& psCodPostal, bool pbExacto) {
  TTable* municipios = oDataModule->TMunicipi;
  TBIndexa(QStringLiteral("CODPOSTAL"), municipios);
  return TBBusca(municipios, {QStringLiteral("CODPOSTAL"), StrRight(QStringLiteral("00000") + psCodPostal, 5)},
                 pbExacto);
}

bool TClaseCodPostales::BuscaLocalidadPorCodIne(const QString& psCodIne, bool pbExacto) {
  TTable* municipios = oDataModule->TMunicipi;
  TBIndexa(QStringLiteral("COD_INE"), municipios);
  return TBBusca(municipios, {QStringLiteral("COD_INE"), StrRight(QStringLiteral("00000") + psCodIne, 5)}, pbExacto);
}

bool TClaseCodPostales::BuscaLocalidadPorCodMun(const QString& psCodProvincia, const QString& psCodMun) {
  TTable* municipios = oDataModule->TMunicipi;
  const QString provincia = StrRight(QStringLiteral("00") + psCodProvincia, 2);
  const QString municipio = StrRight(QStringLiteral("0000") + psCodMun, 4);
  // A province filter in force follows the province asked for; an
  // unfiltered table stays unfiltered.
  const QString filtro = QStringLiteral("COD_PROV=") + provincia;
  if (municipios->Filtered() && municipios->Filter() != filtro) TBFiltra(municipios, filtro);
  TBIndexa(QStringLiteral("CPROVMUN"), municipios);
  return TBBusca(municipios, {QStringLiteral("COD_PROV"), provincia, QStringLiteral("COD_MUN"), municipio}, true);
}

// Puts the whole found name into the edit, keeping what was typed and
// selecting the rest, so the next key replaces the completion.
void TClaseCodPostales::Completa(QLineEdit* edit, const QString& completo) {
  const int cursor = edit->cursorPosition();
  edit->setText(completo);
  edit->setSelection(cursor, completo.size());
}

void TClaseCodPostales::BuscaLocalidad() {
  if (!oadvELocalidad || oadvELocalidad->text().isEmpty() || !FuenteDe(oDBGLocalidad)) return;
  if (CodigoProvinciaElegida().isEmpty()) return;
  const QString texto = oadvELocalidad->text();
  TBBusca(oDataModule->TMunicipi, {QStringLiteral("NOMBRE"), texto}, false);
  const QString nombre = oDataModule->TMunicipiNOMBRE->AsString();
  if (nombre.startsWith(texto)) {
    SetTag(oadvELocalidad, 1);
    Completa(oadvELocalidad, nombre);
  } else {
    SetTag(oadvELocalidad, 0);
  }
  RellenaCodigosDeLocalidad();
}

// Postcode and INE code of the municipality the table stands on. A
// municipality with several postcodes takes the street's when the street
// table stands on one of its streets.
void TClaseCodPostales::RellenaCodigosDeLocalidad() {
  if (!oadvECodPostal || !oadvECodINE) return;
  TDMCodPostales* dm = oDataModule;
  if (oadvCBTipoVia)
    BuscaDomicilioPorVia(oadvEDomicilio ? oadvEDomicilio->text() : QString(), dm->TMunicipiCOD_PROV->AsString(),
                         oadvCBTipoVia->currentText(), false);
  const QString codIne = dm->TMunicipiCOD_INE->AsString();
  const bool variosCodigos = dm->TMunicipiUNICO->AsString() == u"N";
  if (variosCodigos && dm->TPostal->Active() && codIne == dm->TPostalCOD_INE->AsString())
    oadvECodPostal->setText(dm->TPostalCODPOSTAL->AsString());
  else
    oadvECodPostal->setText(dm->TMunicipiCODPOSTAL->AsString());
  oadvECodINE->setText(codIne);
  PonColorTexto(oadvECodPostal, clWindowText());
  PonColorTexto(oadvECodINE, clWindowText());
}

// The arrow keys in an edit drop its results grid down and go into it.
void TClaseCodPostales::EntraEnRejilla(QTableView* rejilla, int Key) {
  if ((Key != VK_UP && Key != VK_DOWN) || !rejilla) return;
  TTable* tabla = TablaDe(rejilla);
  if (!rejilla->isVisible() && tabla && !tabla->IsEmpty()) MuestraRejilla(rejilla, true);
  SetTag(rejilla, 1);
  MuestraFilaActual(rejilla);
  if (bHazCambioFoco) HazSetFocus(rejilla);
}

void TClaseCodPostales::MuestraRejilla(QTableView* rejilla, bool visible) {
  if (!rejilla) return;
  rejilla->setVisible(visible);
  if (visible) rejilla->raise();  // it drops down over the form's other controls
}

void TClaseCodPostales::advELocalidadKeyDown(QObject*, int& Key, Qt::KeyboardModifiers) {
  EntraEnRejilla(oDBGLocalidad, Key);
}

void TClaseCodPostales::advELocalidadKeyUp(QObject*, int& Key, Qt::KeyboardModifiers) {
  if (!IsCharAlphaNumericW(Key)) return;  // the comma test the host kept here could never pass
  BuscaLocalidad();
  // The chosen item's code, read without a test: the empty item gives none.
  QString lsCodProv;
  const int elegida = oadvCBProvincia ? oadvCBProvincia->currentIndex() : -1;
  if (elegida >= 0) lsCodProv = oadvCBProvincia->itemData(elegida).toString();
  if (!oLMDMHProvincias || lsCodProv == kProvinciaExtranjero) return;
  if (Tag(oadvELocalidad) != 0 && elegida != 0) return;  // found in the chosen province
  ListaOtrasProvincias();
  if (sMensajeProvincias.isEmpty()) return;
  oLMDMHProvincias->Tag = 1;
  oLMDMHProvincias->ShowMessage(sMensajeProvincias, oadvELocalidad->mapToGlobal(QPoint(0, oadvELocalidad->height())),
                                QString(), QColor(), TLMDMessageHint::iconoAviso, -1);
}

// Every place in any province whose name begins with the edit's text, one
// line each: NAME (PROVINCE).
void TClaseCodPostales::ListaOtrasProvincias() {
  sMensajeProvincias.clear();
  TDMCodPostales* dm = oDataModule;
  TTable* todos = dm->TMunicipiSinFiltro;
  const QString texto = oadvELocalidad->text();
  TBBusca(todos, {QStringLiteral("NOMBRE"), texto}, false);
  QSet<QString> puestas;
  for (; !todos->Eof() && dm->TMunicipiSinFiltroNOMBRE->AsString().startsWith(texto); todos->Next()) {
    const QString entrada =
        dm->TMunicipiSinFiltroNOMBRE->AsString() + QStringLiteral(" (") + dm->TMunicipiSinFiltroccPROVINCIA->AsString() +
        QStringLiteral(")");
    // An entry already in the text, even inside a longer one, is not added
    // again; the set spares the search through the text for exact repeats.
    if (puestas.contains(entrada) || sMensajeProvincias.contains(entrada)) continue;
    puestas.insert(entrada);
    if (!sMensajeProvincias.isEmpty()) sMensajeProvincias += u'\r';
    sMensajeProvincias += entrada;
  }
}

void TClaseCodPostales::advELocalidadEnter(QObject* Sender) {
  TomaFoco(Sender);
  if (!oDBGLocalidad) return;
  MuestraRejilla(oDBGLocalidad, FuenteDe(oDBGLocalidad) != nullptr);
  if (oTDomicilio) oTDomicilio->start();
}

void TClaseCodPostales::advELocalidadExit(QObject* Sender) {
  DejaFoco(Sender);
  ResuelveOtrasProvincias();
  sFiltroVias.clear();
  const bool enLaRejilla = oDBGLocalidad && (Tag(oDBGLocalidad) != 0 || oDBGLocalidad->hasFocus());
  if (!enLaRejilla) {
    TDMCodPostales* dm = oDataModule;
    if (oadvELocalidad->text() == dm->TMunicipiNOMBRE->AsString()) {
      PonColorTexto(oadvELocalidad, clWindowText());
      RellenaCodigosDeLocalidad();
      if (bPostales && oDBGDomicilio) FiltraCallesDeLocalidad();
      FocoTrasLocalidad();
    } else {
      if (oadvCBProvincia && oadvCBProvincia->isEnabled()) {
        PonColorTexto(oadvELocalidad, clMaroon());
        PonColorTexto(oadvECodPostal, clMaroon());
        PonColorTexto(oadvECodINE, clMaroon());
        FocoTrasLocalidad();
      }
      DesenlazaRejilla(oDBGDomicilio);
    }
    // Streets by code alone when the name gave none.
    const QString codIne = dm->TMunicipiCOD_INE->AsString();
    if (bPostales && oDBGDomicilio && sFiltroVias.isEmpty() && oadvELocalidad->text() == dm->TMunicipiNOMBRE->AsString() &&
        !codIne.isEmpty() && FiltraVias(codIne))
      EnlazaRejilla(oDBGDomicilio, dm->DSPostal);
  }
  if (oDBGLocalidad) SetTag(oDBGLocalidad, 0);
}

// On leaving the edit with the other-province balloon up: a name found in
// exactly one other province switches to it silently; otherwise the user is
// told the province does not match.
void TClaseCodPostales::ResuelveOtrasProvincias() {
  if (!oLMDMHProvincias || !oLMDMHProvincias->IsShowing() || oLMDMHProvincias->Tag != 1) return;
  bool cambiada = false;
  if (CuentaCaracter(sMensajeProvincias, u'(') == 1 && oadvCBProvincia) {
    const QString provincia = CadenaHastaCaracter(CadenaDesdeCaracter(sMensajeProvincias, u'('), u')');
    if (provincia != oadvCBProvincia->currentText()) {
      BuscaEnProvinciaPorNombre(provincia);
      advCBProvinciaExit(oadvCBProvincia);
      cambiada = true;
    }
  }
  oLMDMHProvincias->Tag = 0;
  oLMDMHProvincias->HideMessage();
  if (sMensajeProvincias.isEmpty() || cambiada) return;
  oLMDMHProvincias->ShowControlMessage(kProvinciaNoCoincide, oadvCBProvincia, QString(), QColor(),
                                       TLMDMessageHint::iconoAviso, -1);
  if (oTMensajes) oTMensajes->start();
}

// The streets of the municipality the table stands on, by code and name,
// when the edit holds a completed name; otherwise the street grid shows none.
void TClaseCodPostales::FiltraCallesDeLocalidad() {
  DesenlazaRejilla(oDBGDomicilio);
  if (Tag(oadvELocalidad) != 1) return;
  TDMCodPostales* dm = oDataModule;
  if (FiltraVias(dm->TMunicipiCOD_INE->AsString(), dm->TMunicipiNOMBRE->AsString()))
    EnlazaRejilla(oDBGDomicilio, dm->DSPostal);
}

// After a locality: the street type when it comes first in the tab order,
// else the postcode.
void TClaseCodPostales::FocoTrasLocalidad() {
  if (shiftPulsado() || !bHazCambioFoco || !oadvECodPostal) return;
  if (oadvCBTipoVia && AntesEnTabulacion(oadvCBTipoVia, oadvECodPostal))
    HazSetFocus(oadvCBTipoVia);
  else
    HazSetFocus(oadvECodPostal);
}

// The municipality the grid stands on, into the edits.
void TClaseCodPostales::TomaLocalidadDeLaRejilla() {
  TDMCodPostales* dm = oDataModule;
  oadvELocalidad->setText(dm->TMunicipiNOMBRE->AsString());
  if (oadvECodPostal) oadvECodPostal->setText(dm->TMunicipiCODPOSTAL->AsString());
  if (oadvECodINE) oadvECodINE->setText(dm->TMunicipiCOD_INE->AsString());
}

void TClaseCodPostales::DBGLocalidadKeyDown(QObject*, int& Key, Qt::KeyboardModifiers Shift) {
  if (!oadvELocalidad) return;
  if (Key == VK_RETURN) {
    Key = 0;
    SetTag(oadvELocalidad, 1);
    TomaLocalidadDeLaRejilla();
    if (bPostales && oDBGDomicilio) FiltraCallesDeLocalidad();
  } else if (Key == VK_ESCAPE) {
    if (bHazCambioFoco) {
      HazSetFocus(oadvELocalidad);
      HazSetFocus(oadvELocalidad);  // twice, as the host always did
    }
    Key = 0;
    advELocalidadKeyUp(oadvELocalidad, Key, Shift);
  }
}

void TClaseCodPostales::DBGLocalidadMouseDown(QObject*, Qt::MouseButton, Qt::KeyboardModifiers, int, int) {
  if (bHazCambioFoco) HazSetFocus(oDBGLocalidad);
}

void TClaseCodPostales::DBGLocalidadDblClick(QObject*) {
  if (!oadvELocalidad) return;
  TomaLocalidadDeLaRejilla();
  if (bPostales && oDBGDomicilio) FiltraCallesDeLocalidad();
  MuestraRejilla(oDBGLocalidad, false);
}

void TClaseCodPostales::DBGLocalidadExit(QObject* Sender) {
  DejaFoco(Sender);
  if (!oDBGLocalidad) return;
  MuestraRejilla(oDBGLocalidad, false);
  if (oControlSiguienteAlDBGLocalidad) HazSetFocus(oControlSiguienteAlDBGLocalidad);
}
