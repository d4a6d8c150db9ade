// The command line on tables with a production index: the tags it lists,
// orders and searches by tag name, and writing the index anew.
#include <gtest/gtest.h>

#include <QStringList>
#include <filesystem>
#include <string>

#include "ejecucion.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace testsupport;

namespace {

namespace fs = std::filesystem;

bool contiene(const std::string& texto, const std::string& trozo) { return texto.find(trozo) != std::string::npos; }

// A dBASE IV table of area codes (fields CITY and CODE) with its index, whose
// tags are CITY (on the field of that name) and AREACODE (numeric, on CODE).
class IndicesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const fs::path muestras = fs::path(sharedDir()) / "mdx";
    if (sharedDir().empty() || !fs::exists(muestras / "CODES.DBF")) GTEST_SKIP() << "no dBASE IV samples";
    for (const char* f : {"CODES.DBF", "CODES.MDX"}) fs::copy_file(muestras / f, fs::path(dir.path()) / f);
    codes = QString::fromStdString(dir.file("CODES.DBF"));
  }
  TempDir dir;
  QString codes;
};

}  // namespace

TEST_F(IndicesTest, InfoListsTheTagsOfTheProductionIndexWithTheirExpressions) {
  Resultado r = ejecutaCodpostales({"tabla", codes, "--info"});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_TRUE(contiene(r.out, "índices: 2")) << r.out;
  EXPECT_TRUE(contiene(r.out, "índice: AREACODE  Code  (N 12)")) << r.out;
  EXPECT_TRUE(contiene(r.out, "índice: CITY  City  (C 20)")) << r.out;
}

TEST_F(IndicesTest, OrdenByATagThatIsAlsoAFieldTakesTheTagAndSaysSo) {
  Resultado r = ejecutaCodpostales({"tabla", codes, "--orden", "CITY", "--campos", "CITY", "--limite", "3"});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_TRUE(contiene(r.err, "índice CITY del MDX")) << r.err;
  EXPECT_EQ(r.out.substr(0, 5), "CITY\n");
  // In the tag's order: the first three cities alphabetically.
  Resultado todas = ejecutaCodpostales({"tabla", codes, "--campos", "CITY"});
  std::vector<std::string> filas;
  size_t desde = 5;
  for (size_t fin; (fin = todas.out.find('\n', desde)) != std::string::npos; desde = fin + 1)
    filas.push_back(todas.out.substr(desde, fin - desde));
  std::sort(filas.begin(), filas.end());
  EXPECT_EQ(r.out, "CITY\n" + filas[0] + "\n" + filas[1] + "\n" + filas[2] + "\n");
}

TEST_F(IndicesTest, OrdenByANumericTagOrdersByNumberAndSearchesOnIt) {
  Resultado r = ejecutaCodpostales({"tabla", codes, "--orden", "AREACODE", "--campos", "CODE"});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_TRUE(r.err.empty()) << r.err;  // a tag only: nothing to say
  double anterior = -1;
  size_t desde = 5, filas = 0;
  for (size_t fin; (fin = r.out.find('\n', desde)) != std::string::npos; desde = fin + 1, ++filas) {
    const double codigo = std::stod(r.out.substr(desde, fin - desde));
    EXPECT_LE(anterior, codigo);
    anterior = codigo;
  }
  EXPECT_EQ(filas, 39u);
  Resultado b = ejecutaCodpostales(
      {"tabla", codes, "--orden", "AREACODE", "--buscar", "818", "--exacto", "--campos", "CODE", "--limite", "1"});
  ASSERT_EQ(b.salida, 0) << b.err;
  EXPECT_EQ(b.out, "CODE\n818\n");
  EXPECT_EQ(ejecutaCodpostales({"tabla", codes, "--orden", "AREACODE", "--buscar", "819", "--exacto"}).salida, 1);
}

TEST_F(IndicesTest, ReindexarWithoutTagsWritesTheOnesTheTableHad) {
  const Resultado antes = ejecutaCodpostales({"tabla", codes, "--orden", "CITY"});
  Resultado r = ejecutaCodpostales({"reindexar", codes});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_TRUE(contiene(r.err, "2 índices escritos")) << r.err;
  EXPECT_EQ(ejecutaCodpostales({"tabla", codes, "--orden", "CITY"}).out, antes.out);
  EXPECT_TRUE(contiene(ejecutaCodpostales({"tabla", codes, "--info"}).out, "índice: AREACODE  Code  (N 12)"));
}

TEST_F(IndicesTest, ReindexarWithABadExpressionSaysWhichAndKeepsTheOldIndex) {
  const std::string antes = readFile(dir.file("CODES.MDX"));
  Resultado r = ejecutaCodpostales({"reindexar", codes, "--tag", "MAL=SOUNDEX(CITY)"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "SOUNDEX(CITY)")) << r.err;
  EXPECT_EQ(readFile(dir.file("CODES.MDX")), antes);
}

TEST(Reindexar, WritesTheTagsGivenWithTheirConditionsAndTheTableKeepsThem) {
  TempDir dir;
  makeTable(dir.path(), "PROVIN.DBF", {numField("CODIGO", 3), charField("PROVINCIA", 30)},
            {{"28", "Madrid"}, {"8", "Barcelona"}, {"50", "Zaragoza"}, {"46", "Valencia"}});
  const QString provin = QString::fromStdString(dir.file("PROVIN.DBF"));
  Resultado r = ejecutaCodpostales({"reindexar", provin, "--tag", "NOMBRE=UPPER(PROVINCIA)", "--tag",
                                    "GRANDES=STR(CODIGO,3)", "--para", "CODIGO>=40", "--descendente"});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_TRUE(fs::exists(dir.file("PROVIN.MDX")));
  EXPECT_EQ(ejecutaCodpostales({"tabla", provin, "--orden", "NOMBRE", "--campos", "PROVINCIA"}).out,
            "PROVINCIA\nBarcelona\nMadrid\nValencia\nZaragoza\n");
  EXPECT_EQ(ejecutaCodpostales({"tabla", provin, "--orden", "GRANDES", "--campos", "CODIGO"}).out, "CODIGO\n50\n46\n");
  const std::string info = ejecutaCodpostales({"tabla", provin, "--info"}).out;
  EXPECT_TRUE(contiene(info, "índice: GRANDES  STR(CODIGO,3) PARA CODIGO>=40  (C 3, descendente)")) << info;
  // Rows added from the command line land in the index's tags.
  Resultado anadida = ejecutaCodpostales({"anadir", provin}, "CODIGO,PROVINCIA\n1,Álava\n");
  ASSERT_EQ(anadida.salida, 0) << anadida.err;
  EXPECT_EQ(ejecutaCodpostales({"tabla", provin, "--orden", "NOMBRE", "--campos", "PROVINCIA"}).out,
            "PROVINCIA\nÁlava\nBarcelona\nMadrid\nValencia\nZaragoza\n");
}

TEST(Reindexar, TableWithoutAnIndexNeedsTheTagsGiven) {
  TempDir dir;
  makeTable(dir.path(), "T.DBF", {charField("A", 3)}, {{"x"}});
  Resultado r = ejecutaCodpostales({"reindexar", QString::fromStdString(dir.file("T.DBF"))});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "--tag")) << r.err;
  EXPECT_FALSE(fs::exists(dir.file("T.MDX")));
}
