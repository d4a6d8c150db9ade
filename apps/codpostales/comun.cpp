#include <cstdio>

#include "cli.h"
#include "dbase/core/codepage.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/mdx_tags.h"
#include "dbase/core/path.h"

namespace cli {

bool Argumentos::siguienteEsOpcion(std::string& nombre) {
  const std::string& arg = args_[pos_];
  if (arg.size() < 3 || arg.compare(0, 2, "--") != 0) return false;
  ++pos_;
  const size_t igual = arg.find('=');
  tieneValorEnLinea_ = igual != std::string::npos;
  nombre = arg.substr(2, tieneValorEnLinea_ ? igual - 2 : std::string::npos);
  valorEnLinea_ = tieneValorEnLinea_ ? arg.substr(igual + 1) : std::string();
  return true;
}

std::string Argumentos::valor(const std::string& nombre) {
  if (tieneValorEnLinea_) return valorEnLinea_;
  if (pos_ >= args_.size()) throw ErrorDeUso("falta el valor de --" + nombre);
  return args_[pos_++];
}

void Argumentos::sinValor(const std::string& nombre) {
  if (tieneValorEnLinea_) throw ErrorDeUso("--" + nombre + " no lleva valor");
}

namespace {

std::string_view recorta(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

}  // namespace

std::vector<std::string> separaLista(std::string_view texto, const std::string& que) {
  std::vector<std::string> piezas;
  size_t inicio = 0;
  while (true) {
    const size_t coma = texto.find(',', inicio);
    const std::string_view pieza = recorta(texto.substr(inicio, coma == std::string_view::npos ? texto.npos : coma - inicio));
    if (pieza.empty()) throw ErrorDeUso(que + ": lista con un elemento vacío: «" + std::string(texto) + "»");
    piezas.emplace_back(pieza);
    if (coma == std::string_view::npos) return piezas;
    inicio = coma + 1;
  }
}

void anadeCsv(std::string& salida, const std::vector<std::string>& valores) {
  for (size_t i = 0; i < valores.size(); ++i) {
    if (i) salida += ',';
    const std::string& v = valores[i];
    if (v.find_first_of(",\"\r\n") == std::string::npos) {
      salida += v;
      continue;
    }
    salida += '"';
    for (char c : v) {
      if (c == '"') salida += '"';
      salida += c;
    }
    salida += '"';
  }
  salida += '\n';
}

std::vector<FilaCsv> leeCsv(std::string_view texto) {
  std::vector<FilaCsv> filas;
  size_t i = 0;
  size_t linea = 1;
  while (i < texto.size()) {
    FilaCsv fila;
    fila.linea = linea;
    bool finDeFila = false;
    bool conComillas = false;
    while (!finDeFila) {
      std::string valor;
      if (i < texto.size() && texto[i] == '"') {
        conComillas = true;
        const size_t lineaDeComillas = linea;
        ++i;
        while (true) {
          if (i >= texto.size())
            throw ErrorDeUso("línea " + std::to_string(lineaDeComillas) + ": comillas sin cerrar");
          const char c = texto[i++];
          if (c == '"') {
            if (i < texto.size() && texto[i] == '"') {
              valor += '"';
              ++i;
              continue;
            }
            break;
          }
          if (c == '\n') ++linea;
          valor += c;
        }
        if (i < texto.size() && texto[i] != ',' && texto[i] != '\n' &&
            !(texto[i] == '\r' && i + 1 < texto.size() && texto[i + 1] == '\n') && !(texto[i] == '\r' && i + 1 == texto.size()))
          throw ErrorDeUso("línea " + std::to_string(linea) + ": texto tras las comillas de cierre");
      } else {
        while (i < texto.size() && texto[i] != ',' && texto[i] != '\n') {
          if (texto[i] == '"')
            throw ErrorDeUso("línea " + std::to_string(linea) + ": comillas dentro de un valor sin comillas");
          if (texto[i] == '\r' && (i + 1 == texto.size() || texto[i + 1] == '\n')) {
            ++i;  // the CR of a CRLF
            continue;
          }
          valor += texto[i++];
        }
      }
      fila.valores.push_back(std::move(valor));
      if (i >= texto.size()) {
        finDeFila = true;
      } else if (texto[i] == ',') {
        ++i;
      } else {
        if (texto[i] == '\r') ++i;
        ++i;  // '\n'
        ++linea;
        finDeFila = true;
      }
    }
    const bool blanca = fila.valores.size() == 1 && fila.valores[0].empty() && !conComillas;
    if (!blanca) filas.push_back(std::move(fila));
  }
  return filas;
}

void codificaValor(const dbase::DbfFile& tabla, const dbase::FieldDescriptor& f, char* registro,
                   const std::string& valor, const std::string& donde) {
  auto noVale = [&](const std::string& fallo) {
    return ErrorDeUso(tabla.name() + ": " + donde + ", campo " + f.name + ": " + fallo);
  };
  if (f.type == dbase::FieldType::Character) {
    // Checked here rather than left to the writer, which would cut a long text.
    std::string bytes;
    try {
      bytes = tabla.codePage().encode(valor);
    } catch (const dbase::Error& e) {
      throw noVale(e.fault());
    }
    const size_t usados = dbase::trimRight(bytes).size();
    if (usados > f.length)
      throw noVale("el texto ocupa " + std::to_string(usados) + " posiciones y el campo " + std::to_string(f.length));
  }
  try {
    dbase::setFieldText(f, registro, valor, tabla.codePage(), tabla.name());
  } catch (const dbase::Error& e) {
    throw noVale(e.fault());
  }
}

std::shared_ptr<dbase::DbfFile> abreTabla(const std::string& ruta) {
  if (!dbase::fileExistsCaseInsensitive(ruta)) {
    const char* motivo = dbase::directoryExistsCaseInsensitive(ruta) ? "es un directorio, no una tabla" : "no existe";
    throw ErrorDeUso(ruta + ": " + motivo);
  }
  auto tabla = dbase::DbfFile::open(ruta);
  // A production index is read now, and kept right on every write.
  if (tabla->hasProductionMdx()) dbase::MdxTags::of(*tabla);
  return tabla;
}

void escribe(const std::string& bytes) {
  if (bytes.empty()) return;
  if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size())
    throw ErrorDeUso("no se puede escribir en la salida estándar");
}

}  // namespace cli
