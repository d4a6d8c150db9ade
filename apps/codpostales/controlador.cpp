#include "controlador.h"

#include <QApplication>
#include <charconv>
#include <cstdio>
#include <climits>

#include "cli.h"
#include "lookup/ClaseCodPostales.h"

namespace cli {

namespace {

void sinMensajes(QtMsgType, const QMessageLogContext&, const QString&) {}

void escribeMensaje(const QString& titulo, const QString& texto) {
  const QString linea = titulo.isEmpty() ? texto : titulo + QStringLiteral(": ") + texto;
  std::fprintf(stderr, "codpostales: %s\n", QString(linea).replace(u'\n', u' ').toUtf8().constData());
}

}  // namespace

void PresentadorConsola::error(QObject* propietario, const QString& texto, const QString& titulo) {
  RegistroMensajes::error(propietario, texto, titulo);
  escribeMensaje(titulo, texto);
}

void PresentadorConsola::info(QObject* propietario, const QString& texto, const QString& titulo, int opcion) {
  RegistroMensajes::info(propietario, texto, titulo, opcion);
  escribeMensaje(titulo, texto);
}

void PresentadorConsola::emergente(QObject* propietario, const QString& texto, const QString& titulo,
                                   const QString& posicion, int icono, const QString& detalle) {
  RegistroMensajes::emergente(propietario, texto, titulo, posicion, icono, detalle);
  escribeMensaje(titulo, texto);
}

std::unique_ptr<QApplication> creaAplicacion() {
  if (QApplication::instance()) return nullptr;
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  static int argc = 1;
  static char nombre[] = "codpostales";
  static char* argv[] = {nombre, nullptr};
  const QtMessageHandler anterior = qInstallMessageHandler(sinMensajes);
  auto aplicacion = std::make_unique<QApplication>(argc, argv);
  qInstallMessageHandler(anterior);
  return aplicacion;
}

OpcionesBusqueda leeOpcionesBusqueda(const std::string& orden, const std::vector<std::string>& args,
                                     std::initializer_list<const char*> opciones) {
  OpcionesBusqueda o;
  Argumentos a(args);
  std::string nombre;
  bool aliasDado = false;
  while (a.quedan()) {
    if (!a.siguienteEsOpcion(nombre)) {
      o.posicionales.push_back(a.posicional());
      continue;
    }
    if (nombre == "ayuda") {
      o.ayuda = true;
      continue;
    }
    if (nombre == "alias") {
      if (aliasDado) throw ErrorDeUso("--alias repetida");
      o.alias = a.valor(nombre);
      if (o.alias.empty()) throw ErrorDeUso("--alias vacía");
      aliasDado = true;
      continue;
    }
    bool conocida = false;
    for (const char* opcion : opciones) conocida |= nombre == opcion;
    if (!conocida) throw ErrorDeUso("opción desconocida para " + orden + ": --" + nombre);
    if (o.tiene(nombre)) throw ErrorDeUso("--" + nombre + " repetida");
    o.valores[nombre] = a.valor(nombre);
  }
  return o;
}

std::string unicoPosicional(const std::string& orden, const OpcionesBusqueda& o, const char* que) {
  if (o.posicionales.empty()) throw ErrorDeUso(orden + ": falta " + que);
  if (o.posicionales.size() > 1) throw ErrorDeUso("sobra el argumento «" + o.posicionales[1] + "»");
  if (o.posicionales[0].empty()) throw ErrorDeUso(orden + ": " + que + " vacío");
  return o.posicionales[0];
}

std::unique_ptr<TClaseCodPostales> abreControlador(const std::string& alias, bool calles) {
  return std::make_unique<TClaseCodPostales>(nullptr, deUtf8(alias), calles, QString());
}

QString deUtf8(const std::string& texto) { return QString::fromUtf8(texto.data(), qsizetype(texto.size())); }

std::string aUtf8(const QString& texto) { return texto.toUtf8().toStdString(); }

bool soloCifras(const std::string& texto, size_t longitud) {
  if (texto.empty() || (longitud && texto.size() != longitud)) return false;
  for (char c : texto)
    if (c < '0' || c > '9') return false;
  return true;
}

QString codigoDeProvincia(const std::string& texto, const std::string& opcion) {
  if (!soloCifras(texto) || texto.size() > 2)
    throw ErrorDeUso("--" + opcion + " espera el código de la provincia (una o dos cifras), no «" + texto + "»");
  return QString::fromLatin1(texto.size() == 1 ? "0" + texto : texto);
}

int enteroPositivo(const std::string& texto, const std::string& opcion) {
  int n = 0;
  const char* fin = texto.data() + texto.size();
  auto [p, ec] = std::from_chars(texto.data(), fin, n);
  if (!soloCifras(texto) || ec != std::errc() || p != fin || n < 1)
    throw ErrorDeUso("--" + opcion + " espera un número entero positivo, no «" + texto + "»");
  return n;
}

}  // namespace cli
