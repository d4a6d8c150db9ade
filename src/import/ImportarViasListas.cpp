// TFImportarVias: the selection lists -- the service's provinces and
// municipalities (or, in mode 1, the postcode files), the host's own
// provinces and municipalities -- and the two search buttons.
#include <QAbstractItemView>
#include <QApplication>
#include <QCollator>
#include <QComboBox>
#include <QDir>
#include <QEventLoop>
#include <QGroupBox>
#include <QLabel>
#include <QPushButton>
#include <QRadioButton>
#include <QThread>
#include <memory>

#include "dbase/TTable.h"
#include "import/ImportarVias.h"
#include "import/ImportarViasEspera.h"
#include "import/ImportarViasServicio.h"
#include "import/OvcCallejero.h"
#include "lookup/ClaseCodPostales.h"
#include "platform/TStringGrid.h"
#include "services/Rficheros.h"
#include "services/Rmensaje.h"
#include "services/Rnumcad.h"
#include "services/Ruttb.h"
#include "services/Rvarias.h"

namespace {

const QString kFaltanDatos = QStringLiteral("Faltan datos");
const QString kErrorImportando = QStringLiteral("Error al importar los datos");

// The notice of a fetch that brought no street. Its fourth text stays empty,
// as every notice of the package; what went wrong, when there is more to
// say, goes to the import's log.
void AvisoSinVias(QObject* propietario, const QString& detalle = QString()) {
  if (!detalle.isEmpty()) qCWarning(lcOvc).noquote() << "no se importó ninguna vía:" << detalle;
  Mensaje_Emergente(propietario, QStringLiteral("No se ha podido importar ningún nombre de vía"),
                    QStringLiteral("Inténtelo de nuevo"), QStringLiteral("H"), IconoInformacion, QString());
}

// Whether the control could take the focus now (shown, enabled, focusable).
bool PuedeTomarFoco(const QWidget* control) {
  return control && control->isVisible() && control->isEnabled() && control->focusPolicy() != Qt::NoFocus;
}

// Fills a sorted list: Spanish order, so Ñ comes after N and accents do not
// put a name at the end.
void AnadeOrdenados(QComboBox* combo, QList<std::pair<QString, int>> elementos) {
  QCollator orden{QLocale(QLocale::Spanish, QLocale::Spain)};
  orden.setCaseSensitivity(Qt::CaseInsensitive);
  std::stable_sort(elementos.begin(), elementos.end(),
                   [&orden](const auto& a, const auto& b) { return orden.compare(a.first, b.first) < 0; });
  for (const auto& [texto, valor] : elementos) AnadeEnMayusculas(combo, texto, valor);
  combo->setCurrentIndex(-1);
}

}  // namespace

void TFImportarVias::CargaMunicipiosUnCodigo() {
  EsperaDelDialogo espera(*this, QStringLiteral("Importando el listado de provincias"));
  const bool cargadas =
      ResultadoDeLaTraida([this] { return TraeProvincias(0); }, [this] { return CBProvincias->count() > 0; });
  HazSetFocus(cargadas ? static_cast<QWidget*>(CBProvincias) : advGBCancelar);
  espera.Cierra();
  if (!cargadas)
    Mensaje_Error(this,
                  QStringLiteral("No se han podido cargar las provincias.Salga de la ventana y vuelva a intentarlo de "
                                 "nuevo más tarde"),
                  kErrorImportando);
}

void TFImportarVias::CargaMunicipiosMasDeUnCodigo() {
  const QString carpeta = CarpetaPostal();
  if (!QDir(carpeta).exists()) return;
  QStringList ficheros;
  FindFileNoRecursivo(SlashSep(carpeta, QStringLiteral("*.txt"), u'/'), ficheros, true);
  for (const QString& fichero : ficheros) {
    const QString entrada = CadenaHastaCaracter(fichero, u'.');
    // Shown in upper case; the file's own name goes with it, to open it by.
    if (!entrada.isEmpty()) AnadeEnMayusculas(CBProvincias, entrada, entrada);  // a hidden ".x.txt" names nothing
  }
  // Loaded, nothing chosen yet: the user picks the municipality's file.
  CBProvincias->setCurrentIndex(-1);
}

void TFImportarVias::CBProvinciasExit(QObject* Sender) {
  DejaFoco(Sender);
  if (RBMasDeUno->isChecked()) {
    if (CBProvincias->count() == 0)
      Mensaje_Emergente(this,
                        QStringLiteral("Faltan los ficheros correspondientes a los CP múltiples.\rpóngase en contacto "
                                       "con nuestro soporte técnico"),
                        QString(), QStringLiteral("H"), IconoInformacion, QString());
    return;
  }
  bool cargados = false;
  {
    EsperaDelDialogo espera(*this, QStringLiteral("Importando el listado de municipios de..."));
    espera.Cambia(CBProvincias->currentText());
    cargados =
        ResultadoDeLaTraida([this] { return TraeMunicipios(0); }, [this] { return CBMunicipios->count() > 0; });
  }
  if (!cargados) {
    CBProvincias->setCurrentIndex(-1);
    CBMunicipios->clear();
    CBMunicipios->setCurrentIndex(-1);
    Mensaje_Error(this,
                  QStringLiteral("No se han podido cargar los municipios asociados a la provincia indicada.Inténtelo "
                                 "de nuevo más tarde"),
                  kErrorImportando);
  }
  if (PuedeTomarFoco(CBMunicipios)) {
    HazSetFocus(CBMunicipios);
    CBMunicipios->showPopup();
  } else if (PuedeTomarFoco(advGBBuscarViasPorMunicipio)) {
    HazSetFocus(advGBBuscarViasPorMunicipio);
  } else if (PuedeTomarFoco(advGBBuscarViasPorProvincia)) {
    HazSetFocus(advGBBuscarViasPorProvincia);
  }
}

void TFImportarVias::CargaProvinciasZelmor() {
  LiberaProvinciasZelmor();
  LiberaMunicipiosZelmor();
  std::unique_ptr<TTable> provincias(
      CreaTabla(sAlias, QStringLiteral("PROVIN.DBF"), QStringLiteral("ALFABETICO"), false, true));
  TBFiltra(provincias.get(), QStringLiteral("GRUPO=1"));
  TField* nombre = provincias->FieldByName(QStringLiteral("PROVINCIA"));
  TField* codigo = provincias->FieldByName(QStringLiteral("CODIGO"));
  for (provincias->First(); !provincias->Eof(); provincias->Next())
    AnadeEnMayusculas(CBProvinciasZelmor, nombre->AsString(), codigo->AsInteger());
  provincias->Close();
  // A Qt combo would choose its first item; the host's list starts with no
  // province chosen, which is what CBProvinciasZelmorExit asks for.
  CBProvinciasZelmor->setCurrentIndex(-1);
}

void TFImportarVias::CBProvinciasZelmorExit(QObject* Sender) {
  DejaFoco(Sender);
  const int elegida = CBProvinciasZelmor->currentIndex();
  if (elegida < 0) {
    Mensaje_Info(this, QStringLiteral("Indique una provincia para poder seleccionar el municipio"), kFaltanDatos, 0);
  } else if (CBProvinciasZelmor->itemData(elegida).isValid()) {
    EsperaDelDialogo espera(*this,
                              QStringLiteral("Cargando el listado de municipios de ") + CBProvinciasZelmor->currentText());
    LiberaMunicipiosZelmor();
    const QString clave = StrRight(QStringLiteral("00") + Int_Cad(CBProvinciasZelmor->itemData(elegida).toInt()), 2);
    std::unique_ptr<TTable> municipios(
        CreaTabla(sAlias, QStringLiteral("MUNICIPI.DBF"), QStringLiteral("COD_INE"), false, true));
    TField* provincia = municipios->FieldByName(QStringLiteral("COD_PROV"));
    TField* nombre = municipios->FieldByName(QStringLiteral("NOMBRE"));
    TField* postal = municipios->FieldByName(QStringLiteral("CODPOSTAL"));
    municipios->First();
    while (!municipios->Eof() && provincia->AsString() != clave) municipios->Next();
    // Sorted once at the end: the combo is a sorted list.
    QList<std::pair<QString, int>> lista;
    for (; !municipios->Eof() && provincia->AsString() == clave; municipios->Next())
      lista.append({nombre->AsString(), Cad_Int(postal->AsString())});
    AnadeOrdenados(CBMunicipiosZelmor, lista);
    municipios->Close();
  }
  if (PuedeTomarFoco(CBMunicipiosZelmor) && GBDatosZelmor->isEnabled()) HazSetFocus(CBMunicipiosZelmor);
}

void TFImportarVias::LiberaProvinciasZelmor() { CBProvinciasZelmor->clear(); }

void TFImportarVias::LiberaMunicipiosZelmor() { CBMunicipiosZelmor->clear(); }

void TFImportarVias::advGBBuscarViasPorMunicipioClick() {
  LimpiaDatos(true);
  if (RBMasDeUno->isChecked()) {
    // No file listed, or none chosen: there is nothing to read either way.
    if (CBProvincias->currentText().isEmpty()) {
      Mensaje_Error(this, QStringLiteral("Para importar vías de un municipio es necesario indicarlo en el desplegable"),
                    kFaltanDatos);
      return;
    }
    EsperaDelDialogo espera(*this, QStringLiteral("Importando el listado de vías del municipio..."));
    const QString entrada = CBProvincias->currentText();
    espera.Cambia(entrada);
    if (!ImportarViasMasUnCodigo()) {
      AvisoSinVias(this);
      return;
    }
    // The file's first two characters are the province code; after the
    // first "-" comes the municipality, with "_" standing for "/".
    const int codigo = Cad_Int(StrLeft(entrada, 2));
    for (int i = 0; i < CBProvinciasZelmor->count(); ++i)
      if (CBProvinciasZelmor->itemData(i).toInt() == codigo) CBProvinciasZelmor->setCurrentIndex(i);
    if (CBProvinciasZelmor->currentIndex() >= 0) {
      CBProvinciasZelmorExit(CBProvinciasZelmor);
      CBMunicipiosZelmor->setCurrentIndex(Indice(CBMunicipiosZelmor, MunicipioDeEntradaCP(entrada)));
    }
    return;
  }
  if (CBProvincias->currentText().isEmpty() || CBMunicipios->currentText().isEmpty()) {
    Mensaje_Error(this,
                  QStringLiteral("Para importar vías de un municipio es necesario indicar la provincia y el nombre del "
                                 "municipio"),
                  kFaltanDatos);
    return;
  }
  EsperaDelDialogo espera(*this, QStringLiteral("Importando el listado de vías del municipio..."));
  espera.Cambia(CBMunicipios->currentText());
  if (!ResultadoDeLaTraida([this] { return TraeVias(0, QString(), QString()); },
                           [this] { return !SGVias->Cells(1, 1).trimmed().isEmpty(); })) {
    AvisoSinVias(this);
    return;
  }
  const int provincia = Indice(CBProvinciasZelmor, CBProvincias->currentText());
  CBProvinciasZelmor->setCurrentIndex(provincia);
  if (provincia >= 0) {
    CBProvinciasZelmorExit(CBProvinciasZelmor);
    CBMunicipiosZelmor->setCurrentIndex(Indice(CBMunicipiosZelmor, CBMunicipios->currentText()));
  }
}

void TFImportarVias::advGBBuscarViasPorProvinciaClick() {
  if (!RBTodosConUno->isChecked()) {
    Mensaje_Error(this,
                  QStringLiteral("Para importar las vías de todos los municipios de una \rprovincia es necesario marcar "
                                 "la opción 3ª"),
                  kFaltanDatos);
    return;
  }
  if (CBProvincias->currentIndex() < 0 || CBProvincias->currentText().isEmpty()) {
    Mensaje_Error(this,
                  QStringLiteral("Para importar las vías de todos los \rmunicipios de una provincia es necesario "
                                 "indicarla"),
                  kFaltanDatos);
    return;
  }
  CBProvinciasExit(CBProvincias);
  for (int i = 0; i < CBMunicipios->count(); ++i) {
    CBMunicipios->setCurrentIndex(i);
    const QString provincia = CBProvincias->currentText();
    const QString municipio = CBMunicipios->currentText();
    if (provincia.isEmpty() || municipio.isEmpty()) {
      Mensaje_Error(this,
                    QStringLiteral("Para importar vías de un municipio es necesario indicar la provincia y el nombre "
                                   "del municipio"),
                    kFaltanDatos);
      continue;
    }
    EsperaDelDialogo espera(*this, QStringLiteral("Importando el listado de vías del municipio") + municipio);
    espera.Cambia(municipio);
    // One municipality's trouble does not end the province's run: a fetch
    // that retried has saved its answer or shown its failure already.
    // A fetch that retried has saved the answer of the attempt that worked,
    // or, when all six failed, saved none.
    const int guardadasAntes = nRespuestasGuardadas;
    try {
      if (!ResultadoDeLaTraida([&] { return TraeVias(0, provincia, municipio); },
                               [&] { return nRespuestasGuardadas > guardadasAntes; }))
        AvisoSinVias(this);
    } catch (const std::exception& e) {
      AvisoSinVias(this, QString::fromUtf8(e.what()));
    }
    QThread::msleep(100);
    // Repaint, but take no clicks: a mode or a button pressed mid-run would
    // pull the lists from under it.
    QApplication::processEvents(QEventLoop::ExcludeUserInputEvents);
  }
}

void TFImportarVias::LimpiaDatos(bool pbLimbiarCombos) {
  LMensaje_->clear();
  SGVias->SetRowCount(2);
  const int columnas = SGVias->ColCount() == 7 ? 7 : 2;
  for (int c = 0; c < columnas; ++c) SGVias->SetCells(c, 1, QString());
  if (pbLimbiarCombos) {
    CBProvinciasZelmor->setCurrentIndex(-1);
    CBMunicipiosZelmor->setCurrentIndex(-1);
  }
}

QString TFImportarVias::ConvierteProvincia(const QString& psProvincia) {
  static const std::pair<const char*, const char*> kNombres[] = {
      {"ALACANT", "ALICANTE"}, {"ILLES BALEARS", "BALEARES"}, {"CASTELLO", "CASTELLON"},
      {"A CORUÑA", "CORUÑA"},  {"GIRONA", "GERONA"},          {"LLEIDA", "LERIDA"},
      {"OURENSE", "ORENSE"},   {"LA RIOJA", "RIOJA"},         {"CANTABRIA", "SANTANDER"}};
  for (const auto& [servicio, programa] : kNombres)
    if (psProvincia == QString::fromUtf8(servicio)) return QString::fromUtf8(programa);
  return psProvincia;
}

QString TFImportarVias::MunicipioDeEntradaCP(const QString& psEntrada) {
  QString municipio = psEntrada.contains(u'-') ? CadenaDesdeCaracter(psEntrada, u'-') : psEntrada;
  return municipio.trimmed().replace(QStringLiteral("_"), QStringLiteral("/"), Qt::CaseInsensitive);
}

int TFImportarVias::Indice(QComboBox* poCombo, const QString& psTexto) const {
  QString clave = UpperCase(psTexto);
  if (poCombo == CBProvinciasZelmor) clave = ConvierteProvincia(clave);
  for (int i = 0; i < poCombo->count(); ++i)
    if (UpperCase(poCombo->itemText(i)) == clave) return i;
  return -1;
}
