// The index tags of the reference tables (provinces, municipalities, streets,
// street types, the municipalities of the Ministry of Justice), as the data
// module that owns those tables declares them at design time. Kept in one
// place so every table opened on a reference file orders and searches alike.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include <vector>

#include "dbase/core/mdx_build.h"

class TTable;

struct IndiceDeReferencia {
  QString nombre;
  QStringList campos;
};

// The tags of a reference file, from its name: PROVIN, MUNICIPI, POSTAL and
// POSTALnn (the per-province street files), TIPO_VIA and MUNICIMJ. Folder,
// extension and case are ignored. Any other file has no declared tags.
QList<IndiceDeReferencia> IndicesDeReferencia(const QString& fichero);

// The same tags as a production index holds them: each a key expression that
// orders as the declared fields do — the field's name for one field, the
// fields joined by "+" for several, a number among several as STR(field,
// width, decimals) so that it keeps its place. Empty for other files.
std::vector<dbase::TagDefinition> DefinicionesDeIndiceDeReferencia(const QString& fichero, const dbase::DbfFile& tabla);

// Declares on the table (AddIndexDef) the tags of its file, TableName().
void DeclaraIndicesDeReferencia(TTable* tabla);
