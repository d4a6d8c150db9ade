// The import of INE's street directory killed half-way. `codpostales
// importar-ine` loads enough rows into a province file with a production
// index to write the index once at the end, and is killed with SIGKILL at a
// random moment of its run; each round starts again from the table as it was.
// After each kill the engine opens the table (writing the index anew, and
// saying so, when the kill cut a load), and every tag holds every row
// exactly once. Then the import runs to its end from what the last kill left
// and each row is there exactly once.
//
// CODPOSTALES_SEMILLA=N repeats a run; the seed is printed either way.
#include <gtest/gtest.h>
#include <signal.h>

#include <QElapsedTimer>
#include <QProcess>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "dbase/core/dbf_file.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/mdx_tags.h"
#include "guarda_comun.h"
#include "support/cache_limit.h"
#include "support/callejero_ine.h"
#include "support/recorrido_mdx.h"
#include "support/semilla.h"
#include "support/tras_un_corte.h"
#include "support/referencia.h"
#include "support/temp_dir.h"

using namespace inetest;

namespace {

namespace fs = std::filesystem;

constexpr int kCalles = 30000;
constexpr int kRondas = 8;
constexpr uint32_t kPrevias = 5;  // rows of the reference set's POSTAL28.DBF

const std::vector<dbase::TagDefinition> kEtiquetas = {{"VIA", "PROVINCIA+CAPITAL+VIA+TIPO_VIA", "", false, false},
                                                     {"MUNICIPI", "MUNICIPI", "", false, false},
                                                     {"COD_INE", "COD_INE", "", false, false},
                                                     {"SOLOVIA", "VIA", "", false, false}};

class InterrupcionIneTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testsupport::escribeJuegoDeReferencia(dir.path());
    testsupport::writeFile(dir.file("TiposVia.csv"), "TIPO_VIA;SINONIMO;DESCRIPCION;COMENTARIO\nCALLE;CALLE;CALLE;\n");
    {
      auto tabla = dbase::DbfFile::open(rutaCalles());
      dbase::rebuildProductionIndex(*tabla, kEtiquetas);
    }
    fs::copy_file(rutaCalles(), dir.file("POSTAL28.DBF.antes"));
    fs::copy_file(rutaIndice(), dir.file("POSTAL28.MDX.antes"));
    std::vector<std::string> vias, tramos;
    for (int v = 1; v <= kCalles; ++v) {
      vias.push_back(lineaVia(true, "28", "079", v, "CALLE", "CALLE DE LA PEÑA " + std::to_string(v)));
      tramos.push_back(lineaTramo({"28", "079", v, "28013", 1, 1, 9 + 2 * (v % 50), 0, 1 + v % 9}));
      tramos.push_back(lineaTramo({"28", "079", v, "28013", 2, 2, 10 + 2 * (v % 40), 0, 1 + v % 7}));
    }
    testsupport::writeFile(dir.file("VIAS.P28"), texto(vias));
    testsupport::writeFile(dir.file("TRAM.P28"), texto(tramos));
  }
  std::string rutaCalles() const { return dir.file("Postales/POSTAL28.DBF"); }
  std::string rutaIndice() const { return dir.file("Postales/POSTAL28.MDX"); }
  QStringList argumentos() const {
    return {"importar-ine", "--alias", QString::fromStdString(dir.path()), QString::fromStdString(dir.file("TRAM.P28")),
            QString::fromStdString(dir.file("VIAS.P28"))};
  }

  void restaura() {
    fs::copy_file(dir.file("POSTAL28.DBF.antes"), rutaCalles(), fs::copy_options::overwrite_existing);
    fs::copy_file(dir.file("POSTAL28.MDX.antes"), rutaIndice(), fs::copy_options::overwrite_existing);
  }

  // The engine opens the table as the killed run left it; every tag holds
  // every row once. The rows there.
  uint32_t compruebaTabla() {
    const testsupport::TrasUnCorte abierta = testsupport::abreTrasUnCorte(rutaCalles(), rutaIndice());
    reparaciones += abierta.reparado;
    const uint32_t filas = abierta.filas;
    const auto recorridos = testsupport::recorridosDelMotor(rutaIndice());
    EXPECT_EQ(recorridos.size(), kEtiquetas.size());
    for (const auto& [etiqueta, recorrido] : recorridos)
      EXPECT_EQ(testsupport::faltaOSobra(recorrido, filas), "") << "índice " << etiqueta;
    return filas;
  }

  testsupport::TempDir dir;
  testsupport::CacheLimit sinCache;  // every opening reads what the killed run left
  int reparaciones = 0;
};

}  // namespace

TEST_F(InterrupcionIneTest, KilledAtAnyMomentTheTableOpensWithEveryTagRightAndTheNextRunCompletesIt) {
  const uint64_t semilla = testsupport::semillaDeLaPrueba();
  std::mt19937_64 azar(semilla);

  // How long a whole run takes here, on a copy.
  qint64 entera = 0;
  {
    testsupport::TempDir copia;
    fs::copy(dir.path(), copia.path(), fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    QStringList args = argumentos();
    args[2] = QString::fromStdString(copia.path());
    QElapsedTimer reloj;
    reloj.start();
    QProcess proceso;
    proceso.start(QString::fromStdString(guarda::rutaCodpostales()), args);
    ASSERT_TRUE(proceso.waitForFinished(120000));
    ASSERT_EQ(proceso.exitCode(), 0) << proceso.readAllStandardError().toStdString();
    entera = reloj.elapsed();
  }

  int muertes = 0;
  for (int ronda = 1; ronda <= kRondas; ++ronda) {
    restaura();
    const int retrasoMs = std::uniform_int_distribution<int>(0, int(std::max<qint64>(entera, 1)))(azar);
    QProcess proceso;
    proceso.start(QString::fromStdString(guarda::rutaCodpostales()), argumentos());
    ASSERT_TRUE(proceso.waitForStarted(10000));
    std::this_thread::sleep_for(std::chrono::milliseconds(retrasoMs));
    const bool matado = proceso.state() == QProcess::Running && ::kill(pid_t(proceso.processId()), SIGKILL) == 0;
    ASSERT_TRUE(proceso.waitForFinished(120000));
    muertes += matado;
    const uint32_t filas = compruebaTabla();
    std::printf("ronda %d: %s a los %d ms de %lld; %u filas\n", ronda, matado ? "matado" : "terminó solo", retrasoMs,
                static_cast<long long>(entera), filas);
    if (HasFailure()) return;
  }

  QProcess proceso;
  proceso.start(QString::fromStdString(guarda::rutaCodpostales()), argumentos());
  ASSERT_TRUE(proceso.waitForFinished(120000));
  EXPECT_EQ(proceso.exitCode(), 0) << proceso.readAllStandardError().toStdString();
  EXPECT_EQ(compruebaTabla(), kPrevias + kCalles);
  const auto filas = guarda::leeTabla(rutaCalles());
  std::set<QString> codigos;
  for (const auto& f : filas) codigos.insert(f.value("VIA") + "|" + f.value("CODPOSTAL") + "|" + f.value("IMPAR_FIN"));
  EXPECT_EQ(codigos.size(), size_t(kPrevias + kCalles));  // each street once
  std::printf("%d muertes, %d índices rehechos al abrir\n", muertes, reparaciones);
}
