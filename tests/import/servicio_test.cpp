// The street-directory client against the local simulator over real HTTP on
// loopback: requests as sent, answers as loaded, retries, failures, saved
// answers and hostile answers.
#include <QComboBox>
#include <QDir>
#include <QCoreApplication>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QRegularExpression>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "import/ImportarViasServicio.h"
#include "import/OvcCallejero.h"
#include "platform/THTTPReqResp.h"
#include "platform/TStringGrid.h"
#include "platform/TXMLDocument.h"
#include "servicio_comun.h"
#include "support/referencia.h"

using testsupport::ClienteOvc;
using testsupport::EntornoTemporal;
using testsupport::PeticionOvc;

namespace {

QString Accion(const char* operacion) {
  return QStringLiteral("\"http://tempuri.org/OVCServWeb/OVCCallejero/%1\"").arg(QLatin1String(operacion));
}

QByteArray SobreEsperado(const QByteArray& parametros) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r"
         "<soap:Envelope xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
         "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
         "xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\">\r"
         "  <soap:Body>\r" +
         parametros +
         "  </soap:Body>\r"
         "</soap:Envelope>\r";
}

QByteArray Parametro(const char* nombre, const QByteArray& valor) {
  return QByteArray("    <") + nombre + " xmlns=\"http://www.catastro.meh.es/\">" + valor + "</" + nombre + ">\r";
}

// The count a recorded municipality answer declares.
int CuentaGrabada(const QString& fichero) {
  QFile f(fichero);
  if (!f.open(QIODevice::ReadOnly)) return -1;
  const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("<cumun>(\\d+)</cumun>")).match(f.readAll());
  return m.hasMatch() ? m.captured(1).toInt() : -1;
}

QString Carpeta(const ClienteOvc& c, const QString& relativa) {
  return QString::fromStdString(c.carpeta().path()) + QLatin1Char('/') + relativa;
}

TEST(ServicioOvc, ProvincesLoadFortyEightWithACorunaIntact) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c;
  ASSERT_TRUE(c.dialogo().TraeProvincias(0));
  QComboBox* provincias = c.dialogo().CBProvincias;
  ASSERT_EQ(provincias->count(), 48);
  EXPECT_EQ(provincias->itemText(0), QStringLiteral("A CORUÑA"));
  EXPECT_GE(provincias->findText(QStringLiteral("S.C. TENERIFE")), 0);
  EXPECT_GE(provincias->findText(QStringLiteral("ILLES BALEARS")), 0);
  EXPECT_TRUE(c.mensajes().vacio());
}

TEST(ServicioOvc, TempCallesKeepsTheLastAnswerAsReceived) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c;
  ASSERT_TRUE(c.dialogo().TraeProvincias(0));
  const QString temporal = TFImportarVias::RutaTempCalles();
  EXPECT_EQ(QFileInfo(temporal).absolutePath(), QCoreApplication::applicationDirPath());
  const QByteArray guardado = QByteArray::fromStdString(testsupport::readFile(temporal.toStdString()));
  EXPECT_EQ(guardado, c.dialogo().XML->Bytes());
  EXPECT_TRUE(guardado.contains("<cuprov>48</cuprov>"));
  c.dialogo().FormClose();
  EXPECT_FALSE(QFile::exists(temporal)) << "closing the dialog deletes it";
}

TEST(ServicioOvc, EachRecordedMunicipalityAnswerLoadsItsCount) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c;
  ASSERT_TRUE(c.dialogo().TraeProvincias(0));
  const QStringList provincias = [&] {
    QStringList l;
    for (int i = 0; i < c.dialogo().CBProvincias->count(); ++i) l << c.dialogo().CBProvincias->itemText(i);
    return l;
  }();
  const QDir grabadas(QString::fromStdString(testsupport::sharedDir() + "/ovc/municipios-2017"));
  int total = 0;
  for (const QString& provincia : provincias) {
    c.dialogo().CBProvincias->setCurrentText(provincia);
    ASSERT_TRUE(c.dialogo().TraeMunicipios(0)) << provincia.toStdString();
    QString nombreFichero = provincia;
    nombreFichero.replace(u' ', u'_');
    // Recorded as <code><name>.xml, the code without padding (9BURGOS.xml).
    QStringList ficheros;
    for (const QString& f : grabadas.entryList({QStringLiteral("*.xml")}))
      if (QString(f).remove(QRegularExpression(QStringLiteral("^\\d+"))) == nombreFichero + QStringLiteral(".xml"))
        ficheros << f;
    ASSERT_EQ(ficheros.size(), 1) << provincia.toStdString();
    const int esperada = CuentaGrabada(grabadas.filePath(ficheros[0]));
    EXPECT_EQ(c.dialogo().CBMunicipios->count(), esperada) << provincia.toStdString();
    total += c.dialogo().CBMunicipios->count();
  }
  EXPECT_EQ(total, 7605);
}

TEST(ServicioOvc, RequestsAreBuiltLineByLineWithCarriageReturnsAndSentAsUtf8) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c;
  ClienteOvc::Elige(c.dialogo().CBProvincias, QStringLiteral("A CORUÑA"));
  ASSERT_TRUE(c.dialogo().TraeMunicipios(0));
  EXPECT_GT(c.dialogo().CBMunicipios->count(), 90);
  ClienteOvc::Elige(c.dialogo().CBMunicipios, QStringLiteral("A BAÑA"));
  c.dialogo().TraeVias(0, QString(), QString());
  ASSERT_TRUE(c.dialogo().TraeProvincias(0));

  const QList<PeticionOvc> p = c.simulador().peticiones();
  ASSERT_EQ(p.size(), 3);
  EXPECT_EQ(p[0].cuerpo, SobreEsperado(Parametro("Provincia", "A CORU\xC3\x91" "A") + Parametro("Municipio", "")));
  EXPECT_EQ(p[0].soapAction, Accion("ConsultaMunicipio"));
  EXPECT_EQ(p[1].cuerpo, SobreEsperado(Parametro("Provincia", "A CORU\xC3\x91" "A") +
                                       Parametro("Municipio", "A BA\xC3\x91" "A") + Parametro("TipoVia", "") +
                                       Parametro("NombreVia", "")));
  EXPECT_EQ(p[1].soapAction, Accion("ConsultaVia"));
  EXPECT_EQ(p[2].cuerpo, SobreEsperado("")) << "the province request's body is empty";
  EXPECT_EQ(p[2].soapAction, Accion("ConsultaProvincia"));
  for (const PeticionOvc& peticion : p) {
    EXPECT_EQ(peticion.metodo, QStringLiteral("POST"));
    EXPECT_EQ(peticion.ruta, QStringLiteral("/ovcservweb/OVCSWLocalizacionRC/OVCCallejero.asmx"));
    EXPECT_EQ(peticion.userAgent, UserAgentPorDefecto()) << "the service refuses requests without one";
    EXPECT_TRUE(peticion.contentType.startsWith(QStringLiteral("text/xml"))) << peticion.contentType.toStdString();
  }
}

TEST(ServicioOvc, StreetsFillTheGridAndTheCountLabel) {
  REQUIERE_DATOS_COMPARTIDOS();
  testsupport::TempDir referencia;
  testsupport::escribeJuegoDeReferencia(referencia.path());
  ClienteOvc c({QStringLiteral("--calles"), QString::fromStdString(referencia.path())});
  ClienteOvc::Elige(c.dialogo().CBProvincias, QStringLiteral("MADRID"));
  ClienteOvc::Elige(c.dialogo().CBMunicipios, QStringLiteral("MADRID"));
  c.dialogo().LimpiaDatos(true);
  ASSERT_TRUE(c.dialogo().TraeVias(0, QString(), QString()));
  const TStringGrid* g = c.dialogo().SGVias;
  const QRegularExpressionMatch cuenta =
      QRegularExpression(QStringLiteral("<cuca>(\\d+)</cuca>")).match(QString::fromUtf8(c.dialogo().XML->Bytes()));
  ASSERT_TRUE(cuenta.hasMatch());
  const int vias = cuenta.captured(1).toInt();
  ASSERT_GT(vias, 1);
  EXPECT_EQ(g->RowCount(), vias + 1);
  EXPECT_EQ(c.dialogo().LMensaje_->text(), QStringLiteral("Se han encontrado %1 vías").arg(vias));
  for (int fila = 1; fila < g->RowCount(); ++fila) {
    EXPECT_FALSE(g->Cells(1, fila).isEmpty()) << fila;
    EXPECT_FALSE(g->Cells(0, fila).isEmpty()) << fila;
  }
  EXPECT_EQ(QByteArray::fromStdString(testsupport::readFile(TFImportarVias::RutaTempCalles().toStdString())),
            c.dialogo().XML->Bytes());
}

TEST(ServicioOvc, WaitWindowFollowsTheFetchAndTheWalk) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c;
  c.dialogo().oFormMensaje = MuestraMensaje(QStringLiteral("Importando el listado de municipios de..."));
  ClienteOvc::Elige(c.dialogo().CBProvincias, QStringLiteral("SORIA"));
  ASSERT_TRUE(c.dialogo().TraeMunicipios(0));
  EXPECT_EQ(c.mensajes().textos(TipoMensaje::Cambia),
            (QStringList{QStringLiteral("Importando municipios de la provincia SORIA"),
                         QStringLiteral("Cargando datos de municipios")}));
  CierraMensaje(c.dialogo().oFormMensaje);
}

TEST(ServicioOvc, AfterFiveFailuresTheSixthAttemptLoadsAndTheFirstReportsItsEmptyAnswer) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--fallar"), QStringLiteral("5")});
  // The sixth attempt loads the list; the runs that called it then go on
  // with their own empty answers, which are no document: the first of them
  // reports it to the caller.
  EXPECT_THROW(c.dialogo().TraeProvincias(0), ErrorRespuestaVacia);
  EXPECT_EQ(c.simulador().peticiones().size(), 6);
  EXPECT_EQ(c.dialogo().CBProvincias->count(), 48);
  EXPECT_EQ(c.dialogo().CBProvincias->itemText(0), QStringLiteral("A CORUÑA"));
  EXPECT_EQ(c.mensajes().cuenta(TipoMensaje::Error), 0) << "the transport's failures are not shown";
}

TEST(ServicioOvc, ConnectionsResetOnEveryAttemptEndInTheErrorAfterSixAttempts) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--cortar"), QStringLiteral("100")});
  EXPECT_THROW(c.dialogo().TraeProvincias(0), ErrorDocumentoXML);
  // Qt's network layer may send a request once more by itself when the
  // connection drops before any answer.
  EXPECT_GE(c.simulador().peticiones().size(), 6);
  EXPECT_LE(c.simulador().peticiones().size(), 12);
  EXPECT_EQ(c.mensajes().cuenta(TipoMensaje::Error), 1);
  EXPECT_EQ(c.dialogo().CBProvincias->count(), 0);
}

TEST(ServicioOvc, FailuresInARowWidenTheGapBeforeTheNextRequest) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--fallar"), QStringLiteral("3")});
  EntornoTemporal intervalo("CODPOSTALES_OVC_INTERVALO_MS", "50");
  EXPECT_THROW(c.dialogo().TraeProvincias(0), ErrorDocumentoXML);
  const QList<PeticionOvc> p = c.simulador().peticiones();
  ASSERT_EQ(p.size(), 4);
  EXPECT_GE(p[1].ms - p[0].ms, 95);
  EXPECT_GE(p[2].ms - p[1].ms, 195);
  EXPECT_GE(p[3].ms - p[2].ms, 395);
  EXPECT_EQ(c.dialogo().CBProvincias->count(), 48);
}

TEST(ServicioOvc, SixFailedAttemptsShowTheProvinceErrorAndCloseTheWaitWindow) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--fallar"), QStringLiteral("100")});
  c.dialogo().oFormMensaje = MuestraMensaje(QStringLiteral("Importando el listado de provincias"));
  bool resultado = true;
  try {
    resultado = c.dialogo().TraeProvincias(5);  // the last attempt: no retry behind it
  } catch (const std::exception& e) {
    FAIL() << e.what();
  }
  EXPECT_FALSE(resultado);
  EXPECT_EQ(c.simulador().peticiones().size(), 1);
  ASSERT_EQ(c.mensajes().cuenta(TipoMensaje::Error), 1);
  const MensajeRegistrado error = c.mensajes().deTipo(TipoMensaje::Error).first();
  EXPECT_EQ(error.titulo, QStringLiteral("Error al importar datos"));
  EXPECT_EQ(error.texto, QStringLiteral("Se ha producido un error al localizar las provincias.\nReinténtelo más tarde"));
  EXPECT_EQ(c.dialogo().oFormMensaje, nullptr);
  EXPECT_EQ(c.mensajes().cuenta(TipoMensaje::Cierra), 1);
}

TEST(ServicioOvc, AttemptsStopAtSix) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--fallar"), QStringLiteral("100")});
  EXPECT_THROW(c.dialogo().TraeProvincias(0), ErrorDocumentoXML);
  EXPECT_EQ(c.simulador().peticiones().size(), 6);
  EXPECT_EQ(c.mensajes().cuenta(TipoMensaje::Error), 1) << "shown once, by the last attempt";
}

TEST(ServicioOvc, MunicipalityAndStreetFailuresNameWhatWasAsked) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--cortar"), QStringLiteral("100")});
  ClienteOvc::Elige(c.dialogo().CBProvincias, QStringLiteral("BURGOS"));
  ClienteOvc::Elige(c.dialogo().CBMunicipios, QStringLiteral("ARANDA DE DUERO"));
  EXPECT_FALSE(c.dialogo().TraeMunicipios(5));
  EXPECT_FALSE(c.dialogo().TraeVias(5, QString(), QString()));
  const QList<MensajeRegistrado> errores = c.mensajes().deTipo(TipoMensaje::Error);
  ASSERT_EQ(errores.size(), 2);
  EXPECT_EQ(errores[0].titulo, QStringLiteral("Error al importar datos"));
  EXPECT_EQ(errores[0].texto, QStringLiteral("Se ha producido un error al localizar los municipios de la provincia "
                                             "seleccionada BURGOS\nReinténtelo más tarde"));
  EXPECT_EQ(errores[1].titulo, QStringLiteral("Error al importar datos"));
  EXPECT_EQ(errores[1].texto, QStringLiteral("Se ha producido un error al localizar las vías del municipio "
                                             "seleccionado ARANDA DE DUERO\nReinténtelo más tarde"));
}

TEST(ServicioOvc, AnswerSlowerThanTheWaitIsATransportFailure) {
  REQUIERE_DATOS_COMPARTIDOS();
  EntornoTemporal espera("CODPOSTALES_OVC_ESPERA", "1");
  ClienteOvc c({QStringLiteral("--lento"), QStringLiteral("3000")});
  QElapsedTimer reloj;
  reloj.start();
  EXPECT_FALSE(c.dialogo().TraeProvincias(5));
  EXPECT_LT(reloj.elapsed(), 2900) << "given up after a second without data";
  EXPECT_EQ(c.mensajes().cuenta(TipoMensaje::Error), 1);
}

TEST(ServicioOvc, SlowAnswerWithinTheWaitLoads) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--lento"), QStringLiteral("300")});
  EXPECT_TRUE(c.dialogo().TraeProvincias(0));
  EXPECT_EQ(c.dialogo().CBProvincias->count(), 48);
}

TEST(ServicioOvc, HtmlPageInsteadOfAnswerLoadsNothingAndSaysNothing) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--html")});
  EXPECT_FALSE(c.dialogo().TraeProvincias(0));
  EXPECT_EQ(c.dialogo().CBProvincias->count(), 0);
  EXPECT_TRUE(c.mensajes().vacio());
}

TEST(ServicioOvc, TruncatedAnswerIsAClearError) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--truncado")});
  try {
    c.dialogo().TraeProvincias(0);
    FAIL() << "a truncated answer loaded";
  } catch (const ErrorDocumentoXML& e) {
    EXPECT_NE(std::string(e.what()).find("no es XML bien formado"), std::string::npos) << e.what();
  }
}

TEST(ServicioOvc, CountLargerThanTheListKeepsTheEntriesAndFailsSilently) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--cuenta-extra"), QStringLiteral("3")});
  EXPECT_FALSE(c.dialogo().TraeProvincias(0));
  EXPECT_EQ(c.dialogo().CBProvincias->count(), 48);
  EXPECT_TRUE(c.mensajes().vacio());
}

TEST(ServicioOvc, EntityBombIsRefusedAtOnce) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--bomba")});
  QElapsedTimer reloj;
  reloj.start();
  EXPECT_THROW(c.dialogo().TraeProvincias(0), ErrorDocumentoXML);
  EXPECT_LT(reloj.elapsed(), 5000);
  EXPECT_EQ(c.dialogo().CBProvincias->count(), 0);
}

TEST(ServicioOvc, ExternalEntityIsRefused) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--entidad-externa")});
  EXPECT_THROW(c.dialogo().TraeProvincias(0), ErrorDocumentoXML);
  EXPECT_FALSE(QFile::exists(TFImportarVias::RutaTempCalles())) << "nothing kept of it";
}

TEST(ServicioOvc, NulInANameIsRefused) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--nul")});
  ClienteOvc::Elige(c.dialogo().CBProvincias, QStringLiteral("SORIA"));
  EXPECT_THROW(c.dialogo().TraeMunicipios(0), ErrorDocumentoXML);
}

TEST(ServicioOvc, HugeAnswerIsAbandonedAtTheLimitWithBoundedMemory) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--enorme"), QStringLiteral("300")});
  ClienteOvc::Elige(c.dialogo().CBProvincias, QStringLiteral("MADRID"));
  ClienteOvc::Elige(c.dialogo().CBMunicipios, QStringLiteral("MADRID"));
  rusage antes{};
  getrusage(RUSAGE_SELF, &antes);
  QElapsedTimer reloj;
  reloj.start();
  EXPECT_FALSE(c.dialogo().TraeVias(5, QString(), QString()));
  rusage despues{};
  getrusage(RUSAGE_SELF, &despues);
  EXPECT_LT(reloj.elapsed(), 60000);
  EXPECT_LT(despues.ru_maxrss - antes.ru_maxrss, 400L * 1024) << "kB more at the peak";
  EXPECT_EQ(c.mensajes().cuenta(TipoMensaje::Error), 1);
}

TEST(ServicioOvc, SavedAnswerNamesWriteSlashAndBackslashAsBrackets) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c;
  ClienteOvc::Elige(c.dialogo().CBProvincias, QStringLiteral("CASTELLO"));
  ClienteOvc::Elige(c.dialogo().CBMunicipios, QStringLiteral("ALMAZORA / ALMASSORA"));
  c.dialogo().LimpiaDatos(true);
  ASSERT_TRUE(c.dialogo().TraeVias(0, QStringLiteral("CASTELLO"), QStringLiteral("A/B")));
  ASSERT_TRUE(c.dialogo().TraeVias(0, QStringLiteral("CASTELLO"), QStringLiteral("A\\B")));
  const QString carpeta = Carpeta(c, QStringLiteral("POSTAL/CASTELLO/"));
  EXPECT_TRUE(QFile::exists(carpeta + QStringLiteral("A()B.xml")));
  EXPECT_TRUE(QFile::exists(carpeta + QStringLiteral("A)(B.xml")));
  EXPECT_EQ(QByteArray::fromStdString(testsupport::readFile((carpeta + QStringLiteral("A()B.xml")).toStdString())),
            c.dialogo().XML->Bytes())
      << "saved as received";
  EXPECT_EQ(c.dialogo().SGVias->Cells(1, 1), QString()) << "a saved answer is not loaded";
  EXPECT_EQ(c.dialogo().LMensaje_->text(), QString());
  // The request names the municipality of the combo, whatever the file.
  EXPECT_TRUE(c.simulador().peticiones().last().cuerpo.contains("ALMAZORA / ALMASSORA"));
}

TEST(ServicioOvc, SavedAnswerReplacesAnEarlierOne) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c;
  ClienteOvc::Elige(c.dialogo().CBProvincias, QStringLiteral("SORIA"));
  ClienteOvc::Elige(c.dialogo().CBMunicipios, QStringLiteral("ALMAZAN"));
  ASSERT_TRUE(QDir().mkpath(Carpeta(c, QStringLiteral("POSTAL/SORIA"))));
  const QString fichero = Carpeta(c, QStringLiteral("POSTAL/SORIA/ALMAZAN.xml"));
  testsupport::writeFile(fichero.toStdString(), "viejo");
  ASSERT_TRUE(c.dialogo().TraeVias(0, QStringLiteral("SORIA"), QStringLiteral("ALMAZAN")));
  EXPECT_EQ(QByteArray::fromStdString(testsupport::readFile(fichero.toStdString())), c.dialogo().XML->Bytes());
}

TEST(ServicioOvc, FolderThatCannotBeMadeLeavesTheAnswerUnsavedButTheFetchGood) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c;
  testsupport::writeFile(Carpeta(c, QStringLiteral("POSTAL")).toStdString(), "no soy una carpeta");
  ClienteOvc::Elige(c.dialogo().CBProvincias, QStringLiteral("SORIA"));
  ClienteOvc::Elige(c.dialogo().CBMunicipios, QStringLiteral("ALMAZAN"));
  EXPECT_TRUE(c.dialogo().TraeVias(0, QStringLiteral("SORIA"), QStringLiteral("ALMAZAN")));
  EXPECT_FALSE(QFileInfo(Carpeta(c, QStringLiteral("POSTAL"))).isDir());
}

TEST(ServicioOvc, HostileNamesNeverWriteOutsideTheProvinceFolder) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--nombres-peligrosos")});
  ClienteOvc::Elige(c.dialogo().CBProvincias, QStringLiteral("SORIA"));
  ASSERT_TRUE(c.dialogo().TraeMunicipios(0));
  ASSERT_GE(c.dialogo().CBMunicipios->count(), 5);
  int rechazados = 0;
  for (int i = 0; i < c.dialogo().CBMunicipios->count(); ++i) {
    c.dialogo().CBMunicipios->setCurrentIndex(i);
    const QString nombre = c.dialogo().CBMunicipios->currentText();
    try {
      c.dialogo().TraeVias(0, QStringLiteral("SORIA"), nombre);
    } catch (const std::runtime_error& e) {
      ++rechazados;
      EXPECT_NE(std::string(e.what()).find("no sirve como nombre"), std::string::npos) << e.what();
    }
  }
  EXPECT_EQ(rechazados, 1) << "only \"..\" is refused";
  const QString provincia = QDir::cleanPath(Carpeta(c, QStringLiteral("POSTAL/SORIA")));
  QDirIterator todo(QString::fromStdString(c.carpeta().path()), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
  int ficheros = 0;
  while (todo.hasNext()) {
    const QString ruta = QFileInfo(todo.next()).absolutePath();
    EXPECT_EQ(QDir::cleanPath(ruta), provincia) << todo.filePath().toStdString();
    ++ficheros;
  }
  EXPECT_EQ(ficheros, c.dialogo().CBMunicipios->count() - rechazados);
  EXPECT_TRUE(QFile::exists(provincia + QStringLiteral("/..()..()FUERA.xml")));
  EXPECT_TRUE(QFile::exists(provincia + QStringLiteral("/..)(..)(FUERA.xml")));
}

TEST(ServicioOvc, RequestsKeepTheirDistanceFromTheRealService) {
  THTTPReqResp transporte;
  EntornoTemporal intervalo("CODPOSTALES_OVC_INTERVALO_MS", "0");
  transporte.URL = QString::fromLatin1(ovc::kEndpoint);
  EXPECT_EQ(transporte.IntervaloMinimoMs(), 400) << "only a server on this machine may be asked faster";
  transporte.URL = QStringLiteral("http://127.0.0.1:8080/ovcservweb/OVCSWLocalizacionRC/OVCCallejero.asmx");
  EXPECT_EQ(transporte.IntervaloMinimoMs(), 0);
}

TEST(ServicioOvc, ConsecutiveRequestsAreAtLeastTheIntervalApart) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c;
  EntornoTemporal intervalo("CODPOSTALES_OVC_INTERVALO_MS", "250");
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(c.dialogo().TraeProvincias(0));
  const QList<PeticionOvc> p = c.simulador().peticiones();
  ASSERT_EQ(p.size(), 4);
  for (int i = 1; i < p.size(); ++i) EXPECT_GE(p[i].ms - p[i - 1].ms, 240) << i;
}

TEST(ServicioOvc, EndpointIsTheCadastresUnlessTheEnvironmentNamesAnother) {
  {
    EntornoTemporal url("CODPOSTALES_OVC_URL", "");
    EXPECT_EQ(ovc::Endpoint(),
              QStringLiteral("http://ovc.catastro.meh.es/ovcservweb/OVCSWLocalizacionRC/OVCCallejero.asmx"));
  }
  EntornoTemporal url("CODPOSTALES_OVC_URL", "http://127.0.0.1:9/x.asmx");
  EXPECT_EQ(ovc::Endpoint(), QStringLiteral("http://127.0.0.1:9/x.asmx"));
}

}  // namespace

namespace {

TEST(ServicioOvc, CallersTakeARetriedFetchByWhatItsLastAttemptLoaded) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--fallar"), QStringLiteral("1")});
  TFImportarVias& d = c.dialogo();
  EXPECT_TRUE(ResultadoDeLaTraida([&] { return d.TraeProvincias(0); }, [&] { return d.CBProvincias->count() > 0; }));
  EXPECT_EQ(d.CBProvincias->count(), 48);
  EXPECT_TRUE(c.mensajes().vacio());
}

TEST(ServicioOvc, CallersSeeAFetchThatFailedSixTimesAsFailed) {
  REQUIERE_DATOS_COMPARTIDOS();
  ClienteOvc c({QStringLiteral("--fallar"), QStringLiteral("100")});
  TFImportarVias& d = c.dialogo();
  EXPECT_FALSE(ResultadoDeLaTraida([&] { return d.TraeProvincias(0); }, [&] { return d.CBProvincias->count() > 0; }));
  EXPECT_EQ(c.mensajes().cuenta(TipoMensaje::Error), 1);
}

}  // namespace
