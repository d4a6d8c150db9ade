#include "dbase/core/alias.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "dbase/core/error.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using dbase::registerAlias;
using dbase::resolveAlias;
using dbase::unregisterAlias;

TEST(AliasTest, RegisteredNameIsCaseInsensitive) {
  registerAlias("CodPostales", "/datos/postales");
  EXPECT_EQ(resolveAlias("CODPOSTALES"), "/datos/postales");
  EXPECT_EQ(resolveAlias("codpostales"), "/datos/postales");
  registerAlias("CODPOSTALES", "/otros");
  EXPECT_EQ(resolveAlias("CodPostales"), "/otros");
  unregisterAlias("codPOSTALES");
  EXPECT_THROW(resolveAlias("CodPostales"), dbase::Error);
}

TEST(AliasTest, EnvironmentVariableNamesTheFolder) {
  EXPECT_EQ(dbase::aliasEnvironmentVariable("mi-base.2"), "CODPOSTALES_ALIAS_MI_BASE_2");
  ::setenv("CODPOSTALES_ALIAS_MI_BASE_2", "/srv/postales", 1);
  EXPECT_EQ(resolveAlias("mi-base.2"), "/srv/postales");
  EXPECT_EQ(resolveAlias("Mi_Base_2"), "/srv/postales");
  ::unsetenv("CODPOSTALES_ALIAS_MI_BASE_2");
  EXPECT_THROW(resolveAlias("mi-base.2"), dbase::Error);
}

TEST(AliasTest, EmptyEnvironmentVariableIsNoAlias) {
  ::setenv("CODPOSTALES_ALIAS_VACIO", "", 1);
  EXPECT_THROW(resolveAlias("vacio"), dbase::Error);
  ::unsetenv("CODPOSTALES_ALIAS_VACIO");
}

TEST(AliasTest, RegisteredNameWinsOverEnvironment) {
  ::setenv("CODPOSTALES_ALIAS_DOBLE", "/desde/entorno", 1);
  registerAlias("doble", "/registrado");
  EXPECT_EQ(resolveAlias("DOBLE"), "/registrado");
  unregisterAlias("doble");
  EXPECT_EQ(resolveAlias("DOBLE"), "/desde/entorno");
  ::unsetenv("CODPOSTALES_ALIAS_DOBLE");
}

TEST(AliasTest, ExistingFolderStandsForItself) {
  testsupport::TempDir dir;
  fs::create_directories(dir.file("Postales"));
  EXPECT_EQ(resolveAlias(dir.file("Postales")), dir.file("Postales"));
  EXPECT_EQ(resolveAlias(dir.file("POSTALES")), dir.file("Postales"));
  EXPECT_EQ(resolveAlias(dir.path() + "\\postales"), dir.file("Postales"));
}

TEST(AliasTest, FileIsNotAFolder) {
  testsupport::TempDir dir;
  testsupport::writeFile(dir.file("tabla.dbf"), "x");
  EXPECT_THROW(resolveAlias(dir.file("tabla.dbf")), dbase::Error);
}

TEST(AliasTest, UnknownAliasIsAnErrorNamingIt) {
  try {
    resolveAlias("NOEXISTE_XYZ");
    FAIL() << "no error";
  } catch (const dbase::Error& e) {
    EXPECT_EQ(e.kind(), dbase::ErrorKind::InvalidArgument);
    EXPECT_EQ(e.subject(), "NOEXISTE_XYZ");
    EXPECT_EQ(e.fault(), "alias desconocido o directorio inexistente");
  }
  EXPECT_THROW(resolveAlias(""), dbase::Error);
}

TEST(AliasTest, EmptyNameCannotBeRegistered) {
  EXPECT_THROW(registerAlias("", "/x"), dbase::Error);
  unregisterAlias("");  // harmless
}

TEST(AliasTest, RegistryIsSafeAcrossThreads) {
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &failures] {
      const std::string name = "hilo" + std::to_string(t);
      const std::string folder = "/hilo/" + std::to_string(t);
      for (int i = 0; i < 500; ++i) {
        registerAlias(name, folder);
        if (resolveAlias(name) != folder) ++failures;
        registerAlias("compartido", folder);
        unregisterAlias(name);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(resolveAlias("compartido").rfind("/hilo/", 0), 0u);
  unregisterAlias("compartido");
}

}  // namespace
