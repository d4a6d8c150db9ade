// TFImportarVias: mode 1, the streets of a municipality with several
// postcodes read from its postcode text file, one street per line:
//
//   28001: ALCALA, CALLE (IMPARES DEL 1 AL 15)
//
// postcode, ":", name, ",", the written street type and, in brackets, the
// house numbers the postcode covers.
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QLabel>
#include <QRegularExpression>
#include <QStringDecoder>
#include <memory>

#include "dbase/core/codepage.h"
#include "dbase/core/path.h"
#include "dbase/TTable.h"
#include "import/ImportarVias.h"
#include "import/ImportarViasServicio.h"
#include "platform/TStringGrid.h"
#include "services/Rficheros.h"
#include "services/Rmensaje.h"
#include "services/Rnumcad.h"
#include "services/Ruttb.h"

namespace {

const QString kTituloSinImportar = QStringLiteral("No se puede realizar la importación");

// "AL FINAL": the open-ended bounds GuardaVias also stores by default.
constexpr int kFinalImpar = 9999;
constexpr int kFinalPar = 9998;

// The postcode files come from Windows: UTF-8 when the bytes are valid UTF-8
// (a byte-order mark is dropped), Windows-1252 otherwise. A Ctrl+Z ends the
// text, as it does for the host's text files.
QString TextoDelFichero(QByteArray bytes) {
  const qsizetype finDos = bytes.indexOf('\x1A');
  if (finDos >= 0) bytes.truncate(finDos);
  QStringDecoder utf8(QStringDecoder::Utf8);
  QString texto = utf8.decode(bytes);
  if (!utf8.hasError()) {
    if (texto.startsWith(QChar(0xFEFF))) texto.remove(0, 1);
    return texto;
  }
  return QString::fromStdString(
      dbase::CodePage::forNumber(1252).decode(std::string_view(bytes.constData(), size_t(bytes.size()))));
}

// One side of the range wording: the first "IMPAR"/"IMPARES" (or
// "PAR"/"PARES") followed by an optional "DEL" and a number gives the start;
// "AL" and a number, or "AL FINAL", the end. Numbers not given stay 0.
void RangoDeUnLado(const QStringList& palabras, const QString& singular, const QString& plural, int final,
                   int& pnIni, int& pnFin) {
  // The words are runs of letters or of digits: a number starts with a digit.
  const auto numero = [](const QString& palabra, int& valor) {
    bool ok = false;
    const int n = palabra.at(0).isDigit() ? palabra.toInt(&ok) : 0;
    if (ok) valor = n;
    return ok;
  };
  for (qsizetype i = 0; i < palabras.size(); ++i) {
    if (palabras[i] != singular && palabras[i] != plural) continue;
    qsizetype j = i + 1;
    if (j < palabras.size() && palabras[j] == u"DEL") ++j;
    if (j >= palabras.size() || !numero(palabras[j], pnIni)) continue;
    if (j + 2 < palabras.size() && palabras[j + 1] == u"AL") {
      if (palabras[j + 2] == u"FINAL")
        pnFin = final;
      else
        numero(palabras[j + 2], pnFin);
    }
    return;
  }
}

// The four numbers of a line's range wording, in upper case:
// "(IMPARES DEL 1 AL 15)", "(PAR DEL 2 AL FINAL)", both sides in one bracket.
// A side whose word is absent keeps its numbers at 0.
void NumeracionParImpar(const QString& psTexto, int& pnImparIni, int& pnImparFin, int& pnParIni, int& pnParFin) {
  static const QRegularExpression kPalabra(QStringLiteral("\\p{L}+|\\d+"));
  QStringList palabras;
  for (auto it = kPalabra.globalMatch(psTexto); it.hasNext();) palabras << it.next().captured();
  RangoDeUnLado(palabras, QStringLiteral("IMPAR"), QStringLiteral("IMPARES"), kFinalImpar, pnImparIni, pnImparFin);
  RangoDeUnLado(palabras, QStringLiteral("PAR"), QStringLiteral("PARES"), kFinalPar, pnParIni, pnParFin);
}

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
  const QString escrito = CadenaHastaCaracter(psTipoVia, u'(').trimmed();
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

// Where the written type starts: the last comma outside the range's brackets
// with a letter two characters behind it (comma, blank, type); -1 if none.
// Commas inside a bracket belong to the range wording, and one followed by a
// digit to the name ("KM 5,5").
qsizetype ComaDelTipo(const QString& psLinea) {
  int profundidad = 0;
  for (qsizetype i = psLinea.size() - 1; i >= 0; --i) {
    const QChar c = psLinea[i];
    if (c == u')') {
      ++profundidad;
    } else if (c == u'(') {
      if (profundidad > 0) --profundidad;
    } else if (c == u',' && profundidad == 0 && i + 2 < psLinea.size() && psLinea[i + 2].isLetter()) {
      return i;
    }
  }
  return -1;
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
  static const QRegularExpression kFinDeLinea(QStringLiteral("\r\n|\n|\r"));
  for (const QString& bruta : TextoDelFichero(bytes).split(kFinDeLinea)) {
    const QString linea = bruta.trimmed();
    if (linea.isEmpty()) continue;  // a blank line holds no street
    int imparIni = 0, imparFin = 0, parIni = 0, parFin = 0;
    NumeracionParImpar(UpperCase(linea), imparIni, imparFin, parIni, parFin);
    QString nombre = linea;
    QString tipo;
    if (const qsizetype coma = ComaDelTipo(linea); coma >= 0) {
      tipo = DevuelveTipoVia(tipos, UpperCase(linea.mid(coma + 1).trimmed()));
      nombre = linea.left(coma);
    }
    // The bracket holds the range wording.
    if (imparIni != 0 || imparFin != 0 || parIni != 0 || parFin != 0) nombre = CadenaHastaCaracter(nombre, u'(');
    nombre = nombre.trimmed();
    QString codigoPostal;
    if (nombre.contains(u':')) {
      codigoPostal = CadenaHastaCaracter(nombre, u':').trimmed();
      nombre = CadenaDesdeCaracter(nombre, u':').trimmed();
    }
    if (nombre.isEmpty()) continue;  // no street to store

    if (SGVias->RowCount() > 1 && !SGVias->Cells(1, 1).isEmpty()) SGVias->SetRowCount(SGVias->RowCount() + 1);
    const int fila = SGVias->RowCount() - 1;
    SGVias->SetCells(0, fila, tipo);
    SGVias->SetCells(1, fila, nombre.left(kLongitudNombreVia));
    SGVias->SetCells(2, fila, codigoPostal);
    const int numeros[] = {imparIni, imparFin, parIni, parFin};
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
