// Writes to a table with a production index: every tag of the index file
// follows each append and edit, as dBase keeps it, other programs' locks are
// waited for a bounded time, and a write cut between the rows and the index
// is noticed and the index written anew.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <QString>
#include <QVariantList>
#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <thread>

#include "dbase/TTable.h"
#include "dbase/core/cursor.h"
#include "dbase/core/dbase_locks.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/mdx_tag.h"
#include "dbase/core/mdx_tags.h"
#include "support/cache_limit.h"
#include "support/index_lock.h"
#include "support/recorrido_mdx.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;

namespace {

namespace fs = std::filesystem;

// What the index would hold if written whole from the table's rows now: a
// copy of the table reindexed in another folder.
std::map<std::string, Entries> rebuiltFromRows(const std::string& dir, const std::string& table) {
  TempDir other;
  fs::copy_file(fs::path(dir) / (table + ".DBF"), fs::path(other.path()) / (table + ".DBF"));
  fs::copy_file(fs::path(dir) / (table + ".MDX"), fs::path(other.path()) / (table + ".MDX"));
  {
    auto copy = DbfFile::open(other.file(table + ".DBF"));
    rebuildProductionIndex(*copy, productionTags(*copy));
  }
  return walkAll(other.file(table + ".MDX"));
}

const std::vector<TagDefinition> kTags = {
    {"NOMBRE", "UPPER(NOMBRE)", "", false, false},
    {"PROVNOM", "PROVINCIA+NOMBRE", "", false, false},
    {"HABIT", "HABITANTES", "", false, true},
    {"GRANDES", "NOMBRE", "HABITANTES>=100000", false, false},
    {"UNAPROV", "PROVINCIA", "", true, false}};

class IndexUpkeep : public ::testing::Test {
 protected:
  void SetUp() override {
    file = makeTable(dir.path(), "MUNI.DBF", {charField("PROVINCIA", 2), charField("NOMBRE", 20), numField("HABITANTES", 8)},
                     {{"28", "Madrid", "3300000"}, {"08", "Barcelona", "1600000"}, {"28", "Getafe", "180000"}});
    rebuildProductionIndex(*file, kTags);
    MdxTags::of(*file);  // kept from now on, as a table opened by the engine has it
  }
  std::string row(const std::string& prov, const std::string& name, const std::string& people) {
    std::string r = file->blankRecord();
    setFieldText(file->field("PROVINCIA"), r.data(), prov, file->codePage(), file->name());
    setFieldText(file->field("NOMBRE"), r.data(), name, file->codePage(), file->name());
    setFieldText(file->field("HABITANTES"), r.data(), people, file->codePage(), file->name());
    return r;
  }
  // Another program's writer killed after its row and before the index:
  // the row and the mark are on disk, the index lacks the row. (Row 4, as
  // a writer that keeps no index would append it.)
  void writerKilledAfterItsRow() {
    const pid_t child = fork();
    if (child == 0) {
      std::string r = row("46", "Valencia", "");
      const int mark = ::open(MdxTags::markFor(dir.file("MUNI.MDX")).c_str(), O_CREAT | O_WRONLY, 0644);
      ::close(mark);
      const int fd = ::open(dir.file("MUNI.DBF").c_str(), O_RDWR);
      const off_t end = lseek(fd, 0, SEEK_END) - 1;
      (void)!pwrite(fd, r.data(), r.size(), end);
      const char eof = 0x1A;
      (void)!pwrite(fd, &eof, 1, end + off_t(r.size()));
      unsigned char count[4] = {4, 0, 0, 0};
      (void)!pwrite(fd, count, 4, 4);
      _exit(0);
    }
    waitpid(child, nullptr, 0);
  }
  void expectIndexAsRebuilt() {
    EXPECT_EQ(walkAll(dir.file("MUNI.MDX")), rebuiltFromRows(dir.path(), "MUNI"));
    EXPECT_FALSE(fs::exists(MdxTags::markFor(dir.file("MUNI.MDX"))));
  }
  TempDir dir;
  std::shared_ptr<DbfFile> file;
};

}  // namespace

TEST_F(IndexUpkeep, AppendedRowsLandInEveryTagWithConditionsAndUniqueKeysAsDbaseHasThem) {
  file->append(row("46", "Valencia", "790000"));
  file->append(row("28", "Alcalá de Henares", "195000"));  // a second 28: not in the unique tag
  file->appendMany(row("08", "Sabadell", "215000") + row("41", "Écija", "40000"));
  EXPECT_EQ(file->recordCount(), 7u);
  expectIndexAsRebuilt();
  const auto walked = walkAll(dir.file("MUNI.MDX"));
  EXPECT_EQ(walked.at("UNAPROV").size(), 4u);  // 28, 08, 46, 41
  EXPECT_EQ(walked.at("GRANDES").size(), 6u);  // all but Écija
}

// Batches of every size, rows repeating names and provinces: each tag
// (upper-cased, compound, descending, with a FOR condition, unique) holds
// what writing the index whole from the rows gives.
TEST_F(IndexUpkeep, AppendsInBatchesOfAnySizeLeaveTheIndexAsWritingItWholeWould) {
  std::mt19937 rng(1234);
  const char* const names[] = {"Ávila", "avila", "Ñora", "nora", "Peña", "Pena", "Zamora", "Lugo", "León", "leon"};
  const char* const provinces[] = {"05", "28", "30", "49", "27", "24"};
  for (int batch = 0; batch < 12; ++batch) {
    const int rows = batch % 4 == 0 ? 1 : int(1 + rng() % 300);
    std::string records;
    for (int i = 0; i < rows; ++i)
      records += row(provinces[rng() % std::size(provinces)],
                     std::string(names[rng() % std::size(names)]) + " " + std::to_string(rng() % 50),
                     std::to_string(rng() % 300000));
    file->appendMany(records);
    if (batch % 4 == 3) expectIndexAsRebuilt();
  }
  EXPECT_GT(file->recordCount(), 600u);
  expectIndexAsRebuilt();
}

TEST_F(IndexUpkeep, EditOfAKeyFieldMovesTheRowInEveryTag) {
  std::string r(file->record(3), file->recordLength());
  setFieldText(file->field("NOMBRE"), r.data(), "Aranjuez", file->codePage(), file->name());
  setFieldText(file->field("HABITANTES"), r.data(), "60000", file->codePage(), file->name());
  file->update(3, r);
  expectIndexAsRebuilt();
}

TEST_F(IndexUpkeep, DeletedRowKeepsItsKeysInTheFileAndLeavesTheView) {
  const auto before = walkAll(dir.file("MUNI.MDX"));
  std::string r(file->record(1), file->recordLength());
  r[0] = '*';
  file->update(1, r);
  EXPECT_EQ(walkAll(dir.file("MUNI.MDX")), before);  // dBase keeps a deleted row's keys
  MdxTag* tag = MdxTags::of(*file).tag("NOMBRE");
  Cursor c(file);
  c.setOrder(*tag, tag->expression().fields());
  EXPECT_EQ(c.count(), 2u);
  r[0] = ' ';
  file->update(1, r);
  EXPECT_EQ(c.count(), 3u);
}

TEST_F(IndexUpkeep, CursorOnAnIndexTagFindsTheRowsItsProcessWrites) {
  MdxTag* tag = MdxTags::of(*file).tag("PROVNOM");
  Cursor c(file);
  c.setOrder(*tag, tag->expression().fields());
  EXPECT_EQ(c.count(), 3u);
  file->append(row("28", "Alcorcón", "170000"));
  ASSERT_TRUE(c.seek({"28", "Alcorcón"}, true));
  EXPECT_EQ(c.recno(), 4u);
  std::vector<uint32_t> order;
  for (c.first(); !c.eof(); c.next()) order.push_back(c.recno());
  EXPECT_EQ(order, (std::vector<uint32_t>{2, 4, 3, 1}));  // 08 Barcelona, 28 Alcorcón, Getafe, Madrid
}

TEST_F(IndexUpkeep, TableAppendAndPostKeepTheIndexAndSearchThroughIt) {
  TTable t;
  t.SetDatabaseName(QString::fromStdString(dir.path()));
  t.SetTableName("MUNI.DBF");
  t.Open();
  t.SetIndexName("NOMBRE");
  t.Append();
  t.FieldByName("PROVINCIA")->SetAsString("50");
  t.FieldByName("NOMBRE")->SetAsString("Zaragoza");
  t.FieldByName("HABITANTES")->SetAsInteger(680000);
  t.Post();
  EXPECT_TRUE(t.FindKey({"ZARAGOZA"}));
  EXPECT_EQ(t.FieldByName("PROVINCIA")->AsString(), "50");
  t.Close();
  expectIndexAsRebuilt();
}

TEST(IndexUpkeepRefusal, TableWhoseIndexNothingKeepsRefusesWritesAndChangesNothing) {
  TempDir dir;
  auto bare = makeTable(dir.path(), "T.DBF", {charField("A", 4)}, {{"a"}});
  rebuildProductionIndex(*bare, {{"A", "A", "", false, false}});
  const std::string before = readFile(dir.file("T.DBF"));
  // Nothing was asked of the index through the engine: nobody keeps it.
  try {
    bare->append(bare->blankRecord());
    FAIL() << "written past an index nobody keeps";
  } catch (const Error& e) {
    EXPECT_NE(std::string(e.what()).find("no se está manteniendo"), std::string::npos) << e.what();
  }
  EXPECT_EQ(readFile(dir.file("T.DBF")), before);
  MdxTags::of(*bare);
  EXPECT_NO_THROW(bare->append(bare->blankRecord()));
  EXPECT_EQ(walkAll(dir.file("T.MDX")).at("A").size(), 2u);
}

TEST_F(IndexUpkeep, AnExpressionTheEngineCannotEvaluateRefusesTheWriteAndChangesNothing) {
  std::vector<MdxTagBuild> tags(1);
  tags[0] = {"SONIDO", "SOUNDEX(NOMBRE)", "", 'C', 4, false, false, {}};
  writeMdx(dir.file("MUNI.MDX"), "MUNI", file->languageDriver(), tags);
  file->syncWithDisk();
  const std::string dbf = readFile(dir.file("MUNI.DBF"));
  try {
    file->append(row("46", "Valencia", "790000"));
    FAIL() << "written with an index the engine cannot keep";
  } catch (const Error& e) {
    EXPECT_NE(std::string(e.what()).find("SOUNDEX(NOMBRE)"), std::string::npos) << e.what();
  }
  EXPECT_EQ(readFile(dir.file("MUNI.DBF")), dbf);
  EXPECT_FALSE(fs::exists(MdxTags::markFor(dir.file("MUNI.MDX"))));
}

TEST_F(IndexUpkeep, AnotherProgramsIndexLockMakesTheWriteWaitThenFailWithoutWriting) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    const int fd = ::open(dir.file("MUNI.MDX").c_str(), O_RDWR);
    struct flock l = indexLockByte();
    if (fcntl(fd, F_OFD_SETLK, &l) != 0) _exit(1);
    (void)!write(ready[1], "x", 1);
    sleep(3);
    _exit(0);
  }
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  setLockWait(std::chrono::milliseconds(300));
  const std::string dbf = readFile(dir.file("MUNI.DBF"));
  const auto t0 = std::chrono::steady_clock::now();
  try {
    file->append(row("46", "Valencia", "790000"));
    ADD_FAILURE() << "written while another program held the index";
  } catch (const Error& e) {
    EXPECT_NE(std::string(e.what()).find("índice"), std::string::npos) << e.what();
  }
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(250));
  resetLockWait();
  EXPECT_EQ(readFile(dir.file("MUNI.DBF")), dbf);
  EXPECT_EQ(file->recordCount(), 3u);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  file->append(row("46", "Valencia", "790000"));  // free again
  expectIndexAsRebuilt();
}

TEST_F(IndexUpkeep, WriteCutBetweenRowsAndIndexIsNoticedAndTheIndexWrittenAnew) {
  writerKilledAfterItsRow();
  file.reset();
  auto reopened = DbfFile::open(dir.file("MUNI.DBF"));
  ASSERT_EQ(reopened->recordCount(), 4u);
  MdxTags& index = MdxTags::of(*reopened);
  ASSERT_EQ(index.warnings().size(), 1u);
  EXPECT_NE(index.warnings()[0].find("se ha rehecho"), std::string::npos) << index.warnings()[0];
  EXPECT_EQ(walkAll(dir.file("MUNI.MDX")), rebuiltFromRows(dir.path(), "MUNI"));
  EXPECT_EQ(walkAll(dir.file("MUNI.MDX")).at("NOMBRE").size(), 4u);
  EXPECT_FALSE(fs::exists(MdxTags::markFor(dir.file("MUNI.MDX"))));
}

// A writer of this engine killed right after leaving its mark: the index
// file is whole (the mark is only another name of it), and the next reading
// of the index writes it anew all the same and takes the mark away.
TEST_F(IndexUpkeep, WriterKilledAfterItsMarkLeavesTheIndexWholeAndTheNextOpeningMendsIt) {
  const std::string mdx = dir.file("MUNI.MDX");
  const auto before = walkAll(mdx);
  const pid_t child = fork();
  if (child == 0) {
    MdxTags::of(*file).beforeWrite();
    _exit(fs::exists(MdxTags::markFor(mdx)) ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the writer left no mark";
  ASSERT_TRUE(fs::exists(MdxTags::markFor(mdx)));
  EXPECT_EQ(walkAll(mdx), before);
  MdxTags& index = MdxTags::of(*file);
  index.rowsReloaded();  // the index read again, as an opening reads it
  ASSERT_EQ(index.warnings().size(), 1u);
  EXPECT_NE(index.warnings()[0].find("se ha rehecho"), std::string::npos) << index.warnings()[0];
  EXPECT_EQ(walkAll(mdx), before);
  EXPECT_FALSE(fs::exists(MdxTags::markFor(mdx)));
  file->append(row("41", "Sevilla", "680000"));
  EXPECT_FALSE(fs::exists(MdxTags::markFor(mdx)));
  EXPECT_EQ(walkAll(mdx).at("NOMBRE").size(), 4u);
}

TEST_F(IndexUpkeep, WriteCutByAnotherProgramIsMendedByTheNextWriteOfAProgramAlreadyOpen) {
  // This process has the table open with its index kept when another
  // program's writer is killed half-way.
  writerKilledAfterItsRow();
  file->append(row("41", "Sevilla", "680000"));
  EXPECT_EQ(file->recordCount(), 5u);
  const auto& warnings = MdxTags::of(*file).warnings();
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_NE(warnings[0].find("se ha rehecho"), std::string::npos) << warnings[0];
  expectIndexAsRebuilt();
  EXPECT_EQ(walkAll(dir.file("MUNI.MDX")).at("NOMBRE").size(), 5u);
}

// Within a run the index file's headers stay as they were (other programs
// keep its tags' roots and change counters, and the lock keeps them out of
// its blocks); they are written, the run's entries in place, when it ends.
TEST_F(IndexUpkeep, ARunOfWritesReachesTheIndexFileWhenItEnds) {
  const std::string mdxPath = dir.file("MUNI.MDX");
  auto headers = [&] {
    auto mdx = MdxFile::open(mdxPath);
    std::vector<std::pair<uint32_t, uint8_t>> out;
    for (const MdxTagInfo& t : mdx->tags()) out.emplace_back(t.rootPage, t.serial);
    return std::make_pair(out, readFile(mdxPath).substr(0, 48));
  };
  const auto before = headers();
  {
    WriteBatch run(*file);
    file->append(row("46", "Valencia", "790000"));
    file->append(row("28", "Alcalá de Henares", "195000"));
    std::string r(file->record(3), file->recordLength());
    setFieldText(file->field("NOMBRE"), r.data(), "Aranjuez", file->codePage(), file->name());
    file->update(3, r);
    EXPECT_EQ(headers(), before);
    EXPECT_TRUE(fs::exists(MdxTags::markFor(mdxPath)));
    EXPECT_TRUE(indexLockHeld(mdxPath));
    run.finish();
  }
  EXPECT_NE(headers(), before);
  EXPECT_FALSE(indexLockHeld(mdxPath));
  expectIndexAsRebuilt();
}

TEST_F(IndexUpkeep, RowsARunAppendsAndThenEditsReachTheIndexWithTheirLastKeys) {
  std::mt19937 rng(77);
  const char* const provinces[] = {"05", "28", "30", "49", "99"};
  {
    WriteBatch run(*file);
    for (int call = 0; call < 6; ++call) {
      std::string records;
      for (int i = 0; i < 40; ++i)
        records += row(provinces[rng() % std::size(provinces)], "Pueblo " + std::to_string(rng() % 90),
                       std::to_string(rng() % 200000));
      file->appendMany(records);
    }
    // A row of the run moved in every tag, another deleted, one more added.
    std::string r(file->record(10), file->recordLength());
    setFieldText(file->field("NOMBRE"), r.data(), "Aranjuez", file->codePage(), file->name());
    setFieldText(file->field("PROVINCIA"), r.data(), "77", file->codePage(), file->name());
    file->update(10, r);
    r.assign(file->record(200), file->recordLength());
    r[0] = '*';
    file->update(200, r);
    file->append(row("28", "Zarzalejo", "1800"));
    run.finish();
  }
  EXPECT_EQ(file->recordCount(), 244u);
  expectIndexAsRebuilt();
}

// A run appending more rows than the index upkeep keeps waiting at once
// places them as it goes, and an edit of a row placed early still moves it.
TEST(IndexUpkeepLongRun, ARunOfMoreRowsThanWaitAtOncePlacesThemAllInOrder) {
  TempDir dir;
  auto file = createTableWithTags(dir.file("LARGA.DBF"), {charField("CODIGO", 6)}, 0x14,
                                  {{"CODIGO", "CODIGO", "", false, false}});
  MdxTags::of(*file);
  constexpr int kRows = 300000, kPerCall = 25000;
  std::mt19937 rng(2026);
  {
    WriteBatch run(*file);
    std::string records;
    for (int call = 0; call < kRows / kPerCall; ++call) {
      records.clear();
      for (int i = 0; i < kPerCall; ++i) {
        std::string r = file->blankRecord();
        const std::string code = std::to_string(100000 + rng() % 900000);
        r.replace(1, code.size(), code);
        records += r;
      }
      file->appendMany(records);
    }
    std::string r(file->record(7), file->recordLength());
    r.replace(1, 6, "000007");
    file->update(7, r);
    run.finish();
  }
  const auto entries = walkAll(dir.file("LARGA.MDX")).at("CODIGO");
  ASSERT_EQ(entries.size(), size_t(kRows));
  EXPECT_EQ(entries.front(), (std::pair<std::string, uint32_t>{"000007", 7}));
  for (size_t i = 1; i < entries.size(); ++i)
    ASSERT_TRUE(entries[i - 1] < entries[i]) << "entries " << i - 1 << " and " << i << " out of order";
  EXPECT_FALSE(fs::exists(MdxTags::markFor(dir.file("LARGA.MDX"))));
}

// A run storing a row now and then (an import, one street at a time) has its
// rows placed and their blocks written while it goes on, not all at its end;
// the file's headers still wait for the end.
TEST(IndexUpkeepLongRun, ASlowRunsRowsReachTheIndexBlocksWhileItGoesOn) {
  TempDir dir;
  auto file = createTableWithTags(dir.file("LENTA.DBF"), {charField("CODIGO", 6)}, 0x14,
                                  {{"CODIGO", "CODIGO", "", false, false}});
  const std::string mdxPath = dir.file("LENTA.MDX");
  MdxTags::of(*file);
  const std::string headerBefore = readFile(mdxPath).substr(0, 48);
  auto store = [&](const std::string& code) {
    std::string r = file->blankRecord();
    r.replace(1, code.size(), code);
    file->append(r);
  };
  WriteBatch run(*file);
  for (int i = 0; i < 20; ++i) store("Q" + std::to_string(10000 + i));
  bool placed = false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!placed && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    store("R" + std::to_string(10000 + int(file->recordCount())));  // the run goes on
    placed = readFile(mdxPath).find("Q10000") != std::string::npos;
  }
  EXPECT_TRUE(placed) << "no row of the run reached the index file before its end";
  EXPECT_EQ(readFile(mdxPath).substr(0, 48), headerBefore);
  run.finish();
  const auto entries = walkAll(mdxPath).at("CODIGO");
  EXPECT_EQ(entries.size(), size_t(file->recordCount()));
}

// A run's appended rows are placed in the tree while it goes on; damage met
// there ends the run as damage met at its end would: the rows stay, the
// write fails naming the index, and the index is written anew from them.
TEST(IndexUpkeepLongRun, DamageMetWhilePlacingARunsRowsFailsTheRunAndTheIndexIsWrittenAnew) {
  TempDir dir;
  std::vector<std::vector<std::string>> rows;
  for (int i = 0; i < 400; ++i) rows.push_back({std::to_string(100000 + i * 2000)});
  auto file = makeTable(dir.path(), "DANADA.DBF", {charField("CODIGO", 6)}, rows);
  rebuildProductionIndex(*file, {{"CODIGO", "CODIGO", "", false, false}});
  const std::string mdxPath = dir.file("DANADA.MDX");
  {
    // A leaf halfway along claims more keys than fit: nothing sees it before
    // an insert goes down to it.
    const MdxTagInfo tag = MdxFile::open(mdxPath)->tags()[0];
    const int fd = ::open(mdxPath.c_str(), O_RDWR);
    unsigned char child[4];
    ASSERT_EQ(pread(fd, child, 4, off_t(tag.rootPage) * 512 + 8 + 4 * tag.itemLength), 4);
    const uint32_t leaf = uint32_t(child[0]) | uint32_t(child[1]) << 8 | uint32_t(child[2]) << 16 | uint32_t(child[3]) << 24;
    const unsigned char tooMany[4] = {0xFF, 0x7F, 0, 0};
    ASSERT_EQ(pwrite(fd, tooMany, 4, off_t(leaf) * 512), 4);
    ::close(fd);
  }
  MdxTags::of(*file);
  try {
    WriteBatch run(*file);
    for (int i = 0; i < 200; ++i) {
      std::string r = file->blankRecord();
      const std::string code = std::to_string(100001 + i * 4000);
      r.replace(1, code.size(), code);
      file->append(r);
    }
    run.finish();
    FAIL() << "the damage was not met";
  } catch (const Error& e) {
    EXPECT_EQ(int(e.kind()), int(ErrorKind::Corrupt)) << e.what();
    EXPECT_NE(std::string(e.what()).find("DANADA.MDX"), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("índice CODIGO"), std::string::npos) << e.what();
  }
  EXPECT_EQ(file->recordCount(), 600u);
  const auto entries = walkAll(mdxPath).at("CODIGO");
  ASSERT_EQ(entries.size(), 600u);
  for (size_t i = 1; i < entries.size(); ++i) ASSERT_LT(entries[i - 1], entries[i]);
  EXPECT_FALSE(fs::exists(MdxTags::markFor(mdxPath)));
  ASSERT_FALSE(MdxTags::of(*file).warnings().empty());
  EXPECT_NE(MdxTags::of(*file).warnings().back().find("se ha rehecho a partir de las filas"), std::string::npos);
}

TEST_F(IndexUpkeep, ATagFirstAskedForWithinARunSeesTheRunsRows) {
  WriteBatch run(*file);
  file->append(row("28", "Alcorcón", "170000"));
  MdxTag* tag = MdxTags::of(*file).tag("PROVNOM");
  Cursor c(file);
  c.setOrder(*tag, tag->expression().fields());
  ASSERT_TRUE(c.seek({"28", "Alcorcón"}, true));
  EXPECT_EQ(c.recno(), 4u);
  file->append(row("28", "Leganés", "190000"));  // placed in the tag as written
  ASSERT_TRUE(c.seek({"28", "Leganés"}, true));
  EXPECT_EQ(c.recno(), 5u);
  EXPECT_EQ(c.count(), 5u);
  run.finish();
  expectIndexAsRebuilt();
}

TEST_F(IndexUpkeep, ARunHoldsTheTableSoAnotherProgramsAppendWaitsForItsEndButNotItsRows) {
  // The run goes on in a child that opens the table itself: nothing of it
  // may stay open here, or both would share one descriptor and its locks.
  file.reset();
  const CacheLimit noCache;
  int started[2], go[2];
  ASSERT_EQ(pipe(started), 0);
  ASSERT_EQ(pipe(go), 0);
  const pid_t child = fork();
  if (child == 0) {
    try {
      file = DbfFile::open(dir.file("MUNI.DBF"));
      MdxTags::of(*file);
      WriteBatch run(*file);
      file->append(row("46", "Valencia", "790000"));
      file->append(row("28", "Getafe", "180000"));
      (void)!write(started[1], "x", 1);
      char c;
      (void)!read(go[0], &c, 1);
      file->append(row("28", "Alcorcón", "170000"));
      run.finish();
    } catch (const std::exception& e) {
      std::fprintf(stderr, "%s\n", e.what());
      _exit(1);
    }
    _exit(0);
  }
  ::close(started[1]);  // the child gone, the reads below end
  ::close(go[0]);
  char c;
  ASSERT_EQ(read(started[0], &c, 1), 1);
  file = DbfFile::open(dir.file("MUNI.DBF"));
  MdxTags::of(*file);
  setLockWait(std::chrono::milliseconds(200));
  EXPECT_THROW(file->append(row("41", "Sevilla", "680000")), Error);
  {
    // The rows the run wrote are no longer held: another program may edit them.
    const int fd = ::open(dir.file("MUNI.DBF").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_NO_THROW(RecordLock(fd, "MUNI.DBF", 4));
    EXPECT_NO_THROW(RecordLock(fd, "MUNI.DBF", 5));
    ::close(fd);
  }
  resetLockWait();
  ASSERT_EQ(write(go[1], "g", 1), 1);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  file->append(row("41", "Sevilla", "680000"));  // the run is over
  EXPECT_EQ(file->recordCount(), 7u);
  expectIndexAsRebuilt();
}

TEST_F(IndexUpkeep, AProcessKilledWithinARunLeavesTheIndexWrittenAnewAtTheNextOpening) {
  const pid_t child = fork();
  if (child == 0) {
    WriteBatch run(*file);
    file->append(row("46", "Valencia", "790000"));
    file->append(row("41", "Sevilla", "680000"));
    _exit(0);  // killed before the run ends: nothing more is written
  }
  waitpid(child, nullptr, 0);
  file.reset();
  auto reopened = DbfFile::open(dir.file("MUNI.DBF"));
  ASSERT_EQ(reopened->recordCount(), 5u);
  MdxTags& index = MdxTags::of(*reopened);
  ASSERT_EQ(index.warnings().size(), 1u);
  EXPECT_EQ(walkAll(dir.file("MUNI.MDX")), rebuiltFromRows(dir.path(), "MUNI"));
  EXPECT_EQ(walkAll(dir.file("MUNI.MDX")).at("NOMBRE").size(), 5u);
}
