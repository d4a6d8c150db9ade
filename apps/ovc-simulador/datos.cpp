#include "datos.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QXmlStreamReader>
#include <algorithm>
#include <array>
#include <cstdint>
#include <set>
#include <utility>

#include "azar.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"
#include "dbase/core/path.h"

namespace simulador {

QString Municipio::codigoIne() const {
  return QStringLiteral("%1%2").arg(cp.toInt(), 2, 10, QChar('0')).arg(cm.toInt(), 3, 10, QChar('0'));
}

namespace {

// The provinces as the service names them, each with its capital (or main
// town) as the one municipality of the built-in list; codes as served.
struct ProvinciaPropia {
  const char* cpine;
  const char* nombre;
  struct {
    const char* nm;
    const char* cd;
    const char* cmc;
    const char* cp;
    const char* cm;
  } capital;
};
const ProvinciaPropia kProvinciasPropias[] = {
    {"15", "A CORUÑA", {"A CORUÑA", "15", "900", "15", "30"}},
    {"03", "ALACANT", {"ALICANTE/ALACANT", "3", "900", "3", "14"}},
    {"02", "ALBACETE", {"ALBACETE", "2", "900", "2", "3"}},
    {"04", "ALMERIA", {"ALMERIA", "4", "900", "4", "13"}},
    {"33", "ASTURIAS", {"OVIEDO", "33", "900", "33", "44"}},
    {"05", "AVILA", {"AVILA", "5", "900", "5", "19"}},
    {"06", "BADAJOZ", {"BADAJOZ", "6", "900", "6", "15"}},
    {"08", "BARCELONA", {"BARCELONA", "8", "900", "8", "19"}},
    {"09", "BURGOS", {"BURGOS", "9", "900", "9", "59"}},
    {"10", "CACERES", {"CACERES", "10", "900", "10", "37"}},
    {"11", "CADIZ", {"CADIZ", "11", "900", "11", "12"}},
    {"39", "CANTABRIA", {"SANTANDER", "39", "900", "39", "75"}},
    {"12", "CASTELLO", {"CASTELLO DE LA PLANA", "12", "900", "12", "40"}},
    {"51", "CEUTA", {"CEUTA", "55", "101", "51", "1"}},
    {"13", "CIUDAD REAL", {"CIUDAD REAL", "13", "900", "13", "34"}},
    {"14", "CORDOBA", {"CORDOBA", "14", "900", "14", "21"}},
    {"16", "CUENCA", {"CUENCA", "16", "900", "16", "78"}},
    {"17", "GIRONA", {"GIRONA", "17", "85", "17", "79"}},
    {"18", "GRANADA", {"GRANADA", "18", "900", "18", "87"}},
    {"19", "GUADALAJARA", {"GUADALAJARA", "19", "900", "19", "130"}},
    {"21", "HUELVA", {"HUELVA", "21", "900", "21", "41"}},
    {"22", "HUESCA", {"HUESCA", "22", "901", "22", "125"}},
    {"07", "ILLES BALEARS", {"PALMA DE MALLORCA", "7", "40", "7", "40"}},
    {"23", "JAEN", {"JAEN", "23", "900", "23", "50"}},
    {"26", "LA RIOJA", {"LOGROÑO", "26", "900", "26", "89"}},
    {"35", "LAS PALMAS", {"LAS PALMAS DE GRAN CANARIA", "35", "17", "35", "16"}},
    {"24", "LEON", {"LEON", "24", "900", "24", "89"}},
    {"25", "LLEIDA", {"LLEIDA", "25", "900", "25", "120"}},
    {"27", "LUGO", {"LUGO", "27", "900", "27", "28"}},
    {"28", "MADRID", {"MADRID", "28", "900", "28", "79"}},
    {"29", "MALAGA", {"MALAGA", "29", "900", "29", "67"}},
    {"52", "MELILLA", {"MELILLA", "56", "101", "52", "1"}},
    {"30", "MURCIA", {"MURCIA", "30", "30", "30", "30"}},
    {"32", "OURENSE", {"OURENSE", "32", "900", "32", "54"}},
    {"34", "PALENCIA", {"PALENCIA", "34", "900", "34", "120"}},
    {"36", "PONTEVEDRA", {"PONTEVEDRA", "36", "900", "36", "38"}},
    {"38", "S.C. TENERIFE", {"SANTA CRUZ TENERIFE", "38", "900", "38", "38"}},
    {"37", "SALAMANCA", {"SALAMANCA", "37", "900", "37", "274"}},
    {"40", "SEGOVIA", {"SEGOVIA", "40", "900", "40", "194"}},
    {"41", "SEVILLA", {"SEVILLA", "41", "900", "41", "91"}},
    {"42", "SORIA", {"SORIA", "42", "900", "42", "173"}},
    {"43", "TARRAGONA", {"TARRAGONA", "43", "900", "43", "148"}},
    {"44", "TERUEL", {"TERUEL", "44", "900", "44", "216"}},
    {"45", "TOLEDO", {"TOLEDO", "45", "900", "45", "168"}},
    {"46", "VALENCIA", {"VALENCIA", "46", "900", "46", "250"}},
    {"47", "VALLADOLID", {"VALLADOLID", "47", "900", "47", "186"}},
    {"49", "ZAMORA", {"ZAMORA", "49", "900", "49", "275"}},
    {"50", "ZARAGOZA", {"ZARAGOZA", "50", "900", "50", "297"}},
};

QByteArray leeFichero(const QString& ruta) {
  QFile f(ruta);
  if (!f.open(QIODevice::ReadOnly))
    throw ErrorDeDatos(QDir::toNativeSeparators(ruta).toStdString() + ": no se puede leer: " + f.errorString().toStdString());
  return f.readAll();
}

// The document after its XML declaration (and a byte-order mark).
QByteArray sinDeclaracion(const QByteArray& bytes) {
  qsizetype inicio = bytes.startsWith("\xEF\xBB\xBF") ? 3 : 0;
  if (bytes.mid(inicio, 5) == "<?xml") {
    const qsizetype fin = bytes.indexOf("?>", inicio);
    if (fin < 0) return bytes.mid(inicio);
    inicio = fin + 2;
  }
  while (inicio < bytes.size() && (bytes[inicio] == '\r' || bytes[inicio] == '\n' || bytes[inicio] == ' ' ||
                                   bytes[inicio] == '\t'))
    ++inicio;
  return bytes.mid(inicio);
}

[[noreturn]] void malFormado(const QString& ruta, const QXmlStreamReader& xml) {
  throw ErrorDeDatos(QDir::toNativeSeparators(ruta).toStdString() + ": XML no válido en la línea " +
                     std::to_string(xml.lineNumber()) + ": " + xml.errorString().toStdString());
}

// The newest recording in the folder: the last name in order that matches.
QString ultimo(const QDir& carpeta, const QString& patron, QDir::Filters filtro) {
  const QStringList nombres = carpeta.entryList({patron}, filtro, QDir::Name);
  return nombres.isEmpty() ? QString() : carpeta.filePath(nombres.last());
}

}  // namespace

Datos::Datos(const QString& carpetaOvc, const QString& carpetaCalles) : carpetaCalles_(carpetaCalles) {
  if (!carpetaCalles_.isEmpty() && !dbase::directoryExistsCaseInsensitive(carpetaCalles_.toStdString()))
    throw ErrorDeDatos("--calles: no existe la carpeta " + carpetaCalles_.toStdString());
  if (carpetaOvc.isEmpty()) {
    usaListaPropia();
    return;
  }
  const QDir carpeta(carpetaOvc);
  if (!carpeta.exists()) throw ErrorDeDatos("--ovc: no existe la carpeta " + carpetaOvc.toStdString());
  const QString provincias = ultimo(carpeta, "ConsultaProvincia*.xml", QDir::Files);
  if (provincias.isEmpty())
    throw ErrorDeDatos("--ovc: " + carpetaOvc.toStdString() + " no tiene ningún ConsultaProvincia-AAAA.xml");
  leeProvincias(provincias);
  // municipios-2017 beside ConsultaProvincia-2017.xml, or else the newest.
  const QString anio = QFileInfo(provincias).completeBaseName().section('-', 1);
  QString municipios = anio.isEmpty() ? QString() : carpeta.filePath("municipios-" + anio);
  if (municipios.isEmpty() || !QDir(municipios).exists())
    municipios = ultimo(carpeta, "municipios*", QDir::Dirs | QDir::NoDotAndDotDot);
  if (municipios.isEmpty())
    throw ErrorDeDatos("--ovc: " + carpetaOvc.toStdString() + " no tiene ninguna carpeta municipios-AAAA");
  indexaMunicipios(municipios);
}

void Datos::leeProvincias(const QString& fichero) {
  const QByteArray bytes = leeFichero(fichero);
  QXmlStreamReader xml(bytes);
  Provincia actual;
  QString dentro;
  while (!xml.atEnd()) {
    xml.readNext();
    if (xml.isStartElement()) {
      dentro = xml.name().toString();
      if (dentro == u"prov") actual = Provincia();
    } else if (xml.isCharacters() && !xml.isWhitespace()) {
      if (dentro == u"cpine") actual.cpine += xml.text();
      if (dentro == u"np") actual.nombre += xml.text();
    } else if (xml.isEndElement()) {
      if (xml.name() == u"prov") {
        if (actual.cpine.isEmpty() || actual.nombre.isEmpty())
          throw ErrorDeDatos(fichero.toStdString() + ": una provincia sin cpine o sin np");
        provincias_.append(actual);
      }
      dentro.clear();
    }
  }
  if (xml.hasError()) malFormado(fichero, xml);
  if (provincias_.isEmpty()) throw ErrorDeDatos(fichero.toStdString() + ": no tiene ninguna provincia");
  documentoProvincias_ = sinDeclaracion(bytes);
}

void Datos::indexaMunicipios(const QString& carpeta) {
  static const QRegularExpression nombre("^(\\d{1,2})\\D.*\\.xml$", QRegularExpression::CaseInsensitiveOption);
  const QDir dir(carpeta);
  for (const QString& f : dir.entryList(QDir::Files, QDir::Name)) {
    const auto m = nombre.match(f);
    if (m.hasMatch()) ficherosMunicipios_[m.captured(1).toInt()] = dir.filePath(f);
  }
}

void Datos::usaListaPropia() {
  for (const ProvinciaPropia& p : kProvinciasPropias) {
    provincias_.append(Provincia{QString::fromUtf8(p.cpine), QString::fromUtf8(p.nombre)});
    const auto& c = p.capital;
    municipios_[provincias_.last().codigo()] = {Municipio{QString::fromUtf8(c.nm), c.cd, c.cmc, c.cp, c.cm}};
  }
}

const Provincia* Datos::provincia(const QString& nombre) const {
  for (const Provincia& p : provincias_)
    if (p.nombre == nombre) return &p;
  return nullptr;
}

const QList<Municipio>& Datos::municipios(const Provincia& provincia) {
  const int codigo = provincia.codigo();
  if (auto hecho = municipios_.find(codigo); hecho != municipios_.end()) return hecho->second;
  QList<Municipio> lista;
  if (auto f = ficherosMunicipios_.find(codigo); f != ficherosMunicipios_.end()) {
    QXmlStreamReader xml(leeFichero(f->second));
    Municipio actual;
    QStringList ruta;  // names of the open elements
    while (!xml.atEnd()) {
      xml.readNext();
      if (xml.isStartElement()) {
        ruta.append(xml.name().toString());
        if (ruta.last() == u"muni") actual = Municipio();
      } else if (xml.isCharacters() && !xml.isWhitespace() && ruta.size() >= 2) {
        const QString& campo = ruta.last();
        const QString& padre = ruta[ruta.size() - 2];
        if (campo == u"nm") actual.nombre += xml.text();
        else if (padre == u"locat" && campo == u"cd") actual.cd += xml.text();
        else if (padre == u"locat" && campo == u"cmc") actual.cmc += xml.text();
        else if (padre == u"loine" && campo == u"cp") actual.cp += xml.text();
        else if (padre == u"loine" && campo == u"cm") actual.cm += xml.text();
      } else if (xml.isEndElement()) {
        if (ruta.last() == u"muni") lista.append(actual);
        ruta.removeLast();
      }
    }
    if (xml.hasError()) malFormado(f->second, xml);
  }
  return municipios_[codigo] = lista;
}

namespace {

// Reads the streets of one table whose COD_INE is `ine` into `pares`
// (name, type).
void leeCalles(const std::string& ruta, const std::string& ine, std::set<std::pair<QString, QString>>& pares) {
  const auto tabla = dbase::DbfFile::open(ruta);
  const int via = tabla->fieldIndex("VIA"), tipo = tabla->fieldIndex("TIPO_VIA"), codigo = tabla->fieldIndex("COD_INE");
  if (via < 0 || tipo < 0 || codigo < 0)
    throw ErrorDeDatos(tabla->name() + ": le falta alguno de los campos VIA, TIPO_VIA y COD_INE");
  const auto& campos = tabla->fields();
  for (uint32_t n = 1; n <= tabla->recordCount(); ++n) {
    if (tabla->isDeleted(n)) continue;
    const char* fila = tabla->record(n);
    if (dbase::trimBlanks(dbase::fieldBytes(campos[codigo], fila)) != ine) continue;
    const QString nombre = QString::fromStdString(dbase::fieldText(campos[via], fila, tabla->codePage())).trimmed();
    if (nombre.isEmpty()) continue;
    pares.emplace(nombre, QString::fromStdString(dbase::fieldText(campos[tipo], fila, tabla->codePage())).trimmed());
  }
}

}  // namespace

QList<Calle> Datos::calles(const Municipio& municipio) const {
  std::set<std::pair<QString, QString>> pares;
  if (!carpetaCalles_.isEmpty()) {
    const std::string ine = municipio.codigoIne().toStdString();
    const std::string carpeta = carpetaCalles_.toStdString();
    for (const std::string& ruta : {carpeta + "/POSTAL.DBF", carpeta + "/Postales/POSTAL" + ine.substr(0, 2) + ".DBF"})
      if (dbase::fileExistsCaseInsensitive(ruta)) leeCalles(dbase::resolvePathCaseInsensitive(ruta), ine, pares);
  }
  if (pares.empty()) return callesInventadas(municipio.nombre);
  QList<Calle> lista;
  for (const auto& [nombre, tipo] : pares) lista.append(Calle{QString::number(lista.size() + 1), tipo, nombre});
  return lista;
}

namespace {

// Street names as the cadastre writes them: upper case, articles moved to
// the end, some abbreviated.
const char* const kNombresDeCalle[] = {
    "ACACIAS",          "ALAMEDA",          "ALTA",           "ANCHA",          "ARRABAL",
    "AYUNTAMIENTO",     "BAJA",             "BODEGAS",        "CALVARIO",       "CALZADA,LA",
    "CAÑADA REAL",      "CARRETERA",        "CASTILLO",       "CEMENTERIO",     "CERRO",
    "CERVANTES",        "CONSTITUCION",     "CRUZ",           "ERAS,LAS",       "ERMITA",
    "ESCUELAS",         "ESPAÑA",           "ESTACION",       "FUENTE",         "HORNO",
    "HUERTAS",          "IGLESIA",          "LARGA",          "LAVADERO",       "LLANO",
    "MADRID DE",        "MAYOR",            "MERCADO",        "MOLINO",         "NUESTRA SEÑORA D LA OLIVA",
    "NUEVA",            "OLIVOS",           "PALOMAR",        "PINAR",          "PORTILLO",
    "PRADO",            "PUENTE",           "RAMON Y CAJAL",  "REAL",           "RIO",
    "ROSALES",          "SAN JUAN",         "SAN PEDRO",      "SAN ROQUE",      "SANTA ANA",
    "SANTIAGO",         "SOL",              "TEJERA",         "VIRGEN DEL CARMEN", "VIÑAS",
};
const char* const kTiposDeVia[] = {"CL", "AV", "PZ", "CM", "TR", "PS"};

}  // namespace

QList<Calle> callesInventadas(const QString& municipio) {
  constexpr size_t kNombres = std::size(kNombresDeCalle);
  static_assert(kNombres >= 40, "hacen falta al menos 40 nombres distintos");
  const QByteArray clave = municipio.trimmed().toUtf8();
  Azar s(fnv1a(std::string_view(clave.constData(), size_t(clave.size()))));
  const size_t cuantas = 3 + s.menor(38);
  std::array<size_t, kNombres> orden;
  for (size_t i = 0; i < kNombres; ++i) orden[i] = i;
  for (size_t i = 0; i < cuantas; ++i) std::swap(orden[i], orden[i + s.menor(kNombres - i)]);
  std::vector<std::pair<QString, QString>> pares;
  for (size_t i = 0; i < cuantas; ++i)
    pares.emplace_back(QString::fromUtf8(kNombresDeCalle[orden[i]]),
                       QString::fromUtf8(kTiposDeVia[s.menor(std::size(kTiposDeVia))]));
  std::sort(pares.begin(), pares.end());
  QList<Calle> lista;
  for (const auto& [nombre, tipo] : pares) lista.append(Calle{QString::number(lista.size() + 1), tipo, nombre});
  return lista;
}

QStringList nombresPeligrosos() {
  return {"../../FUERA", "..\\..\\FUERA", "A/B", "A\\B", "..", "CON:NUL"};
}

QList<Municipio> municipiosPeligrosos(const Provincia& provincia) {
  const QString cp = QString::number(provincia.codigo());
  QList<Municipio> lista;
  int cm = 901;
  for (const QString& nombre : nombresPeligrosos()) {
    lista.append(Municipio{nombre, cp, QString::number(cm), cp, QString::number(cm)});
    ++cm;
  }
  return lista;
}

}  // namespace simulador
