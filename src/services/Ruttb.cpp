#include "services/Ruttb.h"

#include <memory>

#include "dbase/ReferenceTags.h"
#include "dbase/TTable.h"
#include "dbase/core/alias.h"
#include "dbase/core/error.h"
#include "dbase/core/filter.h"

using dbase::Error;
using dbase::ErrorKind;

namespace {

constexpr qsizetype kMaxParesDeClave = 4;

[[noreturn]] void claveInvalida(TTable* t, const QString& detalle) {
  const QString indice = t->IndexName().isEmpty() ? QStringLiteral("(orden físico)") : t->IndexName();
  throw Error(ErrorKind::InvalidArgument, t->TableName().toStdString(),
              ("búsqueda en el índice " + indice + ": " + detalle).toStdString());
}

}  // namespace

void TBOpen(TTable* t) { t->Open(); }

void TBPost(TTable* t) { t->Post(); }

void TBFiltra(TTable* t, const QString& filtro) {
  if (filtro.trimmed().isEmpty()) {
    t->SetFiltered(false);
    t->SetFilter(QString());
    return;
  }
  // A closed table only checks its filter on Open; catch a bad text now.
  if (!t->Active()) dbase::parseFilter(filtro.toStdString());
  if (t->Filtered()) {
    t->SetFilter(filtro);  // refused before anything changes
    return;
  }
  const QString anterior = t->Filter();
  t->SetFilter(filtro);
  try {
    t->SetFiltered(true);
  } catch (...) {
    t->SetFilter(anterior);
    throw;
  }
}

void TBIndexa(const QString& indice, TTable* t) { t->SetIndexName(indice); }

void TBIndexa(TTable* t, QString& indice) {
  const QString anterior = t->IndexName();
  t->SetIndexName(indice);
  indice = anterior;
}

bool TBBusca(TTable* t, const QVariantList& clave, bool exacto) {
  if (clave.isEmpty() || clave.size() % 2 != 0)
    claveInvalida(t, QStringLiteral("la clave ha de ser pares campo-valor (%1 elementos)").arg(clave.size()));
  const qsizetype pares = clave.size() / 2;
  if (pares > kMaxParesDeClave)
    claveInvalida(t, QStringLiteral("como mucho %1 pares campo-valor (%2)").arg(kMaxParesDeClave).arg(pares));
  const QStringList campos = t->IndexFields();
  if (pares > campos.size())
    claveInvalida(t, QStringLiteral("la clave da %1 campos y el índice tiene %2 (%3)")
                         .arg(pares)
                         .arg(campos.size())
                         .arg(campos.join(u',')));
  QVariantList valores;
  for (qsizetype i = 0; i < pares; ++i) {
    const QString nombre = clave[2 * i].toString().trimmed();
    if (nombre.compare(campos[i].trimmed(), Qt::CaseInsensitive) != 0)
      claveInvalida(t, QStringLiteral("el campo %1 de la clave es %2 y el índice espera %3 (%4)")
                           .arg(i + 1)
                           .arg(nombre, campos[i], campos.join(u',')));
    valores << clave[2 * i + 1];
  }
  return exacto ? t->FindKey(valores) : t->FindNearest(valores);
}

QString RutaDelAlias(const QString& alias) {
  return QString::fromStdString(dbase::resolveAlias(alias.toStdString()));
}

TTable* CreaTabla(const QString& baseDatos, const QString& fichero, const QString& indice, bool flag1, bool flag2) {
  Q_UNUSED(flag1);
  auto tabla = std::make_unique<TTable>();
  tabla->SetDatabaseName(baseDatos);
  tabla->SetTableName(fichero);
  DeclaraIndicesDeReferencia(tabla.get());
  tabla->SetIndexName(indice);
  if (flag2) tabla->Open();
  return tabla.release();
}
