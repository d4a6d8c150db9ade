// codpostales editar: fields of one row rewritten in place, the rest of the
// row and of the table as they were, the table's production index following
// the row, and nothing written when an argument or a value does not do.
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

class EditarTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeTable(dir.path(), "PROVIN.DBF", {numField("CODIGO", 3), charField("PROVINCIA", 30), numField("GRUPO", 1)},
              {{"28", "MADRID", "1"}, {"8", "BARCELONA", "1"}, {"50", "ZARAGOZA", "2"}});
    provin = QString::fromStdString(dir.file("PROVIN.DBF"));
  }
  // Asks for an edit that must fail, and checks that nothing changed.
  Resultado rechazada(const QStringList& args) {
    const std::string antes = readFile(dir.file("PROVIN.DBF"));
    Resultado r = ejecutaCodpostales(QStringList{"editar", provin} + args);
    EXPECT_EQ(r.salida, 2) << r.err;
    EXPECT_EQ(r.err.rfind("codpostales: ", 0), 0u) << r.err;
    EXPECT_EQ(readFile(dir.file("PROVIN.DBF")), antes);
    return r;
  }
  TempDir dir;
  QString provin;
};

}  // namespace

TEST_F(EditarTest, ChangesTheFieldsGivenOfThatRowOnly) {
  Resultado r = ejecutaCodpostales({"editar", provin, "--registro", "2", "PROVINCIA=ÁVILA", "CODIGO=5"});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_TRUE(contiene(r.err, "registro 2 editado")) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(ejecutaCodpostales({"tabla", provin}).out,
            "CODIGO,PROVINCIA,GRUPO\n28,MADRID,1\n5,ÁVILA,1\n50,ZARAGOZA,2\n");
}

TEST_F(EditarTest, AnEmptyValueBlanksTheField) {
  ASSERT_EQ(ejecutaCodpostales({"editar", provin, "--registro=3", "GRUPO="}).salida, 0);
  EXPECT_EQ(ejecutaCodpostales({"tabla", provin, "--campos", "GRUPO"}).out, "GRUPO\n1\n1\n\n");
}

TEST_F(EditarTest, RefusesARecordThatIsNotThere) {
  EXPECT_TRUE(contiene(rechazada({"--registro", "4", "GRUPO=1"}).err, "no hay registro 4 (la tabla tiene 3)"));
  EXPECT_TRUE(contiene(rechazada({"--registro", "0", "GRUPO=1"}).err, "no hay registro 0"));
  EXPECT_TRUE(contiene(rechazada({"--registro", "dos", "GRUPO=1"}).err, "número de registro"));
  EXPECT_TRUE(contiene(rechazada({"GRUPO=1"}).err, "falta --registro"));
}

TEST_F(EditarTest, RefusesBadFieldsAndValuesAndWritesNothing) {
  EXPECT_TRUE(contiene(rechazada({"--registro", "1", "GRUPO=2", "POBLACION=3"}).err, "registro 1, campo POBLACION"));
  EXPECT_TRUE(contiene(rechazada({"--registro", "1", "GRUPO=x"}).err, "registro 1, campo GRUPO"));
  EXPECT_TRUE(contiene(rechazada({"--registro", "1", "PROVINCIA=" + QString(31, 'X')}).err, "campo PROVINCIA"));
  EXPECT_TRUE(contiene(rechazada({"--registro", "1", "PROVINCIA=PRECIO €"}).err, "campo PROVINCIA"));
  EXPECT_TRUE(contiene(rechazada({"--registro", "1", "GRUPO=1", "grupo=2"}).err, "campo repetido"));
  EXPECT_TRUE(contiene(rechazada({"--registro", "1", "GRUPO"}).err, "no es CAMPO=VALOR"));
  EXPECT_TRUE(contiene(rechazada({"--registro", "1"}).err, "CAMPO=VALOR"));
}

TEST_F(EditarTest, TheIndexFollowsTheEditedRow) {
  ASSERT_EQ(ejecutaCodpostales({"reindexar", provin, "--tag", "NOMBRE=UPPER(PROVINCIA)"}).salida, 0);
  Resultado r = ejecutaCodpostales({"editar", provin, "--registro", "1", "PROVINCIA=ALBACETE"});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(ejecutaCodpostales({"tabla", provin, "--orden", "NOMBRE", "--campos", "PROVINCIA"}).out,
            "PROVINCIA\nALBACETE\nBARCELONA\nZARAGOZA\n");
  r = ejecutaCodpostales(
      {"tabla", provin, "--orden", "NOMBRE", "--buscar", "ALBACETE", "--exacto", "--limite", "1", "--campos", "CODIGO"});
  EXPECT_EQ(r.out, "CODIGO\n28\n");
  EXPECT_EQ(ejecutaCodpostales({"tabla", provin, "--orden", "NOMBRE", "--buscar", "MADRID", "--exacto"}).salida, 1);
  EXPECT_FALSE(fs::exists(dir.file("PROVIN.MDX.escribiendo")));
}

TEST_F(EditarTest, UsageNamesIt) {
  EXPECT_TRUE(contiene(ejecutaCodpostales({"--ayuda"}).out, "editar FICHERO.DBF --registro N CAMPO=VALOR"));
}
