// Shared pieces of the codpostales command: exit codes, the command-line
// error, option parsing, CSV reading and writing, and the subcommands.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace dbase {
class DbfFile;
struct FieldDescriptor;
}

namespace cli {

inline constexpr int kSalidaBien = 0;
inline constexpr int kSalidaNoEncontrado = 1;  // an exact search or a search found nothing
inline constexpr int kSalidaError = 2;

// A fault of the command itself (bad option, missing value, bad input).
class ErrorDeUso : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Subcommands: arguments after the subcommand name. Return the exit code;
// faults are thrown (ErrorDeUso, dbase::Error) and reported by main.
int tabla(const std::vector<std::string>& args);
int anadir(const std::vector<std::string>& args);
// Rewrites fields of one row of a table in place.
int editar(const std::vector<std::string>& args);
// Writes a table's production index whole (the tags it had, or those given).
int reindexar(const std::vector<std::string>& args);
// The searches of the address controller over an alias or folder: exit 1
// when they find nothing.
int municipio(const std::vector<std::string>& args);
int sugerir(const std::vector<std::string>& args);
int cp(const std::vector<std::string>& args);
int ine(const std::vector<std::string>& args);
// The street-directory service of the cadastre (or the endpoint named by
// CODPOSTALES_OVC_URL): its lists as CSV, and saved answers.
int ovc(const std::vector<std::string>& args);
// Stores the streets of a saved answer in the street table, as the import
// dialog does, without a window.
int importar(const std::vector<std::string>& args);
// Stores the saved answers of one province folder, or of all, as the import
// dialog's runs do, listing the municipalities that match no host one.
int importarGuardadas(const std::vector<std::string>& args);
// Stores INE's electoral-census street directory (TRAM and VIAS files) in
// the street tables, and prints what it stored and what it left out.
int importarIne(const std::vector<std::string>& args);

// Spanish usage text.
void muestraUso(std::FILE* salida);

// Walks the arguments of a subcommand: options "--name value" or
// "--name=value", flags "--name", and positional arguments.
class Argumentos {
 public:
  explicit Argumentos(const std::vector<std::string>& args) : args_(args) {}
  bool quedan() const { return pos_ < args_.size(); }
  // The next argument is an option (its name without "--" goes to `nombre`).
  bool siguienteEsOpcion(std::string& nombre);
  std::string posicional() { return args_[pos_++]; }
  // The value of the option just read; ErrorDeUso when there is none.
  std::string valor(const std::string& nombre);
  // ErrorDeUso when the flag just read came with "=value".
  void sinValor(const std::string& nombre);

 private:
  const std::vector<std::string>& args_;
  size_t pos_ = 0;
  bool tieneValorEnLinea_ = false;
  std::string valorEnLinea_;
};

// "A,B , C" -> {"A", "B", "C"}; empty pieces are an ErrorDeUso naming `que`.
std::vector<std::string> separaLista(std::string_view texto, const std::string& que);

// RFC 4180: a value holding a comma, a quote, CR or LF goes between quotes
// with its quotes doubled. Rows end with LF.
void anadeCsv(std::string& salida, const std::vector<std::string>& valores);

struct FilaCsv {
  size_t linea = 0;  // where the row starts, from 1
  std::vector<std::string> valores;
};
// Parses RFC 4180 text: rows end with CRLF or LF (a last row may lack it),
// quoted values may hold commas, doubled quotes and line ends. Blank lines are
// skipped. A quote left open or text after a closing quote is an ErrorDeUso
// naming the line.
std::vector<FilaCsv> leeCsv(std::string_view texto);

// Opens the table at `ruta` (case-insensitive, as the engine does); a path
// that names no file is reported as such before the engine is asked.
std::shared_ptr<dbase::DbfFile> abreTabla(const std::string& ruta);

// Puts a value given as UTF-8 text into field f of a record, as anadir and
// editar take it: a text longer than the field (a character field is not
// cut) or a value the field cannot hold is an ErrorDeUso saying
// "TABLE: DONDE, campo NAME: why".
void codificaValor(const dbase::DbfFile& tabla, const dbase::FieldDescriptor& f, char* registro,
                   const std::string& valor, const std::string& donde);

// Writes bytes to standard output; a failed write is an ErrorDeUso.
void escribe(const std::string& bytes);

}  // namespace cli
