// What every street row the import appends has in common, whoever gives the
// streets (the dialog's grid, INE's street directory): how the name, type and
// numbers are written, how the next street code is found, which numbers count
// as the same stretch, the layout of a street table made anew, and the walk
// over the host's municipalities.
#pragma once

#include <QString>
#include <functional>
#include <memory>
#include <vector>

#include "dbase/core/dbf_file.h"

class TTable;

namespace CallesImportadas {

// The capital flag of the rows the dialog appends, whatever the mode.
QString CapitalImportado();  // "9"
// The street code of the first row of an empty table.
QString PrimerCodigo();  // "99000000"

// The stretch that stands for "every number".
inline constexpr int kImparIni = 1, kImparFin = 9999, kParIni = 2, kParFin = 9998;

struct Tramo {
  int imparIni = 0, imparFin = 0, parIni = 0, parFin = 0;
  bool todoCero() const { return imparIni == 0 && imparFin == 0 && parIni == 0 && parFin == 0; }
  bool esPorDefecto() const {
    return imparIni == kImparIni && imparFin == kImparFin && parIni == kParIni && parFin == kParFin;
  }
  bool operator==(const Tramo&) const = default;
};

// The numbers a row is stored with: a stretch without numbers is the whole
// street, 1/9999/2/9998.
Tramo TramoGuardado(const Tramo& tramo);
// The duplicate test on numbers: the same four, or a stored whole street
// when the new stretch has none.
bool MismoTramo(const Tramo& guardado, const Tramo& nuevo);

// The texts of a row, from the street's name and type as given.
QString ViaGuardada(const QString& via);      // VIA: upper case
QString TipoGuardado(const QString& tipo);    // TIPO_VIA: upper case
QString Nombre2Guardado(const QString& via);  // NOMBRE_2: lower case, accents and articles as given

// The code of the next row appended to the street table `tabla` of the
// folder or alias `carpeta`: the physically last row's CODIGO1 plus one, or
// the first code on an empty table. Read through a cursor of its own, so no
// other cursor moves.
QString SiguienteCodigo(const QString& carpeta, const QString& tabla);
// The code after `codigo`.
QString CodigoDespues(const QString& codigo);

// The fields of a street table made where there was none and no other
// street table to copy: the host's widths.
std::vector<dbase::FieldSpec> CamposDeCalles();

// MUNICIPI.DBF of an alias on one of its tags, for walking the rows of one
// key. The tag's name is its field's (NOMBRE, COD_INE).
class Municipios {
 public:
  Municipios(const QString& alias, const QString& indice);
  ~Municipios();
  Municipios(const Municipios&) = delete;
  Municipios& operator=(const Municipios&) = delete;
  // Shows each row whose key equals `valor`, in the tag's order, to
  // `visita`, until it answers false.
  void Recorre(const QString& valor, const std::function<bool(TTable&)>& visita);

 private:
  QString indice_;
  std::unique_ptr<TTable> tabla_;
};

}  // namespace CallesImportadas
