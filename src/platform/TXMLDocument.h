// TXMLDocument: the last answer of the street-directory service, kept both as
// the bytes received (saved as they came) and as a DOM to walk.
//
// Answers are read as UTF-8 whatever they declare. Whatever is not a plain
// XML document is refused with ErrorDocumentoXML before the DOM is built: an
// empty answer, text that is not well formed, and any DOCTYPE, since the
// service never sends one and it is how entity bombs and external entities
// arrive.
#pragma once

#include <QByteArray>
#include <QDomDocument>
#include <QString>
#include <stdexcept>

class ErrorDocumentoXML : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The answer had no bytes at all: what a fetch that retried is left with.
class ErrorRespuestaVacia : public ErrorDocumentoXML {
 public:
  using ErrorDocumentoXML::ErrorDocumentoXML;
};

class TXMLDocument {
 public:
  // Real answers, even of the largest cities, are a few megabytes.
  static constexpr qint64 kTamanoMaximo = 16LL * 1024 * 1024;

  // Replaces the content. Throws ErrorDocumentoXML and then holds nothing.
  void LoadFromBytes(const QByteArray& bytes);
  // Reads a saved answer. A file that cannot be read, or is larger than any
  // answer the transport accepts, is an ErrorDocumentoXML naming it.
  void LoadFromFile(const QString& ruta);
  // Writes the bytes as received. Throws ErrorDocumentoXML when the file
  // cannot be written; a half-written file is not left behind.
  void SaveToFile(const QString& ruta) const;

  const QDomDocument& Documento() const { return oDocumento; }
  bool HasChildNodes() const { return oDocumento.hasChildNodes(); }
  const QByteArray& Bytes() const { return oBytes; }
  void Clear();

 private:
  QByteArray oBytes;
  QDomDocument oDocumento;
};
