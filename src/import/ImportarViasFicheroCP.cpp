// TFImportarVias: mode 1, the streets of a municipality with several
// postcodes read from its postcode text file (FicheroCodigosPostales.h) into
// the grid, each written street type turned into its code.
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QLabel>
#include <memory>

#include "dbase/core/path.h"
#include "dbase/TTable.h"
#include "import/FicheroCodigosPostales.h"
#include "import/ImportarVias.h"
#include "import/ImportarViasServicio.h"
#include "platform/TStringGrid.h"
#include "services/Rficheros.h"
#include "services/Rmensaje.h"
#include "services/Rnumcad.h"
#include "services/Ruttb.h"

namespace {

const QString kTituloSinImportar = QStringLiteral("No se puede realizar la importación");

// TIPO_VIA.DBF of the alias, opened when a line first names a type and kept
// for the rest of the file; each written type is looked up once.
class TablaTiposVia {
 public:
  explicit TablaTiposVia(const QString& alias) : alias_(alias) {}
  ~TablaTiposVia() {
    if (tabla_) tabla_->Close();
  }
  TTable* Tabla() {
    if (!tabla_) tabla_.reset(CreaTabla(alias_, QStringLiteral("TIPO_VIA.DBF"), QStringLiteral("NOMBRE"), false, true));
    return tabla_.get();
  }
  // Written types already looked up, with their codes: a file repeats them.
  QHash<QString, QString> yaBuscados;

 private:
  QString alias_;
  std::unique_ptr<TTable> tabla_;
};

// The street-type code of a written type (upper case): the table's row of
// that name, else the first whose name holds it, else the names the table
// lacks; an unknown type gives no code.
QString DevuelveTipoVia(TablaTiposVia& tipos, const QString& psTipoVia) {
  const QString escrito = TipoEscritoSinRango(psTipoVia);
  if (escrito.isEmpty()) return {};
  if (const auto buscado = tipos.yaBuscados.constFind(escrito); buscado != tipos.yaBuscados.cend()) return *buscado;
  QString codigo;
  TTable* tabla = tipos.Tabla();
  TField* campoCodigo = tabla->FieldByName(QStringLiteral("CODIGO"));
  if (TBBusca(tabla, {QStringLiteral("NOMBRE"), escrito}, true)) {
    codigo = campoCodigo->AsString().trimmed();
  } else {
    TField* campoNombre = tabla->FieldByName(QStringLiteral("NOMBRE"));
    for (tabla->First(); !tabla->Eof(); tabla->Next())
      if (UpperCase(campoNombre->AsString()).contains(escrito)) {
        codigo = campoCodigo->AsString().trimmed();
        break;
      }
  }
  if (codigo.isEmpty()) {
    static const std::pair<const char*, const char*> kAusentesDeLaTabla[] = {
        {"PLACETA", "PZ"}, {"PLAZUELA", "PZ"},     {"CALLEJUELA", "CJ"},  {"PUERTA", "ED"},      {"PALACIO", "ED"},
        {"CERRO", "MT"},   {"CAMINO VIEJO", "CM"}, {"TRANSVERSAL", "TR"}, {"RESIDENCIAL", "UR"},
    };
    for (const auto& [nombre, tipo] : kAusentesDeLaTabla)
      if (escrito == QLatin1String(nombre)) codigo = QLatin1String(tipo);
  }
  tipos.yaBuscados.insert(escrito, codigo);
  return codigo;
}

}  // namespace

bool TFImportarVias::ImportarViasMasUnCodigo() {
  const QString carpeta = CarpetaPostal();
  if (!QDir(carpeta).exists()) {
    Mensaje_Info(this, QStringLiteral("No existe la carpeta con los ficheros de códigos postales"), kTituloSinImportar,
                 0);
    return false;
  }
  // The list shows the entry in upper case and keeps the file's own name.
  const QString entrada = CBProvincias->currentData().isValid() ? CBProvincias->currentData().toString()
                                                                : CBProvincias->currentText();
  const QString ruta = QString::fromStdString(dbase::resolvePathCaseInsensitive(
      SlashSep(carpeta, entrada + QStringLiteral(".txt"), u'/').toStdString()));
  QFile fichero(ruta);
  QByteArray bytes;
  bool leido = fichero.open(QIODevice::ReadOnly);
  if (leido) {
    bytes = fichero.readAll();
    leido = fichero.error() == QFileDevice::NoError;
    fichero.close();
  }
  if (!leido) {
    Mensaje_Info(this, QStringLiteral("Se ha producido un error al leer el fichero de códigos postales del municipio"),
                 kTituloSinImportar, 0);
    return false;
  }

  ColumnasMasDeUno();
  SGVias->SetRowCount(2);
  for (int c = 0; c < SGVias->ColCount(); ++c) SGVias->SetCells(c, 1, QString());

  TablaTiposVia tipos(sAlias);
  int vias = 0;
  for (const LineaCodigoPostal& linea : LeeFicheroCodigosPostales(bytes)) {
    const QString tipo = linea.conTipo ? DevuelveTipoVia(tipos, linea.tipoEscrito) : QString();
    if (SGVias->RowCount() > 1 && !SGVias->Cells(1, 1).isEmpty()) SGVias->SetRowCount(SGVias->RowCount() + 1);
    const int fila = SGVias->RowCount() - 1;
    SGVias->SetCells(0, fila, tipo);
    SGVias->SetCells(1, fila, linea.nombre.left(kLongitudNombreVia));
    SGVias->SetCells(2, fila, linea.codigoPostal);
    const int numeros[] = {linea.imparIni, linea.imparFin, linea.parIni, linea.parFin};
    for (int c = 0; c < 4; ++c)
      if (numeros[c] != 0) SGVias->SetCells(3 + c, fila, Int_Cad(numeros[c]));
    ++vias;
  }

  // A file without streets leaves the titles alone, so saving says the list
  // is empty rather than storing a blank street.
  if (vias == 0) SGVias->SetRowCount(1);
  SGVias->SetRow(1);
  SGVias->viewport()->update();
  LMensaje_->setText(QStringLiteral("Se han encontrado %1 vías").arg(vias));
  return true;
}
