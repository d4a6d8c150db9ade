// The codpostales command, run as a separate program over small tables:
// CSV output, order, search, filter, columns, limit, table description,
// appending from CSV, and the exit status of each outcome.
#include <gtest/gtest.h>

#include <QProcess>
#include <QStringList>
#include <string>

#include "dbase/core/dbf_file.h"
#include "dbase/core/dbf_format.h"
#include "ejecucion.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace testsupport;

namespace {

Resultado ejecuta(const QStringList& args, const std::string& entrada = {}) {
  return ejecutaCodpostales(args, entrada);
}

bool contiene(const std::string& texto, const std::string& trozo) { return texto.find(trozo) != std::string::npos; }

class CodpostalesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeTable(dir.path(), "PROVIN.DBF", {numField("CODIGO", 3), charField("PROVINCIA", 30), numField("GRUPO", 1)},
              {{"28", "MADRID", "1"},
               {"8", "BARCELONA", "1"},
               {"50", "ÑANDÚ", "2"},
               {"31", "NAVARRA", "1"},
               {"32", "OURENSE", "1"},
               {"40", "NIÑO, EL", "2"}});
    provin = QString::fromStdString(dir.file("PROVIN.DBF"));
  }
  TempDir dir;
  QString provin;
};

}  // namespace

TEST_F(CodpostalesTest, TablaPrintsEveryRowAsCsvAfterAHeader) {
  Resultado r = ejecuta({"tabla", provin});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out,
            "CODIGO,PROVINCIA,GRUPO\n"
            "28,MADRID,1\n"
            "8,BARCELONA,1\n"
            "50,ÑANDÚ,2\n"
            "31,NAVARRA,1\n"
            "32,OURENSE,1\n"
            "40,\"NIÑO, EL\",2\n");
  EXPECT_EQ(r.err, "");
}

TEST_F(CodpostalesTest, TablaQuotesValuesHoldingQuotes) {
  makeTable(dir.path(), "COMILLAS.DBF", {charField("TEXTO", 20)}, {{"DICE \"HOLA\""}, {"SIN NADA"}});
  Resultado r = ejecuta({"tabla", QString::fromStdString(dir.file("COMILLAS.DBF"))});
  EXPECT_EQ(r.out, "TEXTO\n\"DICE \"\"HOLA\"\"\"\nSIN NADA\n");
}

TEST_F(CodpostalesTest, OrdenSortsWithTheSpanishCollation) {
  Resultado r = ejecuta({"tabla", provin, "--orden", "PROVINCIA", "--campos", "PROVINCIA"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, "PROVINCIA\nBARCELONA\nMADRID\nNAVARRA\n\"NIÑO, EL\"\nÑANDÚ\nOURENSE\n");
}

TEST_F(CodpostalesTest, OrdenOnTwoFields) {
  Resultado r = ejecuta({"tabla", provin, "--orden", "GRUPO,CODIGO", "--campos", "CODIGO"});
  EXPECT_EQ(r.out, "CODIGO\n8\n28\n31\n32\n40\n50\n");
}

TEST_F(CodpostalesTest, OrdenRejectsAnUnknownField) {
  Resultado r = ejecuta({"tabla", provin, "--orden", "NOMBRE"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "codpostales: ")) << r.err;
  EXPECT_TRUE(contiene(r.err, "NOMBRE")) << r.err;
}

TEST_F(CodpostalesTest, BuscarStartsAtTheNearestRowAtOrAfter) {
  Resultado r = ejecuta({"tabla", provin, "--orden", "PROVINCIA", "--buscar", "MAD", "--campos", "PROVINCIA"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, "PROVINCIA\nMADRID\nNAVARRA\n\"NIÑO, EL\"\nÑANDÚ\nOURENSE\n");

  r = ejecuta({"tabla", provin, "--orden", "PROVINCIA", "--buscar", "NO", "--campos", "PROVINCIA"});
  EXPECT_EQ(r.out, "PROVINCIA\nÑANDÚ\nOURENSE\n");
}

TEST_F(CodpostalesTest, BuscarGoesToTheLastRowWhenNothingIsAtOrAfter) {
  Resultado r = ejecuta({"tabla", provin, "--orden", "PROVINCIA", "--buscar", "ZAMORA", "--campos", "PROVINCIA"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, "PROVINCIA\nOURENSE\n");
}

TEST_F(CodpostalesTest, BuscarExactoStartsAtTheRowFound) {
  Resultado r = ejecuta({"tabla", provin, "--orden", "CODIGO", "--buscar", "08", "--exacto", "--limite", "1"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, "CODIGO,PROVINCIA,GRUPO\n8,BARCELONA,1\n");
}

TEST_F(CodpostalesTest, BuscarExactoExitsWithOneWhenNothingMatches) {
  Resultado r = ejecuta({"tabla", provin, "--orden", "PROVINCIA", "--buscar", "MAD", "--exacto"});
  EXPECT_EQ(r.salida, 1) << r.err;
  EXPECT_EQ(r.out, "CODIGO,PROVINCIA,GRUPO\n");
}

TEST_F(CodpostalesTest, BuscarOncePerFieldOfTheOrder) {
  Resultado r = ejecuta(
      {"tabla", provin, "--orden", "GRUPO,PROVINCIA", "--buscar", "2", "--buscar", "ÑANDÚ", "--exacto", "--campos", "CODIGO"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, "CODIGO\n50\n");
}

TEST_F(CodpostalesTest, BuscarWithoutOrdenIsAnError) {
  Resultado r = ejecuta({"tabla", provin, "--buscar", "MADRID"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "--orden")) << r.err;
}

TEST_F(CodpostalesTest, FiltroSelectsTheRows) {
  Resultado r = ejecuta({"tabla", provin, "--filtro", "GRUPO=2", "--campos", "CODIGO"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, "CODIGO\n50\n40\n");
  r = ejecuta({"tabla", provin, "--filtro", "PROVINCIA='NIÑO, EL' AND GRUPO=2", "--campos", "CODIGO"});
  EXPECT_EQ(r.out, "CODIGO\n40\n");
}

TEST_F(CodpostalesTest, FiltroTheEngineRefusesExitsWithTwoNamingTheFilter) {
  Resultado r = ejecuta({"tabla", provin, "--filtro", "PROVINCIA='MADRID"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.rfind("codpostales: ", 0), 0u) << r.err;
  EXPECT_TRUE(contiene(r.err, "PROVINCIA='MADRID")) << r.err;

  r = ejecuta({"tabla", provin, "--filtro", "POBLACION=1"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "POBLACION=1")) << r.err;
}

TEST_F(CodpostalesTest, CamposChoosesAndOrdersTheColumns) {
  Resultado r = ejecuta({"tabla", provin, "--campos", "grupo,PROVINCIA", "--limite", "2"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, "GRUPO,PROVINCIA\n1,MADRID\n1,BARCELONA\n");
  r = ejecuta({"tabla", provin, "--campos", "PROVINCIA,NADA"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "NADA")) << r.err;
}

TEST_F(CodpostalesTest, LimiteStopsAfterThatManyRows) {
  Resultado r = ejecuta({"tabla", provin, "--limite", "3", "--campos", "CODIGO"});
  EXPECT_EQ(r.out, "CODIGO\n28\n8\n50\n");
  r = ejecuta({"tabla", provin, "--limite=0"});
  EXPECT_EQ(r.out, "CODIGO,PROVINCIA,GRUPO\n");
  r = ejecuta({"tabla", provin, "--limite", "tres"});
  EXPECT_EQ(r.salida, 2);
}

TEST_F(CodpostalesTest, InfoDescribesTheHeaderAndTheFields) {
  Resultado r = ejecuta({"tabla", provin, "--info"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_TRUE(contiene(r.out, "versión: 0x03\n")) << r.out;
  EXPECT_TRUE(contiene(r.out, "controlador de idioma: 0x14\n")) << r.out;
  EXPECT_TRUE(contiene(r.out, "página de códigos: 850\n")) << r.out;
  EXPECT_TRUE(contiene(r.out, "registros: 6\n")) << r.out;
  EXPECT_TRUE(contiene(r.out, "borrados: 0\n")) << r.out;
  EXPECT_TRUE(contiene(r.out, "última actualización: 20")) << r.out;
  EXPECT_TRUE(contiene(r.out, "MDX de producción: no\n")) << r.out;
  EXPECT_TRUE(contiene(r.out, "campo: CODIGO     N   3  0\n")) << r.out;
  EXPECT_TRUE(contiene(r.out, "campo: PROVINCIA  C  30  0\n")) << r.out;
  EXPECT_TRUE(contiene(r.out, "campo: GRUPO      N   1  0\n")) << r.out;
  EXPECT_FALSE(contiene(r.out, "aviso:")) << r.out;
}

TEST_F(CodpostalesTest, InfoShowsTheCodePageOfAnAnsiTable) {
  makeTable(dir.path(), "ANSI.DBF", {charField("NOMBRE", 10)}, {{"AÑO"}}, 0x57);
  Resultado r = ejecuta({"tabla", QString::fromStdString(dir.file("ANSI.DBF")), "--info"});
  EXPECT_TRUE(contiene(r.out, "controlador de idioma: 0x57\n")) << r.out;
  EXPECT_TRUE(contiene(r.out, "página de códigos: 1252\n")) << r.out;
}

TEST_F(CodpostalesTest, InfoWarnsWhenTheHeaderCountDisagreesWithTheFile) {
  std::string bytes = readFile(dir.file("PROVIN.DBF"));
  dbase::putU32(reinterpret_cast<unsigned char*>(bytes.data()) + dbase::kOffRecordCount, 9);
  writeFile(dir.file("ROTA.DBF"), bytes);
  Resultado r = ejecuta({"tabla", QString::fromStdString(dir.file("ROTA.DBF")), "--info"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_TRUE(contiene(r.out, "registros: 6\n")) << r.out;
  EXPECT_TRUE(contiene(r.out, "aviso: ")) << r.out;
}

TEST_F(CodpostalesTest, AnadirAppendsTheCsvRowsThatTablaThenShows) {
  makeTable(dir.path(), "CALLES.DBF", {charField("VIA", 30), numField("NUMERO", 4), charField("TIPO", 5)}, {});
  const QString calles = QString::fromStdString(dir.file("CALLES.DBF"));
  Resultado r = ejecuta({"anadir", calles},
                        "TIPO,VIA,NUMERO\r\n"
                        "CL,\"MAYOR, LA\",12\r\n"
                        "PZ,ESPAÑA,\r\n"
                        "AV,\"DICE \"\"SÍ\"\"\",7\r\n");
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_TRUE(contiene(r.err, "3 filas añadidas")) << r.err;
  EXPECT_EQ(r.out, "");

  r = ejecuta({"tabla", calles});
  EXPECT_EQ(r.out,
            "VIA,NUMERO,TIPO\n"
            "\"MAYOR, LA\",12,CL\n"
            "ESPAÑA,,PZ\n"
            "\"DICE \"\"SÍ\"\"\",7,AV\n");
}

TEST_F(CodpostalesTest, AnadirWithASubsetOfTheFieldsLeavesTheRestBlank) {
  Resultado r = ejecuta({"anadir", provin}, "PROVINCIA\nÁVILA\n");
  EXPECT_EQ(r.salida, 0) << r.err;
  r = ejecuta({"tabla", provin, "--filtro", "PROVINCIA='ÁVILA'"});
  EXPECT_EQ(r.out, "CODIGO,PROVINCIA,GRUPO\n,ÁVILA,\n");
}

TEST_F(CodpostalesTest, AnadirRejectsACharacterOutsideTheCodePageAndWritesNothing) {
  const std::string antes = readFile(dir.file("PROVIN.DBF"));
  Resultado r = ejecuta({"anadir", provin}, "CODIGO,PROVINCIA\n1,BIEN\n2,PRECIO €\n");
  EXPECT_EQ(r.salida, 2);
  EXPECT_EQ(r.err.rfind("codpostales: ", 0), 0u) << r.err;
  EXPECT_TRUE(contiene(r.err, "línea 3")) << r.err;
  EXPECT_TRUE(contiene(r.err, "PROVINCIA")) << r.err;
  EXPECT_EQ(readFile(dir.file("PROVIN.DBF")), antes);
}

TEST_F(CodpostalesTest, AnadirRejectsANonNumberForANumericField) {
  const std::string antes = readFile(dir.file("PROVIN.DBF"));
  Resultado r = ejecuta({"anadir", provin}, "PROVINCIA,GRUPO\nUNA,1\nOTRA,x\n");
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "línea 3, campo GRUPO")) << r.err;
  EXPECT_EQ(readFile(dir.file("PROVIN.DBF")), antes);
}

TEST_F(CodpostalesTest, AnadirRejectsAnUnknownColumn) {
  const std::string antes = readFile(dir.file("PROVIN.DBF"));
  Resultado r = ejecuta({"anadir", provin}, "PROVINCIA,POBLACION\nUNA,2\n");
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "línea 1, campo POBLACION")) << r.err;
  EXPECT_EQ(readFile(dir.file("PROVIN.DBF")), antes);
}

TEST_F(CodpostalesTest, AnadirRejectsATextLongerThanTheField) {
  const std::string antes = readFile(dir.file("PROVIN.DBF"));
  Resultado r = ejecuta({"anadir", provin}, "PROVINCIA\n" + std::string(31, 'X') + "\n");
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "línea 2, campo PROVINCIA")) << r.err;
  EXPECT_EQ(readFile(dir.file("PROVIN.DBF")), antes);
}

TEST_F(CodpostalesTest, AnadirRejectsARowWithTheWrongNumberOfValues) {
  Resultado r = ejecuta({"anadir", provin}, "PROVINCIA,GRUPO\nUNA\n");
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "línea 2")) << r.err;
}

TEST_F(CodpostalesTest, AnadirRejectsAnUnclosedQuote) {
  Resultado r = ejecuta({"anadir", provin}, "PROVINCIA\n\"UNA\n");
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "línea 2")) << r.err;
}

TEST_F(CodpostalesTest, AMissingFileExitsWithTwo) {
  const QString nada = QString::fromStdString(dir.file("NOHAY.DBF"));
  Resultado r = ejecuta({"tabla", nada});
  EXPECT_EQ(r.salida, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.rfind("codpostales: ", 0), 0u) << r.err;
  EXPECT_TRUE(contiene(r.err, "NOHAY.DBF")) << r.err;
  r = ejecuta({"anadir", nada}, "PROVINCIA\nUNA\n");
  EXPECT_EQ(r.salida, 2);
}

TEST_F(CodpostalesTest, UsageInSpanish) {
  Resultado r = ejecuta({"--ayuda"});
  EXPECT_EQ(r.salida, 0);
  EXPECT_TRUE(contiene(r.out, "Uso: codpostales")) << r.out;
  EXPECT_TRUE(contiene(r.out, "--buscar")) << r.out;

  r = ejecuta({});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "Uso: codpostales")) << r.err;
}

TEST_F(CodpostalesTest, UnknownCommandsAndOptionsExitWithTwo) {
  Resultado r = ejecuta({"borrar", provin});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "borrar")) << r.err;
  r = ejecuta({"tabla", provin, "--ordenar", "CODIGO"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "--ordenar")) << r.err;
  r = ejecuta({"tabla", provin, "--orden"});
  EXPECT_EQ(r.salida, 2);
}
