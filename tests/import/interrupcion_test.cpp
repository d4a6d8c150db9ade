// A street import killed half-way. `codpostales importar` stores a few
// thousand streets and is killed with SIGKILL at random points, several
// times over; after each kill the street table must open with the engine and
// with python3-dbfread, and every row must be whole and right or absent.
// Then the import runs to its end and each street is there exactly once.
// The same again on a street table with a production index holding the
// street tags: after each kill the engine opens it (writing the index anew
// when a write was cut, and saying so), and every tag, walked by the engine
// and by Perl's XBase::Index, holds every row there exactly once.
//
// CODPOSTALES_SEMILLA=N repeats a run; the seed is printed either way.
#include <gtest/gtest.h>
#include <signal.h>

#include <QElapsedTimer>
#include <QProcess>
#include <QThread>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>

#include "../services/qstring_print.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/mdx_tags.h"
#include "import/guarda_comun.h"
#include "support/cache_limit.h"
#include "support/recorrido_mdx.h"
#include "support/semilla.h"
#include "support/tras_un_corte.h"
#include "support/referencia.h"
#include "support/temp_dir.h"

using namespace guarda;
using testsupport::Row;

namespace {

constexpr int kCalles = 4000;
constexpr int kRondas = 6;
constexpr int kRondasConIndice = 10;
constexpr int kPrimerCodigo = 99000000;
// Rows of the table before the import; the last one sets the first code.
const std::vector<Row> kPrevias = {calleImportada("MAYOR", "CL", "28013", "MADRID", "28079", "98999997"),
                                   calleImportada("ALCALA", "CL", "28014", "MADRID", "28079", "98999998"),
                                   calleImportada("TOLEDO", "CL", "28901", "GETAFE", "28065", "98999999")};

QList<std::pair<QString, QString>> callesDeLaRespuesta() {
  static const char* tipos[] = {"CL", "AV", "PZ", "PS", "CJ"};
  QList<std::pair<QString, QString>> calles;
  for (int i = 0; i < kCalles; ++i)
    calles.append({QString::fromLatin1(tipos[i % 5]), QStringLiteral("VÍA DE LA PEÑA %1").arg(i, 4, 10, QChar(u'0'))});
  return calles;
}

class InterrupcionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testsupport::OpcionesReferencia opciones;
    opciones.postales = false;
    testsupport::escribeJuegoDeReferencia(dir.path(), opciones);
    testsupport::makeTable(dir.path(), "POSTAL.DBF", testsupport::camposCalle(), kPrevias);
    calles = callesDeLaRespuesta();
    testsupport::writeFile(dir.file("vias.xml"), respuestaDeVias(calles).toStdString());
    filasEscritas.emplace(rutaCalles());
  }

  std::string rutaCalles() const { return dir.file("POSTAL.DBF"); }
  QStringList argumentos() const {
    return {"importar",
            "--alias",
            QString::fromStdString(dir.path()),
            "--xml",
            QString::fromStdString(dir.file("vias.xml")),
            "--provincia",
            "MADRID",
            "--municipio",
            "SOBRADO"};
  }

  // The rows before the import as they were, then the streets of the answer
  // in its order, each whole, with consecutive codes. Returns how many
  // streets are there.
  int compruebaFilas(const std::vector<Fila>& filas, const char* lector) {
    EXPECT_GE(filas.size(), kPrevias.size()) << lector;
    for (size_t i = 0; i < kPrevias.size() && i < filas.size(); ++i) {
      EXPECT_EQ(filas[i].value("VIA").toStdString(), kPrevias[i][0]) << lector << " fila " << i + 1;
      EXPECT_EQ(filas[i].value("CODIGO1").toStdString(), kPrevias[i][12]) << lector << " fila " << i + 1;
    }
    std::set<QString> vistas;
    int n = 0;
    for (size_t i = kPrevias.size(); i < filas.size(); ++i, ++n) {
      const Fila& f = filas[i];
      SCOPED_TRACE(std::string(lector) + ", fila " + std::to_string(i + 1));
      if (!vistas.insert(f.value("VIA")).second) ADD_FAILURE() << "calle repetida: " << f.value("VIA").toStdString();
      if (n >= calles.size()) {
        ADD_FAILURE() << "más filas que calles";
        break;
      }
      const auto& [tipo, nombre] = calles[n];
      const Fila esperada = {{"PROVINCIA", "28"},
                             {"CAPITAL", "9"},
                             {"TIPO_VIA", tipo},
                             {"VIA", nombre},
                             {"IMPAR_INI", "1"},
                             {"IMPAR_FIN", "9999"},
                             {"PAR_INI", "2"},
                             {"PAR_FIN", "9998"},
                             {"CODPOSTAL", "28140"},
                             {"MUNICIPI", "SOBRADO"},
                             {"COD_INE", "28140"},
                             {"NOMBRE_2", nombre.toLower()},
                             {"CODIGO1", QString::number(kPrimerCodigo + n)}};
      EXPECT_EQ(f, esperada);
      if (f != esperada) break;  // one report is enough
    }
    return n;
  }

  // Both readers see the same whole rows; the engine may see one more, a
  // row written whole by a run killed before it counted it in the header.
  int compruebaTabla() {
    const std::vector<Fila> motor = leeTabla(rutaCalles());
    std::string error;
    const std::vector<Fila> dbfread = leeConDbfread(rutaCalles(), error);
    EXPECT_TRUE(error.empty()) << error;
    const int nMotor = compruebaFilas(motor, "motor");
    const int nDbfread = compruebaFilas(dbfread, "dbfread");
    EXPECT_TRUE(nMotor == nDbfread || nMotor == nDbfread + 1) << nMotor << " / " << nDbfread;
    for (size_t i = 0; i < dbfread.size() && i < motor.size(); ++i)
      if (dbfread[i] != motor[i]) {
        ADD_FAILURE() << "la fila " << i + 1 << " se lee distinta con dbfread";
        break;
      }
    ultimoDbfread = nDbfread;
    return nMotor;
  }

  // Runs the import `rondas` times, killing it with SIGKILL at a random
  // moment; after each run `trasMatar` looks at what it left (before the
  // rows are read) and the rows are checked. Returns the streets present
  // after the last round.
  int mataImportaciones(std::mt19937_64& azar, int rondas, const std::function<void()>& trasMatar) {
    int presentes = 0;
    for (int ronda = 1; ronda <= rondas; ++ronda) {
      // The first round may die before any row is written; the others die
      // while rows go in, a random stretch past what is there already.
      const int quedan = kCalles - presentes;
      const int objetivo =
          ronda == 1 ? 0 : presentes + std::uniform_int_distribution<int>(1, std::max(1, quedan / 3))(azar);
      const int filasObjetivo = int(kPrevias.size()) + objetivo;
      const int retrasoUs = std::uniform_int_distribution<int>(0, ronda == 1 ? 300000 : 200)(azar);

      QElapsedTimer reloj;
      reloj.start();
      QProcess proceso;
      proceso.start(QString::fromStdString(rutaCodpostales()), argumentos());
      if (!proceso.waitForStarted(10000)) {
        ADD_FAILURE() << "codpostales no arranca";
        return presentes;
      }
      while (proceso.state() == QProcess::Running && (*filasEscritas)() < filasObjetivo) QThread::usleep(50);
      const auto hasta = std::chrono::steady_clock::now() + std::chrono::microseconds(retrasoUs);
      while (std::chrono::steady_clock::now() < hasta) {
      }
      const bool matado = proceso.state() == QProcess::Running && ::kill(pid_t(proceso.processId()), SIGKILL) == 0;
      if (!proceso.waitForFinished(60000)) {
        ADD_FAILURE() << "codpostales no termina";
        return presentes;
      }
      const qint64 ms = reloj.elapsed();
      if (matado) ++muertes;

      if (trasMatar) trasMatar();
      presentes = compruebaTabla();
      const int enCabecera = ultimoDbfread;
      std::printf("ronda %d: %s a los %lld ms (tras %d calles), calles presentes: motor %d, dbfread %d\n", ronda,
                  matado ? "matado" : "terminó solo", static_cast<long long>(ms), objetivo, presentes, enCabecera);
      RecordProperty("ronda" + std::to_string(ronda), std::to_string(presentes) + " motor, " +
                                                          std::to_string(enCabecera) + " dbfread, " +
                                                          std::to_string(ms) + " ms" + (matado ? "" : ", terminó solo"));
      if (HasFailure()) return presentes;
    }
    return presentes;
  }

  // The same import to its end: only what is missing goes in.
  void terminaImportacion(int presentes, const QElapsedTimer& total) {
    QElapsedTimer reloj;
    reloj.start();
    const Ejecucion e = ejecutaImportar(argumentos().mid(1));
    ASSERT_EQ(e.salida, 0) << e.err;
    EXPECT_EQ(e.out, "importadas\n" + std::to_string(kCalles - presentes) + "\n");
    const int alFinal = compruebaTabla();
    EXPECT_EQ(alFinal, kCalles);
    EXPECT_EQ(ultimoDbfread, kCalles);
    EXPECT_EQ(leeTabla(rutaCalles()).size(), kPrevias.size() + kCalles);
    std::printf("final: %d calles añadidas en %lld ms; %d calles en total; %d muertes; %lld ms todo\n",
                kCalles - presentes, static_cast<long long>(reloj.elapsed()), alFinal, muertes,
                static_cast<long long>(total.elapsed()));
  }

  testsupport::TempDir dir;
  QList<std::pair<QString, QString>> calles;
  std::optional<FilasPorTamano> filasEscritas;  // once the table is there
  int ultimoDbfread = 0;
  int muertes = 0;
};

namespace fs = std::filesystem;
using testsupport::Recorrido;

// The street tags the address controller declares, as a production index.
const std::vector<dbase::TagDefinition> kEtiquetas = {{"VIA", "PROVINCIA+CAPITAL+VIA+TIPO_VIA", "", false, false},
                                                     {"MUNICIPI", "MUNICIPI", "", false, false},
                                                     {"COD_INE", "COD_INE", "", false, false},
                                                     {"SOLOVIA", "VIA", "", false, false}};

// Where two walks of a tag first part; empty when they are alike.
std::string diferencia(const Recorrido& a, const Recorrido& b) {
  for (size_t i = 0; i < a.size() && i < b.size(); ++i)
    if (a[i] != b[i]) return "entrada " + std::to_string(i + 1) + ": " + a[i] + " / " + b[i];
  if (a.size() != b.size()) return std::to_string(a.size()) + " entradas / " + std::to_string(b.size());
  return {};
}

class InterrupcionConIndiceTest : public InterrupcionTest {
 protected:
  void SetUp() override {
    InterrupcionTest::SetUp();
    auto tabla = dbase::DbfFile::open(rutaCalles());
    dbase::rebuildProductionIndex(*tabla, kEtiquetas);
  }

  std::string rutaIndice() const { return dir.file("POSTAL.MDX"); }

  // What the index holds when written whole from the rows: a copy of the
  // table reindexed elsewhere.
  std::map<std::string, Recorrido> reindexado() const {
    testsupport::TempDir otra;
    fs::copy_file(rutaCalles(), otra.file("POSTAL.DBF"));
    fs::copy_file(rutaIndice(), otra.file("POSTAL.MDX"));
    {
      auto copia = dbase::DbfFile::open(otra.file("POSTAL.DBF"));
      dbase::rebuildProductionIndex(*copia, dbase::productionTags(*copia));
    }
    return testsupport::recorridosDelMotor(otra.file("POSTAL.MDX"));
  }

  // After a run: the engine opens the table, writing the index anew (and
  // saying so) when the mark of a cut write is there; then every tag, walked
  // by the engine and by Perl, holds every row exactly once, with the keys
  // the rows give.
  void compruebaIndice() {
    const testsupport::TrasUnCorte abierta = testsupport::abreTrasUnCorte(rutaCalles(), rutaIndice());
    reparaciones += abierta.reparado;
    const uint32_t filas = abierta.filas;
    const auto nuestros = testsupport::recorridosDelMotor(rutaIndice());
    EXPECT_EQ(nuestros.size(), kEtiquetas.size());
    for (const auto& [etiqueta, recorrido] : nuestros) {
      const std::string fallo = testsupport::faltaOSobra(recorrido, filas);
      EXPECT_TRUE(fallo.empty()) << "índice " << etiqueta << ": " << fallo;
    }
    std::string error;
    const auto perl = testsupport::recorridosConPerl(rutaIndice(), error);
    ASSERT_TRUE(error.empty()) << error;
    EXPECT_EQ(perl.size(), nuestros.size());
    for (const auto& [etiqueta, recorrido] : nuestros) {
      const auto it = perl.find(etiqueta);
      const std::string d = it == perl.end() ? "Perl no lo tiene" : diferencia(it->second, recorrido);
      EXPECT_TRUE(d.empty()) << "índice " << etiqueta << ", Perl / motor: " << d;
    }
    const auto esperados = reindexado();
    for (const auto& [etiqueta, recorrido] : esperados) {
      const auto it = nuestros.find(etiqueta);
      const std::string d = it == nuestros.end() ? "falta" : diferencia(recorrido, it->second);
      EXPECT_TRUE(d.empty()) << "índice " << etiqueta << ", reindexado / mantenido: " << d;
    }
    ++comprobaciones;
    entradas += filas * kEtiquetas.size();
  }

  // Every opening reads the disk: what the engine says on opening is what
  // the killed run left, not what this process saw before.
  testsupport::CacheLimit sinCache;
  int reparaciones = 0, comprobaciones = 0;
  uint64_t entradas = 0;
};

}  // namespace


TEST_F(InterrupcionTest, KilledImportLeavesWholeRowsAndARerunStoresTheRestOnce) {
  std::mt19937_64 azar(testsupport::semillaDeLaPrueba());
  QElapsedTimer total;
  total.start();
  const int presentes = mataImportaciones(azar, kRondas, nullptr);
  if (HasFailure()) return;
  terminaImportacion(presentes, total);
}

TEST_F(InterrupcionConIndiceTest, KilledImportLeavesEveryStreetTagHoldingEveryRowOnce) {
  std::mt19937_64 azar(testsupport::semillaDeLaPrueba());
  QElapsedTimer total;
  total.start();
  const int presentes = mataImportaciones(azar, kRondasConIndice, [this] { compruebaIndice(); });
  if (HasFailure()) return;
  terminaImportacion(presentes, total);
  compruebaIndice();
  std::printf("índice: %d comprobaciones, %d rehecho tras un corte, %llu entradas recorridas por el motor y por Perl\n",
              comprobaciones, reparaciones, static_cast<unsigned long long>(entradas));
  RecordProperty("reparaciones", reparaciones);
}
