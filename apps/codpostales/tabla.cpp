// codpostales tabla: the rows of a table as CSV, in an order, filtered,
// from a searched row on; or, with --info, what the header says.
#include <charconv>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "dbase/core/codepage.h"
#include "dbase/core/cursor.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/key_expression.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/mdx_tag.h"
#include "dbase/core/mdx_tags.h"

namespace cli {

namespace {

struct OpcionesTabla {
  std::string fichero;
  bool info = false;
  std::vector<std::string> orden;
  std::optional<std::string> filtro;
  std::vector<std::string> buscar;
  bool exacto = false;
  std::vector<std::string> campos;
  std::optional<size_t> limite;
  bool ayuda = false;
};

size_t leeLimite(const std::string& texto) {
  size_t n = 0;
  const char* fin = texto.data() + texto.size();
  auto [p, ec] = std::from_chars(texto.data(), fin, n);
  if (texto.empty() || ec != std::errc() || p != fin)
    throw ErrorDeUso("--limite espera un número entero no negativo, no «" + texto + "»");
  return n;
}

OpcionesTabla leeOpciones(const std::vector<std::string>& args) {
  OpcionesTabla o;
  Argumentos a(args);
  std::string nombre;
  while (a.quedan()) {
    if (!a.siguienteEsOpcion(nombre)) {
      if (!o.fichero.empty()) throw ErrorDeUso("sobra el argumento «" + a.posicional() + "»");
      o.fichero = a.posicional();
      continue;
    }
    if (nombre == "info") {
      a.sinValor(nombre);
      o.info = true;
    } else if (nombre == "exacto") {
      a.sinValor(nombre);
      o.exacto = true;
    } else if (nombre == "ayuda") {
      o.ayuda = true;
    } else if (nombre == "orden") {
      o.orden = separaLista(a.valor(nombre), "--orden");
    } else if (nombre == "filtro") {
      o.filtro = a.valor(nombre);
    } else if (nombre == "buscar") {
      o.buscar.push_back(a.valor(nombre));
    } else if (nombre == "campos") {
      o.campos = separaLista(a.valor(nombre), "--campos");
    } else if (nombre == "limite") {
      o.limite = leeLimite(a.valor(nombre));
    } else {
      throw ErrorDeUso("opción desconocida para tabla: --" + nombre);
    }
  }
  if (o.ayuda) return o;
  if (o.fichero.empty()) throw ErrorDeUso("tabla: falta el fichero .DBF");
  if (!o.buscar.empty() && o.orden.empty()) throw ErrorDeUso("--buscar necesita --orden (los campos de la búsqueda)");
  if (o.exacto && o.buscar.empty()) throw ErrorDeUso("--exacto sin --buscar");
  return o;
}

std::vector<int> indicesDeCampos(const dbase::DbfFile& tabla, const std::vector<std::string>& nombres,
                                 const std::string& opcion) {
  std::vector<int> indices;
  for (const auto& nombre : nombres) {
    const int i = tabla.fieldIndex(nombre);
    if (i < 0) throw ErrorDeUso(tabla.name() + ": " + opcion + ": campo desconocido: " + nombre);
    indices.push_back(i);
  }
  return indices;
}

// --orden: one name that is a tag of the table's production index orders by
// that tag (saying so when it is a field too); otherwise field names.
// Returns how many values a search on the order takes.
size_t ordena(dbase::Cursor& cursor, const std::vector<std::string>& orden) {
  dbase::DbfFile& tabla = cursor.file();
  if (orden.size() == 1) {
    dbase::MdxTags& mdx = dbase::MdxTags::of(tabla);
    if (mdx.has(orden[0])) {
      dbase::MdxTag* tag = mdx.tag(orden[0]);
      if (tabla.fieldIndex(orden[0]) >= 0)
        std::fprintf(stderr, "codpostales: --orden %s: se ordena por el índice %s del MDX (%s), no por el campo\n",
                     orden[0].c_str(), tag->info().name.c_str(), tag->info().expression.c_str());
      cursor.setOrder(*tag, tag->expression().fields());
      return tag->expression().fields().size();
    }
  }
  cursor.setOrder(indicesDeCampos(tabla, orden, "--orden"));
  return orden.size();
}

std::string hex2(unsigned valor) {
  char texto[8];
  std::snprintf(texto, sizeof texto, "0x%02X", valor & 0xFFu);
  return texto;
}

// "índice: NOMBRE  EXPRESIÓN [PARA CONDICIÓN]  (C 20, único, descendente)"
void anadeIndices(dbase::DbfFile& tabla, std::string& s) {
  dbase::MdxTags& mdx = dbase::MdxTags::of(tabla);
  if (!mdx.problem().empty()) s += "aviso: " + mdx.problem() + "\n";
  for (const auto& aviso : mdx.warnings()) s += "aviso: " + aviso + "\n";
  if (!mdx.present()) return;
  s += "índices: " + std::to_string(mdx.tags().size()) + " (" + mdx.path() + ")\n";
  for (const auto& t : mdx.tags()) {
    char tipo[32];
    std::snprintf(tipo, sizeof tipo, "%c %u", t.keyType, unsigned(t.keyLength));
    std::string linea = "índice: " + t.name + "  " + t.expression;
    if (!t.forExpression.empty()) linea += " PARA " + t.forExpression;
    linea += "  (" + std::string(tipo);
    if (t.unique) linea += ", único";
    if (t.descending) linea += ", descendente";
    linea += ")";
    try {
      mdx.tag(t.name);
    } catch (const dbase::Error& e) {
      linea += "  inservible: " + e.fault();
    }
    s += linea + "\n";
  }
}

void muestraInfo(dbase::DbfFile& tabla) {
  int anio = 0, mes = 0, dia = 0;
  tabla.lastUpdate(anio, mes, dia);
  char fecha[32];
  std::snprintf(fecha, sizeof fecha, "%04d-%02d-%02d", 1900 + anio, mes, dia);
  std::string s;
  s += "fichero: " + tabla.path() + "\n";
  s += "versión: " + hex2(tabla.version()) + "\n";
  s += "controlador de idioma: " + hex2(tabla.languageDriver()) + "\n";
  s += "página de códigos: " + std::to_string(tabla.codePage().number()) + "\n";
  s += "registros: " + std::to_string(tabla.recordCount()) + "\n";
  s += "borrados: " + std::to_string(tabla.deletedCount()) + "\n";
  s += "última actualización: " + std::string(fecha) + "\n";
  s += std::string("MDX de producción: ") + (tabla.hasProductionMdx() ? "sí" : "no") + "\n";
  for (const auto& aviso : tabla.warnings()) s += "aviso: " + aviso + "\n";
  s += "campos: " + std::to_string(tabla.fields().size()) + "\n";
  for (const auto& f : tabla.fields()) {
    char linea[96];
    std::snprintf(linea, sizeof linea, "campo: %-10s %c %3u %2u\n", f.name.c_str(), static_cast<char>(f.type),
                  f.length, f.decimals);
    s += linea;
  }
  anadeIndices(tabla, s);
  escribe(s);
}

}  // namespace

int tabla(const std::vector<std::string>& args) {
  const OpcionesTabla o = leeOpciones(args);
  if (o.ayuda) {
    muestraUso(stdout);
    return kSalidaBien;
  }
  auto fichero = abreTabla(o.fichero);
  if (o.info) {
    muestraInfo(*fichero);
    return kSalidaBien;
  }

  std::vector<int> columnas;
  if (o.campos.empty()) {
    for (size_t i = 0; i < fichero->fields().size(); ++i) columnas.push_back(int(i));
  } else {
    columnas = indicesDeCampos(*fichero, o.campos, "--campos");
  }

  dbase::Cursor cursor(fichero);
  const size_t camposDelOrden = ordena(cursor, o.orden);
  if (o.buscar.size() > camposDelOrden)
    throw ErrorDeUso("--buscar se da " + std::to_string(o.buscar.size()) + " veces y el orden tiene " +
                     std::to_string(camposDelOrden) + " campos");
  if (o.filtro) {
    try {
      cursor.setFilter(*o.filtro);
    } catch (const dbase::Error& e) {
      throw ErrorDeUso(fichero->name() + ": filtro no válido: «" + e.subject() + "»: " + e.fault());
    }
  }

  std::string salida;
  std::vector<std::string> valores;
  for (int c : columnas) valores.push_back(fichero->fields()[size_t(c)].name);
  anadeCsv(salida, valores);

  if (o.buscar.empty()) {
    cursor.first();
  } else if (!cursor.seek(o.buscar, o.exacto) && o.exacto) {
    escribe(salida);
    return kSalidaNoEncontrado;
  }

  const auto& campos = fichero->fields();
  size_t escritas = 0;
  for (; !cursor.eof() && cursor.recno() != 0; cursor.next()) {
    if (o.limite && escritas == *o.limite) break;
    const char* registro = cursor.record();
    valores.clear();
    for (int c : columnas) valores.push_back(dbase::fieldText(campos[size_t(c)], registro, fichero->codePage()));
    anadeCsv(salida, valores);
    ++escritas;
    if (salida.size() >= (1u << 16)) {
      escribe(salida);
      salida.clear();
    }
  }
  escribe(salida);
  return kSalidaBien;
}

}  // namespace cli
