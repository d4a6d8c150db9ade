// Suggestions for localities the strict search does not find.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "../services/qstring_print.h"
#include "formulario.h"

using namespace testsupport;

namespace {

QStringList nombresDe(const QList<SugerenciaLocalidad>& lista) {
  QStringList out;
  for (const auto& s : lista) out << s.Nombre;
  return out;
}

class SugerenciasTest : public ::testing::Test {
 protected:
  void SetUp() override {
    escribeJuegoDeReferencia(dir.path());
    c = std::make_unique<TClaseCodPostales>(nullptr, QString::fromStdString(dir.path()), false, "");
  }
  TempDir dir;
  std::unique_ptr<TClaseCodPostales> c;
};

// The national set (every municipality and population unit), generated once.
class SugerenciasNacionalTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    const std::string datos = sharedDir();
    const std::string programa = std::string(CODPOSTALES_BINARY_DIR) + "/bin/generar_nacional";
    if (datos.empty() || !std::filesystem::exists(programa)) return;
    carpeta = new TempDir;
    const std::string orden =
        programa + " " + datos + "/data " + carpeta->path() + " --tramos 5000 > /dev/null 2>&1";
    if (std::system(orden.c_str()) != 0) return;
    controlador = new TClaseCodPostales(nullptr, QString::fromStdString(carpeta->path()), false, "");
  }
  static void TearDownTestSuite() {
    delete controlador;
    delete carpeta;
  }
  void SetUp() override {
    if (!controlador) GTEST_SKIP() << "sin los datos compartidos o sin generar_nacional";
  }
  static QString primero(const QString& texto) {
    const auto lista = controlador->SugiereLocalidades(texto, 5);
    return lista.isEmpty() ? QString() : lista.first().Nombre;
  }
  static inline TempDir* carpeta = nullptr;
  static inline TClaseCodPostales* controlador = nullptr;
};

}  // namespace

TEST(ClaveDeLocalidad, AccentsCaseAndPunctuationDoNotCount) {
  EXPECT_EQ(TIndiceLocalidades::Clave("Ávila"), "AVILA");
  EXPECT_EQ(TIndiceLocalidades::Clave("ÑAÑA,  peña"), "NANA PENA");
  EXPECT_EQ(TIndiceLocalidades::Clave("L'Hospitalet"), "L HOSPITALET");
}

TEST(ClaveDeLocalidad, TrailingArticleGoesInFront) {
  EXPECT_EQ(TIndiceLocalidades::Clave("GINETA (LA)"), "LA GINETA");
  EXPECT_EQ(TIndiceLocalidades::Clave("ROZAS DE MADRID (LAS)"), "LAS ROZAS DE MADRID");
  EXPECT_EQ(TIndiceLocalidades::Clave("HOSPITALET DE LLOBREGAT (L')"), "L HOSPITALET DE LLOBREGAT");
  EXPECT_EQ(TIndiceLocalidades::Clave("CORUÑA (A)"), "A CORUNA");
}

TEST_F(SugerenciasTest, WholeNameComesFirstThenNamesBeginningWithIt) {
  const auto lista = c->SugiereLocalidades("sobrado", 10);
  ASSERT_EQ(lista.size(), 2);
  EXPECT_EQ(lista[0].Nombre, "SOBRADO");
  EXPECT_EQ(lista[0].Diferencias, 0);
  EXPECT_EQ(nombresDe(c->SugiereLocalidades("ALCA", 10)), QStringList{"ALCALA DE HENARES"});
}

TEST_F(SugerenciasTest, CandidatesCarryProvinceCodesAndPostcode) {
  const auto lista = c->SugiereLocalidades("GETAFE", 10);
  ASSERT_EQ(lista.size(), 1);
  EXPECT_EQ(lista[0].Provincia, "MADRID");
  EXPECT_EQ(lista[0].CodIne, "28065");
  EXPECT_EQ(lista[0].CodPostal, "28901");
  EXPECT_FALSE(lista[0].EntidadMenor);
}

TEST_F(SugerenciasTest, ArticleInEitherPlace) {
  EXPECT_EQ(nombresDe(c->SugiereLocalidades("A CORUÑA", 10)), QStringList{"CORUÑA (A)"});
  EXPECT_EQ(nombresDe(c->SugiereLocalidades("coruna", 10)), QStringList{"CORUÑA (A)"});
}

TEST_F(SugerenciasTest, OneOrTwoLettersWrong) {
  EXPECT_EQ(nombresDe(c->SugiereLocalidades("GETAFFE", 10)), QStringList{"GETAFE"});   // one extra
  EXPECT_EQ(nombresDe(c->SugiereLocalidades("GTEAFE", 10)), QStringList{"GETAFE"});    // two swapped
  EXPECT_EQ(nombresDe(c->SugiereLocalidades("BARZELONNA", 10)), QStringList{"BARCELONA"});  // two
  EXPECT_TRUE(c->SugiereLocalidades("BRZLNNA", 10).isEmpty());  // too far
}

TEST_F(SugerenciasTest, MunicipalitiesComeBeforeMinorEntities) {
  // A minor entity GETAFEE beside the municipality GETAFE: both one letter
  // away from GETAFEX.
  anadeMunicipio(c->oDataModule->TMunicipiSinFiltro, {"28005", "GETAFEE", "28", "", true});
  const auto lista = c->SugiereLocalidades("GETAFEX", 5);
  ASSERT_EQ(lista.size(), 2);
  EXPECT_EQ(lista[0].Nombre, "GETAFE");
  EXPECT_FALSE(lista[0].EntidadMenor);
  EXPECT_EQ(lista[1].Nombre, "GETAFEE");
  EXPECT_EQ(lista[1].Diferencias, 1);
}

TEST_F(SugerenciasTest, AtMostTheNumberAskedAndNothingForNothing) {
  EXPECT_EQ(c->SugiereLocalidades("S", 1).size(), 1);
  EXPECT_TRUE(c->SugiereLocalidades("", 5).isEmpty());
  EXPECT_TRUE(c->SugiereLocalidades("GETAFE", 0).isEmpty());
}

TEST_F(SugerenciasTest, NewRowsAreSeenOnTheNextSuggestion) {
  ASSERT_TRUE(c->SugiereLocalidades("PINTO", 5).isEmpty());
  anadeMunicipio(c->oDataModule->TMunicipiSinFiltro, {"28113", "PINTO", "28"});
  EXPECT_EQ(nombresDe(c->SugiereLocalidades("PINTO", 5)), QStringList{"PINTO"});
}

TEST_F(SugerenciasTest, SuggestingMovesNoTableOnScreen) {
  c->BuscaLocalidadPorNombre("GETAFE", true);
  c->SugiereLocalidades("BARCELONA", 5);
  EXPECT_EQ(c->oDataModule->TMunicipiNOMBRE->AsString(), "GETAFE");
}

TEST_F(SugerenciasNacionalTest, AvilaWithoutItsAccent) { EXPECT_EQ(primero("AVILA"), "ÁVILA"); }

TEST_F(SugerenciasNacionalTest, LaGinetaWithItsArticleInFront) { EXPECT_EQ(primero("LA GINETA"), "GINETA (LA)"); }

TEST_F(SugerenciasNacionalTest, ZaragosaWithATypo) { EXPECT_EQ(primero("ZARAGOSA"), "ZARAGOZA"); }

TEST_F(SugerenciasNacionalTest, BilingualNameByEitherHalf) {
  const auto lista = controlador->SugiereLocalidades("ALICANTE", 5);
  ASSERT_FALSE(lista.isEmpty());
  EXPECT_TRUE(lista.first().Nombre.contains("ALICANTE")) << lista.first().Nombre.toStdString();
  EXPECT_EQ(lista.first().CodIne, "03014");
}
