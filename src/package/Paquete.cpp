// The package frame: reference-counted start-up and shut-down sections of
// the units, and the package's table. The sections have nothing to set up
// beyond their counters (the units build what they need when a controller or
// a form is created), but the counting is what lets a host load the package
// twice without running a section twice.
#include "package/Paquete.h"

#include <cstring>

#ifndef CODPOSTALES_VERSION
#define CODPOSTALES_VERSION ""
#endif

namespace {

enum Unidad { kCodPostalesDM, kClaseCodPostales, kListadoMunicipios, kImportarVias, kNumUnidades };

CodPostalesEstadoUnidad estados[kNumUnidades] = {};

// How many sections of the kind the package has run, this one included: the
// stamp that tells the order they ran in.
int seccionesEjecutadas(int CodPostalesEstadoUnidad::*veces) {
  int total = 0;
  for (const auto& e : estados) total += e.*veces;
  return total;
}

template <Unidad u>
void arranque() {
  CodPostalesEstadoUnidad& e = estados[u];
  if (e.Cargas++ != 0) return;
  ++e.Arranques;
  e.OrdenArranque = seccionesEjecutadas(&CodPostalesEstadoUnidad::Arranques);
}

// A shut-down with no load in force (Finalize without Initialize) does nothing.
template <Unidad u>
void cierre() {
  CodPostalesEstadoUnidad& e = estados[u];
  if (e.Cargas == 0 || --e.Cargas != 0) return;
  ++e.Cierres;
  e.OrdenCierre = seccionesEjecutadas(&CodPostalesEstadoUnidad::Cierres);
}

// Each unit after those it uses: the controller uses the data module; the
// municipality list and the street import use both.
constexpr CodPostalesUnidad kUnidades[kNumUnidades] = {
    {"CodPostalesDM", arranque<kCodPostalesDM>, cierre<kCodPostalesDM>},
    {"ClaseCodPostales", arranque<kClaseCodPostales>, cierre<kClaseCodPostales>},
    {"ListadoMunicipios", arranque<kListadoMunicipios>, cierre<kListadoMunicipios>},
    {"ImportarVias", arranque<kImportarVias>, cierre<kImportarVias>},
};

constexpr CodPostalesRequerida kRequeridas[] = {
    {"Qt6Core", CODPOSTALES_REQUERIDA_QT},
    {"Qt6Gui", CODPOSTALES_REQUERIDA_QT},
    {"Qt6Widgets", CODPOSTALES_REQUERIDA_QT},
    {"dbase/core", CODPOSTALES_REQUERIDA_MOTOR},  // DBF files, tags, filters, collation
    {"dbase", CODPOSTALES_REQUERIDA_MOTOR},       // TTable, TDataSource
    {"Rficheros", CODPOSTALES_REQUERIDA_ANFITRION},
    {"Rmensaje", CODPOSTALES_REQUERIDA_ANFITRION},
    {"Rnumcad", CODPOSTALES_REQUERIDA_ANFITRION},
    {"Ruttb", CODPOSTALES_REQUERIDA_ANFITRION},
    {"Rvarias", CODPOSTALES_REQUERIDA_ANFITRION},
};

constexpr CodPostalesInfoPaquete kInfo = {
    "codpostales",
    CODPOSTALES_VERSION,
    kNumUnidades,
    kUnidades,
    int(sizeof kRequeridas / sizeof kRequeridas[0]),
    kRequeridas,
};

}  // namespace

extern "C" {

void Initialize(void) {
  for (const auto& u : kUnidades) u.Arranque();
}

void Finalize(void) {
  for (int i = kNumUnidades - 1; i >= 0; --i) kUnidades[i].Cierre();
}

void PackageLoad(void) { Initialize(); }

void PackageUnload(void) { Finalize(); }

const CodPostalesInfoPaquete* GetPackageInfoTable(void) { return &kInfo; }

int CodPostalesEstadoDeUnidad(const char* nombre, CodPostalesEstadoUnidad* estado) {
  if (!nombre || !estado) return 0;
  for (int i = 0; i < kNumUnidades; ++i) {
    if (std::strcmp(kUnidades[i].Nombre, nombre) == 0) {
      *estado = estados[i];
      return 1;
    }
  }
  return 0;
}

}  // extern "C"
