// bench_ine: INE's street directory (TRAM and VIAS) stored into the street
// tables of a copy of the national set's reference tables, as
// `codpostales importar-ine` stores it: the national files of both designs
// into empty street files (made with their production index), one
// province's own files, the national files again when every row is stored
// already, and the reading and joining alone.
//
//   bench_ine [--datos=DIR] [--tmp=DIR] [--ine=DIR] [--tipos=FICHERO]
//
// --ine (or CODPOSTALES_BENCH_INE) is the folder generar_ine wrote, with its
// antiguo/ and nuevo/ folders (the build's datos/ine by default); --tipos
// INE's street-type table (../shared/data/ine_tipos_via.csv beside the
// checkout by default). Each run starts from a fresh copy of PROVIN,
// MUNICIPI, MUNICIMJ, TIPO_VIA and POSTAL.DBF with an empty Postales
// folder, made outside the clock; the cache of closed tables is off, as in a
// new process.
#include <benchmark/benchmark.h>

#include <QString>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "comun.h"
#include "dbase/core/dbf_file.h"
#include "import/CallejeroIne.h"
#include "import/ImportarCallejeroIne.h"

namespace fs = std::filesystem;

namespace {

std::string gIne;
std::string gTipos;

// The first file of the folder whose name begins with `prefijo`.
std::string fichero(const std::string& diseno, const std::string& prefijo) {
  const fs::path dir = fs::path(gIne) / diseno;
  std::vector<std::string> nombres;
  if (fs::is_directory(dir))
    for (const auto& e : fs::directory_iterator(dir))
      if (e.path().filename().string().rfind(prefijo, 0) == 0) nombres.push_back(e.path().string());
  std::sort(nombres.begin(), nombres.end());
  return nombres.empty() ? std::string() : nombres.front();
}

// National files: TRAM.P01-52... (old) or TRAM.D... (new); a province's: TRAM.Pnn.
std::string tramos(const std::string& diseno, const std::string& provincia) {
  if (!provincia.empty()) return fichero(diseno, "TRAM.P" + provincia + ".");
  const std::string antiguo = fichero(diseno, "TRAM.P01-52.");
  return antiguo.empty() ? fichero(diseno, "TRAM.D") : antiguo;
}
std::string vias(const std::string& diseno, const std::string& provincia) {
  if (!provincia.empty()) return fichero(diseno, "VIAS.P" + provincia + ".");
  const std::string antiguo = fichero(diseno, "VIAS.P01-52.");
  return antiguo.empty() ? fichero(diseno, "VIAS.D") : antiguo;
}

// A fresh alias folder: the national set's reference tables and general
// street file, an empty Postales folder.
std::string carpetaNueva() {
  const fs::path dir = fs::path(bench::temporal()) / "ine";
  fs::remove_all(dir);
  fs::create_directories(dir / "Postales");
  for (const auto& e : fs::directory_iterator(bench::datos()))
    if (e.is_regular_file()) fs::copy_file(e.path(), dir / e.path().filename());
  return dir.string();
}

ResumenCallejeroIne importa(const std::string& carpeta, const std::string& tram, const std::string& via) {
  return ImportaCallejeroIne(QString::fromStdString(carpeta), QString::fromStdString(tram),
                             QString::fromStdString(via), QString::fromStdString(gTipos), {});
}

void ponContadores(benchmark::State& state, const ResumenCallejeroIne& r) {
  state.counters["tramos"] = double(r.tramos);
  state.counters["filas"] = double(r.filasGuardadas);
  state.counters["ya_guardadas"] = double(r.filasYaGuardadas);
}

bool faltan(benchmark::State& state, const std::string& tram, const std::string& via) {
  if (!tram.empty() && !via.empty()) return false;
  state.SkipWithError(("no están los ficheros del INE en " + gIne + " (cmake --build BUILD --target datos_ine)").c_str());
  return true;
}

void Importa(benchmark::State& state, const std::string& diseno, const std::string& provincia, bool repetida) {
  const std::string tram = tramos(diseno, provincia), via = vias(diseno, provincia);
  if (faltan(state, tram, via)) return;
  ResumenCallejeroIne r;
  for (auto _ : state) {
    state.PauseTiming();
    const std::string carpeta = carpetaNueva();
    if (repetida) importa(carpeta, tram, via);
    state.ResumeTiming();
    r = importa(carpeta, tram, via);
  }
  ponContadores(state, r);
  state.counters["tramos_por_s"] = benchmark::Counter(double(r.tramos), benchmark::Counter::kIsRate);
}

void Lee(benchmark::State& state, const std::string& diseno) {
  const std::string tram = tramos(diseno, ""), via = vias(diseno, "");
  if (faltan(state, tram, via)) return;
  size_t leidos = 0;
  for (auto _ : state) {
    const ine::Callejero c = ine::LeeCallejero(tram, via, {}, {});
    leidos = c.lineasTramos;
    benchmark::DoNotOptimize(c.tramos.data());
  }
  state.counters["tramos"] = double(leidos);
  state.counters["tramos_por_s"] = benchmark::Counter(double(leidos), benchmark::Counter::kIsRate);
}

void registra() {
  dbase::DbfFile::setCacheLimit(0);
  for (const char* diseno : {"antiguo", "nuevo"}) {
    const std::string d = diseno;
    benchmark::RegisterBenchmark(("ine/nacional/" + d).c_str(),
                                 [d](benchmark::State& s) { Importa(s, d, "", false); })
        ->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
    benchmark::RegisterBenchmark(("ine/provincia/28/" + d).c_str(),
                                 [d](benchmark::State& s) { Importa(s, d, "28", false); })
        ->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
  }
  benchmark::RegisterBenchmark("ine/nacional/nuevo/repetida", [](benchmark::State& s) { Importa(s, "nuevo", "", true); })
      ->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
  benchmark::RegisterBenchmark("ine/leer/nacional/nuevo", [](benchmark::State& s) { Lee(s, "nuevo"); })
      ->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
}

}  // namespace

int main(int argc, char** argv) {
  gIne = std::getenv("CODPOSTALES_BENCH_INE") ? std::getenv("CODPOSTALES_BENCH_INE") : CODPOSTALES_DATOS_INE;
  gTipos = CODPOSTALES_TIPOS_INE;
  std::vector<char*> resto;
  for (int i = 0; i < argc; ++i) {
    if (std::strncmp(argv[i], "--ine=", 6) == 0)
      gIne = argv[i] + 6;
    else if (std::strncmp(argv[i], "--tipos=", 8) == 0)
      gTipos = argv[i] + 8;
    else
      resto.push_back(argv[i]);
  }
  if (!fs::exists(gTipos)) gTipos.clear();  // then the type of every street is unknown
  int n = int(resto.size());
  return bench::principal(n, resto.data(), registra);
}
