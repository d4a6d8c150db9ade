// Runs the codpostales command of this build and collects what it did.
#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <string>

namespace testsupport {

struct Resultado {
  int salida = -1;  // exit status; -1 when it crashed
  std::string out;
  std::string err;
};

// `entrada` goes to its standard input; `carpeta` is its working folder
// (this process's when empty); `entorno` its environment (this one's when empty).
Resultado ejecutaCodpostales(const QStringList& args, const std::string& entrada = {}, const QString& carpeta = {},
                             const QProcessEnvironment& entorno = {});

}  // namespace testsupport
