#include "platform/THTTPReqResp.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QHostAddress>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>
#include <algorithm>
#include <memory>

#ifndef CODPOSTALES_VERSION
#define CODPOSTALES_VERSION "0"
#endif

namespace {

constexpr int kIntervaloMs = 400;

int SegundosDelEntorno(const char* variable, int porDefecto) {
  bool ok = false;
  const int segundos = qEnvironmentVariableIntValue(variable, &ok);
  return ok && segundos > 0 ? segundos * 1000 : porDefecto * 1000;
}

bool EsDeEstaMaquina(const QUrl& url) {
  const QString host = url.host();
  if (host.compare(QStringLiteral("localhost"), Qt::CaseInsensitive) == 0) return true;
  const QHostAddress direccion(host);
  return !direccion.isNull() && direccion.isLoopback();
}

// When the last request of the process left, and how many requests in a row
// have failed since the last answer, over every transport.
QElapsedTimer& UltimaPeticion() {
  static QElapsedTimer reloj;
  return reloj;
}
int& FallosSeguidos() {
  static int fallos = 0;
  return fallos;
}
constexpr int kEsperaMaximaMs = 10000;

// Waits without taking user input: the window repaints, no button reacts.
void Espera(int ms) {
  if (ms <= 0) return;
  QEventLoop bucle;
  QTimer::singleShot(ms, &bucle, &QEventLoop::quit);
  bucle.exec(QEventLoop::ExcludeUserInputEvents);
}

QString DescribeFallo(const QNetworkReply& respuesta, const QString& url) {
  const QVariant estado = respuesta.attribute(QNetworkRequest::HttpStatusCodeAttribute);
  if (estado.isValid() && (estado.toInt() < 200 || estado.toInt() > 299))
    return QStringLiteral("El servicio %1 ha respondido con el estado HTTP %2 (%3)")
        .arg(url)
        .arg(estado.toInt())
        .arg(respuesta.attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString());
  return QStringLiteral("No se ha podido comunicar con el servicio %1: %2").arg(url, respuesta.errorString());
}

}  // namespace

QString UserAgentPorDefecto() {
  return QStringLiteral("Mozilla/5.0 (compatible; CodPostales/" CODPOSTALES_VERSION "; importador de callejero)");
}

THTTPReqResp::THTTPReqResp(QObject* AOwner) : QObject(AOwner), oRed(new QNetworkAccessManager(this)) {}

THTTPReqResp::~THTTPReqResp() = default;

int THTTPReqResp::EsperaSinDatosMs() { return SegundosDelEntorno("CODPOSTALES_OVC_ESPERA", 60); }

int THTTPReqResp::EsperaTotalMs() { return SegundosDelEntorno("CODPOSTALES_OVC_ESPERA_TOTAL", 600); }

int THTTPReqResp::IntervaloMinimoMs() const {
  bool ok = false;
  const int pedido = qEnvironmentVariableIntValue("CODPOSTALES_OVC_INTERVALO_MS", &ok);
  if (ok && pedido >= 0 && pedido < kIntervaloMs && EsDeEstaMaquina(QUrl(URL))) return pedido;
  return kIntervaloMs;
}

void THTTPReqResp::RespetaIntervalo() {
  // A struggling server is given more room after each failure in a row.
  const int intervalo = std::min(IntervaloMinimoMs() << std::min(FallosSeguidos(), 5), kEsperaMaximaMs);
  QElapsedTimer& ultima = UltimaPeticion();
  if (ultima.isValid()) Espera(intervalo - int(ultima.elapsed()));
  ultima.start();
}

void THTTPReqResp::Execute(const QByteArray& peticion, QByteArray& respuesta) {
  RespetaIntervalo();
  FallosSeguidos() += 1;  // until the answer is in
  Envia(peticion, respuesta);
  FallosSeguidos() = 0;
}

void THTTPReqResp::Envia(const QByteArray& peticion, QByteArray& respuesta) {
  const QUrl url(URL);
  if (!url.isValid() || (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https")))
    throw ErrorTransporte(QStringLiteral("La dirección del servicio no es válida: «%1»").arg(URL).toStdString());
  QNetworkRequest pedido(url);
  pedido.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("text/xml; charset=utf-8"));
  pedido.setRawHeader("SOAPAction", '"' + SoapAction.toUtf8() + '"');
  pedido.setHeader(QNetworkRequest::UserAgentHeader, UserAgentPorDefecto());
  pedido.setTransferTimeout(EsperaSinDatosMs());
  oRed->setProxy(QNetworkProxy::NoProxy);

  std::unique_ptr<QNetworkReply> respuestaRed(oRed->post(pedido, peticion));
  QNetworkReply* r = respuestaRed.get();
  QByteArray cuerpo;
  QString fallo;
  const auto anula = [&](const QString& motivo) {
    if (fallo.isEmpty()) fallo = motivo;
    r->abort();
  };
  const QString demasiado = QStringLiteral("La respuesta del servicio %1 pasa de %2 MB: se abandona")
                                .arg(URL)
                                .arg(kRespuestaMaxima / (1024 * 1024));
  QObject::connect(r, &QNetworkReply::metaDataChanged, r, [&] {
    if (r->header(QNetworkRequest::ContentLengthHeader).toLongLong() > kRespuestaMaxima) anula(demasiado);
  });
  QObject::connect(r, &QNetworkReply::readyRead, r, [&] {
    if (cuerpo.size() + r->bytesAvailable() > kRespuestaMaxima)
      anula(demasiado);
    else
      cuerpo += r->readAll();
  });
  QTimer total;
  total.setSingleShot(true);
  QObject::connect(&total, &QTimer::timeout, r, [&] {
    anula(QStringLiteral("El servicio %1 no ha terminado de responder en %2 segundos")
              .arg(URL)
              .arg(EsperaTotalMs() / 1000));
  });
  total.start(EsperaTotalMs());
  if (!r->isFinished()) {
    QEventLoop bucle;
    QObject::connect(r, &QNetworkReply::finished, &bucle, &QEventLoop::quit);
    bucle.exec(QEventLoop::ExcludeUserInputEvents);
  }
  total.stop();
  if (!fallo.isEmpty()) throw ErrorTransporte(fallo.toStdString());
  if (r->error() != QNetworkReply::NoError) throw ErrorTransporte(DescribeFallo(*r, URL).toStdString());
  if (cuerpo.size() + r->bytesAvailable() > kRespuestaMaxima) throw ErrorTransporte(demasiado.toStdString());
  cuerpo += r->readAll();
  respuesta = std::move(cuerpo);
}
