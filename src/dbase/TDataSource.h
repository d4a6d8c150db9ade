// TDataSource: what a grid shows of a table. A Qt table model over a TTable
// cursor, with the columns the grid asks for (calculated fields included).
//
// The model follows the table: it resets when the table is opened, closed,
// refiltered, reordered or changed, reports the cursor's row through
// currentRowChanged, and stays silent while the table's controls are
// disabled (one reset when they are enabled again).
#pragma once

#include <QAbstractTableModel>
#include <QPointer>
#include <QStringList>
#include <vector>

#include "dbase/TTable.h"

class TDataSource : public QAbstractTableModel {
  Q_OBJECT
 public:
  explicit TDataSource(QObject* owner = nullptr);

  TTable* DataSet() const { return table_; }
  void SetDataSet(TTable* table);

  // Columns as field names, with optional titles (the field name otherwise).
  void SetColumns(const QStringList& fieldNames, const QStringList& titles = {});
  QStringList Columns() const { return columns_; }

  int CurrentRow() const;
  // Moves the table to this row of the model.
  void SetCurrentRow(int row);

  // QAbstractTableModel
  int rowCount(const QModelIndex& parent = {}) const override;
  int columnCount(const QModelIndex& parent = {}) const override;
  QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

 signals:
  void currentRowChanged(int row);

 private:
  void reset();
  void followCursor();
  int rows() const;
  std::vector<TField*> columnFields() const;

  QPointer<TTable> table_;
  QStringList columns_;
  QStringList titles_;
  // Worked out when first asked for after a change.
  static constexpr int kUnknown = -2;
  mutable int rows_ = kUnknown;
  mutable int currentRow_ = kUnknown;
  // The last row read: a grid asks for it once per column.
  mutable int cachedRow_ = -1;
  mutable QStringList cachedValues_;
  QMetaObject::Connection changedConnection_;
  QMetaObject::Connection movedConnection_;
};
