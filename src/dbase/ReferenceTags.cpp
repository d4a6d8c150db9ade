#include "dbase/ReferenceTags.h"

#include <QFileInfo>

#include "dbase/TTable.h"
#include "dbase/core/dbf_file.h"

namespace {

// "POSTAL" alone or followed by the province digits.
bool esFicheroDeCalles(const QString& base) {
  if (!base.startsWith(QLatin1String("POSTAL"))) return false;
  for (qsizetype i = 6; i < base.size(); ++i)
    if (!base[i].isDigit()) return false;
  return true;
}

}  // namespace

QList<IndiceDeReferencia> IndicesDeReferencia(const QString& fichero) {
  // The host writes Windows paths; take the last piece whatever the separator.
  QString nombre = fichero;
  nombre.replace(u'\\', u'/');
  const QString base = QFileInfo(nombre).completeBaseName().toUpper();

  if (base == u"PROVIN") return {{"CODIGO", {"CODIGO"}}, {"ALFABETICO", {"PROVINCIA"}}};
  if (base == u"MUNICIPI")
    return {{"COD_INE", {"COD_INE"}},
            {"NOMBRE", {"NOMBRE"}},
            {"CODPOSTAL", {"CODPOSTAL"}},
            {"CPROVMUN", {"COD_PROV", "COD_MUN"}}};
  if (esFicheroDeCalles(base))
    return {{"VIA", {"PROVINCIA", "CAPITAL", "VIA", "TIPO_VIA"}},
            {"MUNICIPI", {"MUNICIPI"}},
            {"COD_INE", {"COD_INE"}},
            {"SOLOVIA", {"VIA"}}};
  if (base == u"TIPO_VIA") return {{"CODIGO", {"CODIGO"}}, {"NOMBRE", {"NOMBRE"}}};
  if (base == u"MUNICIMJ") return {{"POBLLITE", {"POBLLITE"}}};
  return {};
}

std::vector<dbase::TagDefinition> DefinicionesDeIndiceDeReferencia(const QString& fichero, const dbase::DbfFile& tabla) {
  std::vector<dbase::TagDefinition> definiciones;
  for (const auto& indice : IndicesDeReferencia(fichero)) {
    QStringList terminos;
    for (const QString& campo : indice.campos) {
      const dbase::FieldDescriptor& f = tabla.field(campo.toStdString());
      if (f.numeric() && indice.campos.size() > 1)
        terminos << QStringLiteral("STR(%1,%2,%3)").arg(campo).arg(f.length).arg(f.decimals);
      else
        terminos << campo;
    }
    definiciones.push_back({indice.nombre.toStdString(), terminos.join(u'+').toStdString(), "", false, false});
  }
  return definiciones;
}

void DeclaraIndicesDeReferencia(TTable* tabla) {
  for (const auto& indice : IndicesDeReferencia(tabla->TableName())) tabla->AddIndexDef(indice.nombre, indice.campos);
}
