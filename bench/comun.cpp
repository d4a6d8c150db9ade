#include "comun.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <stdexcept>

#include "dbase/core/cursor.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"

namespace fs = std::filesystem;

namespace bench {

namespace {

void sinAvisosDePlataforma(QtMsgType tipo, const QMessageLogContext&, const QString& texto) {
  if (texto.startsWith(QLatin1String("This plugin does not support"))) return;
  std::fprintf(stderr, "%s\n", qPrintable(texto));
  if (tipo == QtFatalMsg) std::abort();
}

}  // namespace

void plataformaSinVentanas() {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  qInstallMessageHandler(sinAvisosDePlataforma);
}

namespace {

std::string gDatos;
std::string gTemporal;
bool gTemporalPropio = false;  // made by us: removed at exit
std::vector<std::string> gCreados;

struct Limpieza {
  ~Limpieza() {
    std::error_code ec;
    for (const auto& f : gCreados) fs::remove(f, ec);
    if (gTemporalPropio && !gTemporal.empty()) fs::remove_all(gTemporal, ec);
  }
} gLimpieza;

uint32_t filasDeCabecera(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char h[8] = {};
  in.read(reinterpret_cast<char*>(h), sizeof h);
  return uint32_t(h[4]) | uint32_t(h[5]) << 8 | uint32_t(h[6]) << 16 | uint32_t(h[7]) << 24;
}

std::string upper(std::string s) {
  for (char& c : s) c = char(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

// The province street files of the set, largest first.
std::vector<std::string> callejeros() {
  std::vector<std::pair<uint32_t, std::string>> found;
  for (const auto& carpeta : fs::directory_iterator(datos())) {
    if (!carpeta.is_directory() || upper(carpeta.path().filename().string()) != "POSTALES") continue;
    for (const auto& e : fs::directory_iterator(carpeta.path())) {
      const std::string name = upper(e.path().filename().string());
      if (name.size() == 12 && name.starts_with("POSTAL") && name.ends_with(".DBF"))
        found.emplace_back(filasDeCabecera(e.path().string()), e.path().string());
    }
  }
  if (found.empty()) throw std::runtime_error("no hay ficheros Postales/POSTALnn.DBF en " + datos());
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
    return a.first != b.first ? a.first > b.first : a.second < b.second;
  });
  std::vector<std::string> out;
  for (auto& f : found) out.push_back(std::move(f.second));
  return out;
}

void inicia(int& argc, char** argv) {
  int out = 1;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a.starts_with("--datos="))
      gDatos = a.substr(8);
    else if (a.starts_with("--tmp="))
      gTemporal = a.substr(6);
    else
      argv[out++] = argv[i];
  }
  argc = out;
  argv[argc] = nullptr;
  if (gDatos.empty())
    if (const char* e = std::getenv("CODPOSTALES_BENCH_DATOS"); e && *e) gDatos = e;
  if (gDatos.empty()) gDatos = CODPOSTALES_DATOS_NACIONALES;
  if (gTemporal.empty())
    if (const char* e = std::getenv("CODPOSTALES_BENCH_TMP"); e && *e) gTemporal = e;
}

}  // namespace

int principal(int argc, char** argv, void (*registra)()) {
  inicia(argc, argv);
  if (!fs::exists(fs::path(datos()) / "MUNICIPI.DBF")) {
    std::fprintf(stderr, "no está el juego de datos nacional en %s (cmake --build BUILD --target datos_nacionales)\n",
                 datos().c_str());
    return 1;
  }
  registra();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::AddCustomContext("datos", datos());
  benchmark::AddCustomContext("callejero_mayor", mayorCallejero());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

const std::string& datos() { return gDatos; }

std::string municipi() { return (fs::path(datos()) / "MUNICIPI.DBF").string(); }

std::string mayorCallejero() {
  static const std::string mayor = callejeros().front();
  return mayor;
}

const std::string& temporal() {
  if (gTemporal.empty()) {
    std::string pattern = (fs::temp_directory_path() / "codpostales-bench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp: " + std::string(std::strerror(errno)));
    gTemporal = pattern;
    gTemporalPropio = true;
  } else {
    fs::create_directories(gTemporal);
  }
  return gTemporal;
}

void cortaCaracteres(std::string& texto, size_t chars) {
  size_t at = 0;
  while (at < texto.size() && chars > 0) {
    ++at;
    while (at < texto.size() && (static_cast<unsigned char>(texto[at]) & 0xC0) == 0x80) ++at;
    --chars;
  }
  texto.resize(at);
}

void mideBusquedas(benchmark::State& state, dbase::Cursor& cursor,
                   const std::vector<std::vector<std::string>>& claves, bool exacta) {
  std::vector<double> muestras;
  muestras.reserve(size_t(state.max_iterations));
  size_t i = 0, encontradas = 0;
  for (auto _ : state) {
    const auto& k = claves[i++ % claves.size()];
    const auto t0 = Reloj::now();
    const bool ok = cursor.seek(k, exacta);
    const auto t1 = Reloj::now();
    encontradas += ok;
    muestras.push_back(ns(t0, t1));
  }
  if (exacta && encontradas != i) state.SkipWithError("una búsqueda exacta de una clave de la tabla falló");
  state.counters["filas"] = double(cursor.file().recordCount());
  ponPercentiles(state, muestras);
}

// A copy made outside the clock reaches the disk outside it too: otherwise
// the kernel writes tens of megabytes back while the timed part runs, on the
// same cores, and the larger copies (those with an index file) pay more.
void enDisco(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error(path + ": " + std::strerror(errno));
  const bool hecho = ::fsync(fd) == 0;
  ::close(fd);
  if (!hecho) throw std::runtime_error("fsync " + path + ": " + std::strerror(errno));
}

void copiaTabla(const std::string& origen, const std::string& destino) {
  auto copia = [](const std::string& de, const std::string& a) {
    fs::copy_file(de, a, fs::copy_options::overwrite_existing);
    enDisco(a);
    if (std::find(gCreados.begin(), gCreados.end(), a) == gCreados.end()) gCreados.push_back(a);
  };
  copia(origen, destino);
  // A table goes with its production index, under the copy's name.
  const fs::path indice = fs::path(origen).replace_extension(".MDX");
  if (fs::path(origen).extension() == ".DBF" && fs::exists(indice))
    copia(indice.string(), fs::path(destino).replace_extension(".MDX").string());
}

std::string copiaEnTemporal(const std::string& origen, const std::string& nombre) {
  const std::string destino = (fs::path(temporal()) / nombre).string();
  copiaTabla(origen, destino);
  return destino;
}

std::string callejeroDeFilas(size_t filas) {
  static std::map<size_t, std::string> hechos;
  if (auto it = hechos.find(filas); it != hechos.end()) return it->second;
  const std::string destino = (fs::path(temporal()) / "POSTAL00.DBF").string();
  gCreados.push_back(destino);
  {
    const auto fuentes = callejeros();
    auto primera = dbase::DbfFile::open(fuentes.front());
    std::vector<dbase::FieldSpec> campos;
    for (const auto& f : primera->fields()) campos.push_back({f.name, f.type, f.length, f.decimals});
    const uint8_t driver = primera->languageDriver();
    const uint32_t longitud = primera->recordLength();
    primera.reset();
    auto tabla = dbase::DbfFile::create(destino, campos, driver, /*overwrite=*/true);
    for (const auto& fuente : fuentes) {
      if (tabla->recordCount() >= filas) break;
      auto f = dbase::DbfFile::open(fuente);
      if (f->recordLength() != longitud || f->fields().size() != campos.size() || f->recordCount() == 0) continue;
      const size_t toma = std::min<size_t>(f->recordCount(), filas - tabla->recordCount());
      f->readAllRows();  // the rows side by side from the first on
      tabla->appendMany(std::string_view(f->record(1), toma * longitud));
    }
    if (tabla->recordCount() != filas)
      throw std::runtime_error("los callejeros no suman " + std::to_string(filas) + " filas");
  }  // released: the benchmarks open it afresh
  hechos[filas] = destino;
  return destino;
}

std::vector<uint32_t> filasParaAnadir(uint32_t count, size_t n) {
  std::vector<uint32_t> out;
  out.reserve(n);
  for (size_t i = 0; i < n; ++i) out.push_back(uint32_t((uint64_t(i) * 7919u) % count + 1));
  return out;
}

std::vector<QStringList> textosParaAnadir(const std::string& path, size_t n) {
  auto f = dbase::DbfFile::open(path);
  std::vector<QStringList> out;
  out.reserve(n);
  for (uint32_t r : filasParaAnadir(f->recordCount(), n)) {
    QStringList v;
    for (const auto& fd : f->fields()) v << QString::fromStdString(dbase::fieldText(fd, f->record(r), f->codePage()));
    out.push_back(std::move(v));
  }
  return out;
}

std::vector<uint32_t> filasAlAzar(const dbase::DbfFile& file, size_t n, uint64_t semilla) {
  std::mt19937_64 rng(semilla);
  std::uniform_int_distribution<uint32_t> dist(1, file.recordCount());
  std::vector<uint32_t> out;
  out.reserve(n);
  while (out.size() < n) {
    uint32_t r = dist(rng);
    if (!file.isDeleted(r)) out.push_back(r);
  }
  return out;
}

void ponPercentiles(benchmark::State& state, std::vector<double>& m) {
  if (m.empty()) return;
  std::sort(m.begin(), m.end());
  auto at = [&](double q) { return m[std::min(m.size() - 1, size_t(std::ceil(q * double(m.size()))) - 1)] / 1000.0; };
  state.counters["p50_us"] = at(0.50);
  state.counters["p90_us"] = at(0.90);
  state.counters["p99_us"] = at(0.99);
  state.counters["max_us"] = m.back() / 1000.0;
}

bool compruebaLiberado(benchmark::State& state, const std::weak_ptr<dbase::DbfFile>& file) {
  if (file.expired()) return true;
  state.SkipWithError("la tabla sigue abierta: la siguiente apertura no leería el fichero");
  return false;
}

}  // namespace bench
