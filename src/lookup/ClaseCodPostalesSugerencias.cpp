// Suggestions for a locality the strict search does not find.
#include "dbase/TTable.h"
#include "lookup/ClaseCodPostales.h"
#include "services/Ruttb.h"

QList<SugerenciaLocalidad> TClaseCodPostales::SugiereLocalidades(const QString& texto, int maximo) {
  // Tables of their own, without calculated fields, so the ones on screen
  // do not move; they share the files already open.
  TTable municipios;
  municipios.SetDatabaseName(sAlias);
  municipios.SetTableName(QStringLiteral("MUNICIPI.DBF"));
  TBOpen(&municipios);
  if (!oIndiceLocalidades || iFilasIndiceLocalidades != municipios.RecordCount()) {
    TTable provincias;
    provincias.SetDatabaseName(sAlias);
    provincias.SetTableName(QStringLiteral("PROVIN.DBF"));
    TBOpen(&provincias);
    TBFiltra(&provincias, QStringLiteral("GRUPO=1"));
    QHash<int, QString> nombres;
    for (provincias.First(); !provincias.Eof(); provincias.Next())
      nombres.insert(provincias.FieldByName(QStringLiteral("CODIGO"))->AsInteger(),
                     provincias.FieldByName(QStringLiteral("PROVINCIA"))->AsString());
    auto indice = std::make_unique<TIndiceLocalidades>();
    indice->Construye(&municipios, nombres);
    oIndiceLocalidades = std::move(indice);
    iFilasIndiceLocalidades = municipios.RecordCount();
  }
  return oIndiceLocalidades->Sugiere(texto, maximo);
}
