// The address controller on the national data set: opening its tables,
// switching street files, the province and municipality filters, and what
// the user feels on every key: the locality and street edits from key
// release to completion, grid and codes updated, the house-number rule, and
// the suggestions for a locality the strict search does not find.
//
// Widgets are real (offscreen); keys are real key events sent to them.
#include <QApplication>
#include <QComboBox>
#include <QKeyEvent>
#include <QLineEdit>
#include <QTableView>
#include <QVBoxLayout>
#include <filesystem>
#include <random>

#include "comun.h"
#include "dbase/core/dbf_file.h"
#include "dbase/TTable.h"
#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "services/Rmensaje.h"
#include "services/Ruttb.h"

namespace fs = std::filesystem;

namespace {

QString alias() { return QString::fromStdString(bench::datos()); }

// The two province street files with most rows, as INE-code stems ("08000").
std::pair<QString, QString> dosMayoresProvincias() {
  std::vector<std::pair<uint32_t, QString>> ficheros;
  for (const auto& e : fs::directory_iterator(fs::path(bench::datos()) / "Postales")) {
    const std::string nombre = e.path().filename().string();  // POSTALnn.DBF, or its POSTALnn.MDX
    if (e.path().extension() != ".DBF") continue;
    ficheros.push_back({dbase::DbfFile::open(e.path().string())->recordCount(),
                        QString::fromStdString(nombre.substr(6, 2)) + "000"});
  }
  std::sort(ficheros.rbegin(), ficheros.rend());
  return {ficheros[0].second, ficheros[1].second};
}

// A host form with every control, shown offscreen.
struct Formulario {
  Formulario() {
    auto* capa = new QVBoxLayout(&ventana);
    for (QWidget* w : std::initializer_list<QWidget*>{pais = new QComboBox, provincia = new QComboBox,
                                                      localidad = new QLineEdit, domicilio = new QLineEdit,
                                                      numero = new QLineEdit, codPostal = new QLineEdit,
                                                      codIne = new QLineEdit, tipoVia = new QComboBox,
                                                      otro = new QLineEdit})
      capa->addWidget(w);
    rejillaLocalidad = new QTableView(&ventana);
    rejillaDomicilio = new QTableView(&ventana);
    ventana.show();
    QApplication::setActiveWindow(&ventana);
    QApplication::processEvents();
    otro->setFocus();
    controlador = std::make_unique<TClaseCodPostales>(&ventana, alias(), true, nullptr, provincia, localidad,
                                                      rejillaLocalidad, domicilio, rejillaDomicilio, numero,
                                                      codPostal, codIne, tipoVia, pais, nullptr, nullptr, "", "",
                                                      "", "");
  }
  // Chooses the province by code and leaves the combo, as the user would.
  void eligeProvincia(const QString& codigo) {
    enfoca(provincia);
    controlador->BuscaEnProvinciaPorCodigo(codigo);
    enfoca(otro);
  }
  static void enfoca(QWidget* w) {
    w->setFocus(Qt::TabFocusReason);
    QApplication::processEvents();
  }
  // One key, pressed and released; returns the time from the release to
  // the handler's work done (grid, codes and completion updated).
  static double tecla(QLineEdit* edit, QChar c) {
    const int codigo = c.toUpper().unicode();
    QKeyEvent pulsa(QEvent::KeyPress, codigo, Qt::NoModifier, QString(c));
    QApplication::sendEvent(edit, &pulsa);
    QKeyEvent suelta(QEvent::KeyRelease, codigo, Qt::NoModifier, QString(c));
    const auto t0 = bench::Reloj::now();
    QApplication::sendEvent(edit, &suelta);
    return bench::ns(t0, bench::Reloj::now());
  }

  QWidget ventana;
  QComboBox *pais, *provincia, *tipoVia;
  QLineEdit *localidad, *domicilio, *numero, *codPostal, *codIne, *otro;
  QTableView *rejillaLocalidad, *rejillaDomicilio;
  std::unique_ptr<TClaseCodPostales> controlador;
};

// Rows of a table's field, in physical order, every `paso`-th one.
QStringList valores(const std::string& fichero, const char* campo, size_t paso, const char* filtro = nullptr) {
  TTable t;
  t.SetDatabaseName(QString::fromStdString(fs::path(fichero).parent_path().string()));
  t.SetTableName(QString::fromStdString(fs::path(fichero).filename().string()));
  t.Open();
  if (filtro) TBFiltra(&t, QString::fromLatin1(filtro));
  QStringList out;
  size_t i = 0;
  for (t.First(); !t.Eof(); t.Next())
    if (i++ % paso == 0) out << t.FieldByName(campo)->AsString();
  return out;
}

void AbreTablas(benchmark::State& state) {
  const QString codigo = dosMayoresProvincias().first;
  std::vector<double> muestras;
  for (auto _ : state) {
    // A new controller each time, on files nobody else holds: read from disk.
    const auto t0 = bench::Reloj::now();
    TClaseCodPostales c(nullptr, alias(), true, codigo);
    muestras.push_back(bench::ns(t0, bench::Reloj::now()));
  }
  bench::ponPercentiles(state, muestras);
}

void ActualizaTablaPostal(benchmark::State& state) {
  const auto [primera, segunda] = dosMayoresProvincias();
  TClaseCodPostales c(nullptr, alias(), true, primera);
  std::vector<double> muestras;
  bool alterna = false;
  for (auto _ : state) {
    const auto t0 = bench::Reloj::now();
    c.ActualizaTablaPostal((alterna = !alterna) ? segunda : primera);
    muestras.push_back(bench::ns(t0, bench::Reloj::now()));
  }
  state.counters["filas"] = c.oDataModule->TPostal->RecordCount();
  bench::ponPercentiles(state, muestras);
}

void FiltraLocalidades(benchmark::State& state) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  std::vector<double> muestras;
  bool alterna = false;
  for (auto _ : state) {
    const auto t0 = bench::Reloj::now();
    c.FiltraLocalidades((alterna = !alterna) ? "08" : "28");
    muestras.push_back(bench::ns(t0, bench::Reloj::now()));
  }
  bench::ponPercentiles(state, muestras);
}

void FiltraVias(benchmark::State& state) {
  const QString provincia = dosMayoresProvincias().first;
  TClaseCodPostales c(nullptr, alias(), true, provincia);
  // The two municipalities of the file with most stretches.
  std::map<QString, std::pair<int, QString>> porCodigo;
  TTable* postal = c.oDataModule->TPostal;
  for (postal->First(); !postal->Eof(); postal->Next()) {
    auto& m = porCodigo[c.oDataModule->TPostalCOD_INE->AsString()];
    ++m.first;
    m.second = c.oDataModule->TPostalMUNICIPI->AsString();
  }
  std::vector<std::pair<int, std::pair<QString, QString>>> orden;
  for (const auto& [codigo, m] : porCodigo) orden.push_back({m.first, {codigo, m.second}});
  std::sort(orden.rbegin(), orden.rend());
  const bool dosArgumentos = state.range(0) == 2;
  std::vector<double> muestras;
  bool alterna = false;
  for (auto _ : state) {
    const auto& [codigo, nombre] = orden[(alterna = !alterna) ? 0 : 1].second;
    // The one-argument form searches inside the filter in force.
    if (!dosArgumentos) TBFiltra(postal, QString());
    const auto t0 = bench::Reloj::now();
    const bool hay = dosArgumentos ? c.FiltraVias(codigo, nombre) : c.FiltraVias(codigo);
    muestras.push_back(bench::ns(t0, bench::Reloj::now()));
    if (!hay) state.SkipWithError("sin calles");
  }
  state.counters["tramos_mayor"] = orden[0].first;
  bench::ponPercentiles(state, muestras);
}

// Types municipality names of the busiest provinces letter by letter.
void TecleoLocalidad(benchmark::State& state) {
  Formulario f;
  const QStringList nombres = valores(bench::municipi(), "NOMBRE", 1, "COD_PROV=28");
  const QStringList otros = valores(bench::municipi(), "NOMBRE", 1, "COD_PROV=08");
  std::vector<double> muestras;
  for (auto _ : state) {
    for (const auto& [codigo, lista] : {std::pair{QString("28"), nombres}, std::pair{QString("08"), otros}}) {
      f.eligeProvincia(codigo);
      for (qsizetype i = 0; i < lista.size(); i += 7) {
        Formulario::enfoca(f.localidad);
        f.localidad->clear();
        // A name with an apostrophe makes a filter the engine refuses (the
        // host never escaped it): the user would get an error box.
        if (lista[i].contains(u'\'')) continue;
        const QString nombre = lista[i].left(8);
        for (QChar c : nombre)
          if (c.isLetterOrNumber()) muestras.push_back(Formulario::tecla(f.localidad, c));
        Formulario::enfoca(f.otro);
      }
    }
  }
  state.counters["teclas"] = double(muestras.size());
  bench::ponPercentiles(state, muestras);
}

// Types street names of the largest province street file.
void TecleoCalle(benchmark::State& state) {
  Formulario f;
  const QString provincia = dosMayoresProvincias().first.left(2);
  const std::string fichero = bench::mayorCallejero();
  f.eligeProvincia(provincia);
  TClaseCodPostales& c = *f.controlador;
  c.ActualizaTablaPostal(provincia + "000");
  const QStringList vias = valores(fichero, "VIA", 997);
  std::vector<double> muestras;
  for (auto _ : state) {
    for (const QString& via : vias) {
      Formulario::enfoca(f.domicilio);
      f.domicilio->clear();
      for (QChar ch : via.left(10))
        if (ch.isLetterOrNumber()) muestras.push_back(Formulario::tecla(f.domicilio, ch));
      Formulario::enfoca(f.otro);
    }
  }
  state.counters["tramos"] = c.oDataModule->TPostal->RecordCount();
  state.counters["teclas"] = double(muestras.size());
  bench::ponPercentiles(state, muestras);
}

// Leaves the number edit on stretches of the largest file: the range rule.
void ReglaDelNumero(benchmark::State& state) {
  Formulario f;
  const QString provincia = dosMayoresProvincias().first.left(2);
  TClaseCodPostales& c = *f.controlador;
  c.ActualizaTablaPostal(provincia + "000");
  TTable* postal = c.oDataModule->TPostal;
  TDMCodPostales* dm = c.oDataModule;
  const std::vector<uint32_t> filas = bench::filasAlAzar(*dbase::DbfFile::open(bench::mayorCallejero()), 2000);
  std::vector<double> muestras;
  int conCodigo = 0;
  for (auto _ : state) {
    for (uint32_t fila : filas) {
      postal->GotoBookmark(TBookmark{fila});
      f.domicilio->setText(dm->TPostalVIA->AsString());
      // A number inside the stretch's odd range, or just past it.
      const int numero = dm->TPostalIMPAR_FIN->AsInteger() + (fila % 2 ? 0 : 2);
      f.numero->setText(QString::number(numero));
      f.codPostal->clear();
      if (state.range(0) == 0) {
        // The rule alone: the number edit's exit handler.
        const auto t0 = bench::Reloj::now();
        c.advENumeroExit(f.numero);
        muestras.push_back(bench::ns(t0, bench::Reloj::now()));
      } else {
        // Leaving the edit: the focus change with everything it repaints.
        Formulario::enfoca(f.numero);
        const auto t0 = bench::Reloj::now();
        Formulario::enfoca(f.otro);
        muestras.push_back(bench::ns(t0, bench::Reloj::now()));
      }
      conCodigo += !f.codPostal->text().isEmpty();
    }
  }
  state.counters["con_codigo"] = conCodigo;
  bench::ponPercentiles(state, muestras);
}

void SugiereLocalidades(benchmark::State& state) {
  TClaseCodPostales c(nullptr, alias(), false, "");
  c.SugiereLocalidades("MADRID", 1);  // builds the index
  // Names with a letter changed, a letter dropped, or accents and articles moved.
  const QStringList nombres = valores(bench::municipi(), "NOMBRE", 211);
  std::mt19937 azar(11);
  std::vector<QString> textos;
  for (const QString& n : nombres) {
    QString t = n;
    const int p = int(azar() % uint32_t(std::max<qsizetype>(1, t.size())));
    if (azar() % 2) t[p] = QChar(u'A' + char16_t(azar() % 26));
    else t.remove(p, 1);
    textos.push_back(t);
  }
  std::vector<double> muestras;
  for (auto _ : state) {
    for (const QString& t : textos) {
      const auto t0 = bench::Reloj::now();
      benchmark::DoNotOptimize(c.SugiereLocalidades(t, 10));
      muestras.push_back(bench::ns(t0, bench::Reloj::now()));
    }
  }
  state.counters["textos"] = double(textos.size());
  bench::ponPercentiles(state, muestras);
}

void registra() {
  benchmark::RegisterBenchmark("Controlador/AbreTablas", AbreTablas)->Iterations(20)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("Controlador/ActualizaTablaPostal_dos_mayores", ActualizaTablaPostal)
      ->Iterations(20)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("Controlador/FiltraLocalidades", FiltraLocalidades)
      ->Iterations(200)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("Controlador/FiltraVias", FiltraVias)
      ->Arg(1)->Arg(2)->Iterations(200)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("Tecleo/localidad", TecleoLocalidad)->Iterations(1)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("Tecleo/calle", TecleoCalle)->Iterations(1)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("Tecleo/regla_del_numero", ReglaDelNumero)
      ->ArgName("saliendo")->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("Tecleo/SugiereLocalidades", SugiereLocalidades)
      ->Iterations(1)->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
  bench::plataformaSinVentanas();
  QApplication app(argc, argv);
  // Boxes are recorded, never shown: a modal box would stop the run.
  RegistroMensajes mensajes;
  PresentadorMensajesTemporal temporal(&mensajes);
  const int resultado = bench::principal(argc, argv, registra);
  for (const QString& texto : mensajes.textos(TipoMensaje::Error))
    std::fprintf(stderr, "mensaje de error: %s\n", qPrintable(texto));
  return resultado;
}
