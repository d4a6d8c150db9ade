// codpostales ovc: the lists of the cadastre's street-directory service, as
// the import dialog loads them, printed as CSV; or a municipality's answer
// saved where the import's saved-file runs look for it.
#include <QApplication>
#include <QComboBox>
#include <QFile>
#include <memory>

#include "cli.h"
#include "controlador.h"
#include "import/ImportarVias.h"
#include "import/ImportarViasServicio.h"
#include "platform/TStringGrid.h"

namespace cli {

namespace {

std::string listaDelCombo(const char* cabecera, const QComboBox* combo) {
  std::string salida;
  anadeCsv(salida, {cabecera});
  for (int i = 0; i < combo->count(); ++i) anadeCsv(salida, {aUtf8(combo->itemText(i))});
  return salida;
}

std::string viasDeLaRejilla(const TStringGrid* rejilla) {
  std::string salida;
  anadeCsv(salida, {"tipo", "nombre"});
  for (int fila = 1; fila < rejilla->RowCount(); ++fila) {
    if (rejilla->Cells(1, fila).trimmed().isEmpty()) continue;  // the empty row a cleared grid keeps
    anadeCsv(salida, {aUtf8(rejilla->Cells(0, fila)), aUtf8(rejilla->Cells(1, fila))});
  }
  return salida;
}

// The fetch failed: the messages already went to standard error.
int fallo(const std::string& que) {
  std::fprintf(stderr, "codpostales: no se han podido traer %s del servicio\n", que.c_str());
  return kSalidaError;
}

}  // namespace

int ovc(const std::vector<std::string>& args) {
  const OpcionesBusqueda o = leeOpcionesBusqueda("ovc", args, {"guardar"});
  if (o.ayuda) {
    muestraUso(stdout);
    return kSalidaBien;
  }
  if (o.posicionales.empty()) throw ErrorDeUso("ovc: falta la lista (provincias, municipios o vias)");
  const std::string& lista = o.posicionales[0];
  const size_t esperados = lista == "provincias" ? 1 : lista == "municipios" ? 2 : lista == "vias" ? 3 : 0;
  if (esperados == 0) throw ErrorDeUso("ovc: lista desconocida «" + lista + "» (provincias, municipios o vias)");
  if (o.posicionales.size() < esperados) throw ErrorDeUso("ovc " + lista + ": faltan argumentos");
  if (o.posicionales.size() > esperados) throw ErrorDeUso("sobra el argumento «" + o.posicionales[esperados] + "»");
  if (o.tiene("guardar") && lista != "vias") throw ErrorDeUso("--guardar sólo vale para ovc vias");

  const auto aplicacion = creaAplicacion();
  PresentadorConsola mensajes;
  const PresentadorMensajesTemporal presentador(&mensajes);
  TFImportarVias dialogo(nullptr, nullptr);
  if (lista == "provincias") {
    const auto cargadas = [&] { return dialogo.CBProvincias->count() > 0; };
    if (!ResultadoDeLaTraida([&] { return dialogo.TraeProvincias(0); }, cargadas)) return fallo("las provincias");
    escribe(listaDelCombo("provincia", dialogo.CBProvincias));
    return kSalidaBien;
  }
  dialogo.CBProvincias->addItem(deUtf8(o.posicionales[1]));
  if (lista == "municipios") {
    const auto cargados = [&] { return dialogo.CBMunicipios->count() > 0; };
    if (!ResultadoDeLaTraida([&] { return dialogo.TraeMunicipios(0); }, cargados)) return fallo("los municipios");
    escribe(listaDelCombo("municipio", dialogo.CBMunicipios));
    return kSalidaBien;
  }
  dialogo.CBMunicipios->addItem(deUtf8(o.posicionales[2]));
  if (o.tiene("guardar")) {
    dialogo.sAlias = deUtf8(o.valor("guardar"));
    const QString provincia = dialogo.CBProvincias->currentText(), municipio = dialogo.CBMunicipios->currentText();
    const QString guardada = dialogo.CarpetaPostal() + u'/' + NombreDeFicheroGuardado(provincia) + u'/' +
                             NombreDeFicheroGuardado(municipio) + QStringLiteral(".xml");
    if (!ResultadoDeLaTraida([&] { return dialogo.TraeVias(0, provincia, municipio); },
                             [&] { return QFile::exists(guardada); }))
      return fallo("las vías");
    return kSalidaBien;
  }
  const auto hayVias = [&] { return !dialogo.SGVias->Cells(1, 1).trimmed().isEmpty(); };
  if (!ResultadoDeLaTraida([&] { return dialogo.TraeVias(0, QString(), QString()); }, hayVias))
    return fallo("las vías");
  escribe(viasDeLaRejilla(dialogo.SGVias));
  return kSalidaBien;
}

}  // namespace cli
