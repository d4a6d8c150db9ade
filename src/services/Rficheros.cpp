#include "services/Rficheros.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>

namespace {

bool esPosix() {
#ifdef Q_OS_WIN
  return false;
#else
  return true;
#endif
}

// Anchored, case-insensitive expression for a Windows-style name pattern.
QRegularExpression expresionDeMascara(const QString& patron) {
  if (patron.isEmpty() || patron == u"*.*") return QRegularExpression(QStringLiteral(".*"));
  QString expresion;
  QString literal;
  auto vuelca = [&] {
    expresion += QRegularExpression::escape(literal);
    literal.clear();
  };
  for (QChar c : patron) {
    if (c == u'*') {
      vuelca();
      expresion += QStringLiteral(".*");
    } else if (c == u'?') {
      vuelca();
      expresion += u'.';
    } else {
      literal += c;
    }
  }
  vuelca();
  return QRegularExpression(QRegularExpression::anchoredPattern(expresion),
                            QRegularExpression::CaseInsensitiveOption |
                                QRegularExpression::DotMatchesEverythingOption);
}

}  // namespace

QString SlashSep(const QString& primero, const QString& segundo, QChar separador) {
  QString a = primero;
  QString b = segundo;
  QChar sep = separador;
  if (esPosix() && separador == u'\\') {
    sep = u'/';
    a.replace(u'\\', u'/');
    b.replace(u'\\', u'/');
  }
  if (a.isEmpty()) return b;

  qsizetype fin = a.size();
  while (fin > 0 && a[fin - 1] == sep) --fin;
  qsizetype inicio = 0;
  while (inicio < b.size() && b[inicio] == sep) ++inicio;
  return a.left(fin) + sep + b.mid(inicio);
}

void FindFileNoRecursivo(const QString& mascara, QStringList& lista, bool soloNombres) {
  QString ruta = mascara;
  if (esPosix()) ruta.replace(u'\\', u'/');

  const qsizetype barra = ruta.lastIndexOf(u'/');
  QString carpeta;
  QString patron;
  if (barra < 0) {
    carpeta = QStringLiteral(".");
    patron = ruta;
  } else {
    carpeta = barra == 0 ? QStringLiteral("/") : ruta.left(barra);
    patron = ruta.mid(barra + 1);
  }

  const QDir dir(carpeta);
  if (!dir.exists()) return;

  const QRegularExpression expresion = expresionDeMascara(patron);
  QStringList nombres;
  const QStringList entradas = dir.entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
  for (const QString& nombre : entradas) {
    if (expresion.match(nombre).hasMatch()) nombres.append(nombre);
  }
  std::sort(nombres.begin(), nombres.end(), [](const QString& x, const QString& y) {
    const int c = x.compare(y, Qt::CaseInsensitive);
    return c != 0 ? c < 0 : x < y;
  });

  for (const QString& nombre : nombres) {
    lista.append(soloNombres ? nombre : QDir::cleanPath(dir.absoluteFilePath(nombre)));
  }
}
