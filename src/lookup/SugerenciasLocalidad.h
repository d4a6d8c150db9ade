// Suggestions for a locality the strict search does not find: ranked places
// whose name matches what was typed ignoring accents, with its article in
// either place ("LA GINETA" or "GINETA (LA)"), either half of a bilingual
// name ("ALICANTE" finds "ALACANT/ALICANTE"), or with one or two letters
// wrong, missing, extra or swapped ("ZARAGOSA").
//
// The index holds every row of MUNICIPI.DBF, municipalities and minor
// entities of every province, with their names reduced to a comparison key.
#pragma once

#include <QHash>
#include <QList>
#include <QString>
#include <cstdint>
#include <string>
#include <vector>

class TTable;

struct SugerenciaLocalidad {
  QString Nombre;     // as the table writes it
  QString Provincia;  // the province's name
  QString CodIne;
  QString CodPostal;
  bool EntidadMenor = false;
  int Diferencias = 0;  // letters to change; 0 for the name or its beginning
};

class TIndiceLocalidades {
 public:
  // Reads every row of an open MUNICIPI table (its position is kept) and
  // the province names by code.
  void Construye(TTable* municipios, const QHash<int, QString>& provincias);
  bool Vacio() const { return filas_.empty(); }
  size_t Filas() const { return filas_.size(); }

  // Best first: the whole name, then names that begin with the text, then
  // names one or two letters away; within each, municipalities before minor
  // entities, fewer differences, shorter names.
  QList<SugerenciaLocalidad> Sugiere(const QString& texto, int maximo) const;

  // The comparison key of a name: upper case without accents (Ñ as N),
  // blanks and punctuation as one blank, a trailing "(LA)" moved in front.
  static std::string Clave(const QString& nombre);

 private:
  struct Fila {
    QString nombre, provincia, codIne, codPostal;
    bool entidadMenor;
  };
  struct Entrada {
    std::string clave;
    uint32_t fila;
  };
  std::vector<Fila> filas_;
  std::vector<Entrada> entradas_;  // sorted by key
};
