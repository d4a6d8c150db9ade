// What the engine benchmarks share: where the national data set is, a
// temporary folder for the tables they write, the million-row street table,
// the rows used as search keys and appended rows, and the latency
// percentiles reported as counters.
//
// The data folder is, in order of preference: --datos=DIR on the command
// line, the environment variable CODPOSTALES_BENCH_DATOS, or the national set
// of the build tree the binary belongs to. The temporary folder is
// --tmp=DIR / CODPOSTALES_BENCH_TMP, or a new folder under $TMPDIR; whatever
// the benchmarks write there is removed at exit.
#pragma once

#include <QStringList>
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace dbase {
class Cursor;
class DbfFile;
}

namespace bench {

// For benchmarks of widgets, before their QApplication: the offscreen
// platform unless another is asked for, and without the platform's notes on
// every window shown, which are noise among the results.
void plataformaSinVentanas();

// The whole main(): reads and removes --datos= and --tmp= from the
// arguments, checks the data set is there, registers the benchmarks, runs them.
int principal(int argc, char** argv, void (*registra)());

const std::string& datos();
std::string municipi();        // datos()/MUNICIPI.DBF
std::string mayorCallejero();  // the Postales/POSTALnn.DBF with most rows
const std::string& temporal(); // this run's temporary folder

// A street table of exactly `filas` rows in the temporary folder, made of the
// province files one after the other, largest first. Made once per process;
// named POSTAL00.DBF so that it gets the street tags.
std::string callejeroDeFilas(size_t filas);
// A table copied to `destino` (overwriting), its production index with it
// under the copy's name when it has one.
void copiaTabla(const std::string& origen, const std::string& destino);
// The same into the temporary folder under `nombre`.
std::string copiaEnTemporal(const std::string& origen, const std::string& nombre);

// The rows the append benchmarks take from the source table, the same for
// every program in the comparison: row (i * 7919) % count + 1, i = 0..n-1.
std::vector<uint32_t> filasParaAnadir(uint32_t count, size_t n);
// Those rows of the table at `path`, each as the texts of its fields, as
// the host hands them to SetAsString.
std::vector<QStringList> textosParaAnadir(const std::string& path, size_t n);
// n record numbers of live rows chosen at random (fixed seed).
std::vector<uint32_t> filasAlAzar(const dbase::DbfFile& file, size_t n, uint64_t semilla = 20260101);

// Nanoseconds between two instants of the steady clock.
using Reloj = std::chrono::steady_clock;
inline double ns(Reloj::time_point a, Reloj::time_point b) {
  return std::chrono::duration<double, std::nano>(b - a).count();
}

// Cuts a UTF-8 text after its first `chars` characters.
void cortaCaracteres(std::string& texto, size_t chars);

// One timed Cursor::seek per iteration, on the keys in turn; the latencies
// as counters (below). An exact search of a key taken from the table that
// finds nothing fails the benchmark.
void mideBusquedas(benchmark::State& state, dbase::Cursor& cursor,
                   const std::vector<std::vector<std::string>>& claves, bool exacta);

// Sets p50_us, p90_us, p99_us and max_us (microseconds) from samples in ns.
void ponPercentiles(benchmark::State& state, std::vector<double>& muestrasNs);

// Fails the benchmark unless the file the weak pointer watches has been
// released, so the next open really reads the file.
bool compruebaLiberado(benchmark::State& state, const std::weak_ptr<dbase::DbfFile>& file);

}  // namespace bench
