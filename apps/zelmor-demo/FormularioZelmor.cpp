#include "FormularioZelmor.h"

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

#include "import/ImportarVias.h"
#include "lookup/ClaseCodPostales.h"
#include "municipalities/IMunicipios.h"
#include "platform/EventosControles.h"
#include "platform/TLMDMessageHint.h"
#include "services/Rmensaje.h"

namespace {

QLineEdit* edit(const char* nombre, const char* ayuda, int ancho = 0) {
  auto* e = new QLineEdit;
  e->setObjectName(QString::fromLatin1(nombre));
  e->setToolTip(QString::fromUtf8(ayuda));
  if (ancho) e->setMaximumWidth(ancho);
  return e;
}

QComboBox* combo(const char* nombre, const char* ayuda) {
  auto* c = new QComboBox;
  c->setObjectName(QString::fromLatin1(nombre));
  c->setToolTip(QString::fromUtf8(ayuda));
  return c;
}

// A results grid as the host has it: hidden, over the form, rows picked whole.
QTableView* rejilla(QWidget* formulario, const char* nombre) {
  auto* r = new QTableView(formulario);
  r->setObjectName(QString::fromLatin1(nombre));
  r->setSelectionBehavior(QAbstractItemView::SelectRows);
  r->setSelectionMode(QAbstractItemView::SingleSelection);
  r->setEditTriggers(QAbstractItemView::NoEditTriggers);
  r->verticalHeader()->hide();
  r->verticalHeader()->setDefaultSectionSize(r->fontMetrics().height() + 6);
  r->resize(r->width(), 160);
  r->hide();
  return r;
}

}  // namespace

TFZelmor::TFZelmor(const QString& alias, QWidget* parent) : QWidget(parent), sAlias(alias) {
  setWindowTitle(QStringLiteral("Zelmor - Ficha de cliente"));
  auto* capa = new QVBoxLayout(this);
  auto* direccion = new QGroupBox(QStringLiteral("Dirección"), this);
  auto* campos = new QFormLayout(direccion);
  advCBPais = combo("advCBPais", "País de residencia");
  advCBProvincia = combo("advCBProvincia", "Provincia de residencia");
  advELocalidad = edit("advELocalidad", "Localidad de residencia: escriba el principio del nombre");
  advCBTipoVia = combo("advCBTipoVia", "Tipo de vía");
  advCBTipoVia->setEditable(true);
  advEDomicilio = edit("advEDomicilio", "Calle: escriba el principio del nombre");
  advENumero = edit("advENumero", "Número de la casa", 80);
  advECodPostal = edit("advECodPostal", "Código postal", 80);
  advECodINE = edit("advECodINE", "Código INE del municipio", 80);
  campos->addRow(QStringLiteral("País:"), advCBPais);
  campos->addRow(QStringLiteral("Provincia:"), advCBProvincia);
  campos->addRow(QStringLiteral("Localidad:"), advELocalidad);
  campos->addRow(QStringLiteral("Tipo de vía:"), advCBTipoVia);
  campos->addRow(QStringLiteral("Domicilio:"), advEDomicilio);
  campos->addRow(QStringLiteral("Número:"), advENumero);
  campos->addRow(QStringLiteral("Código postal:"), advECodPostal);
  campos->addRow(QStringLiteral("Código INE:"), advECodINE);
  capa->addWidget(direccion);
  capa->addStretch(1);

  advPBotones = new QWidget(this);
  auto* pie = new QVBoxLayout(advPBotones);
  pie->setContentsMargins(0, 0, 0, 0);
  auto* botones = new QHBoxLayout;
  advGBMunicipios = new QPushButton(QStringLiteral("&Municipios..."), advPBotones);
  advGBMunicipios->setToolTip(QStringLiteral("Busca el municipio en el listado"));
  advGBImportarVias = new QPushButton(QStringLiteral("&Importar vías..."), advPBotones);
  advGBImportarVias->setToolTip(QStringLiteral("Importa las calles de un municipio desde el Catastro"));
  advGBSalir = new QPushButton(QStringLiteral("&Salir"), advPBotones);
  for (QPushButton* b : {advGBMunicipios, advGBImportarVias, advGBSalir}) {
    b->setAutoDefault(false);
    b->setFocusPolicy(Qt::ClickFocus);
  }
  botones->addWidget(advGBMunicipios);
  botones->addWidget(advGBImportarVias);
  botones->addStretch(1);
  botones->addWidget(advGBSalir);
  pie->addLayout(botones);
  sbEstado = new QStatusBar(advPBotones);
  sbEstado->setSizeGripEnabled(false);
  pie->addWidget(sbEstado);
  capa->addWidget(advPBotones);

  DBGLocalidad = rejilla(this, "DBGLocalidad");
  DBGDomicilio = rejilla(this, "DBGDomicilio");
  LMDMHProvincias = new TLMDMessageHint(this);
  resize(560, 460);
  // Lay the form out now: the controller drops its grids under the edits.
  capa->activate();
  direccion->layout()->activate();

  oCodPostales = CreateClassCodPostal(
      this, alias, true, advPBotones, advCBProvincia, advELocalidad, DBGLocalidad, advEDomicilio, DBGDomicilio,
      advENumero, advECodPostal, advECodINE, advCBTipoVia, advCBPais, advEDomicilio, advENumero, QString(),
      QString(), QString(), QString());
  // The balloon only comes through Carga.
  oCodPostales->Carga(advPBotones, advCBProvincia, advELocalidad, DBGLocalidad, advEDomicilio, DBGDomicilio,
                      advENumero, advECodPostal, advECodINE, advCBTipoVia, advCBPais, advEDomicilio, advENumero,
                      LMDMHProvincias, QString(), QString(), QString(), QString());

  connect(advGBMunicipios, &QPushButton::clicked, this, &TFZelmor::EligeMunicipio);
  // The host creates the import dialog directly, on a bare controller of its own.
  connect(advGBImportarVias, &QPushButton::clicked, this, [this] {
    EjecutaManejador(advGBImportarVias, [this] {
      TClaseCodPostales* importador = CreateClassCodPostal(this, sAlias, true, QString());
      try {
        TFImportarVias(this, importador).exec();
      } catch (...) {
        DestroyClassCodPostal(importador);
        throw;
      }
      DestroyClassCodPostal(importador);
    });
  });
  connect(advGBSalir, &QPushButton::clicked, this, &QWidget::close);
}

TFZelmor::~TFZelmor() { DestroyClassCodPostal(oCodPostales); }

// The municipality list on the province of the form; the chosen one is
// written into the form as if typed.
void TFZelmor::EligeMunicipio() {
  QString ine = advECodINE->text(), cp = advECodPostal->text(), municipio = advELocalidad->text();
  QString provincia = advCBProvincia->currentText().section(QStringLiteral(" ["), 0, 0);
  QString codProvincia, codMunicipio;
  if (!IMunicipios(this, sAlias, true, ine, cp, municipio, provincia, codProvincia, codMunicipio, QString(),
                   QStringLiteral("Listado de municipios")))
    return;
  oCodPostales->CargaEnComponentes(codProvincia, provincia, municipio, ine, cp, QString(), QString(), QString());
}

QStringList TFZelmor::Textos() const {
  return {QStringLiteral("País: ") + advCBPais->currentText(),
          QStringLiteral("Provincia: ") + advCBProvincia->currentText(),
          QStringLiteral("Localidad: ") + advELocalidad->text(),
          QStringLiteral("Tipo de vía: ") + advCBTipoVia->currentText(),
          QStringLiteral("Domicilio: ") + advEDomicilio->text(),
          QStringLiteral("Número: ") + advENumero->text(),
          QStringLiteral("Código postal: ") + advECodPostal->text(),
          QStringLiteral("Código INE: ") + advECodINE->text(),
          QStringLiteral("Barra de estado: ") + sbEstado->currentMessage(),
          QStringLiteral("Aviso de provincias: ") +
              (LMDMHProvincias->IsShowing() ? LMDMHProvincias->Texto().replace(u'\n', QStringLiteral(" | "))
                                            : QString())};
}
