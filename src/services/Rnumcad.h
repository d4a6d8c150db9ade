// Text and number helpers of the host library. Codes in the postal tables are
// kept as text ("08", "28001"), so these routines convert, cut and pad them.
#pragma once

#include <QChar>
#include <QString>

// Integer value of a decimal text. Blanks around the number are allowed, an
// optional '+' or '-' sign may lead, and leading zeros are fine ("08" -> 8).
// Anything else -- empty text, letters ("8A"), decimals ("1.5"), a value
// outside the int range -- gives 0, the host's "no number" value.
int Cad_Int(const QString& texto);

// Decimal text of a number, without padding ("-3", "8").
QString Int_Cad(int numero);

// The leftmost / rightmost n characters; the whole text when it is shorter and
// an empty text when n <= 0. StrRight("00000" + code, 5) left-pads a code.
QString StrLeft(const QString& texto, int n);
QString StrRight(const QString& texto, int n);

// Upper / lower case, accented letters included (á -> Á, ñ -> Ñ, ü -> Ü). The
// mapping is one character to one character, so fixed-width fields keep
// their length (ß stays ß).
QString UpperCase(const QString& texto);
QString LowerCase(const QString& texto);

// How many times the character occurs (case-sensitive).
int CuentaCaracter(const QString& texto, QChar caracter);

// The text after the first occurrence of the character ("ROSA (LA)" with '('
// gives "LA)"); an empty text when the character does not occur.
QString CadenaDesdeCaracter(const QString& texto, QChar caracter);

// The text before the first occurrence of the character; the whole text when
// it does not occur.
QString CadenaHastaCaracter(const QString& texto, QChar caracter);
