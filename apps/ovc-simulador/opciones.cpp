#include "opciones.h"

#include <limits>

namespace simulador {

namespace {

// Walks "--name value", "--name=value" and "--flag".
class Lector {
 public:
  explicit Lector(const QStringList& args) : args_(args) {}
  bool quedan() const { return pos_ < args_.size(); }

  QString siguienteOpcion() {
    const QString arg = args_[pos_++];
    if (!arg.startsWith("--") || arg.size() < 3) throw ErrorDeUso("argumento inesperado: «" + arg.toStdString() + "»");
    const qsizetype igual = arg.indexOf('=');
    enLinea_ = igual >= 0;
    valorEnLinea_ = enLinea_ ? arg.mid(igual + 1) : QString();
    return arg.mid(2, enLinea_ ? igual - 2 : -1);
  }

  QString valor(const QString& nombre) {
    if (enLinea_) return valorEnLinea_;
    if (pos_ >= args_.size()) throw ErrorDeUso("falta el valor de --" + nombre.toStdString());
    return args_[pos_++];
  }

  int numero(const QString& nombre, int minimo, int maximo) {
    const QString texto = valor(nombre);
    bool ok = false;
    const qlonglong n = texto.toLongLong(&ok);
    if (!ok || n < minimo || n > maximo)
      throw ErrorDeUso("--" + nombre.toStdString() + " espera un número entre " + std::to_string(minimo) + " y " +
                       std::to_string(maximo) + ", no «" + texto.toStdString() + "»");
    return int(n);
  }

  QString texto(const QString& nombre) {
    const QString t = valor(nombre);
    if (t.isEmpty()) throw ErrorDeUso("--" + nombre.toStdString() + " no puede ir vacío");
    return t;
  }

  void sinValor(const QString& nombre) {
    if (enLinea_) throw ErrorDeUso("--" + nombre.toStdString() + " no lleva valor");
  }

 private:
  const QStringList& args_;
  qsizetype pos_ = 0;
  bool enLinea_ = false;
  QString valorEnLinea_;
};

constexpr int kMuchos = std::numeric_limits<int>::max();

}  // namespace

Opciones leeOpciones(const QStringList& argumentos) {
  Opciones o;
  Lector l(argumentos);
  while (l.quedan()) {
    const QString nombre = l.siguienteOpcion();
    if (nombre == "ayuda" || nombre == "help") {
      l.sinValor(nombre);
      o.ayuda = true;
    } else if (nombre == "puerto") {
      o.puerto = quint16(l.numero(nombre, 0, 65535));
    } else if (nombre == "ovc") {
      o.carpetaOvc = l.texto(nombre);
    } else if (nombre == "calles") {
      o.carpetaCalles = l.texto(nombre);
    } else if (nombre == "registro") {
      o.registro = l.texto(nombre);
    } else if (nombre == "fallar") {
      o.fallar = l.numero(nombre, 0, kMuchos);
    } else if (nombre == "fallar-vias") {
      o.fallarVias = l.numero(nombre, 0, kMuchos);
    } else if (nombre == "cortar") {
      o.cortar = l.numero(nombre, 0, kMuchos);
    } else if (nombre == "lento") {
      o.lentoMs = l.numero(nombre, 0, 3600 * 1000);
    } else if (nombre == "html") {
      l.sinValor(nombre);
      o.html = true;
    } else if (nombre == "truncado") {
      l.sinValor(nombre);
      o.truncado = true;
    } else if (nombre == "cuenta-extra") {
      o.ajustes.cuentaExtra = l.numero(nombre, -1000000, 1000000);
    } else if (nombre == "enorme") {
      o.enormeMb = l.numero(nombre, 1, 1024 * 1024);
    } else if (nombre == "bomba") {
      l.sinValor(nombre);
      o.ajustes.bomba = true;
    } else if (nombre == "entidad-externa") {
      l.sinValor(nombre);
      o.ajustes.entidadExterna = true;
    } else if (nombre == "nombres-peligrosos") {
      l.sinValor(nombre);
      o.ajustes.nombresPeligrosos = true;
    } else if (nombre == "nul") {
      l.sinValor(nombre);
      o.ajustes.nul = true;
    } else {
      throw ErrorDeUso("opción desconocida: --" + nombre.toStdString() + " (ovc-simulador --ayuda muestra las opciones)");
    }
  }
  return o;
}

void muestraUso(std::FILE* salida) {
  std::fputs(
      "Uso: ovc-simulador [--puerto N] [--ovc CARPETA] [--calles CARPETA] [--registro FICHERO]\n"
      "                   [opciones de fallo]\n"
      "\n"
      "Servidor SOAP local que contesta como el servicio OVCCallejero del Catastro\n"
      "(ConsultaProvincia, ConsultaMunicipio y ConsultaVia), para pruebas y para trabajar sin red.\n"
      "Escucha sólo en 127.0.0.1 y, en cuanto escucha, escribe en la salida estándar una línea con\n"
      "la dirección del servicio:\n"
      "  http://127.0.0.1:PUERTO/ovcservweb/OVCSWLocalizacionRC/OVCCallejero.asmx\n"
      "Sigue hasta recibir SIGTERM o SIGINT (Ctrl+C).\n"
      "\n"
      "  --puerto N            puerto en el que escuchar; 0 o sin la opción, uno libre\n"
      "  --ovc CARPETA         respuestas grabadas del servicio: ConsultaProvincia-AAAA.xml y\n"
      "                        municipios-AAAA/NNNOMBRE.xml (NN, código de la provincia; \"_\" por\n"
      "                        los espacios: 15A_CORUÑA.xml). Sin ella: las 48 provincias del\n"
      "                        servicio, cada una con su capital como único municipio\n"
      "  --calles CARPETA      tablas de calles dBase: POSTAL.DBF y Postales/POSTALnn.DBF (campos\n"
      "                        TIPO_VIA, VIA y COD_INE). Las calles de un municipio son los pares\n"
      "                        distintos de tipo y nombre de las filas cuyo COD_INE es su código\n"
      "                        INE (cp y cm del municipio: 28079)\n"
      "  --registro FICHERO    añade una línea JSON por petición recibida: n, ms (desde el\n"
      "                        arranque), metodo, ruta, soapaction, useragent, contenttype y\n"
      "                        cuerpo (los bytes exactos en base64)\n"
      "  --ayuda               muestra esta ayuda\n"
      "\n"
      "Calles inventadas: si no hay tabla de calles o no tiene filas del municipio, se inventan\n"
      "a partir del nombre del municipio: de 3 a 40 calles de tipos CL, AV, PZ, CM, TR y PS con\n"
      "nombres distintos (MAYOR, IGLESIA, SAN ROQUE...), siempre las mismas para el mismo nombre.\n"
      "ConsultaVia filtra por TipoVia (igual) y NombreVia (contenido en el nombre) cuando vienen;\n"
      "si no queda ninguna calle contesta el error 33 LA VIA NO EXISTE.\n"
      "\n"
      "Opciones de fallo (se pueden combinar):\n"
      "  --fallar N            las N primeras peticiones reciben HTTP 503 con una página HTML\n"
      "  --fallar-vias N       las N primeras peticiones ConsultaVia reciben HTTP 503, cuente\n"
      "                        lo que cuente antes (las listas cargan, las calles no)\n"
      "  --cortar N            las N primeras peticiones se cortan (conexión reiniciada, sin\n"
      "                        respuesta). Con las dos, primero los cortes y luego los 503\n"
      "  --lento MS            espera MS milisegundos antes de contestar cada petición\n"
      "  --html                contesta 200 con la página «Sistema no disponible» en HTML\n"
      "  --truncado            contesta 200 con el XML cortado por la mitad\n"
      "  --cuenta-extra N      el recuento (cuprov, cumun, cuca) dice N más de los que hay\n"
      "  --enorme MB           contesta 200 con un callejero de MB megabytes, sin Content-Length\n"
      "  --bomba               la respuesta declara entidades que se expanden en cadena (mil\n"
      "                        millones de \"lol\") y usa la última en un nombre\n"
      "  --entidad-externa     la respuesta declara una entidad externa (file:///etc/passwd) y\n"
      "                        la usa en un nombre\n"
      "  --nombres-peligrosos  los municipios de cualquier provincia son ../../FUERA, ..\\..\\FUERA,\n"
      "                        A/B, A\\B, .. y CON:NUL, y sus calles tienen también esos nombres\n"
      "  --nul                 la lista de municipios lleva un nombre con un byte NUL\n"
      "Los cortes y los 503 van antes que todo lo demás; entre las respuestas 200 anómalas manda\n"
      "--html sobre --enorme, y las dos sobre --truncado. Las demás se suman: --bomba con\n"
      "--entidad-externa declara las dos entidades y usa las dos en el mismo nombre.\n"
      "\n"
      "Estado de salida: 0 al terminar con SIGTERM o SIGINT, 2 ante una opción o unos datos que\n"
      "no valen (el mensaje va a la salida de errores).\n",
      salida);
}

}  // namespace simulador
