#include "import/CallesImportadas.h"

#include "dbase/TTable.h"
#include "services/Rnumcad.h"
#include "services/Ruttb.h"

namespace CallesImportadas {

QString CapitalImportado() { return QStringLiteral("9"); }

QString PrimerCodigo() { return QStringLiteral("99000000"); }

Tramo TramoGuardado(const Tramo& tramo) {
  return tramo.todoCero() ? Tramo{kImparIni, kImparFin, kParIni, kParFin} : tramo;
}

bool MismoTramo(const Tramo& guardado, const Tramo& nuevo) {
  return guardado == nuevo || (guardado.esPorDefecto() && nuevo.todoCero());
}

QString ViaGuardada(const QString& via) { return UpperCase(via); }

QString TipoGuardado(const QString& tipo) { return UpperCase(tipo); }

QString Nombre2Guardado(const QString& via) { return LowerCase(via); }

QString SiguienteCodigo(const QString& carpeta, const QString& tabla) {
  QString codigo = PrimerCodigo();
  TTable fisica;
  fisica.SetDatabaseName(carpeta);
  fisica.SetTableName(tabla);
  fisica.Open();
  if (!fisica.IsEmpty()) {
    fisica.Last();
    codigo = Int_Cad(fisica.FieldByName(QStringLiteral("CODIGO1"))->AsInteger() + 1);
  }
  fisica.Close();
  return codigo;
}

QString CodigoDespues(const QString& codigo) { return Int_Cad(Cad_Int(codigo) + 1); }

std::vector<dbase::FieldSpec> CamposDeCalles() {
  using dbase::FieldType;
  auto c = [](const char* nombre, uint32_t largo) { return dbase::FieldSpec{nombre, FieldType::Character, largo, 0}; };
  auto n = [](const char* nombre, uint32_t largo) { return dbase::FieldSpec{nombre, FieldType::Numeric, largo, 0}; };
  return {c("VIA", 45),      c("TIPO_VIA", 5),  n("IMPAR_INI", 5), n("IMPAR_FIN", 5), n("PAR_INI", 5),
          n("PAR_FIN", 5),   c("CODPOSTAL", 5), c("CAPITAL", 1),   c("PROVINCIA", 30), c("MUNICIPI", 30),
          c("COD_INE", 5),   c("NOMBRE_2", 45), c("CODIGO1", 8)};
}

Municipios::Municipios(const QString& alias, const QString& indice)
    : indice_(indice), tabla_(CreaTabla(alias, QStringLiteral("MUNICIPI.DBF"), indice, false, true)) {}

Municipios::~Municipios() {
  if (tabla_) tabla_->Close();
}

void Municipios::Recorre(const QString& valor, const std::function<bool(TTable&)>& visita) {
  if (!TBBusca(tabla_.get(), {indice_, valor}, true)) return;
  TField* campo = tabla_->FieldByName(indice_);
  for (; !tabla_->Eof() && campo->AsString() == valor; tabla_->Next())
    if (!visita(*tabla_)) break;
}

}  // namespace CallesImportadas
