// The cadastre's street-directory service OVCCallejero as a protocol: where
// it is, how a request is written and how an answer is walked. Nothing here
// knows about the dialog.
#pragma once

#include <QDomElement>
#include <QLoggingCategory>
#include <QString>
#include <QStringList>
#include <functional>

// What the import leaves unsaid to the user (a retried request, an answer
// the walk refused) goes to this category, as warnings; QT_LOGGING_RULES=
// "codpostales.ovc.warning=false" silences it.
Q_DECLARE_LOGGING_CATEGORY(lcOvc)

namespace ovc {

// The service's own address; CODPOSTALES_OVC_URL in the environment replaces
// it (the local simulator, a mirror). Endpoint() says which is used.
inline constexpr char kEndpoint[] = "http://ovc.catastro.meh.es/ovcservweb/OVCSWLocalizacionRC/OVCCallejero.asmx";
// SOAPAction = this prefix + the operation's name.
inline constexpr char kAccion[] = "http://tempuri.org/OVCServWeb/OVCCallejero/";
// Namespace of the request's parameter elements and of the answers.
inline constexpr char kEspacio[] = "http://www.catastro.meh.es/";

QString Endpoint();

// The request text of an operation: one line per element, each ending in a
// lone CR. `parametros` alternates names and values; values go in as they
// stand.
QString Sobre(const QStringList& parametros);

// What the loaders walk: the answer's result element (the first child of
// the response element in the SOAP body), its count and its list. Faults
// of the answer's shape throw std::runtime_error.
class Respuesta {
 public:
  explicit Respuesta(const QDomDocument& documento);
  // The count of the control element; 0 when it is missing.
  int Cuenta(const QString& nombre) const;
  // Entries 0 to cuenta - 1 of the list element, in order. A list shorter
  // than the count ends the walk with an error at the first missing entry.
  void Recorre(const QString& lista, int cuenta, const std::function<void(const QDomElement&)>& visita) const;

 private:
  QDomElement resultado_;
};

// The text of a child element that must be there.
QString TextoDe(const QDomElement& entrada, const char* hijo);

}  // namespace ovc
