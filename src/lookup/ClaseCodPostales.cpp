// Construction, binding to the host's controls, the shared focus handlers,
// the two timers and destruction.
#include "lookup/ClaseCodPostales.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QKeyEvent>
#include <QLineEdit>
#include <QStatusBar>
#include <QTableView>
#include <QThread>
#include <QTimer>

#include "lookup/CodPostalesDM.h"
#include "platform/EventosControles.h"
#include "platform/RejillaDatos.h"
#include "platform/TLMDMessageHint.h"
#include "services/Rvarias.h"

namespace {

constexpr int kIntervaloDomicilioMs = 200;
constexpr int kIntervaloMensajesMs = 5000;
// Room the host's grids leave for their scroll bar and borders.
constexpr int kMargenRejilla = 35;

// The status bar of the host's button panel: the panel itself or one inside it.
QStatusBar* barraDeEstado(QWidget* panel) {
  if (!panel) return nullptr;
  if (auto* barra = qobject_cast<QStatusBar*>(panel)) return barra;
  return panel->findChild<QStatusBar*>();
}

// The columns a results grid shows when the host gives it no model of its own.
void conectaRejilla(QTableView* rejilla, TDataSource* fuente, const QStringList& campos, const QStringList& titulos) {
  if (!rejilla || rejilla->model()) return;
  if (fuente->Columns().isEmpty()) fuente->SetColumns(campos, titulos);
  EnlazaRejilla(rejilla, fuente);
}

// A widget's class name without its namespace, as the host's class names go.
QString nombreDeClase(const QWidget* w) {
  const QString nombre = QString::fromLatin1(w->metaObject()->className());
  const qsizetype separador = nombre.lastIndexOf(QLatin1String("::"));
  return separador < 0 ? nombre : nombre.mid(separador + 2);
}

}  // namespace

void TClaseCodPostales::CreaModuloDeDatos(QObject* AOwner, const QString& psAlias, bool pbPostales) {
  Owner = AOwner;
  sAlias = psAlias;
  bPostales = pbPostales;
  oDataModule = new TDMCodPostales(AOwner);
  oDataModuleVivo = oDataModule;
  oEventos = std::make_unique<TEventosControles>();
}

TClaseCodPostales::TClaseCodPostales(QObject* AOwner, const QString& psAlias, bool pbPostales,
                                     const QString& psDefectoCodINE) {
  CreaModuloDeDatos(AOwner, psAlias, pbPostales);
  bDefectoPostal = bPostales;
  sDefectoCodINE = psDefectoCodINE;
  sMensajeProvincias.clear();
  try {
    AbreTablas();
  } catch (...) {
    Libera();  // no destructor runs for a constructor that throws
    throw;
  }
}

TClaseCodPostales::TClaseCodPostales(QObject* AOwner, const QString& psAlias, bool pbPostales, QWidget* poadvPBotones,
                                     QComboBox* poadvCBProvincia, QLineEdit* poadvELocalidad,
                                     QTableView* poDBGLocalidad, QLineEdit* poadvEDomicilio,
                                     QTableView* poDBGDomicilio, QLineEdit* poadvENumero, QLineEdit* poadvECodPostal,
                                     QLineEdit* poadvECodINE, QComboBox* poadvCBTipoVia, QComboBox* poadvCBPais,
                                     QWidget* poControlSiguienteAlDBGLocalidad,
                                     QWidget* poControlSiguienteAlDBGDomicilio, const QString& psDefectoCodProvincia,
                                     const QString& psDefectoLocalidad, const QString& psDefectoCodINE,
                                     const QString& psDefectoCodPostal) {
  CreaModuloDeDatos(AOwner, psAlias, pbPostales);
  bHazCambioFoco = true;
  bDefectoPostal = bPostales && poadvEDomicilio;
  sDefectoCodINE = psDefectoCodINE;
  sMensajeProvincias.clear();
  try {
    AbreTablas();
      Enlaza(poadvPBotones, poadvCBProvincia, poadvELocalidad, poDBGLocalidad, poadvEDomicilio, poDBGDomicilio,
           poadvENumero, poadvECodPostal, poadvECodINE, poadvCBTipoVia, poadvCBPais, poControlSiguienteAlDBGLocalidad,
           poControlSiguienteAlDBGDomicilio, false, psDefectoCodProvincia, psDefectoLocalidad, psDefectoCodINE,
           psDefectoCodPostal);
  } catch (...) {
    Libera();
    throw;
  }
}

void TClaseCodPostales::Carga(QWidget* poadvPBotones, QComboBox* poadvCBProvincia, QLineEdit* poadvELocalidad,
                              QTableView* poDBGLocalidad, QLineEdit* poadvEDomicilio, QTableView* poDBGDomicilio,
                              QLineEdit* poadvENumero, QLineEdit* poadvECodPostal, QLineEdit* poadvECodINE,
                              QComboBox* poadvCBTipoVia, QComboBox* poadvCBPais,
                              QWidget* poControlSiguienteAlDBGLocalidad, QWidget* poControlSiguienteAlDBGDomicilio,
                              TLMDMessageHint* poLMDMHProvincias, const QString& psDefectoCodProvincia,
                              const QString& psDefectoLocalidad, const QString& psDefectoCodINE,
                              const QString& psDefectoCodPostal) {
  bHazCambioFoco = true;
  sFiltroVias.clear();
  oLMDMHProvincias = poLMDMHProvincias;
  Enlaza(poadvPBotones, poadvCBProvincia, poadvELocalidad, poDBGLocalidad, poadvEDomicilio, poDBGDomicilio,
         poadvENumero, poadvECodPostal, poadvECodINE, poadvCBTipoVia, poadvCBPais, poControlSiguienteAlDBGLocalidad,
         poControlSiguienteAlDBGDomicilio, true, psDefectoCodProvincia, psDefectoLocalidad, psDefectoCodINE,
         psDefectoCodPostal);
}

// The binding shared by the bound constructor and Carga: store the controls,
// take their events, place the grids, fill the lists, set up the timers and
// show the default address.
void TClaseCodPostales::Enlaza(QWidget* poadvPBotones, QComboBox* poadvCBProvincia, QLineEdit* poadvELocalidad,
                               QTableView* poDBGLocalidad, QLineEdit* poadvEDomicilio, QTableView* poDBGDomicilio,
                               QLineEdit* poadvENumero, QLineEdit* poadvECodPostal, QLineEdit* poadvECodINE,
                               QComboBox* poadvCBTipoVia, QComboBox* poadvCBPais,
                               QWidget* poControlSiguienteAlDBGLocalidad, QWidget* poControlSiguienteAlDBGDomicilio,
                               bool pbReutilizaTemporizadores, const QString& psDefectoCodProvincia,
                               const QString& psDefectoLocalidad, const QString& psDefectoCodINE,
                               const QString& psDefectoCodPostal) {
  oadvPBotones = poadvPBotones;
  oadvCBProvincia = poadvCBProvincia;
  oadvELocalidad = poadvELocalidad;
  oDBGLocalidad = poDBGLocalidad;
  oadvEDomicilio = poadvEDomicilio;
  oDBGDomicilio = poDBGDomicilio;
  oadvENumero = poadvENumero;
  oadvECodPostal = poadvECodPostal;
  oadvECodINE = poadvECodINE;
  oadvCBTipoVia = poadvCBTipoVia;
  oadvCBPais = poadvCBPais;
  oControlSiguienteAlDBGLocalidad = poControlSiguienteAlDBGLocalidad;
  oControlSiguienteAlDBGDomicilio = poControlSiguienteAlDBGDomicilio;

  AsignaManejadores();
  if (oadvELocalidad) ColocaRejilla(oadvELocalidad, oDBGLocalidad, 0);
  if (bPostales && oDBGDomicilio) ColocaRejilla(oadvEDomicilio, oDBGDomicilio, 1);

  if (oadvCBProvincia) CargaProvincias();
  if (oadvCBTipoVia) CargaTiposVia();
  if (oadvCBPais) CargaPaises();

  CreaTemporizadores(pbReutilizaTemporizadores);
  CargaValoresPorDefecto(psDefectoCodProvincia, psDefectoLocalidad, psDefectoCodINE, psDefectoCodPostal);
}

void TClaseCodPostales::AsignaManejadores() {
  using namespace std::placeholders;
  auto enter = [this](void (TClaseCodPostales::*m)(QObject*)) { return std::bind(m, this, _1); };
  auto tecla = [this](void (TClaseCodPostales::*m)(QObject*, int&, Qt::KeyboardModifiers)) {
    return std::bind(m, this, _1, _2, _3);
  };
  auto raton = [this](void (TClaseCodPostales::*m)(QObject*, Qt::MouseButton, Qt::KeyboardModifiers, int, int)) {
    return std::bind(m, this, _1, _2, _3, _4, _5);
  };
  const TManejadores foco{enter(&TClaseCodPostales::TomaFoco), enter(&TClaseCodPostales::DejaFoco), {}, {}, {}, {}};

  if (oadvCBProvincia)
    oEventos->Asigna(oadvCBProvincia, {enter(&TClaseCodPostales::TomaFoco),
                                       enter(&TClaseCodPostales::advCBProvinciaExit), {}, {}, {}, {}});
  if (oadvELocalidad)
    oEventos->Asigna(oadvELocalidad,
                     {enter(&TClaseCodPostales::advELocalidadEnter), enter(&TClaseCodPostales::advELocalidadExit),
                      tecla(&TClaseCodPostales::advELocalidadKeyDown), tecla(&TClaseCodPostales::advELocalidadKeyUp),
                      {}, {}});
  if (oDBGLocalidad)
    oEventos->Asigna(oDBGLocalidad,
                     {enter(&TClaseCodPostales::TomaFoco), enter(&TClaseCodPostales::DBGLocalidadExit),
                      tecla(&TClaseCodPostales::DBGLocalidadKeyDown), {},
                      raton(&TClaseCodPostales::DBGLocalidadMouseDown),
                      enter(&TClaseCodPostales::DBGLocalidadDblClick)});
  if (bPostales) {
    if (oadvEDomicilio)
      oEventos->Asigna(oadvEDomicilio,
                       {enter(&TClaseCodPostales::advEDomicilioEnter), enter(&TClaseCodPostales::advEDomicilioExit),
                        tecla(&TClaseCodPostales::advEDomicilioKeyDown),
                        tecla(&TClaseCodPostales::advEDomicilioKeyUp), {}, {}});
    if (oDBGDomicilio)
      oEventos->Asigna(oDBGDomicilio,
                       {enter(&TClaseCodPostales::TomaFoco), enter(&TClaseCodPostales::DBGDomicilioExit),
                        tecla(&TClaseCodPostales::DBGDomicilioKeyDown), {},
                        raton(&TClaseCodPostales::DBGDomicilioMouseDown),
                        enter(&TClaseCodPostales::DBGDomicilioDblClick)});
    if (oadvENumero)
      oEventos->Asigna(oadvENumero, {enter(&TClaseCodPostales::TomaFoco),
                                     enter(&TClaseCodPostales::advENumeroExit), {}, {}, {}, {}});
  } else {
    if (oadvEDomicilio) oEventos->Asigna(oadvEDomicilio, foco);
    if (oDBGDomicilio) oEventos->Asigna(oDBGDomicilio, foco);
    if (oadvENumero) oEventos->Asigna(oadvENumero, foco);
  }
  if (oadvECodPostal) oEventos->Asigna(oadvECodPostal, foco);
  if (oadvECodINE) oEventos->Asigna(oadvECodINE, foco);
  if (oadvCBTipoVia) oEventos->Asigna(oadvCBTipoVia, foco);
  if (oadvCBPais)
    oEventos->Asigna(oadvCBPais,
                     {enter(&TClaseCodPostales::TomaFoco), enter(&TClaseCodPostales::advCBPaisExit), {}, {}, {}, {}});

  conectaRejilla(oDBGLocalidad, oDataModule->DSMunicipi, {"ccNOMBRE_COMPLETO", "CODPOSTAL", "ccPROVINCIA"},
                 {"Localidad", "C. Postal", "Provincia"});
  if (bPostales)
    conectaRejilla(oDBGDomicilio, oDataModule->DSPostal, {"TIPO_VIA", "VIA", "CODPOSTAL"},
                   {"Tipo", "Vía", "C. Postal"});
}

// Drops the results grid down under its edit: the grid takes the edit's left,
// top and width in the coordinates of the outermost container (or of the
// host's TLMDFormDisplay), and its free column takes what the other two leave.
void TClaseCodPostales::ColocaRejilla(QLineEdit* edit, QTableView* rejilla, int columnaLibre) {
  if (!edit || !rejilla) return;
  int izquierda = edit->x();
  int arriba = edit->y();
  const int ancho = edit->width();
  rejilla->setGeometry(izquierda, arriba, ancho, rejilla->height());
  if (rejilla->model() && rejilla->model()->columnCount() >= 3) {
    int otras = 0;
    for (int c = 0; c < 3; ++c)
      if (c != columnaLibre) otras += rejilla->columnWidth(c);
    rejilla->setColumnWidth(columnaLibre, ancho - otras - kMargenRejilla);
  }
  for (QWidget* padre = edit->parentWidget(); padre; padre = padre->parentWidget()) {
    if (nombreDeClase(padre).toUpper() == QLatin1String("TLMDFORMDISPLAY")) break;
    if (padre->parentWidget()) {
      izquierda += padre->x();
      arriba += padre->y();
    }
  }
  arriba += edit->height();
  rejilla->move(izquierda, arriba);
}

void TClaseCodPostales::CreaTemporizadores(bool pbReutiliza) {
  if (pbReutiliza && oTDomicilioVivo) oTDomicilio->stop();
  const bool hayParDeRejilla = (oDBGLocalidad && oadvELocalidad) || (oDBGDomicilio && oadvEDomicilio);
  if (!pbReutiliza || !oTDomicilioVivo) {
    oTDomicilio = nullptr;
    oTDomicilioVivo = nullptr;
    if (hayParDeRejilla) {
      oTDomicilio = new QTimer(Owner);
      oTDomicilio->setInterval(kIntervaloDomicilioMs);
      QObject::connect(oTDomicilio, &QTimer::timeout, oTDomicilio, [this] { TDomicilioTimer(oTDomicilio); });
      oTDomicilio->start();
      oTDomicilioVivo = oTDomicilio;
    }
  } else if (hayParDeRejilla) {
    oTDomicilio->start();
  }
  if (!pbReutiliza || !oTMensajesVivo) {
    oTMensajes = new QTimer(Owner);
    oTMensajes->setInterval(kIntervaloMensajesMs);
    QObject::connect(oTMensajes, &QTimer::timeout, oTMensajes, [this] { TMensajesTimer(oTMensajes); });
    oTMensajesVivo = oTMensajes;
  }
}

void TClaseCodPostales::CargaValoresPorDefecto(const QString& psDefectoCodProvincia, const QString& psDefectoLocalidad,
                                               const QString& psDefectoCodINE, const QString& psDefectoCodPostal) {
  if (psDefectoCodProvincia.isEmpty() && psDefectoLocalidad.isEmpty() && psDefectoCodINE.isEmpty() &&
      psDefectoCodPostal.isEmpty())
    return;
  QString lsProvincia;
  if (!psDefectoCodProvincia.isEmpty() && BuscaProvinciaPorCodigo(psDefectoCodProvincia, true))
    lsProvincia = oDataModule->TProvinPROVINCIA->AsString();
  CargaEnComponentes(psDefectoCodProvincia, lsProvincia, psDefectoLocalidad, psDefectoCodINE, psDefectoCodPostal,
                     QString(), QString(), QString());
}

// Entering or leaving the street-type combo posts it a Home key, so the text
// of its edit part shows from the start. The combo is recognised by its name.
// A combo without an edit part would take Home for its first item and lose
// the user's choice, so it gets none.
void TClaseCodPostales::MuestraInicioDelTipoVia(QObject* Sender) {
  auto* combo = qobject_cast<QComboBox*>(Sender);
  if (combo && oadvCBTipoVia && combo->isEditable() && combo->objectName() == oadvCBTipoVia->objectName())
    QCoreApplication::postEvent(oadvCBTipoVia, new QKeyEvent(QEvent::KeyPress, Qt::Key_Home, Qt::NoModifier));
}

void TClaseCodPostales::TomaFoco(QObject* Sender) {
  auto* control = qobject_cast<QWidget*>(Sender);
  TomaFocoControl(control);
  if (QStatusBar* barra = barraDeEstado(oadvPBotones)) barra->showMessage(control ? control->toolTip() : QString());
  MuestraInicioDelTipoVia(Sender);
}

void TClaseCodPostales::DejaFoco(QObject* Sender) {
  DejaFocoControl(qobject_cast<QWidget*>(Sender));
  if (QStatusBar* barra = barraDeEstado(oadvPBotones)) barra->clearMessage();
  MuestraInicioDelTipoVia(Sender);
}

void TClaseCodPostales::TMensajesTimer(QObject*) {
  if (oLMDMHProvincias && oLMDMHProvincias->IsShowing() && !(oadvELocalidad && oadvELocalidad->hasFocus())) {
    oLMDMHProvincias->Tag = 0;
    oLMDMHProvincias->HideMessage();
  }
  if (oTMensajes) oTMensajes->stop();
}

// Stops the timer, lets a tick already queued run, then frees it.
void TClaseCodPostales::LiberaTemporizador(QTimer*& temporizador) {
  if (!temporizador) return;
  temporizador->stop();
  QThread::msleep(kIntervaloDomicilioMs);
  QCoreApplication::processEvents();
  delete temporizador;
  temporizador = nullptr;
}

TClaseCodPostales::~TClaseCodPostales() { Libera(); }

TClaseCodPostales* CreateClassCodPostal(QObject* AOwner, const QString& psAlias, bool pbPostales,
                                        const QString& psDefectoCodINE) {
  return new TClaseCodPostales(AOwner, psAlias, pbPostales, psDefectoCodINE);
}

TClaseCodPostales* CreateClassCodPostal(QObject* AOwner, const QString& psAlias, bool pbPostales,
                                        QWidget* poadvPBotones, QComboBox* poadvCBProvincia,
                                        QLineEdit* poadvELocalidad, QTableView* poDBGLocalidad,
                                        QLineEdit* poadvEDomicilio, QTableView* poDBGDomicilio,
                                        QLineEdit* poadvENumero, QLineEdit* poadvECodPostal,
                                        QLineEdit* poadvECodINE, QComboBox* poadvCBTipoVia,
                                        QComboBox* poadvCBPais, QWidget* poControlSiguienteAlDBGLocalidad,
                                        QWidget* poControlSiguienteAlDBGDomicilio,
                                        const QString& psDefectoCodProvincia, const QString& psDefectoLocalidad,
                                        const QString& psDefectoCodINE, const QString& psDefectoCodPostal) {
  return new TClaseCodPostales(AOwner, psAlias, pbPostales, poadvPBotones, poadvCBProvincia, poadvELocalidad,
                               poDBGLocalidad, poadvEDomicilio, poDBGDomicilio, poadvENumero, poadvECodPostal,
                               poadvECodINE, poadvCBTipoVia, poadvCBPais, poControlSiguienteAlDBGLocalidad,
                               poControlSiguienteAlDBGDomicilio, psDefectoCodProvincia, psDefectoLocalidad,
                               psDefectoCodINE, psDefectoCodPostal);
}

void DestroyClassCodPostal(TClaseCodPostales* poCodPostales) { delete poCodPostales; }

void TClaseCodPostales::Libera() {
  if (!oTDomicilioVivo) oTDomicilio = nullptr;
  LiberaTemporizador(oTDomicilio);
  if (!oTMensajesVivo) oTMensajes = nullptr;
  LiberaTemporizador(oTMensajes);
  oEventos.reset();
  if (oDataModuleVivo) {
    CierraTablas();
    delete oDataModule;
  }
  oDataModule = nullptr;
}
