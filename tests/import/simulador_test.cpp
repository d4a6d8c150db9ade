// The local OVCCallejero service (ovc-simulador) over real HTTP: the recorded
// answers inside the SOAP wrapper, the error forms, streets from a dBase
// table or made up, the request log, and the failures it stages on request.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSet>
#include <QTcpSocket>
#include <QTimer>
#include <QUrl>
#include <QXmlStreamReader>
#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "support/referencia.h"
#include "support/simulador_ovc.h"
#include "support/temp_dir.h"

using testsupport::SimuladorOvc;

namespace {

constexpr char kAccion[] = "http://tempuri.org/OVCServWeb/OVCCallejero/";
constexpr char kCatastro[] = "http://www.catastro.meh.es/";

#define SIN_DATOS_COMPARTIDOS_SALTA()                                          \
  do {                                                                         \
    if (testsupport::sharedDir().empty()) GTEST_SKIP() << "sin ../shared/ovc"; \
  } while (0)

struct Respuesta {
  QNetworkReply::NetworkError error = QNetworkReply::NoError;
  int estado = 0;
  QByteArray tipo;
  QByteArray largo;  // Content-Length as sent, null when absent
  QByteArray cuerpo;
};

// One POST with Qt's network stack, driven to its end by a local event loop.
Respuesta envia(const QString& url, const QByteArray& accion, const QByteArray& cuerpo) {
  QNetworkAccessManager red;
  QNetworkRequest peticion{QUrl(url)};
  peticion.setHeader(QNetworkRequest::ContentTypeHeader, "text/xml; charset=utf-8");
  peticion.setRawHeader("SOAPAction", accion);
  peticion.setRawHeader("User-Agent", "codpostales-pruebas");
  peticion.setTransferTimeout(10000);
  QNetworkReply* r = red.post(peticion, cuerpo);
  QEventLoop bucle;
  QObject::connect(r, &QNetworkReply::finished, &bucle, &QEventLoop::quit);
  QTimer::singleShot(15000, &bucle, &QEventLoop::quit);
  if (!r->isFinished()) bucle.exec();
  Respuesta respuesta;
  respuesta.error = r->error();
  respuesta.estado = r->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
  respuesta.tipo = r->rawHeader("Content-Type");
  if (r->hasRawHeader("Content-Length")) respuesta.largo = r->rawHeader("Content-Length");
  respuesta.cuerpo = r->readAll();
  delete r;
  return respuesta;
}

// A SOAP 1.1 envelope with these bare parameters in the catastro namespace.
QByteArray sobre(const QList<QPair<QByteArray, QString>>& parametros) {
  QByteArray cuerpo =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<soap:Envelope "
      "xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\" xmlns:cat=\"http://www.catastro.meh.es/\">"
      "<soap:Header/><soap:Body>";
  for (const auto& [nombre, valor] : parametros)
    cuerpo += "<cat:" + nombre + '>' + valor.toHtmlEscaped().toUtf8() + "</cat:" + nombre + '>';
  return cuerpo + "</soap:Body></soap:Envelope>";
}

Respuesta provincias(const QString& url) { return envia(url, QByteArray(kAccion) + "ConsultaProvincia", sobre({})); }

Respuesta municipios(const QString& url, const QString& provincia, const QString& municipio = {}) {
  return envia(url, QByteArray(kAccion) + "ConsultaMunicipio",
               sobre({{"Provincia", provincia}, {"Municipio", municipio}}));
}

Respuesta calles(const QString& url, const QString& provincia, const QString& municipio) {
  return envia(url, QByteArray(kAccion) + "ConsultaVia",
               sobre({{"Provincia", provincia}, {"Municipio", municipio}, {"TipoVia", ""}, {"NombreVia", ""}}));
}

// The texts of every element of that local name, in document order.
QStringList textos(const QByteArray& xml, const QString& elemento) {
  QStringList lista;
  QXmlStreamReader r(xml);
  while (!r.atEnd())
    if (r.readNext() == QXmlStreamReader::StartElement && r.name() == elemento)
      lista.append(r.readElementText(QXmlStreamReader::IncludeChildElements));
  return lista;
}

QString texto(const QByteArray& xml, const QString& elemento) {
  const QStringList t = textos(xml, elemento);
  return t.isEmpty() ? QString() : t.first();
}

bool bienFormado(const QByteArray& xml) {
  QXmlStreamReader r(xml);
  while (!r.atEnd()) r.readNext();
  return !r.hasError();
}

// The element path from the root through first children, as the client walks
// it: Envelope/Body/Provincias/consulta_provinciero.
QStringList primerosHijos(const QByteArray& xml, int cuantos) {
  QStringList camino;
  QXmlStreamReader r(xml);
  while (!r.atEnd() && camino.size() < cuantos) {
    r.readNext();
    if (r.isStartElement()) camino.append(r.namespaceUri().toString() + '|' + r.name().toString());
    else if (r.isEndElement() || (r.isCharacters() && !camino.isEmpty())) break;  // not a first child
  }
  return camino;
}

// The recorded document without its XML declaration.
QByteArray grabado(const QString& fichero) {
  QByteArray bytes = QByteArray::fromStdString(testsupport::readFile(testsupport::sharedDir() + "/ovc/" + fichero.toStdString()));
  return bytes.mid(bytes.indexOf("<consulta_"));
}

quint16 puertoDe(const QString& url) { return quint16(QUrl(url).port()); }

// Raw bytes over a plain socket, for requests Qt's stack will not send (it
// always adds a User-Agent). Returns everything the server sent before closing.
QByteArray enviaEnCrudo(const QString& url, const QByteArray& peticion) {
  QTcpSocket s;
  s.connectToHost(QHostAddress::LocalHost, puertoDe(url));
  if (!s.waitForConnected(5000)) return {};
  s.write(peticion);
  s.waitForBytesWritten(5000);
  QByteArray respuesta;
  while (s.state() == QAbstractSocket::ConnectedState && s.waitForReadyRead(5000)) respuesta += s.readAll();
  return respuesta + s.readAll();
}

QByteArray peticionHttp(const QString& url, const QByteArray& cabeceras, const QByteArray& cuerpo) {
  return "POST " + QUrl(url).path().toUtf8() + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + cabeceras +
         "Content-Length: " + QByteArray::number(cuerpo.size()) + "\r\n\r\n" + cuerpo;
}

}  // namespace

TEST(SimuladorOvc, ServesTheRecordedProvinceListInsideTheSoapWrapper) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador;
  EXPECT_TRUE(simulador.url().startsWith("http://127.0.0.1:")) << simulador.url().toStdString();
  EXPECT_TRUE(simulador.url().endsWith("/ovcservweb/OVCSWLocalizacionRC/OVCCallejero.asmx"));

  const Respuesta r = provincias(simulador.url());
  ASSERT_EQ(r.error, QNetworkReply::NoError) << r.cuerpo.toStdString();
  EXPECT_EQ(r.estado, 200);
  EXPECT_EQ(r.tipo, "text/xml; charset=utf-8");
  EXPECT_TRUE(r.cuerpo.startsWith("<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope "));
  const QString soap = "http://schemas.xmlsoap.org/soap/envelope/|";
  EXPECT_EQ(primerosHijos(r.cuerpo, 4), QStringList({soap + "Envelope", soap + "Body", kCatastro + QString("|Provincias"),
                                                      kCatastro + QString("|consulta_provinciero")}));
  // The recorded document as it stands, names spelled as the service does.
  EXPECT_TRUE(r.cuerpo.contains("<Provincias xmlns=\"http://www.catastro.meh.es/\">" +
                                grabado("ConsultaProvincia-2017.xml") + "</Provincias></soap:Body></soap:Envelope>"));
  const QStringList nombres = textos(r.cuerpo, "np");
  EXPECT_EQ(nombres.size(), 48);
  EXPECT_EQ(texto(r.cuerpo, "cuprov"), "48");
  EXPECT_EQ(nombres.value(0), QString::fromUtf8("A CORUÑA"));
  EXPECT_TRUE(r.cuerpo.contains("<np>A CORU\xC3\x91" "A</np>"));  // UTF-8 on the wire
  EXPECT_TRUE(nombres.contains("S.C. TENERIFE"));
  EXPECT_TRUE(nombres.contains("ALACANT"));
}

TEST(SimuladorOvc, ListsEveryMunicipalityOfAProvinceWithItsCount) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador;
  const Respuesta r = municipios(simulador.url(), "BURGOS");
  ASSERT_EQ(r.estado, 200) << r.cuerpo.toStdString();
  EXPECT_EQ(texto(r.cuerpo, "cumun"), "371");
  EXPECT_EQ(textos(r.cuerpo, "muni").size(), 371);
  EXPECT_EQ(textos(r.cuerpo, "nm").size(), 371);
  EXPECT_EQ(textos(r.cuerpo, "nm").value(0), "ABAJAS");
  // Without a filter, the recorded answer byte for byte.
  EXPECT_TRUE(r.cuerpo.contains("<Municipios xmlns=\"http://www.catastro.meh.es/\">" + grabado("municipios-2017/9BURGOS.xml") +
                                "</Municipios>"));
}

TEST(SimuladorOvc, FiltersMunicipalitiesByPartOfTheirName) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador;
  const Respuesta r = municipios(simulador.url(), "BURGOS", "BURGOS");
  ASSERT_EQ(r.estado, 200);
  const QStringList nombres = textos(r.cuerpo, "nm");
  EXPECT_EQ(texto(r.cuerpo, "cumun"), QString::number(nombres.size()));
  EXPECT_TRUE(nombres.contains("BURGOS"));
  EXPECT_TRUE(nombres.contains("VILLALBILLA DE BURGOS"));
  for (const QString& n : nombres) EXPECT_TRUE(n.contains("BURGOS")) << n.toStdString();
}

TEST(SimuladorOvc, AnswersCode12ForAProvinceItDoesNotKnow) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador;
  // A code instead of the name, and a name in other letters than served.
  for (const QString& provincia : {QString("08"), QString("Burgos")}) {
    const Respuesta r = municipios(simulador.url(), provincia);
    ASSERT_EQ(r.estado, 200);
    EXPECT_EQ(primerosHijos(r.cuerpo, 4).value(3), kCatastro + QString("|consulta_municipiero"));
    EXPECT_EQ(texto(r.cuerpo, "cuerr"), "1");
    EXPECT_EQ(texto(r.cuerpo, "cod"), "12");
    EXPECT_EQ(texto(r.cuerpo, "des"), "LA PROVINCIA NO EXISTE");
  }
  const Respuesta r = calles(simulador.url(), "NINGUNA", "MADRID");
  EXPECT_EQ(primerosHijos(r.cuerpo, 4).value(3), kCatastro + QString("|consulta_callejero"));
  EXPECT_EQ(texto(r.cuerpo, "cod"), "12");
}

TEST(SimuladorOvc, AnswersCode22ForAMunicipalityNotInTheProvince) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador;
  const Respuesta r = calles(simulador.url(), "MADRID", "BURGOS");
  ASSERT_EQ(r.estado, 200);
  EXPECT_EQ(texto(r.cuerpo, "cuerr"), "1");
  EXPECT_EQ(texto(r.cuerpo, "cod"), "22");
  EXPECT_EQ(texto(r.cuerpo, "des"), "EL MUNICIPIO NO EXISTE");
}

TEST(SimuladorOvc, ListsTheStreetsOfTheStreetTableForTheMunicipalityIneCode) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  testsupport::TempDir datos;
  testsupport::escribeJuegoDeReferencia(datos.path());
  SimuladorOvc simulador({"--calles", QString::fromStdString(datos.path())});

  // MADRID is 28 079 for the INE, cmc 900 for the cadastre.
  Respuesta r = calles(simulador.url(), "MADRID", "MADRID");
  ASSERT_EQ(r.estado, 200) << r.cuerpo.toStdString();
  EXPECT_EQ(primerosHijos(r.cuerpo, 4).value(2), kCatastro + QString("|Callejero"));
  EXPECT_EQ(texto(r.cuerpo, "cuca"), "3");
  EXPECT_EQ(textos(r.cuerpo, "nv"), QStringList({"ALCALA", "CASTELLANA", "MAYOR"}));
  EXPECT_EQ(textos(r.cuerpo, "tv"), QStringList({"CL", "PS", "CL"}));
  EXPECT_EQ(textos(r.cuerpo, "cp"), QStringList({"28", "28", "28"}));
  EXPECT_EQ(textos(r.cuerpo, "cm"), QStringList({"79", "79", "79"}));
  EXPECT_EQ(textos(r.cuerpo, "cv"), QStringList({"1", "2", "3"}));

  r = calles(simulador.url(), "MADRID", "GETAFE");
  EXPECT_EQ(textos(r.cuerpo, "nv"), QStringList({"MADRID", "TOLEDO"}));
  EXPECT_EQ(textos(r.cuerpo, "tv"), QStringList({"AV", "CL"}));
  EXPECT_EQ(textos(r.cuerpo, "cm"), QStringList({"65", "65"}));

  // The name filter of ConsultaVia: part of the name.
  r = envia(simulador.url(), QByteArray(kAccion) + "ConsultaVia",
            sobre({{"Provincia", "MADRID"}, {"Municipio", "MADRID"}, {"TipoVia", ""}, {"NombreVia", "CAST"}}));
  EXPECT_EQ(textos(r.cuerpo, "nv"), QStringList({"CASTELLANA"}));
}

TEST(SimuladorOvc, MakesUpTheSameStreetsForTheSameMunicipalityEveryRun) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  QStringList primera, tiposPrimera;
  {
    SimuladorOvc simulador;
    const Respuesta r = calles(simulador.url(), "BURGOS", "ABAJAS");
    ASSERT_EQ(r.estado, 200);
    primera = textos(r.cuerpo, "nv");
    tiposPrimera = textos(r.cuerpo, "tv");
    EXPECT_EQ(texto(r.cuerpo, "cuca"), QString::number(primera.size()));
    EXPECT_GE(primera.size(), 3);
    EXPECT_LE(primera.size(), 40);
    EXPECT_EQ(QSet<QString>(primera.begin(), primera.end()).size(), primera.size());
    for (const QString& t : tiposPrimera) EXPECT_TRUE(QStringList({"CL", "AV", "PZ", "CM", "TR", "PS"}).contains(t));
    EXPECT_EQ(textos(r.cuerpo, "cm").value(0), "1");
  }
  SimuladorOvc otro;
  const Respuesta r = calles(otro.url(), "BURGOS", "ABAJAS");
  EXPECT_EQ(textos(r.cuerpo, "nv"), primera);
  EXPECT_EQ(textos(r.cuerpo, "tv"), tiposPrimera);
  EXPECT_NE(textos(calles(otro.url(), "BURGOS", "BURGOS").cuerpo, "nv"), primera);
}

TEST(SimuladorOvc, RefusesARequestWithoutUserAgent) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador;
  const QByteArray accion = "SOAPAction: \"http://tempuri.org/OVCServWeb/OVCCallejero/ConsultaProvincia\"\r\n";
  const QByteArray sin = enviaEnCrudo(simulador.url(), peticionHttp(simulador.url(), accion, sobre({})));
  EXPECT_TRUE(sin.startsWith("HTTP/1.1 403 ")) << sin.toStdString();
  const QByteArray con =
      enviaEnCrudo(simulador.url(), peticionHttp(simulador.url(), accion + "user-agent: prueba\r\n", sobre({})));
  EXPECT_TRUE(con.startsWith("HTTP/1.1 200 ")) << con.left(200).toStdString();
}

TEST(SimuladorOvc, ServesPostsToTheServicePathInAnyLetterCaseOnly) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador;
  const QByteArray accion = QByteArray(kAccion) + "ConsultaProvincia";
  EXPECT_EQ(envia(QString(simulador.url()).replace("OVCCallejero.asmx", "ovccallejero.ASMX"), accion, sobre({})).estado, 200);
  EXPECT_EQ(envia(QString(simulador.url()).replace("OVCCallejero.asmx", "Otro.asmx"), accion, sobre({})).estado, 404);
  const QByteArray get = enviaEnCrudo(
      simulador.url(), "GET " + QUrl(simulador.url()).path().toUtf8() + " HTTP/1.1\r\nUser-Agent: prueba\r\n\r\n");
  EXPECT_TRUE(get.startsWith("HTTP/1.1 405 ")) << get.toStdString();
}

TEST(SimuladorOvc, RefusesAnUnknownSoapActionOrABodyThatIsNotXmlWithAClientFault) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador;
  Respuesta r = envia(simulador.url(), QByteArray(kAccion) + "ConsultaNumero", sobre({}));
  EXPECT_EQ(r.estado, 500);
  EXPECT_EQ(texto(r.cuerpo, "faultcode"), "soap:Client");
  r = envia(simulador.url(), QByteArray(kAccion) + "ConsultaProvincia", "<soap:Envelope><sin cerrar>");
  EXPECT_EQ(r.estado, 500);
  EXPECT_EQ(texto(r.cuerpo, "faultcode"), "soap:Client");
  // Quoted, as .NET and Axis send it, and with CR line ends.
  QByteArray cr = sobre({{"Provincia", "CEUTA"}});
  cr.replace('\n', '\r').replace("><", ">\r<");
  r = envia(simulador.url(), "\"" + QByteArray(kAccion) + "ConsultaMunicipio\"", cr);
  EXPECT_EQ(r.estado, 200);
  EXPECT_EQ(textos(r.cuerpo, "nm"), QStringList({"CEUTA"}));
}

TEST(SimuladorOvc, LogsTheSoapActionAndTheExactBodyOfEveryRequest) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador;
  const QByteArray cuerpo = sobre({{"Provincia", QString::fromUtf8("A CORUÑA")}, {"Municipio", ""}}).replace('\n', '\r');
  ASSERT_EQ(envia(simulador.url(), QByteArray(kAccion) + "ConsultaProvincia", sobre({})).estado, 200);
  ASSERT_EQ(envia(simulador.url(), "\"" + QByteArray(kAccion) + "ConsultaMunicipio\"", cuerpo).estado, 200);

  const QList<testsupport::PeticionOvc> log = simulador.peticiones();
  ASSERT_EQ(log.size(), 2);
  EXPECT_EQ(log[0].n, 1);
  EXPECT_EQ(log[1].n, 2);
  EXPECT_LE(log[0].ms, log[1].ms);
  EXPECT_EQ(log[0].soapAction, QString(kAccion) + "ConsultaProvincia");
  EXPECT_EQ(log[1].soapAction, "\"" + QString(kAccion) + "ConsultaMunicipio\"");
  EXPECT_EQ(log[1].metodo, "POST");
  EXPECT_EQ(log[1].ruta, QUrl(simulador.url()).path());
  EXPECT_EQ(log[1].userAgent, "codpostales-pruebas");
  EXPECT_EQ(log[1].contentType, "text/xml; charset=utf-8");
  EXPECT_EQ(log[1].cuerpo, cuerpo);
}

TEST(SimuladorOvc, FailsTheFirstRequestsWith503WhenAsked) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador({"--fallar", "2"});
  EXPECT_EQ(provincias(simulador.url()).estado, 503);
  EXPECT_EQ(municipios(simulador.url(), "CEUTA").estado, 503);
  const Respuesta r = provincias(simulador.url());
  EXPECT_EQ(r.estado, 200);
  EXPECT_EQ(textos(r.cuerpo, "np").size(), 48);
  EXPECT_EQ(simulador.peticiones().size(), 3);
}

TEST(SimuladorOvc, ResetsTheConnectionOfTheFirstRequestsWhenAsked) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador({"--cortar", "1"});
  // A plain socket, to tell a reset from an orderly close.
  const int s = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(s, 0);
  sockaddr_in destino{};
  destino.sin_family = AF_INET;
  destino.sin_port = htons(puertoDe(simulador.url()));
  destino.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(s, reinterpret_cast<sockaddr*>(&destino), sizeof destino), 0);
  const timeval plazo{10, 0};
  ::setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &plazo, sizeof plazo);
  const QByteArray peticion = peticionHttp(
      simulador.url(), "User-Agent: prueba\r\nSOAPAction: " + QByteArray(kAccion) + "ConsultaProvincia\r\n", sobre({}));
  ASSERT_EQ(::send(s, peticion.constData(), size_t(peticion.size()), 0), peticion.size());
  char byte;
  const ssize_t leidos = ::recv(s, &byte, 1, 0);
  const int error = errno;
  ::close(s);
  EXPECT_EQ(leidos, -1);
  EXPECT_EQ(error, ECONNRESET);
  // Only the first one.
  EXPECT_EQ(provincias(simulador.url()).estado, 200);
}

TEST(SimuladorOvc, CountsMoreEntriesThanListedWhenAsked) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador({"--cuenta-extra", "3"});
  Respuesta r = provincias(simulador.url());
  EXPECT_EQ(texto(r.cuerpo, "cuprov"), "51");
  EXPECT_EQ(textos(r.cuerpo, "prov").size(), 48);
  r = municipios(simulador.url(), "CEUTA");
  EXPECT_EQ(texto(r.cuerpo, "cumun"), "4");
  EXPECT_EQ(textos(r.cuerpo, "muni").size(), 1);
  r = calles(simulador.url(), "CEUTA", "CEUTA");
  EXPECT_EQ(texto(r.cuerpo, "cuca").toInt(), textos(r.cuerpo, "calle").size() + 3);
}

TEST(SimuladorOvc, CutsTheAnswerInTheMiddleWhenAsked) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador({"--truncado"});
  const Respuesta r = provincias(simulador.url());
  EXPECT_EQ(r.error, QNetworkReply::NoError);
  EXPECT_EQ(r.estado, 200);
  EXPECT_EQ(r.largo, QByteArray::number(r.cuerpo.size()));
  EXPECT_GT(r.cuerpo.size(), 1000);
  EXPECT_TRUE(r.cuerpo.startsWith("<?xml"));
  EXPECT_FALSE(bienFormado(r.cuerpo));
}

TEST(SimuladorOvc, AnswersAnHtmlPageWhenAsked) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador({"--html"});
  const Respuesta r = provincias(simulador.url());
  EXPECT_EQ(r.estado, 200);
  EXPECT_TRUE(r.tipo.startsWith("text/html"));
  EXPECT_TRUE(QString::fromUtf8(r.cuerpo).contains(QString::fromUtf8("Sistema no disponible. Inténtelo más tarde.")));
}

TEST(SimuladorOvc, StreamsAnEndlessStreetListWithoutLengthWhenAsked) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador({"--enorme", "2"});
  const Respuesta r = calles(simulador.url(), "CEUTA", "CEUTA");
  EXPECT_EQ(r.estado, 200);
  EXPECT_TRUE(r.largo.isNull());
  EXPECT_GE(r.cuerpo.size(), 2 * 1024 * 1024);
  EXPECT_TRUE(r.cuerpo.contains("<Callejero xmlns=\"http://www.catastro.meh.es/\"><consulta_callejero"));
  EXPECT_GT(r.cuerpo.count("<calle>"), 5000);
}

TEST(SimuladorOvc, DeclaresAnEntityBombOrAnExternalEntityWhenAsked) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  {
    SimuladorOvc simulador({"--bomba"});
    const Respuesta r = calles(simulador.url(), "CEUTA", "CEUTA");
    EXPECT_EQ(r.estado, 200);
    EXPECT_TRUE(r.cuerpo.startsWith("<?xml version=\"1.0\" encoding=\"utf-8\"?><!DOCTYPE soap:Envelope ["));
    EXPECT_TRUE(r.cuerpo.contains("<!ENTITY lol9 \"&lol8;&lol8;"));
    EXPECT_TRUE(r.cuerpo.contains("<nv>&lol9;</nv>"));
  }
  SimuladorOvc simulador({"--entidad-externa"});
  const Respuesta r = municipios(simulador.url(), "CEUTA");
  EXPECT_TRUE(r.cuerpo.contains("<!ENTITY x SYSTEM \"file:///etc/passwd\">"));
  EXPECT_TRUE(r.cuerpo.contains("<nm>&x;</nm>"));
}

TEST(SimuladorOvc, NamesMunicipalitiesLikePathsWhenAsked) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador({"--nombres-peligrosos"});
  const QStringList peligrosos{"../../FUERA", "..\\..\\FUERA", "A/B", "A\\B", "..", "CON:NUL"};
  Respuesta r = municipios(simulador.url(), "MADRID");
  EXPECT_EQ(textos(r.cuerpo, "nm"), peligrosos);
  EXPECT_EQ(textos(r.cuerpo, "cp").value(0), "28");
  r = calles(simulador.url(), "MADRID", "../../FUERA");
  EXPECT_EQ(r.estado, 200);
  const QStringList vias = textos(r.cuerpo, "nv");
  EXPECT_TRUE(vias.contains("A/B"));
  EXPECT_EQ(texto(r.cuerpo, "cuca"), QString::number(vias.size()));
}

TEST(SimuladorOvc, PutsANulByteInAMunicipalityNameWhenAsked) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador({"--nul"});
  const Respuesta r = municipios(simulador.url(), "CEUTA");
  EXPECT_EQ(r.estado, 200);
  EXPECT_TRUE(r.cuerpo.contains(QByteArray("<nm>C\0EUTA</nm>", 15)));
  EXPECT_FALSE(bienFormado(r.cuerpo));
}

TEST(SimuladorOvc, WaitsBeforeAnsweringWhenAsked) {
  SIN_DATOS_COMPARTIDOS_SALTA();
  SimuladorOvc simulador({"--lento", "300"});
  QElapsedTimer reloj;
  reloj.start();
  EXPECT_EQ(provincias(simulador.url()).estado, 200);
  EXPECT_GE(reloj.elapsed(), 300);
}
