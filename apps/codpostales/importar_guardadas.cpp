// codpostales importar-guardadas: the import dialog's runs over saved
// answers without a window -- one province folder or all of them -- with the
// municipalities nobody can be asked about listed instead.
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QRadioButton>
#include <cstdio>

#include "cli.h"
#include "controlador.h"
#include "import/ImportarVias.h"
#include "lookup/ClaseCodPostales.h"

namespace cli {

int importarGuardadas(const std::vector<std::string>& args) {
  const OpcionesBusqueda o = leeOpcionesBusqueda("importar-guardadas", args, {"provincia"});
  if (o.ayuda) {
    muestraUso(stdout);
    return kSalidaBien;
  }
  if (!o.posicionales.empty()) throw ErrorDeUso("sobra el argumento «" + o.posicionales[0] + "»");

  const auto aplicacion = creaAplicacion();
  PresentadorConsola mensajes;
  const PresentadorMensajesTemporal presentador(&mensajes);
  const std::unique_ptr<TClaseCodPostales> controlador = abreControlador(o.alias, true);
  TFImportarVias dialogo(nullptr, controlador.get());
  dialogo.RBTodosConUno->setChecked(true);
  dialogo.CargaProvinciasZelmor();
  dialogo.PreguntaMunicipio = [](const QString&, QString&, QString&) { return false; };
  if (o.tiene("provincia")) {
    dialogo.CBProvincias->addItem(deUtf8(o.valor("provincia")));
    dialogo.CBProvincias->setCurrentIndex(0);
    dialogo.advGBGuardarPorProvinciaClick();
  } else {
    // The service's provinces are the folders' names.
    const QStringList carpetas = QDir(dialogo.CarpetaPostal()).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& carpeta : carpetas) dialogo.CBProvincias->addItem(carpeta);
    dialogo.MIGuardarPorProvinciaClick();
  }

  const TFImportarVias::TResumenGuardado& r = dialogo.oResumenGuardado;
  for (const QString& municipio : r.lSinMunicipio)
    std::fprintf(stderr, "codpostales: ningún municipio del programa se llama como %s\n", aUtf8(municipio).c_str());
  std::string salida;
  anadeCsv(salida, {"ficheros", "municipios", "vias", "varios_codigos", "sin_municipio", "ilegibles"});
  anadeCsv(salida, {std::to_string(r.nFicheros), std::to_string(r.nMunicipiosGuardados),
                    std::to_string(r.nViasGuardadas), std::to_string(r.nVariosCodigos),
                    std::to_string(r.lSinMunicipio.size()), std::to_string(r.lIlegibles.size())});
  escribe(salida);
  return r.nFicheros == 0 ? kSalidaError : kSalidaBien;
}

}  // namespace cli
