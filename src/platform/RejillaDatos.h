// A QTableView as the host's data-aware grid: it shows a TDataSource, keeps
// its highlighted row on the table's current row, and moves the table when
// the user picks a row. Unbinding and binding again keep the column widths.
#pragma once

class QTableView;
class TDataSource;
class TTable;

void EnlazaRejilla(QTableView* rejilla, TDataSource* fuente);
// The grid follows the table's row once the handler that moved it has
// returned; this brings it there at once (before the grid takes the focus,
// which would otherwise pick its first row).
void MuestraFilaActual(QTableView* rejilla);
// "Data source none": the grid shows nothing.
void DesenlazaRejilla(QTableView* rejilla);
// The data source the grid shows, and its table (null when unbound).
TDataSource* FuenteDe(const QTableView* rejilla);
TTable* TablaDe(const QTableView* rejilla);
