#include "platform/RejillaDatos.h"

#include <QItemSelectionModel>
#include <QTableView>

#include "dbase/TDataSource.h"

namespace {

const char* const kAnchosDeColumna = "codpostalesAnchosDeColumna";
const char* const kFilaPendiente = "codpostalesFilaPendiente";

void muestraFila(QTableView* rejilla, int fila) {
  if (fila < 0 || !rejilla->model() || fila >= rejilla->model()->rowCount()) return;
  const QModelIndex indice = rejilla->model()->index(fila, 0);
  rejilla->selectionModel()->setCurrentIndex(
      indice, QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
  rejilla->scrollTo(indice);
}

}  // namespace

TDataSource* FuenteDe(const QTableView* rejilla) {
  return rejilla ? qobject_cast<TDataSource*>(rejilla->model()) : nullptr;
}

TTable* TablaDe(const QTableView* rejilla) {
  TDataSource* fuente = FuenteDe(rejilla);
  return fuente ? fuente->DataSet() : nullptr;
}

void MuestraFilaActual(QTableView* rejilla) {
  if (TDataSource* fuente = FuenteDe(rejilla)) muestraFila(rejilla, fuente->CurrentRow());
}

void DesenlazaRejilla(QTableView* rejilla) {
  if (!rejilla || !rejilla->model()) return;
  QVariantList anchos;
  for (int c = 0; c < rejilla->model()->columnCount(); ++c) anchos << rejilla->columnWidth(c);
  rejilla->setProperty(kAnchosDeColumna, anchos);
  QObject::disconnect(rejilla->model(), nullptr, rejilla, nullptr);
  QItemSelectionModel* seleccion = rejilla->selectionModel();
  rejilla->setModel(nullptr);
  delete seleccion;  // the view does not free the one it replaces
}

void EnlazaRejilla(QTableView* rejilla, TDataSource* fuente) {
  if (!rejilla || !fuente || rejilla->model() == fuente) return;
  DesenlazaRejilla(rejilla);
  rejilla->setModel(fuente);
  const QVariantList anchos = rejilla->property(kAnchosDeColumna).toList();
  for (int c = 0; c < anchos.size() && c < fuente->columnCount(); ++c) rejilla->setColumnWidth(c, anchos[c].toInt());
  // The table's row is the grid's row, both ways. A walk over the table
  // moves its row many times in one handler: the grid shows where it ended,
  // once the handler has returned.
  auto siguelaTabla = [rejilla, fuente] {
    if (rejilla->property(kFilaPendiente).toBool()) return;
    rejilla->setProperty(kFilaPendiente, true);
    QMetaObject::invokeMethod(
        rejilla,
        [rejilla, fuente] {
          rejilla->setProperty(kFilaPendiente, false);
          if (rejilla->model() == fuente) muestraFila(rejilla, fuente->CurrentRow());
        },
        Qt::QueuedConnection);
  };
  QObject::connect(fuente, &TDataSource::currentRowChanged, rejilla, siguelaTabla);
  QObject::connect(fuente, &QAbstractItemModel::modelReset, rejilla, siguelaTabla);
  QObject::connect(rejilla->selectionModel(), &QItemSelectionModel::currentRowChanged, fuente,
                   [fuente](const QModelIndex& actual) { fuente->SetCurrentRow(actual.row()); });
  muestraFila(rejilla, fuente->CurrentRow());
}
