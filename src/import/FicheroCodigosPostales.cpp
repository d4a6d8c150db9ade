#include "import/FicheroCodigosPostales.h"

#include <QRegularExpression>
#include <QStringDecoder>
#include <QStringList>
#include <string_view>

#include "dbase/core/codepage.h"
#include "services/Rnumcad.h"

namespace {

// One side of the range wording: the first "IMPAR"/"IMPARES" (or
// "PAR"/"PARES") followed by an optional "DEL" and a number gives the start;
// "AL" and a number, or "AL FINAL", the end. Numbers not given stay 0.
void RangoDeUnLado(const QStringList& palabras, const QString& singular, const QString& plural, int final,
                   int& pnIni, int& pnFin) {
  // The words are runs of letters or of digits: a number starts with a digit.
  const auto numero = [](const QString& palabra, int& valor) {
    bool ok = false;
    const int n = palabra.at(0).isDigit() ? palabra.toInt(&ok) : 0;
    if (ok) valor = n;
    return ok;
  };
  for (qsizetype i = 0; i < palabras.size(); ++i) {
    if (palabras[i] != singular && palabras[i] != plural) continue;
    qsizetype j = i + 1;
    if (j < palabras.size() && palabras[j] == u"DEL") ++j;
    if (j >= palabras.size() || !numero(palabras[j], pnIni)) continue;
    if (j + 2 < palabras.size() && palabras[j + 1] == u"AL") {
      if (palabras[j + 2] == u"FINAL")
        pnFin = final;
      else
        numero(palabras[j + 2], pnFin);
    }
    return;
  }
}

// The four numbers of a line's range wording, in upper case:
// "(IMPARES DEL 1 AL 15)", "(PAR DEL 2 AL FINAL)", both sides in one bracket.
// A side whose word is absent keeps its numbers at 0.
void NumeracionParImpar(const QString& psTexto, int& pnImparIni, int& pnImparFin, int& pnParIni, int& pnParFin) {
  static const QRegularExpression kPalabra(QStringLiteral("\\p{L}+|\\d+"));
  QStringList palabras;
  for (auto it = kPalabra.globalMatch(psTexto); it.hasNext();) palabras << it.next().captured();
  RangoDeUnLado(palabras, QStringLiteral("IMPAR"), QStringLiteral("IMPARES"), kFinalImpar, pnImparIni, pnImparFin);
  RangoDeUnLado(palabras, QStringLiteral("PAR"), QStringLiteral("PARES"), kFinalPar, pnParIni, pnParFin);
}

// Where the written type starts: the last comma outside the range's brackets
// with a letter two characters behind it (comma, blank, type); -1 if none.
// Commas inside a bracket belong to the range wording, and one followed by a
// digit to the name ("KM 5,5").
qsizetype ComaDelTipo(const QString& psLinea) {
  int profundidad = 0;
  for (qsizetype i = psLinea.size() - 1; i >= 0; --i) {
    const QChar c = psLinea[i];
    if (c == u')') {
      ++profundidad;
    } else if (c == u'(') {
      if (profundidad > 0) --profundidad;
    } else if (c == u',' && profundidad == 0 && i + 2 < psLinea.size() && psLinea[i + 2].isLetter()) {
      return i;
    }
  }
  return -1;
}

}  // namespace

QString TextoDeFicheroCodigosPostales(QByteArray bytes) {
  const qsizetype finDos = bytes.indexOf('\x1A');
  if (finDos >= 0) bytes.truncate(finDos);
  QStringDecoder utf8(QStringDecoder::Utf8);
  QString texto = utf8.decode(bytes);
  if (!utf8.hasError()) {
    if (texto.startsWith(QChar(0xFEFF))) texto.remove(0, 1);
    return texto;
  }
  return QString::fromStdString(
      dbase::CodePage::forNumber(1252).decode(std::string_view(bytes.constData(), size_t(bytes.size()))));
}

QString TipoEscritoSinRango(const QString& psTipoVia) { return CadenaHastaCaracter(psTipoVia, u'(').trimmed(); }

QList<LineaCodigoPostal> LeeFicheroCodigosPostales(const QByteArray& bytes) {
  QList<LineaCodigoPostal> lineas;
  static const QRegularExpression kFinDeLinea(QStringLiteral("\r\n|\n|\r"));
  for (const QString& bruta : TextoDeFicheroCodigosPostales(bytes).split(kFinDeLinea)) {
    const QString linea = bruta.trimmed();
    if (linea.isEmpty()) continue;  // a blank line holds no street
    LineaCodigoPostal l;
    NumeracionParImpar(UpperCase(linea), l.imparIni, l.imparFin, l.parIni, l.parFin);
    QString nombre = linea;
    if (const qsizetype coma = ComaDelTipo(linea); coma >= 0) {
      l.conTipo = true;
      l.tipoEscrito = UpperCase(linea.mid(coma + 1).trimmed());
      nombre = linea.left(coma);
    }
    // The bracket holds the range wording.
    if (l.imparIni != 0 || l.imparFin != 0 || l.parIni != 0 || l.parFin != 0)
      nombre = CadenaHastaCaracter(nombre, u'(');
    nombre = nombre.trimmed();
    if (nombre.contains(u':')) {
      l.codigoPostal = CadenaHastaCaracter(nombre, u':').trimmed();
      nombre = CadenaDesdeCaracter(nombre, u':').trimmed();
    }
    if (nombre.isEmpty()) continue;  // no street to store
    l.nombre = nombre;
    lineas.append(l);
  }
  return lineas;
}
