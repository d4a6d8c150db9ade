// A bulk load into a table with a production index: the rows appended are
// entered in no tag until the load ends, when the index is written whole;
// meanwhile the index's mark of a write under way stands, so a process killed
// in the middle leaves a table whose next opening writes the index anew.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/mdx_tags.h"
#include "support/cache_limit.h"
#include "support/recorrido_mdx.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;

namespace {

namespace fs = std::filesystem;

const std::vector<TagDefinition> kTags = {{"VIA", "PROVINCIA+VIA", "", false, false},
                                          {"SOLOVIA", "VIA", "", false, false},
                                          {"NUMERO", "NUMERO", "", false, true}};

class CargaEnBloque : public ::testing::Test {
 protected:
  void SetUp() override {
    file = makeTable(dir.path(), "CALLES.DBF", {charField("PROVINCIA", 2), charField("VIA", 20), numField("NUMERO", 6)},
                     {{"28", "MAYOR", "1"}, {"08", "ARAGO", "2"}});
    rebuildProductionIndex(*file, kTags);
    MdxTags::of(*file);
  }
  std::string filas(int desde, int cuantas) {
    std::string out;
    for (int i = desde; i < desde + cuantas; ++i) {
      std::string r = file->blankRecord();
      setFieldText(file->field("PROVINCIA"), r.data(), i % 2 ? "28" : "46", file->codePage(), file->name());
      setFieldText(file->field("VIA"), r.data(), "CALLE " + std::to_string(i * 7919 % 1000), file->codePage(),
                   file->name());
      setFieldNumber(file->field("NUMERO"), r.data(), i, file->name());
      out += r;
    }
    return out;
  }
  void esperaTodasEnCadaTag(uint32_t cuantas) {
    const auto recorridos = recorridosDelMotor(dir.file("CALLES.MDX"));
    ASSERT_EQ(recorridos.size(), kTags.size());
    for (const auto& [tag, recorrido] : recorridos) EXPECT_EQ(faltaOSobra(recorrido, cuantas), "") << tag;
  }
  std::string marca() const { return MdxTags::markFor(dir.file("CALLES.MDX")); }
  TempDir dir;
  std::shared_ptr<DbfFile> file;
};

}  // namespace

TEST_F(CargaEnBloque, RowsAppendedInTheLoadAreInEveryTagOnceItEnds) {
  MdxTags& indice = MdxTags::of(*file);
  WriteBatch carga(*file, WriteBatch::Upkeep::WholeAtEnd);
  EXPECT_TRUE(indice.bulkLoad());
  EXPECT_TRUE(fs::exists(marca()));
  file->appendMany(filas(3, 500));
  file->appendMany(filas(503, 500));
  file->append(filas(1003, 1));
  carga.finish();
  EXPECT_FALSE(indice.bulkLoad());
  EXPECT_FALSE(fs::exists(marca()));
  EXPECT_EQ(file->recordCount(), 1003u);
  esperaTodasEnCadaTag(1003);
  // Writes after it keep the index entry by entry again.
  file->append(filas(1004, 1));
  esperaTodasEnCadaTag(1004);
}

TEST_F(CargaEnBloque, ALoadOnATableWithoutAnIndexDoesNothingSpecial) {
  auto sinIndice = makeTable(dir.path(), "SIN.DBF", {charField("VIA", 20)}, {{"MAYOR"}});
  MdxTags& indice = MdxTags::of(*sinIndice);
  WriteBatch carga(*sinIndice, WriteBatch::Upkeep::WholeAtEnd);
  EXPECT_FALSE(indice.bulkLoad());
  std::string r = sinIndice->blankRecord();
  sinIndice->append(r);
  carga.finish();
  EXPECT_EQ(sinIndice->recordCount(), 2u);
  EXPECT_FALSE(fs::exists(dir.file("SIN.MDX")));
}

TEST_F(CargaEnBloque, ALoadKilledHalfWayLeavesATableWhoseNextOpeningWritesTheIndexAnew) {
  const std::string nuevas = filas(3, 2000);
  // The child opens the table itself: nothing of it may stay open here.
  file.reset();
  const testsupport::CacheLimit sinCache;
  const pid_t hijo = fork();
  if (hijo == 0) {
    auto f = DbfFile::open(dir.file("CALLES.DBF"));
    MdxTags::of(*f);
    WriteBatch carga(*f, WriteBatch::Upkeep::WholeAtEnd);
    f->appendMany(nuevas);
    _exit(0);  // killed before the load ends
  }
  int estado = 0;
  waitpid(hijo, &estado, 0);
  ASSERT_TRUE(WIFEXITED(estado));
  ASSERT_TRUE(fs::exists(marca()));
  file = DbfFile::open(dir.file("CALLES.DBF"));
  EXPECT_EQ(file->recordCount(), 2002u);
  MdxTags& indice = MdxTags::of(*file);
  ASSERT_TRUE(indice.present()) << indice.problem();
  ASSERT_EQ(indice.warnings().size(), 1u);
  EXPECT_NE(indice.warnings()[0].find("se ha rehecho a partir de las filas"), std::string::npos);
  EXPECT_FALSE(fs::exists(marca()));
  esperaTodasEnCadaTag(2002);
}
