// A province run over saved answers killed half-way, on a street table with
// a production index. `codpostales importar-guardadas` stores town after
// town, each town's index end written while the next town is read, and is
// killed with SIGKILL at random moments: while rows go in, while a town's
// index end is being written, between towns. After each kill the engine
// opens the table (writing the index anew when a write was cut, and saying
// so), every tag, walked by the engine and by Perl's XBase::Index, holds
// every row exactly once, and no street is there twice. Then the run goes to
// its end and every street of every town is there exactly once.
//
// CODPOSTALES_SEMILLA=N repeats a run; the seed is printed either way.
#include <gtest/gtest.h>
#include <signal.h>

#include <QDir>
#include <QProcess>
#include <QThread>
#include <chrono>
#include <cstdio>
#include <optional>
#include <random>
#include <set>

#include "dbase/ReferenceTags.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/mdx_build.h"
#include "import/guarda_comun.h"
#include "support/cache_limit.h"
#include "support/recorrido_mdx.h"
#include "support/referencia.h"
#include "support/semilla.h"
#include "support/tras_un_corte.h"

using namespace guarda;

namespace {

constexpr int kPueblos = 40;
constexpr int kCallesPorPueblo = 60;
constexpr int kRondas = 16;

QString pueblo(int i) { return QStringLiteral("PUEBLO %1").arg(i, 2, 10, QChar(u'0')); }

QList<std::pair<QString, QString>> callesDe(int i) {
  QList<std::pair<QString, QString>> calles;
  for (int c = 0; c < kCallesPorPueblo; ++c)
    calles.append({QStringLiteral("CL"), QStringLiteral("CALLE %1 DE %2").arg(c).arg(pueblo(i))});
  return calles;
}

class InterrupcionProvinciaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testsupport::OpcionesReferencia opciones;
    opciones.postales = false;
    testsupport::escribeJuegoDeReferencia(dir.path(), opciones);
    std::vector<testsupport::Row> municipios;
    for (int i = 0; i < kPueblos; ++i) {
      const std::string codigo = std::to_string(28300 + i);
      municipios.push_back({codigo, codigo, "S", "N", pueblo(i).toStdString(), "28", "0" + codigo.substr(2), codigo.substr(2), "F"});
      const QString carpeta = QString::fromStdString(dir.path()) + QStringLiteral("/POSTAL/MADRID");
      ASSERT_TRUE(QDir().mkpath(carpeta));
      testsupport::writeFile((carpeta + u'/' + pueblo(i) + QStringLiteral(".xml")).toStdString(),
                             respuestaDeVias(callesDe(i)).toStdString());
    }
    anadeFilas(dir.file("MUNICIPI.DBF"), municipios);
    auto tabla = dbase::DbfFile::open(rutaCalles());
    previas = int(tabla->recordCount());
    dbase::rebuildProductionIndex(*tabla, DefinicionesDeIndiceDeReferencia(QStringLiteral("POSTAL.DBF"), *tabla));
    filasEscritas.emplace(rutaCalles());
  }

  std::string rutaCalles() const { return dir.file("POSTAL.DBF"); }
  std::string rutaIndice() const { return dir.file("POSTAL.MDX"); }
  QStringList argumentos() const {
    return {"importar-guardadas", "--alias", QString::fromStdString(dir.path()), "--provincia", "MADRID"};
  }

  // What the killed run left: the table opens (the index written anew if a
  // write was cut), each tag holds every row once, Perl walks them alike,
  // and each stored street is one of a town's, stored once. Returns the
  // streets stored.
  int compruebaTabla() {
    const testsupport::TrasUnCorte abierta = testsupport::abreTrasUnCorte(rutaCalles(), rutaIndice());
    reparaciones += abierta.reparado;
    const auto nuestros = testsupport::recorridosDelMotor(rutaIndice());
    EXPECT_EQ(nuestros.size(), 4u);
    for (const auto& [etiqueta, recorrido] : nuestros)
      EXPECT_EQ(testsupport::faltaOSobra(recorrido, abierta.filas), "") << "índice " << etiqueta;
    std::string error;
    const auto perl = testsupport::recorridosConPerl(rutaIndice(), error);
    EXPECT_TRUE(error.empty()) << error;
    EXPECT_TRUE(perl == nuestros) << "Perl y el motor recorren el índice distinto";
    const std::vector<Fila> filas = leeTabla(rutaCalles());
    std::set<QString> vistas;
    for (size_t i = size_t(previas); i < filas.size(); ++i) {
      const QString calle = filas[i].value("MUNICIPI") + u'|' + filas[i].value("VIA");
      EXPECT_TRUE(filas[i].value("VIA").endsWith(QStringLiteral(" DE ") + filas[i].value("MUNICIPI"))) << calle.toStdString();
      EXPECT_TRUE(vistas.insert(calle).second) << "calle repetida: " << calle.toStdString();
    }
    return int(filas.size()) - previas;
  }

  testsupport::TempDir dir;
  // Every opening reads the disk: what the engine says is what the killed
  // run left, not what this process saw before.
  testsupport::CacheLimit sinCache;
  int previas = 0;
  std::optional<FilasPorTamano> filasEscritas;  // once the table is there
  int reparaciones = 0;
};

}  // namespace

TEST_F(InterrupcionProvinciaTest, KilledProvinceRunLeavesEveryTagHoldingEveryRowAndTheNextRunStoresTheRestOnce) {
  std::mt19937_64 azar(testsupport::semillaDeLaPrueba());
  constexpr int kTotal = kPueblos * kCallesPorPueblo;
  int presentes = 0, muertes = 0;
  for (int ronda = 1; ronda <= kRondas && presentes < kTotal; ++ronda) {
    // Past a random stretch of what is missing, then a random moment more:
    // a town's rows, its index end, or the next town's reading. Three
    // rounds of four stop at a town's last row and die within a moment of
    // it, while that town's index end is being written.
    int objetivo = presentes + std::uniform_int_distribution<int>(1, std::max(1, (kTotal - presentes) / 3))(azar);
    int retrasoUs = std::uniform_int_distribution<int>(0, 5000)(azar);
    if (ronda % 4 != 0) {
      objetivo = std::min(kTotal, (objetivo / kCallesPorPueblo + 1) * kCallesPorPueblo);
      retrasoUs = std::uniform_int_distribution<int>(0, 1500)(azar);
    }
    objetivo += previas;
    QProcess proceso;
    proceso.start(QString::fromStdString(rutaCodpostales()), argumentos());
    ASSERT_TRUE(proceso.waitForStarted(10000)) << "codpostales no arranca";
    while (proceso.state() == QProcess::Running && (*filasEscritas)() < objetivo) QThread::usleep(50);
    const auto hasta = std::chrono::steady_clock::now() + std::chrono::microseconds(retrasoUs);
    while (std::chrono::steady_clock::now() < hasta) {
    }
    const bool matado = proceso.state() == QProcess::Running && ::kill(pid_t(proceso.processId()), SIGKILL) == 0;
    ASSERT_TRUE(proceso.waitForFinished(60000)) << "codpostales no termina";
    muertes += matado;
    presentes = compruebaTabla();
    std::printf("ronda %d: %s tras %d filas y %d µs; calles presentes: %d\n", ronda, matado ? "matado" : "terminó solo",
                objetivo, retrasoUs, presentes);
    if (HasFailure()) return;
  }
  QProcess final;
  final.start(QString::fromStdString(rutaCodpostales()), argumentos());
  ASSERT_TRUE(final.waitForFinished(120000));
  EXPECT_EQ(final.exitCode(), 0) << final.readAllStandardError().toStdString();
  EXPECT_EQ(compruebaTabla(), kTotal);
  EXPECT_GT(muertes, 0);
  std::printf("%d muertes, índice rehecho tras un corte %d veces\n", muertes, reparaciones);
  RecordProperty("muertes", muertes);
  RecordProperty("reparaciones", reparaciones);
}
