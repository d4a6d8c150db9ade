// TFImportarVias: the client of the cadastre's street-directory service
// OVCCallejero -- the three requests, the retries, the answers kept in
// TempCalles.XML or saved per municipality, and the loaders that fill the
// combos and the street grid from an answer.
#include <QComboBox>
#include <QDir>
#include <QDomElement>
#include <QFile>
#include <QLabel>
#include <functional>

#include "dbase/core/path.h"
#include "import/ImportarVias.h"
#include "import/ImportarViasServicio.h"
#include "import/OvcCallejero.h"
#include "lookup/ClaseCodPostales.h"
#include "platform/THTTPReqResp.h"
#include "platform/TStringGrid.h"
#include "platform/TXMLDocument.h"
#include "services/Rficheros.h"
#include "services/Rmensaje.h"
#include "services/Rnumcad.h"

namespace {

const QString kTituloError = QStringLiteral("Error al importar datos");

// One request of the service: its action, the parameter elements and the
// texts the user sees while it runs and when it fails.
struct ConsultaOvc {
  const char* accion;
  QStringList parametros;  // name, value, name, value...
  QString textoEspera;
  QString textoError;
};

// Grid painting off while the rows go in, on again however the walk ends.
class PinturaSuspendida {
 public:
  explicit PinturaSuspendida(QWidget* control) : control_(control) { control_->setUpdatesEnabled(false); }
  ~PinturaSuspendida() {
    control_->setUpdatesEnabled(true);
    control_->update();
  }

 private:
  QWidget* control_;
};

// Makes a row of the grid current when the scope ends (none while it is -1).
class FilaActualAlTerminar {
 public:
  FilaActualAlTerminar(TStringGrid* rejilla, const int& fila) : rejilla_(rejilla), fila_(fila) {}
  ~FilaActualAlTerminar() {
    if (fila_ >= 0) rejilla_->SetRow(fila_);
  }

 private:
  TStringGrid* rejilla_;
  const int& fila_;
};

}  // namespace

void AnadeEnMayusculas(QComboBox* poCombo, const QString& psTexto, const QVariant& dato) {
  poCombo->addItem(UpperCase(psTexto), dato);
}

void AnadeEnMayusculas(QComboBox* poCombo, const QString& psTexto) { poCombo->addItem(UpperCase(psTexto)); }

bool ResultadoDeLaTraida(const std::function<bool()>& trae, const std::function<bool()>& quedoCargado) {
  try {
    return trae();
  } catch (const ErrorRespuestaVacia&) {
    return quedoCargado();
  }
}

QString NombreDeFicheroGuardado(const QString& psNombre) {
  QString nombre = psNombre;
  nombre.replace(QStringLiteral("/"), QStringLiteral("()"), Qt::CaseInsensitive);
  nombre.replace(QStringLiteral("\\"), QStringLiteral(")("), Qt::CaseInsensitive);
  // What would leave the folder or trouble the file system is refused; the
  // service's own names never hold it.
  const bool controles = std::any_of(nombre.cbegin(), nombre.cend(), [](QChar c) { return c.unicode() < 0x20; });
  if (nombre.trimmed().isEmpty() || nombre == QLatin1String(".") || nombre == QLatin1String("..") || controles)
    throw std::runtime_error(
        QStringLiteral("«%1» no sirve como nombre de fichero o carpeta").arg(psNombre).toStdString());
  return nombre;
}

// The steps every request shares. `reintenta` makes the nested call of the
// next attempt; its result is not taken over, so this run goes on with its
// own, empty answer -- that is how the import has always retried.
static bool Consulta(TFImportarVias& dialogo, const ConsultaOvc& consulta, int pnIntento,
                     const std::function<bool(int)>& reintenta, const std::function<bool()>& alRecibir) {
  bool resultado = true;
  QByteArray respuesta;
  dialogo.HTTPWebServices->URL = ovc::Endpoint();
  dialogo.HTTPWebServices->SoapAction = QString::fromLatin1(ovc::kAccion) + QLatin1String(consulta.accion);
  dialogo.HTTPWebServices->Proxy = QString();
  const QByteArray peticion = ovc::Sobre(consulta.parametros).toUtf8();
  try {
    CambiaMensaje(consulta.textoEspera, dialogo.oFormMensaje);
    dialogo.HTTPWebServices->Execute(peticion, respuesta);
  } catch (const std::exception& e) {
    qCWarning(lcOvc).noquote() << consulta.accion << "intento" << pnIntento << ":" << e.what();
    if (pnIntento < 5) {
      reintenta(pnIntento + 1);
    } else {
      resultado = false;
      CierraMensaje(dialogo.oFormMensaje);
      dialogo.oFormMensaje = nullptr;
      Mensaje_Error(&dialogo, consulta.textoError, kTituloError);
    }
  }
  if (resultado) {
    dialogo.XML->LoadFromBytes(respuesta);
    resultado = alRecibir();
  }
  return resultado;
}

bool TFImportarVias::TraeProvincias(int pnIntento) {
  const ConsultaOvc consulta{
      "ConsultaProvincia", {}, QStringLiteral("Importando listado de provincias..."),
      QStringLiteral("Se ha producido un error al localizar las provincias.\rReinténtelo más tarde")};
  return Consulta(
      *this, consulta, pnIntento, [this](int intento) { return TraeProvincias(intento); },
      [this] {
        XML->SaveToFile(RutaTempCalles());
        return CargaProvincias();
      });
}

bool TFImportarVias::TraeMunicipios(int pnIntento) {
  const QString provincia = CBProvincias->currentText();
  const ConsultaOvc consulta{
      "ConsultaMunicipio",
      {QStringLiteral("Provincia"), provincia, QStringLiteral("Municipio"), QString()},
      QStringLiteral("Importando municipios de la provincia ") + provincia,
      QStringLiteral("Se ha producido un error al localizar los municipios de la provincia seleccionada ") + provincia +
          QStringLiteral("\rReinténtelo más tarde")};
  return Consulta(
      *this, consulta, pnIntento, [this](int intento) { return TraeMunicipios(intento); },
      [this] {
        XML->SaveToFile(RutaTempCalles());
        return CargaMunicipios();
      });
}

bool TFImportarVias::TraeVias(int pnIntento, const QString& psProvincia, const QString& psMunicipio) {
  const QString municipio = CBMunicipios->currentText();
  const ConsultaOvc consulta{
      "ConsultaVia",
      {QStringLiteral("Provincia"), CBProvincias->currentText(), QStringLiteral("Municipio"), municipio,
       QStringLiteral("TipoVia"), QString(), QStringLiteral("NombreVia"), QString()},
      QStringLiteral("Importando datos del municipio ") + municipio,
      QStringLiteral("Se ha producido un error al localizar las vías del municipio seleccionado ") + municipio +
          QStringLiteral("\rReinténtelo más tarde")};
  return Consulta(
      *this, consulta, pnIntento,
      [this, psProvincia, psMunicipio](int intento) { return TraeVias(intento, psProvincia, psMunicipio); },
      [this, psProvincia, psMunicipio] {
        if (psMunicipio.isEmpty()) {
          XML->SaveToFile(RutaTempCalles());
          return CargaVias();
        }
        GuardaRespuesta(psProvincia, psMunicipio);
        return true;
      });
}

void TFImportarVias::GuardaRespuesta(const QString& psProvincia, const QString& psMunicipio) {
  const QString fichero = NombreDeFicheroGuardado(psMunicipio) + QStringLiteral(".xml");
  const QString carpetaProvincia = NombreDeFicheroGuardado(psProvincia);
  // Each folder is made when missing, without parents; when one cannot be,
  // the answer is simply not kept.
  const QString postal = CarpetaPostal();
  if (!QDir(postal).exists()) QDir().mkdir(postal);
  const QString provincia =
      QString::fromStdString(dbase::resolveDirectoryCaseInsensitive(SlashSep(postal, carpetaProvincia, u'/').toStdString()));
  if (!QDir(provincia).exists()) QDir().mkdir(provincia);
  if (!QDir(provincia).exists()) return;
  const QString ruta = SlashSep(provincia, fichero, u'/');
  if (QFile::exists(ruta) && !QFile::remove(ruta)) return;
  XML->SaveToFile(ruta);
  ++nRespuestasGuardadas;
}

bool TFImportarVias::CargaProvincias() {
  return CargaLista(CBProvincias, QStringLiteral("Cargando listado de provincias"), QStringLiteral("cuprov"),
                    QStringLiteral("provinciero"), "np");
}

bool TFImportarVias::CargaMunicipios() {
  return CargaLista(CBMunicipios, QStringLiteral("Cargando datos de municipios"), QStringLiteral("cumun"),
                    QStringLiteral("municipiero"), "nm");
}

bool TFImportarVias::CargaLista(QComboBox* poCombo, const QString& psTextoEspera, const QString& psCuenta,
                                const QString& psLista, const char* psNombre) {
  poCombo->clear();
  const bool cargada = RecorreRespuesta(psTextoEspera, [&] {
    const ovc::Respuesta respuesta(XML->Documento());
    respuesta.Recorre(psLista, respuesta.Cuenta(psCuenta),
                      [&](const QDomElement& entrada) { AnadeEnMayusculas(poCombo, ovc::TextoDe(entrada, psNombre)); });
  });
  poCombo->setCurrentIndex(-1);  // the user chooses; Qt would take the first
  return cargada;
}

bool TFImportarVias::CargaVias() {
  return RecorreRespuesta(QStringLiteral("Cargando datos de vías"), [this] {
    const ovc::Respuesta respuesta(XML->Documento());
    const int cuenta = respuesta.Cuenta(QStringLiteral("cuca"));
    LMensaje_->setText(QStringLiteral("Se han encontrado %1 vías").arg(cuenta));
    const PinturaSuspendida pintura(SGVias);
    // The last row written becomes the current row once, when the walk ends
    // however it ends: making every new row current costs more than the
    // rest of the walk on a shown grid.
    int ultima = -1;
    const FilaActualAlTerminar filaActual(SGVias, ultima);
    respuesta.Recorre(QStringLiteral("callejero"), cuenta, [this, &ultima](const QDomElement& calle) {
      const QDomElement dir = calle.firstChildElement(QStringLiteral("dir"));
      if (dir.isNull()) return;
      // The first street takes the empty row 1 that clearing the grid left.
      if (SGVias->RowCount() >= 2 && !SGVias->Cells(1, 1).trimmed().isEmpty())
        SGVias->SetRowCount(SGVias->RowCount() + 1);
      const int fila = SGVias->RowCount() - 1;
      ultima = fila;
      SGVias->SetCells(0, fila, dir.firstChildElement(QStringLiteral("tv")).text().trimmed());
      SGVias->SetCells(1, fila, ovc::TextoDe(dir, "nv").trimmed().left(kLongitudNombreVia));
    });
  });
}

// The loaders' shared frame: nothing is walked in an empty document, and any
// fault of the walk is a silent failure that closes the wait window.
bool TFImportarVias::RecorreRespuesta(const QString& psTextoEspera, const std::function<void()>& recorrido) {
  try {
    if (!XML->HasChildNodes()) return true;
    CambiaMensaje(psTextoEspera, oFormMensaje);
    recorrido();
    return true;
  } catch (const std::exception& e) {
    qCWarning(lcOvc).noquote() << "respuesta no cargada:" << e.what();
    CierraFormMensaje();
    return false;
  }
}
