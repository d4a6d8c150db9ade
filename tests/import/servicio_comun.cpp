#include "servicio_comun.h"

#include <QComboBox>

namespace testsupport {

EntornoTemporal::EntornoTemporal(const char* nombre, const QByteArray& valor) : nombre_(nombre) {
  if (qEnvironmentVariableIsSet(nombre)) anterior_ = qgetenv(nombre);
  qputenv(nombre, valor);
}

EntornoTemporal::~EntornoTemporal() {
  if (anterior_)
    qputenv(nombre_, *anterior_);
  else
    qunsetenv(nombre_);
}

ClienteOvc::ClienteOvc(const QStringList& opcionesSimulador)
    : simulador_(std::make_unique<SimuladorOvc>(opcionesSimulador)),
      url_(std::make_unique<EntornoTemporal>("CODPOSTALES_OVC_URL", simulador_->url().toUtf8())),
      dialogo_(std::make_unique<TFImportarVias>(nullptr, nullptr)) {
  dialogo_->sAlias = QString::fromStdString(carpeta_.path());
}

void ClienteOvc::Elige(QComboBox* combo, const QString& texto) {
  int i = combo->findText(texto);
  if (i < 0) {
    combo->addItem(texto);
    i = combo->count() - 1;
  }
  combo->setCurrentIndex(i);
}

QByteArray RespuestaSoap(const char* elemento, const QString& documento) {
  return (QStringLiteral("<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                         "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body><%1 "
                         "xmlns=\"http://www.catastro.meh.es/\">%2</%1></soap:Body></soap:Envelope>")
              .arg(QLatin1String(elemento), documento))
      .toUtf8();
}

}  // namespace testsupport
