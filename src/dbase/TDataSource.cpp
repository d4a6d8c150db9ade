#include "dbase/TDataSource.h"

#include <QMetaMethod>

TDataSource::TDataSource(QObject* owner) : QAbstractTableModel(owner) {}

void TDataSource::SetDataSet(TTable* table) {
  if (table == table_) return;
  disconnect(changedConnection_);
  disconnect(movedConnection_);
  table_ = table;
  if (table_) {
    changedConnection_ = connect(table_, &TTable::dataSetChanged, this, &TDataSource::reset);
    movedConnection_ = connect(table_, &TTable::currentChanged, this, &TDataSource::followCursor);
  }
  reset();
}

void TDataSource::SetColumns(const QStringList& fieldNames, const QStringList& titles) {
  beginResetModel();
  columns_ = fieldNames;
  titles_ = titles;
  cachedRow_ = -1;
  endResetModel();
}

std::vector<TField*> TDataSource::columnFields() const {
  std::vector<TField*> fields;
  if (!table_ || !table_->Active()) return fields;
  const QStringList names = columns_.isEmpty() ? table_->FieldNames() : columns_;
  for (const QString& name : names) fields.push_back(table_->FieldByName(name));
  return fields;
}

void TDataSource::reset() {
  beginResetModel();
  rows_ = kUnknown;
  cachedRow_ = -1;
  endResetModel();
  followCursor();
}

// Counting the rows, or placing the cursor's among them, can mean ranking a
// whole index tag: done when a view asks, not on every move of a table that
// no grid shows.
int TDataSource::rows() const {
  if (rows_ == kUnknown) rows_ = (table_ && table_->Active()) ? table_->RecordCount() : 0;
  return rows_;
}

int TDataSource::CurrentRow() const {
  if (currentRow_ == kUnknown) currentRow_ = (table_ && table_->Active()) ? table_->CurrentIndex() : -1;
  return currentRow_;
}

void TDataSource::followCursor() {
  if (!isSignalConnected(QMetaMethod::fromSignal(&TDataSource::currentRowChanged))) {
    currentRow_ = kUnknown;
    return;
  }
  const int before = currentRow_;
  currentRow_ = kUnknown;
  const int row = CurrentRow();
  if (row != before) emit currentRowChanged(row);
}

void TDataSource::SetCurrentRow(int row) {
  if (table_ && table_->Active() && row != CurrentRow()) table_->GotoIndex(row);
}

int TDataSource::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : rows(); }

int TDataSource::columnCount(const QModelIndex& parent) const {
  if (parent.isValid()) return 0;
  if (!columns_.isEmpty()) return int(columns_.size());
  return table_ && table_->Active() ? int(table_->FieldNames().size()) : 0;
}

QVariant TDataSource::data(const QModelIndex& index, int role) const {
  if (role != Qt::DisplayRole || !index.isValid() || !table_ || !table_->Active()) return {};
  if (index.row() >= rows()) return {};
  if (cachedRow_ != index.row()) {
    cachedValues_ = table_->RowValues(index.row(), columnFields());
    cachedRow_ = index.row();
  }
  return index.column() < cachedValues_.size() ? QVariant(cachedValues_[index.column()]) : QVariant();
}

QVariant TDataSource::headerData(int section, Qt::Orientation orientation, int role) const {
  if (role != Qt::DisplayRole || orientation != Qt::Horizontal) return QAbstractTableModel::headerData(section, orientation, role);
  if (section < titles_.size() && !titles_[section].isEmpty()) return titles_[section];
  if (section < columns_.size()) return columns_[section];
  auto fields = columnFields();
  return section < int(fields.size()) ? QVariant(fields[size_t(section)]->FieldName()) : QVariant();
}
