#include "services/Rnumcad.h"

#include <climits>

int Cad_Int(const QString& texto) {
  const QString t = texto.trimmed();
  qsizetype i = 0;
  bool negativo = false;
  if (i < t.size() && (t[i] == u'+' || t[i] == u'-')) {
    negativo = t[i] == u'-';
    ++i;
  }
  if (i == t.size()) return 0;  // empty, or a lone sign

  // Accumulate as a negative number so that INT_MIN fits too.
  long long valor = 0;
  for (; i < t.size(); ++i) {
    const char16_t c = t[i].unicode();
    if (c < u'0' || c > u'9') return 0;
    valor = valor * 10 + (c - u'0');
    if (valor > static_cast<long long>(INT_MAX) + 1) return 0;
  }
  if (negativo) return static_cast<int>(-valor);
  return valor > INT_MAX ? 0 : static_cast<int>(valor);
}

QString Int_Cad(int numero) { return QString::number(numero); }

QString StrLeft(const QString& texto, int n) {
  if (n <= 0) return QString();
  return texto.left(n);
}

QString StrRight(const QString& texto, int n) {
  if (n <= 0) return QString();
  return texto.right(n);
}

QString UpperCase(const QString& texto) {
  QString resultado = texto;
  for (QChar& c : resultado) c = c.toUpper();
  return resultado;
}

QString LowerCase(const QString& texto) {
  QString resultado = texto;
  for (QChar& c : resultado) c = c.toLower();
  return resultado;
}

int CuentaCaracter(const QString& texto, QChar caracter) {
  return static_cast<int>(texto.count(caracter));
}

QString CadenaDesdeCaracter(const QString& texto, QChar caracter) {
  const qsizetype pos = texto.indexOf(caracter);
  return pos < 0 ? QString() : texto.mid(pos + 1);
}

QString CadenaHastaCaracter(const QString& texto, QChar caracter) {
  const qsizetype pos = texto.indexOf(caracter);
  return pos < 0 ? texto : texto.left(pos);
}
