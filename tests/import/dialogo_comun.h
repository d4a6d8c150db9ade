// Shared by the tests of the import dialog on real widgets: a reference set
// in a scratch folder, the dialog shown offscreen on it, its messages
// recorded, and no request leaving the machine -- the service is a local
// simulator when a test starts one, and a closed local port otherwise.
#pragma once

#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QHeaderView>
#include <QPushButton>
#include <QRadioButton>
#include <QStyle>
#include <QStyleOptionButton>
#include <QTest>
#include <gtest/gtest.h>
#include <memory>

#include "dbase/TTable.h"
#include "import/ImportarVias.h"
#include "platform/TStringGrid.h"
#include "services/Rmensaje.h"
#include "services/Ruttb.h"
#include "servicio_comun.h"
#include "support/referencia.h"
#include "support/simulador_ovc.h"
#include "support/temp_dir.h"
#include "../services/qstring_print.h"

namespace testsupport {

// The warnings of one logging category while it lives.
class AvisosDelRegistro {
 public:
  explicit AvisosDelRegistro(const char* categoria) : categoria_(categoria) {
    actual_ = this;
    anterior_ = qInstallMessageHandler(&AvisosDelRegistro::recoge);
  }
  ~AvisosDelRegistro() {
    qInstallMessageHandler(anterior_);
    actual_ = nullptr;
  }
  AvisosDelRegistro(const AvisosDelRegistro&) = delete;
  AvisosDelRegistro& operator=(const AvisosDelRegistro&) = delete;
  QStringList textos;

 private:
  static void recoge(QtMsgType tipo, const QMessageLogContext& contexto, const QString& texto) {
    if (actual_ && tipo == QtWarningMsg && contexto.category && qstrcmp(contexto.category, actual_->categoria_) == 0)
      actual_->textos << texto;
    else if (actual_ && actual_->anterior_)
      actual_->anterior_(tipo, contexto, texto);
  }
  inline static AvisosDelRegistro* actual_ = nullptr;
  const char* categoria_;
  QtMessageHandler anterior_ = nullptr;
};

// Nothing listens there, so a fetch no test pointed at a simulator fails at
// once instead of reaching the cadastre.
inline constexpr char kUrlSinServicio[] = "http://127.0.0.1:9/ovcservweb/OVCSWLocalizacionRC/OVCCallejero.asmx";

// A fixed column's width: the given one scaled to the font, or what its
// title needs when that is more.
inline int AnchoFijoEsperado(const TStringGrid* g, const TFImportarVias& d, int columna, int anchoDado) {
  return std::max(d.AnchoEscalado(anchoDado), g->horizontalHeader()->sectionSizeHint(columna));
}

class DialogoImportarTest : public ::testing::Test {
 protected:
  void SetUp() override { escribeJuegoDeReferencia(ref_.path()); }

  QString alias() const { return QString::fromStdString(ref_.path()); }
  QString carpetaPostal() const { return alias() + QStringLiteral("/POSTAL"); }

  // The simulator with the reference set's streets, and the dialog's
  // requests pointed at it.
  void arrancaSimulador(const QStringList& opciones = {}) {
    simulador = std::make_unique<SimuladorOvc>(QStringList{QStringLiteral("--calles"), alias()} + opciones);
    url_ = std::make_unique<EntornoTemporal>("CODPOSTALES_OVC_URL", simulador->url().toUtf8());
  }

  // The dialog on the reference set, not shown.
  std::unique_ptr<TFImportarVias> crea() {
    auto d = std::make_unique<TFImportarVias>(nullptr, nullptr);
    d->sAlias = alias();
    return d;
  }

  // Shown (FormShow has run) and active, so focus changes arrive.
  std::unique_ptr<TFImportarVias> abre() {
    auto d = crea();
    d->show();
    QApplication::setActiveWindow(d.get());
    (void)QTest::qWaitForWindowActive(d.get());
    QApplication::processEvents();
    return d;
  }

  // Gives the focus to a control and lets the focus events arrive.
  static void enfoca(QWidget* control) {
    control->setFocus(Qt::TabFocusReason);
    QApplication::processEvents();
  }

  // Leaves the control that has the focus with the Tab key.
  static void tabula() {
    QWidget* actual = QApplication::focusWidget();
    ASSERT_NE(actual, nullptr);
    QTest::keyClick(actual, Qt::Key_Tab);
    QApplication::processEvents();
  }

  // A mouse click on the radio button's indicator (the button may be wider
  // than what it answers to).
  static void pulsa(QRadioButton* boton) {
    QStyleOptionButton opcion;
    opcion.initFrom(boton);
    const QRect indicador = boton->style()->subElementRect(QStyle::SE_RadioButtonIndicator, &opcion, boton);
    QTest::mouseClick(boton, Qt::LeftButton, Qt::NoModifier, indicador.center());
    QApplication::processEvents();
  }

  static void pulsa(QPushButton* boton) {
    QTest::mouseClick(boton, Qt::LeftButton);
    QApplication::processEvents();
  }

  // Chooses an item the list holds.
  static void elige(QComboBox* combo, const QString& texto) {
    const int i = combo->findText(texto);
    if (i < 0) ADD_FAILURE() << "«" << texto.toStdString() << "» no está en " << combo->objectName().toStdString();
    combo->setCurrentIndex(i);
  }

  static QStringList elementos(const QComboBox* combo) {
    QStringList l;
    for (int i = 0; i < combo->count(); ++i) l << combo->itemText(i);
    return l;
  }

  static QStringList fila(const TStringGrid* rejilla, int numero) {
    QStringList l;
    for (int c = 0; c < rejilla->ColCount(); ++c) l << rejilla->Cells(c, numero);
    return l;
  }

  // Rows added to the reference set through the engine.
  void anadeProvincia(int codigo, const QString& nombre) {
    std::unique_ptr<TTable> t(
        CreaTabla(alias(), QStringLiteral("PROVIN.DBF"), QStringLiteral("CODIGO"), false, true));
    t->Append();
    t->FieldByName(QStringLiteral("CODIGO"))->SetAsInteger(codigo);
    t->FieldByName(QStringLiteral("PROVINCIA"))->SetAsString(nombre);
    t->FieldByName(QStringLiteral("GRUPO"))->SetAsInteger(1);
    t->Post();
    t->Close();
  }
  void anadeMunicipio(const QString& ine, const QString& postal, const QString& nombre) {
    std::unique_ptr<TTable> t(
        CreaTabla(alias(), QStringLiteral("MUNICIPI.DBF"), QStringLiteral("COD_INE"), false, true));
    t->Append();
    t->FieldByName(QStringLiteral("COD_INE"))->SetAsString(ine);
    t->FieldByName(QStringLiteral("CODPOSTAL"))->SetAsString(postal);
    t->FieldByName(QStringLiteral("NOMBRE"))->SetAsString(nombre);
    t->FieldByName(QStringLiteral("COD_PROV"))->SetAsString(ine.left(2));
    t->FieldByName(QStringLiteral("COD_MUN"))->SetAsString(QStringLiteral("0") + ine.mid(2));
    t->FieldByName(QStringLiteral("ENT_MENOR"))->SetAsBoolean(false);
    t->Post();
    t->Close();
  }

  // The texts of the wait window as it was opened, changed and closed.
  QStringList esperas(TipoMensaje tipo) const { return mensajes.textos(tipo); }

  TempDir ref_;
  RegistroMensajes mensajes;
  PresentadorMensajesTemporal presentador_{&mensajes};
  EntornoTemporal intervalo_{"CODPOSTALES_OVC_INTERVALO_MS", "0"};
  EntornoTemporal sinServicio_{"CODPOSTALES_OVC_URL", kUrlSinServicio};
  std::unique_ptr<SimuladorOvc> simulador;
  std::unique_ptr<EntornoTemporal> url_;
};

}  // namespace testsupport
