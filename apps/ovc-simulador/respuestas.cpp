#include "respuestas.h"

#include <QXmlStreamReader>
#include <algorithm>
#include <tuple>

namespace simulador {

namespace {

constexpr char kEspacioSoap[] = "http://schemas.xmlsoap.org/soap/envelope/";
constexpr char kEspacioSoap12[] = "http://www.w3.org/2003/05/soap-envelope";

constexpr char kDeclaracion[] = "<?xml version=\"1.0\" encoding=\"utf-8\"?>";
constexpr char kAbreSobre[] =
    "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\">"
    "<soap:Body>";
constexpr char kCierraSobre[] = "</soap:Body></soap:Envelope>";

// Text as element content: markup characters escaped, and characters XML 1.0
// cannot hold at all dropped, so a stray byte in a table never makes the
// answer ill-formed by accident.
QByteArray escapa(const QString& texto) {
  QString limpio;
  limpio.reserve(texto.size());
  for (QChar c : texto) {
    const char16_t u = c.unicode();
    if (u < 0x20 && u != '\t' && u != '\n' && u != '\r') continue;
    if (u == 0xFFFE || u == 0xFFFF) continue;
    if (u == '&') limpio += u"&amp;";
    else if (u == '<') limpio += u"&lt;";
    else if (u == '>') limpio += u"&gt;";
    else limpio += c;
  }
  return limpio.toUtf8();
}

// The layout of the service's documents: two-space indentation, LF line
// ends, the namespace on the root only, no final newline.
class Documento {
 public:
  explicit Documento(const char* raiz) : raiz_(raiz) {
    bytes_ += '<';
    bytes_ += raiz;
    bytes_ += " xmlns=\"";
    bytes_ += kEspacioCatastro;
    bytes_ += "\">";
    nivel_ = 1;
  }
  void abre(const char* nombre) {
    salto();
    bytes_ += '<';
    bytes_ += nombre;
    bytes_ += '>';
    ++nivel_;
  }
  void cierra(const char* nombre) {
    --nivel_;
    salto();
    bytes_ += "</";
    bytes_ += nombre;
    bytes_ += '>';
  }
  void hoja(const char* nombre, const QString& texto) {
    salto();
    bytes_ += '<';
    bytes_ += nombre;
    bytes_ += '>';
    bytes_ += escapa(texto);
    bytes_ += "</";
    bytes_ += nombre;
    bytes_ += '>';
  }
  QByteArray termina() {
    bytes_ += "\n</";
    bytes_ += raiz_;
    bytes_ += '>';
    return bytes_;
  }

 private:
  void salto() {
    bytes_ += '\n';
    bytes_ += QByteArray(2 * nivel_, ' ');
  }
  const char* raiz_;
  QByteArray bytes_;
  int nivel_ = 0;
};

QByteArray documentoDeError(const char* raiz, int codigo, const char* descripcion) {
  Documento d(raiz);
  d.abre("control");
  d.hoja("cuerr", "1");
  d.cierra("control");
  d.abre("lerr");
  d.abre("err");
  d.hoja("cod", QString::number(codigo));
  d.hoja("des", QString::fromUtf8(descripcion));
  d.cierra("err");
  d.cierra("lerr");
  return d.termina();
}

QByteArray documentoDeProvincias(const Datos& datos, int cuentaExtra) {
  QByteArray grabado = datos.documentoProvincias();
  const QByteArray cuenta = QByteArray::number(datos.provincias().size() + cuentaExtra);
  if (!grabado.isEmpty()) {
    // The recorded bytes as they stand; only the count may change.
    if (cuentaExtra != 0) {
      const qsizetype abre = grabado.indexOf("<cuprov>");
      const qsizetype cierra = grabado.indexOf("</cuprov>", abre);
      if (abre >= 0 && cierra > abre) grabado.replace(abre + 8, cierra - abre - 8, cuenta);
    }
    return grabado;
  }
  Documento d("consulta_provinciero");
  d.abre("control");
  d.hoja("cuprov", QString::fromLatin1(cuenta));
  d.cierra("control");
  d.abre("provinciero");
  for (const Provincia& p : datos.provincias()) {
    d.abre("prov");
    d.hoja("cpine", p.cpine);
    d.hoja("np", p.nombre);
    d.cierra("prov");
  }
  d.cierra("provinciero");
  return d.termina();
}

QByteArray documentoDeMunicipios(const QList<Municipio>& municipios, const Ajustes& ajustes) {
  Documento d("consulta_municipiero");
  d.abre("control");
  d.hoja("cumun", QString::number(municipios.size() + ajustes.cuentaExtra));
  d.cierra("control");
  d.abre("municipiero");
  for (const Municipio& m : municipios) {
    d.abre("muni");
    d.hoja("nm", m.nombre);
    d.abre("locat");
    d.hoja("cd", m.cd);
    d.hoja("cmc", m.cmc);
    d.cierra("locat");
    d.abre("loine");
    d.hoja("cp", m.cp);
    d.hoja("cm", m.cm);
    d.cierra("loine");
    d.cierra("muni");
  }
  d.cierra("municipiero");
  QByteArray bytes = d.termina();
  if (ajustes.nul && !municipios.isEmpty()) {
    // After the first character of the first name: a byte no XML may hold.
    qsizetype p = bytes.indexOf("<nm>") + 4;
    if (p < bytes.size() && bytes[p] != '<') {
      ++p;
      while (p < bytes.size() && (uchar(bytes[p]) & 0xC0) == 0x80) ++p;
    }
    bytes.insert(p, '\0');
  }
  return bytes;
}

QByteArray documentoDeCalles(const Municipio& municipio, const QList<Calle>& calles, int cuentaExtra) {
  Documento d("consulta_callejero");
  d.abre("control");
  d.hoja("cuca", QString::number(calles.size() + cuentaExtra));
  d.cierra("control");
  d.abre("callejero");
  for (const Calle& c : calles) {
    d.abre("calle");
    d.abre("loine");
    d.hoja("cp", municipio.cp);
    d.hoja("cm", municipio.cm);
    d.cierra("loine");
    d.abre("dir");
    d.hoja("cv", c.codigo);
    d.hoja("tv", c.tipo);
    d.hoja("nv", c.nombre);
    d.cierra("dir");
    d.cierra("calle");
  }
  d.cierra("callejero");
  return d.termina();
}

const Municipio* buscaMunicipio(const QList<Municipio>& lista, const QString& nombre) {
  for (const Municipio& m : lista)
    if (m.nombre == nombre) return &m;
  return nullptr;
}

QList<Calle> callesDe(Datos& datos, const Municipio& municipio, const Consulta& consulta, const Ajustes& ajustes) {
  QList<Calle> calles = datos.calles(municipio);
  if (ajustes.nombresPeligrosos) {
    for (const QString& nombre : nombresPeligrosos()) calles.append(Calle{QString(), "CL", nombre});
    std::sort(calles.begin(), calles.end(),
              [](const Calle& a, const Calle& b) { return std::tie(a.nombre, a.tipo) < std::tie(b.nombre, b.tipo); });
    for (qsizetype i = 0; i < calles.size(); ++i) calles[i].codigo = QString::number(i + 1);
  }
  const QString tipo = consulta.tipoVia.trimmed();
  const QString nombre = consulta.nombreVia.trimmed();
  if (tipo.isEmpty() && nombre.isEmpty()) return calles;
  QList<Calle> quedan;
  for (const Calle& c : calles)
    if ((tipo.isEmpty() || c.tipo.compare(tipo, Qt::CaseInsensitive) == 0) &&
        (nombre.isEmpty() || c.nombre.contains(nombre, Qt::CaseInsensitive)))
      quedan.append(c);
  return quedan;
}

// The consulta_* document of the answer, without envelope.
QByteArray documento(Datos& datos, const Consulta& consulta, const Ajustes& ajustes) {
  if (consulta.operacion == Operacion::Provincia) return documentoDeProvincias(datos, ajustes.cuentaExtra);
  const char* raiz = consulta.operacion == Operacion::Municipio ? "consulta_municipiero" : "consulta_callejero";
  const Provincia* provincia = datos.provincia(consulta.provincia.trimmed());
  if (!provincia) return documentoDeError(raiz, 12, "LA PROVINCIA NO EXISTE");
  const QList<Municipio> municipios =
      ajustes.nombresPeligrosos ? municipiosPeligrosos(*provincia) : datos.municipios(*provincia);
  if (consulta.operacion == Operacion::Municipio) {
    const QString filtro = consulta.municipio.trimmed();
    if (filtro.isEmpty()) return documentoDeMunicipios(municipios, ajustes);
    QList<Municipio> quedan;
    for (const Municipio& m : municipios)
      if (m.nombre.contains(filtro, Qt::CaseInsensitive)) quedan.append(m);
    return documentoDeMunicipios(quedan, ajustes);
  }
  const Municipio* municipio = buscaMunicipio(municipios, consulta.municipio.trimmed());
  if (!municipio) return documentoDeError(raiz, 22, "EL MUNICIPIO NO EXISTE");
  const QList<Calle> calles = callesDe(datos, *municipio, consulta, ajustes);
  if (calles.isEmpty()) return documentoDeError(raiz, 33, "LA VIA NO EXISTE");
  return documentoDeCalles(*municipio, calles, ajustes.cuentaExtra);
}

const char* elementoDeRespuesta(Operacion operacion) {
  switch (operacion) {
    case Operacion::Provincia: return "Provincias";
    case Operacion::Municipio: return "Municipios";
    case Operacion::Via: return "Callejero";
  }
  return "";
}

// Puts the entity references where the first name (or else the error text)
// goes, and a DOCTYPE declaring the entities after the XML declaration.
void conEntidades(QByteArray& respuesta, const QByteArray& declaraciones, const QByteArray& referencias) {
  for (const char* etiqueta : {"nv", "nm", "np", "des"}) {
    const QByteArray abre = QByteArray("<") + etiqueta + ">";
    const QByteArray cierra = QByteArray("</") + etiqueta + ">";
    const qsizetype desde = respuesta.indexOf(abre);
    if (desde < 0) continue;
    const qsizetype hasta = respuesta.indexOf(cierra, desde);
    if (hasta < 0) continue;
    respuesta.replace(desde + abre.size(), hasta - desde - abre.size(), referencias);
    break;
  }
  respuesta.insert(qsizetype(sizeof kDeclaracion - 1), "<!DOCTYPE soap:Envelope [" + declaraciones + "]>");
}

// "Billion laughs": each entity is ten of the one before, so &lol9; stands
// for 10^9 times "lol" (3 GB) in a declaration of under 1 KB.
QByteArray entidadesBomba() {
  QByteArray d = "\n<!ENTITY lol \"lol\">\n";
  for (int nivel = 1; nivel <= 9; ++nivel) {
    const QByteArray anterior = nivel == 1 ? QByteArray("&lol;") : "&lol" + QByteArray::number(nivel - 1) + ";";
    d += "<!ENTITY lol" + QByteArray::number(nivel) + " \"" + anterior.repeated(10) + "\">\n";
  }
  return d;
}

}  // namespace

std::optional<Operacion> operacionDe(const QByteArray& soapAction) {
  QByteArray accion = soapAction.trimmed();
  if (accion.size() >= 2 && accion.startsWith('"') && accion.endsWith('"')) accion = accion.mid(1, accion.size() - 2);
  const QByteArray nombre = accion.mid(accion.lastIndexOf('/') + 1);
  if (nombre == "ConsultaProvincia") return Operacion::Provincia;
  if (nombre == "ConsultaMunicipio") return Operacion::Municipio;
  if (nombre == "ConsultaVia") return Operacion::Via;
  return std::nullopt;
}

std::optional<Falta> leeConsulta(Operacion operacion, const QByteArray& cuerpo, Consulta& consulta) {
  consulta = Consulta();
  consulta.operacion = operacion;
  QXmlStreamReader xml(cuerpo);
  int profundidad = 0;
  bool hayBody = false, enBody = false;
  QString* parametro = nullptr;  // the parameter being read, at depth 3
  while (!xml.atEnd()) {
    xml.readNext();
    if (xml.isStartElement()) {
      ++profundidad;
      if (profundidad == 1) {
        if (xml.name() != u"Envelope")
          return Falta{"soap:Client", "Server was unable to read request: the root element is not a SOAP Envelope."};
        if (xml.namespaceUri() == QLatin1StringView(kEspacioSoap12))
          return Falta{"soap:VersionMismatch", "This service speaks SOAP 1.1 only."};
        if (xml.namespaceUri() != QLatin1StringView(kEspacioSoap))
          return Falta{"soap:VersionMismatch", "The SOAP Envelope is not in the SOAP 1.1 namespace."};
      } else if (profundidad == 2 && xml.name() == u"Body" && xml.namespaceUri() == QLatin1StringView(kEspacioSoap)) {
        hayBody = enBody = true;
      } else if (profundidad == 3 && enBody && xml.namespaceUri() == QLatin1StringView(kEspacioCatastro)) {
        const auto nombre = xml.name();
        if (nombre == u"Provincia") parametro = &consulta.provincia;
        else if (nombre == u"Municipio") parametro = &consulta.municipio;
        else if (nombre == u"TipoVia" && operacion == Operacion::Via) parametro = &consulta.tipoVia;
        else if (nombre == u"NombreVia" && operacion == Operacion::Via) parametro = &consulta.nombreVia;
      }
    } else if (xml.isCharacters() && profundidad == 3 && parametro) {
      *parametro += xml.text();
    } else if (xml.isEndElement()) {
      if (profundidad == 3) parametro = nullptr;
      if (profundidad == 2) enBody = false;
      --profundidad;
    }
  }
  if (xml.hasError())
    return Falta{"soap:Client", QStringLiteral("Server was unable to read request. ---> There is an error in XML "
                                               "document (%1, %2). ---> %3")
                                    .arg(xml.lineNumber())
                                    .arg(xml.columnNumber())
                                    .arg(xml.errorString())};
  if (!hayBody) return Falta{"soap:Client", "Server was unable to read request: the SOAP Envelope has no Body."};
  return std::nullopt;
}

QByteArray responde(Datos& datos, const Consulta& consulta, const Ajustes& ajustes) {
  const char* elemento = elementoDeRespuesta(consulta.operacion);
  QByteArray respuesta = QByteArray(kDeclaracion) + kAbreSobre + '<' + elemento + " xmlns=\"" + kEspacioCatastro +
                         "\">" + documento(datos, consulta, ajustes) + "</" + elemento + '>' + kCierraSobre;
  QByteArray declaraciones, referencias;
  if (ajustes.bomba) {
    declaraciones += entidadesBomba();
    referencias += "&lol9;";
  }
  if (ajustes.entidadExterna) {
    declaraciones += "<!ENTITY x SYSTEM \"file:///etc/passwd\">";
    referencias += "&x;";
  }
  if (!declaraciones.isEmpty()) conEntidades(respuesta, declaraciones, referencias);
  return respuesta;
}

QByteArray documentoDeFalta(const Falta& falta) {
  return QByteArray(kDeclaracion) + kAbreSobre + "<soap:Fault><faultcode>" + escapa(falta.codigo) +
         "</faultcode><faultstring>" + escapa(falta.mensaje) + "</faultstring><detail /></soap:Fault>" +
         kCierraSobre;
}

QByteArray principioDeCallejeroEnorme() {
  return QByteArray(kDeclaracion) + kAbreSobre + "<Callejero xmlns=\"" + kEspacioCatastro +
         "\"><consulta_callejero xmlns=\"" + kEspacioCatastro +
         "\">\n  <control>\n    <cuca>9999999</cuca>\n  </control>\n  <callejero>";
}

QByteArray calleDeRelleno(qint64 numero) {
  const QByteArray n = QByteArray::number(numero);
  return "\n    <calle>\n      <loine>\n        <cp>28</cp>\n        <cm>79</cm>\n      </loine>\n      <dir>\n"
         "        <cv>" + n + "</cv>\n        <tv>CL</tv>\n        <nv>RELLENO " + n +
         "</nv>\n      </dir>\n    </calle>";
}

QByteArray finDeCallejeroEnorme() {
  return QByteArray("\n  </callejero>\n</consulta_callejero></Callejero>") + kCierraSobre;
}

}  // namespace simulador
