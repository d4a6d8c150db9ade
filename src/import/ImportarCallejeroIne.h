// Storing INE's electoral-census street directory (CallejeroIne.h) in the
// host's street tables: one row per street, postcode and range of house
// numbers, appended to the street file of the stretch's province
// (Postales/POSTALnn.DBF, made with its tags when missing; the folder's
// POSTAL.DBF when it has no "Postales" folder), with the values the street
// import writes (CallesImportadas.h). Rows already stored are not stored
// again, so a second run of the same files adds nothing.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <cstddef>
#include <cstdint>
#include <functional>

struct ResumenCallejeroIne {
  QString diseno;               // of the VIAS file: "antiguo (108)" or "nuevo (132)"
  size_t tramos = 0;            // lines of the stretch file
  size_t filasGuardadas = 0;    // rows appended
  size_t filasYaGuardadas = 0;  // rows that were stored already
  // Stretches not stored, by cause.
  size_t sinViaPseudovia = 0;    // a pseudo-street, no street
  size_t sinViaUnidad = 0;       // a rural population unit, no street
  size_t sinNumeroEnCalleNumerada = 0;  // unnumbered stretch of a street with numbers
  size_t deOtrasProvincias = 0;  // left out by the provinces asked for
  size_t deMunicipioAusente = 0;  // of a municipality MUNICIPI.DBF lacks
  size_t viaDesconocida = 0;     // its street code is not in VIAS
  size_t lineasErroneas = 0;     // lines of the stretch file that are no stretch
  size_t viasErroneas = 0;       // lines of the street file that are no street (or repeat one)
  // Street types neither INE's types table nor the host's TIPO_VIA.DBF
  // know (INE's codes), and the rows stored without a type because of them.
  QStringList tiposDesconocidos;
  size_t filasSinTipo = 0;
  // INE codes of the municipalities MUNICIPI.DBF lacks.
  QStringList municipiosAusentes;
  // The street files written, with the rows each took ("Postales/POSTAL28.DBF").
  QList<QPair<QString, size_t>> ficheros;
};

struct AvisosCallejeroIne {
  // A bad line: "FILE, línea N: why".
  std::function<void(const QString&)> lineaMala;
  // How far the reading of the stretch file is (bytes).
  std::function<void(uint64_t leidos, uint64_t total)> progreso;
};

// Reads TRAM and VIAS, joins them, and stores the rows in the street tables
// of the alias or folder. `tipos` is INE's street-type table (TiposVia.csv,
// ";"-separated: TIPO_VIA;SINONIMO;DESCRIPCION;...); empty looks for
// TiposVia.csv beside the stretch file and goes without when there is none
// (then only a TVIA that names a host type outright is known). `provincias`
// keeps only those (empty: every one). Throws std::runtime_error (a file of
// neither design, a file that cannot be read) or dbase::Error (the tables)
// naming the file; nothing is written before both files are read whole.
ResumenCallejeroIne ImportaCallejeroIne(const QString& alias, const QString& tramos, const QString& vias,
                                        const QString& tipos, const QList<int>& provincias,
                                        const AvisosCallejeroIne& avisos = {});
