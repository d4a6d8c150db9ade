// The table helpers: open and post, filter switch, tag changes, key searches
// by field-name / value pairs, alias folders and tables on reference files.
#include <gtest/gtest.h>

#include <QDir>
#include <memory>

#include "dbase/ReferenceTags.h"
#include "dbase/TTable.h"
#include "dbase/core/alias.h"
#include "dbase/core/error.h"
#include "qstring_print.h"
#include "services/Ruttb.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace testsupport;

namespace {

class RuttbTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeTable(dir.path(), "PROVIN.DBF", {numField("CODIGO", 3), charField("PROVINCIA", 30), numField("GRUPO", 1)},
              {{"28", "MADRID", "1"},
               {"8", "BARCELONA", "1"},
               {"900", "ESPAÑA", "2"},
               {"250", "FRANCIA", "2"},
               {"15", "CORUÑA (A)", "1"},
               {"31", "NAVARRA", "1"}});
    makeTable(dir.path(), "POSTAL28.DBF",
              {charField("PROVINCIA", 2), charField("CAPITAL", 1), charField("VIA", 40), charField("TIPO_VIA", 5),
               charField("MUNICIPI", 30), numField("COD_INE", 5)},
              {{"28", "S", "MAYOR", "CL", "MADRID", "28079"},
               {"28", "S", "MAYOR", "PZ", "MADRID", "28079"},
               {"28", "S", "ALCALA", "CL", "MADRID", "28079"},
               {"28", "N", "MAYOR", "CL", "GETAFE", "28065"},
               {"08", "S", "MAYOR", "CL", "BARCELONA", "8019"}});
    provin.SetDatabaseName(QString::fromStdString(dir.path()));
    provin.SetTableName("PROVIN.DBF");
    DeclaraIndicesDeReferencia(&provin);
  }

  QStringList names(TTable& t, const char* field = "PROVINCIA") {
    QStringList out;
    for (t.First(); !t.Eof(); t.Next()) out << t.FieldByName(field)->AsString();
    return out;
  }
  QString current(TTable& t, const char* field = "PROVINCIA") { return t.FieldByName(field)->AsString(); }

  TempDir dir;
  TTable provin;
};

}  // namespace

TEST_F(RuttbTest, TBOpenOpensTheTable) {
  TBOpen(&provin);
  EXPECT_TRUE(provin.Active());
  EXPECT_EQ(provin.RecordCount(), 6);
  TBOpen(&provin);  // a second call is harmless
  EXPECT_TRUE(provin.Active());
}

TEST_F(RuttbTest, TBPostWritesTheInsertedAndTheEditedRow) {
  TBOpen(&provin);
  provin.Append();
  provin.FieldByName("CODIGO")->SetAsInteger(46);
  provin.FieldByName("PROVINCIA")->SetAsString("VALENCIA");
  TBPost(&provin);
  EXPECT_EQ(provin.State(), dsBrowse);
  EXPECT_EQ(provin.RecordCount(), 7);
  EXPECT_EQ(current(provin), "VALENCIA");

  provin.Edit();
  provin.FieldByName("PROVINCIA")->SetAsString("VALÈNCIA");
  TBPost(&provin);

  TTable other;
  other.SetDatabaseName(QString::fromStdString(dir.path()));
  other.SetTableName("provin");
  other.Open();
  other.Last();
  EXPECT_EQ(current(other), "VALÈNCIA");
}

TEST_F(RuttbTest, TBPostWithoutPendingChangesDoesNothing) {
  TBOpen(&provin);
  TBPost(&provin);
  EXPECT_EQ(provin.State(), dsBrowse);
  EXPECT_EQ(provin.RecordCount(), 6);
}

TEST_F(RuttbTest, TBFiltraSwitchesTheFilterOnAndOff) {
  TBIndexa("ALFABETICO", &provin);
  TBOpen(&provin);
  TBFiltra(&provin, "GRUPO=2");
  EXPECT_TRUE(provin.Filtered());
  EXPECT_EQ(provin.Filter(), "GRUPO=2");
  EXPECT_EQ(names(provin), (QStringList{"ESPAÑA", "FRANCIA"}));

  TBFiltra(&provin, "PROVINCIA='MADRID'");
  EXPECT_EQ(names(provin), (QStringList{"MADRID"}));

  TBFiltra(&provin, "");
  EXPECT_FALSE(provin.Filtered());
  EXPECT_EQ(provin.RecordCount(), 6);
}

TEST_F(RuttbTest, TBFiltraOnAClosedTableTakesEffectOnOpen) {
  TBFiltra(&provin, "GRUPO=2");
  TBOpen(&provin);
  EXPECT_EQ(provin.RecordCount(), 2);
}

TEST_F(RuttbTest, TBFiltraWithABadTextKeepsTheFilterInForce) {
  TBOpen(&provin);
  TBFiltra(&provin, "GRUPO=2");
  EXPECT_THROW(TBFiltra(&provin, "PROVINCIA='MADRID"), dbase::Error);
  EXPECT_THROW(TBFiltra(&provin, "NOEXISTE=1"), dbase::Error);
  EXPECT_TRUE(provin.Filtered());
  EXPECT_EQ(provin.Filter(), "GRUPO=2");
  EXPECT_EQ(provin.RecordCount(), 2);
}

TEST_F(RuttbTest, TBFiltraWithABadTextOnAnUnfilteredTableLeavesItUnfiltered) {
  TBOpen(&provin);
  try {
    TBFiltra(&provin, "PROVINCIA='MADRID");
    FAIL() << "a bad filter was accepted";
  } catch (const dbase::Error& e) {
    EXPECT_EQ(e.kind(), dbase::ErrorKind::InvalidArgument);
    EXPECT_NE(std::string(e.what()).find("PROVINCIA='MADRID"), std::string::npos) << e.what();
  }
  EXPECT_FALSE(provin.Filtered());
  EXPECT_EQ(provin.Filter(), "");
  EXPECT_EQ(provin.RecordCount(), 6);
}

TEST_F(RuttbTest, TBFiltraRejectsABadTextOnAClosedTable) {
  EXPECT_THROW(TBFiltra(&provin, "GRUPO=2 OR GRUPO=1"), dbase::Error);
  EXPECT_FALSE(provin.Filtered());
  TBOpen(&provin);
  EXPECT_EQ(provin.RecordCount(), 6);
}

TEST_F(RuttbTest, TBIndexaMakesTheTagCurrent) {
  TBOpen(&provin);
  TBIndexa("ALFABETICO", &provin);
  EXPECT_EQ(provin.IndexName(), "ALFABETICO");
  EXPECT_EQ(names(provin), (QStringList{"BARCELONA", "CORUÑA (A)", "ESPAÑA", "FRANCIA", "MADRID", "NAVARRA"}));
  TBIndexa("CODIGO", &provin);
  EXPECT_EQ(names(provin), (QStringList{"BARCELONA", "CORUÑA (A)", "MADRID", "NAVARRA", "FRANCIA", "ESPAÑA"}));
  EXPECT_THROW(TBIndexa("NOEXISTE", &provin), dbase::Error);
}

TEST_F(RuttbTest, TBIndexaGivesBackTheTagThatWasCurrent) {
  TBIndexa("CODIGO", &provin);
  TBOpen(&provin);
  QString indice = "ALFABETICO";
  TBIndexa(&provin, indice);
  EXPECT_EQ(indice, "CODIGO");
  EXPECT_EQ(provin.IndexName(), "ALFABETICO");
  EXPECT_EQ(names(provin).first(), "BARCELONA");

  TBIndexa(indice, &provin);  // put it back
  EXPECT_EQ(provin.IndexName(), "CODIGO");

  QString fisico = "";
  TBIndexa(&provin, fisico);
  EXPECT_EQ(fisico, "CODIGO");
  EXPECT_EQ(names(provin).first(), "MADRID");  // physical order
}

TEST_F(RuttbTest, TBBuscaExactFindsTheRow) {
  TBIndexa("ALFABETICO", &provin);
  TBOpen(&provin);
  EXPECT_TRUE(TBBusca(&provin, {"PROVINCIA", "FRANCIA"}, true));
  EXPECT_EQ(current(provin), "FRANCIA");
  EXPECT_TRUE(TBBusca(&provin, {"provincia", "CORUÑA (A)"}, true));
  EXPECT_EQ(current(provin), "CORUÑA (A)");
}

TEST_F(RuttbTest, TBBuscaExactMissLeavesTheCursorWhereItWas) {
  TBIndexa("ALFABETICO", &provin);
  TBOpen(&provin);
  ASSERT_TRUE(TBBusca(&provin, {"PROVINCIA", "ESPAÑA"}, true));
  const int here = provin.RecNo();
  EXPECT_FALSE(TBBusca(&provin, {"PROVINCIA", "GALICIA"}, true));
  EXPECT_EQ(provin.RecNo(), here);
  EXPECT_FALSE(TBBusca(&provin, {"PROVINCIA", "MAD"}, true));  // a prefix is no exact key
  EXPECT_EQ(current(provin), "ESPAÑA");
}

TEST_F(RuttbTest, TBBuscaPartialFindsTheNearestRowAtOrAfter) {
  TBIndexa("ALFABETICO", &provin);
  TBOpen(&provin);
  EXPECT_TRUE(TBBusca(&provin, {"PROVINCIA", "MAD"}, false));
  EXPECT_EQ(current(provin), "MADRID");
  EXPECT_TRUE(TBBusca(&provin, {"PROVINCIA", "GALICIA"}, false));
  EXPECT_EQ(current(provin), "MADRID");
  EXPECT_TRUE(TBBusca(&provin, {"PROVINCIA", "CORUNA"}, false));
  EXPECT_EQ(current(provin), "CORUÑA (A)");
}

TEST_F(RuttbTest, TBBuscaPartialGoesToTheLastRowWhenNothingIsAtOrAfter) {
  TBIndexa("ALFABETICO", &provin);
  TBOpen(&provin);
  provin.First();
  EXPECT_TRUE(TBBusca(&provin, {"PROVINCIA", "ZAMORA"}, false));
  EXPECT_EQ(current(provin), "NAVARRA");
}

TEST_F(RuttbTest, TBBuscaPartialOnAnEmptyViewIsFalse) {
  TBIndexa("ALFABETICO", &provin);
  TBFiltra(&provin, "GRUPO=7");
  TBOpen(&provin);
  EXPECT_FALSE(TBBusca(&provin, {"PROVINCIA", "MADRID"}, false));
}

TEST_F(RuttbTest, TBBuscaReadsAZeroPaddedCodeAsTheNumberOfANumericTag) {
  TBIndexa("CODIGO", &provin);
  TBOpen(&provin);
  const QString codProv = "08";  // as MUNICIPI's COD_PROV holds it
  EXPECT_TRUE(TBBusca(&provin, {"CODIGO", codProv}, true));
  EXPECT_EQ(current(provin), "BARCELONA");
  EXPECT_TRUE(TBBusca(&provin, {"CODIGO", 28}, true));
  EXPECT_EQ(current(provin), "MADRID");
  EXPECT_FALSE(TBBusca(&provin, {"CODIGO", 29}, true));
  EXPECT_TRUE(TBBusca(&provin, {"CODIGO", 29}, false));
  EXPECT_EQ(current(provin), "NAVARRA");
}

TEST_F(RuttbTest, TBBuscaWithFourPairsOnTheStreetTag) {
  std::unique_ptr<TTable> calles(CreaTabla(QString::fromStdString(dir.path()), "POSTAL28", "VIA", false, true));
  EXPECT_TRUE(TBBusca(calles.get(), {"PROVINCIA", "28", "CAPITAL", "S", "VIA", "MAYOR", "TIPO_VIA", "PZ"}, true));
  EXPECT_EQ(current(*calles, "TIPO_VIA"), "PZ");
  EXPECT_EQ(current(*calles, "MUNICIPI"), "MADRID");
  EXPECT_TRUE(TBBusca(calles.get(), {"PROVINCIA", "28", "CAPITAL", "N", "VIA", "MAYOR", "TIPO_VIA", "CL"}, true));
  EXPECT_EQ(current(*calles, "MUNICIPI"), "GETAFE");
  EXPECT_FALSE(TBBusca(calles.get(), {"PROVINCIA", "28", "CAPITAL", "N", "VIA", "MAYOR", "TIPO_VIA", "AV"}, true));
  // Fewer pairs search on the leading fields only.
  EXPECT_TRUE(TBBusca(calles.get(), {"PROVINCIA", "28", "CAPITAL", "S", "VIA", "MAY"}, false));
  EXPECT_EQ(current(*calles, "VIA"), "MAYOR");
  EXPECT_EQ(current(*calles, "TIPO_VIA"), "CL");
}

TEST_F(RuttbTest, TBBuscaRejectsAKeyThatDoesNotFitTheIndex) {
  TBIndexa("ALFABETICO", &provin);
  TBOpen(&provin);
  auto message = [&](const QVariantList& clave) -> std::string {
    try {
      TBBusca(&provin, clave, true);
    } catch (const dbase::Error& e) {
      EXPECT_EQ(e.kind(), dbase::ErrorKind::InvalidArgument);
      return e.what();
    }
    return "(no error)";
  };
  for (const QVariantList& clave : {QVariantList{"PROVINCIA"}, QVariantList{"PROVINCIA", "MADRID", "GRUPO"},
                                    QVariantList{}, QVariantList{"CODIGO", 28},
                                    QVariantList{"PROVINCIA", "MADRID", "GRUPO", 1}}) {
    const std::string text = message(clave);
    EXPECT_NE(text.find("PROVIN.DBF"), std::string::npos) << text;
    EXPECT_NE(text.find("ALFABETICO"), std::string::npos) << text;
  }
}

TEST_F(RuttbTest, TBBuscaRejectsMoreThanFourPairs) {
  std::unique_ptr<TTable> calles(CreaTabla(QString::fromStdString(dir.path()), "POSTAL28", "VIA", false, true));
  EXPECT_THROW(TBBusca(calles.get(),
                       {"PROVINCIA", "28", "CAPITAL", "S", "VIA", "MAYOR", "TIPO_VIA", "CL", "MUNICIPI", "MADRID"},
                       true),
               dbase::Error);
}

TEST_F(RuttbTest, TBBuscaRejectsNamesInTheWrongOrder) {
  std::unique_ptr<TTable> calles(CreaTabla(QString::fromStdString(dir.path()), "POSTAL28", "VIA", false, true));
  EXPECT_THROW(TBBusca(calles.get(), {"CAPITAL", "S", "PROVINCIA", "28"}, true), dbase::Error);
}

TEST_F(RuttbTest, RutaDelAliasOfARegisteredAlias) {
  dbase::registerAlias("RUTTB_REGISTRADO", dir.path());
  EXPECT_EQ(RutaDelAlias("ruttb_registrado"), QString::fromStdString(dir.path()));
  dbase::unregisterAlias("RUTTB_REGISTRADO");
}

TEST_F(RuttbTest, RutaDelAliasOfAnEnvironmentAlias) {
  qputenv("CODPOSTALES_ALIAS_RUTTB_ENTORNO", QByteArray::fromStdString(dir.path()));
  EXPECT_EQ(RutaDelAlias("Ruttb_Entorno"), QString::fromStdString(dir.path()));
  qunsetenv("CODPOSTALES_ALIAS_RUTTB_ENTORNO");
  EXPECT_THROW(RutaDelAlias("Ruttb_Entorno"), dbase::Error);
}

TEST_F(RuttbTest, RutaDelAliasOfAFolderPath) {
  QDir(QString::fromStdString(dir.path())).mkdir("Datos");
  EXPECT_EQ(RutaDelAlias(QString::fromStdString(dir.file("Datos"))), QString::fromStdString(dir.file("Datos")));
  EXPECT_EQ(RutaDelAlias(QString::fromStdString(dir.file("DATOS"))), QString::fromStdString(dir.file("Datos")));
  EXPECT_THROW(RutaDelAlias(QString::fromStdString(dir.file("NoHay"))), dbase::Error);
}

TEST_F(RuttbTest, CreaTablaOpensTheStreetTableOnItsStreetTag) {
  makeTable(dir.path(), "POSTAL.DBF",
            {charField("PROVINCIA", 2), charField("CAPITAL", 1), charField("VIA", 40), charField("TIPO_VIA", 5),
             charField("MUNICIPI", 30), numField("COD_INE", 5)},
            {{"28", "S", "SOL", "PZ", "MADRID", "28079"}, {"08", "S", "DIAGONAL", "AV", "BARCELONA", "8019"}});
  dbase::registerAlias("RUTTB_CALLES", dir.path());
  std::unique_ptr<TTable> calles(CreaTabla("RUTTB_CALLES", "POSTAL", "VIA", false, true));
  dbase::unregisterAlias("RUTTB_CALLES");
  ASSERT_TRUE(calles->Active());
  EXPECT_EQ(calles->IndexName(), "VIA");
  EXPECT_EQ(calles->IndexFields(), (QStringList{"PROVINCIA", "CAPITAL", "VIA", "TIPO_VIA"}));
  EXPECT_EQ(calles->IndexDefNames(), (QStringList{"VIA", "MUNICIPI", "COD_INE", "SOLOVIA"}));
  calles->First();
  EXPECT_EQ(current(*calles, "VIA"), "DIAGONAL");
  EXPECT_EQ(calles->parent(), nullptr);
}

TEST_F(RuttbTest, CreaTablaLeavesTheTableClosedWhenNotAskedToOpen) {
  std::unique_ptr<TTable> calles(CreaTabla(QString::fromStdString(dir.path()), "POSTAL28.DBF", "SOLOVIA", false, false));
  EXPECT_FALSE(calles->Active());
  calles->Open();
  EXPECT_EQ(names(*calles, "VIA").first(), "ALCALA");
}

TEST_F(RuttbTest, CreaTablaFailsOnAnUnknownTag) {
  EXPECT_THROW(delete CreaTabla(QString::fromStdString(dir.path()), "POSTAL28", "NOEXISTE", false, true),
               dbase::Error);
}

TEST_F(RuttbTest, CreaTablaFailsOnAnUnknownAlias) {
  EXPECT_THROW(delete CreaTabla("RUTTB_NO_EXISTE", "POSTAL28", "VIA", false, true), dbase::Error);
}

TEST(ReferenceTags, EachReferenceFileDeclaresItsTags) {
  auto tags = [](const QString& file) {
    QStringList out;
    for (const auto& i : IndicesDeReferencia(file)) out << i.nombre + "=" + i.campos.join(u',');
    return out;
  };
  EXPECT_EQ(tags("PROVIN.DBF"), (QStringList{"CODIGO=CODIGO", "ALFABETICO=PROVINCIA"}));
  EXPECT_EQ(tags("municipi"), (QStringList{"COD_INE=COD_INE", "NOMBRE=NOMBRE", "CODPOSTAL=CODPOSTAL",
                                           "CPROVMUN=COD_PROV,COD_MUN"}));
  const QStringList street{"VIA=PROVINCIA,CAPITAL,VIA,TIPO_VIA", "MUNICIPI=MUNICIPI", "COD_INE=COD_INE",
                           "SOLOVIA=VIA"};
  EXPECT_EQ(tags("POSTAL.DBF"), street);
  EXPECT_EQ(tags("C:\\DATOS\\postal08.dbf"), street);
  EXPECT_EQ(tags("/datos/Postal52"), street);
  EXPECT_EQ(tags("TIPO_VIA.DBF"), (QStringList{"CODIGO=CODIGO", "NOMBRE=NOMBRE"}));
  EXPECT_EQ(tags("MUNICIMJ.DBF"), (QStringList{"POBLLITE=POBLLITE"}));
  EXPECT_TRUE(tags("POSTALES.DBF").isEmpty());
  EXPECT_TRUE(tags("CLIENTES.DBF").isEmpty());
}
