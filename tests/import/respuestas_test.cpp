// The walk of the service's answers (CargaProvincias, CargaMunicipios,
// CargaVias) on documents written here, the guards of the XML document
// against hostile answers, and the names of saved answers.
#include <QComboBox>
#include <QFile>
#include <QLabel>
#include <QSignalSpy>
#include <QTableWidget>
#include <gtest/gtest.h>

#include "import/ImportarVias.h"
#include "import/ImportarViasServicio.h"
#include "platform/TStringGrid.h"
#include "platform/TXMLDocument.h"
#include "services/Rmensaje.h"
#include "servicio_comun.h"
#include "support/temp_dir.h"

using testsupport::RespuestaSoap;

namespace {

QString Provincias(const QString& cuenta, int entradas) {
  QString lista;
  for (int i = 0; i < entradas; ++i) lista += QStringLiteral("<prov><cpine>%1</cpine><np>P%1</np></prov>").arg(i);
  return QStringLiteral("<consulta_provinciero><control>%1</control><provinciero>%2</provinciero></consulta_provinciero>")
      .arg(cuenta, lista);
}

QString Calles(int cuenta, const QString& calles) {
  return QStringLiteral("<consulta_callejero><control><cuca>%1</cuca></control><callejero>%2</callejero></consulta_callejero>")
      .arg(cuenta)
      .arg(calles);
}

QString Calle(const QString& tipo, const QString& nombre) {
  return QStringLiteral("<calle><loine><cp>28</cp><cm>79</cm></loine><dir><cv>1</cv><tv>%1</tv><nv>%2</nv></dir></calle>")
      .arg(tipo, nombre);
}

class Respuestas : public ::testing::Test {
 protected:
  void SetUp() override {
    dialogo.LimpiaDatos(false);
  }

  QStringList Elementos(const QComboBox* combo) const {
    QStringList textos;
    for (int i = 0; i < combo->count(); ++i) textos << combo->itemText(i);
    return textos;
  }

  RegistroMensajes mensajes;
  PresentadorMensajesTemporal presentador{&mensajes};
  TFImportarVias dialogo{nullptr, nullptr};
};

TEST_F(Respuestas, ControlWithoutItsCountLoadsNothing) {
  dialogo.CBProvincias->addItem(QStringLiteral("ANTERIOR"));
  dialogo.XML->LoadFromBytes(RespuestaSoap("Provincias", Provincias(QStringLiteral("<otra>3</otra>"), 3)));
  EXPECT_TRUE(dialogo.CargaProvincias());
  EXPECT_EQ(dialogo.CBProvincias->count(), 0) << "the combo is emptied before the walk";
}

TEST_F(Respuestas, CountZeroLoadsNothingAndTheStreetLabelSaysZero) {
  dialogo.XML->LoadFromBytes(RespuestaSoap("Callejero", Calles(0, Calle("CL", "MAYOR"))));
  EXPECT_TRUE(dialogo.CargaVias());
  EXPECT_EQ(dialogo.LMensaje_->text(), QStringLiteral("Se han encontrado 0 vías"));
  EXPECT_EQ(dialogo.SGVias->RowCount(), 2);
  EXPECT_EQ(dialogo.SGVias->Cells(1, 1), QString());
}

TEST_F(Respuestas, StreetsWithoutCountElementSayZero) {
  dialogo.XML->LoadFromBytes(RespuestaSoap(
      "Callejero", QStringLiteral("<consulta_callejero><control/><callejero>%1</callejero></consulta_callejero>")
                       .arg(Calle("CL", "MAYOR"))));
  EXPECT_TRUE(dialogo.CargaVias());
  EXPECT_EQ(dialogo.LMensaje_->text(), QStringLiteral("Se han encontrado 0 vías"));
  EXPECT_EQ(dialogo.SGVias->Cells(1, 1), QString());
}

TEST_F(Respuestas, CountLargerThanTheListFailsSilentlyKeepingWhatCameBefore) {
  dialogo.oFormMensaje = MuestraMensaje(QStringLiteral("Importando"), &dialogo);
  dialogo.XML->LoadFromBytes(RespuestaSoap("Provincias", Provincias(QStringLiteral("<cuprov>5</cuprov>"), 3)));
  EXPECT_FALSE(dialogo.CargaProvincias());
  EXPECT_EQ(Elementos(dialogo.CBProvincias), (QStringList{"P0", "P1", "P2"}));
  EXPECT_EQ(dialogo.oFormMensaje, nullptr) << "the wait window is closed";
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Cierra), 1);
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Error), 0) << "no message";
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Info), 0);
}

TEST_F(Respuestas, SmallerCountLoadsOnlyThatMany) {
  dialogo.XML->LoadFromBytes(RespuestaSoap("Provincias", Provincias(QStringLiteral("<cuprov>2</cuprov>"), 4)));
  EXPECT_TRUE(dialogo.CargaProvincias());
  EXPECT_EQ(Elementos(dialogo.CBProvincias), (QStringList{"P0", "P1"}));
}

TEST_F(Respuestas, CountThatIsNotANumberIsALoaderFailure) {
  dialogo.XML->LoadFromBytes(RespuestaSoap("Provincias", Provincias(QStringLiteral("<cuprov>muchas</cuprov>"), 2)));
  EXPECT_FALSE(dialogo.CargaProvincias());
  EXPECT_EQ(dialogo.CBProvincias->count(), 0);
}

TEST_F(Respuestas, MunicipalitiesComeFromTheirNames) {
  dialogo.XML->LoadFromBytes(RespuestaSoap(
      "Municipios",
      QStringLiteral("<consulta_municipiero><control><cumun>2</cumun></control><municipiero>"
                     "<muni><nm>ALMAZORA / ALMASSORA</nm><locat><cd>12</cd><cmc>77</cmc></locat></muni>"
                     "<muni><nm>L'ALCORA</nm></muni></municipiero></consulta_municipiero>")));
  EXPECT_TRUE(dialogo.CargaMunicipios());
  EXPECT_EQ(Elementos(dialogo.CBMunicipios), (QStringList{"ALMAZORA / ALMASSORA", "L'ALCORA"}));
}

TEST_F(Respuestas, FirstStreetFillsRowOneAndEachLaterOneANewRow) {
  dialogo.XML->LoadFromBytes(
      RespuestaSoap("Callejero", Calles(3, Calle(" CL ", " MAYOR ") + Calle("AV", "PAZ (LA)") + Calle("PZ", "SOL"))));
  EXPECT_TRUE(dialogo.CargaVias());
  TStringGrid* g = dialogo.SGVias;
  ASSERT_EQ(g->RowCount(), 4);
  EXPECT_EQ(g->Cells(0, 1), QStringLiteral("CL")) << "trimmed";
  EXPECT_EQ(g->Cells(1, 1), QStringLiteral("MAYOR"));
  EXPECT_EQ(g->Cells(1, 2), QStringLiteral("PAZ (LA)"));
  EXPECT_EQ(g->Cells(0, 3), QStringLiteral("PZ"));
  EXPECT_EQ(g->Row(), 3) << "the current row is the last one";
  EXPECT_EQ(dialogo.LMensaje_->text(), QStringLiteral("Se han encontrado 3 vías"));
  EXPECT_TRUE(g->updatesEnabled()) << "painting is on again";
}

TEST_F(Respuestas, StreetNameOfFiftyCharactersIsCutToFortyFive) {
  const QString nombre = QStringLiteral("AVENIDA DE LOS INGENIEROS DE CAMINOS CANALES PUE");
  ASSERT_EQ(nombre.size(), 48);
  const QString cincuenta = nombre + QStringLiteral("RT");
  dialogo.XML->LoadFromBytes(RespuestaSoap("Callejero", Calles(1, Calle("AV", cincuenta))));
  EXPECT_TRUE(dialogo.CargaVias());
  EXPECT_EQ(dialogo.SGVias->Cells(1, 1), cincuenta.left(45));
  EXPECT_EQ(dialogo.SGVias->Cells(1, 1).size(), 45);
}

TEST_F(Respuestas, StreetWithoutDirIsSkippedAndMissingTypeIsEmpty) {
  const QString sinDir = QStringLiteral("<calle><loine><cp>28</cp><cm>79</cm></loine></calle>");
  const QString sinTipo = QStringLiteral("<calle><dir><cv>2</cv><nv>LUNA</nv></dir></calle>");
  dialogo.XML->LoadFromBytes(RespuestaSoap("Callejero", Calles(3, sinDir + sinTipo + Calle("CL", "SOL"))));
  EXPECT_TRUE(dialogo.CargaVias());
  ASSERT_EQ(dialogo.SGVias->RowCount(), 3);
  EXPECT_EQ(dialogo.SGVias->Cells(0, 1), QString());
  EXPECT_EQ(dialogo.SGVias->Cells(1, 1), QStringLiteral("LUNA"));
  EXPECT_EQ(dialogo.SGVias->Cells(1, 2), QStringLiteral("SOL"));
}

TEST_F(Respuestas, AnswerThatIsNotASoapEnvelopeIsALoaderFailure) {
  dialogo.XML->LoadFromBytes("<html><body>Sistema no disponible. Inténtelo más tarde.</body></html>");
  EXPECT_FALSE(dialogo.CargaProvincias());
  EXPECT_EQ(mensajes.cuenta(TipoMensaje::Error), 0);
}

TEST(DocumentoXML, EmptyAnswerIsRefused) {
  TXMLDocument documento;
  try {
    documento.LoadFromBytes(QByteArray());
    FAIL() << "an empty answer loaded";
  } catch (const ErrorDocumentoXML& e) {
    EXPECT_NE(std::string(e.what()).find("vacía"), std::string::npos) << e.what();
  }
  EXPECT_FALSE(documento.HasChildNodes());
}

TEST(DocumentoXML, TruncatedAnswerNamesWhereItBreaks) {
  TXMLDocument documento;
  const QByteArray completa = RespuestaSoap("Provincias", Provincias(QStringLiteral("<cuprov>3</cuprov>"), 3));
  try {
    documento.LoadFromBytes(completa.left(completa.size() / 2));
    FAIL() << "a truncated answer loaded";
  } catch (const ErrorDocumentoXML& e) {
    EXPECT_NE(std::string(e.what()).find("no es XML bien formado (línea"), std::string::npos) << e.what();
  }
}

TEST(DocumentoXML, EntityExpansionBombIsRefusedBeforeExpanding) {
  QByteArray bomba = "<?xml version=\"1.0\"?><!DOCTYPE r [<!ENTITY a \"aaaaaaaaaa\">";
  for (int i = 1; i < 10; ++i) {
    bomba += "<!ENTITY " + QByteArray(1, char('a' + i)) + " \"";
    for (int j = 0; j < 10; ++j) bomba += "&" + QByteArray(1, char('a' + i - 1)) + ";";
    bomba += "\">";
  }
  bomba += "]><r>&j;</r>";
  TXMLDocument documento;
  try {
    documento.LoadFromBytes(bomba);
    FAIL() << "the bomb loaded";
  } catch (const ErrorDocumentoXML& e) {
    EXPECT_NE(std::string(e.what()).find("DOCTYPE"), std::string::npos) << e.what();
  }
}

TEST(DocumentoXML, ExternalEntityIsNeverRead) {
  TXMLDocument documento;
  EXPECT_THROW(documento.LoadFromBytes("<?xml version=\"1.0\"?><!DOCTYPE r [<!ENTITY x SYSTEM "
                                       "\"file:///etc/passwd\">]><r><np>&x;</np></r>"),
               ErrorDocumentoXML);
  EXPECT_FALSE(documento.HasChildNodes());
}

TEST(DocumentoXML, NulCharacterIsNotWellFormed) {
  TXMLDocument documento;
  QByteArray texto = "<r><nm>A";
  texto += '\0';
  texto += "B</nm></r>";
  EXPECT_THROW(documento.LoadFromBytes(texto), ErrorDocumentoXML);
}

TEST(DocumentoXML, SavesTheBytesAsReceived) {
  testsupport::TempDir carpeta;
  const QByteArray bytes = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<r>\r\n  <np>A CORU\xC3\x91" "A</np>\r\n</r>";
  TXMLDocument documento;
  documento.LoadFromBytes(bytes);
  const QString ruta = QString::fromStdString(carpeta.file("copia.xml"));
  documento.SaveToFile(ruta);
  EXPECT_EQ(QByteArray::fromStdString(testsupport::readFile(ruta.toStdString())), bytes);
  EXPECT_EQ(documento.Documento().documentElement().text().trimmed(), QStringLiteral("A CORUÑA"));
}

TEST(DocumentoXML, FileLargerThanAnyAnswerIsRefusedUnread) {
  testsupport::TempDir carpeta;
  const QString ruta = QString::fromStdString(carpeta.file("grande.xml"));
  QFile fichero(ruta);
  ASSERT_TRUE(fichero.open(QIODevice::WriteOnly));
  ASSERT_TRUE(fichero.resize(TXMLDocument::kTamanoMaximo + 1));  // sparse: no disk used
  fichero.close();
  TXMLDocument documento;
  EXPECT_THROW(documento.LoadFromFile(ruta), ErrorDocumentoXML);
}

TEST(NombreDeFicheroGuardado, SlashAndBackslashAreWrittenAsBrackets) {
  EXPECT_EQ(NombreDeFicheroGuardado(QStringLiteral("A/B")), QStringLiteral("A()B"));
  EXPECT_EQ(NombreDeFicheroGuardado(QStringLiteral("A\\B")), QStringLiteral("A)(B"));
  EXPECT_EQ(NombreDeFicheroGuardado(QStringLiteral("ORPESA/OROPESA DEL MAR")), QStringLiteral("ORPESA()OROPESA DEL MAR"));
}

TEST(NombreDeFicheroGuardado, PathClimbingBecomesAPlainName) {
  EXPECT_EQ(NombreDeFicheroGuardado(QStringLiteral("../../FUERA")), QStringLiteral("..()..()FUERA"));
  EXPECT_EQ(NombreDeFicheroGuardado(QStringLiteral("..\\..\\FUERA")), QStringLiteral("..)(..)(FUERA"));
}

TEST(NombreDeFicheroGuardado, DotNamesEmptyNamesAndControlCharactersAreRefused) {
  EXPECT_THROW(NombreDeFicheroGuardado(QStringLiteral("..")), std::runtime_error);
  EXPECT_THROW(NombreDeFicheroGuardado(QStringLiteral(".")), std::runtime_error);
  EXPECT_THROW(NombreDeFicheroGuardado(QStringLiteral("  ")), std::runtime_error);
  EXPECT_THROW(NombreDeFicheroGuardado(QString::fromUtf16(u"A\u0000B", 3)), std::runtime_error);
  EXPECT_THROW(NombreDeFicheroGuardado(QStringLiteral("A\tB")), std::runtime_error);
}

}  // namespace

namespace {

TEST_F(Respuestas, LoadedStreetsMakeTheLastRowCurrentOnce) {
  dialogo.XML->LoadFromBytes(
      RespuestaSoap("Callejero", Calles(3, Calle("CL", "MAYOR") + Calle("AV", "PAZ") + Calle("PZ", "SOL"))));
  QSignalSpy cambios(dialogo.SGVias, &QTableWidget::currentCellChanged);
  EXPECT_TRUE(dialogo.CargaVias());
  EXPECT_EQ(dialogo.SGVias->RowCount(), 4);
  EXPECT_EQ(dialogo.SGVias->Row(), 3);
  EXPECT_EQ(cambios.count(), 1) << "once per answer, not once per street";
}

TEST_F(Respuestas, StreetsBeforeAShortListsFaultStillLeaveTheirLastRowCurrent) {
  // The count says 3, the list holds 2: the walk fails after the second.
  dialogo.XML->LoadFromBytes(RespuestaSoap("Callejero", Calles(3, Calle("CL", "MAYOR") + Calle("AV", "PAZ"))));
  EXPECT_FALSE(dialogo.CargaVias());
  EXPECT_EQ(dialogo.SGVias->Cells(1, 2), QStringLiteral("PAZ"));
  EXPECT_EQ(dialogo.SGVias->Row(), 2);
}

}  // namespace
