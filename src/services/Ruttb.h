// Table helpers of the host library: the short routines its forms call to
// open, post, filter, order and search a TTable, and to make a table on a
// reference file. Engine faults reach the caller as dbase::Error.
#pragma once

#include <QString>
#include <QVariantList>

class TTable;

// Opens the table (nothing happens when it is already open).
void TBOpen(TTable* t);

// Posts the pending edit or insert of the current row (nothing when none).
void TBPost(TTable* t);

// Installs the text as the table's filter and switches filtering on; an empty
// text switches filtering off. A text the engine refuses raises its error and
// leaves the previous filter, text and switch, in force.
void TBFiltra(TTable* t, const QString& filtro);

// Makes the named index tag the current order ("" = physical order).
void TBIndexa(const QString& indice, TTable* t);
// As above, and gives back in `indice` the name of the tag that was current
// before, so the caller can put it back with the first form.
void TBIndexa(TTable* t, QString& indice);

// Searches the index in force. `clave` is a flat list of field-name / value
// pairs, one to four, naming the leading fields of the index in order:
//   {"COD_INE", codigo}   {"PROVINCIA", p, "CAPITAL", c, "VIA", v, "TIPO_VIA", tv}
// exacto: positions on the first row whose key fields equal the values and
// returns true; returns false and leaves the cursor where it was otherwise.
// Not exacto: positions on the nearest row at or after the values (the last
// value may be the start of a text), or on the last row when none is; returns
// true when the view has rows.
// A list of odd length, more than four pairs, or names that are not the
// index's leading fields is a dbase::Error (InvalidArgument) naming the table
// and the index.
bool TBBusca(TTable* t, const QVariantList& clave, bool exacto);

// The folder an alias stands for: a registered alias, the environment
// variable CODPOSTALES_ALIAS_<NAME>, or a folder path (see dbase/core/alias.h).
QString RutaDelAlias(const QString& alias);

// A new table on `fichero` in `baseDatos` (alias or folder), with the tags the
// reference files declare (dbase/ReferenceTags.h) and `indice` in force.
// flag1 is the BDE's exclusive switch: ignored, since the engine shares one
// file among the tables of the process. flag2 opens the table. The hosts pass
// (false, true). The caller owns the table; nothing is left behind on error.
TTable* CreaTabla(const QString& baseDatos, const QString& fichero, const QString& indice, bool flag1, bool flag2);
