// TStringGrid: a grid of texts addressed the host's way, column first and
// with row 0 as the title row. Underneath it is a QTableWidget whose
// horizontal header shows row 0, so row r of the grid is widget row r - 1
// and RowCount() counts the title row too (1 = titles only).
#pragma once

#include <QString>
#include <QTableWidget>

class TStringGrid : public QTableWidget {
  Q_OBJECT

 public:
  explicit TStringGrid(QWidget* parent = nullptr);

  int RowCount() const { return rowCount() + 1; }
  // At least the title row stays; new rows come empty, dropped rows go.
  void SetRowCount(int filas);
  int ColCount() const { return columnCount(); }
  void SetColCount(int columnas);

  // Row 0 is the title of the column. Outside the grid: empty text.
  QString Cells(int columna, int fila) const;
  // Outside the grid nothing is written.
  void SetCells(int columna, int fila, const QString& texto);

  // The current row (0 when the grid has no data row).
  int Row() const;
  void SetRow(int fila);

  int ColWidths(int columna) const { return columnWidth(columna); }
  void SetColWidths(int columna, int ancho) { setColumnWidth(columna, ancho); }
  int ClientWidth() const;
};
