// What the simulated service knows: provinces and municipalities from the
// recorded answers (or a built-in list), streets from dBase street tables or
// made up from the municipality's name.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <map>
#include <stdexcept>

namespace simulador {

// Bad or unreadable data: a fault of the server, never of the request.
class ErrorDeDatos : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Provincia {
  QString cpine;   // as served: two digits, "03"
  QString nombre;  // np, as served: "A CORUÑA", "S.C. TENERIFE"
  int codigo() const { return cpine.toInt(); }
};

// The codes as the service writes them, without leading zeros.
struct Municipio {
  QString nombre;  // nm
  QString cd, cmc;  // locat: cadastre delegation and municipality
  QString cp, cm;   // loine: INE province and municipality
  // Five-digit INE code: "28079".
  QString codigoIne() const;
};

struct Calle {
  QString codigo;  // cv
  QString tipo;    // tv: CL, AV...
  QString nombre;  // nv
};

class Datos {
 public:
  // carpetaOvc empty: the built-in province list with one municipality each.
  // carpetaCalles empty: synthetic streets only. Throws ErrorDeDatos.
  Datos(const QString& carpetaOvc, const QString& carpetaCalles);

  const QList<Provincia>& provincias() const { return provincias_; }
  // The consulta_provinciero document, without XML declaration: the recorded
  // bytes as they stand, or the built-in list in the same layout.
  const QByteArray& documentoProvincias() const { return documentoProvincias_; }
  // By name exactly as served (np); nullptr when there is none.
  const Provincia* provincia(const QString& nombre) const;
  // Read from the recording on first use. Throws ErrorDeDatos.
  const QList<Municipio>& municipios(const Provincia& provincia);
  // Distinct (type, name) pairs of the street tables for the municipality's
  // INE code, or the synthetic list when the tables have none; sorted by
  // name, then type, and numbered from 1. Throws dbase::Error on a bad table.
  QList<Calle> calles(const Municipio& municipio) const;

 private:
  void leeProvincias(const QString& fichero);
  void indexaMunicipios(const QString& carpeta);
  void usaListaPropia();

  QList<Provincia> provincias_;
  QByteArray documentoProvincias_;
  std::map<int, QString> ficherosMunicipios_;    // province code -> recorded file
  std::map<int, QList<Municipio>> municipios_;   // read so far, or built in
  QString carpetaCalles_;
};

// The deterministic made-up street list of a municipality: 3 to 40 streets,
// types CL, AV, PZ, CM, TR and PS, distinct names, sorted by name.
QList<Calle> callesInventadas(const QString& municipio);

// Municipality names that are paths or device names, for a client that
// builds file names from them: ../../FUERA, ..\..\FUERA, A/B, A\B, .., CON:NUL.
QList<Municipio> municipiosPeligrosos(const Provincia& provincia);
QStringList nombresPeligrosos();

}  // namespace simulador
