// Tags served from a production index file: writing the index whole, opening
// a table with a tag of its index in force, searching and walking through it,
// appending rows with the index kept.
// The street tables get the four tags the street look-up declares, written
// by rebuildProductionIndex with the expressions an installation would use.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "comun.h"
#include "dbase/TTable.h"
#include "dbase/core/cursor.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"
#include "dbase/core/key_expression.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/mdx_tag.h"
#include "dbase/core/mdx_tags.h"

using dbase::Cursor;
using dbase::DbfFile;

namespace {

const std::vector<dbase::TagDefinition> kTagsCalles = {
    {"VIA", "PROVINCIA+CAPITAL+VIA+TIPO_VIA", "", false, false},
    {"MUNICIPI", "MUNICIPI", "", false, false},
    {"COD_INE", "COD_INE", "", false, false},
    {"SOLOVIA", "VIA", "", false, false}};

// A copy of the table in the temporary folder with its index written, once.
std::string conIndice(const std::string& origen, const std::string& nombre) {
  const std::string copia = bench::temporal() + "/" + nombre;
  if (!std::filesystem::exists(copia)) {
    bench::copiaEnTemporal(origen, nombre);
    auto f = DbfFile::open(copia);
    dbase::rebuildProductionIndex(*f, kTagsCalles);
  }
  return copia;
}

dbase::MdxTag& tagDe(DbfFile& f, const char* nombre) { return *dbase::MdxTags::of(f).tag(nombre); }

// The whole index written from the rows: keys evaluated, sorted, B-trees
// packed, the file synced and renamed over the old one.
void reindexar(benchmark::State& state, std::string origen) {
  const std::string copia = bench::copiaEnTemporal(origen, "POSTAL95.DBF");
  auto f = DbfFile::open(copia);
  for (auto _ : state) dbase::rebuildProductionIndex(*f, kTagsCalles);
  state.counters["filas"] = double(f->recordCount());
  state.counters["filas_por_s"] =
      benchmark::Counter(double(f->recordCount()), benchmark::Counter::kIsIterationInvariantRate);
}

// Open as the street look-up does: the file, its index, the VIA tag in force
// and the cursor on its first row.
void abrirConVia(benchmark::State& state, std::string origen) {
  const std::string copia = conIndice(origen, "POSTAL94.DBF");
  std::weak_ptr<DbfFile> visto;
  for (auto _ : state) {
    auto f = DbfFile::open(copia);
    {
      dbase::MdxTag& via = tagDe(*f, "VIA");
      Cursor c(f);
      c.setOrder(via, via.expression().fields());
      c.first();
      benchmark::DoNotOptimize(c.recno());
    }
    visto = f;
    f.reset();
    if (!bench::compruebaLiberado(state, visto)) return;
  }
}

// One timed search per iteration on the VIA tag of the index, keys from
// random rows; partial: the first 1 to 8 characters of the street.
void buscar(benchmark::State& state, bool exacta) {
  const std::string copia = conIndice(bench::callejeroDeFilas(1000000), "POSTAL93.DBF");
  auto f = DbfFile::open(copia);
  dbase::MdxTag& via = tagDe(*f, "VIA");
  const std::vector<int> campos = via.expression().fields();
  Cursor c(f);
  c.setOrder(via, campos);
  std::vector<std::vector<std::string>> claves;
  std::mt19937 rng(7);
  for (uint32_t r : bench::filasAlAzar(*f, 4096)) {
    std::vector<std::string> v;
    for (int i : campos) v.push_back(dbase::fieldText(f->fields()[size_t(i)], f->record(r), f->codePage()));
    if (!exacta) {
      v.resize(3);  // province, capital, street (partial)
      bench::cortaCaracteres(v.back(), 1 + rng() % 8);
    }
    claves.push_back(std::move(v));
  }
  bench::mideBusquedas(state, c, claves, exacta);
}

// Every row in the VIA tag's order, the tag read from its index file first
// (a fresh open each time).
void recorrerVia(benchmark::State& state, std::string origen) {
  const std::string copia = conIndice(origen, "POSTAL94.DBF");
  auto f = DbfFile::open(copia);
  size_t filas = 0;
  for (auto _ : state) {
    dbase::MdxTag& via = tagDe(*f, "VIA");
    f->syncWithDisk();
    Cursor c(f);
    c.setOrder(via, via.expression().fields());
    filas = 0;
    for (c.first(); !c.eof(); c.next()) ++filas;
    benchmark::DoNotOptimize(filas);
    state.PauseTiming();
    dbase::MdxTags::of(*f).rowsReloaded();  // the next walk reads the index file again
    state.ResumeTiming();
  }
  state.counters["filas"] = double(filas);
  state.counters["filas_por_s"] = benchmark::Counter(double(filas), benchmark::Counter::kIsIterationInvariantRate);
}

// How 100,000 appended rows keep the index: each call of `lote` rows ends
// with the index right on disk; or every call lies within one run of writes
// (WriteBatch), whose end brings the index to disk entry by entry or writes
// it whole from the rows.
enum class Mantenimiento { CadaLlamada, TandaEntradaAEntrada, TandaEnteroAlFinal };

// 100,000 rows of the file appended to a fresh copy of it with its index,
// `lote` rows per call; the clock stops with the index right on disk.
void anadir(benchmark::State& state, std::string origen, size_t lote, Mantenimiento como) {
  constexpr size_t kFilas = 100000;
  const std::string conTags = conIndice(origen, "POSTAL94.DBF");
  for (auto _ : state) {
    const std::string copia = bench::copiaEnTemporal(conTags, "POSTAL92.DBF");
    auto f = DbfFile::open(copia);
    dbase::MdxTags::of(*f);
    std::string filas;
    for (uint32_t r : bench::filasParaAnadir(f->recordCount(), kFilas)) filas.append(f->record(r), f->recordLength());
    const size_t largo = f->recordLength();
    ::sync();  // the copy's writing-back out of the clock
    const auto t0 = bench::Reloj::now();
    {
      std::optional<dbase::WriteBatch> tanda;
      if (como != Mantenimiento::CadaLlamada)
        tanda.emplace(*f, como == Mantenimiento::TandaEntradaAEntrada ? dbase::WriteBatch::Upkeep::EntryByEntry
                                                                      : dbase::WriteBatch::Upkeep::WholeAtEnd);
      for (size_t i = 0; i < kFilas; i += lote)
        f->appendMany(std::string_view(filas).substr(i * largo, std::min(lote, kFilas - i) * largo));
      if (tanda) tanda->finish();
    }
    const auto t1 = bench::Reloj::now();
    state.SetIterationTime(bench::ns(t0, t1) / 1e9);
    if (dbase::MdxTags::of(*f).tag("VIA")->size() != f->recordCount()) state.SkipWithError("el índice no tiene todas las filas");
  }
  state.counters["filas_por_s"] = benchmark::Counter(double(kFilas), benchmark::Counter::kIsIterationInvariantRate);
}

// The same 100,000 rows the way the host's code adds them: TTable Append,
// SetAsString of every field, Post, with the VIA tag in force, all within one
// run of writes; the clock stops when the run has the index on disk.
void anadirConTTable(benchmark::State& state, std::string origen) {
  constexpr size_t kFilas = 100000;
  const std::string conTags = conIndice(origen, "POSTAL94.DBF");
  for (auto _ : state) {
    const std::string copia = bench::copiaEnTemporal(conTags, "POSTAL92.DBF");
    const std::vector<QStringList> valores = bench::textosParaAnadir(copia, kFilas);
    TTable t;
    t.SetDatabaseName(QString::fromStdString(std::filesystem::path(copia).parent_path().string()));
    t.SetTableName(QString::fromStdString(std::filesystem::path(copia).filename().string()));
    t.Open();
    t.SetIndexName("VIA");  // a tag of the index file
    std::vector<TField*> campos;
    for (const QString& n : t.FieldNames()) campos.push_back(t.FieldByName(n));
    const int antes = t.RecordCount();
    t.DisableControls();
    ::sync();
    const auto t0 = bench::Reloj::now();
    {
      auto tanda = t.BeginWriteBatch();
      for (const QStringList& v : valores) {
        t.Append();
        for (size_t c = 0; c < campos.size(); ++c) campos[c]->SetAsString(v[qsizetype(c)]);
        t.Post();
      }
      tanda->finish();
    }
    const auto t1 = bench::Reloj::now();
    t.EnableControls();
    state.SetIterationTime(bench::ns(t0, t1) / 1e9);
    if (t.RecordCount() != antes + int(kFilas)) state.SkipWithError("faltan filas tras añadir");
  }
  state.counters["filas_por_s"] = benchmark::Counter(double(kFilas), benchmark::Counter::kIsIterationInvariantRate);
}

void registra() {
  const std::string calles = bench::mayorCallejero();
  const std::string nombreCalles = std::filesystem::path(calles).filename().string();
  using benchmark::RegisterBenchmark;
  auto ms = [](benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond)->UseRealTime(); };
  dbase::DbfFile::setCacheLimit(0);  // every open reads the file

  RegisterBenchmark("mdx/reindexar_4_tags/POSTAL00_1M",
                    [](benchmark::State& s) { reindexar(s, bench::callejeroDeFilas(1000000)); })
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime()
      ->Iterations(3);
  ms(RegisterBenchmark(("mdx/reindexar_4_tags/" + nombreCalles).c_str(), reindexar, calles));
  ms(RegisterBenchmark(("mdx/abrir_con_VIA/" + nombreCalles).c_str(), abrirConVia, calles));
  ms(RegisterBenchmark(("mdx/recorrer_VIA/" + nombreCalles).c_str(), recorrerVia, calles));
  auto us = [](benchmark::internal::Benchmark* b) {
    b->Unit(benchmark::kMicrosecond)->Iterations(100000)->UseRealTime();
  };
  auto una = [](benchmark::internal::Benchmark* b) {
    b->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);
  };
  using M = Mantenimiento;
  una(RegisterBenchmark(("mdx/anadir_100k_lotes_1000/" + nombreCalles).c_str(), anadir, calles, size_t(1000),
                        M::CadaLlamada));
  una(RegisterBenchmark(("mdx/anadir_100k_fila_a_fila/" + nombreCalles).c_str(), anadir, calles, size_t(1),
                        M::CadaLlamada));
  una(RegisterBenchmark(("mdx/anadir_100k_lotes_1000_en_una_tanda/" + nombreCalles).c_str(), anadir, calles,
                        size_t(1000), M::TandaEntradaAEntrada));
  una(RegisterBenchmark(("mdx/anadir_100k_fila_a_fila_en_una_tanda/" + nombreCalles).c_str(), anadir, calles,
                        size_t(1), M::TandaEntradaAEntrada));
  una(RegisterBenchmark(("mdx/anadir_100k_lotes_1000_en_una_tanda_indice_entero/" + nombreCalles).c_str(), anadir,
                        calles, size_t(1000), M::TandaEnteroAlFinal));
  una(RegisterBenchmark(("mdx/anadir_100k_TTable_en_una_tanda/" + nombreCalles).c_str(), anadirConTTable, calles));
  us(RegisterBenchmark("mdx/buscar_exacta/POSTAL00_1M/VIA", [](benchmark::State& s) { buscar(s, true); }));
  us(RegisterBenchmark("mdx/buscar_parcial/POSTAL00_1M/VIA", [](benchmark::State& s) { buscar(s, false); }));
}

}  // namespace

int main(int argc, char** argv) { return bench::principal(argc, argv, registra); }
