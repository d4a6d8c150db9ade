// Storing the import grid's streets in the street table: the save button's
// checks, the insert path (duplicates, codes, field values, failing rows),
// the review path that only fills empty street types, and the wait window.
#include <QApplication>
#include <QComboBox>
#include <QPushButton>
#include <QRadioButton>

#include "dbase/core/error.h"
#include "dbase/TTable.h"
#include "import/guarda_comun.h"
#include "lookup/CodPostalesDM.h"
#include "platform/TStringGrid.h"
#include "platform/TXMLDocument.h"
#include "support/referencia.h"
#include "../services/qstring_print.h"

using namespace guarda;
using testsupport::Row;

namespace {

QStringList columna(const std::vector<Fila>& filas, const QString& campo) {
  QStringList valores;
  for (const Fila& fila : filas) valores << fila.value(campo);
  return valores;
}

QString resumen(int n) { return QStringLiteral("Se han importado %1 calles al módulo de Códigos Postales").arg(n); }

// GETAFE (28065) has the postcodes 28901, 28902 and 28903 and UNICO "N".
const QList<QStringList> kDosCalles = {{"CL", "NUEVA"}, {"AV", "DEL RIO"}};

}  // namespace

TEST_F(GuardaViasTest, SaveWithOnlyTheTitleRowSaysTheListIsEmpty) {
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  dialogo->SGVias->SetRowCount(1);
  pulsaGuardar();
  ASSERT_EQ(mensajes.mensajes().size(), 1);
  const MensajeRegistrado& m = mensajes.ultimo();
  EXPECT_EQ(m.tipo, TipoMensaje::Info);
  EXPECT_EQ(m.texto, "No hay vías que importar. El listado está vacío");
  EXPECT_EQ(m.titulo, "Busque antes las vías");
  EXPECT_EQ(m.propietario, anfitrion.get());
  EXPECT_EQ(m.opcion, 0);
  EXPECT_EQ(calles().size(), 3u);
}

TEST_F(GuardaViasTest, SaveAfterASearchThatFoundNoStreetsSaysTheListIsEmpty) {
  testsupport::writeFile(dir.file("vacia.xml"), respuestaDeVias({}).toStdString());
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  // As the search leaves it: the grid cleared to one blank row, then loaded.
  dialogo->LimpiaDatos(false);
  dialogo->XML->LoadFromFile(QString::fromStdString(dir.file("vacia.xml")));
  ASSERT_TRUE(dialogo->CargaVias());
  ASSERT_EQ(dialogo->SGVias->RowCount(), 2);
  dialogo->SGVias->SetCells(0, 1, "CL");  // a type alone is no street
  dialogo->SGVias->SetCells(1, 1, "  ");
  pulsaGuardar();
  ASSERT_EQ(mensajes.mensajes().size(), 1);
  EXPECT_EQ(mensajes.ultimo().tipo, TipoMensaje::Info);
  EXPECT_EQ(mensajes.ultimo().texto, "No hay vías que importar. El listado está vacío");
  EXPECT_EQ(mensajes.ultimo().titulo, "Busque antes las vías");
  EXPECT_EQ(calles().size(), 3u);
}

TEST_F(GuardaViasTest, RowWithoutAStreetNameIsNeverStored) {
  for (int m : {1, 2}) {
    escribeCalles({});
    abre();
    modo(m);
    elige("MADRID", m == 1 ? "GETAFE" : "SOBRADO");
    rejilla({{"CL", "UNO", "28901"}, {"CL", " ", "28901"}, {"", "", ""}, {"CL", "DOS", "28901"}});
    dialogo->GuardaVias();
    EXPECT_EQ(columna(calles(), "VIA"), QStringList({"UNO", "DOS"})) << "modo " << m;
    EXPECT_EQ(dialogo->nViasImportadas, 2) << "modo " << m;
    dialogo.reset();
    controlador.reset();
  }
}

TEST_F(GuardaViasTest, ReviewPassesOverRowsWithoutAStreetName) {
  // A blank street stored earlier, without a type, under a GETAFE postcode.
  escribeCalles({calleImportada("", "", "28902", "GETAFE", "28065", "1")});
  abre();
  modo(2);
  elige("MADRID", "GETAFE");
  rejilla({{"CL", ""}});
  dialogo->GuardaVias();
  EXPECT_EQ(columna(calles(), "TIPO_VIA"), QStringList({""}));
  EXPECT_EQ(dialogo->nViasImportadas, 0);
}

TEST_F(GuardaViasTest, SaveWithoutProvinceOrMunicipalityAsksWhereToImport) {
  abre();
  modo(2);
  rejilla(kDosCalles);
  QList<MensajeRegistrado> avisos;
  const auto pulsa = [&] {
    pulsaGuardar();
    avisos += mensajes.deTipo(TipoMensaje::Info);
    EXPECT_EQ(mensajes.cuenta(TipoMensaje::Muestra), 0);
    mensajes.limpia();
  };
  pulsa();  // nothing chosen

  elige("MADRID", "SOBRADO");
  dialogo->CBMunicipiosZelmor->setCurrentIndex(-1);
  pulsa();  // a province only

  dialogo->CBMunicipiosZelmor->addItem("SIN CODIGO", 0);
  dialogo->CBMunicipiosZelmor->setCurrentIndex(dialogo->CBMunicipiosZelmor->count() - 1);
  pulsa();  // a municipality whose postcode is 0

  dialogo->CBProvinciasZelmor->setCurrentIndex(-1);
  dialogo->CBMunicipiosZelmor->setCurrentIndex(dialogo->Indice(dialogo->CBMunicipiosZelmor, "SOBRADO"));
  pulsa();  // a municipality only

  ASSERT_EQ(avisos.size(), 4);
  for (const MensajeRegistrado& m : avisos) {
    EXPECT_EQ(m.texto, "No ha indicado correctamente el nombre de la provincia o el municipio");
    EXPECT_EQ(m.titulo, "Seleccione donde importar las calles");
    EXPECT_EQ(m.propietario, anfitrion.get());
  }
  EXPECT_EQ(calles().size(), 3u);
}

TEST_F(GuardaViasTest, SaveButtonStoresTheGridAndReportsHowMany) {
  escribeCalles({});
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  rejilla(kDosCalles);
  pulsaGuardar();
  EXPECT_EQ(columna(calles(), "VIA"), QStringList({"NUEVA", "DEL RIO"}));
  EXPECT_EQ(dialogo->nViasImportadas, 2);
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Info), 1);
  EXPECT_EQ(mensajes.deTipo(TipoMensaje::Info)[0].texto, resumen(2));
  EXPECT_EQ(mensajes.deTipo(TipoMensaje::Info)[0].titulo, "Importación finalizada");
  EXPECT_EQ(mensajes.deTipo(TipoMensaje::Info)[0].propietario, anfitrion.get());
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Error), 0);
}

TEST_F(GuardaViasTest, AppendedRowHoldsEveryFieldAsTheImportWritesIt) {
  escribeCalles({});
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  rejilla({{"cl", "Peña Grande"}});
  dialogo->GuardaVias();
  const std::vector<Fila> filas = calles();
  ASSERT_EQ(filas.size(), 1u);
  const Fila esperada = {{"PROVINCIA", "28"},     {"CAPITAL", "9"},     {"TIPO_VIA", "CL"},
                         {"VIA", "PEÑA GRANDE"},  {"IMPAR_INI", "1"},   {"IMPAR_FIN", "9999"},
                         {"PAR_INI", "2"},        {"PAR_FIN", "9998"},  {"CODPOSTAL", "28140"},
                         {"MUNICIPI", "SOBRADO"}, {"COD_INE", "28140"}, {"NOMBRE_2", "peña grande"},
                         {"CODIGO1", "99000000"}};
  EXPECT_EQ(filas[0], esperada);
}

TEST_F(GuardaViasTest, ProvinceAndPostcodeArePaddedWithZeros) {
  escribeCalles({});
  abre();
  modo(3);
  elige("BARCELONA", "SANT ANDREU DE LA BARCA");  // province 8, postcode 8740
  rejilla({{"CL", "MAJOR"}});
  dialogo->GuardaVias();
  const std::vector<Fila> filas = calles();
  ASSERT_EQ(filas.size(), 1u);
  EXPECT_EQ(filas[0]["PROVINCIA"], "08");
  EXPECT_EQ(filas[0]["CODPOSTAL"], "08740");
  EXPECT_EQ(filas[0]["COD_INE"], "08245");
  EXPECT_EQ(filas[0]["MUNICIPI"], "SANT ANDREU DE LA BARCA");
}

TEST_F(GuardaViasTest, StoredRowsReadTheSameWithAnotherDbaseReader) {
  escribeCalles({calleImportada("ROSALES", "CL", "28901", "GETAFE", "28065", "41")});
  abre();
  modo(1);
  elige("MADRID", "GETAFE");
  rejilla({{"CL", "ÁLAMOS", "28902", "1", "31", "2", "40"},
           {"pz", "Ñandú", "28903", "0", "0", "0", "0"},
           {"AV", "CONSTITUCIÓN", "28901", "33", "97", "42", "120"}});
  dialogo->GuardaVias();
  const std::vector<Fila> nuestras = calles();
  ASSERT_EQ(nuestras.size(), 4u);
  std::string error;
  const std::vector<Fila> suyas = leeConDbfread(rutaCalles(), error);
  ASSERT_TRUE(error.empty()) << error;
  EXPECT_EQ(suyas, nuestras);
  EXPECT_EQ(columna(suyas, "CODIGO1"), QStringList({"41", "42", "43", "44"}));
  EXPECT_EQ(columna(suyas, "VIA"), QStringList({"ROSALES", "ÁLAMOS", "ÑANDÚ", "CONSTITUCIÓN"}));
  EXPECT_EQ(columna(suyas, "NOMBRE_2"), QStringList({"rosales", "álamos", "ñandú", "constitución"}));
}

TEST_F(GuardaViasTest, ModeOneTakesPostcodeAndNumbersFromTheGrid) {
  escribeCalles({});
  abre();
  modo(1);
  elige("MADRID", "GETAFE");
  rejilla({{"CL", "ROSALES", "28902", "3", "15", "4", "20"}, {"CL", "SAUCES", "28903", "0", "0", "0", "0"}});
  dialogo->GuardaVias();
  const std::vector<Fila> filas = calles();
  ASSERT_EQ(filas.size(), 2u);
  EXPECT_EQ(filas[0]["CODPOSTAL"], "28902");
  EXPECT_EQ(QStringList({filas[0]["IMPAR_INI"], filas[0]["IMPAR_FIN"], filas[0]["PAR_INI"], filas[0]["PAR_FIN"]}),
            QStringList({"3", "15", "4", "20"}));
  EXPECT_EQ(filas[0]["CAPITAL"], "9");
  // No numbers at all: the whole street.
  EXPECT_EQ(filas[1]["CODPOSTAL"], "28903");
  EXPECT_EQ(QStringList({filas[1]["IMPAR_INI"], filas[1]["IMPAR_FIN"], filas[1]["PAR_INI"], filas[1]["PAR_FIN"]}),
            QStringList({"1", "9999", "2", "9998"}));
  EXPECT_EQ(filas[1]["CAPITAL"], "9");
}

TEST_F(GuardaViasTest, ModesTwoAndThreeWriteTheWholeStreetUnderTheMunicipalityPostcode) {
  for (int m : {2, 3}) {
    escribeCalles({});
    abre();
    modo(m);
    elige("MADRID", "SOBRADO");
    // Whatever the other columns hold, these modes do not read them.
    rejilla({{"CL", "ROSALES", "28902", "3", "15", "4", "20"}});
    dialogo->GuardaVias();
    const std::vector<Fila> filas = calles();
    ASSERT_EQ(filas.size(), 1u) << "modo " << m;
    EXPECT_EQ(filas[0]["CODPOSTAL"], "28140");
    EXPECT_EQ(QStringList({filas[0]["IMPAR_INI"], filas[0]["IMPAR_FIN"], filas[0]["PAR_INI"], filas[0]["PAR_FIN"]}),
              QStringList({"1", "9999", "2", "9998"}));
    dialogo.reset();
    controlador.reset();
  }
}

TEST_F(GuardaViasTest, SecondRunInModeTwoOrThreeStoresNothing) {
  escribeCalles({});
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  rejilla({{"CL", "NUEVA"}, {"AV", "DEL RIO"}, {"PZ", "MAYOR"}});
  dialogo->GuardaVias();
  ASSERT_EQ(dialogo->nViasImportadas, 3);
  dialogo->GuardaVias();
  EXPECT_EQ(dialogo->nViasImportadas, 0);
  modo(3);
  dialogo->GuardaVias();
  EXPECT_EQ(dialogo->nViasImportadas, 0);
  EXPECT_EQ(calles().size(), 3u);
  EXPECT_EQ(mensajes.textos(TipoMensaje::Info), QStringList({resumen(3), resumen(0), resumen(0)}));
}

TEST_F(GuardaViasTest, SecondRunInModeOneStoresNothingWhenTheNumbersMatch) {
  escribeCalles({});
  abre();
  modo(1);
  elige("MADRID", "GETAFE");
  // Two stretches of one street and postcode, and a street without numbers.
  rejilla({{"CL", "ROSALES", "28901", "1", "21", "2", "30"},
           {"CL", "ROSALES", "28901", "23", "99", "32", "100"},
           {"AV", "SAUCES", "28902", "0", "0", "0", "0"}});
  dialogo->GuardaVias();
  ASSERT_EQ(dialogo->nViasImportadas, 3);
  dialogo->GuardaVias();
  EXPECT_EQ(dialogo->nViasImportadas, 0);
  EXPECT_EQ(calles().size(), 3u);
}

TEST_F(GuardaViasTest, StretchWithOtherNumbersIsAdded) {
  escribeCalles({});
  abre();
  modo(1);
  elige("MADRID", "GETAFE");
  rejilla({{"CL", "ROSALES", "28901", "1", "21", "2", "30"}});
  dialogo->GuardaVias();
  rejilla({{"CL", "ROSALES", "28901", "1", "21", "2", "32"}});
  dialogo->GuardaVias();
  EXPECT_EQ(dialogo->nViasImportadas, 1);
  EXPECT_EQ(columna(calles(), "PAR_FIN"), QStringList({"30", "32"}));
}

TEST_F(GuardaViasTest, StoredDefaultNumbersMatchIncomingZeros) {
  escribeCalles({calleImportada("ROSALES", "CL", "28901", "GETAFE", "28065", "7")});
  abre();
  modo(1);
  elige("MADRID", "GETAFE");
  rejilla({{"CL", "ROSALES", "28901", "0", "0", "0", "0"}, {"cl", "rosales", "28901", "1", "9999", "2", "9998"}});
  dialogo->GuardaVias();
  EXPECT_EQ(dialogo->nViasImportadas, 0);
  EXPECT_EQ(calles().size(), 1u);
}

TEST_F(GuardaViasTest, IncomingZerosDoNotMatchAStretchWithItsOwnNumbers) {
  escribeCalles({});
  abre();
  modo(1);
  elige("MADRID", "GETAFE");
  rejilla({{"CL", "ROSALES", "28901", "1", "21", "2", "30"}});
  dialogo->GuardaVias();
  rejilla({{"CL", "ROSALES", "28901", "0", "0", "0", "0"}});
  dialogo->GuardaVias();
  EXPECT_EQ(dialogo->nViasImportadas, 1);
  EXPECT_EQ(columna(calles(), "IMPAR_FIN"), QStringList({"21", "9999"}));
}

TEST_F(GuardaViasTest, StreetStoredUnderAnotherPostcodeIsAddedUnderTheNewOne) {
  escribeCalles({calleImportada("ROSALES", "CL", "28901", "GETAFE", "28065", "7")});
  abre();
  modo(1);
  elige("MADRID", "GETAFE");
  rejilla({{"CL", "ROSALES", "28902", "0", "0", "0", "0"}});
  dialogo->GuardaVias();
  EXPECT_EQ(dialogo->nViasImportadas, 1);
  EXPECT_EQ(columna(calles(), "CODPOSTAL"), QStringList({"28901", "28902"}));
  EXPECT_EQ(columna(calles(), "VIA"), QStringList({"ROSALES", "ROSALES"}));
}

TEST_F(GuardaViasTest, StreetStoredWithAnotherTypeIsAdded) {
  escribeCalles({calleImportada("ROSALES", "CL", "28140", "SOBRADO", "28140", "7")});
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  rejilla({{"AV", "ROSALES"}});
  dialogo->GuardaVias();
  EXPECT_EQ(columna(calles(), "TIPO_VIA"), QStringList({"CL", "AV"}));
}

TEST_F(GuardaViasTest, DuplicateTestWalksOnToTheEndOfTheStreet) {
  escribeCalles({calleImportada("ROSALES", "CL", "28140", "SOBRADO", "28140", "1"),
                 calleImportada("ROSALES", "CL", "28141", "SOBRADO", "28140", "2"),
                 calleImportada("SAUCES", "CL", "28140", "SOBRADO", "28140", "3")});
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  rejilla({{"CL", "ROSALES"}});
  dialogo->GuardaVias();
  EXPECT_EQ(dialogo->nViasImportadas, 0);
  // The match was the first stretch; the walk stopped at the next street.
  EXPECT_EQ(controlador->oDataModule->TPostalVIA->AsString(), "SAUCES");
}

TEST_F(GuardaViasTest, FirstCodeOfAnEmptyTableIs99000000) {
  escribeCalles({});
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  rejilla({{"CL", "UNO"}, {"CL", "DOS"}, {"CL", "TRES"}});
  dialogo->GuardaVias();
  EXPECT_EQ(columna(calles(), "CODIGO1"), QStringList({"99000000", "99000001", "99000002"}));
}

TEST_F(GuardaViasTest, NextCodeFollowsThePhysicallyLastRowWhateverTheNumbering) {
  // Not the highest code, nor the last street in name order.
  escribeCalles({calleImportada("ACACIAS", "CL", "28001", "MADRID", "28079", "500"),
                 calleImportada("ZARZAS", "CL", "28001", "MADRID", "28079", "7"),
                 calleImportada("BREZOS", "CL", "28001", "MADRID", "28079", "120")});
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  rejilla({{"CL", "UNO"}, {"CL", "DOS"}});
  dialogo->GuardaVias();
  EXPECT_EQ(columna(calles(), "CODIGO1"), QStringList({"500", "7", "120", "121", "122"}));
  // Each run starts again from the table's last row.
  rejilla({{"CL", "TRES"}});
  dialogo->GuardaVias();
  EXPECT_EQ(columna(calles(), "CODIGO1").last(), "123");
}

TEST_F(GuardaViasTest, RowWithANonNumericNumberIsCancelledAndTheRunGoesOn) {
  escribeCalles({});
  abre();
  modo(1);
  elige("MADRID", "GETAFE");
  rejilla({{"CL", "UNO", "28901", "1", "9", "2", "8"},
           {"CL", "DOS", "28901", "1", "X", "2", "8"},
           {"CL", "TRES", "28901", "1", "9", "2", "8"}});
  dialogo->GuardaVias();
  const std::vector<Fila> filas = calles();
  EXPECT_EQ(columna(filas, "VIA"), QStringList({"UNO", "TRES"}));
  // The code moves on only with a stored row.
  EXPECT_EQ(columna(filas, "CODIGO1"), QStringList({"99000000", "99000001"}));
  EXPECT_EQ(mensajes.textos(TipoMensaje::Info), QStringList({resumen(2)}));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Error), 0);
  EXPECT_EQ(controlador->oDataModule->TPostal->State(), dsBrowse);
}

TEST_F(GuardaViasTest, EmptyNumberCellIsZeroAndOnlyOtherTextFailsItsRow) {
  escribeCalles({});
  abre();
  modo(1);
  elige("MADRID", "GETAFE");
  rejilla({{"CL", "UNO", "28901", "1", "15", "", "  "},
           {"CL", "DOS", "28901", " ", "", "2", "X"},
           {"CL", "TRES", "28901", "", "", "", ""}});
  dialogo->GuardaVias();
  const std::vector<Fila> filas = calles();
  EXPECT_EQ(columna(filas, "VIA"), QStringList({"UNO", "TRES"}));
  EXPECT_EQ(columna(filas, "PAR_INI"), QStringList({"0", "2"}));
  EXPECT_EQ(columna(filas, "IMPAR_FIN"), QStringList({"15", "9999"}));
}

TEST_F(GuardaViasTest, RowTheTableRefusesIsCancelledAndTheRunGoesOn) {
  escribeCalles({});
  abre();
  modo(1);
  elige("MADRID", "GETAFE");
  rejilla({{"CL", "UNO", "28901", "1", "9", "2", "8"},
           {"CL", "EURO €", "28901", "1", "9", "2", "8"},      // no € in code page 850
           {"CL", "ANCHA", "28901", "1", "123457", "2", "8"},  // wider than the field
           {"CL", "CUATRO", "28901", "1", "9", "2", "8"}});
  dialogo->GuardaVias();
  const std::vector<Fila> nuestras = calles();
  EXPECT_EQ(columna(nuestras, "VIA"), QStringList({"UNO", "CUATRO"}));
  EXPECT_EQ(columna(nuestras, "CODIGO1"), QStringList({"99000000", "99000001"}));
  EXPECT_EQ(mensajes.textos(TipoMensaje::Info), QStringList({resumen(2)}));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Error), 0);
  std::string error;
  EXPECT_EQ(leeConDbfread(rutaCalles(), error), nuestras) << error;
}

TEST_F(GuardaViasTest, FailureBeforeTheRowsClosesTheWaitWindowWithoutTheFinalMessage) {
  escribeCalles({calleImportada("ACACIAS", "CL", "28001", "MADRID", "28079", "A-12")});
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  rejilla({{"CL", "UNO"}});
  EXPECT_THROW(dialogo->GuardaVias(), dbase::Error);
  EXPECT_EQ(dialogo->oFormMensaje, nullptr);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Muestra), 1);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), 1);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Info), 0);
  EXPECT_EQ(calles().size(), 1u);
}

TEST_F(GuardaViasTest, WaitWindowTellsTheProgressAndClosesAtTheEnd) {
  escribeCalles({});
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  rejilla(kDosCalles);
  dialogo->GuardaVias();
  EXPECT_EQ(mensajes.textos(TipoMensaje::Muestra), QStringList({"Importando las calles de SOBRADO"}));
  EXPECT_EQ(mensajes.textos(TipoMensaje::Cambia),
            QStringList({"Importando las calles... 1 de 2 de SOBRADO", "Importando las calles... 2 de 2 de SOBRADO"}));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), 1);
  EXPECT_EQ(dialogo->oFormMensaje, nullptr);
  // The window closes before the count is shown.
  EXPECT_EQ(mensajes.ultimo().tipo, TipoMensaje::Info);
}

TEST_F(GuardaViasTest, WaitWindowAlreadyOpenIsUsedAndClosed) {
  escribeCalles({});
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  rejilla(kDosCalles);
  dialogo->oFormMensaje = MuestraMensaje("Otra tarea", dialogo.get());
  mensajes.limpia();
  dialogo->GuardaVias();
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Muestra), 0);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cambia), 2);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), 1);
  EXPECT_EQ(dialogo->oFormMensaje, nullptr);
}

TEST_F(GuardaViasTest, ProvinceRunKeepsTheWaitWindowOpenAndShowsNoMessage) {
  escribeCalles({});
  abre();
  modo(3);
  elige("MADRID", "SOBRADO");
  rejilla(kDosCalles);
  dialogo->bPorProvincias = true;
  dialogo->GuardaVias();
  EXPECT_EQ(dialogo->nViasImportadas, 2);
  ASSERT_NE(dialogo->oFormMensaje, nullptr);
  EXPECT_TRUE(TVentanaEspera::existe(dialogo->oFormMensaje));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), 0);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Info), 0);
  // The next municipality of the run goes on in the same window.
  mensajes.limpia();
  dialogo->CBMunicipiosZelmor->setCurrentIndex(dialogo->Indice(dialogo->CBMunicipiosZelmor, "ARAVACA"));
  rejilla({{"CL", "MAJOR"}});
  dialogo->GuardaVias();
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Muestra), 0);
  EXPECT_EQ(mensajes.textos(TipoMensaje::Cambia), QStringList({"Importando las calles... 1 de 1 de ARAVACA"}));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Info), 0);
  EXPECT_EQ(calles().size(), 3u);
}

// Rows stored earlier (say by mode 1 from a postcode file), some without a
// street type.
class RevisionTest : public GuardaViasTest, public ::testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    escribeCalles({calleImportada("ROSALES", "", "28902", "GETAFE", "28065", "1"),
                   calleImportada("OLMOS", "", "28001", "MADRID", "28079", "2"),
                   calleImportada("PINOS", "AV", "28901", "GETAFE", "28065", "3"),
                   calleImportada("ACACIAS", "", "28903", "GETAFE", "28065", "4")});
    abre();
    modo(GetParam());
    elige("MADRID", "GETAFE");
    rejilla({{"cl", "ROSALES"}, {"CL", "OLMOS"}, {"CL", "PINOS"}, {"pz", "acacias"}, {"CL", "NO ESTA"}});
  }
};

TEST_P(RevisionTest, SeveralPostcodesFillEmptyTypesOfTheMunicipalityAndAddNoRows) {
  dialogo->GuardaVias();
  const std::vector<Fila> filas = calles();
  EXPECT_EQ(columna(filas, "VIA"), QStringList({"ROSALES", "OLMOS", "PINOS", "ACACIAS"}));
  // OLMOS is under a postcode of another municipality; PINOS had its type.
  EXPECT_EQ(columna(filas, "TIPO_VIA"), QStringList({"CL", "", "AV", "PZ"}));
  EXPECT_EQ(dialogo->nViasImportadas, 2);
  ASSERT_EQ(mensajes.cuenta(TipoMensaje::Info), 1);
  EXPECT_EQ(mensajes.deTipo(TipoMensaje::Info)[0].texto, resumen(2));
  EXPECT_EQ(mensajes.deTipo(TipoMensaje::Info)[0].titulo, "Importación finalizada");
  EXPECT_EQ(mensajes.textos(TipoMensaje::Muestra), QStringList({"Importando las calles de GETAFE"}));
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cambia), 5);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), 1);
  EXPECT_EQ(dialogo->oFormMensaje, nullptr);
}

TEST_P(RevisionTest, DoesNothingDuringAProvinceRun) {
  dialogo->bPorProvincias = true;
  dialogo->GuardaVias();
  EXPECT_EQ(columna(calles(), "TIPO_VIA"), QStringList({"", "", "AV", ""}));
  EXPECT_EQ(dialogo->nViasImportadas, 0);
  EXPECT_TRUE(mensajes.vacio());
}

INSTANTIATE_TEST_SUITE_P(Modos, RevisionTest, ::testing::Values(2, 3),
                         [](const ::testing::TestParamInfo<int>& info) { return "Modo" + std::to_string(info.param); });

TEST_F(GuardaViasTest, ReviewOfTheMunicipalityAtIndexZeroDoesNothing) {
  escribeCalles({calleImportada("ROSALES", "", "28801", "ALCALA DE HENARES", "28005", "1")});
  abre();
  modo(2);
  elige("MADRID", "ALCALA DE HENARES");
  ASSERT_EQ(dialogo->CBMunicipiosZelmor->currentIndex(), 0);
  rejilla({{"CL", "ROSALES"}});
  dialogo->GuardaVias();
  EXPECT_EQ(columna(calles(), "TIPO_VIA"), QStringList({""}));
  EXPECT_EQ(dialogo->nViasImportadas, 0);
  EXPECT_TRUE(mensajes.vacio());
}

TEST_F(GuardaViasTest, UniquePostcodeCheckFollowsTheChosenProvince) {
  abre();
  elige("MADRID", "SOBRADO");
  EXPECT_TRUE(dialogo->CompruebaMunicipioConUnicoCP());
  elige("BARCELONA", "SOBRADO");  // the same name, several postcodes there
  EXPECT_FALSE(dialogo->CompruebaMunicipioConUnicoCP());
  elige("MADRID", "GETAFE");
  EXPECT_FALSE(dialogo->CompruebaMunicipioConUnicoCP());
  dialogo->CBMunicipiosZelmor->addItem("NO EXISTE", 28999);
  dialogo->CBMunicipiosZelmor->setCurrentIndex(dialogo->CBMunicipiosZelmor->count() - 1);
  EXPECT_FALSE(dialogo->CompruebaMunicipioConUnicoCP());
  dialogo->CBMunicipiosZelmor->setCurrentIndex(-1);
  EXPECT_FALSE(dialogo->CompruebaMunicipioConUnicoCP());
}

TEST_F(GuardaViasTest, UniquePostcodeCheckIsDecidedByTheFirstRowOfTheProvince) {
  anadeFilas(dir.file("MUNICIPI.DBF"), {{"08300", "08300", "N", "N", "DOBLE", "08", "0300", "300", "F"},
                                        {"28300", "28300", "S", "N", "DOBLE", "28", "0300", "300", "F"},
                                        {"28300", "28301", "N", "N", "DOBLE", "28", "0300", "300", "F"}});
  abre();
  elige("MADRID", "DOBLE");
  EXPECT_TRUE(dialogo->CompruebaMunicipioConUnicoCP()) << "the row of another province is passed over";
  elige("BARCELONA", "DOBLE");
  EXPECT_FALSE(dialogo->CompruebaMunicipioConUnicoCP());
}

TEST_F(GuardaViasTest, UniquePostcodeCheckTakesTheNameAsTheComboHoldsIt) {
  abre();
  elige("MADRID", "SOBRADO");
  dialogo->CBMunicipiosZelmor->addItem("sobrado", 28140);
  dialogo->CBMunicipiosZelmor->setCurrentIndex(dialogo->CBMunicipiosZelmor->count() - 1);
  EXPECT_FALSE(dialogo->CompruebaMunicipioConUnicoCP());
}

TEST_F(GuardaViasTest, ReviewTakesEveryPostcodeOfTheNameInTheChosenProvinceOnly) {
  // SOBRADO of BARCELONA has 08901 and 08902; 28140 is SOBRADO of MADRID's.
  escribeCalles({calleImportada("ROSALES", "", "08901", "SOBRADO", "08900", "1", "08"),
                 calleImportada("OLMOS", "", "08902", "SOBRADO", "08900", "2", "08"),
                 calleImportada("PINOS", "", "28140", "SOBRADO", "08900", "3", "08")});
  abre();
  modo(2);
  elige("BARCELONA", "SOBRADO");
  ASSERT_GT(dialogo->CBMunicipiosZelmor->currentIndex(), 0);
  // Typed as the combo shows it, in lower case: the list upper-cases it.
  dialogo->CBMunicipiosZelmor->setItemText(dialogo->CBMunicipiosZelmor->currentIndex(), "sobrado");
  rejilla({{"CL", "ROSALES"}, {"AV", "OLMOS"}, {"PZ", "PINOS"}});
  dialogo->GuardaVias();
  EXPECT_EQ(columna(calles(), "TIPO_VIA"), QStringList({"CL", "AV", ""}));
  EXPECT_EQ(dialogo->nViasImportadas, 2);
}

TEST_F(GuardaViasTest, StreetsGoToTheProvincesStreetFileWhereTheLookUpFindsThem) {
  testsupport::escribeJuegoDeReferencia(dir.path());  // with a "Postales" folder, one file per province
  escribeCalles({});
  abre();
  modo(2);
  elige("MADRID", "SOBRADO");
  rejilla(kDosCalles);
  const size_t antes = leeTabla(dir.file("Postales/POSTAL28.DBF")).size();
  dialogo->GuardaVias();
  EXPECT_TRUE(controlador->oDataModule->TPostal->FilePath().endsWith("/Postales/POSTAL28.DBF"))
      << controlador->oDataModule->TPostal->FilePath().toStdString();
  EXPECT_EQ(leeTabla(dir.file("Postales/POSTAL28.DBF")).size(), antes + 2);
  EXPECT_TRUE(calles().empty()) << "nothing in the folder's POSTAL.DBF";
}

TEST_F(GuardaViasTest, DialogWithoutControllerRefusesToStore) {
  TFImportarVias soloServicio(nullptr, nullptr);
  soloServicio.SGVias->SetRowCount(2);
  soloServicio.SGVias->SetCells(1, 1, "NUEVA");
  EXPECT_THROW(soloServicio.GuardaVias(), std::logic_error);
  EXPECT_EQ(soloServicio.oFormMensaje, nullptr);
  EXPECT_TRUE(mensajes.vacio());
}

// The command line runs the same storing path without a window.
class OrdenImportarTest : public GuardaViasTest {
 protected:
  void SetUp() override {
    escribeCalles({});
    testsupport::writeFile(dir.file("vias.xml"),
                           respuestaDeVias({{"CL", "NUEVA"}, {"AV", "DEL RIO"}, {"PZ", "ÑANDÚ"}}).toStdString());
  }
  Ejecucion importa(const QString& provincia, const QString& municipio, const QStringList& mas = {}) {
    return ejecutaImportar(QStringList{"--alias", QString::fromStdString(dir.path()), "--xml",
                                       QString::fromStdString(dir.file("vias.xml")), "--provincia", provincia,
                                       "--municipio", municipio} +
                           mas);
  }
};

TEST_F(OrdenImportarTest, StoresTheAnswerAndPrintsHowManyAsCsv) {
  const Ejecucion e = importa("Madrid", "Sobrado");
  EXPECT_EQ(e.salida, 0) << e.err;
  EXPECT_EQ(e.out, "importadas\n3\n");
  EXPECT_NE(e.err.find("Importación finalizada: " + resumen(3).toStdString()), std::string::npos) << e.err;
  const std::vector<Fila> filas = calles();
  EXPECT_EQ(columna(filas, "VIA"), QStringList({"NUEVA", "DEL RIO", "ÑANDÚ"}));
  EXPECT_EQ(columna(filas, "CODPOSTAL"), QStringList({"28140", "28140", "28140"}));
  EXPECT_EQ(columna(filas, "CODIGO1"), QStringList({"99000000", "99000001", "99000002"}));
  // Run again: nothing new.
  EXPECT_EQ(importa("MADRID", "SOBRADO", {"--modo", "3"}).out, "importadas\n0\n");
  EXPECT_EQ(calles().size(), 3u);
}

TEST_F(OrdenImportarTest, MunicipalityWithSeveralPostcodesOnlyGetsTypesFilled) {
  escribeCalles({calleImportada("NUEVA", "", "28902", "GETAFE", "28065", "1")});
  const Ejecucion e = importa("MADRID", "GETAFE");
  EXPECT_EQ(e.salida, 0) << e.err;
  EXPECT_EQ(e.out, "importadas\n1\n");
  EXPECT_EQ(columna(calles(), "TIPO_VIA"), QStringList({"CL"}));
}

TEST_F(OrdenImportarTest, UnknownProvinceOrMunicipalityIsAnError) {
  Ejecucion e = importa("NARNIA", "SOBRADO");
  EXPECT_EQ(e.salida, 2);
  EXPECT_NE(e.err.find("provincia «NARNIA»"), std::string::npos) << e.err;
  e = importa("MADRID", "VILLA NUEVA");
  EXPECT_EQ(e.salida, 2);
  EXPECT_NE(e.err.find("municipio «VILLA NUEVA»"), std::string::npos) << e.err;
  EXPECT_TRUE(e.out.empty());
  EXPECT_TRUE(calles().empty());
}

TEST_F(OrdenImportarTest, BadOptionsOrAnswerAreErrors) {
  EXPECT_EQ(importa("MADRID", "SOBRADO", {"--modo", "1"}).salida, 2);
  EXPECT_EQ(ejecutaImportar({"--alias", QString::fromStdString(dir.path()), "--provincia", "MADRID"}).salida, 2);
  testsupport::writeFile(dir.file("vias.xml"), "<html>no</html>");
  EXPECT_EQ(importa("MADRID", "SOBRADO").salida, 2);
  EXPECT_TRUE(calles().empty());
}

TEST_F(OrdenImportarTest, AnswerWithoutStreetsStoresNothing) {
  testsupport::writeFile(dir.file("vias.xml"), respuestaDeVias({}).toStdString());
  const Ejecucion e = importa("MADRID", "SOBRADO");
  EXPECT_EQ(e.salida, 0) << e.err;
  EXPECT_EQ(e.out, "importadas\n0\n");
  EXPECT_TRUE(calles().empty());
}
