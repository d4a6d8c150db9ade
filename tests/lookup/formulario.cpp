#include "formulario.h"

#include <QApplication>
#include <QKeyEvent>
#include <QTest>
#include <QVBoxLayout>

namespace testsupport {

Formulario::Formulario() {
  auto* capa = new QVBoxLayout(&ventana);
  auto nuevo = [&](auto* control, const char* nombre) {
    control->setObjectName(QString::fromLatin1(nombre));
    capa->addWidget(control);
    return control;
  };
  pais = nuevo(new QComboBox, "advCBPais");
  provincia = nuevo(new QComboBox, "advCBProvincia");
  localidad = nuevo(new QLineEdit, "advELocalidad");
  domicilio = nuevo(new QLineEdit, "advEDomicilio");
  numero = nuevo(new QLineEdit, "advENumero");
  codPostal = nuevo(new QLineEdit, "advECodPostal");
  codIne = nuevo(new QLineEdit, "advECodINE");
  tipoVia = nuevo(new QComboBox, "advCBTipoVia");
  tipoVia->setEditable(true);  // as the host's: its text is an edit
  otroControl = nuevo(new QLineEdit, "advEOtro");
  panelBotones = nuevo(new QWidget, "advPBotones");
  barraEstado = new QStatusBar(panelBotones);
  // The grids drop down over the form, outside its layout, hidden.
  rejillaLocalidad = new QTableView(&ventana);
  rejillaLocalidad->setObjectName("DBGLocalidad");
  rejillaLocalidad->hide();
  rejillaDomicilio = new QTableView(&ventana);
  rejillaDomicilio->setObjectName("DBGDomicilio");
  rejillaDomicilio->hide();
  codPostal->setToolTip("Código postal");
  globo = new TLMDMessageHint(&ventana);
  ventana.resize(400, 500);
  ventana.show();
  QApplication::setActiveWindow(&ventana);
  (void)QTest::qWaitForWindowActive(&ventana);
  // Start on a control the controller does not watch: leaving the country
  // combo moves the focus by itself.
  enfoca(otroControl);
}

Formulario::~Formulario() = default;

std::unique_ptr<TClaseCodPostales> Formulario::creaControlador(const QString& alias, bool postales) {
  return std::make_unique<TClaseCodPostales>(&ventana, alias, postales, panelBotones, provincia, localidad,
                                             rejillaLocalidad, domicilio, rejillaDomicilio, numero, codPostal, codIne,
                                             tipoVia, pais, otroControl, otroControl, "", "", "", "");
}

std::unique_ptr<TClaseCodPostales> Formulario::creaControladorConGlobo(const QString& alias) {
  auto c = std::make_unique<TClaseCodPostales>(&ventana, alias, true, "");
  c->Carga(panelBotones, provincia, localidad, rejillaLocalidad, domicilio, rejillaDomicilio, numero, codPostal, codIne,
           tipoVia, pais, otroControl, otroControl, globo, "", "", "", "");
  return c;
}

void Formulario::eligeProvincia(const QString& texto) {
  enfoca(provincia);
  provincia->setCurrentIndex(provincia->findText(texto));
  enfoca(otroControl);
}

void Formulario::teclea(QWidget* control, const QString& texto) {
  enfoca(control);
  for (QChar c : texto) {
    // Latin-1 letters have a Qt key of their own (Ñ is Key_Ntilde).
    const int tecla = c.unicode() < 0x80 ? QTest::asciiToKey(char(c.unicode())) : int(c.toUpper().unicode());
    QTest::sendKeyEvent(QTest::Click, control, Qt::Key(tecla), QString(c), Qt::NoModifier);
  }
}

void Formulario::enfoca(QWidget* control) {
  control->setFocus(Qt::TabFocusReason);
  QApplication::processEvents();
}

ContadorTeclaInicio::ContadorTeclaInicio(QWidget* control) : QObject(control) { control->installEventFilter(this); }

bool ContadorTeclaInicio::eventFilter(QObject*, QEvent* event) {
  if (event->type() == QEvent::KeyPress && static_cast<QKeyEvent*>(event)->key() == Qt::Key_Home) ++cuenta;
  return false;
}

void anadeMunicipio(TTable* municipios, const Municipio& m) {
  municipios->Append();
  municipios->FieldByName("COD_INE")->SetAsString(m.codIne);
  municipios->FieldByName("NOMBRE")->SetAsString(m.nombre);
  municipios->FieldByName("COD_PROV")->SetAsString(m.codProv);
  municipios->FieldByName("CODPOSTAL")->SetAsString(m.codPostal);
  municipios->FieldByName("ENT_MENOR")->SetAsBoolean(m.entidadMenor);
  municipios->Post();
}

QStringList nombres(TTable* tabla, const char* campo) {
  QStringList out;
  for (tabla->First(); !tabla->Eof(); tabla->Next()) out << tabla->FieldByName(campo)->AsString();
  return out;
}

}  // namespace testsupport
