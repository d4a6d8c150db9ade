// The committed sample set (data/muestra) and the national set generator:
// what the host relies on in the reference tables.
#include <gtest/gtest.h>

#include <QString>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <tuple>
#include <string>
#include <vector>

#include "dbase/core/codepage.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"
#include "support/temp_dir.h"

namespace fs = std::filesystem;
using dbase::DbfFile;

namespace {

using Fila = std::map<std::string, std::string>;

const fs::path kMuestra = fs::path(CODPOSTALES_SOURCE_DIR) / "data" / "muestra";

std::vector<Fila> leer(const fs::path& path) {
  auto f = DbfFile::open(path.string());
  std::vector<Fila> out;
  out.reserve(f->recordCount());
  for (uint32_t r = 1; r <= f->recordCount(); ++r) {
    Fila fila;
    for (const auto& campo : f->fields()) fila[campo.name] = dbase::fieldText(campo, f->record(r), f->codePage());
    out.push_back(std::move(fila));
  }
  return out;
}

std::vector<fs::path> tablasDe(const fs::path& dir) {
  std::vector<fs::path> out;
  for (const auto& e : fs::recursive_directory_iterator(dir))
    if (e.path().extension() == ".DBF") out.push_back(e.path());
  return out;
}

size_t lineasDe(const fs::path& csv) {
  std::ifstream in(csv);
  size_t n = 0;
  for (std::string l; std::getline(in, l);) n += !l.empty();
  return n - 1;  // header
}

// Field name -> type and width, as the whole program expects them.
using Forma = std::vector<std::tuple<std::string, char, uint32_t>>;

void compruebaForma(const fs::path& path, const Forma& forma) {
  auto f = DbfFile::open(path.string());
  ASSERT_EQ(f->fields().size(), forma.size()) << path;
  for (size_t i = 0; i < forma.size(); ++i) {
    const auto& [nombre, tipo, ancho] = forma[i];
    EXPECT_EQ(f->fields()[i].name, nombre) << path;
    EXPECT_EQ(char(f->fields()[i].type), tipo) << path << " " << nombre;
    EXPECT_EQ(f->fields()[i].length, ancho) << path << " " << nombre;
  }
}

const Forma kFormaPostal = {{"VIA", 'C', 45},      {"TIPO_VIA", 'C', 5},  {"IMPAR_INI", 'N', 5}, {"IMPAR_FIN", 'N', 5},
                            {"PAR_INI", 'N', 5},   {"PAR_FIN", 'N', 5},   {"CODPOSTAL", 'C', 5}, {"CAPITAL", 'C', 1},
                            {"PROVINCIA", 'C', 30}, {"MUNICIPI", 'C', 30}, {"COD_INE", 'C', 5},   {"NOMBRE_2", 'C', 45},
                            {"CODIGO1", 'C', 8}};

TEST(MuestraTablas, AllTablesArePresent) {
  for (const char* nombre : {"PROVIN.DBF", "MUNICIPI.DBF", "TIPO_VIA.DBF", "MUNICIMJ.DBF", "POSTAL.DBF",
                             "Postales/POSTAL28.DBF", "Postales/POSTAL03.DBF", "Postales/POSTAL15.DBF",
                             "Postales/POSTAL08.DBF"})
    EXPECT_TRUE(fs::is_regular_file(kMuestra / nombre)) << nombre;
}

TEST(MuestraTablas, SpanishCp850DriverAndDbase3Version) {
  for (const auto& path : tablasDe(kMuestra)) {
    auto f = DbfFile::open(path.string());
    EXPECT_EQ(f->languageDriver(), 0x14) << path;
    EXPECT_EQ(f->version(), 0x03) << path;
    EXPECT_EQ(f->codePage().number(), 850) << path;
    EXPECT_TRUE(f->warnings().empty()) << path;
  }
}

TEST(MuestraTablas, FieldsHaveTheHostWidths) {
  compruebaForma(kMuestra / "PROVIN.DBF", {{"CODIGO", 'N', 3}, {"PROVINCIA", 'C', 30}, {"GRUPO", 'N', 1}});
  compruebaForma(kMuestra / "MUNICIPI.DBF",
                 {{"COD_INE", 'C', 5}, {"CODPOSTAL", 'C', 5}, {"UNICO", 'C', 1}, {"CAPITAL", 'C', 1},
                  {"NOMBRE", 'C', 30}, {"COD_PROV", 'C', 2}, {"COD_MUN", 'C', 4}, {"COD_MUNMJ", 'C', 3},
                  {"ENT_MENOR", 'L', 1}});
  compruebaForma(kMuestra / "TIPO_VIA.DBF", {{"CODIGO", 'C', 5}, {"NOMBRE", 'C', 30}});
  compruebaForma(kMuestra / "MUNICIMJ.DBF", {{"PROVCOD", 'C', 10}, {"POBLCOD", 'C', 10}, {"POBLLITE", 'C', 41}});
  compruebaForma(kMuestra / "POSTAL.DBF", kFormaPostal);
  for (const char* p : {"28", "03", "15", "08"})
    compruebaForma(kMuestra / "Postales" / (std::string("POSTAL") + p + ".DBF"), kFormaPostal);
}

TEST(MuestraTablas, TextsAreUpperCaseAndNotLeftHalfCut) {
  for (const auto& path : tablasDe(kMuestra)) {
    auto f = DbfFile::open(path.string());
    for (uint32_t r = 1; r <= f->recordCount(); ++r) {
      for (const auto& campo : f->fields()) {
        if (campo.type != dbase::FieldType::Character) continue;
        const std::string texto = dbase::fieldText(campo, f->record(r), f->codePage());
        const QString q = QString::fromStdString(texto);
        ASSERT_EQ(q, q.toUpper()) << path << " fila " << r << " " << campo.name;
        ASSERT_FALSE(!texto.empty() && (texto.back() == '/' || texto.back() == '(')) << path << " " << texto;
      }
    }
  }
}

TEST(MuestraMunicipi, MadridHasItsOwnRowAndSeveralPostcodes) {
  int filas = 0;
  std::set<std::string> postales;
  for (const auto& f : leer(kMuestra / "MUNICIPI.DBF")) {
    if (f.at("COD_INE") != "28079") continue;
    postales.insert(f.at("CODPOSTAL"));
    if (f.at("ENT_MENOR") != "F") continue;
    ++filas;
    EXPECT_EQ(f.at("NOMBRE"), "MADRID");
    EXPECT_EQ(f.at("CAPITAL"), "S");
    EXPECT_EQ(f.at("UNICO"), "N");
    EXPECT_EQ(f.at("COD_PROV"), "28");
    EXPECT_EQ(f.at("COD_MUN"), "0079");
    EXPECT_EQ(f.at("COD_MUNMJ"), "079");
    EXPECT_EQ(f.at("CODPOSTAL"), "28001");
  }
  EXPECT_EQ(filas, 1);
  std::set<std::string> calles;
  for (const auto& f : leer(kMuestra / "Postales" / "POSTAL28.DBF"))
    if (f.at("COD_INE") == "28079") calles.insert(f.at("CODPOSTAL"));
  EXPECT_GE(calles.size(), 20u);
}

TEST(MuestraMunicipi, EveryMinorEntityHasItsMunicipalityRow) {
  std::set<std::string> municipios, conEntidades;
  size_t entidades = 0;
  for (const auto& f : leer(kMuestra / "MUNICIPI.DBF")) {
    if (f.at("ENT_MENOR") == "T") {
      conEntidades.insert(f.at("COD_INE"));
      ++entidades;
    } else {
      EXPECT_TRUE(municipios.insert(f.at("COD_INE")).second) << "dos filas propias: " << f.at("COD_INE");
    }
  }
  EXPECT_GT(entidades, 1000u);
  for (const auto& ine : conEntidades) EXPECT_TRUE(municipios.count(ine)) << ine;
}

TEST(MuestraMunicipi, CodesAreConsistent) {
  for (const auto& f : leer(kMuestra / "MUNICIPI.DBF")) {
    const std::string& ine = f.at("COD_INE");
    ASSERT_EQ(ine.size(), 5u);
    EXPECT_EQ(f.at("COD_PROV"), ine.substr(0, 2));
    EXPECT_EQ(f.at("COD_MUNMJ"), ine.substr(2));
    EXPECT_EQ(f.at("COD_MUN"), "0" + ine.substr(2));
    EXPECT_EQ(f.at("CODPOSTAL").size(), 5u) << ine;
    EXPECT_TRUE(f.at("UNICO") == "S" || f.at("UNICO") == "N");
    EXPECT_TRUE(f.at("CAPITAL") == "S" || f.at("CAPITAL") == "N");
    EXPECT_FALSE(f.at("NOMBRE").empty());
  }
}

TEST(MuestraMunicipi, HostNameForms) {
  std::set<std::string> nombres;
  for (const auto& f : leer(kMuestra / "MUNICIPI.DBF"))
    if (f.at("ENT_MENOR") == "F") nombres.insert(f.at("NOMBRE"));
  for (const char* n : {"CORUÑA (A)", "ALACANT/ALICANTE", "ELX/ELCHE", "VILA JOIOSA (LA)/VILLAJOYOSA",
                        "HOSPITALET DE LLOBREGAT (L')", "ROZAS DE MADRID (LAS)", "MADRIDEJOS", "MADARCOS",
                        "POBLE NOU DE BENITATXELL (EL)"})
    EXPECT_TRUE(nombres.count(n)) << n;
}

TEST(MuestraMunicipi, MadPrefixHasSeveralEndings) {
  std::set<std::string> mad;
  for (const auto& f : leer(kMuestra / "MUNICIPI.DBF"))
    if (f.at("ENT_MENOR") == "F" && f.at("NOMBRE").rfind("MAD", 0) == 0) mad.insert(f.at("NOMBRE"));
  EXPECT_TRUE(mad.count("MADRID"));
  EXPECT_GE(mad.size(), 3u);
}

TEST(MuestraMunicipi, SobradoIsInThreeProvinces) {
  std::set<std::string> provincias, comoMunicipio;
  for (const auto& f : leer(kMuestra / "MUNICIPI.DBF")) {
    if (f.at("NOMBRE") != "SOBRADO") continue;
    provincias.insert(f.at("COD_PROV"));
    if (f.at("ENT_MENOR") == "F") comoMunicipio.insert(f.at("COD_PROV"));
  }
  EXPECT_GE(provincias.size(), 3u);
  EXPECT_GE(comoMunicipio.size(), 2u);
}

TEST(MuestraProvin, ProvincesAbroadAndCountries) {
  std::map<std::pair<int, int>, std::string> por;  // (GRUPO, CODIGO)
  for (const auto& f : leer(kMuestra / "PROVIN.DBF")) {
    auto clave = std::make_pair(std::stoi(f.at("GRUPO")), std::stoi(f.at("CODIGO")));
    EXPECT_TRUE(por.emplace(clave, f.at("PROVINCIA")).second) << f.at("PROVINCIA");
  }
  EXPECT_EQ(por[std::make_pair(1, 28)], "MADRID");
  // The host names provinces as the street-directory service spells them,
  // with the traditional forms the import converts the service's names to.
  EXPECT_EQ(por[std::make_pair(1, 15)], "CORUÑA");
  EXPECT_EQ(por[std::make_pair(1, 35)], "LAS PALMAS");
  EXPECT_EQ(por[std::make_pair(1, 3)], "ALICANTE");
  EXPECT_EQ(por[std::make_pair(1, 17)], "GERONA");
  EXPECT_EQ(por[std::make_pair(1, 39)], "SANTANDER");
  EXPECT_EQ(por[std::make_pair(1, 99)], "EXTRANJERO");
  EXPECT_EQ(por[std::make_pair(2, 900)], "ESPAÑA");
  EXPECT_EQ(por[std::make_pair(2, 250)], "FRANCIA");
  EXPECT_FALSE(por.count(std::make_pair(2, 724)));
  int provincias = 0;
  for (const auto& [clave, nombre] : por) provincias += clave.first == 1;
  EXPECT_EQ(provincias, 53);
}

struct Tramo {
  int impIni, impFin, parIni, parFin;
  std::string postal;
};

TEST(MuestraPostal, StreetsCrossPostcodesWithRisingNumbers) {
  std::set<std::string> tipos;
  for (const auto& f : leer(kMuestra / "TIPO_VIA.DBF")) tipos.insert(f.at("CODIGO"));
  for (const auto& path : tablasDe(kMuestra)) {
    if (path.filename().string().rfind("POSTAL", 0) != 0) continue;
    std::map<std::string, std::vector<Tramo>> calles;  // CODIGO1
    for (const auto& f : leer(path)) {
      EXPECT_TRUE(tipos.count(f.at("TIPO_VIA"))) << f.at("TIPO_VIA");
      EXPECT_EQ(f.at("CODIGO1").size(), 8u);
      EXPECT_EQ(f.at("CODPOSTAL").size(), 5u);
      calles[f.at("CODIGO1")].push_back({std::stoi(f.at("IMPAR_INI")), std::stoi(f.at("IMPAR_FIN")),
                                         std::stoi(f.at("PAR_INI")), std::stoi(f.at("PAR_FIN")), f.at("CODPOSTAL")});
    }
    ASSERT_FALSE(calles.empty()) << path;
    size_t variasPostales = 0;
    for (const auto& [codigo, tramos] : calles) {
      int impar = 0, par = 0;
      std::set<std::string> postales;
      for (const auto& t : tramos) {
        postales.insert(t.postal);
        EXPECT_TRUE(t.impIni > 0 || t.parIni > 0) << path << " " << codigo;
        if (t.impIni > 0) {
          EXPECT_EQ(t.impIni % 2, 1);
          EXPECT_EQ(t.impFin % 2, 1);
          EXPECT_GT(t.impIni, impar) << path << " " << codigo;
          EXPECT_GE(t.impFin, t.impIni);
          impar = t.impFin;
        } else {
          EXPECT_EQ(t.impFin, 0);
        }
        if (t.parIni > 0) {
          EXPECT_EQ(t.parIni % 2, 0);
          EXPECT_EQ(t.parFin % 2, 0);
          EXPECT_GT(t.parIni, par) << path << " " << codigo;
          EXPECT_GE(t.parFin, t.parIni);
          par = t.parFin;
        } else {
          EXPECT_EQ(t.parFin, 0);
        }
      }
      variasPostales += postales.size() > 1;
    }
    if (path.filename() == "POSTAL28.DBF") {
      EXPECT_GE(variasPostales, 10u);
    }
  }
}

TEST(MuestraPostal, RowsCarryTheirMunicipality) {
  std::map<std::string, Fila> municipios;
  for (const auto& f : leer(kMuestra / "MUNICIPI.DBF"))
    if (f.at("ENT_MENOR") == "F") municipios[f.at("COD_INE")] = f;
  for (const auto& f : leer(kMuestra / "Postales" / "POSTAL15.DBF")) {
    const std::string& ine = f.at("COD_INE");
    ASSERT_TRUE(municipios.count(ine)) << ine;
    EXPECT_EQ(ine.substr(0, 2), "15");
    EXPECT_EQ(f.at("MUNICIPI"), municipios[ine].at("NOMBRE"));
    EXPECT_EQ(f.at("CAPITAL"), municipios[ine].at("CAPITAL"));
    EXPECT_EQ(f.at("PROVINCIA"), "15");  // the province code, as the street search compares it
  }
}

TEST(MuestraPostal, SecondNameHasNoAccents) {
  std::set<std::string> vias;
  for (const auto& f : leer(kMuestra / "Postales" / "POSTAL03.DBF")) {
    vias.insert(f.at("VIA"));
    for (char32_t c : QString::fromStdString(f.at("NOMBRE_2")).toStdU32String())
      EXPECT_TRUE(c < 0x80 || c == U'Ñ') << f.at("NOMBRE_2");
  }
  EXPECT_TRUE(vias.count("L'ALBUFERA"));
}

TEST(MuestraNacional, GeneratesEveryMunicipalityAndTheStretchesAskedFor) {
  const std::string datos = testsupport::sharedDir();
  if (datos.empty()) {
    GTEST_SKIP() << "sin los datos de referencia compartidos";
  }
  const fs::path programa = fs::path(CODPOSTALES_BINARY_DIR) / "bin" / "generar_nacional";
  if (!fs::exists(programa)) {
    GTEST_SKIP() << "generar_nacional sin compilar";
  }

  testsupport::TempDir tmp;
  const std::string orden = programa.string() + " " + datos + "/data " + tmp.path() + " --tramos 20000 > " +
                            tmp.file("salida.txt") + " 2>&1";
  ASSERT_EQ(std::system(orden.c_str()), 0) << testsupport::readFile(tmp.file("salida.txt"));

  const fs::path fuentes = fs::path(datos) / "data";
  const size_t municipiosIne = lineasDe(fuentes / "municipios_2026.csv");
  size_t propios = 0, entidades = 0;
  for (const auto& f : leer(fs::path(tmp.path()) / "MUNICIPI.DBF")) (f.at("ENT_MENOR") == "T" ? entidades : propios)++;
  EXPECT_EQ(propios, 8132u);
  EXPECT_EQ(propios, municipiosIne);
  EXPECT_GT(entidades, 50000u);
  EXPECT_EQ(leer(fs::path(tmp.path()) / "MUNICIMJ.DBF").size(), municipiosIne);
  // The provinces, abroad, Spain and every other country.
  EXPECT_EQ(leer(fs::path(tmp.path()) / "PROVIN.DBF").size(), 52 + 1 + lineasDe(fuentes / "paises_iso3166_es.csv"));

  size_t tramos = 0, ficheros = 0;
  for (const auto& e : fs::directory_iterator(fs::path(tmp.path()) / "Postales")) {
    if (e.path().extension() != ".DBF") continue;  // each table has its index beside it
    auto f = DbfFile::open(e.path().string());
    EXPECT_EQ(f->languageDriver(), 0x14);
    tramos += f->recordCount();
    ++ficheros;
  }
  EXPECT_EQ(ficheros, 52u);
  EXPECT_EQ(tramos, 20000u);
  EXPECT_GT(DbfFile::open(tmp.file("POSTAL.DBF"))->recordCount(), 0u);
}

}  // namespace
