// codpostales municipio: the strict search by name the address controller
// makes when the user leaves the locality edit, with the calculated fields of
// the row found and the rows after it of the same name (the same name in
// other provinces, or other places of the province).
#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"
#include "controlador.h"
#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "services/Rnumcad.h"

namespace cli {

namespace {

const std::vector<std::string> kCampos = {"COD_INE",   "CODPOSTAL",         "NOMBRE",      "COD_PROV",    "COD_MUN",
                                          "ENT_MENOR", "ccNOMBRE_COMPLETO", "ccPROVINCIA", "ccENT_MAYOR"};

}  // namespace

int municipio(const std::vector<std::string>& args) {
  const OpcionesBusqueda o = leeOpcionesBusqueda("municipio", args, {"provincia"});
  if (o.ayuda) {
    muestraUso(stdout);
    return kSalidaBien;
  }
  // The tables write names in capitals; the search compares them as they are.
  const QString nombre = UpperCase(deUtf8(unicoPosicional("municipio", o, "el nombre del municipio")));
  const QString provincia = o.tiene("provincia") ? codigoDeProvincia(o.valor("provincia"), "provincia") : QString();

  auto c = abreControlador(o.alias, false);
  TTable* municipios = c->oDataModule->TMunicipi;
  std::vector<TField*> campos;
  for (const auto& campo : kCampos) campos.push_back(municipios->FieldByName(QString::fromLatin1(campo)));

  if (!provincia.isEmpty()) c->FiltraLocalidades(provincia);
  std::string salida;
  anadeCsv(salida, kCampos);
  if (!c->BuscaLocalidadPorNombre(nombre, true)) {
    escribe(salida);
    std::fprintf(stderr, "codpostales: municipio no encontrado: %s\n", aUtf8(nombre).c_str());
    return kSalidaNoEncontrado;
  }

  const QString hallado = c->oDataModule->TMunicipiNOMBRE->AsString();
  std::vector<std::string> valores;
  for (; !municipios->Eof() && c->oDataModule->TMunicipiNOMBRE->AsString() == hallado; municipios->Next()) {
    valores.clear();
    for (TField* campo : campos) valores.push_back(aUtf8(campo->AsString()));
    anadeCsv(salida, valores);
  }
  escribe(salida);
  return kSalidaBien;
}

}  // namespace cli
