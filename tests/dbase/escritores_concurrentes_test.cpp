// Several programs writing one table with a production index at once, while
// others search and walk its tags: four writer processes append 10,000 rows
// each (single rows and batches, through DbfFile with the index kept), two
// reader processes seek and walk the tags through cursors all along. Then
// every row is there exactly once and whole, and every tag, walked by the
// engine and by Perl's XBase::Index, holds every row once with the key the
// row gives -- as the index written whole from the rows holds it.
//
// CODPOSTALES_SEMILLA=N repeats the writers' batch sizes; the seed is printed.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "dbase/core/cursor.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/mdx_tag.h"
#include "dbase/core/mdx_tags.h"
#include "support/cache_limit.h"
#include "support/recorrido_mdx.h"
#include "support/semilla.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;

namespace {

namespace fs = std::filesystem;

constexpr int kEscritores = 4;
constexpr int kLectores = 2;
constexpr int kFilasPorEscritor = 10000;

const std::vector<TagDefinition> kEtiquetas = {{"CLAVE", "ESCRITOR+STR(NUMERO,6)", "", false, false},
                                              {"NOMBRE", "UPPER(NOMBRE)", "", false, false},
                                              {"NUMERO", "NUMERO", "", false, true},
                                              {"CODIGO", "CODIGO", "", false, false}};

// What writer w writes as its row n: a name shared by many rows, a code of
// its own, both worked out again when the rows are checked.
std::string nombreDe(int w, int n) {
  static const char* palabras[] = {"Peña", "Álamo", "Ñandú", "Olmo", "Zarza", "Abeto", "Acebo", "Haya"};
  const unsigned h = unsigned(w) * 7919u + unsigned(n) * 104729u;
  return std::string(palabras[h % 8]) + " " + std::to_string(h % 97);
}
std::string codigoDe(int w, int n) {
  const uint64_t h = (uint64_t(w) * 1000003u + uint64_t(n) * 2654435761u) % 100000000u;
  char texto[9];
  std::snprintf(texto, sizeof texto, "%08llu", static_cast<unsigned long long>(h));
  return texto;
}
std::string escritorDe(int w) { return std::string(1, char('A' + w)); }

std::string fila(DbfFile& f, int w, int n) {
  std::string r = f.blankRecord();
  setFieldText(f.field("ESCRITOR"), r.data(), escritorDe(w), f.codePage(), f.name());
  setFieldText(f.field("NUMERO"), r.data(), std::to_string(n), f.codePage(), f.name());
  setFieldText(f.field("NOMBRE"), r.data(), nombreDe(w, n), f.codePage(), f.name());
  setFieldText(f.field("CODIGO"), r.data(), codigoDe(w, n), f.codePage(), f.name());
  return r;
}

// A field's text without the blanks around it.
std::string limpio(const DbfFile& f, int campo, uint32_t recno) {
  const std::string t = fieldText(f.fields()[size_t(campo)], f.record(recno), f.codePage());
  const size_t desde = t.find_first_not_of(' ');
  return desde == std::string::npos ? std::string() : t.substr(desde, t.find_last_not_of(' ') - desde + 1);
}

void escribeInforme(const std::string& ruta, const std::string& texto) { std::ofstream(ruta) << texto; }

// A writer: rows desde..hasta-1 in batches of 1 to 20 (a third of them
// single rows, a sixth runs of single rows); a byte to `avance` after each
// write when it is given.
int escritor(const std::string& tabla, int w, uint64_t semilla, const std::string& informe, int desde = 0,
             int hasta = kFilasPorEscritor, int avance = -1) {
  try {
    std::mt19937_64 azar(semilla + uint64_t(w) + uint64_t(desde));
    auto f = DbfFile::open(tabla);
    MdxTags& indice = MdxTags::of(*f);
    int escrituras = 0, rechazadas = 0;
    // Three others appending without pause may hold the locks past the
    // wait allowed: the write is refused whole, and tried again as the
    // message asks; the rows must then be there once.
    auto conReintentos = [&](const std::function<void()>& escribe) {
      for (;;) {
        try {
          escribe();
          return;
        } catch (const Error& e) {
          if (e.kind() != ErrorKind::Io || ++rechazadas > 20) throw;
        }
      }
    };
    for (int n = desde; n < hasta;) {
      const int lote = azar() % 3 == 0 ? 1 : std::min(hasta - n, int(2 + azar() % 19));
      std::string filas;
      for (int i = 0; i < lote; ++i) filas += fila(*f, w, n + i);
      if (lote == 1) {
        conReintentos([&] { f->append(filas); });
      } else if (azar() % 4 == 0) {
        // A run of single rows, its index written at its end.
        std::unique_ptr<WriteBatch> run;
        conReintentos([&] { run = std::make_unique<WriteBatch>(*f); });
        for (int i = 0; i < lote; ++i)
          conReintentos([&] { f->append(filas.substr(size_t(i) * f->recordLength(), f->recordLength())); });
        run->finish();
      } else {
        conReintentos([&] { f->appendMany(filas); });
      }
      n += lote;
      ++escrituras;
      if (avance >= 0) (void)!::write(avance, "x", 1);
    }
    escribeInforme(informe, std::to_string(escrituras) + " escrituras (" + std::to_string(rechazadas) +
                                " rechazadas por esperar demasiado a los bloqueos y repetidas), índice rehecho tras "
                                "un corte " + std::to_string(indice.warnings().size()) + " veces");
    return 0;
  } catch (const std::exception& e) {
    escribeInforme(informe, std::string("escritor ") + escritorDe(w) + ": " + e.what());
    return 1;
  }
}

// A reader: until told to stop, walks a tag through a cursor (in order,
// every row once, never fewer rows than the last walk of that tag) and seeks
// exactly a row seen before (it must be found, and be that row).
int lector(const std::string& tabla, int l, const std::string& alto, const std::string& informe) {
  std::ostringstream fallos;
  int recorridos = 0, busquedas = 0;
  size_t filasVistas = 0;
  try {
    std::mt19937_64 azar(l);
    auto f = DbfFile::open(tabla);
    MdxTags& indice = MdxTags::of(*f);
    const int escritorCampo = f->fieldIndex("ESCRITOR"), numeroCampo = f->fieldIndex("NUMERO");
    const int nombreCampo = f->fieldIndex("NOMBRE"), codigoCampo = f->fieldIndex("CODIGO");
    struct Orden {
      std::string etiqueta;
      std::vector<int> campos;
      size_t ultimo = 0;
    };
    std::vector<Orden> ordenes = {{"CLAVE", {escritorCampo, numeroCampo}},
                                  {"NOMBRE", {nombreCampo}},
                                  {"NUMERO", {numeroCampo}},
                                  {"CODIGO", {codigoCampo}}};
    std::vector<std::pair<std::string, std::string>> vistas;  // (writer, number) of rows seen
    auto texto = [&](uint32_t recno, int campo) { return limpio(*f, campo, recno); };
    while (!fs::exists(alto) && fallos.tellp() < 2000) {
      Orden& o = ordenes[azar() % ordenes.size()];
      MdxTag* tag = indice.tag(o.etiqueta);
      if (!tag) {
        fallos << "no está el índice " << o.etiqueta << "\n";
        break;
      }
      Cursor c(f);
      c.setOrder(*tag, tag->expression().fields());
      std::set<uint32_t> registros;
      std::string antes;
      long long numeroAntes = -1;
      size_t n = 0;
      for (c.first(); !c.eof(); c.next(), ++n) {
        const uint32_t r = c.recno();
        if (!registros.insert(r).second) {
          fallos << o.etiqueta << ": el registro " << r << " sale dos veces\n";
          break;
        }
        bool enOrden = true;
        if (o.etiqueta == "CLAVE") {
          char clave[16];
          std::snprintf(clave, sizeof clave, "%s%06d", texto(r, escritorCampo).c_str(),
                        std::stoi(texto(r, numeroCampo)));
          enOrden = antes.empty() || antes < clave;
          antes = clave;
        } else if (o.etiqueta == "NUMERO") {
          const long long numero = std::stoll(texto(r, numeroCampo));
          enOrden = numeroAntes < 0 || numero <= numeroAntes;
          numeroAntes = numero;
        } else if (o.etiqueta == "CODIGO") {
          const std::string codigo = texto(r, codigoCampo);
          enOrden = antes <= codigo;
          antes = codigo;
        }
        if (!enOrden) {
          fallos << o.etiqueta << ": el registro " << r << " está fuera de orden\n";
          break;
        }
        if (azar() % 512 == 0) vistas.emplace_back(texto(r, escritorCampo), texto(r, numeroCampo));
      }
      if (n < o.ultimo) fallos << o.etiqueta << ": " << n << " filas tras haber visto " << o.ultimo << "\n";
      o.ultimo = std::max(o.ultimo, n);
      filasVistas = std::max(filasVistas, n);
      ++recorridos;

      if (!vistas.empty()) {
        const auto& [w, numero] = vistas[azar() % vistas.size()];
        MdxTag* clave = indice.tag("CLAVE");
        Cursor b(f);
        b.setOrder(*clave, clave->expression().fields());
        if (!b.seek({w, numero}, true))
          fallos << "CLAVE: no se encuentra " << w << " " << numero << ", ya visto\n";
        else if (texto(b.recno(), escritorCampo) != w || texto(b.recno(), numeroCampo) != numero)
          fallos << "CLAVE: buscando " << w << " " << numero << " se llega a otra fila\n";
        ++busquedas;
      }
    }
  } catch (const std::exception& e) {
    fallos << "lector " << l << ": " << e.what() << "\n";
  }
  escribeInforme(informe, std::to_string(recorridos) + " recorridos, " + std::to_string(busquedas) +
                              " búsquedas, hasta " + std::to_string(filasVistas) + " filas\n" + fallos.str());
  return fallos.str().empty() ? 0 : 1;
}

// Where two walks of a tag first part; empty when they are alike.
std::string diferencia(const Recorrido& a, const Recorrido& b) {
  for (size_t i = 0; i < a.size() && i < b.size(); ++i)
    if (a[i] != b[i]) return "entrada " + std::to_string(i + 1) + ": " + a[i] + " / " + b[i];
  if (a.size() != b.size()) return std::to_string(a.size()) + " entradas / " + std::to_string(b.size());
  return {};
}

// Every tag of dir/NAME.MDX, walked by the engine and by Perl alike, holds
// each of the table's rows exactly once, as the index written whole from the
// rows on a copy does. Returns how many tags were walked.
size_t compruebaEtiquetas(const TempDir& dir, const std::string& nombre, uint32_t filas) {
  const std::string mdx = dir.file(nombre + ".MDX");
  const auto nuestros = recorridosDelMotor(mdx);
  EXPECT_EQ(nuestros.size(), kEtiquetas.size());
  for (const auto& [etiqueta, recorrido] : nuestros) {
    const std::string fallo = faltaOSobra(recorrido, filas);
    EXPECT_TRUE(fallo.empty()) << "índice " << etiqueta << ": " << fallo;
  }
  std::string error;
  const auto perl = recorridosConPerl(mdx, error);
  EXPECT_TRUE(error.empty()) << error;
  for (const auto& [etiqueta, recorrido] : nuestros) {
    const auto it = perl.find(etiqueta);
    const std::string d = it == perl.end() ? "Perl no lo tiene" : diferencia(it->second, recorrido);
    EXPECT_TRUE(d.empty()) << "índice " << etiqueta << ", Perl / motor: " << d;
  }
  // Written whole from the rows, the index holds what the writes left.
  TempDir otra;
  fs::copy_file(dir.file(nombre + ".DBF"), otra.file(nombre + ".DBF"));
  fs::copy_file(mdx, otra.file(nombre + ".MDX"));
  {
    auto copia = DbfFile::open(otra.file(nombre + ".DBF"));
    rebuildProductionIndex(*copia, productionTags(*copia));
  }
  const auto reindexado = recorridosDelMotor(otra.file(nombre + ".MDX"));
  for (const auto& [etiqueta, recorrido] : reindexado) {
    const auto it = nuestros.find(etiqueta);
    const std::string d = it == nuestros.end() ? "falta" : diferencia(recorrido, it->second);
    EXPECT_TRUE(d.empty()) << "índice " << etiqueta << ", reindexado / mantenido: " << d;
  }
  return nuestros.size();
}

// The table the writers and readers share, with its tags, in a folder of
// its own. The children open it themselves: nothing of it may stay open
// here, or they would share this process's descriptor and its locks, so the
// engine keeps no closed table while this lives.
struct TablaCompartida {
  TempDir dir;
  std::string tabla = dir.file("CONCUR.DBF");
  testsupport::CacheLimit sinCache;
  TablaCompartida() {
    createTableWithTags(tabla,
                        {charField("ESCRITOR", 1), numField("NUMERO", 6), charField("NOMBRE", 20), charField("CODIGO", 8)},
                        0x14, kEtiquetas);
    std::fflush(stdout);  // the children's copies of the buffer stay empty
  }
};

}  // namespace

TEST(EscritoresConcurrentes, FourWritersAndTwoReadersLeaveEveryRowOnceInEveryTag) {
  const uint64_t semilla = testsupport::semillaDeLaPrueba();

  TablaCompartida compartida;
  const TempDir& dir = compartida.dir;
  const std::string& tabla = compartida.tabla;
  const std::string mdx = dir.file("CONCUR.MDX");

  const auto inicio = std::chrono::steady_clock::now();
  const std::string alto = dir.file("alto");
  std::vector<pid_t> escritores, lectores;
  for (int l = 0; l < kLectores; ++l) {
    const pid_t p = fork();
    if (p == 0) _exit(lector(tabla, l, alto, dir.file("lector" + std::to_string(l))));
    lectores.push_back(p);
  }
  for (int w = 0; w < kEscritores; ++w) {
    const pid_t p = fork();
    if (p == 0) _exit(escritor(tabla, w, semilla, dir.file("escritor" + std::to_string(w))));
    escritores.push_back(p);
  }
  auto espera = [](pid_t p) {
    int estado = 0;
    waitpid(p, &estado, 0);
    return WIFEXITED(estado) ? WEXITSTATUS(estado) : 128 + WTERMSIG(estado);
  };
  for (size_t w = 0; w < escritores.size(); ++w) {
    EXPECT_EQ(espera(escritores[w]), 0) << readFile(dir.file("escritor" + std::to_string(w)));
    std::printf("escritor %s: %s\n", escritorDe(int(w)).c_str(), readFile(dir.file("escritor" + std::to_string(w))).c_str());
  }
  const double segundosEscritura = std::chrono::duration<double>(std::chrono::steady_clock::now() - inicio).count();
  writeFile(alto, "");
  for (size_t l = 0; l < lectores.size(); ++l) {
    EXPECT_EQ(espera(lectores[l]), 0) << readFile(dir.file("lector" + std::to_string(l)));
    std::printf("lector %zu: %s", l, readFile(dir.file("lector" + std::to_string(l))).c_str());
  }

  EXPECT_FALSE(fs::exists(MdxTags::markFor(mdx)));
  const uint32_t total = kEscritores * kFilasPorEscritor;
  {
    auto f = DbfFile::open(tabla);
    MdxTags& indice = MdxTags::of(*f);
    EXPECT_TRUE(indice.warnings().empty());
    EXPECT_TRUE(f->warnings().empty());
    ASSERT_EQ(f->recordCount(), total);
    std::vector<std::vector<int>> vistas(kEscritores, std::vector<int>(kFilasPorEscritor, 0));
    int malas = 0;
    for (uint32_t r = 1; r <= f->recordCount() && malas < 5; ++r) {
      auto texto = [&](const char* campo) { return limpio(*f, f->fieldIndex(campo), r); };
      const std::string w = texto("ESCRITOR");
      const int n = std::stoi(texto("NUMERO"));
      const int wi = w.size() == 1 ? w[0] - 'A' : -1;
      if (wi < 0 || wi >= kEscritores || n < 0 || n >= kFilasPorEscritor || texto("NOMBRE") != nombreDe(wi, n) ||
          texto("CODIGO") != codigoDe(wi, n)) {
        ADD_FAILURE() << "el registro " << r << " no es una fila escrita: " << w << " " << n;
        ++malas;
        continue;
      }
      if (++vistas[size_t(wi)][size_t(n)] > 1) ADD_FAILURE() << "la fila " << w << " " << n << " está dos veces";
    }
    for (int w = 0; w < kEscritores; ++w)
      for (int n = 0; n < kFilasPorEscritor; ++n)
        if (!vistas[size_t(w)][size_t(n)]) {
          ADD_FAILURE() << "falta la fila " << escritorDe(w) << " " << n;
          w = kEscritores;
          break;
        }
  }

  const size_t etiquetas = compruebaEtiquetas(dir, "CONCUR", total);
  const double segundos = std::chrono::duration<double>(std::chrono::steady_clock::now() - inicio).count();
  std::printf("%u filas de %d escritores en %.1f s; %zu índices recorridos por el motor y por Perl; %.1f s todo\n",
              total, kEscritores, segundosEscritura, etiquetas, segundos);
}

// Writers killed while others write: two writers append 5,000 rows each
// while a third, started again after each death, is killed with SIGKILL at
// random moments, cut between its rows and the index or in the middle of
// writing the index. The others mend the index as they go on (a write finds
// the mark of the cut one); at the end the table opens, every row there is
// whole, the steady writers' rows are each there once, the killed writer's
// at most once, and every tag holds every row exactly once.
TEST(EscritoresConcurrentes, WritersKilledAmongOthersLeaveEveryTagHoldingEveryRowOnce) {
  const uint64_t semilla = testsupport::semillaDeLaPrueba();
  std::mt19937_64 azar(semilla);
  constexpr int kConstantes = 2, kFilasConstantes = 5000, kMuertes = 16;
  constexpr int kVictima = kConstantes;  // the killed writer's letter follows the steady ones'

  TablaCompartida compartida;
  const TempDir& dir = compartida.dir;
  const std::string& tabla = compartida.tabla;
  const auto inicio = std::chrono::steady_clock::now();

  std::vector<pid_t> constantes;
  for (int w = 0; w < kConstantes; ++w) {
    const pid_t p = fork();
    if (p == 0) _exit(escritor(tabla, w, semilla, dir.file("escritor" + std::to_string(w)), 0, kFilasConstantes));
    constantes.push_back(p);
  }
  int muertes = 0, conMarca = 0;
  for (int vida = 0; vida < kMuertes; ++vida) {
    // Each life writes its own numbers, so that a row tells which life wrote
    // it. It dies after a few writes of its own, a random moment later.
    int avance[2];
    ASSERT_EQ(pipe(avance), 0);
    const pid_t p = fork();
    if (p == 0) {
      ::close(avance[0]);
      _exit(escritor(tabla, kVictima, semilla, dir.file("victima"), vida * 50000, vida * 50000 + 40000, avance[1]));
    }
    ::close(avance[1]);
    char byte;
    for (int escritas = 1 + int(azar() % 20); escritas > 0 && ::read(avance[0], &byte, 1) == 1; --escritas) {
    }
    const auto hasta = std::chrono::steady_clock::now() + std::chrono::microseconds(azar() % 3000);
    while (std::chrono::steady_clock::now() < hasta) {
    }
    muertes += ::kill(p, SIGKILL) == 0;
    int estado = 0;
    waitpid(p, &estado, 0);
    ::close(avance[0]);
    conMarca += fs::exists(MdxTags::markFor(dir.file("CONCUR.MDX")));
    EXPECT_TRUE(WIFSIGNALED(estado)) << "the killed writer ended by itself: " << readFile(dir.file("victima"));
    // The steady writers meet what the death left before the next life does.
    std::this_thread::sleep_for(std::chrono::milliseconds(20 + azar() % 80));
  }
  for (size_t w = 0; w < constantes.size(); ++w) {
    int estado = 0;
    waitpid(constantes[w], &estado, 0);
    const std::string informe = readFile(dir.file("escritor" + std::to_string(w)));
    EXPECT_TRUE(WIFEXITED(estado) && WEXITSTATUS(estado) == 0) << informe;
    std::printf("escritor %s: %s\n", escritorDe(int(w)).c_str(), informe.c_str());
  }
  const double segundosEscritura = std::chrono::duration<double>(std::chrono::steady_clock::now() - inicio).count();

  // The last death may have left the mark: the opening mends the index then.
  const bool marca = fs::exists(MdxTags::markFor(dir.file("CONCUR.MDX")));
  uint32_t filas = 0;
  int deLaVictima = 0;
  {
    auto f = DbfFile::open(tabla);
    MdxTags& indice = MdxTags::of(*f);
    EXPECT_EQ(indice.warnings().size(), marca ? 1u : 0u);
    filas = f->recordCount();
    std::set<std::pair<int, int>> vistas;
    int malas = 0;
    for (uint32_t r = 1; r <= filas && malas < 5; ++r) {
      auto texto = [&](const char* campo) { return limpio(*f, f->fieldIndex(campo), r); };
      const std::string w = texto("ESCRITOR");
      const int n = std::stoi("0" + texto("NUMERO"));
      const int wi = w.size() == 1 ? w[0] - 'A' : -1;
      const bool constante = wi >= 0 && wi < kConstantes && n < kFilasConstantes;
      const bool victima = wi == kVictima && n % 50000 < 40000;
      if ((!constante && !victima) || texto("NOMBRE") != nombreDe(wi, n) || texto("CODIGO") != codigoDe(wi, n)) {
        ADD_FAILURE() << "el registro " << r << " no es una fila escrita: " << w << " " << n;
        ++malas;
        continue;
      }
      if (!vistas.insert({wi, n}).second) ADD_FAILURE() << "la fila " << w << " " << n << " está dos veces";
      deLaVictima += victima;
    }
    EXPECT_EQ(filas - uint32_t(deLaVictima), uint32_t(kConstantes * kFilasConstantes));
  }
  EXPECT_FALSE(fs::exists(MdxTags::markFor(dir.file("CONCUR.MDX"))));
  const size_t etiquetas = compruebaEtiquetas(dir, "CONCUR", filas);
  std::printf("%d muertes, %d con la marca de una escritura cortada; %u filas (%d del escritor matado) en %.1f s; "
              "%zu índices; marca al final: %s\n",
              muertes, conMarca, filas, deLaVictima, segundosEscritura, etiquetas, marca ? "sí" : "no");
}
