// Loads the package, looks MADRID up with a controller without controls over
// the tables of the folder given, prints its INE code, unloads the package.
//   anfitrion CARPETA
#include <cstdio>
#include <exception>

#include "dbase/core/error.h"
#include "dbase/TTable.h"
#include "lookup/ClaseCodPostales.h"
#include "lookup/CodPostalesDM.h"
#include "package/Paquete.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "uso: anfitrion CARPETA\n");
    return 2;
  }
  Initialize();
  const CodPostalesInfoPaquete* info = GetPackageInfoTable();
  std::printf("paquete %s %s:", info->Paquete, info->Version);
  for (int i = 0; i < info->NumUnidades; ++i) std::printf(" %s", info->Unidades[i].Nombre);
  std::printf("\n");

  int salida = 0;
  try {
    TClaseCodPostales c(nullptr, QString::fromLocal8Bit(argv[1]), false, QString());
    if (c.BuscaLocalidadPorNombre(QStringLiteral("MADRID"), true)) {
      std::printf("COD_INE %s\n", c.oDataModule->TMunicipiCOD_INE->AsString().toUtf8().constData());
    } else {
      std::fprintf(stderr, "anfitrion: MADRID no encontrado\n");
      salida = 1;
    }
  } catch (const dbase::Error& e) {
    std::fprintf(stderr, "anfitrion: %s\n", e.what());
    salida = 1;
  }
  Finalize();
  CodPostalesEstadoUnidad estado;
  CodPostalesEstadoDeUnidad("ClaseCodPostales", &estado);
  std::printf("ClaseCodPostales: arranques %d, cierres %d, cargas %d\n", estado.Arranques, estado.Cierres,
              estado.Cargas);
  return salida;
}
