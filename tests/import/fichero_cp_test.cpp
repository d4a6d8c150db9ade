// Mode 1 of the import dialog: the streets of a municipality with several
// postcodes read from its postcode text file into the grid, with their types
// and number ranges, and the search button that reads it and chooses the
// host's province and municipality.
#include <QFile>
#include <QLabel>
#include <QSignalSpy>
#include <gtest/gtest.h>

#include "dbase/core/error.h"
#include "dialogo_comun.h"

using namespace testsupport;

namespace {

class FicheroCodigosPostales : public DialogoImportarTest {
 protected:
  void SetUp() override {
    DialogoImportarTest::SetUp();
    ASSERT_TRUE(QDir().mkpath(carpetaPostal()));
    d = crea();
  }

  void escribe(const QString& nombre, const QByteArray& bytes) {
    writeFile((carpetaPostal() + QLatin1Char('/') + nombre).toStdString(), bytes.toStdString());
  }

  // Writes the lines as the file of one municipality (Windows line ends)
  // and reads it.
  bool lee(const QStringList& lineas) {
    QByteArray bytes;
    for (const QString& l : lineas) bytes += l.toUtf8() + "\r\n";
    escribe(QStringLiteral("28-PRUEBA.txt"), bytes);
    ClienteOvc::Elige(d->CBProvincias, QStringLiteral("28-PRUEBA"));
    return d->ImportarViasMasUnCodigo();
  }

  // The row a single line gives.
  QStringList unaLinea(const QString& linea) {
    EXPECT_TRUE(lee({linea}));
    EXPECT_EQ(d->SGVias->RowCount(), 2);
    return fila(d->SGVias, 1);
  }

  // Rows with something in them to see the grid left alone.
  void llenaRejilla() {
    d->SGVias->SetColCount(2);
    d->SGVias->SetRowCount(3);
    d->SGVias->SetCells(0, 1, QStringLiteral("CL"));
    d->SGVias->SetCells(1, 1, QStringLiteral("ANTES"));
    d->SGVias->SetCells(0, 2, QStringLiteral("AV"));
    d->SGVias->SetCells(1, 2, QStringLiteral("TAMBIEN ANTES"));
    d->LMensaje_->setText(QStringLiteral("Se han encontrado 2 vías"));
  }
  void esperaRejillaSinTocar() {
    EXPECT_EQ(d->SGVias->ColCount(), 2);
    EXPECT_EQ(d->SGVias->RowCount(), 3);
    EXPECT_EQ(fila(d->SGVias, 1), (QStringList{"CL", "ANTES"}));
    EXPECT_EQ(fila(d->SGVias, 2), (QStringList{"AV", "TAMBIEN ANTES"}));
    EXPECT_EQ(d->LMensaje_->text(), QStringLiteral("Se han encontrado 2 vías"));
  }

  std::unique_ptr<TFImportarVias> d;
};

// ---- The line and its range wording ----

TEST_F(FicheroCodigosPostales, ImparesDelSetsTheOddRange) {
  EXPECT_EQ(unaLinea("28001: ALCALA, CALLE (IMPARES DEL 1 AL 15)"),
            (QStringList{"CL", "ALCALA", "28001", "1", "15", "", ""}));
}

TEST_F(FicheroCodigosPostales, ImparDelSetsTheOddRange) {
  EXPECT_EQ(unaLinea("28002: ALCALA, CALLE (IMPAR DEL 3 AL 7)"),
            (QStringList{"CL", "ALCALA", "28002", "3", "7", "", ""}));
}

TEST_F(FicheroCodigosPostales, ParesDelSetsTheEvenRange) {
  EXPECT_EQ(unaLinea("28003: ALCALA, CALLE (PARES DEL 2 AL 20)"),
            (QStringList{"CL", "ALCALA", "28003", "", "", "2", "20"}));
}

TEST_F(FicheroCodigosPostales, ParDelSetsTheEvenRange) {
  EXPECT_EQ(unaLinea("28004: ALCALA, CALLE (PAR DEL 4 AL 8)"),
            (QStringList{"CL", "ALCALA", "28004", "", "", "4", "8"}));
}

TEST_F(FicheroCodigosPostales, OddAndEvenRangesInOneBracket) {
  EXPECT_EQ(unaLinea("28005: ALCALA, CALLE (IMPARES DEL 17 AL 41 Y PARES DEL 18 AL 40)"),
            (QStringList{"CL", "ALCALA", "28005", "17", "41", "18", "40"}));
}

TEST_F(FicheroCodigosPostales, FinalEndsTheOddRangeAt9999) {
  EXPECT_EQ(unaLinea("28006: ALCALA, CALLE (IMPARES DEL 43 AL FINAL)"),
            (QStringList{"CL", "ALCALA", "28006", "43", "9999", "", ""}));
}

TEST_F(FicheroCodigosPostales, FinalEndsTheEvenRangeAt9998) {
  EXPECT_EQ(unaLinea("28007: ALCALA, CALLE (PARES DEL 42 AL FINAL)"),
            (QStringList{"CL", "ALCALA", "28007", "", "", "42", "9998"}));
}

TEST_F(FicheroCodigosPostales, RangeWordingIsReadInAnyCase) {
  EXPECT_EQ(unaLinea("28008: Alcala, Calle (impares del 1 al final)"),
            (QStringList{"CL", "Alcala", "28008", "1", "9999", "", ""}));
}

TEST_F(FicheroCodigosPostales, RangeStartWithoutEndLeavesTheEndEmpty) {
  EXPECT_EQ(unaLinea("28009: ALCALA, CALLE (PARES DEL 50)"),
            (QStringList{"CL", "ALCALA", "28009", "", "", "50", ""}));
}

TEST_F(FicheroCodigosPostales, SideWordWithoutNumbersLeavesItsColumnsEmpty) {
  EXPECT_EQ(unaLinea("28010: ALCALA, CALLE (IMPARES)"), (QStringList{"CL", "ALCALA", "28010", "", "", "", ""}));
}

TEST_F(FicheroCodigosPostales, LineWithoutRangeLeavesTheNumberColumnsEmpty) {
  EXPECT_EQ(unaLinea("28011: PRADO, PASEO"), (QStringList{"PS", "PRADO", "28011", "", "", "", ""}));
}

TEST_F(FicheroCodigosPostales, BracketWithoutRangeStaysInTheName) {
  EXPECT_EQ(unaLinea("28012: ROSA (LA), CALLE"), (QStringList{"CL", "ROSA (LA)", "28012", "", "", "", ""}));
}

TEST_F(FicheroCodigosPostales, LineWithoutCommaHasNoTypeAndLosesItsRangeBracket) {
  EXPECT_EQ(unaLinea("28013: MAYOR (PARES DEL 2 AL 8)"), (QStringList{"", "MAYOR", "28013", "", "", "2", "8"}));
}

TEST_F(FicheroCodigosPostales, LineWithoutColonLeavesThePostcodeEmpty) {
  EXPECT_EQ(unaLinea("ALCALA, CALLE (IMPARES DEL 1 AL 3)"), (QStringList{"CL", "ALCALA", "", "1", "3", "", ""}));
}

TEST_F(FicheroCodigosPostales, LinesAreTrimmedBeforeParsing) {
  EXPECT_EQ(unaLinea("  \t28014:   ALCALA  , CALLE   (IMPARES DEL 1 AL 3)   "),
            (QStringList{"CL", "ALCALA", "28014", "1", "3", "", ""}));
}

TEST_F(FicheroCodigosPostales, NameLongerThan45CharactersIsCutTo45) {
  const QString largo = QStringLiteral("NUESTRA SEÑORA DE LA ASUNCION Y SAN JUAN BAUTISTA DEL MONTE");
  ASSERT_GT(largo.size(), 45);
  const QStringList f = unaLinea(QStringLiteral("28015: ") + largo + QStringLiteral(", CALLE"));
  EXPECT_EQ(f[1], largo.left(45));
  EXPECT_EQ(f[1].size(), 45);
  EXPECT_EQ(f[0], QStringLiteral("CL"));
}

// ---- The written street type ----

TEST_F(FicheroCodigosPostales, TypeNamedAsInTheTableGivesItsCode) {
  EXPECT_EQ(unaLinea("28016: AMERICA, AVENIDA")[0], QStringLiteral("AV"));
}

TEST_F(FicheroCodigosPostales, TypeNamedInPartGivesTheFirstTypeHoldingIt) {
  // CALLE, CALLEJON in name order: "CALLEJ" is only in CALLEJON.
  EXPECT_EQ(unaLinea("28017: GATO, CALLEJ")[0], QStringLiteral("CJ"));
}

TEST_F(FicheroCodigosPostales, PlazuelaMissingFromTheTableStillMapsToPZ) {
  EXPECT_EQ(unaLinea("28018: VILLA, PLAZUELA")[0], QStringLiteral("PZ"));
}

TEST_F(FicheroCodigosPostales, EveryTypeTheTableLacksHasItsFixedCode) {
  const QList<std::pair<QString, QString>> tipos = {
      {"PLACETA", "PZ"}, {"PLAZUELA", "PZ"},     {"CALLEJUELA", "CJ"},  {"PUERTA", "ED"},      {"PALACIO", "ED"},
      {"CERRO", "MT"},   {"CAMINO VIEJO", "CM"}, {"TRANSVERSAL", "TR"}, {"RESIDENCIAL", "UR"},
  };
  QStringList lineas;
  for (const auto& [tipo, codigo] : tipos) lineas << QStringLiteral("28019: NOMBRE, ") + tipo;
  ASSERT_TRUE(lee(lineas));
  ASSERT_EQ(d->SGVias->RowCount(), tipos.size() + 1);
  for (int i = 0; i < tipos.size(); ++i) EXPECT_EQ(d->SGVias->Cells(0, i + 1), tipos[i].second) << tipos[i].first.toStdString();
}

TEST_F(FicheroCodigosPostales, UnknownTypeGivesNoCode) {
  EXPECT_EQ(unaLinea("28020: ESPAÑA, GLORIETA"), (QStringList{"", "ESPAÑA", "28020", "", "", "", ""}));
}

TEST_F(FicheroCodigosPostales, TypeIsReadInAnyCase) { EXPECT_EQ(unaLinea("28021: Prado, paseo")[0], QStringLiteral("PS")); }

TEST_F(FicheroCodigosPostales, TypeWrittenRightBeforeTheRangeBracket) {
  EXPECT_EQ(unaLinea("28022: ALCALA, CALLE(IMPARES DEL 5 AL 9)"),
            (QStringList{"CL", "ALCALA", "28022", "5", "9", "", ""}));
}

TEST_F(FicheroCodigosPostales, SeveralCommasTakeTheTypeFromTheLast) {
  EXPECT_EQ(unaLinea("28023: ERAS, LAS, CALLE"), (QStringList{"CL", "ERAS, LAS", "28023", "", "", "", ""}));
}

TEST_F(FicheroCodigosPostales, CommaInsideTheRangeBracketIsNotTheTypesComma) {
  EXPECT_EQ(unaLinea("28024: MAYOR, CALLE (PARES DEL 2 AL 10, IMPARES DEL 1 AL 9)"),
            (QStringList{"CL", "MAYOR", "28024", "1", "9", "2", "10"}));
}

TEST_F(FicheroCodigosPostales, CommaFollowedByADigitStaysInTheName) {
  EXPECT_EQ(unaLinea("28025: CARRETERA M-40 KM 5,5"), (QStringList{"", "CARRETERA M-40 KM 5,5", "28025", "", "", "", ""}));
}

TEST_F(FicheroCodigosPostales, CommaWithoutATypeBehindItStaysInTheName) {
  EXPECT_EQ(unaLinea("28026: MAYOR,"), (QStringList{"", "MAYOR,", "28026", "", "", "", ""}));
}

TEST_F(FicheroCodigosPostales, TheTypeTableIsOnlyNeededWhenALineNamesAType) {
  TempDir sinTipos;
  escribeJuegoDeReferencia(sinTipos.path(), OpcionesReferencia{true, false});
  d->sAlias = QString::fromStdString(sinTipos.path());
  ASSERT_TRUE(QDir().mkpath(d->sAlias + QStringLiteral("/POSTAL")));
  writeFile(sinTipos.path() + "/POSTAL/28-PRUEBA.txt", "28001: MAYOR (PARES DEL 2 AL 8)\r\n28002: SOL\r\n");
  ClienteOvc::Elige(d->CBProvincias, QStringLiteral("28-PRUEBA"));
  ASSERT_TRUE(d->ImportarViasMasUnCodigo());
  EXPECT_EQ(d->SGVias->RowCount(), 3);

  // A typed line needs it: the engine's error reaches the caller.
  writeFile(sinTipos.path() + "/POSTAL/28-PRUEBA.txt", "28001: MAYOR, CALLE\r\n");
  EXPECT_THROW(d->ImportarViasMasUnCodigo(), dbase::Error);
}

// ---- The file as a whole ----

TEST_F(FicheroCodigosPostales, EachLineGivesARowInFileOrder) {
  ASSERT_TRUE(lee({"28001: ALCALA, CALLE (IMPARES DEL 1 AL 15)", "28014: ALCALA, CALLE (IMPARES DEL 17 AL FINAL)",
                   "28009: ALCALA, CALLE (PARES DEL 2 AL FINAL)", "28013: MAYOR, PLAZA"}));
  ASSERT_EQ(d->SGVias->RowCount(), 5);
  EXPECT_EQ(fila(d->SGVias, 1), (QStringList{"CL", "ALCALA", "28001", "1", "15", "", ""}));
  EXPECT_EQ(fila(d->SGVias, 2), (QStringList{"CL", "ALCALA", "28014", "17", "9999", "", ""}));
  EXPECT_EQ(fila(d->SGVias, 3), (QStringList{"CL", "ALCALA", "28009", "", "", "2", "9998"}));
  EXPECT_EQ(fila(d->SGVias, 4), (QStringList{"PZ", "MAYOR", "28013", "", "", "", ""}));
}

TEST_F(FicheroCodigosPostales, CountLabelSaysHowManyStreetsWereRead) {
  ASSERT_TRUE(lee({"28001: ALCALA, CALLE", "28002: MAYOR, CALLE", "28003: SOL, PLAZA"}));
  EXPECT_EQ(d->LMensaje_->text(), QStringLiteral("Se han encontrado 3 vías"));
}

TEST_F(FicheroCodigosPostales, FirstDataRowIsSelectedAfterReading) {
  ASSERT_TRUE(lee({"28001: ALCALA, CALLE", "28002: MAYOR, CALLE", "28003: SOL, PLAZA"}));
  EXPECT_EQ(d->SGVias->Row(), 1);
}

TEST_F(FicheroCodigosPostales, GridIsPreparedWithTheSevenColumnsOfModeOne) {
  d->SGVias->SetColCount(2);
  ASSERT_TRUE(lee({"28001: ALCALA, CALLE"}));
  ASSERT_EQ(d->SGVias->ColCount(), 7);
  EXPECT_EQ(fila(d->SGVias, 0), (QStringList{"Tipo de vía", "Nombre de la vía", "Código postal", "Impar INI",
                                             "Impar INI", "Par INI", "Par FIN"}));
  EXPECT_EQ(d->SGVias->ColWidths(2), AnchoFijoEsperado(d->SGVias, *d, 2, 70));
  for (int c = 3; c <= 6; ++c) EXPECT_EQ(d->SGVias->ColWidths(c), AnchoFijoEsperado(d->SGVias, *d, c, 55)) << c;
}

TEST_F(FicheroCodigosPostales, RowsOfAPreviousSearchAreReplaced) {
  llenaRejilla();
  ASSERT_TRUE(lee({"28001: ALCALA, CALLE"}));
  EXPECT_EQ(d->SGVias->RowCount(), 2);
  EXPECT_EQ(fila(d->SGVias, 1), (QStringList{"CL", "ALCALA", "28001", "", "", "", ""}));
}

TEST_F(FicheroCodigosPostales, EmptyFileGivesNoStreetRowsAndCountZero) {
  llenaRejilla();
  escribe(QStringLiteral("28-VACIO.txt"), QByteArray());
  ClienteOvc::Elige(d->CBProvincias, QStringLiteral("28-VACIO"));
  ASSERT_TRUE(d->ImportarViasMasUnCodigo());
  EXPECT_EQ(d->SGVias->RowCount(), 1) << "only the title row";
  EXPECT_EQ(d->SGVias->Cells(1, 0), QStringLiteral("Nombre de la vía"));
  EXPECT_EQ(d->LMensaje_->text(), QStringLiteral("Se han encontrado 0 vías"));
  EXPECT_TRUE(mensajes.vacio());
}

TEST_F(FicheroCodigosPostales, BlankLinesAreSkipped) {
  ASSERT_TRUE(lee({"", "28001: ALCALA, CALLE", "   ", "", "28002: MAYOR, CALLE", ""}));
  EXPECT_EQ(d->SGVias->RowCount(), 3);
  EXPECT_EQ(d->SGVias->Cells(1, 2), QStringLiteral("MAYOR"));
  EXPECT_EQ(d->LMensaje_->text(), QStringLiteral("Se han encontrado 2 vías"));
}

TEST_F(FicheroCodigosPostales, LinesWithoutAStreetNameAreSkipped) {
  ASSERT_TRUE(lee({"28001:", "28001: ALCALA, CALLE", ", CALLE"}));
  EXPECT_EQ(d->SGVias->RowCount(), 2);
  EXPECT_EQ(fila(d->SGVias, 1), (QStringList{"CL", "ALCALA", "28001", "", "", "", ""}));
}

TEST_F(FicheroCodigosPostales, WindowsLineEndsUnixLineEndsAndLoneCarriageReturnsAllSplitLines) {
  escribe(QStringLiteral("28-FINES.txt"), "28001: A, CALLE\r\n28002: B, CALLE\n28003: C, CALLE\r28004: D, CALLE");
  ClienteOvc::Elige(d->CBProvincias, QStringLiteral("28-FINES"));
  ASSERT_TRUE(d->ImportarViasMasUnCodigo());
  ASSERT_EQ(d->SGVias->RowCount(), 5);
  for (int f = 1; f <= 4; ++f) EXPECT_EQ(d->SGVias->Cells(2, f), QStringLiteral("2800%1").arg(f));
}

TEST_F(FicheroCodigosPostales, Windows1252FileIsDecoded) {
  escribe(QStringLiteral("28-ANSI.txt"), "28001: PE\xD1" "A DE FRANCIA, CALLE\r\n28002: CA\xD1" "ADA REAL, CALLEJ\r\n");
  ClienteOvc::Elige(d->CBProvincias, QStringLiteral("28-ANSI"));
  ASSERT_TRUE(d->ImportarViasMasUnCodigo());
  EXPECT_EQ(d->SGVias->Cells(1, 1), QStringLiteral("PEÑA DE FRANCIA"));
  EXPECT_EQ(fila(d->SGVias, 2).mid(0, 2), (QStringList{"CJ", "CAÑADA REAL"}));
}

TEST_F(FicheroCodigosPostales, Utf8FileIsDecodedWithoutItsByteOrderMark) {
  escribe(QStringLiteral("28-UTF8.txt"), "\xEF\xBB\xBF" "28001: PE\xC3\x91" "A DE FRANCIA, CALLE\r\n");
  ClienteOvc::Elige(d->CBProvincias, QStringLiteral("28-UTF8"));
  ASSERT_TRUE(d->ImportarViasMasUnCodigo());
  EXPECT_EQ(fila(d->SGVias, 1).mid(0, 3), (QStringList{"CL", "PEÑA DE FRANCIA", "28001"}));
}

TEST_F(FicheroCodigosPostales, ControlZEndsTheText) {
  escribe(QStringLiteral("28-DOS.txt"), "28001: ALCALA, CALLE\r\n\x1A");
  ClienteOvc::Elige(d->CBProvincias, QStringLiteral("28-DOS"));
  ASSERT_TRUE(d->ImportarViasMasUnCodigo());
  EXPECT_EQ(d->LMensaje_->text(), QStringLiteral("Se han encontrado 1 vías"));
}

TEST_F(FicheroCodigosPostales, FileWithUpperCaseExtensionIsFound) {
  escribe(QStringLiteral("28-MAYUS.TXT"), "28001: ALCALA, CALLE\r\n");
  ClienteOvc::Elige(d->CBProvincias, QStringLiteral("28-MAYUS"));
  EXPECT_TRUE(d->ImportarViasMasUnCodigo());
  EXPECT_EQ(d->SGVias->Cells(1, 1), QStringLiteral("ALCALA"));
}

// ---- Failures ----

TEST_F(FicheroCodigosPostales, MissingFolderShowsItsMessageAndLeavesTheGrid) {
  ASSERT_TRUE(QDir(carpetaPostal()).removeRecursively());
  llenaRejilla();
  ClienteOvc::Elige(d->CBProvincias, QStringLiteral("28-PRUEBA"));
  EXPECT_FALSE(d->ImportarViasMasUnCodigo());
  ASSERT_EQ(mensajes.mensajes().size(), 1);
  EXPECT_EQ(mensajes.ultimo().tipo, TipoMensaje::Info);
  EXPECT_EQ(mensajes.ultimo().texto, QStringLiteral("No existe la carpeta con los ficheros de códigos postales"));
  EXPECT_EQ(mensajes.ultimo().titulo, QStringLiteral("No se puede realizar la importación"));
  esperaRejillaSinTocar();
}

TEST_F(FicheroCodigosPostales, MissingFileShowsTheReadErrorAndLeavesTheGrid) {
  llenaRejilla();
  ClienteOvc::Elige(d->CBProvincias, QStringLiteral("28-NO-EXISTE"));
  EXPECT_FALSE(d->ImportarViasMasUnCodigo());
  ASSERT_EQ(mensajes.mensajes().size(), 1);
  EXPECT_EQ(mensajes.ultimo().tipo, TipoMensaje::Info);
  EXPECT_EQ(mensajes.ultimo().texto,
            QStringLiteral("Se ha producido un error al leer el fichero de códigos postales del municipio"));
  EXPECT_EQ(mensajes.ultimo().titulo, QStringLiteral("No se puede realizar la importación"));
  esperaRejillaSinTocar();
}

TEST_F(FicheroCodigosPostales, UnreadableFileShowsTheReadErrorAndLeavesTheGrid) {
  // A folder where the file should be cannot be read as one, whoever runs
  // the test.
  ASSERT_TRUE(QDir().mkpath(carpetaPostal() + QStringLiteral("/28-CARPETA.txt")));
  llenaRejilla();
  ClienteOvc::Elige(d->CBProvincias, QStringLiteral("28-CARPETA"));
  EXPECT_FALSE(d->ImportarViasMasUnCodigo());
  ASSERT_EQ(mensajes.mensajes().size(), 1);
  EXPECT_EQ(mensajes.ultimo().texto,
            QStringLiteral("Se ha producido un error al leer el fichero de códigos postales del municipio"));
  EXPECT_EQ(mensajes.ultimo().titulo, QStringLiteral("No se puede realizar la importación"));
  esperaRejillaSinTocar();
}

// ---- Mode 1 of the dialog ----

class ModoUnoDelDialogo : public FicheroCodigosPostales {
 protected:
  void SetUp() override {
    FicheroCodigosPostales::SetUp();
    // A municipality whose name holds "/", written "_" in its file's name.
    anadeProvincia(3, QStringLiteral("ALICANTE"));
    anadeMunicipio(QStringLiteral("03014"), QStringLiteral("03001"), QStringLiteral("ALACANT/ALICANTE"));
    anadeMunicipio(QStringLiteral("03009"), QStringLiteral("03440"), QStringLiteral("IBI"));
    escribe(QStringLiteral("03-ALACANT_ALICANTE.txt"),
            "03001: ALFONSO EL SABIO, AVENIDA (IMPARES DEL 1 AL 9)\r\n"
            "03002: ALFONSO EL SABIO, AVENIDA (IMPARES DEL 11 AL FINAL)\r\n"
            "03004: CASTA\xD1OS, PLAZUELA\r\n");
    escribe(QStringLiteral("28-ALCALA DE HENARES.txt"), "28801: MAYOR, CALLE (PARES DEL 2 AL 40)\r\n");
    escribe(QStringLiteral("28-GETAFE.v2.txt"), "28901: MADRID, AVENIDA\r\n");
    escribe(QStringLiteral("notas.csv"), "no es un fichero de códigos\r\n");
    ASSERT_TRUE(QDir().mkpath(carpetaPostal() + QStringLiteral("/28/dentro")));
    writeFile((carpetaPostal() + QStringLiteral("/28/08-DENTRO.txt")).toStdString(), "08001: X, CALLE\r\n");
    d = abre();
  }
};

TEST_F(ModoUnoDelDialogo, UpperComboListsThePostcodeFilesCutBeforeTheirFirstDot) {
  EXPECT_EQ(elementos(d->CBProvincias),
            (QStringList{"03-ALACANT_ALICANTE", "28-ALCALA DE HENARES", "28-GETAFE"}));
  EXPECT_EQ(d->CBProvincias->currentIndex(), -1) << "loaded with none chosen";
}

TEST_F(ModoUnoDelDialogo, SearchFillsTheGridAndChoosesTheHostProvinceAndMunicipality) {
  elige(d->CBProvincias, QStringLiteral("03-ALACANT_ALICANTE"));
  pulsa(d->advGBBuscarViasPorMunicipio);

  ASSERT_EQ(d->SGVias->RowCount(), 4);
  EXPECT_EQ(fila(d->SGVias, 1), (QStringList{"AV", "ALFONSO EL SABIO", "03001", "1", "9", "", ""}));
  EXPECT_EQ(fila(d->SGVias, 2), (QStringList{"AV", "ALFONSO EL SABIO", "03002", "11", "9999", "", ""}));
  EXPECT_EQ(fila(d->SGVias, 3), (QStringList{"PZ", "CASTAÑOS", "03004", "", "", "", ""}));
  EXPECT_EQ(d->LMensaje_->text(), QStringLiteral("Se han encontrado 3 vías"));
  // Province from the first two characters; municipality from the text after
  // the "-", "_" read as "/".
  EXPECT_EQ(d->CBProvinciasZelmor->currentText(), QStringLiteral("ALICANTE"));
  EXPECT_EQ(d->CBProvinciasZelmor->currentData().toInt(), 3);
  EXPECT_EQ(elementos(d->CBMunicipiosZelmor), (QStringList{"ALACANT/ALICANTE", "IBI"}));
  EXPECT_EQ(d->CBMunicipiosZelmor->currentText(), QStringLiteral("ALACANT/ALICANTE"));
  EXPECT_EQ(d->CBMunicipiosZelmor->currentData().toInt(), 3001);
  EXPECT_EQ(QApplication::focusWidget(), d->CBMunicipiosZelmor);
}

TEST_F(ModoUnoDelDialogo, SearchShowsTheEntryInTheWaitWindowAndClosesIt) {
  elige(d->CBProvincias, QStringLiteral("28-ALCALA DE HENARES"));
  pulsa(d->advGBBuscarViasPorMunicipio);
  EXPECT_EQ(esperas(TipoMensaje::Muestra), (QStringList{"Importando el listado de vías del municipio..."}));
  EXPECT_EQ(esperas(TipoMensaje::Cambia), (QStringList{"28-ALCALA DE HENARES"}));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), 1);
  EXPECT_EQ(d->oFormMensaje, nullptr);
  EXPECT_EQ(d->CBProvinciasZelmor->currentText(), QStringLiteral("MADRID"));
  EXPECT_EQ(d->CBMunicipiosZelmor->currentText(), QStringLiteral("ALCALA DE HENARES"));
  EXPECT_EQ(fila(d->SGVias, 1), (QStringList{"CL", "MAYOR", "28801", "", "", "2", "40"}));
}

TEST_F(ModoUnoDelDialogo, FileThatCannotBeReadEndsInTheNoStreetsNotice) {
  elige(d->CBProvincias, QStringLiteral("28-GETAFE"));  // the file is 28-GETAFE.v2.txt
  d->CBProvinciasZelmor->setCurrentIndex(0);
  pulsa(d->advGBBuscarViasPorMunicipio);
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Info), 1);
  EXPECT_EQ(mensajes.deTipo(TipoMensaje::Info)[0].texto,
            QStringLiteral("Se ha producido un error al leer el fichero de códigos postales del municipio"));
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Emergente), 1);
  const MensajeRegistrado aviso = mensajes.deTipo(TipoMensaje::Emergente)[0];
  EXPECT_EQ(aviso.texto, QStringLiteral("No se ha podido importar ningún nombre de vía"));
  EXPECT_EQ(aviso.titulo, QStringLiteral("Inténtelo de nuevo"));
  EXPECT_EQ(aviso.posicion, QStringLiteral("H"));
  EXPECT_EQ(aviso.opcion, 4);
  EXPECT_EQ(d->oFormMensaje, nullptr);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), 1);
  EXPECT_EQ(d->CBProvinciasZelmor->currentIndex(), -1) << "cleared before reading";
}

TEST_F(ModoUnoDelDialogo, ProvinceCodeTheHostLacksChoosesNoProvince) {
  escribe(QStringLiteral("77-NINGUNA.txt"), "77001: MAYOR, CALLE\r\n");
  d->RBMasDeUnoClick(d->RBMasDeUno);  // lists the folder again
  elige(d->CBProvincias, QStringLiteral("77-NINGUNA"));
  pulsa(d->advGBBuscarViasPorMunicipio);
  EXPECT_EQ(d->SGVias->Cells(1, 1), QStringLiteral("MAYOR"));
  EXPECT_EQ(d->CBProvinciasZelmor->currentIndex(), -1);
  EXPECT_EQ(d->CBMunicipiosZelmor->count(), 0);
}

TEST_F(ModoUnoDelDialogo, SearchOnAnEntryWithoutDashTakesTheWholeEntryAsTheMunicipality) {
  // Province 28 from the first two characters; the municipality is the
  // whole entry, "_" read as "/". VILLA/NUEVA would be the text after a
  // blank, not the whole entry.
  anadeMunicipio(QStringLiteral("28990"), QStringLiteral("28990"), QStringLiteral("VILLA/NUEVA"));
  anadeMunicipio(QStringLiteral("28991"), QStringLiteral("28991"), QStringLiteral("28 VILLA/NUEVA"));
  escribe(QStringLiteral("28 VILLA_NUEVA.txt"), "28991: MAYOR, CALLE\r\n");
  d->RBMasDeUnoClick(d->RBMasDeUno);  // lists the folder again
  elige(d->CBProvincias, QStringLiteral("28 VILLA_NUEVA"));
  pulsa(d->advGBBuscarViasPorMunicipio);
  EXPECT_EQ(d->SGVias->Cells(1, 1), QStringLiteral("MAYOR"));
  EXPECT_EQ(d->CBProvinciasZelmor->currentText(), QStringLiteral("MADRID"));
  EXPECT_EQ(d->CBMunicipiosZelmor->currentText(), QStringLiteral("28 VILLA/NUEVA"));
  EXPECT_EQ(d->CBMunicipiosZelmor->currentData().toInt(), 28991);
}

TEST_F(ModoUnoDelDialogo, SearchWithNoFileChosenAsksForOne) {
  pulsa(d->advGBBuscarViasPorMunicipio);
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Error), 1);
  EXPECT_EQ(mensajes.ultimo().texto,
            QStringLiteral("Para importar vías de un municipio es necesario indicarlo en el desplegable"));
  EXPECT_EQ(mensajes.ultimo().titulo, QStringLiteral("Faltan datos"));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Muestra), 0);
}

}  // namespace
