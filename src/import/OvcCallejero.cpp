#include "import/OvcCallejero.h"

#include <QDomDocument>
#include <stdexcept>
#include <string>

Q_LOGGING_CATEGORY(lcOvc, "codpostales.ovc")

namespace ovc {

QString Endpoint() {
  const QString entorno = qEnvironmentVariable("CODPOSTALES_OVC_URL");
  return entorno.isEmpty() ? QString::fromLatin1(kEndpoint) : entorno;
}

QString Sobre(const QStringList& parametros) {
  QString sobre = QStringLiteral("<?xml version=\"1.0\" encoding=\"utf-8\"?>\r");
  sobre += QStringLiteral(
      "<soap:Envelope xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
      "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
      "xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\">\r");
  sobre += QStringLiteral("  <soap:Body>\r");
  // The service's names hold nothing to escape.
  for (int i = 0; i + 1 < parametros.size(); i += 2)
    sobre += QStringLiteral("    <%1 xmlns=\"%2\">%3</%1>\r").arg(parametros[i], QLatin1String(kEspacio), parametros[i + 1]);
  sobre += QStringLiteral("  </soap:Body>\r");
  sobre += QStringLiteral("</soap:Envelope>\r");
  return sobre;
}

Respuesta::Respuesta(const QDomDocument& documento) {
  const QDomElement sobre = documento.firstChildElement(QStringLiteral("soap:Envelope"));
  if (sobre.isNull()) throw std::runtime_error("la respuesta no es un sobre SOAP");
  // The body, the operation's response element, its result element.
  resultado_ = sobre.firstChild().firstChild().firstChild().toElement();
  if (resultado_.isNull()) throw std::runtime_error("la respuesta no trae resultado");
}

int Respuesta::Cuenta(const QString& nombre) const {
  const QDomElement cuenta = resultado_.firstChildElement(QStringLiteral("control")).firstChildElement(nombre);
  if (cuenta.isNull()) return 0;
  bool ok = false;
  const int valor = cuenta.text().trimmed().toInt(&ok);
  if (!ok) throw std::runtime_error("la cuenta de la respuesta no es un número");
  return valor;
}

void Respuesta::Recorre(const QString& lista, int cuenta,
                        const std::function<void(const QDomElement&)>& visita) const {
  const QDomElement elemento = resultado_.firstChildElement(lista);
  if (cuenta <= 0 || elemento.isNull()) return;
  const QDomNodeList entradas = elemento.childNodes();
  for (int i = 0; i < cuenta; ++i) {
    if (i >= entradas.size()) throw std::runtime_error("la respuesta trae menos entradas de las que cuenta");
    visita(entradas.at(i).toElement());
  }
}

QString TextoDe(const QDomElement& entrada, const char* hijo) {
  const QDomElement elemento = entrada.firstChildElement(QString::fromLatin1(hijo));
  if (elemento.isNull()) throw std::runtime_error(std::string("falta el elemento ") + hijo);
  return elemento.text();
}

}  // namespace ovc
