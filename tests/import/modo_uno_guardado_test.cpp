// Mode 1 end to end: a municipality's postcode file read into the grid and
// stored with the save button, its number ranges as the file gives them.
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QRadioButton>

#include "import/guarda_comun.h"
#include "platform/TStringGrid.h"
#include "support/referencia.h"
#include "../services/qstring_print.h"

using namespace guarda;

namespace {

class ModoUnoGuardado : public GuardaViasTest {
 protected:
  // The file in the alias folder's POSTAL/, listed by mode 1 when the
  // dialog opens.
  void escribeFichero(const QString& nombre, const QByteArray& lineas) {
    const QString carpeta = QString::fromStdString(dir.path()) + QStringLiteral("/POSTAL");
    ASSERT_TRUE(QDir().mkpath(carpeta));
    testsupport::writeFile((carpeta + u'/' + nombre).toStdString(), lineas.toStdString());
  }

  // Reads the file of the entry into the grid, then chooses where to store.
  void leeYElige(const QString& entrada, const QString& provincia, const QString& municipio) {
    ASSERT_TRUE(dialogo->RBMasDeUno->isChecked());
    const int i = dialogo->CBProvincias->findText(entrada);
    ASSERT_GE(i, 0) << entrada.toStdString();
    dialogo->CBProvincias->setCurrentIndex(i);
    ASSERT_TRUE(dialogo->ImportarViasMasUnCodigo());
    elige(provincia, municipio);
  }

  // The street's stored numbers: odd start and end, even start and end.
  static QStringList numeros(const Fila& fila) {
    return {fila["IMPAR_INI"], fila["IMPAR_FIN"], fila["PAR_INI"], fila["PAR_FIN"]};
  }
};

TEST_F(ModoUnoGuardado, FileIsStoredWithItsOneSidedRangesAndTheWholeStreetWhereItGivesNone) {
  escribeCalles({});
  escribeFichero(QStringLiteral("28-GETAFE.txt"),
                 "28901: ALCALA, CALLE (IMPARES DEL 1 AL 15)\r\n"
                 "28902: MAYOR, PLAZA\r\n"
                 "28903: SOL, CALLE (PARES DEL 2 AL FINAL)\r\n");
  abre();
  leeYElige(QStringLiteral("28-GETAFE"), QStringLiteral("MADRID"), QStringLiteral("GETAFE"));
  ASSERT_EQ(dialogo->SGVias->RowCount(), 4);
  pulsaGuardar();

  const std::vector<Fila> filas = calles();
  ASSERT_EQ(filas.size(), 3u);
  EXPECT_EQ(filas[0]["VIA"], "ALCALA");
  EXPECT_EQ(filas[0]["TIPO_VIA"], "CL");
  EXPECT_EQ(filas[0]["CODPOSTAL"], "28901");
  EXPECT_EQ(numeros(filas[0]), QStringList({"1", "15", "0", "0"})) << "no even side";
  EXPECT_EQ(filas[1]["VIA"], "MAYOR");
  EXPECT_EQ(filas[1]["TIPO_VIA"], "PZ");
  EXPECT_EQ(filas[1]["CODPOSTAL"], "28902");
  EXPECT_EQ(numeros(filas[1]), QStringList({"1", "9999", "2", "9998"})) << "no range: the whole street";
  EXPECT_EQ(filas[2]["VIA"], "SOL");
  EXPECT_EQ(filas[2]["TIPO_VIA"], "CL");
  EXPECT_EQ(filas[2]["CODPOSTAL"], "28903");
  EXPECT_EQ(numeros(filas[2]), QStringList({"0", "0", "2", "9998"})) << "no odd side";
  for (const Fila& fila : filas) {
    EXPECT_EQ(fila["MUNICIPI"], "GETAFE");
    EXPECT_EQ(fila["COD_INE"], "28065");
    EXPECT_EQ(fila["CAPITAL"], "9");
  }
  EXPECT_EQ(dialogo->nViasImportadas, 3);
  EXPECT_EQ(textosInfo(), QStringList({"Se han importado 3 calles al módulo de Códigos Postales"}));

  // The same file again: every street is already there.
  mensajes.limpia();
  pulsaGuardar();
  EXPECT_EQ(calles(), filas);
  EXPECT_EQ(dialogo->nViasImportadas, 0);
  EXPECT_EQ(textosInfo(), QStringList({"Se han importado 0 calles al módulo de Códigos Postales"}));
}

}  // namespace
