// Benchmarks of the engine core (DbfFile, IndexTag, Cursor), without the Qt
// facade: what a table costs to load, what each tag costs to build, searches
// on a million rows, a full read of every field, and appends with tags kept.
// Opens are cold (the cache of closed tables is off) except in reabrir_*,
// which opens again a table just closed, as the cache serves it.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "comun.h"
#include "dbase/core/cursor.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"
#include "dbase/core/index_tag.h"
#include "dbase/core/tag_set.h"

using dbase::Cursor;
using dbase::DbfFile;

namespace {

struct Tag {
  const char* nombre;
  std::vector<const char*> campos;
};

const std::vector<Tag> kTagsMunicipi = {
    {"COD_INE", {"COD_INE"}}, {"NOMBRE", {"NOMBRE"}}, {"CODPOSTAL", {"CODPOSTAL"}}, {"CPROVMUN", {"COD_PROV", "COD_MUN"}}};
const std::vector<Tag> kTagsCalles = {{"VIA", {"PROVINCIA", "CAPITAL", "VIA", "TIPO_VIA"}},
                                      {"MUNICIPI", {"MUNICIPI"}},
                                      {"COD_INE", {"COD_INE"}},
                                      {"SOLOVIA", {"VIA"}}};

std::vector<int> indices(const DbfFile& f, const std::vector<const char*>& campos) {
  std::vector<int> out;
  for (const char* c : campos) out.push_back(f.fieldIndex(c));
  return out;
}

// Every field of the row as the engine hands it out: C text decoded to
// UTF-8, numbers read, flags read. Returns something that depends on all.
size_t leeFila(const DbfFile& f, const char* record) {
  size_t suma = 0;
  for (const auto& fd : f.fields()) {
    switch (fd.type) {
      case dbase::FieldType::Numeric:
      case dbase::FieldType::Float:
        suma += size_t(dbase::fieldNumber(fd, record).value_or(0));
        break;
      case dbase::FieldType::Logical:
        suma += dbase::fieldFlag(fd, record);
        break;
      default:
        suma += dbase::fieldText(fd, record, f.codePage()).size();
    }
  }
  return suma;
}

// ---- open ------------------------------------------------------------------

// Load only: header, rows into memory, deleted count.
void abrir(benchmark::State& state, std::string path) {
  std::weak_ptr<DbfFile> visto;
  for (auto _ : state) {
    auto f = DbfFile::open(path);
    benchmark::DoNotOptimize(f->recordCount());
    visto = f;
    f.reset();
    if (!bench::compruebaLiberado(state, visto)) return;
  }
  state.counters["filas"] = double(DbfFile::open(path)->recordCount());
}

// Load and build the four tags of the file.
void abrirConTags(benchmark::State& state, std::string path, const std::vector<Tag>* tags) {
  std::weak_ptr<DbfFile> visto;
  uint32_t filas = 0;
  for (auto _ : state) {
    auto f = DbfFile::open(path);
    for (const auto& t : *tags) benchmark::DoNotOptimize(dbase::TagSet::of(*f).tag(indices(*f, t.campos)).size());
    filas = f->recordCount();
    visto = f;
    f.reset();
    if (!bench::compruebaLiberado(state, visto)) return;
  }
  state.counters["filas"] = double(filas);
  state.counters["filas_por_s"] = benchmark::Counter(double(filas), benchmark::Counter::kIsIterationInvariantRate);
}

// Opening again a table closed with its four tags built: served by the cache
// of closed tables (checked against the file on disk each time).
void reabrirConTags(benchmark::State& state, std::string path, const std::vector<Tag>* tags) {
  DbfFile::setCacheLimit(512ull << 20);
  {
    auto f = DbfFile::open(path);
    for (const auto& t : *tags) dbase::TagSet::of(*f).tag(indices(*f, t.campos)).size();
  }
  for (auto _ : state) {
    auto f = DbfFile::open(path);
    for (const auto& t : *tags) {
      dbase::IndexTag& tag = dbase::TagSet::of(*f).tag(indices(*f, t.campos));
      if (!tag.built()) state.SkipWithError("la caché no guardó los tags");
      benchmark::DoNotOptimize(tag.size());
    }
  }
  DbfFile::setCacheLimit(0);
}

// Building one tag of an open table, again and again.
void construirTag(benchmark::State& state, std::string path, std::vector<const char*> campos) {
  auto f = DbfFile::open(path);
  auto& tag = dbase::TagSet::of(*f).tag(indices(*f, campos));
  for (auto _ : state) {
    tag.invalidate();
    benchmark::DoNotOptimize(tag.size());
  }
  state.counters["filas"] = double(f->recordCount());
}

// ---- seek ------------------------------------------------------------------

// Cursor::seek on a tag, one timed search per iteration, keys taken from
// random rows. Partial: the first 1 to 8 characters of the last field.
void buscar(benchmark::State& state, std::string path, std::vector<const char*> campos, bool exacta) {
  auto f = DbfFile::open(path);
  const auto orden = indices(*f, campos);
  Cursor c(f);
  c.setOrder(orden);
  std::vector<std::vector<std::string>> claves;
  std::mt19937 rng(7);
  for (uint32_t r : bench::filasAlAzar(*f, 4096)) {
    std::vector<std::string> v;
    for (int i : orden) v.push_back(dbase::fieldText(f->fields()[size_t(i)], f->record(r), f->codePage()));
    if (!exacta) bench::cortaCaracteres(v.back(), 1 + rng() % 8);
    claves.push_back(std::move(v));
  }
  bench::mideBusquedas(state, c, claves, exacta);
}

// ---- full scan ---------------------------------------------------------------

void recorrer(benchmark::State& state, std::string path) {
  auto f = DbfFile::open(path);
  for (auto _ : state) {
    size_t suma = 0;
    for (uint32_t r = 1; r <= f->recordCount(); ++r)
      if (!f->isDeleted(r)) suma += leeFila(*f, f->record(r));
    benchmark::DoNotOptimize(suma);
  }
  state.counters["filas"] = double(f->recordCount());
  state.counters["filas_por_s"] =
      benchmark::Counter(double(f->recordCount()), benchmark::Counter::kIsIterationInvariantRate);
}

void abrirYRecorrer(benchmark::State& state, std::string path) {
  std::weak_ptr<DbfFile> visto;
  uint32_t filas = 0;
  for (auto _ : state) {
    auto f = DbfFile::open(path);
    size_t suma = 0;
    for (uint32_t r = 1; r <= f->recordCount(); ++r)
      if (!f->isDeleted(r)) suma += leeFila(*f, f->record(r));
    benchmark::DoNotOptimize(suma);
    filas = f->recordCount();
    visto = f;
    f.reset();
    if (!bench::compruebaLiberado(state, visto)) return;
  }
  state.counters["filas"] = double(filas);
  state.counters["filas_por_s"] = benchmark::Counter(double(filas), benchmark::Counter::kIsIterationInvariantRate);
}

// ---- append ----------------------------------------------------------------

// 100,000 rows of the file appended to a fresh copy of it whose four tags
// are built (not timed); the time includes bringing all four up to date.
// `lote` rows per call: 1 = DbfFile::append, more = DbfFile::appendMany.
void anadir(benchmark::State& state, std::string path, size_t lote) {
  constexpr size_t kFilas = 100000;
  for (auto _ : state) {
    const std::string copia = bench::copiaEnTemporal(path, "POSTAL97.DBF");
    auto f = DbfFile::open(copia);
    for (const auto& t : kTagsCalles) dbase::TagSet::of(*f).tag(indices(*f, t.campos)).size();
    std::string filas;
    for (uint32_t r : bench::filasParaAnadir(f->recordCount(), kFilas)) filas.append(f->record(r), f->recordLength());
    const size_t largo = f->recordLength();
    const auto t0 = bench::Reloj::now();
    for (size_t i = 0; i < kFilas; i += lote)
      f->appendMany(std::string_view(filas).substr(i * largo, std::min(lote, kFilas - i) * largo));
    // Every tag up to date before the clock stops: tags nobody asks take
    // appended rows when next asked.
    const auto tAnadido = bench::Reloj::now();
    for (const auto& t : kTagsCalles) benchmark::DoNotOptimize(dbase::TagSet::of(*f).tag(indices(*f, t.campos)).size());
    const auto t1 = bench::Reloj::now();
    state.counters["al_dia_ms"] = bench::ns(tAnadido, t1) / 1e6;
    state.SetIterationTime(bench::ns(t0, t1) / 1e9);
    if (f->recordCount() != kFilas + DbfFile::open(path)->recordCount()) state.SkipWithError("faltan filas");
    for (const auto& t : kTagsCalles)
      if (dbase::TagSet::of(*f).tag(indices(*f, t.campos)).size() != f->recordCount()) state.SkipWithError("un tag no tiene todas las filas");
  }
  state.counters["filas_por_s"] = benchmark::Counter(double(kFilas), benchmark::Counter::kIsIterationInvariantRate);
}

void registra() {
  const std::string mun = bench::municipi();
  const std::string calles = bench::mayorCallejero();
  const std::string nombreCalles = std::filesystem::path(calles).filename().string();
  using benchmark::RegisterBenchmark;
  auto ms = [](benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond)->UseRealTime(); };
  dbase::DbfFile::setCacheLimit(0);  // every open reads the file

  ms(RegisterBenchmark("nucleo/abrir/MUNICIPI", abrir, mun));
  ms(RegisterBenchmark(("nucleo/abrir/" + nombreCalles).c_str(), abrir, calles));
  ms(RegisterBenchmark("nucleo/abrir_con_4_tags/MUNICIPI", abrirConTags, mun, &kTagsMunicipi));
  ms(RegisterBenchmark(("nucleo/abrir_con_4_tags/" + nombreCalles).c_str(), abrirConTags, calles, &kTagsCalles));
  for (const auto& t : kTagsCalles)
    ms(RegisterBenchmark(("nucleo/construir_tag/" + nombreCalles + "/" + t.nombre).c_str(), construirTag, calles,
                         t.campos));
  RegisterBenchmark(("nucleo/reabrir_con_4_tags/" + nombreCalles).c_str(), reabrirConTags, calles, &kTagsCalles)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();

  // Searches on a million rows (POSTAL00.DBF, made in the temporary folder).
  auto us = [](benchmark::internal::Benchmark* b) {
    b->Unit(benchmark::kMicrosecond)->Iterations(100000)->UseRealTime();
  };
  auto millon = [] { return bench::callejeroDeFilas(1000000); };
  us(RegisterBenchmark("nucleo/buscar_exacta/POSTAL00_1M/VIA", [=](benchmark::State& s) {
    buscar(s, millon(), kTagsCalles[0].campos, true);
  }));
  us(RegisterBenchmark("nucleo/buscar_parcial/POSTAL00_1M/VIA", [=](benchmark::State& s) {
    buscar(s, millon(), kTagsCalles[0].campos, false);
  }));
  us(RegisterBenchmark("nucleo/buscar_parcial/POSTAL00_1M/SOLOVIA", [=](benchmark::State& s) {
    buscar(s, millon(), kTagsCalles[3].campos, false);
  }));

  ms(RegisterBenchmark(("nucleo/recorrer/" + nombreCalles).c_str(), recorrer, calles));
  ms(RegisterBenchmark(("nucleo/abrir_y_recorrer/" + nombreCalles).c_str(), abrirYRecorrer, calles));
  ms(RegisterBenchmark("nucleo/abrir_y_recorrer/MUNICIPI", abrirYRecorrer, mun));

  auto una = [](benchmark::internal::Benchmark* b) {
    b->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);
  };
  una(RegisterBenchmark(("nucleo/anadir_100k_fila_a_fila/" + nombreCalles).c_str(), anadir, calles, size_t(1)));
  una(RegisterBenchmark(("nucleo/anadir_100k_lotes_1000/" + nombreCalles).c_str(), anadir, calles, size_t(1000)));
}

}  // namespace

int main(int argc, char** argv) { return bench::principal(argc, argv, registra); }
