/* The package frame of libcodpostales, for a host that loads the library as
 * its address package: start-up (Initialize / PackageLoad), shut-down
 * (Finalize / PackageUnload) and the package's table (GetPackageInfoTable):
 * the units it contains, in start-up order, and the libraries it needs.
 *
 * The units' start-up and shut-down sections are reference-counted, so a
 * host may load the package more than once (a module that loads it while
 * the program already has): every Initialize enters each unit's start-up,
 * which runs only on the first entry; every Finalize enters each unit's
 * shut-down, which runs only when the last load is undone. Units start in
 * dependency order (CodPostalesDM, ClaseCodPostales, ListadoMunicipios,
 * ImportarVias) and shut down in the reverse one.
 *
 * Plain C, usable from C and C++. Not thread-safe: load and unload from one
 * thread, as a loader does. */
#ifndef CODPOSTALES_PAQUETE_H
#define CODPOSTALES_PAQUETE_H

#ifdef __cplusplus
extern "C" {
#endif

/* A unit the package contains, with its start-up and shut-down sections.
 * Initialize and Finalize walk them in order; a host calling a section
 * itself keeps that order. */
typedef struct CodPostalesUnidad {
  const char* Nombre; /* "CodPostalesDM", "ClaseCodPostales", ... */
  void (*Arranque)(void);
  void (*Cierre)(void);
} CodPostalesUnidad;

/* What kind of library a required entry is. */
typedef enum CodPostalesTipoRequerida {
  CODPOSTALES_REQUERIDA_QT = 1,         /* a Qt library: Qt6Core, Qt6Gui, Qt6Widgets */
  CODPOSTALES_REQUERIDA_MOTOR = 2,      /* the dBase table engine: dbase/core, dbase */
  CODPOSTALES_REQUERIDA_ANFITRION = 3   /* a unit of the host library: services/R... */
} CodPostalesTipoRequerida;

typedef struct CodPostalesRequerida {
  const char* Nombre; /* "Qt6Widgets", "dbase/core", "Ruttb" */
  CodPostalesTipoRequerida Tipo;
} CodPostalesRequerida;

/* The package's table: static data, valid while the library is loaded. */
typedef struct CodPostalesInfoPaquete {
  const char* Paquete; /* "codpostales" */
  const char* Version; /* the library's version, "0.1.0" */
  int NumUnidades;
  const CodPostalesUnidad* Unidades; /* in start-up order */
  int NumRequeridas;
  const CodPostalesRequerida* Requeridas;
} CodPostalesInfoPaquete;

void Initialize(void);
void Finalize(void);
/* The same routines under the names other hosts look for. */
void PackageLoad(void);
void PackageUnload(void);
const CodPostalesInfoPaquete* GetPackageInfoTable(void);

/* The counters of a unit, the package's only state. */
typedef struct CodPostalesEstadoUnidad {
  int Cargas;          /* loads in force: start-up entries not yet undone */
  int Arranques;       /* times its start-up section actually ran */
  int Cierres;         /* times its shut-down section actually ran */
  int OrdenArranque;   /* the package's start-ups run so far when its last one ran (0: never) */
  int OrdenCierre;     /* likewise for shut-downs */
} CodPostalesEstadoUnidad;

/* Fills *estado for the unit of that name and returns 1; returns 0 (and
 * leaves *estado alone) for a name the package does not contain. */
int CodPostalesEstadoDeUnidad(const char* nombre, CodPostalesEstadoUnidad* estado);

#ifdef __cplusplus
}  /* extern "C" */

namespace codpostales {

/* The package loaded for the life of the object. */
class PaqueteCargado {
 public:
  PaqueteCargado() { Initialize(); }
  ~PaqueteCargado() { Finalize(); }
  PaqueteCargado(const PaqueteCargado&) = delete;
  PaqueteCargado& operator=(const PaqueteCargado&) = delete;
};

}  /* namespace codpostales */
#endif

#endif /* CODPOSTALES_PAQUETE_H */
