#include "support/simulador_ovc.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <algorithm>
#include <stdexcept>

namespace testsupport {

QString SimuladorOvc::programa() { return QStringLiteral(CODPOSTALES_BINARY_DIR "/bin/ovc-simulador"); }

SimuladorOvc::SimuladorOvc(const QStringList& argumentos) : proceso_(std::make_unique<QProcess>()) {
  const QString registro = QString::fromStdString(carpeta_.file("registro.jsonl"));
  QStringList todos{"--puerto", "0", "--ovc", QString::fromStdString(sharedDir() + "/ovc"), "--registro", registro};
  todos += argumentos;
  proceso_->start(programa(), todos);
  const auto fallo = [this](const std::string& que) {
    proceso_->kill();
    proceso_->waitForFinished(5000);
    return std::runtime_error("ovc-simulador " + que + ": " + proceso_->readAllStandardError().toStdString());
  };
  if (!proceso_->waitForStarted(15000)) throw fallo("no arranca (" + proceso_->errorString().toStdString() + ")");
  const QDeadlineTimer plazo(15000);
  QByteArray salida;
  while (!salida.contains('\n')) {
    if (proceso_->state() == QProcess::NotRunning) throw fallo("terminó sin escuchar");
    if (plazo.hasExpired()) throw fallo("no dijo su dirección en 15 s");
    proceso_->waitForReadyRead(int(std::max<qint64>(1, plazo.remainingTime())));
    salida += proceso_->readAllStandardOutput();
  }
  url_ = QString::fromUtf8(salida.left(salida.indexOf('\n'))).trimmed();
}

SimuladorOvc::~SimuladorOvc() {
  if (proceso_->state() == QProcess::NotRunning) return;
  proceso_->terminate();
  if (!proceso_->waitForFinished(5000)) {
    proceso_->kill();
    proceso_->waitForFinished(5000);
  }
}

QList<PeticionOvc> SimuladorOvc::peticiones() const {
  QList<PeticionOvc> lista;
  QFile f(QString::fromStdString(carpeta_.file("registro.jsonl")));
  if (!f.open(QIODevice::ReadOnly)) return lista;
  QList<QByteArray> lineas = f.readAll().split('\n');
  lineas.removeLast();  // empty, or a line still being written
  for (const QByteArray& linea : lineas) {
    if (linea.trimmed().isEmpty()) continue;
    const QJsonObject o = QJsonDocument::fromJson(linea).object();
    PeticionOvc p;
    p.n = o.value("n").toInt();
    p.ms = qint64(o.value("ms").toDouble());
    p.metodo = o.value("metodo").toString();
    p.ruta = o.value("ruta").toString();
    p.soapAction = o.value("soapaction").toString();
    p.userAgent = o.value("useragent").toString();
    p.contentType = o.value("contenttype").toString();
    p.cuerpo = QByteArray::fromBase64(o.value("cuerpo").toString().toLatin1());
    lista.append(p);
  }
  return lista;
}

}  // namespace testsupport
