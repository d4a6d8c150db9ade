// The package frame: a unit's start-up runs on the first load only, its
// shut-down when the last load is undone, units start in dependency order
// and shut down in the reverse one, and the package's table lists them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "package/Paquete.h"

namespace {

const std::vector<std::string> kOrden = {"CodPostalesDM", "ClaseCodPostales", "ListadoMunicipios", "ImportarVias"};

CodPostalesEstadoUnidad estado(const std::string& unidad) {
  CodPostalesEstadoUnidad e{};
  EXPECT_EQ(CodPostalesEstadoDeUnidad(unidad.c_str(), &e), 1) << unidad;
  return e;
}

// Every test starts and ends with no load in force; the other counters only
// grow, so the tests compare them with what they were.
class PaqueteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const auto& u : kOrden) {
      ASSERT_EQ(estado(u).Cargas, 0) << u;
      antes.push_back(estado(u));
    }
  }
  void TearDown() override {
    for (const auto& u : kOrden)
      while (estado(u).Cargas > 0) Finalize();
  }
  std::vector<CodPostalesEstadoUnidad> antes;
};

}  // namespace

TEST_F(PaqueteTest, InitializeRunsEachStartUpOnce) {
  Initialize();
  for (size_t i = 0; i < kOrden.size(); ++i) {
    EXPECT_EQ(estado(kOrden[i]).Cargas, 1) << kOrden[i];
    EXPECT_EQ(estado(kOrden[i]).Arranques, antes[i].Arranques + 1) << kOrden[i];
    EXPECT_EQ(estado(kOrden[i]).Cierres, antes[i].Cierres) << kOrden[i];
  }
}

TEST_F(PaqueteTest, ASecondInitializeRunsNothingTwice) {
  Initialize();
  Initialize();
  for (size_t i = 0; i < kOrden.size(); ++i) {
    EXPECT_EQ(estado(kOrden[i]).Cargas, 2) << kOrden[i];
    EXPECT_EQ(estado(kOrden[i]).Arranques, antes[i].Arranques + 1) << kOrden[i];
  }
}

TEST_F(PaqueteTest, FinalizeAfterTwoInitializeShutsDownOnlyAtTheLast) {
  Initialize();
  Initialize();
  Finalize();
  for (size_t i = 0; i < kOrden.size(); ++i) {
    EXPECT_EQ(estado(kOrden[i]).Cargas, 1) << kOrden[i];
    EXPECT_EQ(estado(kOrden[i]).Cierres, antes[i].Cierres) << kOrden[i];
  }
  Finalize();
  for (size_t i = 0; i < kOrden.size(); ++i) {
    EXPECT_EQ(estado(kOrden[i]).Cargas, 0) << kOrden[i];
    EXPECT_EQ(estado(kOrden[i]).Cierres, antes[i].Cierres + 1) << kOrden[i];
    EXPECT_EQ(estado(kOrden[i]).Arranques, antes[i].Arranques + 1) << kOrden[i];
  }
}

TEST_F(PaqueteTest, LoadingAgainAfterTheLastUnloadStartsTheUnitsAgain) {
  Initialize();
  Finalize();
  Initialize();
  for (size_t i = 0; i < kOrden.size(); ++i) {
    EXPECT_EQ(estado(kOrden[i]).Arranques, antes[i].Arranques + 2) << kOrden[i];
    EXPECT_EQ(estado(kOrden[i]).Cierres, antes[i].Cierres + 1) << kOrden[i];
  }
}

TEST_F(PaqueteTest, FinalizeWithoutALoadRunsNothing) {
  Finalize();
  for (size_t i = 0; i < kOrden.size(); ++i) {
    EXPECT_EQ(estado(kOrden[i]).Cargas, 0) << kOrden[i];
    EXPECT_EQ(estado(kOrden[i]).Cierres, antes[i].Cierres) << kOrden[i];
  }
  // A later load and unload still pair up.
  Initialize();
  Finalize();
  for (size_t i = 0; i < kOrden.size(); ++i) EXPECT_EQ(estado(kOrden[i]).Cierres, antes[i].Cierres + 1);
}

TEST_F(PaqueteTest, UnitsStartInDependencyOrderAndShutDownInReverse) {
  Initialize();
  for (size_t i = 1; i < kOrden.size(); ++i)
    EXPECT_EQ(estado(kOrden[i]).OrdenArranque, estado(kOrden[i - 1]).OrdenArranque + 1) << kOrden[i];
  Finalize();
  for (size_t i = 1; i < kOrden.size(); ++i)
    EXPECT_EQ(estado(kOrden[i - 1]).OrdenCierre, estado(kOrden[i]).OrdenCierre + 1) << kOrden[i];
}

TEST_F(PaqueteTest, PackageLoadAndPackageUnloadAreInitializeAndFinalize) {
  PackageLoad();
  Initialize();
  for (size_t i = 0; i < kOrden.size(); ++i) {
    EXPECT_EQ(estado(kOrden[i]).Cargas, 2);
    EXPECT_EQ(estado(kOrden[i]).Arranques, antes[i].Arranques + 1);
  }
  PackageUnload();
  Finalize();
  for (size_t i = 0; i < kOrden.size(); ++i) {
    EXPECT_EQ(estado(kOrden[i]).Cargas, 0);
    EXPECT_EQ(estado(kOrden[i]).Cierres, antes[i].Cierres + 1);
  }
}

TEST_F(PaqueteTest, ALoadedPackageObjectLoadsForItsLife) {
  {
    codpostales::PaqueteCargado paquete;
    EXPECT_EQ(estado("ClaseCodPostales").Cargas, 1);
  }
  EXPECT_EQ(estado("ClaseCodPostales").Cargas, 0);
}

TEST_F(PaqueteTest, TheTableListsTheUnitsInStartUpOrder) {
  const CodPostalesInfoPaquete* info = GetPackageInfoTable();
  ASSERT_NE(info, nullptr);
  EXPECT_STREQ(info->Paquete, "codpostales");
  EXPECT_STRNE(info->Version, "");
  ASSERT_EQ(info->NumUnidades, int(kOrden.size()));
  for (int i = 0; i < info->NumUnidades; ++i) {
    EXPECT_EQ(info->Unidades[i].Nombre, kOrden[size_t(i)]);
    EXPECT_NE(info->Unidades[i].Arranque, nullptr);
    EXPECT_NE(info->Unidades[i].Cierre, nullptr);
  }
  EXPECT_EQ(GetPackageInfoTable(), info);
}

TEST_F(PaqueteTest, ASectionOfTheTableCountsAsThatUnitsOwn) {
  const CodPostalesInfoPaquete* info = GetPackageInfoTable();
  info->Unidades[0].Arranque();
  EXPECT_EQ(estado("CodPostalesDM").Cargas, 1);
  EXPECT_EQ(estado("ClaseCodPostales").Cargas, 0);
  Initialize();
  EXPECT_EQ(estado("CodPostalesDM").Arranques, antes[0].Arranques + 1);
  Finalize();
  EXPECT_EQ(estado("CodPostalesDM").Cargas, 1);
  info->Unidades[0].Cierre();
  EXPECT_EQ(estado("CodPostalesDM").Cierres, antes[0].Cierres + 1);
}

TEST_F(PaqueteTest, TheTableListsTheQtLibrariesTheEngineAndTheHostLibrary) {
  const CodPostalesInfoPaquete* info = GetPackageInfoTable();
  std::vector<std::string> qt, motor, anfitrion;
  for (int i = 0; i < info->NumRequeridas; ++i) {
    const CodPostalesRequerida& r = info->Requeridas[i];
    if (r.Tipo == CODPOSTALES_REQUERIDA_QT) qt.push_back(r.Nombre);
    else if (r.Tipo == CODPOSTALES_REQUERIDA_MOTOR) motor.push_back(r.Nombre);
    else if (r.Tipo == CODPOSTALES_REQUERIDA_ANFITRION) anfitrion.push_back(r.Nombre);
    else ADD_FAILURE() << r.Nombre << ": tipo " << r.Tipo;
  }
  EXPECT_EQ(qt, (std::vector<std::string>{"Qt6Core", "Qt6Gui", "Qt6Widgets"}));
  EXPECT_EQ(motor, (std::vector<std::string>{"dbase/core", "dbase"}));
  EXPECT_EQ(anfitrion, (std::vector<std::string>{"Rficheros", "Rmensaje", "Rnumcad", "Ruttb", "Rvarias"}));
}

TEST_F(PaqueteTest, AnUnknownUnitHasNoCounters) {
  CodPostalesEstadoUnidad e{};
  e.Cargas = 7;
  EXPECT_EQ(CodPostalesEstadoDeUnidad("TFormulario", &e), 0);
  EXPECT_EQ(CodPostalesEstadoDeUnidad(nullptr, &e), 0);
  EXPECT_EQ(CodPostalesEstadoDeUnidad("CodPostalesDM", nullptr), 0);
  EXPECT_EQ(e.Cargas, 7);
}
