// TFImportarVias: the form itself -- its controls, the three modes, the grid's
// columns, focus colouring and the form's keys.
#include "import/ImportarVias.h"

#include <QAction>
#include <QComboBox>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFontMetricsF>
#include <QFileInfo>
#include <QStandardPaths>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QShowEvent>
#include <QMenu>
#include <QPushButton>
#include <QRadioButton>
#include <QStatusBar>
#include <QVBoxLayout>
#include <cmath>
#include <memory>

#include "dbase/core/path.h"
#include "lookup/ClaseCodPostales.h"
#include "municipalities/ListadoMunicipios.h"
#include "platform/DialogoPaquete.h"
#include "platform/EventosControles.h"
#include "platform/THTTPReqResp.h"
#include "platform/TStringGrid.h"
#include "platform/TXMLDocument.h"
#include "services/Rficheros.h"
#include "services/Rmensaje.h"
#include "services/Ruttb.h"

namespace {

// The municipality list's "Importar vías de la web": this form on a bare
// controller of its own, in street mode so that the street table is open for
// the import to append to.
void AbreDesdeListadoMunicipios(QWidget* AOwner, const QString& psAlias) {
  const std::unique_ptr<TClaseCodPostales> controlador(new TClaseCodPostales(AOwner, psAlias, true, QString()));
  TFImportarVias importar(AOwner, controlador.get());
  importar.exec();
}
[[maybe_unused]] const bool kAbreDesdeListadoRegistrada =
    (TFListadoMunicipios::RegistraImportacionVias(AbreDesdeListadoMunicipios), true);

// The grid's column widths at the host's usual font (Tahoma 8 at 96 dpi,
// whose average character is 5 pixels wide); a larger font widens them in
// proportion, so the titles read whole (EscalaColumnas).
constexpr int kAnchoTipo = 60;
constexpr int kAnchoNombre = 468;
constexpr int kAnchoCodigoPostal = 70;
constexpr int kAnchoNumero = 55;
constexpr double kAnchoMedioLetraAnfitrion = 5.0;
constexpr int kColumnasMasDeUno = 7;
constexpr int kColumnasUno = 2;

QComboBox* NuevaLista(const char* nombre, const QString& pista, QWidget* padre) {
  auto* combo = new QComboBox(padre);
  combo->setObjectName(QString::fromLatin1(nombre));
  combo->setToolTip(pista);
  // Twenty rows dropped down. Styles that open a non-editable combo as a
  // pop-up menu (Fusion among them) ignore the maximum and cover the
  // screen; this property makes them drop a list of that height.
  combo->setMaxVisibleItems(20);
  combo->setStyleSheet(QStringLiteral("QComboBox { combobox-popup: 0; }"));
  combo->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
  combo->setMinimumContentsLength(24);
  return combo;
}

QPushButton* NuevoBoton(const char* nombre, const QString& texto, const QString& pista, QWidget* padre) {
  auto* boton = new QPushButton(texto, padre);
  boton->setObjectName(QString::fromLatin1(nombre));
  boton->setToolTip(pista);
  boton->setAutoDefault(false);
  return boton;
}

}  // namespace

TFImportarVias::TFImportarVias(QWidget* AOwner, TClaseCodPostales* poCodPostales)
    : QDialog(AOwner), oCodPostales(poCodPostales), sAlias(poCodPostales ? poCodPostales->sAlias : QString()) {
  HTTPWebServices = new THTTPReqResp(this);
  XML = new TXMLDocument;
  CreaControles();
  AsignaManejadores();
}

TFImportarVias::~TFImportarVias() {
  FormClose();
  CierraFormMensaje();
  delete XML;
}

void TFImportarVias::CreaControles() {
  setObjectName(QStringLiteral("FImportarVias"));
  setWindowTitle(QStringLiteral("Importación de vías a través de la web"));
  auto* capa = new QVBoxLayout(this);

  GBModo = new QGroupBox(QStringLiteral("  Eliga la forma de importación de calles  "), this);
  auto* modos = new QVBoxLayout(GBModo);
  RBMasDeUno = new QRadioButton(QStringLiteral("1.  Importar calles de municipios con más de un código postal  "), GBModo);
  RBMasDeUno->setObjectName(QStringLiteral("RBMasDeUno"));
  RBMasDeUno->setChecked(true);
  RBUno = new QRadioButton(
      QStringLiteral("2.  Importar calles de municipios con un único código postal  /  Revisar tipos de vía con más de un código"),
      GBModo);
  RBUno->setObjectName(QStringLiteral("RBUno"));
  RBTodosConUno = new QRadioButton(
      QStringLiteral(
          "3.  Importar calles de todos los municipios, con un único código postal , de la provincia seleccionada"),
      GBModo);
  RBTodosConUno->setObjectName(QStringLiteral("RBTodosConUno"));
  for (QRadioButton* rb : {RBMasDeUno, RBUno, RBTodosConUno}) modos->addWidget(rb);
  capa->addWidget(GBModo);

  GBDatosBusqueda = new QGroupBox(QStringLiteral("  Selección de provincia y municipios. Búsqueda  "), this);
  auto* busqueda = new QGridLayout(GBDatosBusqueda);
  LProvincia_ = new QLabel(QStringLiteral("Provincia:"), GBDatosBusqueda);
  LProvincia_->setObjectName(QStringLiteral("LProvincia_"));
  CBProvincias = NuevaLista("CBProvincias", QString(), GBDatosBusqueda);
  LMunicipio_ = new QLabel(QStringLiteral("Municipio:"), GBDatosBusqueda);
  LMunicipio_->setObjectName(QStringLiteral("LMunicipio_"));
  CBMunicipios = NuevaLista("CBMunicipios", QString(), GBDatosBusqueda);
  advGBBuscarViasPorMunicipio =
      NuevoBoton("advGBBuscarViasPorMunicipio", QStringLiteral("Buscar las vías del municipio seleccionado"),
                 QStringLiteral("Pinche el botón para realizar una búsqueda de las vías del municipio seleccionado"),
                 GBDatosBusqueda);
  advGBBuscarViasPorProvincia = NuevoBoton(
      "advGBBuscarViasPorProvincia", QStringLiteral("Buscar las vías de los municipios de la provincia seleccionada"),
      QStringLiteral(
          "Pinche el botón para realizar importar las vias de todos los municipios de la provincia seleccionada"),
      GBDatosBusqueda);
  advGBGuardarPorProvincia =
      NuevoBoton("advGBGuardarPorProvincia", QStringLiteral("&Guardar las vías de la provincia"),
                 QStringLiteral("Almacena las vías de los municipios de la provincia seleccionada arriba"),
                 GBDatosBusqueda);
  busqueda->addWidget(LProvincia_, 0, 0);
  busqueda->addWidget(CBProvincias, 0, 1);
  busqueda->addWidget(LMunicipio_, 1, 0);
  busqueda->addWidget(CBMunicipios, 1, 1);
  auto* botonesBusqueda = new QHBoxLayout;
  botonesBusqueda->addWidget(advGBBuscarViasPorMunicipio);
  botonesBusqueda->addWidget(advGBBuscarViasPorProvincia);
  botonesBusqueda->addWidget(advGBGuardarPorProvincia);
  botonesBusqueda->addStretch(1);
  busqueda->addLayout(botonesBusqueda, 2, 0, 1, 2);
  busqueda->setColumnStretch(1, 1);
  capa->addWidget(GBDatosBusqueda);

  SGVias = new TStringGrid(this);
  SGVias->setObjectName(QStringLiteral("SGVias"));
  SGVias->SetColCount(kColumnasUno);
  SGVias->SetRowCount(2);
  SGVias->SetColWidths(0, AnchoEscalado(kAnchoTipo));
  SGVias->SetColWidths(1, AnchoEscalado(kAnchoNombre));
  SGVias->setSelectionBehavior(QAbstractItemView::SelectRows);
  SGVias->setSelectionMode(QAbstractItemView::SingleSelection);
  SGVias->setEditTriggers(QAbstractItemView::NoEditTriggers);
  SGVias->verticalHeader()->setSectionsMovable(true);  // rows movable
  // Not a tab stop, but a click gives it the focus, and then the keys walk it.
  SGVias->setFocusPolicy(Qt::ClickFocus);
  // The width rule fills the client width; a scroll bar that came and went
  // with the rows would push the last columns out of sight.
  SGVias->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
  capa->addWidget(SGVias, 1);

  GBDatosZelmor = new QGroupBox(
      QStringLiteral("  Indique el municipio del programa en el que importar las vías y  pinche en Guardar  "), this);
  auto* zelmor = new QGridLayout(GBDatosZelmor);
  LProvinciaZelmor_ = new QLabel(QStringLiteral("Provincia:"), GBDatosZelmor);
  CBProvinciasZelmor = NuevaLista("CBProvinciasZelmor", QString(), GBDatosZelmor);
  LMunicipioZelmor_ = new QLabel(QStringLiteral("Municipio:"), GBDatosZelmor);
  CBMunicipiosZelmor = NuevaLista("CBMunicipiosZelmor", QString(), GBDatosZelmor);
  advGBGuardarPorMunicipio = NuevoBoton("advGBGuardarPorMunicipio", QStringLiteral("&Guardar vías del municipio"),
                                        QStringLiteral("Almacena las vías importadas al programa y cierra la pantalla"),
                                        GBDatosZelmor);
  zelmor->addWidget(LProvinciaZelmor_, 0, 0);
  zelmor->addWidget(CBProvinciasZelmor, 0, 1);
  zelmor->addWidget(LMunicipioZelmor_, 1, 0);
  zelmor->addWidget(CBMunicipiosZelmor, 1, 1);
  zelmor->addWidget(advGBGuardarPorMunicipio, 1, 2);
  zelmor->setColumnStretch(1, 1);
  capa->addWidget(GBDatosZelmor);

  advPBotones = new QWidget(this);
  advPBotones->setObjectName(QStringLiteral("advPBotones"));
  auto* pie = new QVBoxLayout(advPBotones);
  pie->setContentsMargins(0, 0, 0, 0);
  auto* fila = new QHBoxLayout;
  LMensaje_ = new QLabel(advPBotones);
  LMensaje_->setObjectName(QStringLiteral("LMensaje_"));
  advGBCancelar = NuevoBoton("advGBCancelar", QStringLiteral("&Salir"),
                             QStringLiteral("Cierra el listado sin seleccionar a ningún cliente"), advPBotones);
  fila->addWidget(LMensaje_, 1);
  fila->addWidget(advGBCancelar);
  pie->addLayout(fila);
  sbEstado = new QStatusBar(advPBotones);
  sbEstado->setSizeGripEnabled(false);
  pie->addWidget(sbEstado);
  capa->addWidget(advPBotones);

  // The menu of the runs over every saved province: the context menu of the
  // dialog and of its grid (right button or the menu key).
  PMGuardarPorProvincia = new QMenu(this);
  PMGuardarPorProvincia->setObjectName(QStringLiteral("PMGuardarPorProvincia"));
  MIGuardarPorProvincia =
      PMGuardarPorProvincia->addAction(QStringLiteral("Guardar las vias de todas las provincias importadas previamente"));
  MIGuardarPorProvincia->setObjectName(QStringLiteral("MIGuardarPorProvincia"));
  for (QWidget* w : {static_cast<QWidget*>(this), static_cast<QWidget*>(SGVias)}) {
    w->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(w, &QWidget::customContextMenuRequested, this,
            [this, w](const QPoint& punto) { PMGuardarPorProvincia->popup(w->mapToGlobal(punto)); });
  }
  resize(760, 640);
}

void TFImportarVias::AsignaManejadores() {
  using namespace std::placeholders;
  oEventos = new TEventosControles(this);
  for (QComboBox* combo : {CBProvincias, CBMunicipios, CBProvinciasZelmor, CBMunicipiosZelmor}) {
    TManejadores m;
    m.OnEnter = std::bind(&TFImportarVias::TomaFoco, this, _1);
    m.OnExit = std::bind(&TFImportarVias::DejaFoco, this, _1);
    if (combo == CBProvincias) m.OnExit = std::bind(&TFImportarVias::CBProvinciasExit, this, _1);
    if (combo == CBProvinciasZelmor) m.OnExit = std::bind(&TFImportarVias::CBProvinciasZelmorExit, this, _1);
    oEventos->Asigna(combo, m);
  }
  const QList<QPushButton*> botones = {advGBBuscarViasPorMunicipio, advGBBuscarViasPorProvincia,
                                       advGBGuardarPorProvincia, advGBGuardarPorMunicipio, advGBCancelar};
  for (QPushButton* boton : botones) {
    TManejadores m;
    m.OnEnter = std::bind(&TFImportarVias::TomaFocoBoton, this, _1);
    m.OnExit = std::bind(&TFImportarVias::DejaFocoBoton, this, _1);
    oEventos->Asigna(boton, m);
  }

  const auto enlaza = [this](QPushButton* boton, void (TFImportarVias::*manejador)()) {
    connect(boton, &QPushButton::clicked, this, [this, boton, manejador] {
      EjecutaManejador(boton, [this, manejador] { (this->*manejador)(); });
    });
  };
  enlaza(advGBBuscarViasPorMunicipio, &TFImportarVias::advGBBuscarViasPorMunicipioClick);
  enlaza(advGBBuscarViasPorProvincia, &TFImportarVias::advGBBuscarViasPorProvinciaClick);
  enlaza(advGBGuardarPorProvincia, &TFImportarVias::advGBGuardarPorProvinciaClick);
  enlaza(advGBGuardarPorMunicipio, &TFImportarVias::advGBGuardarPorMunicipioClick);
  connect(advGBCancelar, &QPushButton::clicked, this, &QDialog::reject);
  connect(MIGuardarPorProvincia, &QAction::triggered, this,
          [this] { EjecutaManejador(this, [this] { MIGuardarPorProvinciaClick(); }); });
  for (QRadioButton* rb : {RBMasDeUno, RBUno, RBTodosConUno})
    connect(rb, &QRadioButton::clicked, this, [this, rb] {
      // A click on the mode already in force changes nothing.
      if (rb != oModoEnCurso) EjecutaManejador(rb, [this, rb] { RBMasDeUnoClick(rb); });
    });

  // Key preview, and the buttons' hint under the mouse.
  for (QWidget* w : findChildren<QWidget*>())
    if (w->focusPolicy() != Qt::NoFocus || qobject_cast<QPushButton*>(w)) w->installEventFilter(this);
}

QString TFImportarVias::CarpetaPostal() const {
  const QString carpeta = SlashSep(RutaDelAlias(sAlias), QStringLiteral("POSTAL"), u'\\');
  return QString::fromStdString(dbase::resolveDirectoryCaseInsensitive(carpeta.toStdString()));
}

QString TFImportarVias::RutaTempCalles() {
  QString carpeta = QCoreApplication::applicationDirPath();
  // A program installed where its user cannot write (/usr/bin) keeps it
  // in the user's cache instead.
  if (!QFileInfo(carpeta).isWritable()) {
    carpeta = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    QDir().mkpath(carpeta);
  }
  return carpeta + QStringLiteral("/TempCalles.XML");
}

void TFImportarVias::CierraFormMensaje() {
  CierraMensaje(oFormMensaje);
  oFormMensaje = nullptr;
}

void TFImportarVias::FormShow() {
  SGVias->SetCells(0, 0, QStringLiteral("Tipo de vía"));
  SGVias->SetCells(1, 0, QStringLiteral("Nombre de la vía"));
  RBMasDeUnoClick(RBMasDeUno);
  CargaProvinciasZelmor();
}

void TFImportarVias::RBMasDeUnoClick(QObject*) {
  oModoEnCurso = RBMasDeUno->isChecked() ? RBMasDeUno : RBUno->isChecked() ? RBUno : RBTodosConUno;
  CBProvincias->clear();
  const bool modo1 = RBMasDeUno->isChecked();
  const bool modo2 = RBUno->isChecked();
  LProvincia_->setText(modo1 ? QStringLiteral("Municipio:") : QStringLiteral("Provincia:"));
  LMunicipio_->setVisible(modo2);
  CBMunicipios->setVisible(modo2);
  advGBBuscarViasPorMunicipio->setVisible(modo1 || modo2);
  advGBBuscarViasPorProvincia->setVisible(!modo1 && !modo2);
  advGBGuardarPorProvincia->setVisible(!modo1 && !modo2);
  GBDatosZelmor->setVisible(modo1 || modo2);
  // The grid takes the mode's shape before the lists load, so a list that
  // fails to load leaves the form in the mode the user chose.
  if (modo1) {
    ColumnasMasDeUno();
    CargaMunicipiosMasDeUnCodigo();
  } else {
    SGVias->SetColCount(kColumnasUno);
    AnchosFijos();
    CargaMunicipiosUnCodigo();
  }
}

void TFImportarVias::ColumnasMasDeUno() {
  SGVias->SetColCount(kColumnasMasDeUno);
  // Column 4 repeats the title of column 3.
  const QString titulos[] = {QStringLiteral("Tipo de vía"), QStringLiteral("Nombre de la vía"),
                             QStringLiteral("Código postal"), QStringLiteral("Impar INI"),
                             QStringLiteral("Impar INI"), QStringLiteral("Par INI"),
                             QStringLiteral("Par FIN")};
  for (int c = 0; c < kColumnasMasDeUno; ++c) SGVias->SetCells(c, 0, titulos[c]);
  AnchosFijos();
}

// The fixed columns: the given widths scaled to the font, and never less
// than their titles need (a font whose letters are wider for their average
// than the host's would still cut one).
void TFImportarVias::AnchosFijos() {
  const auto fija = [this](int columna, int ancho) {
    SGVias->SetColWidths(columna, std::max(AnchoEscalado(ancho), SGVias->horizontalHeader()->sectionSizeHint(columna)));
  };
  fija(0, kAnchoTipo);
  if (SGVias->ColCount() >= kColumnasMasDeUno) {
    fija(2, kAnchoCodigoPostal);
    for (int c = 3; c < kColumnasMasDeUno; ++c) fija(c, kAnchoNumero);
  }
  AjustaColumnas();
}

void TFImportarVias::AjustaColumnas() {
  int otras = SGVias->ColWidths(0);
  if (RBMasDeUno->isChecked() && SGVias->ColCount() >= kColumnasMasDeUno)
    for (int c = 2; c < kColumnasMasDeUno; ++c) otras += SGVias->ColWidths(c);
  if (SGVias->ColCount() > 1) SGVias->SetColWidths(1, std::max(SGVias->ClientWidth() - otras - 8, 0));
}

void TFImportarVias::FormResize() { AjustaColumnas(); }

double TFImportarVias::EscalaColumnas() const {
  return std::max(1.0, QFontMetricsF(SGVias->font()).averageCharWidth() / kAnchoMedioLetraAnfitrion);
}

int TFImportarVias::AnchoEscalado(int piAnchoAnfitrion) const {
  return int(std::lround(piAnchoAnfitrion * EscalaColumnas()));
}

void TFImportarVias::changeEvent(QEvent* event) {
  QDialog::changeEvent(event);
  // Another font: the fixed columns take their widths for it again.
  if (event->type() == QEvent::FontChange && SGVias) AnchosFijos();
}

void TFImportarVias::FormClose() {
  const QString temporal = RutaTempCalles();
  if (QFile::exists(temporal)) QFile::remove(temporal);
  LiberaProvinciasZelmor();
  LiberaMunicipiosZelmor();
}

void TFImportarVias::FormKeyDown(int& Key) { dialogo::TeclasComunes(this, advGBCancelar, [this] { focusNextChild(); }, Key); }

void TFImportarVias::TomaFoco(QObject* Sender) { dialogo::TomaFocoConPista(sbEstado, Sender, true); }

void TFImportarVias::DejaFoco(QObject* Sender) { dialogo::DejaFocoConPista(sbEstado, Sender, true); }

void TFImportarVias::TomaFocoBoton(QObject* Sender) { dialogo::TomaFocoConPista(sbEstado, Sender, false); }

void TFImportarVias::DejaFocoBoton(QObject* Sender) { dialogo::DejaFocoConPista(sbEstado, Sender, false); }

void TFImportarVias::showEvent(QShowEvent* event) {
  QDialog::showEvent(event);
  if (!event->spontaneous()) EjecutaManejador(this, [this] { FormShow(); });
}

void TFImportarVias::resizeEvent(QResizeEvent* event) {
  QDialog::resizeEvent(event);
  FormResize();
}

void TFImportarVias::closeEvent(QCloseEvent* event) {
  QDialog::closeEvent(event);
  FormClose();
}

void TFImportarVias::done(int resultado) {
  QDialog::done(resultado);
  FormClose();
}

bool TFImportarVias::eventFilter(QObject* watched, QEvent* event) {
  auto* control = qobject_cast<QWidget*>(watched);
  if (!control || control->window() != this) return QDialog::eventFilter(watched, event);
  if (qobject_cast<QPushButton*>(control)) {
    if (event->type() == QEvent::Enter) TomaFocoBoton(control);
    if (event->type() == QEvent::Leave) DejaFocoBoton(control);
  }
  if (dialogo::VistaPreviaTecla(event, [this](int& Key) { FormKeyDown(Key); })) return true;
  return QDialog::eventFilter(watched, event);
}
