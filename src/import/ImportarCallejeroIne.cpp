#include "import/ImportarCallejeroIne.h"

#include <QByteArray>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QStringDecoder>
#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "dbase/ReferenceTags.h"
#include "dbase/core/codepage.h"
#include "dbase/TTable.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/mdx_tags.h"
#include "dbase/core/path.h"
#include "import/CallejeroIne.h"
#include "import/CallesImportadas.h"
#include "services/Rnumcad.h"
#include "services/Ruttb.h"

namespace {

namespace fs = std::filesystem;
using CallesImportadas::Tramo;

// BDE "dBase ESP cp850", the driver of the host's tables: a new street table
// made without another to copy takes it.
constexpr uint8_t kDriverEsp850 = 0x14;
// Rows handed to the table at once.
constexpr size_t kFilasPorEscritura = 65536;

std::string Utf8(const QString& s) { return s.toUtf8().toStdString(); }
QString DeUtf8(const std::string& s) { return QString::fromUtf8(s.data(), qsizetype(s.size())); }

QString Cifras(int valor, int cuantas) { return QString::number(valor).rightJustified(cuantas, u'0'); }

// Upper case without accents, Ñ kept: how type names are matched.
QString Llano(const QString& texto) {
  const QString d = UpperCase(texto).normalized(QString::NormalizationForm_D);
  QString out;
  out.reserve(d.size());
  for (qsizetype i = 0; i < d.size(); ++i) {
    const QChar c = d[i];
    if (c.category() == QChar::Mark_NonSpacing) {
      if (c.unicode() == 0x0303 && !out.isEmpty() && out.back() == u'N') out.back() = QChar(0x00D1);
      continue;
    }
    out += c;
  }
  return out.trimmed();
}

// INE's street types to the host's codes: INE's own code through its types
// table (as the main code, then as a synonym of others) to a name, and the
// name to the host's TIPO_VIA.DBF.
class Tipos {
 public:
  Tipos(const QString& carpeta, const QString& tablaIne) {
    LeeAnfitrion(carpeta);
    if (!tablaIne.isEmpty()) LeeIne(tablaIne);
  }

  // The host's code for an INE type; empty, and `conocido` false, when
  // neither table knows it.
  QString Codigo(const QString& tvia, bool& conocido) {
    auto hecho = resueltos_.constFind(tvia);
    if (hecho == resueltos_.constEnd()) {
      QStringList nombres;
      if (descripcion_.contains(tvia)) nombres << descripcion_.value(tvia);
      nombres << sinonimos_.value(tvia) << tvia;
      Resuelto r;
      for (const QString& nombre : nombres) {
        auto en = anfitrion_.constFind(Llano(nombre));
        if (en != anfitrion_.constEnd()) {
          r = {*en, true};
          break;
        }
      }
      hecho = resueltos_.insert(tvia, r);
    }
    conocido = hecho->conocido;
    return hecho->codigo;
  }

 private:
  void LeeAnfitrion(const QString& carpeta) {
    const std::string ruta = dbase::resolvePathCaseInsensitive(Utf8(carpeta) + "/TIPO_VIA.DBF");
    if (!dbase::fileExistsCaseInsensitive(ruta)) return;
    const auto tabla = dbase::DbfFile::open(ruta);
    const dbase::FieldDescriptor& codigo = tabla->field("CODIGO");
    const dbase::FieldDescriptor& nombre = tabla->field("NOMBRE");
    for (uint32_t r = 1; r <= tabla->recordCount(); ++r) {
      if (tabla->isDeleted(r)) continue;
      const QString n = Llano(DeUtf8(dbase::fieldText(nombre, tabla->record(r), tabla->codePage())));
      if (!n.isEmpty() && !anfitrion_.contains(n))
        anfitrion_.insert(n, DeUtf8(dbase::fieldText(codigo, tabla->record(r), tabla->codePage())));
    }
  }

  // TIPO_VIA;SINONIMO;DESCRIPCION;COMENTARIO, UTF-8 (with or without its
  // mark) or Latin-1.
  void LeeIne(const QString& ruta) {
    QFile f(ruta);
    if (!f.open(QIODevice::ReadOnly))
      throw std::runtime_error(Utf8(QFileInfo(ruta).fileName()) + ": no se puede abrir la tabla de tipos de vía: " +
                               Utf8(f.errorString()));
    QByteArray bytes = f.readAll();
    if (bytes.startsWith("\xEF\xBB\xBF")) bytes.remove(0, 3);
    QStringDecoder utf8(QStringDecoder::Utf8);
    QString texto = utf8(bytes);
    if (utf8.hasError()) texto = QString::fromLatin1(bytes);
    bool cabecera = true;
    for (const QString& linea : texto.split(u'\n')) {
      const QStringList campos = linea.trimmed().split(u';');
      if (campos.size() < 3) continue;
      if (cabecera && campos[0].trimmed().compare(u"TIPO_VIA", Qt::CaseInsensitive) == 0) {
        cabecera = false;
        continue;
      }
      cabecera = false;
      const QString tipo = UpperCase(campos[0].trimmed()), sinonimo = UpperCase(campos[1].trimmed()),
                    nombre = campos[2].trimmed();
      if (tipo.isEmpty() || nombre.isEmpty()) continue;
      if (!descripcion_.contains(tipo)) descripcion_.insert(tipo, nombre);
      if (!sinonimo.isEmpty()) sinonimos_[sinonimo] << nombre;
    }
  }

  QHash<QString, QString> anfitrion_;  // plain name -> host code
  QHash<QString, QString> descripcion_;  // INE code -> its name
  QHash<QString, QStringList> sinonimos_;  // INE code -> names of the types it is a synonym of
  struct Resuelto {
    QString codigo;
    bool conocido = false;
  };
  QHash<QString, Resuelto> resueltos_;  // INE code -> what it came to
};

struct Municipio {
  bool existe = false;
  QString nombre, capital;
};

// The host's name and capital flag of each municipality, by INE code: its
// own row (not a minor entity's) in MUNICIPI.DBF.
class Municipios {
 public:
  explicit Municipios(const QString& alias) : tabla_(alias, QStringLiteral("COD_INE")) {}
  const Municipio& De(int codigo) {
    auto [en, nuevo] = vistos_.try_emplace(codigo);
    if (!nuevo) return en->second;
    Municipio& m = en->second;
    tabla_.Recorre(Cifras(codigo, 5), [&m](TTable& fila) {
      const bool menor = fila.FieldByName(QStringLiteral("ENT_MENOR"))->AsBoolean();
      if (!m.existe || !menor) {
        m.existe = true;
        m.nombre = fila.FieldByName(QStringLiteral("NOMBRE"))->AsString();
        m.capital = fila.FieldByName(QStringLiteral("CAPITAL"))->AsString();
      }
      return menor;  // the municipality's own row ends the walk
    });
    return m;
  }

 private:
  CallesImportadas::Municipios tabla_;
  std::unordered_map<int, Municipio> vistos_;
};

// The fields of a street row.
struct Campos {
  const dbase::FieldDescriptor *via, *tipo, *imparIni, *imparFin, *parIni, *parFin, *codPostal, *capital, *provincia,
      *municipio, *codIne, *nombre2, *codigo;
  explicit Campos(const dbase::DbfFile& t)
      : via(&t.field("VIA")),
        tipo(&t.field("TIPO_VIA")),
        imparIni(&t.field("IMPAR_INI")),
        imparFin(&t.field("IMPAR_FIN")),
        parIni(&t.field("PAR_INI")),
        parFin(&t.field("PAR_FIN")),
        codPostal(&t.field("CODPOSTAL")),
        capital(&t.field("CAPITAL")),
        provincia(&t.field("PROVINCIA")),
        municipio(&t.field("MUNICIPI")),
        codIne(&t.field("COD_INE")),
        nombre2(&t.field("NOMBRE_2")),
        codigo(&t.field("CODIGO1")) {}
};

// What the duplicate test compares of a row: municipality, postcode, type
// and name in upper case, and the numbers as stored. The name's and type's
// upper case is worked out once per distinct stored text.
class Claves {
 public:
  Claves(const dbase::DbfFile& t, const Campos& c) : t_(t), c_(c) {}

  std::string De(const char* fila) {
    std::string clave;
    clave.reserve(64);
    clave.append(dbase::trimRight(dbase::fieldBytes(*c_.codIne, fila)));
    clave += '|';
    clave.append(dbase::trimRight(dbase::fieldBytes(*c_.codPostal, fila)));
    clave += '|';
    clave += Mayusculas(*c_.tipo, fila);
    clave += '|';
    clave += Mayusculas(*c_.via, fila);
    const Tramo guardado = CallesImportadas::TramoGuardado(
        {Numero(*c_.imparIni, fila), Numero(*c_.imparFin, fila), Numero(*c_.parIni, fila), Numero(*c_.parFin, fila)});
    for (int n : {guardado.imparIni, guardado.imparFin, guardado.parIni, guardado.parFin}) {
      clave += '|';
      clave += std::to_string(n);
    }
    return clave;
  }

 private:
  static int Numero(const dbase::FieldDescriptor& f, const char* fila) {
    return int(dbase::fieldNumber(f, fila).value_or(0));
  }
  const std::string& Mayusculas(const dbase::FieldDescriptor& f, const char* fila) {
    const std::string bytes(dbase::trimRight(dbase::fieldBytes(f, fila)));
    auto& cache = &f == c_.via ? vias_ : tipos_;
    auto en = cache.find(bytes);
    if (en == cache.end())
      en = cache.emplace(bytes, Utf8(UpperCase(DeUtf8(dbase::fieldText(f, fila, t_.codePage()))))).first;
    return en->second;
  }
  const dbase::DbfFile& t_;
  const Campos& c_;
  std::unordered_map<std::string, std::string> vias_, tipos_;
};

// The street file of a province: Postales/POSTALnn.DBF when the folder has
// "Postales", else the folder's POSTAL.DBF. `nombre` is how the summary
// names it.
struct Destino {
  std::string ruta;
  QString nombre;
};

Destino DestinoDe(const std::string& carpeta, int provincia) {
  const std::string postales = carpeta + "/Postales";
  if (dbase::directoryExistsCaseInsensitive(postales)) {
    const std::string fichero = "POSTAL" + Utf8(Cifras(provincia, 2)) + ".DBF";
    const std::string dir = dbase::resolveDirectoryCaseInsensitive(postales);
    return {dbase::resolvePathCaseInsensitive(dir + "/" + fichero),
            DeUtf8(fs::path(dir).filename().string() + "/" + fichero)};
  }
  return {dbase::resolvePathCaseInsensitive(carpeta + "/POSTAL.DBF"), QStringLiteral("POSTAL.DBF")};
}

// The street tags in the table's production index.
void TagsDeCalles(dbase::DbfFile& tabla) {
  dbase::rebuildProductionIndex(tabla,
                                DefinicionesDeIndiceDeReferencia(QString::fromStdString(tabla.path()), tabla));
}

// A street table made where there is none: the fields of the folder's
// POSTAL.DBF, or of another province's file, or the host's usual ones; the
// street tags in its production index.
std::shared_ptr<dbase::DbfFile> CreaTablaDeCalles(const std::string& carpeta, const std::string& ruta) {
  std::vector<dbase::FieldSpec> campos;
  uint8_t driver = kDriverEsp850;
  std::vector<std::string> modelos = {dbase::resolvePathCaseInsensitive(carpeta + "/POSTAL.DBF")};
  const std::string postales = carpeta + "/Postales";
  if (dbase::directoryExistsCaseInsensitive(postales)) {
    std::vector<std::string> provinciales;
    for (const auto& e : fs::directory_iterator(dbase::resolveDirectoryCaseInsensitive(postales))) {
      std::string n = e.path().filename().string();
      std::transform(n.begin(), n.end(), n.begin(), [](unsigned char ch) { return char(std::toupper(ch)); });
      if (n.size() == 12 && n.rfind("POSTAL", 0) == 0 && n.substr(8) == ".DBF" && e.path().string() != ruta)
        provinciales.push_back(e.path().string());
    }
    std::sort(provinciales.begin(), provinciales.end());
    modelos.insert(modelos.end(), provinciales.begin(), provinciales.end());
  }
  for (const std::string& modelo : modelos) {
    if (modelo == ruta || !dbase::fileExistsCaseInsensitive(modelo)) continue;
    const auto otra = dbase::DbfFile::open(modelo);
    for (const dbase::FieldDescriptor& f : otra->fields()) campos.push_back({f.name, f.type, f.length, f.decimals});
    driver = otra->languageDriver();
    break;
  }
  if (campos.empty()) campos = CallesImportadas::CamposDeCalles();
  auto tabla = dbase::DbfFile::create(ruta, campos, driver);
  TagsDeCalles(*tabla);
  return tabla;
}

// The street file to append to, made when missing. A province file left
// empty and without its index by a run cut while making it gets its tags now.
std::shared_ptr<dbase::DbfFile> AbreTablaDeCalles(const std::string& carpeta, const Destino& destino) {
  if (!dbase::fileExistsCaseInsensitive(destino.ruta)) return CreaTablaDeCalles(carpeta, destino.ruta);
  auto tabla = dbase::DbfFile::open(destino.ruta);
  if (tabla->recordCount() == 0 && !tabla->hasProductionMdx() && destino.nombre != QLatin1String("POSTAL.DBF"))
    TagsDeCalles(*tabla);
  if (tabla->hasProductionMdx()) dbase::MdxTags::of(*tabla);
  return tabla;
}

// Appends the rows. When they are many against the table, its production
// index is written whole once at the end (a few microseconds a row of the
// whole table) rather than entry by entry (tens of microseconds a new row);
// until then the index's mark of a write under way stands, so a process
// killed meanwhile leaves a table whose next opening writes the index anew.
void Anade(dbase::DbfFile& tabla, const std::string& filas) {
  const size_t largo = tabla.recordLength();
  const size_t nuevas = filas.size() / largo;
  if (nuevas == 0) return;
  const bool enBloque = nuevas * 20 > size_t(tabla.recordCount()) + nuevas;
  // A failure leaves the run to end as it can: an index it could not write
  // keeps its mark, and the next opening writes it anew.
  dbase::WriteBatch tanda(tabla, enBloque ? dbase::WriteBatch::Upkeep::WholeAtEnd
                                           : dbase::WriteBatch::Upkeep::EntryByEntry);
  for (size_t desde = 0; desde < nuevas; desde += kFilasPorEscritura) {
    const size_t cuantas = std::min(kFilasPorEscritura, nuevas - desde);
    tabla.appendMany(std::string_view(filas).substr(desde * largo, cuantas * largo));
  }
  tanda.finish();
}

// One run: the directory read, the host's tables it needs, the summary.
class Importacion {
 public:
  Importacion(const QString& alias, const ine::Callejero& c, const QString& tablaTipos, ResumenCallejeroIne& r,
              const AvisosCallejeroIne& avisos)
      : carpeta_(Utf8(RutaDelAlias(alias))),
        c_(c),
        tipos_(DeUtf8(carpeta_), tablaTipos),
        municipios_(alias),
        r_(r),
        avisos_(avisos) {
    // The stretches of each street together: counted, then placed.
    desde_.assign(c.vias.size() + 1, 0);
    for (const ine::Tramo& t : c.tramos) ++desde_[t.via + 1];
    for (size_t v = 0; v < c.vias.size(); ++v) desde_[v + 1] += desde_[v];
    tramos_.resize(c.tramos.size());
    std::vector<uint32_t> siguiente(desde_.begin(), desde_.end() - 1);
    for (const ine::Tramo& t : c.tramos) tramos_[siguiente[t.via]++] = t;
  }

  void Guarda() {
    // Streets by the file they go to, in the order of VIAS.
    std::map<int, Destino> destinos;
    std::map<std::string, std::pair<Destino, std::vector<uint32_t>>> porFichero;
    for (uint32_t v = 0; v < c_.vias.size(); ++v) {
      if (desde_[v + 1] == desde_[v]) continue;
      const int provincia = c_.vias[v].municipio / 1000;
      auto d = destinos.find(provincia);
      if (d == destinos.end()) d = destinos.emplace(provincia, DestinoDe(carpeta_, provincia)).first;
      auto& fichero = porFichero[d->second.ruta];
      fichero.first = d->second;
      fichero.second.push_back(v);
    }
    for (const auto& [ruta, fichero] : porFichero) GuardaEn(fichero.first, fichero.second);
    for (const QString& t : desconocidos_) r_.tiposDesconocidos << t;
    for (int m : ausentes_) r_.municipiosAusentes << Cifras(m, 5);
  }

 private:
  void GuardaEn(const Destino& destino, const std::vector<uint32_t>& todas) {
    // Streets of municipalities the host lacks are not stored: no file is
    // made or touched for them alone.
    std::vector<uint32_t> vias;
    for (uint32_t v : todas) {
      const ine::Via& via = c_.vias[v];
      if (municipios_.De(via.municipio).existe) {
        vias.push_back(v);
        continue;
      }
      r_.deMunicipioAusente += desde_[v + 1] - desde_[v];
      ausentes_.insert(via.municipio);
    }
    if (vias.empty()) return;
    const auto tabla = AbreTablaDeCalles(carpeta_, destino);
    const Campos campos(*tabla);
    Claves claves(*tabla, campos);
    std::unordered_set<std::string> guardadas;
    guardadas.reserve(size_t(tabla->recordCount()) + tramos_.size() / 2);
    for (uint32_t fila = 1; fila <= tabla->recordCount(); ++fila)
      if (!tabla->isDeleted(fila)) guardadas.insert(claves.De(tabla->record(fila)));
    const fs::path ruta(tabla->path());
    QString codigo = CallesImportadas::SiguienteCodigo(DeUtf8(ruta.parent_path().string()),
                                                       DeUtf8(ruta.filename().string()));

    const dbase::CodePage& cp = tabla->codePage();
    const std::string& nombre = tabla->name();
    auto texto = [&](std::string& fila, const dbase::FieldDescriptor* f, const QString& valor) {
      dbase::setFieldText(*f, fila.data(), Utf8(valor), cp, nombre);
    };
    std::string filas;
    const std::string blanca = tabla->blankRecord();
    for (uint32_t v : vias) {
      const ine::Via& via = c_.vias[v];
      const ine::Tramo* desde = tramos_.data() + desde_[v];
      const size_t cuantos = desde_[v + 1] - desde_[v];
      const Municipio& m = municipios_.De(via.municipio);
      const ine::Rangos rangos = ine::RangosDeCalle(desde, cuantos);
      r_.sinNumeroEnCalleNumerada += rangos.sinNumeroDescartados;
      const QString tvia = QString::fromLatin1(c_.Tipo(via).data(), qsizetype(via.tipoLargo));
      bool conocido = true;
      const QString tipo = tvia.isEmpty() ? QString() : tipos_.Codigo(tvia, conocido);
      if (!conocido) desconocidos_.insert(tvia);
      const QString calle = QString::fromLatin1(c_.Nombre(via).data(), qsizetype(via.nombreLargo));

      std::string fila = blanca;
      try {
        texto(fila, campos.provincia, Cifras(via.municipio / 1000, 2));
        texto(fila, campos.capital, m.capital);
        texto(fila, campos.tipo, CallesImportadas::TipoGuardado(tipo));
        texto(fila, campos.via, CallesImportadas::ViaGuardada(calle));
        texto(fila, campos.municipio, m.nombre);
        texto(fila, campos.codIne, Cifras(via.municipio, 5));
        texto(fila, campos.nombre2, CallesImportadas::Nombre2Guardado(calle));
      } catch (const dbase::Error& e) {
        ++r_.viasErroneas;
        if (avisos_.lineaMala)
          avisos_.lineaMala(QStringLiteral("la vía %1 del municipio %2 no cabe en %3: %4")
                                .arg(Cifras(via.codigo, 5), Cifras(via.municipio, 5), DeUtf8(nombre),
                                     DeUtf8(e.what())));
        continue;
      }
      for (const ine::Rango& rango : rangos.filas) {
        const Tramo guardado =
            CallesImportadas::TramoGuardado({rango.imparIni, rango.imparFin, rango.parIni, rango.parFin});
        texto(fila, campos.codPostal, Cifras(int(rango.codPostal), 5));
        dbase::setFieldNumber(*campos.imparIni, fila.data(), guardado.imparIni, nombre);
        dbase::setFieldNumber(*campos.imparFin, fila.data(), guardado.imparFin, nombre);
        dbase::setFieldNumber(*campos.parIni, fila.data(), guardado.parIni, nombre);
        dbase::setFieldNumber(*campos.parFin, fila.data(), guardado.parFin, nombre);
        if (!guardadas.insert(claves.De(fila.data())).second) {
          ++r_.filasYaGuardadas;
          continue;
        }
        texto(fila, campos.codigo, codigo);
        codigo = CallesImportadas::CodigoDespues(codigo);
        filas += fila;
        if (tipo.isEmpty()) ++r_.filasSinTipo;
      }
    }
    Anade(*tabla, filas);
    const size_t nuevas = filas.size() / tabla->recordLength();
    r_.filasGuardadas += nuevas;
    r_.ficheros.append({destino.nombre, nuevas});
  }

  const std::string carpeta_;
  const ine::Callejero& c_;
  Tipos tipos_;
  Municipios municipios_;
  ResumenCallejeroIne& r_;
  const AvisosCallejeroIne& avisos_;
  std::vector<uint32_t> desde_;
  std::vector<ine::Tramo> tramos_;
  std::set<QString> desconocidos_;
  std::set<int> ausentes_;
};

}  // namespace

ResumenCallejeroIne ImportaCallejeroIne(const QString& alias, const QString& tramos, const QString& vias,
                                        const QString& tipos, const QList<int>& provincias,
                                        const AvisosCallejeroIne& avisos) {
  const QString carpeta = RutaDelAlias(alias);
  if (!dbase::directoryExistsCaseInsensitive(Utf8(carpeta)))
    throw std::runtime_error("no existe la carpeta de las tablas: " + Utf8(carpeta));
  QString tablaTipos = tipos;
  if (tablaTipos.isEmpty()) {
    const std::string junto =
        dbase::resolvePathCaseInsensitive(Utf8(QFileInfo(tramos).absolutePath()) + "/TiposVia.csv");
    if (dbase::fileExistsCaseInsensitive(junto)) tablaTipos = DeUtf8(junto);
  }

  ine::Avisos a;
  if (avisos.lineaMala)
    a.lineaMala = [&avisos](const ine::LineaMala& l) {
      avisos.lineaMala(DeUtf8(l.fichero + ", línea " + std::to_string(l.linea) + ": " + l.fallo));
    };
  a.progreso = avisos.progreso;
  const ine::Callejero c =
      ine::LeeCallejero(Utf8(tramos), Utf8(vias), ine::Provincias(provincias.begin(), provincias.end()), a);

  ResumenCallejeroIne r;
  r.diseno = QString::fromLatin1(ine::NombreDiseno(c.diseno));
  r.tramos = c.lineasTramos;
  r.sinViaPseudovia = c.descartes.pseudovias;
  r.sinViaUnidad = c.descartes.unidades;
  r.deOtrasProvincias = c.descartes.otrasProvincias;
  r.viaDesconocida = c.descartes.viaDesconocida;
  r.lineasErroneas = c.descartes.erroneas;
  r.viasErroneas = c.viasErroneas;
  Importacion(alias, c, tablaTipos, r, avisos).Guarda();
  return r;
}
