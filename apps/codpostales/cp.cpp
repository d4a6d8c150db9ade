// codpostales cp: the postcode of a house number, by the rule the controller
// applies when the user leaves the number edit. The rule reads and writes the
// controller's edits, so the command gives it edits nobody sees.
#include <QApplication>
#include <QLineEdit>
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

int noEncontrado(const std::string& salida, const std::string& motivo) {
  escribe(salida);
  std::fprintf(stderr, "codpostales: %s\n", motivo.c_str());
  return kSalidaNoEncontrado;
}

// BuscaDomicilioPorVia answers at once when the table already stands on the
// street, or on a longer one that begins with its name, without searching:
// start from a row that is neither.
void saleDeLaCalle(TTable* calles, TField* via, const QString& nombre) {
  if (!via->AsString().startsWith(nombre)) return;
  calles->First();
  if (via->AsString().startsWith(nombre)) calles->Last();
}

}  // namespace

int cp(const std::vector<std::string>& args) {
  const OpcionesBusqueda o = leeOpcionesBusqueda("cp", args, {"ine", "via", "tipo", "numero"});
  if (o.ayuda) {
    muestraUso(stdout);
    return kSalidaBien;
  }
  if (!o.posicionales.empty()) throw ErrorDeUso("sobra el argumento «" + o.posicionales[0] + "»");
  for (const char* opcion : {"ine", "via", "numero"})
    if (!o.tiene(opcion)) throw ErrorDeUso(std::string("cp: falta --") + opcion);
  if (!soloCifras(o.valor("ine"), 5))
    throw ErrorDeUso("--ine espera el código INE del municipio (cinco cifras), no «" + o.valor("ine") + "»");
  if (!soloCifras(o.valor("numero")))
    throw ErrorDeUso("--numero espera el número de la casa (cifras), no «" + o.valor("numero") + "»");
  const QString ine = QString::fromLatin1(o.valor("ine"));
  const QString via = UpperCase(deUtf8(o.valor("via")));
  if (via.isEmpty()) throw ErrorDeUso("--via vacía");
  const QString tipo = o.tiene("tipo") ? UpperCase(deUtf8(o.valor("tipo"))) : QString();
  const QString numero = deUtf8(o.valor("numero"));

  auto aplicacion = creaAplicacion();
  QLineEdit domicilio, numeroCasa, codPostal;
  auto c = abreControlador(o.alias, true);
  c->oadvEDomicilio = &domicilio;
  c->oadvENumero = &numeroCasa;
  c->oadvECodPostal = &codPostal;
  TDMCodPostales* dm = c->oDataModule;

  std::string salida;
  anadeCsv(salida, {"CODPOSTAL", "VIA", "TIPO_VIA", "IMPAR_INI", "IMPAR_FIN", "PAR_INI", "PAR_FIN"});
  // The street search takes the capital flag of the municipality the table stands on.
  if (!c->BuscaLocalidadPorCodIne(ine, true)) return noEncontrado(salida, "municipio no encontrado: " + aUtf8(ine));
  c->ActualizaTablaPostal(ine);
  if (!c->FiltraVias(ine)) return noEncontrado(salida, "el municipio " + aUtf8(ine) + " no tiene calles");
  saleDeLaCalle(dm->TPostal, dm->TPostalVIA, via);
  c->BuscaDomicilioPorVia(via, ine.left(2), tipo, false);
  if (dm->TPostalVIA->AsString() != via) return noEncontrado(salida, "calle no encontrada: " + aUtf8(via));

  domicilio.setText(via);
  numeroCasa.setText(numero);
  codPostal.clear();
  c->advENumeroExit(&numeroCasa);
  if (codPostal.text().isEmpty())
    return noEncontrado(salida, "ningún tramo de " + aUtf8(via) + " tiene el número " + aUtf8(numero));

  std::vector<std::string> valores = {aUtf8(codPostal.text())};
  for (TField* campo : {dm->TPostalVIA, dm->TPostalTIPO_VIA, dm->TPostalIMPAR_INI, dm->TPostalIMPAR_FIN,
                        dm->TPostalPAR_INI, dm->TPostalPAR_FIN})
    valores.push_back(aUtf8(campo->AsString()));
  anadeCsv(salida, valores);
  escribe(salida);
  return kSalidaBien;
}

}  // namespace cli
