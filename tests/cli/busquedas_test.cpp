// The controller's searches through the codpostales command, over the sample
// data set: municipio, sugerir, cp and ine, their CSV output, the alias
// option and the exit status of found, not found and errors.
#include <gtest/gtest.h>

#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>
#include <string>

#include "ejecucion.h"
#include "support/temp_dir.h"

using namespace testsupport;

namespace {

const QString kMuestra = QStringLiteral(CODPOSTALES_SOURCE_DIR "/data/muestra");

Resultado ejecutaEn(const QStringList& args, const QString& carpeta = {}, const QProcessEnvironment& entorno = {}) {
  return ejecutaCodpostales(args, {}, carpeta, entorno);
}

// A search over the sample data.
Resultado busca(QStringList args) {
  args << "--alias" << kMuestra;
  return ejecutaEn(args);
}

bool contiene(const std::string& texto, const std::string& trozo) { return texto.find(trozo) != std::string::npos; }

const std::string kCabeceraMunicipio =
    "COD_INE,CODPOSTAL,NOMBRE,COD_PROV,COD_MUN,ENT_MENOR,ccNOMBRE_COMPLETO,ccPROVINCIA,ccENT_MAYOR\n";
const std::string kCabeceraSugerir = "NOMBRE,PROVINCIA,COD_INE,CODPOSTAL,ENT_MENOR,DIFERENCIAS\n";
const std::string kCabeceraCp = "CODPOSTAL,VIA,TIPO_VIA,IMPAR_INI,IMPAR_FIN,PAR_INI,PAR_FIN\n";

}  // namespace

TEST(BusquedaMunicipio, PrintsTheRowFoundWithItsCalculatedFields) {
  Resultado r = busca({"municipio", "MADRID"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabeceraMunicipio + "28079,28001,MADRID,28,0079,F,MADRID,MADRID,\n");
  EXPECT_EQ(r.err, "");
}

TEST(BusquedaMunicipio, TakesTheNameInSmallLetters) {
  Resultado r = busca({"municipio", "madrid"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabeceraMunicipio + "28079,28001,MADRID,28,0079,F,MADRID,MADRID,\n");
}

TEST(BusquedaMunicipio, ListsTheSameNameInEveryProvince) {
  Resultado r = busca({"municipio", "SOBRADO"});
  EXPECT_EQ(r.salida, 0) << r.err;
  // Six places of A Coruña (the municipality and five minor entities), the
  // municipality of León and eight minor entities of Ourense.
  EXPECT_EQ(r.out.rfind(kCabeceraMunicipio + "15006,15819,SOBRADO,15,0006,T,SOBRADO --> [ARZÚA],CORUÑA,ARZÚA\n", 0),
            0u)
      << r.out;
  EXPECT_TRUE(contiene(r.out, "\n15080,15813,SOBRADO,15,0080,F,SOBRADO,CORUÑA,\n")) << r.out;
  EXPECT_TRUE(contiene(r.out, "\n24165,24567,SOBRADO,24,0165,F,SOBRADO,LEON,\n")) << r.out;
  EXPECT_TRUE(contiene(r.out, "\n32074,32455,SOBRADO,32,0074,T,SOBRADO --> [SAN AMARO],ORENSE,SAN AMARO\n")) << r.out;
  size_t filas = 0;
  for (char c : r.out) filas += c == '\n';
  EXPECT_EQ(filas, 1u + 15u) << r.out;
}

TEST(BusquedaMunicipio, ProvinciaSearchesThatProvinceOnly) {
  Resultado r = busca({"municipio", "SOBRADO", "--provincia", "24"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabeceraMunicipio + "24165,24567,SOBRADO,24,0165,F,SOBRADO,LEON,\n");

  r = busca({"municipio", "MADRID", "--provincia", "8"});
  EXPECT_EQ(r.salida, 1) << r.err;
  EXPECT_EQ(r.out, kCabeceraMunicipio);
}

TEST(BusquedaMunicipio, TheBeginningOfANameIsNotFound) {
  Resultado r = busca({"municipio", "MAD"});
  EXPECT_EQ(r.salida, 1);
  EXPECT_EQ(r.out, kCabeceraMunicipio);
  EXPECT_TRUE(contiene(r.err, "municipio no encontrado: MAD")) << r.err;
}

TEST(BusquedaMunicipio, ABadProvinceCodeOrAMissingNameExitsWithTwo) {
  Resultado r = busca({"municipio", "MADRID", "--provincia", "MADRID"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "--provincia")) << r.err;
  r = busca({"municipio"});
  EXPECT_EQ(r.salida, 2);
  r = busca({"municipio", "MADRID", "--maximo", "3"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "--maximo")) << r.err;
}

TEST(BusquedaSugerir, RanksTheLocalitiesLikeTheText) {
  Resultado r = busca({"sugerir", "alcala", "--maximo", "3"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabeceraSugerir +
                       "ALCALALÍ,ALICANTE,03006,03723,F,0\n"
                       "ALCALÁ DE HENARES,MADRID,28005,28801,F,0\n"
                       "ALCALA DE LA JOVADA,ALICANTE,03134,03788,T,0\n");
}

TEST(BusquedaSugerir, FindsANameWithALetterWrongOrAnArticleMoved) {
  Resultado r = busca({"sugerir", "GETAFFE", "--maximo", "1"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabeceraSugerir + "GETAFE,MADRID,28065,28901,F,1\n");
  r = busca({"sugerir", "las rozas de madrid", "--maximo", "1"});
  EXPECT_EQ(r.out, kCabeceraSugerir + "ROZAS DE MADRID (LAS),MADRID,28127,28231,F,0\n");
}

TEST(BusquedaSugerir, GivesTenAtMostUnlessTold) {
  Resultado r = busca({"sugerir", "SAN"});
  EXPECT_EQ(r.salida, 0) << r.err;
  size_t filas = 0;
  for (char c : r.out) filas += c == '\n';
  EXPECT_EQ(filas, 1u + 10u) << r.out;
}

TEST(BusquedaSugerir, NothingAlikeExitsWithOne) {
  Resultado r = busca({"sugerir", "XQXQXQXQ"});
  EXPECT_EQ(r.salida, 1);
  EXPECT_EQ(r.out, kCabeceraSugerir);
  EXPECT_TRUE(contiene(r.err, "XQXQXQXQ")) << r.err;
}

TEST(BusquedaSugerir, MaximoMustBeAPositiveNumber) {
  for (const char* maximo : {"0", "-1", "diez", ""}) {
    Resultado r = busca({"sugerir", "MADRID", "--maximo", maximo});
    EXPECT_EQ(r.salida, 2) << maximo;
    EXPECT_TRUE(contiene(r.err, "--maximo")) << r.err;
  }
}

TEST(BusquedaCp, GivesThePostcodeOfTheStretchHoldingTheNumber) {
  // ACACIAS (LAS) of Madrid: odd 1-21, 23-79, 81-153 in 28007, 155-187 and
  // 189-243 in 28008; even 2-20, 22-28, 30-60 in 28007, 62-70, 72-136 in 28008.
  Resultado r = busca({"cp", "--ine", "28079", "--via", "ACACIAS (LAS)", "--numero", "25"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabeceraCp + "28007,ACACIAS (LAS),CL,23,79,22,28\n");
  r = busca({"cp", "--ine", "28079", "--via", "ACACIAS (LAS)", "--numero", "243"});
  EXPECT_EQ(r.out, kCabeceraCp + "28008,ACACIAS (LAS),CL,189,243,72,136\n");
  r = busca({"cp", "--ine", "28079", "--via", "ACACIAS (LAS)", "--numero", "130"});
  EXPECT_EQ(r.out, kCabeceraCp + "28008,ACACIAS (LAS),CL,189,243,72,136\n");
  r = busca({"cp", "--ine", "28079", "--via", "acacias (las)", "--numero", "2"});
  EXPECT_EQ(r.out, kCabeceraCp + "28007,ACACIAS (LAS),CL,1,21,2,20\n");
}

TEST(BusquedaCp, NumberZeroCountsAsOne) {
  Resultado r = busca({"cp", "--ine", "28079", "--via", "ACACIAS (LAS)", "--numero", "0"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabeceraCp + "28007,ACACIAS (LAS),CL,1,21,2,20\n");
}

TEST(BusquedaCp, OnlyTheStretchesOfTheNumbersSide) {
  // ARRABAL (EL) of Getafe: odd 1-9 in 28904, even 2-20 in 28905.
  Resultado r = busca({"cp", "--ine", "28065", "--via", "ARRABAL (EL)", "--numero", "3"});
  EXPECT_EQ(r.out, kCabeceraCp + "28904,ARRABAL (EL),CL,1,9,0,0\n");
  r = busca({"cp", "--ine", "28065", "--via", "ARRABAL (EL)", "--numero", "4"});
  EXPECT_EQ(r.out, kCabeceraCp + "28905,ARRABAL (EL),CL,0,0,2,20\n");
}

TEST(BusquedaCp, TheStreetOfTheMunicipalityAsked) {
  // ACACIAS (LAS) is a street of Madrid and of Getafe.
  Resultado r = busca({"cp", "--ine", "28065", "--via", "ACACIAS (LAS)", "--numero", "1"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabeceraCp + "28907,ACACIAS (LAS),CL,1,21,2,24\n");
}

TEST(BusquedaCp, TipoChoosesTheStretchesOfThatType) {
  // ALBAÑILES (LOS) of Madrid is an avenue (41 in 28045) and a square (41 in 28002).
  Resultado r = busca({"cp", "--ine", "28079", "--via", "ALBAÑILES (LOS)", "--numero", "41"});
  EXPECT_EQ(r.out, kCabeceraCp + "28045,ALBAÑILES (LOS),AV,1,71,2,70\n");
  r = busca({"cp", "--ine", "28079", "--via", "ALBAÑILES (LOS)", "--tipo", "PZ", "--numero", "41"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabeceraCp + "28002,ALBAÑILES (LOS),PZ,41,83,24,48\n");
}

TEST(BusquedaCp, ANumberNoStretchHoldsExitsWithOne) {
  for (const char* numero : {"245", "200"}) {
    Resultado r = busca({"cp", "--ine", "28079", "--via", "ACACIAS (LAS)", "--numero", numero});
    EXPECT_EQ(r.salida, 1) << numero;
    EXPECT_EQ(r.out, kCabeceraCp);
    EXPECT_TRUE(contiene(r.err, std::string("número ") + numero)) << r.err;
  }
}

TEST(BusquedaCp, AStreetNotInTheMunicipalityExitsWithOne) {
  Resultado r = busca({"cp", "--ine", "28079", "--via", "NO EXISTE", "--numero", "1"});
  EXPECT_EQ(r.salida, 1);
  EXPECT_EQ(r.out, kCabeceraCp);
  EXPECT_TRUE(contiene(r.err, "calle no encontrada")) << r.err;
  // JOVELLANOS is a street of Getafe, not of Madrid.
  r = busca({"cp", "--ine", "28065", "--via", "JOVELLANOS", "--numero", "1"});
  EXPECT_EQ(r.salida, 0) << r.err;
  r = busca({"cp", "--ine", "28079", "--via", "JOVELLANOS", "--numero", "1"});
  EXPECT_EQ(r.salida, 1);
  // The beginning of a name is not the street.
  r = busca({"cp", "--ine", "28079", "--via", "ACACIAS", "--numero", "1"});
  EXPECT_EQ(r.salida, 1);
}

TEST(BusquedaCp, AnUnknownIneCodeExitsWithOne) {
  Resultado r = busca({"cp", "--ine", "28999", "--via", "ANCHA", "--numero", "1"});
  EXPECT_EQ(r.salida, 1);
  EXPECT_TRUE(contiene(r.err, "28999")) << r.err;
}

TEST(BusquedaCp, MalformedOrMissingOptionsExitWithTwo) {
  const QStringList bien = {"cp", "--ine", "28079", "--via", "ACACIAS (LAS)", "--numero", "1"};
  for (const auto& [opcion, valor] : std::vector<std::pair<QString, QString>>{
           {"--ine", "2807"}, {"--ine", "28O79"}, {"--numero", "quince"}, {"--numero", "-3"}}) {
    QStringList args = bien;
    args[args.indexOf(opcion) + 1] = valor;
    Resultado r = busca(args);
    EXPECT_EQ(r.salida, 2) << opcion.toStdString() << " " << valor.toStdString();
    EXPECT_TRUE(contiene(r.err, opcion.toStdString())) << r.err;
  }
  Resultado r = busca({"cp", "--ine", "28079", "--numero", "1"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "--via")) << r.err;
  r = busca({"cp", "--ine", "28079", "--via", "ANCHA", "--numero", "1", "sobra"});
  EXPECT_EQ(r.salida, 2);
}

TEST(BusquedaIne, GivesTheCodeOfTheMunicipalityInTheProvince) {
  Resultado r = busca({"ine", "--provincia", "28", "MADRID"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, "COD_INE\n28079\n");
  r = busca({"ine", "--provincia", "24", "SOBRADO"});
  EXPECT_EQ(r.out, "COD_INE\n24165\n");
  r = busca({"ine", "--provincia", "8", "hospitalet de llobregat (l')"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, "COD_INE\n08101\n");
}

TEST(BusquedaIne, ANameTheProvinceDoesNotHaveExitsWithOne) {
  Resultado r = busca({"ine", "--provincia", "28", "SOBRADO"});
  EXPECT_EQ(r.salida, 1);
  EXPECT_EQ(r.out, "COD_INE\n");
  EXPECT_TRUE(contiene(r.err, "SOBRADO")) << r.err;
}

TEST(BusquedaIne, ProvinciaIsRequired) {
  Resultado r = busca({"ine", "MADRID"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "--provincia")) << r.err;
}

TEST(BusquedaAlias, AnUnknownAliasExitsWithTwo) {
  for (const QStringList& args : {QStringList{"municipio", "MADRID"}, QStringList{"sugerir", "MADRID"},
                                  QStringList{"cp", "--ine", "28079", "--via", "ANCHA", "--numero", "1"},
                                  QStringList{"ine", "--provincia", "28", "MADRID"}}) {
    Resultado r = ejecutaEn(QStringList(args) << "--alias" << "/no/existe/codpostales");
    EXPECT_EQ(r.salida, 2) << args.join(' ').toStdString();
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("codpostales: ", 0), 0u) << r.err;
    EXPECT_TRUE(contiene(r.err, "/no/existe/codpostales")) << r.err;
  }
}

TEST(BusquedaAlias, AFolderWithoutTheTablesExitsWithTwo) {
  TempDir vacia;
  Resultado r = ejecutaEn({"municipio", "MADRID", "--alias", QString::fromStdString(vacia.path())});
  EXPECT_EQ(r.salida, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_TRUE(contiene(r.err, ".DBF")) << r.err;
}

TEST(BusquedaAlias, TheCurrentFolderWhenNoneIsGiven) {
  Resultado r = ejecutaEn({"ine", "--provincia", "28", "MADRID"}, kMuestra);
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, "COD_INE\n28079\n");
}

TEST(BusquedaAlias, AnAliasNamedByTheEnvironment) {
  QProcessEnvironment entorno = QProcessEnvironment::systemEnvironment();
  entorno.insert("CODPOSTALES_ALIAS_MUESTRA_CLI", kMuestra);
  Resultado r = ejecutaEn({"municipio", "MADRID", "--alias", "muestra_cli"}, {}, entorno);
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabeceraMunicipio + "28079,28001,MADRID,28,0079,F,MADRID,MADRID,\n");
}

TEST(BusquedaAyuda, UsageListsTheSearches) {
  Resultado r = ejecutaEn({"--ayuda"});
  EXPECT_EQ(r.salida, 0);
  for (const char* trozo : {"municipio NOMBRE", "--provincia", "sugerir TEXTO", "--maximo", "cp --ine", "--tipo",
                            "ine --provincia", "--alias"})
    EXPECT_TRUE(contiene(r.out, trozo)) << trozo;
  r = ejecutaEn({"cp", "--ayuda"});
  EXPECT_EQ(r.salida, 0);
  EXPECT_TRUE(contiene(r.out, "Uso: codpostales")) << r.out;
}
