// Storing imported streets: GuardaVias of 2,000 streets of a single-postcode
// municipality into the largest province street file of the national set,
// on the real dialog (offscreen) with its wait window painted at every row.
//
// Each iteration starts from a fresh copy of the file, made outside the
// timed part, so runs are comparable: all 2,000 streets new; the same 2,000
// again (every one a duplicate); and 2,000 of which half are stored already.
// The "sin_pintar" runs record the wait window instead of painting it.
#include <QApplication>
#include <QComboBox>
#include <QRadioButton>
#include <filesystem>
#include <set>

#include "comun.h"
#include "dbase/core/dbf_file.h"
#include "dbase/TTable.h"
#include "import/ImportarVias.h"
#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "platform/TStringGrid.h"
#include "services/Rmensaje.h"

namespace fs = std::filesystem;

namespace {

constexpr int kCalles = 2000;
// A municipality of the largest file's province with one postcode.
const QString kMunicipio = QStringLiteral("AJALVIR");

// The wait window is shown and painted as in the application; the boxes
// are only counted, since a modal box would stop the run.
class PresentadorBanco : public PresentadorMensajesQt {
 public:
  void error(QObject*, const QString& texto, const QString&) override { errores << texto; }
  void info(QObject*, const QString& texto, const QString&, int) override { avisos << texto; }
  QStringList errores, avisos;
};

// The reference tables the controller opens, and the street file as the
// folder's POSTAL.DBF: the table a bare controller stores into.
struct Carpeta {
  Carpeta() {
    for (const char* tabla : {"MUNICIPI.DBF", "PROVIN.DBF", "TIPO_VIA.DBF", "MUNICIMJ.DBF"})
      bench::copiaEnTemporal((fs::path(bench::datos()) / tabla).string(), tabla);
    const std::string nombre = fs::path(bench::mayorCallejero()).filename().string();  // POSTALnn.DBF
    codigoProvincia = std::stoi(nombre.substr(6, 2));
  }
  void copiaCalles() const { bench::copiaEnTemporal(bench::mayorCallejero(), "POSTAL.DBF"); }
  int codigoProvincia = 0;
};

// Street names of the file, every few distinct ones, in name order: real
// names, so keys spread over the tag as an import's do.
using Calles = QList<std::pair<QString, QString>>;  // type, name

Calles callesDeLaRejilla(int cuantos) {
  auto fichero = dbase::DbfFile::open(bench::mayorCallejero());
  TTable t;
  t.SetDatabaseName(QString::fromStdString(fs::path(bench::mayorCallejero()).parent_path().string()));
  t.SetTableName(QString::fromStdString(fs::path(bench::mayorCallejero()).filename().string()));
  t.Open();
  std::set<QString> distintos;
  TField* via = t.FieldByName(QStringLiteral("VIA"));
  for (t.First(); !t.Eof(); t.Next()) distintos.insert(via->AsString());
  static const char* tipos[] = {"CL", "AV", "PZ", "PS", "CM"};
  const size_t paso = std::max<size_t>(1, distintos.size() / size_t(cuantos));
  Calles calles;
  size_t i = 0;
  for (const QString& n : distintos)
    if (i++ % paso == 0 && calles.size() < cuantos) calles.append({QString::fromLatin1(tipos[i % 5]), n});
  return calles;
}

// A dialog over a new controller, shown, with the municipality chosen and
// the grid filled as the service's reader leaves it (mode 2).
struct Dialogo {
  Dialogo(int codigoProvincia, const Calles& calles) {
    controlador =
        std::make_unique<TClaseCodPostales>(nullptr, QString::fromStdString(bench::temporal()), true, QString());
    dialogo = std::make_unique<TFImportarVias>(nullptr, controlador.get());
    dialogo->show();
    QApplication::processEvents();
    dialogo->RBUno->setChecked(true);
    for (int i = 0; i < dialogo->CBProvinciasZelmor->count(); ++i)
      if (dialogo->CBProvinciasZelmor->itemData(i).toInt() == codigoProvincia)
        dialogo->CBProvinciasZelmor->setCurrentIndex(i);
    dialogo->CBProvinciasZelmorExit(dialogo->CBProvinciasZelmor);
    dialogo->CBMunicipiosZelmor->setCurrentIndex(dialogo->Indice(dialogo->CBMunicipiosZelmor, kMunicipio));
    rejilla(calles);
  }
  void rejilla(const Calles& calles) {
    dialogo->SGVias->SetRowCount(int(calles.size()) + 1);
    for (int i = 0; i < calles.size(); ++i) {
      dialogo->SGVias->SetCells(0, i + 1, calles[i].first);
      dialogo->SGVias->SetCells(1, i + 1, calles[i].second);
    }
  }
  std::unique_ptr<TClaseCodPostales> controlador;
  std::unique_ptr<TFImportarVias> dialogo;
};

// `cadaCuantasGuardada` n > 0: every n-th street is stored before the timed
// run, by an untimed run of its own. Without `pinta` the wait window is
// only recorded: what the table work alone costs.
void GuardaVias(benchmark::State& state, int cadaCuantasGuardada, bool pinta) {
  static const Carpeta carpeta;
  static const Calles calles = callesDeLaRejilla(kCalles);
  PresentadorBanco mensajes;
  RegistroMensajes registro;
  const PresentadorMensajesTemporal temporal(pinta ? static_cast<PresentadorMensajes*>(&mensajes) : &registro);
  int esperadas = int(calles.size());
  double tramos = 0;
  std::unique_ptr<Dialogo> d;
  for (auto _ : state) {
    state.PauseTiming();
    d.reset();  // the file is free before it is copied again
    carpeta.copiaCalles();
    d = std::make_unique<Dialogo>(carpeta.codigoProvincia, calles);
    if (cadaCuantasGuardada > 0) {
      Calles antes;
      for (int i = 0; i < calles.size(); i += cadaCuantasGuardada) antes << calles[i];
      d->rejilla(antes);
      d->dialogo->GuardaVias();
      d->rejilla(calles);
      esperadas = int(calles.size() - antes.size());
    }
    tramos = d->controlador->oDataModule->TPostal->RecordCount();
    state.ResumeTiming();

    d->dialogo->GuardaVias();

    if (d->dialogo->nViasImportadas != esperadas) {
      state.SkipWithError(("se esperaban " + std::to_string(esperadas) + " calles y se han guardado " +
                           std::to_string(d->dialogo->nViasImportadas))
                              .c_str());
      break;
    }
  }
  d.reset();
  for (const QString& e : mensajes.errores + registro.textos(TipoMensaje::Error))
    std::fprintf(stderr, "mensaje de error: %s\n", qPrintable(e));
  state.counters["calles"] = double(calles.size());
  state.counters["tramos_antes"] = tramos;
  state.counters["guardadas"] = double(esperadas);
}

void registra() {
  const std::pair<const char*, int> casos[] = {{"2000_nuevas", 0}, {"2000_repetidas", 1}, {"2000_mitad_repetidas", 2}};
  for (bool pinta : {true, false})
    for (const auto& [nombre, cadaCuantas] : casos) {
      const std::string completo = std::string("GuardaVias/") + nombre + (pinta ? "" : "/sin_pintar");
      benchmark::RegisterBenchmark(completo.c_str(),
                                   [cadaCuantas, pinta](benchmark::State& s) { GuardaVias(s, cadaCuantas, pinta); })
          ->Iterations(5)
          ->Unit(benchmark::kMillisecond);
    }
}

}  // namespace

int main(int argc, char** argv) {
  bench::plataformaSinVentanas();
  QApplication app(argc, argv);
  return bench::principal(argc, argv, registra);
}
