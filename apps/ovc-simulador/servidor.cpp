#include "servidor.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpSocket>
#include <QTimer>
#include <sys/socket.h>

#include "respuestas.h"

namespace simulador {

namespace {

constexpr qsizetype kMaximoCabeceras = 64 * 1024;
constexpr qint64 kMaximoCuerpo = 1024 * 1024;
constexpr int kEsperaInactiva = 30 * 1000;  // ms without a byte while reading a request
constexpr int kEsperaCierre = 5 * 1000;     // ms for the client to close after our answer
constexpr qint64 kBufferEnorme = 256 * 1024;
constexpr qsizetype kTrozoEnorme = 64 * 1024;

const char* razon(int estado) {
  switch (estado) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 411: return "Length Required";
    case 413: return "Request Entity Too Large";
    case 431: return "Request Header Fields Too Large";
    case 500: return "Internal Server Error";
    case 501: return "Not Implemented";
    case 503: return "Service Unavailable";
  }
  return "Error";
}

QByteArray paginaDeError(int estado) {
  return "<html><head><title>" + QByteArray::number(estado) + ' ' + razon(estado) + "</title></head><body><h1>" +
         QByteArray::number(estado) + ' ' + razon(estado) + "</h1></body></html>";
}

const QByteArray kPaginaNoDisponible = "<html><body>Sistema no disponible. Inténtelo más tarde.</body></html>";

// The path of the request target, without query, whatever its form
// ("/path?x" or "http://host/path").
QByteArray rutaSinConsulta(QByteArray ruta) {
  if (const qsizetype esquema = ruta.indexOf("://"); esquema >= 0 && !ruta.startsWith('/')) {
    const qsizetype barra = ruta.indexOf('/', esquema + 3);
    ruta = barra < 0 ? QByteArray("/") : ruta.mid(barra);
  }
  const qsizetype fin = ruta.indexOf('?');
  return fin < 0 ? ruta : ruta.left(fin);
}

}  // namespace

QByteArray Peticion::cabecera(const QByteArray& nombre) const {
  for (const auto& [clave, valor] : cabeceras)
    if (clave == nombre) return valor;
  return QByteArray();
}

// One client connection: reads one request, hands it to the server, sends
// the answer it is given and closes.
class Conexion : public QObject {
 public:
  Conexion(Servidor& servidor, QTcpSocket* socket) : QObject(&servidor), servidor_(servidor), socket_(socket) {
    socket_->setParent(this);
    connect(socket_, &QTcpSocket::readyRead, this, &Conexion::alLeer);
    connect(socket_, &QTcpSocket::bytesWritten, this, &Conexion::alEscribir);
    connect(socket_, &QTcpSocket::disconnected, this, &QObject::deleteLater);
    connect(socket_, &QTcpSocket::errorOccurred, this, [this] {
      // A client that goes away: stop whatever was under way.
      fase_ = Fase::Terminada;
      if (socket_->state() == QAbstractSocket::UnconnectedState) deleteLater();
      else socket_->abort();
    });
    espera_.setSingleShot(true);
    connect(&espera_, &QTimer::timeout, this, [this] {
      fase_ = Fase::Terminada;
      socket_->abort();
      deleteLater();
    });
    espera_.start(kEsperaInactiva);
    alLeer();
  }

  // An answer with a body of known length.
  void envia(int estado, const QByteArray& tipo, const QByteArray& cuerpo, const QByteArray& otras = {}) {
    if (fase_ == Fase::Terminada) return;
    QByteArray r = "HTTP/1.1 " + QByteArray::number(estado) + ' ' + razon(estado) + "\r\n";
    r += "Cache-Control: private, max-age=0\r\n";
    r += "Content-Type: " + tipo + "\r\n";
    r += "Content-Length: " + QByteArray::number(cuerpo.size()) + "\r\n";
    r += "Server: ovc-simulador\r\n";
    r += otras;
    r += "Connection: close\r\n\r\n";
    socket_->write(r + cuerpo);
    cierraTrasEnviar();
  }

  // Drops the connection with a TCP reset instead of an answer.
  void reinicia() {
    fase_ = Fase::Terminada;
    const qintptr descriptor = socket_->socketDescriptor();
    if (descriptor >= 0) {
      const linger sinEspera{1, 0};
      ::setsockopt(int(descriptor), SOL_SOCKET, SO_LINGER, &sinEspera, sizeof sinEspera);
    }
    socket_->abort();
    deleteLater();
  }

  // A street answer of `megas` megabytes with no Content-Length: the end is
  // the closing of the connection. Written as the socket drains, so no more
  // than a few hundred kilobytes are ever held.
  void enviaEnorme(int megas) {
    if (fase_ == Fase::Terminada) return;
    fase_ = Fase::Enorme;
    pendiente_ = qint64(megas) * 1024 * 1024;
    socket_->write(
        "HTTP/1.1 200 OK\r\nContent-Type: text/xml; charset=utf-8\r\nServer: ovc-simulador\r\n"
        "Connection: close\r\n\r\n" +
        principioDeCallejeroEnorme());
    alimenta();
  }

 private:
  enum class Fase { Cabeceras, Cuerpo, Atendiendo, Enorme, Cerrando, Terminada };

  void alLeer() {
    if (fase_ != Fase::Cabeceras && fase_ != Fase::Cuerpo) {
      socket_->readAll();  // after the request: not ours to read
      return;
    }
    espera_.start(kEsperaInactiva);
    entrada_ += socket_->readAll();
    if (fase_ == Fase::Cabeceras && !leeCabeceras()) return;
    if (fase_ != Fase::Cuerpo || entrada_.size() < largo_) return;
    peticion_.cuerpo = entrada_.left(largo_);
    entrada_.clear();
    fase_ = Fase::Atendiendo;
    espera_.stop();
    servidor_.atiende(*this, peticion_);
  }

  // Parses the request line and the headers once they are all in. False
  // while they are not, or when the request was refused.
  bool leeCabeceras() {
    qsizetype fin = entrada_.indexOf("\r\n\r\n");
    qsizetype separador = 4;
    if (const qsizetype lf = entrada_.indexOf("\n\n"); lf >= 0 && (fin < 0 || lf < fin)) {
      fin = lf;
      separador = 2;
    }
    if (fin < 0) {
      if (entrada_.size() > kMaximoCabeceras) rechaza(431);
      return false;
    }
    if (fin > kMaximoCabeceras) return rechaza(431);
    QList<QByteArray> lineas = entrada_.left(fin).split('\n');
    entrada_.remove(0, fin + separador);
    for (QByteArray& l : lineas)
      if (l.endsWith('\r')) l.chop(1);
    const QList<QByteArray> inicio = lineas.takeFirst().split(' ');
    if (inicio.size() != 3 || inicio[0].isEmpty() || inicio[1].isEmpty() || !inicio[2].startsWith("HTTP/1."))
      return rechaza(400);
    peticion_.metodo = inicio[0];
    peticion_.ruta = inicio[1];
    peticion_.version = inicio[2];
    for (const QByteArray& l : lineas) {
      if ((l.startsWith(' ') || l.startsWith('\t')) && !peticion_.cabeceras.isEmpty()) {
        peticion_.cabeceras.last().second += ' ' + l.trimmed();  // an obsolete folded line
        continue;
      }
      const qsizetype dos = l.indexOf(':');
      if (dos <= 0) return rechaza(400);
      peticion_.cabeceras.append({l.left(dos).trimmed().toLower(), l.mid(dos + 1).trimmed()});
    }
    if (!peticion_.cabecera("transfer-encoding").isNull()) return rechaza(501);
    const QByteArray largo = peticion_.cabecera("content-length");
    if (largo.isNull()) {
      if (peticion_.metodo == "POST") return rechaza(411);
      largo_ = 0;
    } else {
      bool ok = false;
      largo_ = largo.toLongLong(&ok);
      if (!ok || largo_ < 0 || largo.startsWith('+') || largo.startsWith('-')) return rechaza(400);
      for (const auto& [clave, valor] : peticion_.cabeceras)
        if (clave == "content-length" && valor != largo) return rechaza(400);
      if (largo_ > kMaximoCuerpo) return rechaza(413);
    }
    fase_ = Fase::Cuerpo;
    return true;
  }

  bool rechaza(int estado) {
    fase_ = Fase::Atendiendo;
    espera_.stop();
    if (!peticion_.metodo.isEmpty()) servidor_.anota(peticion_);
    envia(estado, "text/html; charset=utf-8", paginaDeError(estado));
    return false;
  }

  void alEscribir() {
    if (fase_ == Fase::Enorme) alimenta();
    else if (fase_ == Fase::Cerrando && socket_->bytesToWrite() == 0) cierraEscritura();
  }

  void alimenta() {
    while (pendiente_ > 0 && socket_->bytesToWrite() < kBufferEnorme) {
      QByteArray trozo;
      while (trozo.size() < kTrozoEnorme && pendiente_ > 0) {
        const QByteArray calle = calleDeRelleno(++calles_);
        trozo += calle;
        pendiente_ -= calle.size();
      }
      socket_->write(trozo);
    }
    if (pendiente_ <= 0) {
      socket_->write(finDeCallejeroEnorme());
      cierraTrasEnviar();
    }
  }

  // Closes our side once the answer has left, then waits a little for the
  // client to close its own: a request body still arriving (a refused one)
  // must not turn the close into a reset that loses the answer.
  void cierraTrasEnviar() {
    fase_ = Fase::Cerrando;
    espera_.start(kEsperaCierre);
    if (socket_->bytesToWrite() == 0) cierraEscritura();
  }

  void cierraEscritura() {
    if (escrituraCerrada_) return;
    escrituraCerrada_ = true;
    socket_->flush();
    ::shutdown(int(socket_->socketDescriptor()), SHUT_WR);
  }

  Servidor& servidor_;
  QTcpSocket* socket_;
  QTimer espera_;
  Fase fase_ = Fase::Cabeceras;
  QByteArray entrada_;
  Peticion peticion_;
  qint64 largo_ = 0;
  qint64 pendiente_ = 0;
  qint64 calles_ = 0;
  bool escrituraCerrada_ = false;
};

Servidor::Servidor(Datos& datos, const Opciones& opciones) : datos_(datos), opciones_(opciones) {
  connect(&tcp_, &QTcpServer::newConnection, this, [this] {
    while (QTcpSocket* socket = tcp_.nextPendingConnection()) new Conexion(*this, socket);
  });
}

void Servidor::escucha() {
  if (!opciones_.registro.isEmpty()) {
    registro_.setFileName(opciones_.registro);
    if (!registro_.open(QIODevice::WriteOnly | QIODevice::Append))
      throw ErrorDeDatos("--registro: no se puede escribir en " + opciones_.registro.toStdString() + ": " +
                         registro_.errorString().toStdString());
  }
  if (!tcp_.listen(QHostAddress::LocalHost, opciones_.puerto))
    throw ErrorDeDatos("no se puede escuchar en 127.0.0.1:" + std::to_string(opciones_.puerto) + ": " +
                       tcp_.errorString().toStdString());
  reloj_.start();
}

QString Servidor::url() const {
  return QStringLiteral("http://127.0.0.1:%1%2").arg(tcp_.serverPort()).arg(QLatin1StringView(kRutaServicio));
}

void Servidor::anota(const Peticion& peticion) {
  ++anotadas_;
  if (!registro_.isOpen()) return;
  const QJsonObject linea{
      {"n", anotadas_},
      {"ms", reloj_.elapsed()},
      {"metodo", QString::fromLatin1(peticion.metodo)},
      {"ruta", QString::fromUtf8(peticion.ruta)},
      {"soapaction", QString::fromUtf8(peticion.cabecera("soapaction"))},
      {"useragent", QString::fromUtf8(peticion.cabecera("user-agent"))},
      {"contenttype", QString::fromUtf8(peticion.cabecera("content-type"))},
      {"cuerpo", QString::fromLatin1(peticion.cuerpo.toBase64())},
  };
  registro_.write(QJsonDocument(linea).toJson(QJsonDocument::Compact) + '\n');
  registro_.flush();
}

void Servidor::atiende(Conexion& conexion, const Peticion& peticion) {
  anota(peticion);
  const int numero = ++leidas_;
  if (opciones_.lentoMs > 0)
    QTimer::singleShot(opciones_.lentoMs, &conexion,
                       [this, &conexion, peticion, numero] { contesta(conexion, peticion, numero); });
  else
    contesta(conexion, peticion, numero);
}

void Servidor::contesta(Conexion& conexion, const Peticion& peticion, int numero) {
  const auto html = [&](int estado) { conexion.envia(estado, "text/html; charset=utf-8", paginaDeError(estado)); };
  if (numero <= opciones_.cortar) return conexion.reinicia();
  if (numero - opciones_.cortar <= opciones_.fallar) return html(503);
  // The real service refuses clients that say nothing about themselves.
  if (peticion.cabecera("user-agent").isEmpty()) return html(403);
  // IIS: paths compare without regard to case.
  if (rutaSinConsulta(peticion.ruta).compare(kRutaServicio, Qt::CaseInsensitive) != 0) return html(404);
  if (peticion.metodo != "POST") return conexion.envia(405, "text/html; charset=utf-8", paginaDeError(405), "Allow: POST\r\n");
  if (opciones_.html) return conexion.envia(200, "text/html; charset=utf-8", kPaginaNoDisponible);
  if (opciones_.enormeMb > 0) return conexion.enviaEnorme(opciones_.enormeMb);

  const auto falta = [&](const Falta& f) { conexion.envia(500, "text/xml; charset=utf-8", documentoDeFalta(f)); };
  const QByteArray accion = peticion.cabecera("soapaction");
  const auto operacion = operacionDe(accion);
  if (!operacion)
    return falta(Falta{"soap:Client", "Server did not recognize the value of HTTP Header SOAPAction: " +
                                          QString::fromUtf8(accion) + "."});
  if (*operacion == Operacion::Via && ++viasLeidas_ <= opciones_.fallarVias) return html(503);
  Consulta consulta;
  if (const auto f = leeConsulta(*operacion, peticion.cuerpo, consulta)) return falta(*f);
  QByteArray cuerpo;
  try {
    cuerpo = responde(datos_, consulta, opciones_.ajustes);
  } catch (const std::exception& e) {
    return falta(Falta{"soap:Server", QString::fromUtf8(e.what())});
  }
  if (opciones_.truncado) cuerpo.truncate(cuerpo.size() / 2);
  conexion.envia(200, "text/xml; charset=utf-8", cuerpo);
}

}  // namespace simulador
