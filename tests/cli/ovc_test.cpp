// codpostales ovc against the local simulator: the service's lists as CSV,
// saved answers, and what happens when the service fails.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcessEnvironment>
#include <QStringList>
#include <string>

#include "ejecucion.h"
#include "support/referencia.h"
#include "support/simulador_ovc.h"
#include "support/temp_dir.h"

using namespace testsupport;

namespace {

#define REQUIERE_SIMULADOR()                                                          \
  do {                                                                                \
    if (sharedDir().empty()) GTEST_SKIP() << "sin la carpeta ../shared";              \
  } while (0)

QProcessEnvironment EntornoDe(const SimuladorOvc& simulador) {
  QProcessEnvironment entorno = QProcessEnvironment::systemEnvironment();
  entorno.insert(QStringLiteral("CODPOSTALES_OVC_URL"), simulador.url());
  entorno.insert(QStringLiteral("CODPOSTALES_OVC_INTERVALO_MS"), QStringLiteral("0"));
  return entorno;
}

Resultado ovc(const SimuladorOvc& simulador, QStringList args) {
  args.prepend(QStringLiteral("ovc"));
  return ejecutaCodpostales(args, {}, {}, EntornoDe(simulador));
}

size_t lineas(const std::string& texto) { return size_t(std::count(texto.begin(), texto.end(), '\n')); }

}  // namespace

TEST(OrdenOvc, ProvinciasPrintsTheFortyEightAsTheServiceSpellsThem) {
  REQUIERE_SIMULADOR();
  SimuladorOvc simulador;
  const Resultado r = ovc(simulador, {"provincias"});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(lineas(r.out), 49u);
  EXPECT_EQ(r.out.substr(0, 30), "provincia\nA CORUÑA\nALACANT\nAL");
  EXPECT_NE(r.out.find("\nS.C. TENERIFE\n"), std::string::npos);
}

TEST(OrdenOvc, MunicipiosPrintsEveryMunicipalityOfTheProvince) {
  REQUIERE_SIMULADOR();
  SimuladorOvc simulador;
  const Resultado r = ovc(simulador, {"municipios", "BURGOS"});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(lineas(r.out), 372u);
  EXPECT_EQ(r.out.rfind("municipio\n", 0), 0u);
}

TEST(OrdenOvc, MunicipalityNamesWithCommasAreQuoted) {
  REQUIERE_SIMULADOR();
  SimuladorOvc simulador;
  const Resultado r = ovc(simulador, {"municipios", "GIRONA"});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_NE(r.out.find("\n\"SAUS, CAMALLERA I LLAMPAIES\"\n"), std::string::npos) << r.out.substr(0, 400);
}

TEST(OrdenOvc, ViasPrintsTypeAndNameOfEachStreet) {
  REQUIERE_SIMULADOR();
  TempDir referencia;
  escribeJuegoDeReferencia(referencia.path());
  SimuladorOvc simulador({QStringLiteral("--calles"), QString::fromStdString(referencia.path())});
  const Resultado r = ovc(simulador, {"vias", "MADRID", "GETAFE"});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out.rfind("tipo,nombre\n", 0), 0u);
  EXPECT_GT(lineas(r.out), 1u);
  EXPECT_EQ(simulador.peticiones().size(), 1);
}

TEST(OrdenOvc, GuardarSavesTheAnswerWhereTheSavedFileRunsLook) {
  REQUIERE_SIMULADOR();
  SimuladorOvc simulador;
  TempDir carpeta;
  const Resultado r =
      ovc(simulador, {"vias", "CASTELLO", "ALMAZORA / ALMASSORA", "--guardar", QString::fromStdString(carpeta.path())});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, "");
  const std::string guardado = readFile(carpeta.path() + "/POSTAL/CASTELLO/ALMAZORA () ALMASSORA.xml");
  EXPECT_NE(guardado.find("<consulta_callejero"), std::string::npos);
}

TEST(OrdenOvc, UnknownProvinceGivesAnEmptyListAsTheServiceAnswersNone) {
  REQUIERE_SIMULADOR();
  SimuladorOvc simulador;
  const Resultado r = ovc(simulador, {"municipios", "08"});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, "municipio\n");
}

TEST(OrdenOvc, ServiceThatNeverAnswersEndsWithItsMessageAndStatusTwo) {
  REQUIERE_SIMULADOR();
  SimuladorOvc simulador({QStringLiteral("--fallar"), QStringLiteral("100")});
  const Resultado r = ovc(simulador, {"municipios", "SORIA"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_NE(r.err.find("Error al importar datos: Se ha producido un error al localizar los municipios de la "
                       "provincia seleccionada SORIA Reinténtelo más tarde"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(r.out, "");
}

TEST(OrdenOvc, WrongArgumentsAreUsageErrors) {
  const Resultado sinLista = ejecutaCodpostales({"ovc"});
  EXPECT_EQ(sinLista.salida, 2);
  EXPECT_NE(sinLista.err.find("falta la lista"), std::string::npos) << sinLista.err;
  EXPECT_EQ(ejecutaCodpostales({"ovc", "calles"}).salida, 2);
  EXPECT_EQ(ejecutaCodpostales({"ovc", "vias", "MADRID"}).salida, 2);
  EXPECT_EQ(ejecutaCodpostales({"ovc", "provincias", "--guardar", "/tmp"}).salida, 2);
}
