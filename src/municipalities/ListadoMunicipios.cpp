#include "municipalities/ListadoMunicipios.h"

#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStatusBar>
#include <QTableView>
#include <QVBoxLayout>

#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "platform/ControlesHost.h"
#include "platform/DialogoPaquete.h"
#include "platform/EventosControles.h"
#include "platform/RejillaDatos.h"
#include "platform/TeclasWindows.h"
#include "services/Rmensaje.h"
#include "services/Ruttb.h"
#include "services/Rvarias.h"

namespace {

TFListadoMunicipios::TAbreImportacionVias abreImportacionVias = nullptr;

// Share of the grid's width each column takes: name, province, postcode,
// INE code, municipality it belongs to.
constexpr int kPartesColumna[] = {30, 17, 14, 12, 27};

}  // namespace

TFListadoMunicipios::TFListadoMunicipios(QWidget* AOwner, const QString& psAlias, bool pbModuloCodigosPostales,
                                         const QString& psProvincia)
    : QDialog(AOwner), sAlias(psAlias) {
  CreaControles();
  oClaseCodPostales = new TClaseCodPostales(this, psAlias, pbModuloCodigosPostales, advPBotones, advCBProvincia,
                                            advELocalidad, nullptr, nullptr, nullptr, nullptr, advECodPostal,
                                            advECodINE, nullptr, nullptr, nullptr, nullptr, QString(), QString(),
                                            QString(), QString());
  // The list's own keys decide where the focus goes (Enter, the arrows);
  // the controller's focus moves would keep the arrows from the grid.
  oClaseCodPostales->bHazCambioFoco = false;
  TDataSource* municipios = oClaseCodPostales->oDataModule->DSMunicipi;
  municipios->SetColumns({"NOMBRE", "ccPROVINCIA", "CODPOSTAL", "COD_INE", "ccENT_MAYOR"},
                         {"Nombre", "Provincia", "Cod. Postal", "Cod. INE", "Pertenece a"});
  EnlazaRejilla(DBGListadoMunicipios, municipios);
  oClaseCodPostales->BuscaEnProvinciaPorNombre(psProvincia);
  oClaseCodPostales->advCBProvinciaExit(advCBProvincia);

  // The dialog's handlers, after the controller's: the search key-up of the
  // three edits replaces the controller's; the form sees keys first.
  oEventos = new TEventosControles(this);
  using namespace std::placeholders;
  const auto busca = [this](QObject* s, int& k, Qt::KeyboardModifiers) { advELocalidadKeyUp(s, k); };
  for (QLineEdit* edit : {advELocalidad, advECodPostal, advECodINE}) {
    TManejadores m;
    m.OnKeyUp = busca;
    oEventos->Asigna(edit, m);
  }
  TManejadores rejilla;
  rejilla.OnEnter = std::bind(&TFListadoMunicipios::TomaFoco, this, _1);
  rejilla.OnExit = std::bind(&TFListadoMunicipios::DejaFoco, this, _1);
  rejilla.OnDblClick = [this](QObject*) { DBGListadoMunicipiosDblClick(); };
  oEventos->Asigna(DBGListadoMunicipios, rejilla);
  for (QPushButton* boton : {advGBImportarVias, advGBAceptar, advGBCancelar}) {
    TManejadores m;
    m.OnEnter = std::bind(&TFListadoMunicipios::TomaFocoBoton, this, _1);
    m.OnExit = std::bind(&TFListadoMunicipios::DejaFocoBoton, this, _1);
    oEventos->Asigna(boton, m);
  }
  for (QWidget* w : findChildren<QWidget*>())
    if (w->focusPolicy() != Qt::NoFocus) w->installEventFilter(this);
}

TFListadoMunicipios::~TFListadoMunicipios() { FormClose(); }

void TFListadoMunicipios::CreaControles() {
  setWindowTitle(QStringLiteral("Listado de municipios"));
  auto* capa = new QVBoxLayout(this);

  advGBBusqueda = new QGroupBox(QStringLiteral("  Establezca los parámetros de búsqueda  "), this);
  auto* parametros = new QFormLayout(advGBBusqueda);
  advCBProvincia = new QComboBox(advGBBusqueda);
  advCBProvincia->setObjectName(QStringLiteral("advCBProvincia"));
  advCBProvincia->setToolTip(QStringLiteral("Seleccione la provincia de residencia"));
  // Items left from design time; loading the provinces clears them.
  advCBProvincia->addItems({QStringLiteral("Provincia 1"), QStringLiteral("Provincia 2"), QStringLiteral("Provincia 3"),
                            QStringLiteral("Provincia 4"), QStringLiteral("Provincia 5")});
  advELocalidad = new QLineEdit(advGBBusqueda);
  advELocalidad->setObjectName(QStringLiteral("advELocalidad"));
  advELocalidad->setToolTip(QStringLiteral("Indique la localidad de residencia"));
  SetTag(advELocalidad, 1);
  advECodPostal = new QLineEdit(advGBBusqueda);
  advECodPostal->setObjectName(QStringLiteral("advECodPostal"));
  advECodPostal->setToolTip(QStringLiteral("Código postal asociado a la dirección del cliente"));
  SetTag(advECodPostal, 2);
  advECodINE = new QLineEdit(advGBBusqueda);
  advECodINE->setObjectName(QStringLiteral("advECodINE"));
  advECodINE->setToolTip(QStringLiteral("Código INE asociado al municipio de residencia"));
  SetTag(advECodINE, 3);
  parametros->addRow(QStringLiteral("Provincia:"), advCBProvincia);
  parametros->addRow(QStringLiteral("Localidad:"), advELocalidad);
  parametros->addRow(QStringLiteral("Código postal:"), advECodPostal);
  parametros->addRow(QStringLiteral("Código INE:"), advECodINE);
  capa->addWidget(advGBBusqueda);

  DBGListadoMunicipios = new QTableView(this);
  DBGListadoMunicipios->setObjectName(QStringLiteral("DBGListadoMunicipios"));
  DBGListadoMunicipios->setSelectionBehavior(QAbstractItemView::SelectRows);
  DBGListadoMunicipios->setSelectionMode(QAbstractItemView::SingleSelection);
  DBGListadoMunicipios->setEditTriggers(QAbstractItemView::NoEditTriggers);
  DBGListadoMunicipios->verticalHeader()->hide();
  DBGListadoMunicipios->verticalHeader()->setDefaultSectionSize(fontMetrics().height() + 6);
  capa->addWidget(DBGListadoMunicipios, 1);

  advPBotones = new QWidget(this);
  advPBotones->setObjectName(QStringLiteral("advPBotones"));
  auto* pie = new QVBoxLayout(advPBotones);
  pie->setContentsMargins(0, 0, 0, 0);
  auto* botones = new QHBoxLayout;
  advGBImportarVias = new QPushButton(QStringLiteral("Importar vías de la web"), advPBotones);
  advGBAceptar = new QPushButton(QStringLiteral("&Seleccionar"), advPBotones);
  advGBAceptar->setToolTip(QStringLiteral("Selecciona el municipio marcado en el listado"));
  advGBCancelar = new QPushButton(QStringLiteral("&Cancelar"), advPBotones);
  advGBCancelar->setToolTip(QStringLiteral("Cierra el listado sin seleccionar a ningún cliente"));
  for (QPushButton* b : {advGBImportarVias, advGBAceptar, advGBCancelar}) b->setAutoDefault(false);
  botones->addWidget(advGBImportarVias);
  botones->addStretch(1);
  botones->addWidget(advGBAceptar);
  botones->addWidget(advGBCancelar);
  pie->addLayout(botones);
  sbEstado = new QStatusBar(advPBotones);
  sbEstado->setSizeGripEnabled(false);
  pie->addWidget(sbEstado);
  capa->addWidget(advPBotones);

  connect(advGBAceptar, &QPushButton::clicked, this, [this] {
    advGBAceptarClick();
    accept();
  });
  connect(advGBCancelar, &QPushButton::clicked, this, &QDialog::reject);
  connect(advGBImportarVias, &QPushButton::clicked, this,
          [this] { EjecutaManejador(advGBImportarVias, [this] { advGBImportarViasClick(); }); });
  resize(640, 480);
}

void TFListadoMunicipios::FormShow() {
  if (advCBProvincia->currentIndex() > 0) HazSetFocus(advELocalidad);
}

void TFListadoMunicipios::FormResize() {
  QAbstractItemModel* modelo = DBGListadoMunicipios->model();
  if (!modelo) return;
  const int ancho = DBGListadoMunicipios->viewport()->width();
  int total = 0;
  for (int parte : kPartesColumna) total += parte;
  int usado = 0;
  const int columnas = std::min(modelo->columnCount(), int(std::size(kPartesColumna)));
  for (int c = 0; c < columnas; ++c) {
    // The last column takes what the rounding left.
    const int w = c + 1 == columnas ? ancho - usado : ancho * kPartesColumna[c] / total;
    DBGListadoMunicipios->setColumnWidth(c, w);
    usado += w;
  }
}

void TFListadoMunicipios::FormClose() {
  delete oClaseCodPostales;
  oClaseCodPostales = nullptr;
}

void TFListadoMunicipios::FormKeyDown(int& Key) {
  if (Key == VK_UP || Key == VK_DOWN) DBGListadoMunicipios->setFocus(Qt::OtherFocusReason);
  dialogo::TeclasComunes(this, advGBCancelar, [this] { focusNextChild(); }, Key);
}

void TFListadoMunicipios::TomaFoco(QObject* Sender) { dialogo::TomaFocoConPista(sbEstado, Sender, true); }

void TFListadoMunicipios::DejaFoco(QObject* Sender) { dialogo::DejaFocoConPista(sbEstado, Sender, true); }

void TFListadoMunicipios::TomaFocoBoton(QObject* Sender) { dialogo::TomaFocoConPista(sbEstado, Sender, false); }

void TFListadoMunicipios::DejaFocoBoton(QObject* Sender) { dialogo::DejaFocoConPista(sbEstado, Sender, false); }

void TFListadoMunicipios::advGBAceptarClick() {
  if (!oClaseCodPostales) return;
  TDMCodPostales* dm = oClaseCodPostales->oDataModule;
  sCodProv = dm->TMunicipiCOD_PROV->AsString();
  sCodMun = dm->TMunicipiCOD_MUN->AsString();
  sCodIne = dm->TMunicipiCOD_INE->AsString();
  sCodPostal = dm->TMunicipiCODPOSTAL->AsString();
  sNombre = dm->TMunicipiNOMBRE->AsString();
}

void TFListadoMunicipios::DBGListadoMunicipiosDblClick() { advGBAceptar->click(); }

void TFListadoMunicipios::RegistraImportacionVias(TAbreImportacionVias abre) { abreImportacionVias = abre; }

void TFListadoMunicipios::advGBImportarViasClick() {
  if (abreImportacionVias) abreImportacionVias(this, sAlias);
}

void TFListadoMunicipios::advELocalidadKeyUp(QObject* Sender, int& Key) {
  if (Key == VK_RETURN || (Key >= VK_LEFT && Key <= VK_DOWN) || !oClaseCodPostales) return;
  TTable* municipios = oClaseCodPostales->oDataModule->TMunicipi;
  struct Busqueda {
    const char* indice;
    QLineEdit* edit;
  };
  const Busqueda busquedas[] = {{"NOMBRE", advELocalidad}, {"CODPOSTAL", advECodPostal}, {"COD_INE", advECodINE}};
  const int tag = Tag(Sender);
  if (tag >= 1 && tag <= 3) {
    const Busqueda& b = busquedas[tag - 1];
    TBIndexa(QString::fromLatin1(b.indice), municipios);
    TBBusca(municipios, {QString::fromLatin1(b.indice), b.edit->text()}, false);
  }
  Key = 0;  // the controller's own key-up does not run on these edits
}

void TFListadoMunicipios::showEvent(QShowEvent* event) {
  QDialog::showEvent(event);
  FormResize();  // the grid has its width only now that the form is laid out
  FormShow();
}

void TFListadoMunicipios::resizeEvent(QResizeEvent* event) {
  QDialog::resizeEvent(event);
  FormResize();
}

void TFListadoMunicipios::closeEvent(QCloseEvent* event) {
  QDialog::closeEvent(event);
  FormClose();
}

void TFListadoMunicipios::done(int resultado) {
  QDialog::done(resultado);
  FormClose();
}

// The form sees every key before its controls.
bool TFListadoMunicipios::eventFilter(QObject* watched, QEvent* event) {
  if (dialogo::VistaPreviaTecla(event, [this](int& Key) { FormKeyDown(Key); })) return true;
  return QDialog::eventFilter(watched, event);
}
