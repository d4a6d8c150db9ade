#include "ejecucion.h"

#include <gtest/gtest.h>

#include <QProcess>

namespace testsupport {

Resultado ejecutaCodpostales(const QStringList& args, const std::string& entrada, const QString& carpeta,
                             const QProcessEnvironment& entorno) {
  QProcess proceso;
  if (!carpeta.isEmpty()) proceso.setWorkingDirectory(carpeta);
  if (!entorno.isEmpty()) proceso.setProcessEnvironment(entorno);
  proceso.start(QStringLiteral(CODPOSTALES_BINARY_DIR "/bin/codpostales"), args);
  EXPECT_TRUE(proceso.waitForStarted(10000));
  proceso.write(entrada.data(), qint64(entrada.size()));
  proceso.closeWriteChannel();
  EXPECT_TRUE(proceso.waitForFinished(60000));
  Resultado r;
  r.salida = proceso.exitStatus() == QProcess::NormalExit ? proceso.exitCode() : -1;
  r.out = proceso.readAllStandardOutput().toStdString();
  r.err = proceso.readAllStandardError().toStdString();
  return r;
}

}  // namespace testsupport
