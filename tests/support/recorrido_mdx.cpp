#include "support/recorrido_mdx.h"

#include <cstdio>
#include <sstream>

#include "dbase/core/mdx_file.h"

namespace testsupport {

namespace {

std::string hex(std::string_view bytes) {
  static const char digitos[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out += digitos[c >> 4];
    out += digitos[c & 15];
  }
  return out;
}

// Prints "TAG hexkey recno" for every entry of every tag, tag after tag.
const char* kGuion = R"(
use XBase::Index;
my $f = shift;
my $all = XBase::Index->new($f) or die XBase::Index->errstr;
for my $name (sort keys %{$all->{tags}}) {
  my $i = XBase::Index->new($f, tag => $name) or die XBase::Index->errstr;
  $i->prepare_select;
  while (my @k = $i->fetch) { print $name, " ", unpack("H*", $k[0]), " ", $k[1], "\n" }
  print $name, "\n";
}
)";

std::string comillas(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

}  // namespace

std::map<std::string, Recorrido> recorridosDelMotor(const std::string& mdx) {
  std::map<std::string, Recorrido> out;
  auto file = dbase::MdxFile::open(mdx);
  for (size_t t = 0; t < file->tags().size(); ++t) {
    Recorrido& r = out[file->tags()[t].name];
    file->walk(t, [&](std::string_view key, uint32_t recno) { r.push_back(hex(key) + " " + std::to_string(recno)); });
  }
  return out;
}

std::map<std::string, Recorrido> recorridosConPerl(const std::string& mdx, std::string& error) {
  std::map<std::string, Recorrido> out;
  const std::string orden = "perl -e " + comillas(kGuion) + " " + comillas(mdx) + " 2>&1";
  FILE* tubo = ::popen(orden.c_str(), "r");
  if (!tubo) {
    error = "no se puede ejecutar perl";
    return {};
  }
  std::string texto;
  char bloque[1 << 16];
  size_t n;
  while ((n = std::fread(bloque, 1, sizeof bloque, tubo)) > 0) texto.append(bloque, n);
  const int estado = ::pclose(tubo);
  if (estado != 0) {
    error = "perl terminó con " + std::to_string(estado) + ": " + texto.substr(0, 400);
    return {};
  }
  std::istringstream lineas(texto);
  std::string linea;
  while (std::getline(lineas, linea)) {
    const size_t espacio = linea.find(' ');
    if (espacio == std::string::npos) {
      out[linea];  // a tag walked to its end, perhaps with no entries
      continue;
    }
    out[linea.substr(0, espacio)].push_back(linea.substr(espacio + 1));
  }
  return out;
}

std::map<std::string, Entries> walkAll(const std::string& mdx) {
  std::map<std::string, Entries> out;
  auto file = dbase::MdxFile::open(mdx);
  for (size_t t = 0; t < file->tags().size(); ++t) {
    Entries& e = out[file->tags()[t].name];
    file->walk(t, [&](std::string_view key, uint32_t recno) { e.emplace_back(std::string(key), recno); });
  }
  return out;
}

std::vector<uint32_t> registrosDe(const Recorrido& recorrido) {
  std::vector<uint32_t> out;
  out.reserve(recorrido.size());
  for (const std::string& e : recorrido) out.push_back(uint32_t(std::stoul(e.substr(e.rfind(' ') + 1))));
  return out;
}

std::string faltaOSobra(const Recorrido& recorrido, uint32_t filas) {
  std::vector<int> vistas(size_t(filas) + 1, 0);
  for (uint32_t r : registrosDe(recorrido)) {
    if (r == 0 || r > filas) return "el registro " + std::to_string(r) + " no existe (hay " + std::to_string(filas) + ")";
    if (++vistas[r] > 1) return "el registro " + std::to_string(r) + " está más de una vez";
  }
  for (uint32_t r = 1; r <= filas; ++r)
    if (!vistas[r]) return "falta el registro " + std::to_string(r) + " (" + std::to_string(recorrido.size()) + " de " +
                           std::to_string(filas) + ")";
  return {};
}

}  // namespace testsupport
