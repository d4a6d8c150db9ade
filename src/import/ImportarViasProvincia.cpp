// TFImportarVias: the runs over saved answers -- every municipality of one
// province, or of every province folder under "POSTAL" -- matched to the
// host's municipalities by name and stored with GuardaVias.
#include <QComboBox>
#include <QDir>
#include <QFileInfo>
#include <QRadioButton>
#include <stdexcept>

#include "dbase/core/path.h"
#include "import/ImportarVias.h"
#include "import/ImportarViasEspera.h"
#include "import/ImportarViasServicio.h"
#include "import/OvcCallejero.h"
#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "municipalities/IMunicipios.h"
#include "platform/TXMLDocument.h"
#include "services/Rficheros.h"
#include "services/Rmensaje.h"

namespace {

const QString kFaltanFicheros = QStringLiteral("Faltan los ficheros XML");

void FaltanFicheros(QObject* propietario) {
  Mensaje_Info(propietario,
               QStringLiteral("Para importar las calles de los municipios de una provincia\res necesario antes "
                              "pinchar en buscar vías"),
               kFaltanFicheros, 0);
}

// A saved answer's municipality: the file name before its first ".", with
// the brackets that stood for "/" and "\" turned back.
QString MunicipioDelFichero(const QString& fichero) {
  QString nombre = QFileInfo(fichero).fileName();
  nombre = nombre.left(nombre.indexOf(u'.') < 0 ? nombre.size() : nombre.indexOf(u'.'));
  nombre.replace(QStringLiteral("()"), QStringLiteral("/"));
  nombre.replace(QStringLiteral(")("), QStringLiteral("\\"));
  return nombre;
}

// "LA ROSA" -> "ROSA (LA)": how the host's tables write a leading article.
// Empty when the name has none.
QString ConArticuloAlFinal(const QString& nombre) {
  for (const char* articulo : {"EL", "LA", "LOS", "LAS"}) {
    const QString prefijo = QLatin1String(articulo) + u' ';
    if (nombre.startsWith(prefijo))
      return nombre.mid(prefijo.size()).trimmed() + QStringLiteral(" (") + QLatin1String(articulo) + u')';
  }
  return {};
}

// The answers of a province folder, as the host's file search lists them.
QStringList FicherosXml(const QString& carpeta) {
  QStringList ficheros;
  FindFileNoRecursivo(SlashSep(carpeta, QStringLiteral("*.xml"), u'/'), ficheros, false);
  return ficheros;
}

// Only a plain folder counts: not hidden, not read-only, not a link -- a
// folder whose attributes are the directory attribute alone.
bool EsCarpetaSencilla(const QFileInfo& entrada) {
  return entrada.isDir() && !entrada.isSymLink() && !entrada.fileName().startsWith(u'.') &&
         (entrada.permissions() & QFileDevice::WriteOwner);
}

// A dialog made only to talk to the service has no street table to store in.
void ExigeControlador(const TFImportarVias& f) {
  if (!f.oCodPostales)
    throw std::logic_error(
        "Guardar las vías de las provincias necesita el controlador de códigos postales, y el diálogo no lo tiene");
}

// The POSTAL table's grid refresh stays off during a run.
class ControlesDesactivados {
 public:
  explicit ControlesDesactivados(TTable* tabla) : tabla_(tabla) {
    if (tabla_) tabla_->DisableControls();
  }
  ~ControlesDesactivados() {
    if (tabla_) tabla_->EnableControls();
  }

 private:
  TTable* tabla_;
};

// The province-run flag, set while one municipality is stored and cleared
// however that ends.
class PorProvincias {
 public:
  explicit PorProvincias(TFImportarVias& f) : f_(f) { f_.bPorProvincias = true; }
  ~PorProvincias() { f_.bPorProvincias = false; }
  PorProvincias(const PorProvincias&) = delete;
  PorProvincias& operator=(const PorProvincias&) = delete;

 private:
  TFImportarVias& f_;
};

// Files that could not be read are told once, at the end of the run: this
// many by name, the rest counted.
constexpr int kIlegiblesNombrados = 20;

void AvisaIlegibles(QObject* propietario, const QStringList& ilegibles) {
  if (ilegibles.isEmpty()) return;
  QString texto = QStringLiteral("No se han podido leer estas respuestas guardadas y sus vías no se han importado:\r") +
                  ilegibles.mid(0, kIlegiblesNombrados).join(u'\r');
  if (ilegibles.size() > kIlegiblesNombrados)
    texto += QStringLiteral("\ry %1 más").arg(ilegibles.size() - kIlegiblesNombrados);
  Mensaje_Error(propietario, texto, QStringLiteral("Importación incompleta"));
}

}  // namespace

void TFImportarVias::advGBGuardarPorProvinciaClick() {
  ExigeControlador(*this);
  oResumenGuardado = {};
  if (!RBTodosConUno->isChecked()) {
    Mensaje_Error(this,
                  QStringLiteral("Para importar las vías de todos los municipios de una \rprovincia es necesario "
                                 "marcar la opción 2ª"),
                  QStringLiteral("Faltan datos"));
    return;
  }
  if (CBProvincias->currentIndex() < 0 || CBProvincias->currentText().isEmpty()) {
    Mensaje_Error(this,
                  QStringLiteral("Para importar las vías de todos los \rmunicipios de una provincia es necesario "
                                 "indicarla"),
                  QStringLiteral("Faltan datos"));
    return;
  }
  const QString raiz = CarpetaPostal();
  // The folder is named as the answers were saved: "/" and "\" escaped, and
  // a name that would leave POSTAL refused.
  const QString carpeta = NombreDeFicheroGuardado(CBProvincias->currentText());
  const QString provincia =
      QString::fromStdString(dbase::resolveDirectoryCaseInsensitive(SlashSep(raiz, carpeta, u'/').toStdString()));
  if (!QDir(raiz).exists() || !QDir(provincia).exists()) {
    FaltanFicheros(this);
    return;
  }
  const QStringList ficheros = FicherosXml(provincia);
  if (ficheros.isEmpty()) {
    FaltanFicheros(this);
    return;
  }
  {
    const ControlesDesactivados controles(oCodPostales->oDataModule->TPostal);
    GuardaFicherosDeProvincia(ficheros);
  }
  AvisaIlegibles(this, oResumenGuardado.lIlegibles);
}

void TFImportarVias::MIGuardarPorProvinciaClick() {
  ExigeControlador(*this);
  oResumenGuardado = {};
  const QString raiz = CarpetaPostal();
  if (!QDir(raiz).exists()) {
    FaltanFicheros(this);
    return;
  }
  {
    const ControlesDesactivados controles(oCodPostales->oDataModule->TPostal);
    const QFileInfoList entradas = QDir(raiz).entryInfoList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name | QDir::IgnoreCase);
    for (const QFileInfo& entrada : entradas) {
      CBProvincias->setCurrentIndex(-1);
      CBProvinciasZelmor->setCurrentIndex(-1);
      if (!EsCarpetaSencilla(entrada)) continue;
      CBProvincias->setCurrentIndex(Indice(CBProvincias, entrada.fileName()));
      const QStringList ficheros = FicherosXml(entrada.filePath());
      if (ficheros.isEmpty()) {
        FaltanFicheros(this);
        continue;
      }
      GuardaFicherosDeProvincia(ficheros);
    }
  }
  AvisaIlegibles(this, oResumenGuardado.lIlegibles);
}

void TFImportarVias::GuardaFicherosDeProvincia(const QStringList& plFicheros) {
  const auto pregunta = PreguntaMunicipio
                            ? PreguntaMunicipio
                            : [this](const QString& titulo, QString& provincia, QString& municipio) {
                                QString ine, postal, codProvincia, codMunicipio;
                                return IMunicipios(this, sAlias, true, ine, postal, municipio, provincia,
                                                   codProvincia, codMunicipio, QStringLiteral("NOMBRE"), titulo);
                              };
  QStringList& ilegibles = oResumenGuardado.lIlegibles;
  for (const QString& fichero : plFicheros) {
    ++oResumenGuardado.nFicheros;
    // Each file has a window of its own, closed however the file ends; one
    // left open is closed first.
    CierraFormMensaje();
    EsperaDelDialogo espera(*this, QStringLiteral("Importando las calles de ") + fichero);
    if (CBProvinciasZelmor->currentIndex() < 0) {
      const int provincia = Indice(CBProvinciasZelmor, CBProvincias->currentText());
      CBProvinciasZelmor->setCurrentIndex(provincia);
      if (provincia >= 0) CBProvinciasZelmorExit(CBProvinciasZelmor);
    }
    QString municipio = MunicipioDelFichero(fichero);
    CBMunicipiosZelmor->setCurrentIndex(Indice(CBMunicipiosZelmor, municipio));
    if (CBProvinciasZelmor->currentIndex() >= 0 && CBMunicipiosZelmor->currentIndex() < 0) {
      const QString conArticulo = ConArticuloAlFinal(municipio);
      if (!conArticulo.isEmpty()) {
        municipio = conArticulo;
        CBMunicipiosZelmor->setCurrentIndex(Indice(CBMunicipiosZelmor, municipio));
      }
    }
    if (CBProvinciasZelmor->currentIndex() < 0 || CBMunicipiosZelmor->currentIndex() < 0) {
      QString provinciaPrograma = ConvierteProvincia(CBProvincias->currentText());
      espera.Cierra();
      QString elegido = municipio;
      const QString titulo = QStringLiteral("Seleccione el municipio donde importar las vias de ") + municipio +
                             QStringLiteral(" (") + CBProvincias->currentText() + u')';
      if (pregunta(titulo, provinciaPrograma, elegido)) {
        const int provincia = Indice(CBProvinciasZelmor, provinciaPrograma);
        CBProvinciasZelmor->setCurrentIndex(provincia);
        if (provincia >= 0) CBProvinciasZelmorExit(CBProvinciasZelmor);
        CBMunicipiosZelmor->setCurrentIndex(Indice(CBMunicipiosZelmor, elegido));
      }
    }
    const bool conMunicipio = CBProvinciasZelmor->currentIndex() >= 0 && CBMunicipiosZelmor->currentIndex() >= 0;
    const bool unico = conMunicipio && CompruebaMunicipioConUnicoCP();
    if (!conMunicipio) oResumenGuardado.lSinMunicipio << municipio + QStringLiteral(" (") + CBProvincias->currentText() + u')';
    if (conMunicipio && !unico) ++oResumenGuardado.nVariosCodigos;
    if (unico) {
      LimpiaDatos(false);
      const QString texto = QStringLiteral("Importando las calles de ") + municipio;
      if (oFormMensaje)
        espera.Cambia(texto);
      else
        oFormMensaje = MuestraMensaje(texto, this);  // the file's guard closes it too
      const PorProvincias enCurso(*this);
      try {
        XML->LoadFromFile(fichero);
        if (CargaVias()) {
          GuardaVias();
          ++oResumenGuardado.nMunicipiosGuardados;
          oResumenGuardado.nViasGuardadas += nViasImportadas;
        }
      } catch (const ErrorDocumentoXML& e) {
        // An answer that cannot be read stores nothing; the run goes on.
        qCWarning(lcOvc).noquote() << e.what();
        ilegibles << QFileInfo(fichero).fileName();
      }
    }
  }
  // The last town's run ended in the background: the run is over once its
  // index is on disk.
  TTable* postal = oCodPostales->oDataModule->TPostal;
  try {
    if (postal->Active()) postal->FlushBuffers();
  } catch (const std::exception& e) {
    // The streets are in the table; its index is written anew at its next opening.
    qCWarning(lcOvc).noquote() << e.what();
  }
}
