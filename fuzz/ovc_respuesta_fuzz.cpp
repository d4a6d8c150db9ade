// Answers of the street-directory service from the fuzzer: the bytes go
// through the document checks the import makes before it builds a DOM (empty,
// not well formed, DOCTYPE), and a document that passes is walked as the
// province, municipality and street loaders walk it. The checks may only
// refuse with ErrorDocumentoXML, and the walk may only fail with
// std::runtime_error; anything else escapes and is a finding.
#include <QByteArray>
#include <QDomElement>
#include <QString>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>

#include "import/OvcCallejero.h"
#include "platform/TXMLDocument.h"

namespace {

void check(bool condition) {
  if (!condition) __builtin_trap();
}

// One loader's walk; returns how many entries it visited.
int Recorre(const QDomDocument& documento, const char* cuenta, const char* lista,
            const std::function<void(const QDomElement&)>& visita) {
  int visitadas = 0;
  try {
    const ovc::Respuesta respuesta(documento);
    const int n = respuesta.Cuenta(QString::fromLatin1(cuenta));
    respuesta.Recorre(QString::fromLatin1(lista), n, [&](const QDomElement& e) {
      ++visitadas;
      visita(e);
    });
    check(visitadas <= (n > 0 ? n : 0));
  } catch (const std::runtime_error&) {
    // a refused shape: the loader reports a failure and goes on
  }
  return visitadas;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  TXMLDocument xml;
  try {
    xml.LoadFromBytes(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
  } catch (const ErrorDocumentoXML& e) {
    check(!xml.HasChildNodes());
    check(e.what()[0] != '\0');
    return 0;
  }
  check(size > 0);
  check(xml.Bytes().size() == qsizetype(size));
  const QDomDocument& documento = xml.Documento();
  Recorre(documento, "cuprov", "provinciero", [](const QDomElement& e) { (void)ovc::TextoDe(e, "np"); });
  Recorre(documento, "cumun", "municipiero", [](const QDomElement& e) { (void)ovc::TextoDe(e, "nm"); });
  Recorre(documento, "cuca", "callejero", [](const QDomElement& calle) {
    const QDomElement dir = calle.firstChildElement(QStringLiteral("dir"));
    if (dir.isNull()) return;
    (void)dir.firstChildElement(QStringLiteral("tv")).text().trimmed();
    (void)ovc::TextoDe(dir, "nv").trimmed().left(45);
  });
  return 0;
}
