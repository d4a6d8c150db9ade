#include "import/guarda_comun.h"

#include <sys/stat.h>

#include <QApplication>
#include <QComboBox>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QPushButton>
#include <QRadioButton>
#include <QTest>

#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"
#include "dbase/TTable.h"
#include "platform/TStringGrid.h"
#include "support/referencia.h"

using namespace testsupport;

namespace guarda {

Row calleImportada(const std::string& via, const std::string& tipo, const std::string& cp, const std::string& municipio,
                   const std::string& ine, const std::string& codigo, const std::string& provincia) {
  std::string minusculas = QString::fromStdString(via).toLower().toStdString();
  return {via, tipo, "1", "9999", "2", "9998", cp, "9", provincia, municipio, ine, minusculas, codigo};
}

void anadeFilas(const std::string& ruta, const std::vector<Row>& filas) {
  auto tabla = dbase::DbfFile::open(ruta);
  std::string registros;
  for (const Row& fila : filas) {
    std::string registro = tabla->blankRecord();
    for (size_t i = 0; i < fila.size() && i < tabla->fields().size(); ++i)
      dbase::setFieldText(tabla->fields()[i], registro.data(), fila[i], tabla->codePage(), ruta);
    registros += registro;
  }
  tabla->appendMany(registros);
}

FilasPorTamano::FilasPorTamano(std::string ruta) : ruta_(std::move(ruta)) {
  const std::string cabecera = testsupport::readFile(ruta_).substr(0, 12);
  cabecera_ = uint8_t(cabecera[8]) | uint8_t(cabecera[9]) << 8;
  registro_ = uint8_t(cabecera[10]) | uint8_t(cabecera[11]) << 8;
}

int FilasPorTamano::operator()() const {
  struct stat st {};
  const uint64_t tamano = stat(ruta_.c_str(), &st) == 0 ? uint64_t(st.st_size) : 0;
  return tamano > cabecera_ ? int((tamano - cabecera_) / registro_) : 0;
}

std::vector<Fila> leeTabla(const std::string& ruta) {
  const size_t barra = ruta.rfind('/');
  TTable tabla;
  tabla.SetDatabaseName(QString::fromStdString(ruta.substr(0, barra)));
  tabla.SetTableName(QString::fromStdString(ruta.substr(barra + 1)));
  tabla.Open();
  const QStringList campos = tabla.FieldNames();
  std::vector<Fila> filas;
  for (tabla.First(); !tabla.Eof(); tabla.Next()) {
    Fila fila;
    for (const QString& campo : campos) fila[campo] = tabla.FieldByName(campo)->AsString();
    filas.push_back(fila);
  }
  return filas;
}

std::vector<Fila> leeConDbfread(const std::string& ruta, std::string& error) {
  // Values as text: numbers as Python writes integers, blanks as "".
  static const char* kGuion = R"(
import json, sys, dbfread
tabla = dbfread.DBF(sys.argv[1], encoding="cp850", char_decode_errors="strict")
def texto(v):
    if v is None: return ""
    if isinstance(v, float) and v.is_integer(): v = int(v)
    return str(v)
print(json.dumps([{k: texto(v) for k, v in fila.items()} for fila in tabla], ensure_ascii=False))
)";
  QProcess python;
  python.start(QStringLiteral("/usr/bin/python3"),
               {QStringLiteral("-c"), QString::fromUtf8(kGuion), QString::fromStdString(ruta)});
  if (!python.waitForFinished(60000) || python.exitStatus() != QProcess::NormalExit || python.exitCode() != 0) {
    error = "python3-dbfread no ha podido leer " + ruta + ": " + python.readAllStandardError().toStdString();
    return {};
  }
  std::vector<Fila> filas;
  for (const QJsonValue& valor : QJsonDocument::fromJson(python.readAllStandardOutput()).array()) {
    Fila fila;
    const QJsonObject objeto = valor.toObject();
    for (auto it = objeto.begin(); it != objeto.end(); ++it) fila[it.key()] = it.value().toString();
    filas.push_back(fila);
  }
  return filas;
}

std::string rutaCodpostales() { return CODPOSTALES_BINARY_DIR "/bin/codpostales"; }

Ejecucion ejecutaImportar(const QStringList& args) {
  QProcess proceso;
  proceso.start(QString::fromStdString(rutaCodpostales()), QStringList{QStringLiteral("importar")} + args);
  Ejecucion e;
  if (!proceso.waitForFinished(120000)) {
    proceso.kill();
    proceso.waitForFinished();
    return e;
  }
  if (proceso.exitStatus() == QProcess::NormalExit) e.salida = proceso.exitCode();
  e.out = proceso.readAllStandardOutput().toStdString();
  e.err = proceso.readAllStandardError().toStdString();
  return e;
}

QByteArray respuestaDeVias(const QList<std::pair<QString, QString>>& calles) {
  // No blanks between the wrapper elements: the reader walks first children.
  QString xml =
      QStringLiteral(
          "<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope "
          "xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body><Callejero "
          "xmlns=\"http://www.catastro.meh.es/\"><consulta_callejero><control><cuca>%1</cuca></control><callejero>")
          .arg(calles.size());
  int cv = 0;
  for (const auto& [tipo, nombre] : calles)
    xml += QStringLiteral(
               "<calle><loine><cp>28</cp><cm>79</cm></loine><dir><cv>%1</cv><tv>%2</tv><nv>%3</nv></dir></calle>")
               .arg(++cv)
               .arg(tipo.toHtmlEscaped(), nombre.toHtmlEscaped());
  xml += QStringLiteral("</callejero></consulta_callejero></Callejero></soap:Body></soap:Envelope>");
  return xml.toUtf8();
}

GuardaViasTest::GuardaViasTest() {
  OpcionesReferencia opciones;
  opciones.postales = false;  // one street file, POSTAL.DBF, for every province
  escribeJuegoDeReferencia(dir.path(), opciones);
  anadeFilas(dir.file("MUNICIPI.DBF"), {{"28065", "28902", "N", "N", "GETAFE", "28", "0065", "065", "F"},
                                        {"28065", "28903", "N", "N", "GETAFE", "28", "0065", "065", "F"},
                                        {"08900", "08901", "N", "N", "SOBRADO", "08", "0900", "900", "F"},
                                        {"08900", "08902", "N", "N", "SOBRADO", "08", "0900", "900", "F"}});
  presentador.emplace(&mensajes);
}

GuardaViasTest::~GuardaViasTest() {
  dialogo.reset();
  controlador.reset();
  anfitrion.reset();
}

void GuardaViasTest::escribeCalles(const std::vector<Row>& filas) {
  makeTable(dir.path(), "POSTAL.DBF", camposCalle(), filas);
}

void GuardaViasTest::abre() {
  anfitrion = std::make_unique<QWidget>();
  controlador = std::make_unique<TClaseCodPostales>(nullptr, QString::fromStdString(dir.path()), true, QString());
  dialogo = std::make_unique<TFImportarVias>(anfitrion.get(), controlador.get());
  dialogo->show();
  QApplication::setActiveWindow(dialogo.get());
  (void)QTest::qWaitForWindowActive(dialogo.get());
  QApplication::processEvents();
}

void GuardaViasTest::modo(int n) {
  QRadioButton* botones[] = {dialogo->RBMasDeUno, dialogo->RBUno, dialogo->RBTodosConUno};
  botones[n - 1]->setChecked(true);
}

void GuardaViasTest::elige(const QString& provincia, const QString& municipio) {
  const int p = dialogo->Indice(dialogo->CBProvinciasZelmor, provincia);
  ASSERT_GE(p, 0) << provincia.toStdString();
  dialogo->CBProvinciasZelmor->setCurrentIndex(p);
  dialogo->CBProvinciasZelmorExit(dialogo->CBProvinciasZelmor);
  const int m = dialogo->Indice(dialogo->CBMunicipiosZelmor, municipio);
  ASSERT_GE(m, 0) << municipio.toStdString();
  dialogo->CBMunicipiosZelmor->setCurrentIndex(m);
  QApplication::processEvents();
  mensajes.limpia();
}

void GuardaViasTest::rejilla(const QList<QStringList>& filas) {
  dialogo->SGVias->SetRowCount(int(filas.size()) + 1);
  for (int f = 0; f < filas.size(); ++f)
    for (int c = 0; c < filas[f].size(); ++c) dialogo->SGVias->SetCells(c, f + 1, filas[f][c]);
}

void GuardaViasTest::pulsaGuardar() {
  QTest::mouseClick(dialogo->advGBGuardarPorMunicipio, Qt::LeftButton);
  QApplication::processEvents();
}

}  // namespace guarda
