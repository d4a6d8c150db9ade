// A run of writes ended in the background: its rows are the table's and its
// tags' at once for this process, the index file is whole and its lock free
// a moment later without this process coming back, and the table's next use
// waits for that and is where a failure to write it shows.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <thread>

#include "dbase/core/cursor.h"
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

// Waits, at most a few seconds, for the index's lock to go and the mark of
// a write under way to be removed; says whether both happened.
bool letGoWithin(const std::string& mdxPath, std::chrono::seconds most) {
  const auto deadline = std::chrono::steady_clock::now() + most;
  while (std::chrono::steady_clock::now() < deadline) {
    if (!indexLockHeld(mdxPath) && !fs::exists(MdxTags::markFor(mdxPath))) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return false;
}

const std::vector<TagDefinition> kTags = {{"CODIGO", "CODIGO", "", false, false},
                                          {"NOMBRE", "UPPER(NOMBRE)", "", false, false}};

class RunEndedInBackground : public ::testing::Test {
 protected:
  void SetUp() override {
    std::vector<std::vector<std::string>> rows;
    for (int i = 0; i < 400; ++i) rows.push_back({std::to_string(100000 + i * 2000), "Calle " + std::to_string(i)});
    file = makeTable(dir.path(), "CALLES.DBF", {charField("CODIGO", 6), charField("NOMBRE", 20)}, rows);
    rebuildProductionIndex(*file, kTags);
    MdxTags::of(*file);
  }
  void append(int code, const std::string& name) {
    std::string r = file->blankRecord();
    setFieldText(file->field("CODIGO"), r.data(), std::to_string(code), file->codePage(), file->name());
    setFieldText(file->field("NOMBRE"), r.data(), name, file->codePage(), file->name());
    file->append(r);
  }
  // A run of `rows` appends, ended in the background.
  void runOf(int rows, int firstCode, int step = 4000) {
    WriteBatch run(*file);
    for (int i = 0; i < rows; ++i) append(firstCode + i * step, "Nueva " + std::to_string(firstCode + i));
    run.finishInBackground();
  }
  // Every tag holds every row once, in order.
  void expectEveryTagHoldsEveryRow() {
    for (const auto& [name, entries] : walkAll(mdxPath())) {
      ASSERT_EQ(entries.size(), size_t(file->recordCount())) << name;
      for (size_t i = 1; i < entries.size(); ++i) ASSERT_LT(entries[i - 1], entries[i]) << name;
    }
  }
  // A leaf of CODIGO's claims more keys than fit: nothing sees it before an
  // insert goes down to it (runs below spread their codes over every leaf).
  void damageALeaf() {
    const MdxTagInfo tag = MdxFile::open(mdxPath())->tags()[0];
    const int fd = ::open(mdxPath().c_str(), O_RDWR);
    unsigned char child[4];
    ASSERT_EQ(pread(fd, child, 4, off_t(tag.rootPage) * 512 + 8 + 4 * tag.itemLength), 4);
    const uint32_t leaf =
        uint32_t(child[0]) | uint32_t(child[1]) << 8 | uint32_t(child[2]) << 16 | uint32_t(child[3]) << 24;
    const unsigned char tooMany[4] = {0xFF, 0x7F, 0, 0};
    ASSERT_EQ(pwrite(fd, tooMany, 4, off_t(leaf) * 512), 4);
    ::close(fd);
    // Read again as damaged: the file changed behind the table's back.
    file->syncWithDisk();
  }
  std::string mdxPath() const { return dir.file("CALLES.MDX"); }
  TempDir dir;
  std::shared_ptr<DbfFile> file;
};

}  // namespace

TEST_F(RunEndedInBackground, ItsRowsAreFoundThroughItsTagsAtOnce) {
  MdxTag* tag = MdxTags::of(*file).tag("NOMBRE");
  Cursor c(file);
  c.setOrder(*tag, tag->expression().fields());
  runOf(30, 100001);
  ASSERT_TRUE(c.seek({"NUEVA 100001"}, true));
  EXPECT_EQ(c.recno(), 401u);
  EXPECT_EQ(c.count(), 430u);
  file->settleWrites();
  expectEveryTagHoldsEveryRow();
}

TEST_F(RunEndedInBackground, TheIndexIsWholeAndItsLockFreeWithoutTheProcessComingBack) {
  runOf(30, 100001);
  // Nothing here touches the table again: the worker lets go on its own.
  ASSERT_TRUE(letGoWithin(mdxPath(), std::chrono::seconds(10)));
  const auto entries = walkAll(mdxPath());
  EXPECT_EQ(entries.at("CODIGO").size(), 430u);
  EXPECT_EQ(entries.at("NOMBRE").size(), 430u);
}

TEST_F(RunEndedInBackground, RunsThatFollowOneAnotherAllReachTheIndex) {
  for (int run = 0; run < 20; ++run) runOf(1 + run * 3, 100001 + run);
  EXPECT_EQ(file->recordCount(), 400u + 20u + 3u * 190u);
  file->settleWrites();
  expectEveryTagHoldsEveryRow();
  EXPECT_FALSE(fs::exists(MdxTags::markFor(mdxPath())));
  EXPECT_FALSE(indexLockHeld(mdxPath()));
  EXPECT_TRUE(MdxTags::of(*file).warnings().empty());
}

TEST_F(RunEndedInBackground, AWriteAfterItWaitsForItAndLandsInTheIndexToo) {
  runOf(30, 100001);
  append(100003, "Suelta");  // a write of its own, not in a run
  EXPECT_FALSE(fs::exists(MdxTags::markFor(mdxPath())));
  EXPECT_FALSE(indexLockHeld(mdxPath()));
  expectEveryTagHoldsEveryRow();
}

TEST_F(RunEndedInBackground, ClosingTheTableLetsItFinishAndTheIndexIsWholeAtTheNextOpening) {
  const CacheLimit noCache;
  runOf(30, 100001);
  file.reset();
  EXPECT_FALSE(fs::exists(MdxTags::markFor(mdxPath())));
  EXPECT_FALSE(indexLockHeld(mdxPath()));
  file = DbfFile::open(dir.file("CALLES.DBF"));
  EXPECT_TRUE(MdxTags::of(*file).warnings().empty());
  expectEveryTagHoldsEveryRow();
}

TEST_F(RunEndedInBackground, DamageMetAtItsEndFailsTheTablesNextUseAndTheIndexIsWrittenAnew) {
  damageALeaf();
  runOf(10, 100001, 88000);  // too few rows to be placed before the run's end
  try {
    file->settleWrites();
    FAIL() << "the damage was not met";
  } catch (const Error& e) {
    EXPECT_EQ(int(e.kind()), int(ErrorKind::Corrupt)) << e.what();
    EXPECT_NE(std::string(e.what()).find("CALLES.MDX"), std::string::npos) << e.what();
  }
  EXPECT_EQ(file->recordCount(), 410u);
  expectEveryTagHoldsEveryRow();
  EXPECT_FALSE(fs::exists(MdxTags::markFor(mdxPath())));
  ASSERT_FALSE(MdxTags::of(*file).warnings().empty());
  EXPECT_NE(MdxTags::of(*file).warnings().back().find("se ha rehecho a partir de las filas"), std::string::npos);
}

TEST_F(RunEndedInBackground, DamageMetInTheBackgroundLetsGoOfTheLockAtOnceAndLeavesTheMark) {
  damageALeaf();
  runOf(300, 100001, 2600);  // placed while the run goes on or at its end
  ASSERT_TRUE([&] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (indexLockHeld(mdxPath()) && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return !indexLockHeld(mdxPath());
  }());
  EXPECT_TRUE(fs::exists(MdxTags::markFor(mdxPath())));  // the index is not whole
  EXPECT_THROW(file->settleWrites(), Error);
  EXPECT_EQ(file->recordCount(), 700u);
  expectEveryTagHoldsEveryRow();
  EXPECT_FALSE(fs::exists(MdxTags::markFor(mdxPath())));
}
