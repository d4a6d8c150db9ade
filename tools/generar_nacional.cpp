// Writes the national set: every municipality and population unit, and
// invented street directories for every province, big enough to try the host
// at full size. Built on demand (target datos_nacionales), never committed.
//
//   generar_nacional SHARED_DATA_DIR OUT_DIR [--tramos N]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "generar_comun.h"

namespace fs = std::filesystem;

namespace {

// Enough for the largest province to pass 200,000 stretches.
// Stretches of each capital copied into the general POSTAL.DBF.
constexpr size_t kTramosCapital = 100;

// Streets spread evenly over the capital's list, about `tope` stretches.
std::vector<gen::Calle> muestraDe(const std::vector<gen::Calle>& calles, size_t tope) {
  std::vector<gen::Calle> out;
  size_t total = 0;
  for (const auto& c : calles) total += c.tramos.size();
  if (total == 0) return out;
  const size_t paso = std::max<size_t>(1, total / tope);
  size_t tomados = 0;
  for (size_t i = 0; i < calles.size() && tomados < tope; i += paso) {
    out.push_back(calles[i]);
    tomados += calles[i].tramos.size();
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  const auto linea =
      gen::leerLineaDeOrdenes(argc, argv, "", [](const std::string&, const std::string&) { return false; });
  if (!linea) return 2;
  const size_t tramos = linea->tramos;
  try {
    const auto inicio = std::chrono::steady_clock::now();
    const fs::path& datos = linea->datos;
    const fs::path& salida = linea->salida;
    fs::create_directories(salida / "Postales");
    const gen::Datos d = gen::cargarDatos(datos);
    auto todos = [](const gen::Municipio&) { return true; };

    std::printf("%-24s %9zu filas\n", "PROVIN.DBF", gen::escribirProvin(salida / "PROVIN.DBF", d));
    std::printf("%-24s %9zu filas\n", "TIPO_VIA.DBF", gen::escribirTipoVia(salida / "TIPO_VIA.DBF", d));
    gen::Cuenta c = gen::escribirMunicipi(salida / "MUNICIPI.DBF", d, todos);
    std::printf("%-24s %9zu filas (%zu municipios, %zu entidades menores)\n", "MUNICIPI.DBF",
                c.municipios + c.entidades, c.municipios, c.entidades);
    std::printf("%-24s %9zu filas\n", "MUNICIMJ.DBF", gen::escribirMunicimj(salida / "MUNICIMJ.DBF", d, todos));

    std::vector<double> pesos;
    for (const auto& m : d.municipios) pesos.push_back(m.peso);
    const std::vector<size_t> reparto = gen::repartir(pesos, tramos);

    std::vector<std::pair<const gen::Municipio*, std::vector<gen::Calle>>> capitales;
    size_t total = 0, calles = 0;
    for (size_t i = 0; i < d.municipios.size();) {
      const std::string prov = d.municipios[i].prov;
      const std::string fichero = "POSTAL" + prov + ".DBF";
      gen::TablaPostal t(salida / "Postales" / fichero);
      for (; i < d.municipios.size() && d.municipios[i].prov == prov; ++i) {
        const gen::Municipio& m = d.municipios[i];
        auto lista = gen::inventarCalles(m, reparto[i]);
        t.agregar(m, lista);
        if (m.capital) capitales.push_back({&m, muestraDe(lista, kTramosCapital)});
      }
      calles += t.calles();
      size_t filas = t.cerrar();
      total += filas;
      std::printf("Postales/%-15s %9zu filas\n", fichero.c_str(), filas);
    }

    gen::TablaPostal general(salida / "POSTAL.DBF");
    for (const auto& [m, lista] : capitales) general.agregar(*m, lista);
    std::printf("%-24s %9zu filas\n", "POSTAL.DBF", general.cerrar());

    const double segundos =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - inicio).count();
    std::printf("Postales: %zu tramos de %zu calles en %.1f s\n", total, calles, segundos);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "generar_nacional: %s\n", e.what());
    return 1;
  }
  return 0;
}
