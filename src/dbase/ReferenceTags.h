// The index tags of the reference tables (provinces, municipalities, streets,
// street types, the municipalities of the Ministry of Justice), as the data
// module that owns those tables declares them at design time. Kept in one
// place so every table opened on a reference file orders and searches alike.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>

class TTable;

struct IndiceDeReferencia {
  QString nombre;
  QStringList campos;
};

// The tags of a reference file, from its name: PROVIN, MUNICIPI, POSTAL and
// POSTALnn (the per-province street files), TIPO_VIA and MUNICIMJ. Folder,
// extension and case are ignored. Any other file has no declared tags.
QList<IndiceDeReferencia> IndicesDeReferencia(const QString& fichero);

// Declares on the table (AddIndexDef) the tags of its file, TableName().
void DeclaraIndicesDeReferencia(TTable* tabla);
