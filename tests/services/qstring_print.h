// Lets GoogleTest print QString values readably when an expectation fails.
#pragma once

#include <QString>
#include <QStringList>

#include <ostream>

inline void PrintTo(const QString& texto, std::ostream* salida) {
  *salida << '"' << texto.toStdString() << '"';
}

inline void PrintTo(const QStringList& lista, std::ostream* salida) {
  *salida << '{';
  for (qsizetype i = 0; i < lista.size(); ++i) *salida << (i ? ", \"" : "\"") << lista[i].toStdString() << '"';
  *salida << '}';
}
