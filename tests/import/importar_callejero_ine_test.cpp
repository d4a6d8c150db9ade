// Storing INE's street directory in the host's street tables: every field of
// a row, the ranges joined, the street types through INE's table and the
// host's, the municipality's name and capital flag, the street codes, the
// province files made with their index, and runs that add nothing new.
#include <gtest/gtest.h>

#include <QString>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "support/callejero_ine.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/mdx_tags.h"
#include "guarda_comun.h"
#include "import/ImportarCallejeroIne.h"
#include "support/recorrido_mdx.h"
#include "support/referencia.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace inetest;
using testsupport::TempDir;

namespace {

namespace fs = std::filesystem;

// A types table of INE's form, with a synonym and a type the host lacks.
const std::string kTipos =
    "TIPO_VIA;SINONIMO;DESCRIPCION;COMENTARIO\n"
    "AVDA;AV;AVENIDA;\n"
    "AVDA;AVDA;AVENIDA;\n"
    "C/;C/;CARRER;\n"
    "CALLE;C/;CALLE;\n"
    "CALLE;CALLE;CALLE;\n"
    "CALLE;KALEA;CALLE;\n"
    "KALEA;KALEA;KALEA;\n"
    "PLAZA;PLAZA;PLAZA;\n"
    "BARRO;BARRO;BARRIO;\n";

TramoDePrueba madrid(int via, const std::string& cp, int tinum, int desde, int hasta, int seccion = 1) {
  return {"28", "079", via, cp, tinum, desde, hasta, 0, seccion};
}

class ImportarCallejeroIneTest : public ::testing::Test {
 protected:
  ImportarCallejeroIneTest() {
    testsupport::escribeJuegoDeReferencia(dir.path());
    testsupport::writeFile(dir.file("TiposVia.csv"), kTipos);
  }

  void escribe(const std::vector<std::string>& tramos, const std::vector<std::string>& vias) {
    testsupport::writeFile(dir.file("TRAM"), texto(tramos));
    testsupport::writeFile(dir.file("VIAS"), texto(vias));
  }

  ResumenCallejeroIne importa(const QList<int>& provincias = {}, const QString& tipos = {}) {
    malas.clear();
    AvisosCallejeroIne avisos;
    avisos.lineaMala = [this](const QString& m) { malas << m; };
    return ImportaCallejeroIne(QString::fromStdString(dir.path()), QString::fromStdString(dir.file("TRAM")),
                               QString::fromStdString(dir.file("VIAS")), tipos, provincias, avisos);
  }

  std::vector<guarda::Fila> calles(const std::string& fichero) { return guarda::leeTabla(dir.file(fichero)); }

  // The rows of the table not in the reference set (CODIGO1 set by the import).
  std::vector<guarda::Fila> nuevas(const std::string& fichero) {
    std::vector<guarda::Fila> out;
    for (const auto& f : calles(fichero))
      if (!f.value("CODIGO1").isEmpty()) out.push_back(f);
    return out;
  }

  TempDir dir;
  QStringList malas;
};

// Madrid: NUEVA (two postcodes, stretches to join), ESPAÑA (an avenue, Ñ),
// SOL (DEL) (a square without numbers), RARA (a type nobody knows).
const std::vector<std::string> kViasMadrid = {
    lineaVia(true, "28", "079", 1, "CALLE", "NUEVA"), lineaVia(true, "28", "079", 2, "AVDA", "ESPAÑA"),
    lineaVia(true, "28", "079", 3, "PLAZA", "SOL (DEL)"), lineaVia(true, "28", "079", 4, "XYZ", "RARA")};
const std::vector<std::string> kTramosMadrid = {
    lineaTramo(madrid(1, "28013", 1, 1, 9, 1)),   lineaTramo(madrid(1, "28013", 2, 2, 10, 1)),
    lineaTramo(madrid(3, "28013", 0, 0, 0, 1)),   lineaTramo(madrid(1, "28013", 1, 11, 19, 2)),
    lineaTramo(madrid(2, "28014", 2, 2, 98, 2)),  lineaTramo(madrid(1, "28014", 1, 21, 29, 3)),
    lineaTramo(madrid(1, "28014", 2, 12, 40, 3)), lineaTramo(madrid(4, "28015", 1, 1, 5, 3)),
    lineaTramo({"28", "079", 0, "28013", 0, 0, 0, 0, 4}), lineaTramo({"28", "079", 0, "28013", 1, 1, 9, 70, 4})};

}  // namespace

TEST_F(ImportarCallejeroIneTest, EveryFieldLandsWhereTheImportWritesIt) {
  escribe(kTramosMadrid, kViasMadrid);
  const ResumenCallejeroIne r = importa();
  EXPECT_TRUE(malas.isEmpty()) << malas.join('\n').toStdString();
  EXPECT_EQ(r.diseno, "nuevo (132)");
  EXPECT_EQ(r.tramos, 10u);
  EXPECT_EQ(r.filasGuardadas, 5u);
  EXPECT_EQ(r.filasYaGuardadas, 0u);
  EXPECT_EQ(r.sinViaUnidad, 1u);
  EXPECT_EQ(r.sinViaPseudovia, 1u);
  EXPECT_EQ(r.tiposDesconocidos, QStringList{"XYZ"});
  EXPECT_EQ(r.filasSinTipo, 1u);
  ASSERT_EQ(r.ficheros.size(), 1);
  EXPECT_EQ(r.ficheros[0].first, "Postales/POSTAL28.DBF");

  const auto filas = nuevas("Postales/POSTAL28.DBF");
  ASSERT_EQ(filas.size(), 5u);
  // The reference rows' CODIGO1 is empty: the last row's code plus one.
  const guarda::Fila nueva28013 = {{"VIA", "NUEVA"},         {"TIPO_VIA", "CL"},     {"IMPAR_INI", "1"},
                                   {"IMPAR_FIN", "19"},      {"PAR_INI", "2"},       {"PAR_FIN", "10"},
                                   {"CODPOSTAL", "28013"},   {"CAPITAL", "S"},       {"PROVINCIA", "28"},
                                   {"MUNICIPI", "MADRID"},   {"COD_INE", "28079"},   {"NOMBRE_2", "nueva"},
                                   {"CODIGO1", "1"}};
  EXPECT_EQ(filas[0], nueva28013);
  EXPECT_EQ(filas[1]["VIA"], "NUEVA");
  EXPECT_EQ(filas[1]["CODPOSTAL"], "28014");
  EXPECT_EQ(filas[1]["IMPAR_INI"] + "-" + filas[1]["IMPAR_FIN"] + "/" + filas[1]["PAR_INI"] + "-" + filas[1]["PAR_FIN"],
            "21-29/12-40");
  EXPECT_EQ(filas[1]["CODIGO1"], "2");
  EXPECT_EQ(filas[2]["VIA"], "ESPAÑA");
  EXPECT_EQ(filas[2]["TIPO_VIA"], "AV");
  EXPECT_EQ(filas[2]["NOMBRE_2"], "españa");
  EXPECT_EQ(filas[2]["IMPAR_INI"] + "-" + filas[2]["IMPAR_FIN"] + "/" + filas[2]["PAR_INI"] + "-" + filas[2]["PAR_FIN"],
            "0-0/2-98");
  // A square without numbers: the whole street.
  EXPECT_EQ(filas[3]["VIA"], "SOL (DEL)");
  EXPECT_EQ(filas[3]["TIPO_VIA"], "PZ");
  EXPECT_EQ(filas[3]["IMPAR_INI"] + "-" + filas[3]["IMPAR_FIN"] + "/" + filas[3]["PAR_INI"] + "-" + filas[3]["PAR_FIN"],
            "1-9999/2-9998");
  EXPECT_EQ(filas[4]["VIA"], "RARA");
  EXPECT_EQ(filas[4]["TIPO_VIA"], "");
  EXPECT_EQ(filas[4]["CODIGO1"], "5");
}

TEST_F(ImportarCallejeroIneTest, TheSameFilesTwiceAddNothingTheSecondTime) {
  escribe(kTramosMadrid, kViasMadrid);
  importa();
  const size_t antes = calles("Postales/POSTAL28.DBF").size();
  const ResumenCallejeroIne r = importa();
  EXPECT_EQ(r.filasGuardadas, 0u);
  EXPECT_EQ(r.filasYaGuardadas, 5u);
  EXPECT_EQ(calles("Postales/POSTAL28.DBF").size(), antes);
}

TEST_F(ImportarCallejeroIneTest, ALaterPublicationAddsOnlyWhatChanged) {
  escribe(kTramosMadrid, kViasMadrid);
  importa();
  // NUEVA's odd numbers of 28014 now reach 31; the rest is as it was.
  std::vector<std::string> despues = kTramosMadrid;
  despues[5] = lineaTramo(madrid(1, "28014", 1, 21, 31, 3));
  escribe(despues, kViasMadrid);
  const ResumenCallejeroIne r = importa();
  EXPECT_EQ(r.filasGuardadas, 1u);
  EXPECT_EQ(r.filasYaGuardadas, 4u);
  const auto filas = nuevas("Postales/POSTAL28.DBF");
  ASSERT_EQ(filas.size(), 6u);
  EXPECT_EQ(filas[5]["IMPAR_FIN"], "31");
  EXPECT_EQ(filas[5]["CODIGO1"], "6");
}

TEST_F(ImportarCallejeroIneTest, AMissingProvinceFileIsMadeWithTheStreetTagsInItsIndex) {
  // A Coruña, the capital: no POSTAL15.DBF yet.
  escribe({lineaTramo({"15", "030", 7, "15001", 1, 1, 99, 0, 1}), lineaTramo({"15", "030", 7, "15001", 2, 2, 50, 0, 1})},
          {lineaVia(false, "15", "030", 7, "CALLE", "REAL")});
  const ResumenCallejeroIne r = importa();
  EXPECT_EQ(r.diseno, "antiguo (108)");
  ASSERT_TRUE(fs::exists(dir.file("Postales/POSTAL15.DBF")));
  const auto tabla = dbase::DbfFile::open(dir.file("Postales/POSTAL15.DBF"));
  ASSERT_TRUE(tabla->hasProductionMdx());
  // The layout of the folder's POSTAL.DBF.
  EXPECT_EQ(tabla->fields().size(), testsupport::camposCalle().size());
  std::vector<std::string> tags;
  for (const auto& t : dbase::MdxTags::of(*tabla).tags()) tags.push_back(t.name);
  EXPECT_EQ(tags, (std::vector<std::string>{"VIA", "MUNICIPI", "COD_INE", "SOLOVIA"}));
  const auto filas = calles("Postales/POSTAL15.DBF");
  ASSERT_EQ(filas.size(), 1u);
  EXPECT_EQ(filas[0]["MUNICIPI"], "CORUÑA (A)");
  EXPECT_EQ(filas[0]["CAPITAL"], "S");
  EXPECT_EQ(filas[0]["CODIGO1"], "99000000");  // the first code of an empty table
  for (const auto& [tag, recorrido] : testsupport::recorridosDelMotor(dir.file("Postales/POSTAL15.MDX")))
    EXPECT_EQ(testsupport::faltaOSobra(recorrido, 1), "") << tag;
}

TEST_F(ImportarCallejeroIneTest, ALoadLargeAgainstTheTableLeavesEveryTagOfItsIndexRight) {
  std::vector<std::string> vias, tramos;
  for (int v = 1; v <= 1500; ++v) {
    vias.push_back(lineaVia(true, "15", "030", v, v % 2 ? "CALLE" : "PLAZA", "CALLE NUMERO " + std::to_string(v)));
    tramos.push_back(lineaTramo({"15", "030", v, "15001", 1, 1, 9, 0, v % 7}));
    tramos.push_back(lineaTramo({"15", "030", v, v % 3 ? "15002" : "15001", 2, 2, 20, 0, v % 5}));
  }
  escribe(tramos, vias);
  const ResumenCallejeroIne r = importa();
  const uint32_t filas = uint32_t(1500 + 1000);  // a row per postcode
  EXPECT_EQ(r.filasGuardadas, filas);
  EXPECT_FALSE(fs::exists(dbase::MdxTags::markFor(dir.file("Postales/POSTAL15.MDX"))));
  const auto recorridos = testsupport::recorridosDelMotor(dir.file("Postales/POSTAL15.MDX"));
  ASSERT_EQ(recorridos.size(), 4u);
  for (const auto& [tag, recorrido] : recorridos) EXPECT_EQ(testsupport::faltaOSobra(recorrido, filas), "") << tag;
  // And again: a few rows more, kept entry by entry.
  tramos.push_back(lineaTramo({"15", "030", 1, "15003", 1, 11, 19, 0, 1}));
  escribe(tramos, vias);
  EXPECT_EQ(importa().filasGuardadas, 1u);
  for (const auto& [tag, recorrido] : testsupport::recorridosDelMotor(dir.file("Postales/POSTAL15.MDX")))
    EXPECT_EQ(testsupport::faltaOSobra(recorrido, filas + 1), "") << tag;
}

TEST_F(ImportarCallejeroIneTest, WithoutAPostalesFolderTheRowsGoToPostalDbf) {
  fs::remove_all(dir.file("Postales"));
  escribe(kTramosMadrid, kViasMadrid);
  const ResumenCallejeroIne r = importa();
  ASSERT_EQ(r.ficheros.size(), 1);
  EXPECT_EQ(r.ficheros[0].first, "POSTAL.DBF");
  EXPECT_EQ(nuevas("POSTAL.DBF").size(), 5u);
  EXPECT_FALSE(fs::exists(dir.file("Postales")));
}

TEST_F(ImportarCallejeroIneTest, MunicipalitiesMissingFromMunicipiAreCountedAndNotStored) {
  escribe({lineaTramo({"45", "168", 1, "45001", 1, 1, 9, 0, 1}), lineaTramo({"45", "168", 1, "45001", 2, 2, 8, 0, 1}),
           lineaTramo(madrid(1, "28013", 1, 1, 9))},
          {lineaVia(true, "45", "168", 1, "CALLE", "ANCHA"), kViasMadrid[0]});
  const ResumenCallejeroIne r = importa();
  EXPECT_EQ(r.municipiosAusentes, QStringList{"45168"});
  EXPECT_EQ(r.deMunicipioAusente, 2u);
  EXPECT_EQ(r.filasGuardadas, 1u);
  EXPECT_FALSE(fs::exists(dir.file("Postales/POSTAL45.DBF")));
}

TEST_F(ImportarCallejeroIneTest, OnlyTheProvincesAskedForAreStored) {
  escribe({lineaTramo({"08", "019", 5, "08009", 1, 1, 9, 0, 1}), lineaTramo(madrid(1, "28013", 1, 1, 9))},
          {lineaVia(true, "08", "019", 5, "C/", "ARAGO"), kViasMadrid[0]});
  const ResumenCallejeroIne r = importa({8});
  EXPECT_EQ(r.deOtrasProvincias, 1u);
  ASSERT_EQ(r.ficheros.size(), 1);
  EXPECT_EQ(r.ficheros[0].first, "Postales/POSTAL08.DBF");
  const auto filas = nuevas("Postales/POSTAL08.DBF");
  ASSERT_EQ(filas.size(), 1u);
  EXPECT_EQ(filas[0]["TIPO_VIA"], "CL");  // C/ is a synonym of CALLE
  EXPECT_EQ(filas[0]["CAPITAL"], "S");
  EXPECT_EQ(nuevas("Postales/POSTAL28.DBF").size(), 0u);
}

TEST_F(ImportarCallejeroIneTest, RealStreetLinesOfBothDesignsStoreTheSameRows) {
  const auto antiguas = viasRealesAntiguas(), nuevasLineas = viasRealesNuevas();
  const std::string tipos = tablaDeTiposDelIne();
  if (antiguas.empty() || tipos.empty()) GTEST_SKIP() << "sin los datos de ../shared";
  testsupport::makeTable(dir.path(), "TIPO_VIA.DBF", {testsupport::charField("CODIGO", 5), testsupport::charField("NOMBRE", 30)},
                         {{"CL", "CALLE"}, {"PZ", "PLAZA"}, {"CM", "CAMINO"}, {"BO", "BARRIO"}});
  guarda::anadeFilas(dir.file("MUNICIPI.DBF"), {{"48912", "48810", "S", "N", "ALONSOTEGI", "48", "0912", "912", "F"}});
  std::vector<std::string> tramos;
  for (const std::string& l : antiguas) {
    const int via = std::stoi(l.substr(5, 5));
    tramos.push_back(lineaTramo({"48", "912", via, "48810", 1, 1, 2 * (via % 40) + 1, 0, 1}));
  }
  std::map<std::string, std::vector<guarda::Fila>> porDiseno;
  for (const auto* vias : {&antiguas, &nuevasLineas}) {
    fs::remove(dir.file("Postales/POSTAL48.DBF"));
    fs::remove(dir.file("Postales/POSTAL48.MDX"));
    escribe(tramos, *vias);
    const ResumenCallejeroIne r = importa({}, QString::fromStdString(tipos));
    EXPECT_TRUE(malas.isEmpty()) << malas.join('\n').toStdString();
    EXPECT_EQ(r.filasGuardadas, 20u);
    EXPECT_TRUE(r.tiposDesconocidos.isEmpty()) << r.tiposDesconocidos.join(' ').toStdString();
    porDiseno[r.diseno.toStdString()] = calles("Postales/POSTAL48.DBF");
  }
  const auto& a = porDiseno["antiguo (108)"];
  ASSERT_EQ(a.size(), 20u);
  EXPECT_EQ(a, porDiseno["nuevo (132)"]);
  EXPECT_EQ(a[0]["VIA"], "ANDRA MARI ENPARANTZA");
  EXPECT_EQ(a[0]["TIPO_VIA"], "PZ");
  EXPECT_EQ(a[0]["MUNICIPI"], "ALONSOTEGI");
  EXPECT_EQ(a[2]["TIPO_VIA"], "CM");  // CMNO, camino
  EXPECT_EQ(a[3]["TIPO_VIA"], "BO");  // BARRO, barrio
  EXPECT_EQ(a[9]["VIA"], "BARRANCA (LA)");
  EXPECT_EQ(a[9]["NOMBRE_2"], "barranca (la)");
  EXPECT_EQ(a[18]["VIA"], "NUESTRA SEÑORA DE LA GUIA");
  EXPECT_EQ(a[18]["NOMBRE_2"], "nuestra señora de la guia");
}

TEST_F(ImportarCallejeroIneTest, TypesTableBesideTheStretchFileIsFoundByItself) {
  escribe({lineaTramo(madrid(9, "28013", 1, 1, 9))}, {lineaVia(true, "28", "079", 9, "KALEA", "ZABALA")});
  importa();
  const auto filas = nuevas("Postales/POSTAL28.DBF");
  ASSERT_EQ(filas.size(), 1u);
  EXPECT_EQ(filas[0]["TIPO_VIA"], "CL");  // KALEA names no host type, its synonym CALLE does
  fs::remove(dir.file("TiposVia.csv"));
  escribe({lineaTramo(madrid(9, "28014", 1, 1, 9))}, {lineaVia(true, "28", "079", 9, "KALEA", "ZABALA")});
  const ResumenCallejeroIne r = importa();
  EXPECT_EQ(r.tiposDesconocidos, QStringList{"KALEA"});
}
