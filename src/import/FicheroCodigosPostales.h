// The postcode text files of mode 1 of the street import, one stretch of a
// street per line:
//
//   28001: ALCALA, CALLE (IMPARES DEL 1 AL 15)
//
// postcode, ":", name, ",", the written street type and, in brackets, the
// house numbers the postcode covers. Reading a file needs nothing but its
// bytes: the written type is turned into a code by the caller, which has the
// street-type table.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// "AL FINAL": the open-ended bounds, also what GuardaVias stores by default.
inline constexpr int kFinalImpar = 9999;
inline constexpr int kFinalPar = 9998;

struct LineaCodigoPostal {
  QString nombre;        // trimmed, never empty, not cut to the field width
  QString codigoPostal;  // the text before ":", trimmed; empty without ":"
  bool conTipo = false;  // a comma outside the brackets names a street type
  QString tipoEscrito;   // what follows that comma, upper case, trimmed
  // The range wording's numbers; 0 where the line gives none.
  int imparIni = 0, imparFin = 0, parIni = 0, parFin = 0;
};

// The file's text: UTF-8 when the bytes are valid UTF-8 (a byte-order mark
// is dropped), Windows-1252 otherwise; a Ctrl+Z ends it.
QString TextoDeFicheroCodigosPostales(QByteArray bytes);

// The lines that name a street, in file order. Blank lines, and lines that
// leave no street name, give none. Never throws.
QList<LineaCodigoPostal> LeeFicheroCodigosPostales(const QByteArray& bytes);

// The written type as the street-type table is searched by: the text before
// any "(", trimmed.
QString TipoEscritoSinRango(const QString& psTipoVia);
