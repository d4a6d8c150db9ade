#include "services/Rficheros.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>

#include <filesystem>

#include "qstring_print.h"
#include "support/temp_dir.h"

namespace {

QString q(const std::string& s) { return QString::fromStdString(s); }

void toca(const testsupport::TempDir& dir, const std::string& nombre) {
  testsupport::writeFile(dir.file(nombre), "x");
}

}  // namespace

TEST(Rficheros, SlashSepJoinsWithOneSeparator) {
  EXPECT_EQ(SlashSep("/datos", "cp.dbf", '/'), "/datos/cp.dbf");
  EXPECT_EQ(SlashSep("datos", "cp.dbf", '/'), "datos/cp.dbf");
}

TEST(Rficheros, SlashSepNeverDoublesTheSeparator) {
  EXPECT_EQ(SlashSep("/datos/", "cp.dbf", '/'), "/datos/cp.dbf");
  EXPECT_EQ(SlashSep("/datos", "/cp.dbf", '/'), "/datos/cp.dbf");
  EXPECT_EQ(SlashSep("/datos/", "/cp.dbf", '/'), "/datos/cp.dbf");
  EXPECT_EQ(SlashSep("/datos//", "//cp.dbf", '/'), "/datos/cp.dbf");
}

TEST(Rficheros, SlashSepKeepsTheRootFolder) {
  EXPECT_EQ(SlashSep("/", "cp.dbf", '/'), "/cp.dbf");
}

TEST(Rficheros, SlashSepUsesOtherSeparatorsAsGiven) {
  EXPECT_EQ(SlashSep("CALLE", "MAYOR", ','), "CALLE,MAYOR");
  EXPECT_EQ(SlashSep("CALLE,", ",MAYOR", ','), "CALLE,MAYOR");
  EXPECT_EQ(SlashSep("a/", "b", ','), "a/,b");
}

TEST(Rficheros, SlashSepWithEmptyFirstPieceGivesTheSecond) {
  EXPECT_EQ(SlashSep("", "cp.dbf", '/'), "cp.dbf");
}

TEST(Rficheros, SlashSepWithEmptySecondPieceEndsInOneSeparator) {
  EXPECT_EQ(SlashSep("/datos", "", '/'), "/datos/");
  EXPECT_EQ(SlashSep("/datos/", "", '/'), "/datos/");
}

#ifndef Q_OS_WIN
TEST(Rficheros, SlashSepWritesABackslashSeparatorAsSlash) {
  EXPECT_EQ(SlashSep("/datos", "cp.dbf", '\\'), "/datos/cp.dbf");
  EXPECT_EQ(SlashSep("/datos\\", "\\cp.dbf", '\\'), "/datos/cp.dbf");
  EXPECT_EQ(SlashSep("/datos/", "cp.dbf", '\\'), "/datos/cp.dbf");
  EXPECT_EQ(SlashSep("datos\\viejos", "cp.dbf", '\\'), "datos/viejos/cp.dbf");
}

TEST(Rficheros, SlashSepWithBackslashGivesAUsablePath) {
  testsupport::TempDir dir;
  toca(dir, "CODPOST.DBF");
  EXPECT_TRUE(QFileInfo::exists(SlashSep(q(dir.path()), "CODPOST.DBF", '\\')));
  EXPECT_TRUE(QFileInfo::exists(SlashSep(q(dir.path()) + "\\", "\\CODPOST.DBF", '\\')));
}
#endif

TEST(Rficheros, FindFileNoRecursivoListsMatchingFilesAsFullPaths) {
  testsupport::TempDir dir;
  toca(dir, "b.txt");
  toca(dir, "a.txt");
  toca(dir, "c.dbf");
  QStringList lista;
  FindFileNoRecursivo(q(dir.path()) + "/*.txt", lista, false);
  const QString base = QDir(q(dir.path())).canonicalPath();
  ASSERT_EQ(lista.size(), 2);
  EXPECT_EQ(QFileInfo(lista[0]).canonicalFilePath(), base + "/a.txt");
  EXPECT_EQ(QFileInfo(lista[1]).canonicalFilePath(), base + "/b.txt");
  for (const QString& ruta : lista) EXPECT_TRUE(QFileInfo(ruta).isAbsolute()) << ruta.toStdString();
}

TEST(Rficheros, FindFileNoRecursivoWithFlagGivesBareNames) {
  testsupport::TempDir dir;
  toca(dir, "b.txt");
  toca(dir, "a.txt");
  QStringList lista;
  FindFileNoRecursivo(q(dir.path()) + "/*.txt", lista, true);
  EXPECT_EQ(lista, QStringList({"a.txt", "b.txt"}));
}

TEST(Rficheros, FindFileNoRecursivoSkipsSubfolders) {
  testsupport::TempDir dir;
  toca(dir, "uno.txt");
  std::filesystem::create_directory(dir.file("sub"));
  std::filesystem::create_directory(dir.file("carpeta.txt"));
  toca(dir, "sub/dos.txt");
  QStringList lista;
  FindFileNoRecursivo(q(dir.path()) + "/*", lista, true);
  EXPECT_EQ(lista, QStringList({"uno.txt"}));
}

TEST(Rficheros, FindFileNoRecursivoIgnoresCase) {
  testsupport::TempDir dir;
  toca(dir, "CODPOST.DBF");
  toca(dir, "calles.dbf");
  toca(dir, "Notas.TXT");
  QStringList lista;
  FindFileNoRecursivo(q(dir.path()) + "/*.Dbf", lista, true);
  EXPECT_EQ(lista, QStringList({"calles.dbf", "CODPOST.DBF"}));
}

TEST(Rficheros, FindFileNoRecursivoAcceptsBackslashes) {
  testsupport::TempDir dir;
  toca(dir, "a.txt");
  QStringList lista;
  QString mascara = q(dir.path()) + "\\*.txt";
#ifndef Q_OS_WIN
  EXPECT_EQ(mascara.count('\\'), 1);
#endif
  FindFileNoRecursivo(mascara, lista, true);
  EXPECT_EQ(lista, QStringList({"a.txt"}));
}

TEST(Rficheros, FindFileNoRecursivoMatchesQuestionMarkAsOneCharacter) {
  testsupport::TempDir dir;
  toca(dir, "cp1.txt");
  toca(dir, "cp12.txt");
  toca(dir, "cp.txt");
  QStringList lista;
  FindFileNoRecursivo(q(dir.path()) + "/cp?.txt", lista, true);
  EXPECT_EQ(lista, QStringList({"cp1.txt"}));
}

TEST(Rficheros, FindFileNoRecursivoStarDotStarMeansEveryFile) {
  testsupport::TempDir dir;
  toca(dir, "LEEME");
  toca(dir, "a.txt");
  QStringList lista;
  FindFileNoRecursivo(q(dir.path()) + "/*.*", lista, true);
  EXPECT_EQ(lista, QStringList({"a.txt", "LEEME"}));
}

TEST(Rficheros, FindFileNoRecursivoTakesOtherCharactersLiterally) {
  testsupport::TempDir dir;
  toca(dir, "a[1].txt");
  toca(dir, "a1.txt");
  toca(dir, "axtxt");
  QStringList lista;
  FindFileNoRecursivo(q(dir.path()) + "/a[1].txt", lista, true);
  EXPECT_EQ(lista, QStringList({"a[1].txt"}));
  lista.clear();
  FindFileNoRecursivo(q(dir.path()) + "/a?txt", lista, true);
  EXPECT_EQ(lista, QStringList({"axtxt"}));
}

TEST(Rficheros, FindFileNoRecursivoFindsAnExactName) {
  testsupport::TempDir dir;
  toca(dir, "CODPOST.DBF");
  QStringList lista;
  FindFileNoRecursivo(q(dir.path()) + "/codpost.dbf", lista, true);
  EXPECT_EQ(lista, QStringList({"CODPOST.DBF"}));
}

TEST(Rficheros, FindFileNoRecursivoIncludesHiddenFiles) {
  testsupport::TempDir dir;
  toca(dir, ".oculto.txt");
  QStringList lista;
  FindFileNoRecursivo(q(dir.path()) + "/*.txt", lista, true);
  EXPECT_EQ(lista, QStringList({".oculto.txt"}));
}

TEST(Rficheros, FindFileNoRecursivoAppendsToTheList) {
  testsupport::TempDir dir;
  toca(dir, "a.txt");
  toca(dir, "b.dbf");
  QStringList lista{"previo"};
  FindFileNoRecursivo(q(dir.path()) + "/*.txt", lista, true);
  FindFileNoRecursivo(q(dir.path()) + "/*.dbf", lista, true);
  EXPECT_EQ(lista, QStringList({"previo", "a.txt", "b.dbf"}));
}

TEST(Rficheros, FindFileNoRecursivoOfMissingFolderAddsNothing) {
  testsupport::TempDir dir;
  QStringList lista;
  FindFileNoRecursivo(q(dir.file("no-existe")) + "/*.txt", lista, false);
  EXPECT_TRUE(lista.isEmpty());
}

TEST(Rficheros, FindFileNoRecursivoWithoutFolderLooksInTheCurrentOne) {
  testsupport::TempDir dir;
  toca(dir, "aqui.txt");
  const QString anterior = QDir::currentPath();
  ASSERT_TRUE(QDir::setCurrent(q(dir.path())));
  QStringList nombres;
  QStringList rutas;
  FindFileNoRecursivo("*.TXT", nombres, true);
  FindFileNoRecursivo("*.TXT", rutas, false);
  QDir::setCurrent(anterior);
  EXPECT_EQ(nombres, QStringList({"aqui.txt"}));
  ASSERT_EQ(rutas.size(), 1);
  EXPECT_EQ(QFileInfo(rutas[0]).canonicalFilePath(), QDir(q(dir.path())).canonicalPath() + "/aqui.txt");
}
