#include "platform/TStringGrid.h"

#include <QHeaderView>

TStringGrid::TStringGrid(QWidget* parent) : QTableWidget(parent) {
  verticalHeader()->hide();  // no fixed column
  horizontalHeader()->setHighlightSections(false);
  // Titles read from the left and are clipped on the right, as in the cells.
  horizontalHeader()->setDefaultAlignment(Qt::AlignLeft | Qt::AlignVCenter);
  verticalHeader()->setDefaultSectionSize(fontMetrics().height() + 6);
}

void TStringGrid::SetRowCount(int filas) { setRowCount(std::max(filas, 1) - 1); }

void TStringGrid::SetColCount(int columnas) {
  const int antes = columnCount();
  setColumnCount(std::max(columnas, 0));
  // A new column starts with an empty title, not Qt's running number.
  for (int c = antes; c < columnCount(); ++c) setHorizontalHeaderItem(c, new QTableWidgetItem(QString()));
}

QString TStringGrid::Cells(int columna, int fila) const {
  if (columna < 0 || columna >= columnCount() || fila < 0 || fila >= RowCount()) return {};
  const QTableWidgetItem* celda = fila == 0 ? horizontalHeaderItem(columna) : item(fila - 1, columna);
  return celda ? celda->text() : QString();
}

void TStringGrid::SetCells(int columna, int fila, const QString& texto) {
  if (columna < 0 || columna >= columnCount() || fila < 0 || fila >= RowCount()) return;
  if (fila == 0) {
    setHorizontalHeaderItem(columna, new QTableWidgetItem(texto));
    return;
  }
  if (QTableWidgetItem* celda = item(fila - 1, columna)) {
    celda->setText(texto);
    return;
  }
  auto* celda = new QTableWidgetItem(texto);
  celda->setFlags(celda->flags() & ~Qt::ItemIsEditable);
  setItem(fila - 1, columna, celda);
}

int TStringGrid::Row() const { return rowCount() == 0 ? 0 : std::max(currentRow(), 0) + 1; }

void TStringGrid::SetRow(int fila) {
  if (fila < 1 || fila >= RowCount()) return;
  setCurrentCell(fila - 1, std::max(currentColumn(), 0));
}

int TStringGrid::ClientWidth() const { return viewport()->width(); }
