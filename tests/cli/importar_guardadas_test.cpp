// codpostales importar-guardadas: the runs over saved answers without a
// window, for one province folder or all of them, with its counts.
#include <gtest/gtest.h>

#include <QDir>
#include <QString>
#include <string>

#include "ejecucion.h"
#include "support/referencia.h"
#include "support/temp_dir.h"

using namespace testsupport;

namespace {

std::string Respuesta(const std::vector<std::string>& calles) {
  std::string lista;
  for (const std::string& c : calles)
    lista += "<calle><loine><cp>28</cp><cm>140</cm></loine><dir><cv>1</cv><tv>CL</tv><nv>" + c + "</nv></dir></calle>";
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope "
         "xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body><Callejero "
         "xmlns=\"http://www.catastro.meh.es/\"><consulta_callejero><control><cuca>" +
         std::to_string(calles.size()) + "</cuca></control><callejero>" + lista +
         "</callejero></consulta_callejero></Callejero></soap:Body></soap:Envelope>";
}

class ImportarGuardadas : public ::testing::Test {
 protected:
  void SetUp() override {
    OpcionesReferencia opciones;
    opciones.postales = false;
    escribeJuegoDeReferencia(alias.path(), opciones);
  }

  void Guarda(const std::string& provincia, const std::string& municipio, const std::vector<std::string>& calles) {
    QDir().mkpath(QString::fromStdString(alias.path() + "/POSTAL/" + provincia));
    writeFile(alias.path() + "/POSTAL/" + provincia + "/" + municipio + ".xml", Respuesta(calles));
  }

  Resultado Importa(QStringList mas = {}) {
    return ejecutaCodpostales(QStringList{"importar-guardadas", "--alias", QString::fromStdString(alias.path())} + mas);
  }

  TempDir alias;
};

const std::string kCabecera = "ficheros,municipios,vias,varios_codigos,sin_municipio,ilegibles\n";

}  // namespace

TEST_F(ImportarGuardadas, StoresTheSinglePostcodeMunicipalitiesOfAProvinceAndCountsTheRest) {
  Guarda("MADRID", "SOBRADO", {"MAYOR", "SOL"});
  Guarda("MADRID", "GETAFE", {"MAYOR"});
  Guarda("MADRID", "NINGUNO", {"MAYOR"});
  const Resultado r = Importa({"--provincia", "MADRID"});
  ASSERT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabecera + "3,1,2,1,1,0\n");
  EXPECT_NE(r.err.find("ningún municipio del programa se llama como NINGUNO (MADRID)"), std::string::npos) << r.err;

  const Resultado otra = Importa({"--provincia", "MADRID"});
  ASSERT_EQ(otra.salida, 0) << otra.err;
  EXPECT_EQ(otra.out, kCabecera + "3,1,0,1,1,0\n") << "a second run adds nothing";
}

TEST_F(ImportarGuardadas, WithoutProvinceRunsOverEveryFolder) {
  Guarda("MADRID", "SOBRADO", {"MAYOR"});
  Guarda("A CORUÑA", "SOBRADO", {"RUA NOVA"});
  const Resultado r = Importa();
  ASSERT_EQ(r.salida, 0) << r.err;
  // A CORUÑA is CORUÑA (A) in the host's tables, so its file finds no province.
  EXPECT_EQ(r.out, kCabecera + "2,1,1,0,1,0\n");
}

TEST_F(ImportarGuardadas, NothingSavedIsAnErrorThatSaysWhatToDo) {
  const Resultado r = Importa({"--provincia", "MADRID"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_NE(r.err.find("Faltan los ficheros XML: Para importar las calles de los municipios de una provincia es "
                       "necesario antes pinchar en buscar vías"),
            std::string::npos)
      << r.err;
}
