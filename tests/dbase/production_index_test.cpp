// Tables whose tags live in a production index file: reading the tags,
// walking and searching them through cursors and tables, building the file
// anew, and what a damaged or changing file does.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QString>
#include <QVariantList>
#include <algorithm>
#include <filesystem>
#include <map>

#include "dbase/TTable.h"
#include "dbase/core/cursor.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/mdx_format.h"
#include "dbase/core/dbase_locks.h"
#include "dbase/core/mdx_tag.h"
#include "dbase/core/mdx_tags.h"
#include "services/Ruttb.h"
#include "support/index_lock.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;

namespace {

namespace fs = std::filesystem;

std::string samplesDir() { return sharedDir().empty() ? std::string() : sharedDir() + "/mdx"; }

// Every table of the dBASE IV samples that has a production index.
std::vector<std::string> sampleTables() {
  std::vector<std::string> names;
  if (samplesDir().empty() || !fs::is_directory(samplesDir())) return names;
  for (const auto& entry : fs::directory_iterator(samplesDir())) {
    const std::string name = entry.path().filename().string();
    if (name.size() > 4 && name.substr(name.size() - 4) == ".DBF") names.push_back(name.substr(0, name.size() - 4));
  }
  std::sort(names.begin(), names.end());
  return names;
}

// A sample copied to a scratch folder, with its index and memo files.
void copySample(const std::string& table, const TempDir& dir) {
  for (const char* ext : {".DBF", ".MDX", ".DBT"}) {
    const fs::path from = fs::path(samplesDir()) / (table + ext);
    if (fs::exists(from)) fs::copy_file(from, fs::path(dir.path()) / (table + ext));
  }
}

// The rows of a tag as the index file stores them, deleted rows left out.
std::vector<uint32_t> storedOrder(DbfFile& file, const MdxFile& mdx, size_t tag) {
  std::vector<uint32_t> rows;
  mdx.walk(tag, [&](std::string_view, uint32_t recno) {
    if (recno >= 1 && recno <= file.recordCount() && !file.isDeleted(recno)) rows.push_back(recno);
  });
  return rows;
}

std::vector<uint32_t> cursorOrder(Cursor& cursor) {
  std::vector<uint32_t> rows;
  for (cursor.first(); !cursor.eof() && cursor.recno() != 0; cursor.next()) rows.push_back(cursor.recno());
  return rows;
}

#define REQUIRE_SAMPLES()                                                       \
  if (sampleTables().empty()) GTEST_SKIP() << "no dBASE IV samples beside the checkout"

}  // namespace

TEST(ProductionIndex, EveryTagOfTheSamplesIsListedWithItsExpression) {
  REQUIRE_SAMPLES();
  size_t tags = 0;
  for (const std::string& table : sampleTables()) {
    auto file = DbfFile::open(samplesDir() + "/" + table + ".DBF");
    ASSERT_TRUE(file->hasProductionMdx()) << table;
    MdxTags& index = MdxTags::of(*file);
    ASSERT_TRUE(index.present()) << table << ": " << index.problem();
    ASSERT_FALSE(index.tags().empty()) << table;
    for (const MdxTagInfo& info : index.tags()) {
      EXPECT_FALSE(info.name.empty());
      EXPECT_FALSE(info.expression.empty()) << table << " " << info.name;
      EXPECT_TRUE(info.keyType == 'C' || info.keyType == 'N' || info.keyType == 'D') << info.name;
      ++tags;
    }
  }
  EXPECT_GE(tags, 20u);  // the fourteen tables hold 22 tags between them
}

TEST(ProductionIndex, CursorWalksEveryTagInTheOrderTheIndexFileKeeps) {
  REQUIRE_SAMPLES();
  for (const std::string& table : sampleTables()) {
    auto file = DbfFile::open(samplesDir() + "/" + table + ".DBF");
    MdxTags& index = MdxTags::of(*file);
    auto mdx = MdxFile::open(index.path());
    for (size_t t = 0; t < index.tags().size(); ++t) {
      const MdxTagInfo& info = index.tags()[t];
      MdxTag* tag = index.tag(info.name);
      ASSERT_NE(tag, nullptr);
      Cursor cursor(file);
      cursor.setOrder(*tag, tag->expression().fields());
      const std::vector<uint32_t> expected = storedOrder(*file, *mdx, t);
      EXPECT_EQ(cursorOrder(cursor), expected) << table << " " << info.name;
      EXPECT_EQ(cursor.count(), expected.size());
    }
  }
}

TEST(ProductionIndex, ExactSearchOnEachCharacterTagFindsEveryRowsKey) {
  REQUIRE_SAMPLES();
  size_t searches = 0;
  for (const std::string& table : sampleTables()) {
    auto file = DbfFile::open(samplesDir() + "/" + table + ".DBF");
    MdxTags& index = MdxTags::of(*file);
    for (const MdxTagInfo& info : index.tags()) {
      MdxTag* tag = index.tag(info.name);
      const std::vector<int>& fields = tag->expression().fields();
      Cursor cursor(file);
      cursor.setOrder(*tag, fields);
      for (uint32_t r = 1; r <= file->recordCount(); ++r) {
        if (tag->rankOf(r) == tag->size()) continue;
        std::vector<std::string> values;
        for (int f : fields) values.push_back(fieldText(file->fields()[size_t(f)], file->record(r), file->codePage()));
        ASSERT_TRUE(cursor.seek(values, true)) << table << " " << info.name << " row " << r;
        // The row found holds the same key (another row with an equal key may come first).
        EXPECT_EQ(tag->keyOf(cursor.recno()), tag->keyOf(r)) << table << " " << info.name << " row " << r;
        ++searches;
      }
    }
  }
  EXPECT_GT(searches, 200u);
}

TEST(ProductionIndex, NearestSearchOnAPrefixLandsOnTheFirstKeyStartingWithIt) {
  TempDir dir;
  auto file = makeTable(dir.path(), "CALLES.DBF", {charField("PROVINCIA", 2), charField("VIA", 20)},
                        {{"28", "MAYOR"}, {"28", "ALCALA"}, {"08", "DIAGONAL"}, {"28", "ATOCHA"}, {"08", "ARAGO"}});
  rebuildProductionIndex(*file, {{"PROVVIA", "PROVINCIA+UPPER(VIA)", "", false, false}});
  MdxTag* tag = MdxTags::of(*file).tag("provvia");
  ASSERT_NE(tag, nullptr);
  Cursor cursor(file);
  cursor.setOrder(*tag, tag->expression().fields());
  ASSERT_TRUE(cursor.seek({"28", "AT"}, false));
  EXPECT_EQ(fieldText(file->field("VIA"), cursor.record(), file->codePage()), "ATOCHA");
  ASSERT_TRUE(cursor.seek({"08"}, true));
  EXPECT_EQ(fieldText(file->field("VIA"), cursor.record(), file->codePage()), "ARAGO");
  EXPECT_FALSE(cursor.seek({"28", "ATOCH"}, true));
  EXPECT_TRUE(cursor.seek({"28", "ATOCHA"}, true));
  EXPECT_FALSE(cursor.seek({"46"}, true));
}

TEST(ProductionIndex, TableSearchesFieldValuePairsOnTagsOfAnyExpression) {
  TempDir dir;
  makeTable(dir.path(), "MUNICIPI.DBF",
            {charField("PROVINCIA", 2), charField("NOMBRE", 30), numField("HABITANTES", 8)},
            {{"28", "Madrid", "3300000"}, {"08", "Barcelona", "1600000"}, {"28", "Alcalá de Henares", "195000"},
             {"46", "Valencia", "790000"}, {"28", "Getafe", "180000"}});
  {
    auto file = DbfFile::open(dir.file("MUNICIPI.DBF"));
    rebuildProductionIndex(*file, {{"NOMBRE", "UPPER(NOMBRE)", "", false, false},
                                   {"PROVNOM", "PROVINCIA+NOMBRE", "", false, false},
                                   {"HABIT", "STR(HABITANTES,8)", "", false, false},
                                   {"CIFRA", "HABITANTES", "", false, true}});
  }
  TTable t;
  t.SetDatabaseName(QString::fromStdString(dir.path()));
  t.SetTableName("MUNICIPI.DBF");
  t.Open();
  EXPECT_TRUE(t.IndexDefNames().contains("PROVNOM"));

  TBIndexa("NOMBRE", &t);
  EXPECT_EQ(t.IndexFields(), QStringList{"NOMBRE"});
  EXPECT_TRUE(TBBusca(&t, {"NOMBRE", "GETAFE"}, true));
  EXPECT_EQ(t.FieldByName("NOMBRE")->AsString(), "Getafe");
  EXPECT_TRUE(TBBusca(&t, {"NOMBRE", "VAL"}, false));
  EXPECT_EQ(t.FieldByName("NOMBRE")->AsString(), "Valencia");

  TBIndexa("PROVNOM", &t);
  EXPECT_EQ(t.IndexFields(), (QStringList{"PROVINCIA", "NOMBRE"}));
  EXPECT_TRUE(TBBusca(&t, {"PROVINCIA", "28", "NOMBRE", "Ge"}, false));
  EXPECT_EQ(t.FieldByName("NOMBRE")->AsString(), "Getafe");
  EXPECT_TRUE(TBBusca(&t, {"PROVINCIA", "28"}, true));
  EXPECT_EQ(t.FieldByName("NOMBRE")->AsString(), "Alcalá de Henares");

  TBIndexa("HABIT", &t);
  EXPECT_TRUE(TBBusca(&t, {"HABITANTES", "790000"}, true));
  EXPECT_EQ(t.FieldByName("NOMBRE")->AsString(), "Valencia");

  TBIndexa("CIFRA", &t);  // descending: the largest first
  t.First();
  EXPECT_EQ(t.FieldByName("NOMBRE")->AsString(), "Madrid");
  EXPECT_TRUE(TBBusca(&t, {"HABITANTES", "1600000"}, true));
  EXPECT_EQ(t.FieldByName("NOMBRE")->AsString(), "Barcelona");
  t.Next();
  EXPECT_EQ(t.FieldByName("NOMBRE")->AsString(), "Valencia");
}

TEST(ProductionIndex, DeclaredTagTheIndexFileLacksIsBuiltInMemory) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("A", 4), charField("B", 4)},
                        {{"b", "2"}, {"a", "3"}, {"c", "1"}});
  rebuildProductionIndex(*file, {{"A", "A", "", false, false}});
  TTable t;
  t.SetDatabaseName(QString::fromStdString(dir.path()));
  t.SetTableName("T.DBF");
  t.AddIndexDef("B", {"B"});
  t.Open();
  t.SetIndexName("B");
  t.First();
  EXPECT_EQ(t.FieldByName("A")->AsString(), "c");
  t.SetIndexName("A");
  t.First();
  EXPECT_EQ(t.FieldByName("A")->AsString(), "a");
  EXPECT_THROW(t.SetIndexName("C"), Error);
}

TEST(ProductionIndex, TagWithAConditionHoldsOnlyTheRowsThatMeetIt) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("NOMBRE", 8), numField("N", 3)},
                        {{"uno", "1"}, {"dos", "2"}, {"tres", "3"}, {"cuatro", "4"}});
  rebuildProductionIndex(*file, {{"PARES", "NOMBRE", "N=2 .OR. N=4", false, false}});
  MdxTag* tag = MdxTags::of(*file).tag("PARES");
  Cursor cursor(file);
  cursor.setOrder(*tag, tag->expression().fields());
  EXPECT_EQ(cursorOrder(cursor), (std::vector<uint32_t>{4, 2}));
  cursor.setFilter("N=4");
  EXPECT_EQ(cursorOrder(cursor), (std::vector<uint32_t>{4}));
  EXPECT_EQ(cursor.count(), 1u);
}

TEST(ProductionIndex, UniqueTagKeepsTheFirstRowOfEachKey) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("K", 3)}, {{"b"}, {"a"}, {"b"}, {"a"}});
  rebuildProductionIndex(*file, {{"K", "K", "", true, false}});
  MdxTag* tag = MdxTags::of(*file).tag("K");
  Cursor cursor(file);
  cursor.setOrder(*tag, tag->expression().fields());
  EXPECT_EQ(cursorOrder(cursor), (std::vector<uint32_t>{2, 1}));
}

TEST(ProductionIndex, UnusableExpressionNamesFileTagAndExpressionAndSparesTheOtherTags) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("A", 4)}, {{"x"}, {"y"}});
  rebuildProductionIndex(*file, {{"BIEN", "A", "", false, false}});
  // Another program's tag with a function this engine does not evaluate.
  std::vector<MdxTagBuild> tags(2);
  tags[0] = {"BIEN", "A", "", 'C', 4, false, false, {{"x   ", 1}, {"y   ", 2}}};
  tags[1] = {"MAL", "SOUNDEX(A)", "", 'C', 4, false, false, {{"x   ", 1}, {"y   ", 2}}};
  writeMdx(MdxTags::pathFor(file->path()), "T", file->languageDriver(), tags);
  auto reopened = DbfFile::open(dir.file("T.DBF"));
  reopened->syncWithDisk();
  MdxTags& index = MdxTags::of(*reopened);
  ASSERT_TRUE(index.present());
  EXPECT_NE(index.tag("BIEN"), nullptr);
  try {
    index.tag("MAL");
    FAIL() << "an expression outside the engine's set was accepted";
  } catch (const Error& e) {
    const std::string what = e.what();
    EXPECT_NE(what.find("T.DBF"), std::string::npos) << what;
    EXPECT_NE(what.find("MAL"), std::string::npos) << what;
    EXPECT_NE(what.find("SOUNDEX(A)"), std::string::npos) << what;
  }
}

TEST(ProductionIndex, AnotherProgramsNewIndexIsNoticedBeforeTheNextSearch) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("A", 4), charField("B", 4)},
                        {{"a", "3"}, {"b", "2"}, {"c", "1"}});
  rebuildProductionIndex(*file, {{"ORDEN", "A", "", false, false}});
  MdxTag* tag = MdxTags::of(*file).tag("ORDEN");
  Cursor cursor(file);
  cursor.setOrder(*tag, tag->expression().fields());
  EXPECT_EQ(cursorOrder(cursor), (std::vector<uint32_t>{1, 2, 3}));
  // Another program writes the index anew with the same tag on B.
  std::vector<MdxTagBuild> tags(1);
  tags[0] = {"ORDEN", "B", "", 'C', 4, false, false, {{"1   ", 3}, {"2   ", 2}, {"3   ", 1}}};
  writeMdx(MdxTags::pathFor(file->path()), "T", file->languageDriver(), tags);
  cursor.refresh();
  EXPECT_EQ(cursorOrder(cursor), (std::vector<uint32_t>{3, 2, 1}));
}

TEST(ProductionIndex, MissingIndexFileLeavesTheTableReadableWithItsProblemSaid) {
  TempDir dir;
  makeTable(dir.path(), "T.DBF", {charField("A", 4)}, {{"a"}});
  {
    auto file = DbfFile::open(dir.file("T.DBF"));
    rebuildProductionIndex(*file, {{"A", "A", "", false, false}});
  }
  fs::remove(dir.file("T.MDX"));
  auto file = DbfFile::open(dir.file("T.DBF"));
  file->syncWithDisk();
  MdxTags& index = MdxTags::of(*file);
  EXPECT_FALSE(index.present());
  EXPECT_NE(index.problem().find("T.MDX"), std::string::npos) << index.problem();
  EXPECT_EQ(file->recordCount(), 1u);
}

TEST(Reindex, RebuiltSampleIndexWalksEveryTagAsTheOriginal) {
  REQUIRE_SAMPLES();
  for (const std::string& table : sampleTables()) {
    TempDir dir;
    copySample(table, dir);
    std::map<std::string, std::vector<uint32_t>> before;
    {
      auto file = DbfFile::open(dir.file(table + ".DBF"));
      auto mdx = MdxFile::open(MdxTags::pathFor(file->path()));
      for (size_t t = 0; t < mdx->tags().size(); ++t) before[mdx->tags()[t].name] = storedOrder(*file, *mdx, t);
      rebuildProductionIndex(*file, productionTags(*file));
    }
    auto file = DbfFile::open(dir.file(table + ".DBF"));
    auto mdx = MdxFile::open(MdxTags::pathFor(file->path()));
    ASSERT_EQ(mdx->tags().size(), before.size()) << table;
    for (size_t t = 0; t < mdx->tags().size(); ++t)
      EXPECT_EQ(storedOrder(*file, *mdx, t), before[mdx->tags()[t].name]) << table << " " << mdx->tags()[t].name;
  }
}

TEST(Reindex, SetsTheHeaderFlagAndTheFlagOfEachFieldKeyedAlone) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("A", 4), charField("B", 4)}, {{"a", "b"}});
  EXPECT_FALSE(file->hasProductionMdx());
  rebuildProductionIndex(*file, {{"A", "A", "", false, false}, {"AB", "A+B", "", false, false}});
  const std::string header = readFile(dir.file("T.DBF"));
  EXPECT_EQ(header[28], 1);
  EXPECT_EQ(header[32 + 31], 1);       // A
  EXPECT_EQ(header[32 + 32 + 31], 0);  // B: only in a compound key
  EXPECT_TRUE(DbfFile::open(dir.file("T.DBF"))->hasProductionMdx());
}

TEST(Reindex, ABadExpressionLeavesTheOldIndexAsItWas) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("A", 4)}, {{"a"}});
  rebuildProductionIndex(*file, {{"A", "A", "", false, false}});
  const std::string old = readFile(dir.file("T.MDX"));
  EXPECT_THROW(rebuildProductionIndex(*file, {{"A", "NOHAY", "", false, false}}), Error);
  EXPECT_EQ(readFile(dir.file("T.MDX")), old);
  EXPECT_THROW(rebuildProductionIndex(*file, {{"DEMASIADOLARGO", "A", "", false, false}}), Error);
  EXPECT_EQ(readFile(dir.file("T.MDX")), old);
}

TEST(Reindex, CreatesATableWithItsTags) {
  TempDir dir;
  auto file = createTableWithTags(dir.file("NUEVA.DBF"), {charField("NOMBRE", 10)}, 0x14,
                                  {{"NOMBRE", "UPPER(NOMBRE)", "", false, false}});
  EXPECT_TRUE(file->hasProductionMdx());
  EXPECT_TRUE(fs::exists(dir.file("NUEVA.MDX")));
  EXPECT_NE(MdxTags::of(*file).tag("NOMBRE"), nullptr);
}

TEST(ProductionIndex, AnIndexReadWhileAnotherProgramChangesItIsReadAgainOnceTheChangeIsDone) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("A", 4)}, {{"b"}, {"a"}});
  rebuildProductionIndex(*file, {{"ORDEN", "A", "", false, false}});
  const std::string mdxPath = MdxTags::pathFor(file->path());
  const uint64_t rootAt = uint64_t(MdxFile::open(mdxPath)->tags()[0].headerPage) * 512 + mdx::kTagRoot;
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t writer = ::fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    // Another program, with the index's lock, halfway through a change: the
    // tag's root already points at a block the file does not have yet.
    const int fd = ::open(mdxPath.c_str(), O_RDWR);
    struct flock lock = indexLockByte();
    if (fd < 0 || ::fcntl(fd, F_OFD_SETLKW, &lock) != 0) ::_exit(1);
    unsigned char root[4];
    if (::pread(fd, root, 4, off_t(rootAt)) != 4) ::_exit(1);
    const unsigned char far[4] = {0xF0, 0xFF, 0xFF, 0x0F};
    if (::pwrite(fd, far, 4, off_t(rootAt)) != 4 || ::write(ready[1], "x", 1) != 1) ::_exit(1);
    ::usleep(300000);
    ::_exit(::pwrite(fd, root, 4, off_t(rootAt)) == 4 ? 0 : 1);  // done: the lock goes with the process
  }
  char signal = 0;
  ASSERT_EQ(::read(ready[0], &signal, 1), 1);
  MdxTags::of(*file).rowsReloaded();  // reads the index now, mid-change
  MdxTag* tag = nullptr;
  EXPECT_NO_THROW(tag = MdxTags::of(*file).tag("ORDEN"));
  int status = 0;
  ::waitpid(writer, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_NE(tag, nullptr);
  Cursor cursor(file);
  cursor.setOrder(*tag, tag->expression().fields());
  EXPECT_EQ(cursorOrder(cursor), (std::vector<uint32_t>{2, 1}));
}
