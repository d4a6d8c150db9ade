// Benchmarks of TTable as the host uses it: the reference tags declared with
// DeclaraIndicesDeReferencia, SetIndexName to pick the order, FindKey and
// FindNearest to search, SetFilter + SetFiltered to restrict, fields read
// through TField, rows added with Append / SetAsString / Post. Opens are cold
// (the cache of closed tables is off) except in reabrir_*.
#include <benchmark/benchmark.h>

#include <QString>
#include <QStringList>
#include <QVariantList>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "comun.h"
#include "dbase/ReferenceTags.h"
#include "dbase/TTable.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"
#include "dbase/core/index_tag.h"
#include "dbase/core/tag_set.h"

namespace fs = std::filesystem;
using dbase::DbfFile;

namespace {

QString q(const std::string& s) { return QString::fromStdString(s); }

// A table on `path` with the tags of its file declared, opened on `indice`.
std::unique_ptr<TTable> abre(const std::string& path, const QString& indice = QString()) {
  auto t = std::make_unique<TTable>();
  t->SetDatabaseName(q(fs::path(path).parent_path().string()));
  t->SetTableName(q(fs::path(path).filename().string()));
  DeclaraIndicesDeReferencia(t.get());
  t->SetIndexName(indice);
  t->Open();
  return t;
}

// Watches the shared file of an open table (without keeping it open).
std::weak_ptr<DbfFile> vigila(const std::string& path) { return DbfFile::open(path); }

// Selects each declared tag and moves to its first row, so that every tag is
// built (selecting alone leaves the work to the first use); the first
// declared one ends in force.
void construyeTodos(TTable& t) {
  const QStringList tags = t.IndexDefNames();
  for (qsizetype i = tags.size() - 1; i >= 0; --i) {
    t.SetIndexName(tags[i]);
    t.First();
  }
}

// Asks every tag declared for the file its size: tags no cursor uses take
// the rows appended meanwhile when next asked.
void todosAlDia(const std::string& path) {
  auto f = DbfFile::open(path);
  for (const auto& indice : IndicesDeReferencia(q(fs::path(path).filename().string()))) {
    std::vector<int> campos;
    for (const QString& c : indice.campos) campos.push_back(f->fieldIndex(c.toStdString()));
    benchmark::DoNotOptimize(dbase::TagSet::of(*f).tag(campos).size());
  }
}

// Whether every tag declared for the file is built in the shared copy.
bool todosConstruidos(const std::string& path) {
  auto f = DbfFile::open(path);
  for (const auto& indice : IndicesDeReferencia(q(fs::path(path).filename().string()))) {
    std::vector<int> campos;
    for (const QString& c : indice.campos) campos.push_back(f->fieldIndex(c.toStdString()));
    if (!dbase::TagSet::of(*f).tag(campos).built()) return false;
  }
  return true;
}

std::vector<TField*> todosLosCampos(TTable& t) {
  std::vector<TField*> out;
  for (const QString& n : t.FieldNames()) out.push_back(t.FieldByName(n));
  return out;
}

// ---- open ------------------------------------------------------------------

// Open with the four tags declared. With `todos`, all four are built (the
// first is the one in force at Open, the others are built by selecting them);
// otherwise only the first, the one in force, as when the host opens the
// table and the rest wait for first use.
void abrirConTags(benchmark::State& state, std::string path, bool todos) {
  const QStringList tags = [&] {
    TTable t;
    t.SetTableName(q(fs::path(path).filename().string()));
    DeclaraIndicesDeReferencia(&t);
    return t.IndexDefNames();
  }();
  if (tags.size() != 4) return state.SkipWithError("el fichero no tiene los cuatro tags declarados");
  int filas = 0;
  for (auto _ : state) {
    auto t = abre(path, tags[0]);
    if (todos)
      for (int i = 1; i < tags.size(); ++i) {
        t->SetIndexName(tags[i]);
        t->First();  // builds it
      }
    filas = t->RecordCount();
    state.PauseTiming();
    auto visto = vigila(path);
    if (todos && !todosConstruidos(path)) state.SkipWithError("no se construyeron los cuatro tags");
    state.ResumeTiming();
    t->Close();
    t.reset();
    if (!bench::compruebaLiberado(state, visto)) return;
  }
  state.counters["filas"] = filas;
}

// Opening again, with its tag in force, a table closed a moment ago with
// every tag built: served by the cache of closed tables.
void reabrirConTagEnUso(benchmark::State& state, std::string path) {
  DbfFile::setCacheLimit(512ull << 20);
  {
    auto t = abre(path);
    construyeTodos(*t);
  }
  const QString indice = IndicesDeReferencia(q(fs::path(path).filename().string())).front().nombre;
  int filas = 0;
  for (auto _ : state) {
    auto t = abre(path, indice);
    filas = t->RecordCount();
  }
  if (!todosConstruidos(path)) state.SkipWithError("la caché no guardó los tags");
  state.counters["filas"] = filas;
  DbfFile::setCacheLimit(0);
}

// ---- seek ------------------------------------------------------------------

// One timed FindKey (exact) or FindNearest (partial: the last value cut to
// its first 1 to 8 characters) per iteration, keys from random rows.
void buscar(benchmark::State& state, std::string path, QString indice, bool exacta) {
  auto t = abre(path, indice);
  const QStringList campos = t->IndexFields();
  std::vector<QVariantList> claves;
  {
    auto f = DbfFile::open(path);
    std::mt19937 rng(7);
    for (uint32_t r : bench::filasAlAzar(*f, 4096)) {
      QVariantList v;
      for (const QString& c : campos) v << q(dbase::fieldText(f->field(c.toStdString()), f->record(r), f->codePage()));
      if (!exacta) v.back() = v.back().toString().left(1 + int(rng() % 8));
      claves.push_back(v);
    }
  }
  std::vector<double> muestras;
  muestras.reserve(size_t(state.max_iterations));
  size_t i = 0, encontradas = 0;
  for (auto _ : state) {
    const QVariantList& k = claves[i++ % claves.size()];
    const auto t0 = bench::Reloj::now();
    const bool ok = exacta ? t->FindKey(k) : t->FindNearest(k);
    const auto t1 = bench::Reloj::now();
    encontradas += ok;
    muestras.push_back(bench::ns(t0, t1));
  }
  if (exacta && encontradas != i) state.SkipWithError("FindKey no encontró una clave tomada de la tabla");
  state.counters["filas"] = t->RecordCount();
  bench::ponPercentiles(state, muestras);
}

// ---- filtered walk -------------------------------------------------------------

// Sets the filter, walks the rows that pass reading one field, and takes
// the filter off again (not timed), so every iteration builds the view.
void filtrarYRecorrer(benchmark::State& state, std::string path, QString indice, std::string filtro, QString campo) {
  auto t = abre(path, indice);
  TField* f = t->FieldByName(campo);
  t->SetFilter(q(filtro));
  size_t filas = 0;
  for (auto _ : state) {
    t->SetFiltered(true);
    filas = 0;
    size_t suma = 0;
    for (t->First(); !t->Eof(); t->Next()) {
      suma += size_t(f->AsString().size());
      ++filas;
    }
    benchmark::DoNotOptimize(suma);
    state.PauseTiming();
    t->SetFiltered(false);
    state.ResumeTiming();
  }
  if (filas == 0) state.SkipWithError("el filtro no deja pasar ninguna fila");
  state.counters["filas"] = double(filas);
}

// The COD_INE with most rows in the file, as the filter the host writes.
std::string filtroDelMayorMunicipio(const std::string& path) {
  auto f = DbfFile::open(path);
  const auto& fd = f->field("COD_INE");
  std::map<std::string, size_t> cuenta;
  for (uint32_t r = 1; r <= f->recordCount(); ++r) ++cuenta[std::string(dbase::fieldBytes(fd, f->record(r)))];
  auto mayor = cuenta.begin();
  for (auto it = cuenta.begin(); it != cuenta.end(); ++it)
    if (it->second > mayor->second) mayor = it;
  return "COD_INE=" + std::string(dbase::trimBlanks(mayor->first));
}

// ---- full scan ---------------------------------------------------------------

size_t leeTodo(TTable& t, const std::vector<TField*>& campos) {
  size_t suma = 0;
  for (t.First(); !t.Eof(); t.Next())
    for (TField* c : campos) suma += size_t(c->AsString().size());
  return suma;
}

void recorrer(benchmark::State& state, std::string path) {
  auto t = abre(path);
  const auto campos = todosLosCampos(*t);
  for (auto _ : state) benchmark::DoNotOptimize(leeTodo(*t, campos));
  state.counters["filas"] = t->RecordCount();
  state.counters["filas_por_s"] = benchmark::Counter(t->RecordCount(), benchmark::Counter::kIsIterationInvariantRate);
}

void abrirYRecorrer(benchmark::State& state, std::string path) {
  int filas = 0;
  for (auto _ : state) {
    auto t = abre(path);
    benchmark::DoNotOptimize(leeTodo(*t, todosLosCampos(*t)));
    filas = t->RecordCount();
    state.PauseTiming();
    auto visto = vigila(path);
    state.ResumeTiming();
    t.reset();
    if (!bench::compruebaLiberado(state, visto)) return;
  }
  state.counters["filas"] = filas;
  state.counters["filas_por_s"] = benchmark::Counter(filas, benchmark::Counter::kIsIterationInvariantRate);
}

// ---- append ----------------------------------------------------------------

// 100,000 rows appended one by one (Append, SetAsString of every field,
// Post) to a fresh copy of the file with its four tags built beforehand.
// Timed: the appends and bringing every tag up to date after them (the tag
// in force is kept on every Post; the others take the rows when next asked).
void anadir(benchmark::State& state, std::string path) {
  constexpr size_t kFilas = 100000;
  for (auto _ : state) {
    const std::string copia = bench::copiaEnTemporal(path, "POSTAL98.DBF");
    auto t = abre(copia);
    construyeTodos(*t);  // VIA in force
    if (!todosConstruidos(copia)) return state.SkipWithError("no se construyeron los cuatro tags");
    const auto campos = todosLosCampos(*t);
    const int antes = t->RecordCount();
    const std::vector<QStringList> valores = bench::textosParaAnadir(copia, kFilas);
    t->DisableControls();
    const auto t0 = bench::Reloj::now();
    for (const QStringList& v : valores) {
      t->Append();
      for (size_t c = 0; c < campos.size(); ++c) campos[c]->SetAsString(v[qsizetype(c)]);
      t->Post();
    }
    const auto tPost = bench::Reloj::now();
    todosAlDia(copia);  // the clock stops with every tag up to date
    const auto t1 = bench::Reloj::now();
    state.counters["al_dia_ms"] = bench::ns(tPost, t1) / 1e6;
    t->EnableControls();
    state.SetIterationTime(bench::ns(t0, t1) / 1e9);
    if (t->RecordCount() != antes + int(kFilas)) state.SkipWithError("faltan filas tras añadir");
    if (!todosConstruidos(copia)) state.SkipWithError("un tag dejó de mantenerse");
  }
  state.counters["filas_por_s"] = benchmark::Counter(double(kFilas), benchmark::Counter::kIsIterationInvariantRate);
}

void registra() {
  const std::string mun = bench::municipi();
  const std::string calles = bench::mayorCallejero();
  const std::string nc = fs::path(calles).filename().string();
  auto millon = [] { return bench::callejeroDeFilas(1000000); };
  using benchmark::RegisterBenchmark;
  auto ms = [](benchmark::internal::Benchmark* b) { b->Unit(benchmark::kMillisecond)->UseRealTime(); };
  auto us = [](benchmark::internal::Benchmark* b) {
    b->Unit(benchmark::kMicrosecond)->Iterations(100000)->UseRealTime();
  };
  DbfFile::setCacheLimit(0);  // every open reads the file

  ms(RegisterBenchmark("tabla/abrir_con_4_tags/MUNICIPI", abrirConTags, mun, true));
  ms(RegisterBenchmark(("tabla/abrir_con_4_tags/" + nc).c_str(), abrirConTags, calles, true));
  ms(RegisterBenchmark("tabla/abrir_con_4_tags/POSTAL00_1M", [=](benchmark::State& s) {
    abrirConTags(s, millon(), true);
  }));
  ms(RegisterBenchmark("tabla/abrir_con_tag_en_uso/MUNICIPI/COD_INE", abrirConTags, mun, false));
  ms(RegisterBenchmark(("tabla/abrir_con_tag_en_uso/" + nc + "/VIA").c_str(), abrirConTags, calles, false));
  RegisterBenchmark(("tabla/reabrir_con_tag_en_uso/" + nc + "/VIA").c_str(), reabrirConTagEnUso, calles)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();

  us(RegisterBenchmark("tabla/FindKey/MUNICIPI/NOMBRE", buscar, mun, QString("NOMBRE"), true));
  us(RegisterBenchmark("tabla/FindNearest/MUNICIPI/NOMBRE", buscar, mun, QString("NOMBRE"), false));
  us(RegisterBenchmark(("tabla/FindKey/" + nc + "/VIA").c_str(), buscar, calles, QString("VIA"), true));
  us(RegisterBenchmark(("tabla/FindNearest/" + nc + "/VIA").c_str(), buscar, calles, QString("VIA"), false));
  us(RegisterBenchmark(("tabla/FindNearest/" + nc + "/SOLOVIA").c_str(), buscar, calles, QString("SOLOVIA"), false));
  us(RegisterBenchmark("tabla/FindKey/POSTAL00_1M/VIA", [=](benchmark::State& s) {
    buscar(s, millon(), "VIA", true);
  }));
  us(RegisterBenchmark("tabla/FindNearest/POSTAL00_1M/VIA", [=](benchmark::State& s) {
    buscar(s, millon(), "VIA", false);
  }));
  us(RegisterBenchmark("tabla/FindNearest/POSTAL00_1M/SOLOVIA", [=](benchmark::State& s) {
    buscar(s, millon(), "SOLOVIA", false);
  }));

  ms(RegisterBenchmark("tabla/filtrar_y_recorrer/MUNICIPI/NOMBRE/COD_PROV=08", filtrarYRecorrer, mun,
                       QString("NOMBRE"), std::string("COD_PROV=08"), QString("NOMBRE")));
  const std::string filtro = filtroDelMayorMunicipio(calles);
  ms(RegisterBenchmark(("tabla/filtrar_y_recorrer/" + nc + "/fisico/" + filtro).c_str(), filtrarYRecorrer, calles,
                       QString(), filtro, QString("VIA")));
  ms(RegisterBenchmark(("tabla/filtrar_y_recorrer/" + nc + "/VIA/" + filtro).c_str(), filtrarYRecorrer, calles,
                       QString("VIA"), filtro, QString("VIA")));

  ms(RegisterBenchmark(("tabla/recorrer/" + nc).c_str(), recorrer, calles));
  ms(RegisterBenchmark(("tabla/abrir_y_recorrer/" + nc).c_str(), abrirYRecorrer, calles));
  ms(RegisterBenchmark("tabla/abrir_y_recorrer/MUNICIPI", abrirYRecorrer, mun));

  RegisterBenchmark(("tabla/anadir_100k/" + nc).c_str(), anadir, calles)
      ->Unit(benchmark::kMillisecond)
      ->UseManualTime()
      ->Iterations(1);
}

}  // namespace

int main(int argc, char** argv) { return bench::principal(argc, argv, registra); }
