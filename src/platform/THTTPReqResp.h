// THTTPReqResp: the SOAP-over-HTTP transport of the street import. Execute
// posts one request and returns the whole answer, blocking its caller as the
// import expects; the user interface keeps painting meanwhile, but user input
// waits until the answer is in.
//
// What the cadastre's service asks of its clients, the transport does for
// every caller alike:
// - a User-Agent on every request (the service refuses requests without one);
// - at most one request every IntervaloMinimoMs() (the service bans
//   addresses that ask more than about three times a second), whatever loop
//   the caller runs, and twice the gap after each failure in a row (up to
//   ten seconds), so retries give a struggling server room;
// - bounded waits and a bounded answer, so a stalled or hostile server
//   cannot hang the program or fill its memory.
#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <stdexcept>

#include "platform/TXMLDocument.h"

class QNetworkAccessManager;

// Anything that kept the transport from bringing a whole answer: no
// connection, a reset, a time-out, an HTTP status other than success, an
// answer over the size limit.
class ErrorTransporte : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class THTTPReqResp : public QObject {
  Q_OBJECT

 public:
  explicit THTTPReqResp(QObject* AOwner = nullptr);
  ~THTTPReqResp() override;

  QString URL;
  QString SoapAction;
  QString Proxy;  // always "": no proxy

  // Posts the request body and fills `respuesta` with the answer's body.
  // Throws ErrorTransporte.
  void Execute(const QByteArray& peticion, QByteArray& respuesta);

  // Limits. The waits can be changed through the environment (seconds):
  // CODPOSTALES_OVC_ESPERA (no data arriving; 60 by default) and
  // CODPOSTALES_OVC_ESPERA_TOTAL (the whole answer; 600 by default).
  static constexpr qint64 kRespuestaMaxima = TXMLDocument::kTamanoMaximo;
  static int EsperaSinDatosMs();
  static int EsperaTotalMs();
  // 400 ms, so 2.5 requests a second at most. Only for a server on this
  // machine (the local simulator) may CODPOSTALES_OVC_INTERVALO_MS lower it.
  int IntervaloMinimoMs() const;

 private:
  void RespetaIntervalo();
  void Envia(const QByteArray& peticion, QByteArray& respuesta);
  QNetworkAccessManager* oRed;
};

// The User-Agent the transport sends unless told otherwise.
QString UserAgentPorDefecto();
