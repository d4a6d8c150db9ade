// codpostales importar-ine: INE's street directory stored through the
// command, its summary, its bad lines on standard error with file and line,
// its exit status, and the look-up answering from the rows it stored.
#include <gtest/gtest.h>

#include <QStringList>
#include <string>

#include "ejecucion.h"
#include "support/callejero_ine.h"
#include "support/referencia.h"
#include "support/temp_dir.h"

using namespace testsupport;
using namespace inetest;

namespace {

bool contiene(const std::string& texto, const std::string& trozo) { return texto.find(trozo) != std::string::npos; }

const std::string kCabecera =
    "diseno,tramos,filas_guardadas,ya_guardadas,pseudovias,unidades_poblacionales,sin_numero_en_calle_numerada,"
    "otras_provincias,municipio_ausente,via_desconocida,lineas_erroneas,vias_erroneas,tipos_desconocidos,"
    "filas_sin_tipo,municipios_ausentes\n";

class ImportarIne : public ::testing::Test {
 protected:
  ImportarIne() {
    escribeJuegoDeReferencia(dir.path());
    writeFile(dir.file("TiposVia.csv"), "TIPO_VIA;SINONIMO;DESCRIPCION;COMENTARIO\nCALLE;CALLE;CALLE;\n");
    // GETAFE: PLATA, odd 1-9 and 11-31 in 28901 (two sections), 33-61 in
    // 28903; even 2-40 in 28901.
    writeFile(dir.file("TRAM.P28"),
              texto({lineaTramo({"28", "065", 5, "28901", 1, 1, 9, 0, 1}),
                     lineaTramo({"28", "065", 5, "28901", 2, 2, 40, 0, 1}),
                     lineaTramo({"28", "065", 5, "28901", 1, 11, 31, 0, 2}),
                     lineaTramo({"28", "065", 5, "28903", 1, 33, 61, 0, 3})}));
    writeFile(dir.file("VIAS.P28"), texto({lineaVia(false, "28", "065", 5, "CALLE", "PLATA")}, "\n"));
  }

  Resultado importa(QStringList mas = {}) {
    QStringList args = {"importar-ine", "--alias", QString::fromStdString(dir.path()),
                        QString::fromStdString(dir.file("TRAM.P28")), QString::fromStdString(dir.file("VIAS.P28"))};
    return ejecutaCodpostales(args + mas);
  }

  Resultado cp(const std::string& numero) {
    return ejecutaCodpostales({"cp", "--alias", QString::fromStdString(dir.path()), "--ine", "28065", "--via", "PLATA",
                               "--numero", QString::fromStdString(numero)});
  }

  TempDir dir;
};

}  // namespace

TEST_F(ImportarIne, PrintsItsSummaryAndTheLookUpGivesTheStretchsPostcode) {
  Resultado r = importa();
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabecera + "antiguo (108),4,2,0,0,0,0,0,0,0,0,0,0,0,0\n");
  EXPECT_TRUE(contiene(r.err, "Postales/POSTAL28.DBF: 2 filas nuevas")) << r.err;

  const std::string cabeceraCp = "CODPOSTAL,VIA,TIPO_VIA,IMPAR_INI,IMPAR_FIN,PAR_INI,PAR_FIN\n";
  r = cp("25");
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, cabeceraCp + "28901,PLATA,CL,1,31,2,40\n");
  r = cp("45");
  EXPECT_EQ(r.out, cabeceraCp + "28903,PLATA,CL,33,61,0,0\n");
  r = cp("40");
  EXPECT_EQ(r.out, cabeceraCp + "28901,PLATA,CL,1,31,2,40\n");
  r = cp("42");
  EXPECT_EQ(r.salida, 1);  // no stretch holds it
}

TEST_F(ImportarIne, ASecondRunStoresNothing) {
  ASSERT_EQ(importa().salida, 0);
  const Resultado r = importa();
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabecera + "antiguo (108),4,0,2,0,0,0,0,0,0,0,0,0,0,0\n");
}

TEST_F(ImportarIne, BadLinesGoToStandardErrorWithFileAndLineAndAreCounted) {
  std::string tram = readFile(dir.file("TRAM.P28"));
  tram += lineaTramo({"28", "065", 5, "28901", 2, 42, 60, 0, 4}).substr(0, 100) + "\r\n";
  tram += lineaTramo({"28", "065", 77, "28901", 2, 42, 60, 0, 4}) + "\r\n";
  writeFile(dir.file("TRAM.P28"), tram);
  const Resultado r = importa();
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_TRUE(contiene(r.err, "codpostales: TRAM.P28, línea 5: línea cortada: tiene 100 caracteres, y un tramo tiene 273\n"))
      << r.err;
  EXPECT_TRUE(contiene(r.err, "codpostales: TRAM.P28, línea 6: la vía 00077 del municipio 28065 no está en VIAS.P28\n"))
      << r.err;
  EXPECT_EQ(r.out, kCabecera + "antiguo (108),6,2,0,0,0,0,0,0,1,1,0,0,0,0\n");
}

TEST_F(ImportarIne, AFileOfNeitherDesignEndsWithStatusTwoAndWritesNothing) {
  writeFile(dir.file("VIAS.P28"), std::string(100, 'X') + "\n");
  const Resultado r = importa();
  EXPECT_EQ(r.salida, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_TRUE(contiene(r.err, "codpostales: VIAS.P28, línea 1: no es un fichero de vías del INE")) << r.err;
  const Resultado c = cp("25");
  EXPECT_EQ(c.salida, 1);  // nothing of PLATA was stored
}

TEST_F(ImportarIne, OptionsAndArgumentsAreCheckedAsTheOtherCommandsDo) {
  Resultado r = ejecutaCodpostales({"importar-ine", "--alias", QString::fromStdString(dir.path())});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "faltan los ficheros TRAM y VIAS")) << r.err;
  r = importa({"--provincia", "2x"});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "--provincia")) << r.err;
  r = importa({"--otra", "1"});
  EXPECT_EQ(r.salida, 2);
  r = ejecutaCodpostales({"importar-ine", "--alias", QString::fromStdString(dir.path()),
                          QString::fromStdString(dir.file("NO_ESTA")), QString::fromStdString(dir.file("VIAS.P28"))});
  EXPECT_EQ(r.salida, 2);
  EXPECT_TRUE(contiene(r.err, "NO_ESTA: no se puede abrir")) << r.err;
  r = importa({"--provincia", "8"});
  EXPECT_EQ(r.salida, 0) << r.err;
  EXPECT_EQ(r.out, kCabecera + "antiguo (108),4,0,0,0,0,0,4,0,0,0,0,0,0,0\n");
}
