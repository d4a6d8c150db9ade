// The reference tables of a controller: the calculated municipality fields,
// opening and closing in their order, and open failures reaching the caller.
#include <gtest/gtest.h>

#include <QSignalSpy>
#include <filesystem>

#include "../services/qstring_print.h"
#include "formulario.h"
#include "dbase/core/error.h"
#include "services/Ruttb.h"
#include "support/tables.h"

using namespace testsupport;

namespace {

class ModuloDatosTest : public ::testing::Test {
 protected:
  void SetUp() override { escribeJuegoDeReferencia(dir.path()); }
  QString alias() const { return QString::fromStdString(dir.path()); }

  // Positions TMunicipi on a row by name and returns the calculated fields.
  static void situa(TDMCodPostales* dm, const QString& nombre) {
    TBIndexa(QStringLiteral("NOMBRE"), dm->TMunicipi);
    ASSERT_TRUE(TBBusca(dm->TMunicipi, {QStringLiteral("NOMBRE"), nombre}, true)) << nombre.toStdString();
  }

  TempDir dir;
};

}  // namespace

TEST_F(ModuloDatosTest, MunicipalityRowShowsItsOwnNameAndNoMayorEntity) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  situa(c.oDataModule, "GETAFE");
  EXPECT_EQ(c.oDataModule->TMunicipiccNOMBRE_COMPLETO->AsString(), "GETAFE");
  EXPECT_EQ(c.oDataModule->TMunicipiccENT_MAYOR->AsString(), "");
}

TEST_F(ModuloDatosTest, MinorEntityShowsItsMunicipalityInBrackets) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  situa(c.oDataModule, "ARAVACA");
  EXPECT_EQ(c.oDataModule->TMunicipiccNOMBRE_COMPLETO->AsString(), "ARAVACA --> [MADRID]");
  EXPECT_EQ(c.oDataModule->TMunicipiccENT_MAYOR->AsString(), "MADRID");
}

TEST_F(ModuloDatosTest, MinorEntitiesListedBeforeTheirMunicipalityRowWalkToIt) {
  // A code whose first two rows on COD_INE are minor entities: the walk
  // passes both to reach the municipality's own row, written last.
  TClaseCodPostales c(nullptr, alias(), false, "");
  anadeMunicipio(c.oDataModule->TMunicipiSinFiltro, {"45168", "AZUCAICA", "45", "45005", true});
  anadeMunicipio(c.oDataModule->TMunicipiSinFiltro, {"45168", "BERCIAL (EL)", "45", "45006", true});
  anadeMunicipio(c.oDataModule->TMunicipiSinFiltro, {"45168", "TOLEDO", "45", "45001", false});
  situa(c.oDataModule, "AZUCAICA");
  EXPECT_EQ(c.oDataModule->TMunicipiccNOMBRE_COMPLETO->AsString(), "AZUCAICA --> [TOLEDO]");
  EXPECT_EQ(c.oDataModule->TMunicipiccENT_MAYOR->AsString(), "TOLEDO");
  situa(c.oDataModule, "BERCIAL (EL)");
  EXPECT_EQ(c.oDataModule->TMunicipiccNOMBRE_COMPLETO->AsString(), "BERCIAL (EL) --> [TOLEDO]");
  EXPECT_EQ(c.oDataModule->TMunicipiccENT_MAYOR->AsString(), "TOLEDO");
}

TEST_F(ModuloDatosTest, ProvinceCodeIsComparedAsAnInteger) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  situa(c.oDataModule, "BARCELONA");  // COD_PROV "08", PROVIN CODIGO 8
  EXPECT_EQ(c.oDataModule->TMunicipiccPROVINCIA->AsString(), "BARCELONA");
}

TEST_F(ModuloDatosTest, NonNumericProvinceCodeFindsNoProvince) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  situa(c.oDataModule, "SIN PROVINCIA");  // COD_PROV "AB" reads as 0
  EXPECT_EQ(c.oDataModule->TMunicipiccPROVINCIA->AsString(), "");
}

TEST_F(ModuloDatosTest, UnfilteredCursorCalculatesItsOwnRows) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  TDMCodPostales* dm = c.oDataModule;
  TBIndexa(QStringLiteral("NOMBRE"), dm->TMunicipiSinFiltro);
  ASSERT_TRUE(TBBusca(dm->TMunicipiSinFiltro, {QStringLiteral("NOMBRE"), QStringLiteral("ESPARTALES")}, true));
  EXPECT_EQ(dm->TMunicipiSinFiltroccNOMBRE_COMPLETO->AsString(), "ESPARTALES --> [ALCALA DE HENARES]");
  EXPECT_EQ(dm->TMunicipiSinFiltroccENT_MAYOR->AsString(), "ALCALA DE HENARES");
  EXPECT_EQ(dm->TMunicipiSinFiltroccPROVINCIA->AsString(), "MADRID");
}

TEST_F(ModuloDatosTest, GridRowsGetTheirCalculatedFields) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  TDataSource* fuente = c.oDataModule->DSMunicipi;
  fuente->SetColumns({"NOMBRE", "ccNOMBRE_COMPLETO", "ccPROVINCIA"});
  QStringList filas;
  for (int r = 0; r < fuente->rowCount(); ++r)
    filas << fuente->data(fuente->index(r, 1)).toString() + "|" + fuente->data(fuente->index(r, 2)).toString();
  EXPECT_TRUE(filas.contains("ARAVACA --> [MADRID]|MADRID"));
  EXPECT_TRUE(filas.contains("SOBRADO|CORUÑA (A)"));
  EXPECT_TRUE(filas.contains("SOBRADO|MADRID"));
}

TEST_F(ModuloDatosTest, StreetTableOpensOnPostalDbfByStreetWithoutDefaultCode) {
  // No "Postales" folder is needed for this road; the single file is used.
  TClaseCodPostales c(nullptr, alias(), true, "");
  EXPECT_TRUE(c.bDefectoPostal);
  EXPECT_EQ(c.oDataModule->TPostal->Tag, 0);
  ASSERT_TRUE(c.oDataModule->TPostal->Active());
  EXPECT_EQ(c.oDataModule->TPostal->TableName(), "POSTAL.DBF");
  EXPECT_EQ(c.oDataModule->TPostal->IndexName(), "VIA");
  EXPECT_EQ(nombres(c.oDataModule->TPostal, "VIA"), (QStringList{"DIAGONAL", "MAYOR", "TOLEDO"}));
}

TEST_F(ModuloDatosTest, StreetTableOpensAgainOnTheFileOfTheProvinceItsTagNames) {
  TClaseCodPostales c(nullptr, alias(), true, "");
  c.ActualizaTablaPostal("28079");
  ASSERT_EQ(c.oDataModule->TPostal->Tag, 28);
  c.CierraTablas();
  c.AbreTablas();  // tag 28 gives "28000"
  ASSERT_TRUE(c.oDataModule->TPostal->Active());
  EXPECT_EQ(c.oDataModule->TPostal->TableName(), "POSTAL28.DBF");
  EXPECT_EQ(c.oDataModule->TPostal->Tag, 28);
  EXPECT_EQ(nombres(c.oDataModule->TPostal, "VIA"), (QStringList{"ALCALA", "CASTELLANA", "MADRID", "MAYOR", "TOLEDO"}));
}

TEST_F(ModuloDatosTest, TagOfAOneDigitProvinceGivesTheCodeWithTheZeroLost) {
  // Tag 8 gives "80000": the file of "80", not of "08".
  std::filesystem::copy_file(dir.file("Postales/POSTAL08.DBF"), dir.file("Postales/POSTAL80.DBF"));
  TClaseCodPostales c(nullptr, alias(), true, "");
  c.ActualizaTablaPostal("08019");
  ASSERT_EQ(c.oDataModule->TPostal->Tag, 8);
  c.CierraTablas();
  c.AbreTablas();
  ASSERT_TRUE(c.oDataModule->TPostal->Active());
  EXPECT_EQ(c.oDataModule->TPostal->TableName(), "POSTAL80.DBF");
  EXPECT_EQ(c.oDataModule->TPostal->Tag, 80);
}

TEST_F(ModuloDatosTest, StreetTableOpensOnTheDefaultCodesProvinceFile) {
  TClaseCodPostales c(nullptr, alias(), true, "28079");
  EXPECT_EQ(c.oDataModule->TPostal->TableName(), "POSTAL28.DBF");
  EXPECT_EQ(c.oDataModule->TPostal->Tag, 28);
}

TEST_F(ModuloDatosTest, StreetTableStaysClosedWithoutStreetMode) {
  TClaseCodPostales c(nullptr, alias(), false, "28079");
  EXPECT_FALSE(c.oDataModule->TPostal->Active());
}

TEST_F(ModuloDatosTest, CountryListNeverShowsProvincesNorProvinceListCountries) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  QStringList paises = nombres(c.oDataModule->TPaises, "PROVINCIA");
  paises.sort();
  EXPECT_EQ(paises, (QStringList{"AFGANISTAN", "ESPAÑA", "FRANCIA", "PORTUGAL"}));
  QStringList provincias = nombres(c.oDataModule->TProvin, "PROVINCIA");
  provincias.sort();
  EXPECT_EQ(provincias, (QStringList{"BARCELONA", "CORUÑA (A)", "EXTRANJERO", "MADRID", "TOLEDO"}));
}

TEST_F(ModuloDatosTest, TablesOpenInTheirOrderWithTheirTags) {
  TClaseCodPostales c(nullptr, alias(), true, "");
  TDMCodPostales* propio = c.oDataModule;
  c.CierraTablas();
  QStringList orden;
  for (TTable* t : propio->findChildren<TTable*>())
    QObject::connect(t, &TTable::dataSetChanged, t, [t, &orden] {
      if (t->Active() && !orden.contains(t->objectName())) orden << t->objectName();
    });
  c.AbreTablas();
  EXPECT_EQ(orden, (QStringList{"TPaises", "TProvin", "TMunicipiAux", "TMunicipi", "TMunicipiSinFiltro",
                                "TMunicipiMJ", "TPostal", "TTipo_Via"}));
  EXPECT_EQ(propio->TPaises->Filter(), "GRUPO=2");
  EXPECT_TRUE(propio->TPaises->Filtered());
  EXPECT_EQ(propio->TProvin->Filter(), "GRUPO=1");
  EXPECT_TRUE(propio->TProvin->Filtered());
  EXPECT_EQ(propio->TMunicipiAux->IndexName(), "COD_INE");
  EXPECT_EQ(propio->TMunicipi->IndexName(), "NOMBRE");
  EXPECT_EQ(propio->TMunicipiSinFiltro->IndexName(), "NOMBRE");
  EXPECT_EQ(propio->TMunicipiMJ->IndexName(), "POBLLITE");
  EXPECT_EQ(propio->TTipo_Via->IndexName(), "CODIGO");
}

TEST_F(ModuloDatosTest, TablesCloseInTheirOrderAndClosingTwiceIsHarmless) {
  TClaseCodPostales c(nullptr, alias(), true, "");
  QStringList orden;
  for (TTable* t : c.oDataModule->findChildren<TTable*>())
    QObject::connect(t, &TTable::dataSetChanged, t, [t, &orden] {
      if (!t->Active()) orden << t->objectName();
    });
  c.CierraTablas();
  EXPECT_EQ(orden, (QStringList{"TPaises", "TProvin", "TMunicipi", "TMunicipiSinFiltro", "TMunicipiAux",
                                "TMunicipiMJ", "TPostal", "TTipo_Via"}));
  EXPECT_NO_THROW(c.CierraTablas());
  EXPECT_EQ(orden.size(), 8);
}

TEST_F(ModuloDatosTest, MissingFileReachesTheCallerNamingIt) {
  std::filesystem::remove(dir.file("TIPO_VIA.DBF"));
  try {
    TClaseCodPostales c(nullptr, alias(), false, "");
    FAIL() << "opened without TIPO_VIA.DBF";
  } catch (const dbase::Error& e) {
    EXPECT_NE(std::string(e.what()).find("TIPO_VIA.DBF"), std::string::npos) << e.what();
  }
}

TEST_F(ModuloDatosTest, MissingTagFieldReachesTheCallerNamingTheFile) {
  makeTable(dir.path(), "MUNICIMJ.DBF", {charField("PROVCOD", 10), charField("NOMBRE", 41)}, {{"28", "MADRID"}});
  try {
    TClaseCodPostales c(nullptr, alias(), false, "");
    FAIL() << "opened MUNICIMJ.DBF without POBLLITE";
  } catch (const dbase::Error& e) {
    EXPECT_NE(std::string(e.what()).find("MUNICIMJ.DBF"), std::string::npos) << e.what();
  }
}

TEST_F(ModuloDatosTest, UnknownAliasReachesTheCallerNamingIt) {
  try {
    TClaseCodPostales c(nullptr, "NO_EXISTE_ESTE_ALIAS", false, "");
    FAIL() << "opened an unknown alias";
  } catch (const dbase::Error& e) {
    EXPECT_NE(std::string(e.what()).find("NO_EXISTE_ESTE_ALIAS"), std::string::npos) << e.what();
  }
}

TEST_F(ModuloDatosTest, SampleDataOpensAndNamesItsMinorEntities) {
  TClaseCodPostales c(nullptr, CODPOSTALES_SOURCE_DIR "/data/muestra", true, "");
  TDMCodPostales* dm = c.oDataModule;
  TBIndexa(QStringLiteral("NOMBRE"), dm->TMunicipi);
  int menores = 0;
  for (dm->TMunicipi->First(); !dm->TMunicipi->Eof() && menores < 50; dm->TMunicipi->Next()) {
    if (!dm->TMunicipiENT_MENOR->AsBoolean()) continue;
    ++menores;
    const QString completo = dm->TMunicipiccNOMBRE_COMPLETO->AsString();
    EXPECT_TRUE(completo.startsWith(dm->TMunicipiNOMBRE->AsString() + " --> [")) << completo.toStdString();
    EXPECT_FALSE(dm->TMunicipiccENT_MAYOR->AsString().isEmpty());
    EXPECT_FALSE(dm->TMunicipiccPROVINCIA->AsString().isEmpty());
  }
  EXPECT_EQ(menores, 50);
}
