#include "platform/TXMLDocument.h"

#include <QFile>
#include <QSaveFile>
#include <QXmlStreamReader>

namespace {

[[noreturn]] void Rechaza(const QString& motivo) {
  throw ErrorDocumentoXML(QStringLiteral("La respuesta del servicio no se puede leer: %1").arg(motivo).toStdString());
}

// Reads the prolog up to the root element: a DOCTYPE there is refused.
void CompruebaProlog(const QString& texto) {
  QXmlStreamReader lector(texto);
  while (!lector.atEnd()) {
    const QXmlStreamReader::TokenType token = lector.readNext();
    if (token == QXmlStreamReader::DTD)
      Rechaza(QStringLiteral("trae una declaración DOCTYPE, que el servicio nunca envía"));
    if (token == QXmlStreamReader::StartElement) return;
  }
  if (lector.hasError())
    Rechaza(QStringLiteral("no es XML bien formado (línea %1, columna %2: %3)")
                .arg(lector.lineNumber())
                .arg(lector.columnNumber())
                .arg(lector.errorString()));
  Rechaza(QStringLiteral("no contiene ningún elemento"));
}

}  // namespace

void TXMLDocument::Clear() {
  oBytes.clear();
  oDocumento = QDomDocument();
}

void TXMLDocument::LoadFromBytes(const QByteArray& bytes) {
  Clear();
  if (bytes.trimmed().isEmpty())
    throw ErrorRespuestaVacia(QStringLiteral("La respuesta del servicio no se puede leer: está vacía").toStdString());
  const QString texto = QString::fromUtf8(bytes);
  CompruebaProlog(texto);
  QDomDocument documento;
  QString error;
  int linea = 0;
  int columna = 0;
  if (!documento.setContent(texto, &error, &linea, &columna))
    Rechaza(QStringLiteral("no es XML bien formado (línea %1, columna %2: %3)").arg(linea).arg(columna).arg(error));
  oBytes = bytes;
  oDocumento = std::move(documento);
}

void TXMLDocument::LoadFromFile(const QString& ruta) {
  QFile fichero(ruta);
  if (!fichero.open(QIODevice::ReadOnly)) {
    Clear();
    throw ErrorDocumentoXML(
        QStringLiteral("No se puede leer el fichero %1: %2").arg(ruta, fichero.errorString()).toStdString());
  }
  if (fichero.size() > kTamanoMaximo) {
    Clear();
    throw ErrorDocumentoXML(QStringLiteral("El fichero %1 pasa de %2 MB: no es una respuesta del servicio")
                                .arg(ruta)
                                .arg(kTamanoMaximo / (1024 * 1024))
                                .toStdString());
  }
  LoadFromBytes(fichero.readAll());
}

void TXMLDocument::SaveToFile(const QString& ruta) const {
  QSaveFile fichero(ruta);
  if (!fichero.open(QIODevice::WriteOnly) || fichero.write(oBytes) != oBytes.size() || !fichero.commit())
    throw ErrorDocumentoXML(
        QStringLiteral("No se puede guardar el fichero %1: %2").arg(ruta, fichero.errorString()).toStdString());
}
