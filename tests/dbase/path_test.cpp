#include "dbase/core/path.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using dbase::directoryExistsCaseInsensitive;
using dbase::fileExistsCaseInsensitive;
using dbase::resolveDirectoryCaseInsensitive;
using dbase::resolvePathCaseInsensitive;

// A copy of a Windows install: mixed-case folder, upper-case table.
class PathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(dir.file("Postales"));
    testsupport::writeFile(dir.file("Postales/POSTAL28.DBF"), "x");
  }
  testsupport::TempDir dir;
};

TEST_F(PathTest, ExactPathComesBackUnchanged) {
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("Postales/POSTAL28.DBF")), dir.file("Postales/POSTAL28.DBF"));
  EXPECT_EQ(resolvePathCaseInsensitive(dir.path()), dir.path());
}

TEST_F(PathTest, ComponentsDifferingInCaseAreFound) {
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("postales/postal28.dbf")), dir.file("Postales/POSTAL28.DBF"));
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("POSTALES/Postal28.Dbf")), dir.file("Postales/POSTAL28.DBF"));
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("POSTALES")), dir.file("Postales"));
}

TEST_F(PathTest, BackslashesAreSeparators) {
  EXPECT_EQ(resolvePathCaseInsensitive(dir.path() + "\\postales\\postal28.dbf"), dir.file("Postales/POSTAL28.DBF"));
  EXPECT_EQ(resolvePathCaseInsensitive(dir.path() + "/Postales\\POSTAL28.DBF"), dir.file("Postales/POSTAL28.DBF"));
}

TEST_F(PathTest, MissingPathComesBackAsGiven) {
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("postales/postal99.dbf")), dir.file("postales/postal99.dbf"));
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("nada/POSTAL28.DBF")), dir.file("nada/POSTAL28.DBF"));
  EXPECT_EQ(resolvePathCaseInsensitive(dir.path() + "\\nada\\x.dbf"), dir.file("nada/x.dbf"));
  EXPECT_EQ(resolvePathCaseInsensitive(""), "");
}

TEST_F(PathTest, ExactSpellingIsPreferred) {
  testsupport::writeFile(dir.file("Postales/postal28.dbf"), "y");
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("Postales/postal28.dbf")), dir.file("Postales/postal28.dbf"));
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("Postales/POSTAL28.DBF")), dir.file("Postales/POSTAL28.DBF"));
  // Neither spelling given: the same answer every time.
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("postales/Postal28.dbf")), dir.file("Postales/POSTAL28.DBF"));
}

TEST_F(PathTest, TriesEveryFolderThatDiffersOnlyInCase) {
  fs::create_directories(dir.file("DATOS"));
  fs::create_directories(dir.file("Datos"));
  testsupport::writeFile(dir.file("DATOS/a.dbf"), "a");
  testsupport::writeFile(dir.file("Datos/b.dbf"), "b");
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("datos/A.DBF")), dir.file("DATOS/a.dbf"));
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("datos/B.DBF")), dir.file("Datos/b.dbf"));
}

TEST_F(PathTest, AFileIsNotTakenForAFolderOnTheWay) {
  testsupport::writeFile(dir.file("tablas"), "not a folder");
  fs::create_directories(dir.file("TABLAS"));
  testsupport::writeFile(dir.file("TABLAS/T.DBF"), "t");
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("tablas/t.dbf")), dir.file("TABLAS/T.DBF"));
}

TEST_F(PathTest, RepeatedAndDotComponents) {
  EXPECT_EQ(resolvePathCaseInsensitive(dir.path() + "//postales/./postal28.dbf"), dir.file("Postales/./POSTAL28.DBF"));
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("postales/../postales/postal28.dbf")),
            dir.file("Postales/../Postales/POSTAL28.DBF"));
}

TEST_F(PathTest, TrailingSlashAsksForAFolder) {
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("postales/")), dir.file("Postales/"));
  EXPECT_EQ(resolveDirectoryCaseInsensitive(dir.file("postales")), dir.file("Postales"));
}

TEST_F(PathTest, RelativePathsResolveFromTheWorkingDirectory) {
  const fs::path previous = fs::current_path();
  fs::current_path(dir.path());
  const std::string found = resolvePathCaseInsensitive("postales\\postal28.dbf");
  const bool isDir = directoryExistsCaseInsensitive("POSTALES");
  fs::current_path(previous);
  EXPECT_EQ(found, "Postales/POSTAL28.DBF");
  EXPECT_TRUE(isDir);
}

TEST_F(PathTest, ExistenceChecksTellFilesFromFolders) {
  EXPECT_TRUE(directoryExistsCaseInsensitive(dir.file("POSTALES")));
  EXPECT_TRUE(directoryExistsCaseInsensitive(dir.path() + "\\postales"));
  EXPECT_FALSE(directoryExistsCaseInsensitive(dir.file("postales/postal28.dbf")));
  EXPECT_FALSE(directoryExistsCaseInsensitive(dir.file("otros")));
  EXPECT_TRUE(fileExistsCaseInsensitive(dir.file("postales/postal28.dbf")));
  EXPECT_FALSE(fileExistsCaseInsensitive(dir.file("postales")));
  EXPECT_FALSE(fileExistsCaseInsensitive(dir.file("postales/postal08.dbf")));
  EXPECT_FALSE(fileExistsCaseInsensitive(""));
  EXPECT_FALSE(directoryExistsCaseInsensitive(""));
}

TEST_F(PathTest, ExistenceChecksLookPastAnEntryOfTheWrongKind) {
  testsupport::writeFile(dir.file("indices"), "file");
  fs::create_directories(dir.file("INDICES"));
  EXPECT_TRUE(directoryExistsCaseInsensitive(dir.file("indices")));
  EXPECT_EQ(resolveDirectoryCaseInsensitive(dir.file("indices")), dir.file("INDICES"));
  EXPECT_EQ(resolvePathCaseInsensitive(dir.file("indices")), dir.file("indices"));
}

}  // namespace
