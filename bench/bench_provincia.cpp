// A whole-province import from saved answers: mode 3's button that stores
// the saved answers of one province (advGBGuardarPorProvinciaClick), over
// the 371 municipalities of BURGOS, end to end on the real dialog
// (offscreen), with no service involved.
//
// Setup (once, untimed): an alias folder made from the national set, whose
// MUNICIPI.DBF holds the province's municipalities as the service spells
// them (the recorded ConsultaMunicipio answer of 2017), so that every saved
// file finds its municipality by name; and one saved answer per
// municipality under POSTAL/BURGOS, holding the distinct streets the
// national POSTAL09.DBF has for its INE code (invented ones when it has
// none). Every municipality is marked single-postcode (UNICO "S"), so every
// file is stored: the run's largest amount of work.
//
// Timed: the first run into a fresh copy of the street files (copied again
// before each iteration, outside the clock), and a second run over a table
// that already holds everything. Each with the wait window painted by the
// Qt presenter, as the user sees it, and with the messages only recorded.
#include <QApplication>
#include <QComboBox>
#include <QFile>
#include <QRadioButton>
#include <QXmlStreamReader>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <tuple>

#include "comun.h"
#include "dbase/core/codepage.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"
#include "dbase/core/mdx_build.h"
#include "dbase/TTable.h"
#include "import/ImportarVias.h"
#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "services/Rmensaje.h"
#include "services/Rnumcad.h"

namespace fs = std::filesystem;

namespace {

const QString kProvincia = QStringLiteral("BURGOS");
constexpr const char* kCodigoProvincia = "09";
constexpr int kMunicipiosEsperados = 371;

// The recorded answer: --ovc=FILE, CODPOSTALES_BENCH_OVC, or the shared
// reference folder beside the checkout, where the tests look for it.
std::string gRespuestaMunicipios;

std::string respuestaMunicipios() {
  if (!gRespuestaMunicipios.empty()) return gRespuestaMunicipios;
  if (const char* e = std::getenv("CODPOSTALES_BENCH_OVC"); e && *e) return e;
  return (fs::path(__FILE__).parent_path().parent_path().parent_path() / "shared" / "ovc" / "municipios-2017" /
          "9BURGOS.xml")
      .string();
}

using Calles = std::vector<std::pair<QString, QString>>;  // type, name

struct Municipio {
  QString nombre;  // as the service spells it
  std::string ine, postal;
  bool nacional = false;  // codes and streets from the national set
  Calles calles;
  int tramosNacionales = 0;  // the national stretches its streets come from
};

std::string texto(const dbase::DbfFile& f, const char* campo, uint32_t fila) {
  return dbase::fieldText(f.field(campo), f.record(fila), f.codePage());
}

QStringList nombresDelServicio() {
  QFile fichero(QString::fromStdString(respuestaMunicipios()));
  if (!fichero.open(QIODevice::ReadOnly))
    throw std::runtime_error("no se puede leer la respuesta grabada " + respuestaMunicipios() +
                             " (--ovc=FICHERO o CODPOSTALES_BENCH_OVC)");
  QStringList nombres;
  QXmlStreamReader xml(&fichero);
  while (!xml.atEnd())
    if (xml.readNext() == QXmlStreamReader::StartElement && xml.name() == QLatin1String("nm"))
      nombres << xml.readElementText();
  if (xml.hasError()) throw std::runtime_error("respuesta grabada ilegible: " + xml.errorString().toStdString());
  return nombres;
}

// 5 to 30 plausible street names chosen by the municipality's name, for a
// municipality the national street file does not cover. Always the same.
Calles callesInventadas(const QString& municipio) {
  static const char* nombres[] = {
      "MAYOR",        "REAL",     "IGLESIA",   "ERAS",        "FUENTE",      "ESCUELAS",  "CAMINO REAL", "SOL",
      "HUERTAS",      "MOLINO",   "SAN ROQUE", "BARRIO ALTO", "BARRIO BAJO", "CASTILLO",  "PALACIO",     "RIO",
      "PUENTE",       "ERMITA",   "CRUCERO",   "LAVADERO",    "HOSPITAL",    "SANTA ANA", "SAN PEDRO",   "SAN MIGUEL",
      "CONSTITUCION", "ESPAÑA",   "CERRO",     "BODEGAS",     "PRADERA",     "ALAMEDA",   "TRAVESIA",    "CARRETERA",
      "FRONTON",      "CORRALES", "SOLANA",    "CUESTA",      "NOGAL",       "OLMO",      "PARRAL",      "CALZADA"};
  static const char* tipos[] = {"CL", "CL", "CL", "PZ", "CM", "TR", "BO"};
  uint32_t h = 2166136261u;  // FNV-1a of the name
  for (const QChar c : municipio) h = (h ^ c.unicode()) * 16777619u;
  const int cuantas = 5 + int(h % 26);
  Calles calles;
  std::set<int> usados;
  while (int(calles.size()) < cuantas) {
    h = h * 1664525u + 1013904223u;
    const int n = int((h >> 8) % std::size(nombres));
    if (!usados.insert(n).second) continue;
    calles.emplace_back(QString::fromLatin1(tipos[(h >> 20) % std::size(tipos)]), QString::fromUtf8(nombres[n]));
  }
  return calles;
}

// A saved answer's file name: "/" written "()" and "\" written ")(".
QString nombreDeFichero(const QString& municipio) {
  QString n = municipio;
  n.replace(u'/', QStringLiteral("()"));
  n.replace(u'\\', QStringLiteral(")("));
  return n + QStringLiteral(".xml");
}

// ConsultaVia's SOAP answer as the service sends it: no whitespace between
// the wrapper elements, since the reader takes the body as the envelope's
// first child.
QByteArray respuestaCallejero(const Municipio& m) {
  const int codigoMunicipio = std::stoi(m.ine.substr(2));
  QString calles;
  int cv = 0;
  for (const auto& [tipo, via] : m.calles)
    calles += QStringLiteral(
                  "<calle><loine><cp>9</cp><cm>%1</cm></loine><dir><cv>%2</cv><tv>%3</tv><nv>%4</nv></dir></calle>")
                  .arg(codigoMunicipio)
                  .arg(++cv)
                  .arg(tipo.toHtmlEscaped(), via.toHtmlEscaped());
  return (QStringLiteral("<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                         "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body>"
                         "<Callejero xmlns=\"http://www.catastro.meh.es/\"><consulta_callejero><control><cuca>%1</cuca>"
                         "</control><callejero>%2</callejero></consulta_callejero></Callejero></soap:Body>"
                         "</soap:Envelope>")
              .arg(m.calles.size())
              .arg(calles))
      .toUtf8();
}

// The alias folder and what it holds.
struct Provincia {
  Provincia() {
    carpeta = (fs::path(bench::temporal()) / "provincia").string();
    fs::remove_all(carpeta);
    fs::create_directories(fs::path(carpeta) / "Postales");
    for (const char* tabla : {"PROVIN.DBF", "TIPO_VIA.DBF", "MUNICIMJ.DBF"})
      bench::copiaTabla((fs::path(bench::datos()) / tabla).string(), (fs::path(carpeta) / tabla).string());
    copiaCalles();

    const QStringList nombres = nombresDelServicio();
    if (nombres.size() != kMunicipiosEsperados)
      throw std::runtime_error("la respuesta grabada trae " + std::to_string(nombres.size()) + " municipios");
    leeNacionales(nombres);
    escribeMunicipi();
    escribeRespuestas();
  }

  // The street files as the national set has them: the province's, which the
  // run writes to, and the folder's POSTAL.DBF, which the controller opens.
  void copiaCalles() const {
    bench::copiaTabla((fs::path(bench::datos()) / "POSTAL.DBF").string(), (fs::path(carpeta) / "POSTAL.DBF").string());
    bench::copiaTabla(calleNacional().string(), (fs::path(carpeta) / "Postales" / "POSTAL09.DBF").string());
  }

  static fs::path calleNacional() { return fs::path(bench::datos()) / "Postales" / "POSTAL09.DBF"; }

  // Codes from the national row of the same name in the province, else
  // unused ones counted down from 09999; streets from the national street
  // file by INE code.
  void leeNacionales(const QStringList& nombres) {
    std::map<QString, std::pair<std::string, std::string>> porNombre;  // name -> INE, postcode
    std::set<std::string> ineUsados, postalesUsados;
    {
      auto m = dbase::DbfFile::open(bench::municipi());
      for (uint32_t i = 1; i <= m->recordCount(); ++i) {
        if (m->isDeleted(i)) continue;
        const std::string ine = texto(*m, "COD_INE", i), postal = texto(*m, "CODPOSTAL", i);
        ineUsados.insert(ine);
        postalesUsados.insert(postal);
        if (texto(*m, "COD_PROV", i) == kCodigoProvincia && texto(*m, "ENT_MENOR", i) != "T") {
          porNombre.emplace(QString::fromStdString(texto(*m, "NOMBRE", i)), std::pair{ine, postal});
        }
      }
    }
    std::map<std::string, Calles> callesPorIne;
    std::map<std::string, std::set<std::pair<QString, QString>>> vistas;
    std::map<std::string, int> tramosPorIne;
    {
      auto p = dbase::DbfFile::open(calleNacional().string());
      tramosNacionales = int(p->recordCount());
      for (uint32_t i = 1; i <= p->recordCount(); ++i) {
        if (p->isDeleted(i)) continue;
        const std::string ine = texto(*p, "COD_INE", i);
        ineUsados.insert(ine);
        postalesUsados.insert(texto(*p, "CODPOSTAL", i));
        ++tramosPorIne[ine];
        std::pair calle{QString::fromStdString(texto(*p, "TIPO_VIA", i)), QString::fromStdString(texto(*p, "VIA", i))};
        if (vistas[ine].insert(calle).second) callesPorIne[ine].push_back(std::move(calle));
      }
    }
    const auto libre = [](std::set<std::string>& usados, int& siguiente) {
      for (;; --siguiente) {
        char codigo[16];
        std::snprintf(codigo, sizeof codigo, "%s%03d", kCodigoProvincia, siguiente);
        if (usados.insert(codigo).second) return std::string(codigo);
      }
    };
    int siguienteIne = 999, siguientePostal = 999;
    for (const QString& nombre : nombres) {
      Municipio m;
      m.nombre = nombre;
      if (auto it = porNombre.find(nombre); it != porNombre.end()) {
        m.nacional = true;
        std::tie(m.ine, m.postal) = it->second;
      } else {
        m.ine = libre(ineUsados, siguienteIne);
        m.postal = libre(postalesUsados, siguientePostal);
      }
      if (auto it = callesPorIne.find(m.ine); it != callesPorIne.end()) {
        m.calles = it->second;
        m.tramosNacionales = tramosPorIne[m.ine];
      } else {
        m.calles = callesInventadas(nombre);
      }
      municipios.push_back(std::move(m));
    }
  }

  // MUNICIPI.DBF as the national one, with the province's municipality rows
  // (not its population units) replaced by the service's, where the first
  // of them stood.
  void escribeMunicipi() {
    auto nacional = dbase::DbfFile::open(bench::municipi());
    std::vector<dbase::FieldSpec> campos;
    for (const auto& f : nacional->fields()) campos.push_back({f.name, f.type, f.length, f.decimals});
    auto nuevo = dbase::DbfFile::create((fs::path(carpeta) / "MUNICIPI.DBF").string(), campos,
                                        nacional->languageDriver(), /*overwrite=*/true);
    const auto& cp = nuevo->codePage();
    const auto pon = [&](std::string& fila, const char* campo, const std::string& valor) {
      dbase::setFieldText(nuevo->field(campo), fila.data(), valor, cp, "MUNICIPI.DBF");
    };
    std::string filas;
    bool puestos = false;
    for (uint32_t i = 1; i <= nacional->recordCount(); ++i) {
      if (texto(*nacional, "COD_PROV", i) == kCodigoProvincia && texto(*nacional, "ENT_MENOR", i) != "T") {
        if (puestos) continue;
        puestos = true;
        for (const Municipio& m : municipios) {
          std::string fila = nuevo->blankRecord();
          pon(fila, "COD_INE", m.ine);
          pon(fila, "CODPOSTAL", m.postal);
          pon(fila, "UNICO", "S");
          pon(fila, "CAPITAL", m.nombre == kProvincia ? "S" : "N");
          pon(fila, "NOMBRE", m.nombre.toStdString());
          pon(fila, "COD_PROV", kCodigoProvincia);
          pon(fila, "COD_MUN", "0" + m.ine.substr(2));
          pon(fila, "COD_MUNMJ", m.ine.substr(2));
          dbase::setFieldFlag(nuevo->field("ENT_MENOR"), fila.data(), false);
          filas += fila;
        }
        continue;
      }
      filas.append(nacional->record(i), nacional->recordLength());
    }
    nuevo->appendMany(filas);
    // With the national set's production index when it has one.
    if (nacional->hasProductionMdx()) dbase::rebuildProductionIndex(*nuevo, dbase::productionTags(*nacional));
    filasMunicipi = int(nuevo->recordCount());
  }

  // One answer per municipality under POSTAL/BURGOS, and what the first run
  // should append: the import's duplicate test is by province, postcode,
  // type and name, so municipalities sharing a postcode share their
  // streets. A name with a "." is cut there by the run, which then asks.
  void escribeRespuestas() {
    const fs::path destino = fs::path(carpeta) / "POSTAL" / kProvincia.toStdString();
    fs::create_directories(destino);
    std::set<std::tuple<std::string, QString, QString>> guardadas;
    for (const Municipio& m : municipios) {
      std::ofstream(destino / nombreDeFichero(m.nombre).toStdString(), std::ios::binary)
          << respuestaCallejero(m).toStdString();
      ++ficheros;
      calles += int(m.calles.size());
      if (m.nombre.contains(u'.')) {
        ++conPunto;
        continue;
      }
      for (const auto& [tipo, via] : m.calles) guardadas.insert({m.postal, UpperCase(tipo), UpperCase(via)});
    }
    filasNuevas = int(guardadas.size());
  }

  std::string carpeta;
  std::vector<Municipio> municipios;
  int tramosNacionales = 0;  // rows of the national POSTAL09.DBF
  int filasMunicipi = 0;
  int ficheros = 0, calles = 0, conPunto = 0;
  int filasNuevas = 0;  // rows the first run appends
};

const Provincia& provincia() {
  static const Provincia p;
  return p;
}

// The Qt presenter as the application has it, except that a box, which
// would stop the run, is only counted.
class PresentadorBanco : public PresentadorMensajesQt {
 public:
  void error(QObject*, const QString& texto, const QString&) override { cajas << texto; }
  void info(QObject*, const QString& texto, const QString&, int) override { cajas << texto; }
  QStringList cajas;
};

// The dialog over a new bare controller, shown, in mode 3 with the
// service's province chosen, as a user leaves it after the search; a
// municipality the run asks about is left unchosen.
struct Dialogo {
  explicit Dialogo(const std::string& alias) {
    controlador = std::make_unique<TClaseCodPostales>(nullptr, QString::fromStdString(alias), true, QString());
    dialogo = std::make_unique<TFImportarVias>(nullptr, controlador.get());
    dialogo->PreguntaMunicipio = [this](const QString&, QString&, QString&) { return ++preguntas, false; };
    dialogo->show();
    QApplication::processEvents();
    dialogo->CargaProvinciasZelmor();
    dialogo->RBTodosConUno->setChecked(true);
    dialogo->CBProvincias->addItem(kProvincia);
    dialogo->CBProvincias->setCurrentIndex(0);
  }
  int filasCalles() const { return controlador->oDataModule->TPostal->RecordCount(); }

  std::unique_ptr<TClaseCodPostales> controlador;
  std::unique_ptr<TFImportarVias> dialogo;
  int preguntas = 0;
};

// What a run must have done; empty when it did.
std::string compruebaRun(const Dialogo& d, int preguntasAntes, int filasEsperadas) {
  const Provincia& p = provincia();
  const auto& r = d.dialogo->oResumenGuardado;
  const int guardables = p.ficheros - p.conPunto;
  std::string fallo;
  if (r.nFicheros != p.ficheros) fallo += " ficheros " + std::to_string(r.nFicheros);
  if (r.nMunicipiosGuardados != guardables) fallo += " municipios " + std::to_string(r.nMunicipiosGuardados);
  if (r.nViasGuardadas != filasEsperadas)
    fallo += " filas " + std::to_string(r.nViasGuardadas) + " (se esperaban " + std::to_string(filasEsperadas) + ")";
  if (r.lSinMunicipio.size() != p.conPunto) fallo += " sin municipio " + std::to_string(r.lSinMunicipio.size());
  if (d.preguntas - preguntasAntes != p.conPunto) fallo += " preguntas " + std::to_string(d.preguntas - preguntasAntes);
  if (!r.lIlegibles.isEmpty()) fallo += " ilegibles " + std::to_string(r.lIlegibles.size());
  return fallo;
}

void contadores(benchmark::State& state, int filasAntes, int filasDespues) {
  const Provincia& p = provincia();
  state.counters["ficheros"] = p.ficheros;
  state.counters["calles"] = p.calles;
  state.counters["con_punto"] = p.conPunto;
  state.counters["tramos_antes"] = filasAntes;
  state.counters["tramos_despues"] = filasDespues;
}

// How the messages are shown: the application's Qt presenter (the wait
// window painted at most four times a second), the same painting every
// change, or only a RegistroMensajes, which never shows a window.
enum class Presentacion { Ventana, VentanaCadaCambio, Registro };

// Without `pinta` the messages only go to a RegistroMensajes, which never
// shows a window.
void Primera(benchmark::State& state, Presentacion presentacion) {
  const bool pinta = presentacion != Presentacion::Registro;
  const Provincia& p = provincia();
  PresentadorBanco ventanas;
  if (presentacion == Presentacion::VentanaCadaCambio) ventanas.setIntervaloPintura(0);
  RegistroMensajes registro;
  const PresentadorMensajesTemporal presentador(pinta ? static_cast<PresentadorMensajes*>(&ventanas) : &registro);
  std::unique_ptr<Dialogo> d;
  int antes = 0, despues = 0;
  for (auto _ : state) {
    state.PauseTiming();
    d.reset();  // the files are free before they are copied again
    p.copiaCalles();
    d = std::make_unique<Dialogo>(p.carpeta);
    state.ResumeTiming();

    d->dialogo->advGBGuardarPorProvinciaClick();

    state.PauseTiming();
    antes = p.tramosNacionales;
    despues = d->filasCalles();
    const std::string fallo = compruebaRun(*d, 0, p.filasNuevas) +
                              (despues - antes != p.filasNuevas ? " tabla " + std::to_string(despues) : "");
    state.ResumeTiming();
    if (!fallo.empty()) {
      state.SkipWithError(("primera pasada:" + fallo).c_str());
      break;
    }
  }
  d.reset();
  for (const QString& e : ventanas.cajas + registro.textos(TipoMensaje::Error) + registro.textos(TipoMensaje::Info))
    std::fprintf(stderr, "mensaje: %s\n", qPrintable(e));
  contadores(state, antes, despues);
  state.counters["filas_nuevas"] = p.filasNuevas;
}

// The table holds every street already: the first run is made once before
// timing, and each timed run finds every street stored.
void Repetida(benchmark::State& state, Presentacion presentacion) {
  const bool pinta = presentacion != Presentacion::Registro;
  const Provincia& p = provincia();
  PresentadorBanco ventanas;
  if (presentacion == Presentacion::VentanaCadaCambio) ventanas.setIntervaloPintura(0);
  RegistroMensajes registro;
  const PresentadorMensajesTemporal presentador(pinta ? static_cast<PresentadorMensajes*>(&ventanas) : &registro);
  p.copiaCalles();
  Dialogo d(p.carpeta);
  d.dialogo->advGBGuardarPorProvinciaClick();
  const int filas = d.filasCalles();
  if (const std::string fallo = compruebaRun(d, 0, p.filasNuevas); !fallo.empty()) {
    state.SkipWithError(("pasada previa:" + fallo).c_str());
    return;
  }
  for (auto _ : state) {
    const int preguntas = d.preguntas;
    d.dialogo->advGBGuardarPorProvinciaClick();

    state.PauseTiming();
    const std::string fallo =
        compruebaRun(d, preguntas, 0) + (d.filasCalles() != filas ? " tabla " + std::to_string(d.filasCalles()) : "");
    state.ResumeTiming();
    if (!fallo.empty()) {
      state.SkipWithError(("segunda pasada:" + fallo).c_str());
      break;
    }
  }
  for (const QString& e : ventanas.cajas + registro.textos(TipoMensaje::Error) + registro.textos(TipoMensaje::Info))
    std::fprintf(stderr, "mensaje: %s\n", qPrintable(e));
  contadores(state, filas, d.filasCalles());
}

void registra() {
  const Provincia& p = provincia();  // built before the first clock starts
  int nacionales = 0, inventadas = 0, callesNacionales = 0, tramos = 0, callesInventadas = 0;
  for (const Municipio& m : p.municipios) {
    (m.nacional ? nacionales : inventadas)++;
    (m.tramosNacionales > 0 ? callesNacionales : callesInventadas) += int(m.calles.size());
    tramos += m.tramosNacionales;
  }
  std::fprintf(stderr,
               "%s: %d respuestas, %d calles (%d de %d tramos de POSTAL09.DBF, %d inventadas); %d municipios con "
               "nombre y códigos nacionales, %d con códigos inventados; %d con \".\" en el nombre; POSTAL09.DBF %d "
               "tramos, la primera pasada añade %d; MUNICIPI.DBF %d filas\n",
               qPrintable(kProvincia), p.ficheros, p.calles, callesNacionales, tramos, callesInventadas, nacionales,
               inventadas, p.conPunto, p.tramosNacionales, p.filasNuevas, p.filasMunicipi);
  for (Presentacion presentacion :
       {Presentacion::Ventana, Presentacion::VentanaCadaCambio, Presentacion::Registro}) {
    const std::string sufijo = presentacion == Presentacion::Ventana             ? "/ventana_qt"
                               : presentacion == Presentacion::VentanaCadaCambio ? "/ventana_qt_cada_cambio"
                                                                                  : "/registro";
    benchmark::RegisterBenchmark(("GuardaProvincia/BURGOS/primera" + sufijo).c_str(),
                                 [presentacion](benchmark::State& s) { Primera(s, presentacion); })
        ->Iterations(3)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("GuardaProvincia/BURGOS/repetida" + sufijo).c_str(),
                                 [presentacion](benchmark::State& s) { Repetida(s, presentacion); })
        ->Iterations(3)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
  }
}

}  // namespace

int main(int argc, char** argv) {
  bench::plataformaSinVentanas();
  // --ovc=FILE is ours; the rest goes to the shared main.
  int n = 1;
  for (int i = 1; i < argc; ++i)
    if (std::string_view(argv[i]).starts_with("--ovc="))
      gRespuestaMunicipios = argv[i] + 6;
    else
      argv[n++] = argv[i];
  argc = n;
  argv[argc] = nullptr;
  QApplication app(argc, argv);
  const int resultado = bench::principal(argc, argv, registra);
  std::error_code ec;
  fs::remove_all(fs::path(bench::temporal()) / "provincia", ec);
  return resultado;
}
