/* The package frame from C: loads twice, unloads twice, and prints the units
 * and how many times their sections ran. */
#include <stdio.h>

#include "package/Paquete.h"

int main(void) {
  const CodPostalesInfoPaquete* info;
  int i;
  PackageLoad();
  PackageLoad();
  PackageUnload();
  PackageUnload();
  info = GetPackageInfoTable();
  for (i = 0; i < info->NumUnidades; ++i) {
    CodPostalesEstadoUnidad e;
    if (!CodPostalesEstadoDeUnidad(info->Unidades[i].Nombre, &e)) return 1;
    printf("%s %d %d %d\n", info->Unidades[i].Nombre, e.Arranques, e.Cierres, e.Cargas);
  }
  printf("requeridas %d\n", info->NumRequeridas);
  return 0;
}
