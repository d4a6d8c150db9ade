// Shared by the searches (municipio, sugerir, cp, ine): their options, the
// controller opened without controls over an alias or folder, and the
// conversions between the command line's UTF-8 and QString.
#pragma once

#include <QString>

#include "services/Rmensaje.h"
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <vector>

class QApplication;
class TClaseCodPostales;

namespace cli {

// The options of a search: "--alias" and those the search names, each with
// a value; the positional arguments in order. "--ayuda" sets `ayuda`.
struct OpcionesBusqueda {
  std::string alias = ".";
  std::map<std::string, std::string> valores;
  std::vector<std::string> posicionales;
  bool ayuda = false;

  bool tiene(const std::string& nombre) const { return valores.count(nombre) != 0; }
  const std::string& valor(const std::string& nombre) const { return valores.at(nombre); }
};

// Widgets need an application; without a display the offscreen platform
// does. What the platform says while it starts (no XDG_RUNTIME_DIR, ...) is
// not the command's business and would mix with its own messages. Null when
// an application exists already.
std::unique_ptr<QApplication> creaAplicacion();

// The component's messages on a terminal: boxes and notices go to standard
// error as "title: text" lines (and are recorded, as RegistroMensajes does);
// wait windows are never shown.
class PresentadorConsola : public RegistroMensajes {
 public:
  void error(QObject* propietario, const QString& texto, const QString& titulo) override;
  void info(QObject* propietario, const QString& texto, const QString& titulo, int opcion) override;
  void emergente(QObject* propietario, const QString& texto, const QString& titulo, const QString& posicion,
                 int icono, const QString& detalle) override;
};

// ErrorDeUso for an option the search does not take, or a repeated one.
OpcionesBusqueda leeOpcionesBusqueda(const std::string& orden, const std::vector<std::string>& args,
                                     std::initializer_list<const char*> opciones);

// The one positional argument of a search (ErrorDeUso when missing or more).
std::string unicoPosicional(const std::string& orden, const OpcionesBusqueda& o, const char* que);

// A controller without controls over the tables of the alias or folder; the
// street tables only when `calles`. Engine errors (no such alias, a missing
// table) reach main as they are.
std::unique_ptr<TClaseCodPostales> abreControlador(const std::string& alias, bool calles);

QString deUtf8(const std::string& texto);
std::string aUtf8(const QString& texto);

// A province code of one or two digits as the tables write it ("8" -> "08").
QString codigoDeProvincia(const std::string& texto, const std::string& opcion);
// A whole number from 1 up; ErrorDeUso naming the option otherwise.
int enteroPositivo(const std::string& texto, const std::string& opcion);
// A text of digits only, of `longitud` digits when given.
bool soloCifras(const std::string& texto, size_t longitud = 0);

}  // namespace cli
