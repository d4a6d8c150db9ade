// The cache of closed tables: what comes back, and what must not.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/index_tag.h"
#include "dbase/core/tag_set.h"
#include "support/tables.h"
#include "support/temp_dir.h"

extern char** environ;

using namespace dbase;
using namespace testsupport;

namespace {

class DbfCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved = DbfFile::cacheLimit();
    DbfFile::setCacheLimit(0);  // start empty
    DbfFile::setCacheLimit(64ull << 20);
  }
  void TearDown() override { DbfFile::setCacheLimit(saved); }

  // A table of `rows` names, closed.
  std::string table(const std::string& name, int rows, const char* prefix = "CALLE") {
    std::vector<Row> data;
    for (int i = 0; i < rows; ++i) data.push_back({std::string(prefix) + " " + std::to_string((i * 37) % 1000)});
    makeTable(dir.path(), name, {charField("NOMBRE", 20)}, data);
    return dir.file(name);
  }
  static IndexTag& nameTag(DbfFile& file) { return TagSet::of(file).tag({0}); }
  static std::string first(DbfFile& file) {
    return fieldText(file.fields()[0], file.record(nameTag(file).recnoAt(0)), file.codePage());
  }
  // Overwrites one byte of the file in place: same size, same inode.
  static void patch(const std::string& path, size_t offset, char byte) {
    std::string bytes = readFile(path);
    bytes[offset] = byte;
    writeFile(path, bytes);
  }
  static size_t firstRowOffset(const std::string& path) {
    const std::string bytes = readFile(path);
    return size_t(uint8_t(bytes[8])) | size_t(uint8_t(bytes[9])) << 8;
  }
  // Empties the cache: the next open reads the file.
  static void forgetClosedTables() {
    const uint64_t limit = DbfFile::cacheLimit();
    DbfFile::setCacheLimit(0);
    DbfFile::setCacheLimit(limit);
  }
  // Kept with the file, in the cache too: tells a file served from the cache
  // from one read anew.
  struct Mark : RowListener {
    explicit Mark(DbfFile&) {}
    void rowsAppended(uint32_t, uint32_t) override {}
    void rowChanged(uint32_t, const char*) override {}
    void rowsReloaded() override {}
    size_t memoryBytes() const override { return 0; }
    bool set = false;
  };

  TempDir dir;
  uint64_t saved = 0;
};

}  // namespace

TEST_F(DbfCacheTest, ReopenedTableKeepsItsRowsAndBuiltTags) {
  const std::string path = table("T.DBF", 500);
  {
    auto file = DbfFile::open(path);
    EXPECT_EQ(nameTag(*file).size(), 500u);
  }
  EXPECT_EQ(DbfFile::cachedFiles(), 1u);
  EXPECT_GT(DbfFile::cachedBytes(), 500u * 21);
  auto again = DbfFile::open(path);
  EXPECT_EQ(DbfFile::cachedFiles(), 0u);  // in use again
  EXPECT_TRUE(nameTag(*again).built());
  EXPECT_EQ(again->recordCount(), 500u);
}

TEST_F(DbfCacheTest, RowsWrittenBeforeClosingAreThereOnReopening) {
  const std::string path = table("T.DBF", 10);
  {
    auto file = DbfFile::open(path);
    nameTag(*file).size();
    std::string record = file->blankRecord();
    setFieldText(file->fields()[0], record.data(), "AAA PRIMERA", file->codePage(), "T");
    file->append(record);
  }
  auto again = DbfFile::open(path);
  EXPECT_EQ(again->recordCount(), 11u);
  EXPECT_TRUE(nameTag(*again).built());
  EXPECT_EQ(first(*again), "AAA PRIMERA");
}

TEST_F(DbfCacheTest, TableChangedInPlaceByAnotherProgramIsReadAgain) {
  // Just written, so its times cannot tell a second change in the same tick
  // from none: the bytes are compared.
  const std::string path = table("T.DBF", 50);
  {
    auto file = DbfFile::open(path);
    EXPECT_EQ(first(*file), "CALLE 0");
  }
  patch(path, firstRowOffset(path) + 1, 'B');  // "BALLE 0": same size, same inode
  auto again = DbfFile::open(path);
  EXPECT_FALSE(nameTag(*again).built());
  EXPECT_EQ(first(*again), "BALLE 0");
}

TEST_F(DbfCacheTest, TableWhoseReadRowsAreUnchangedIsReusedThoughTheRestWasNeverRead) {
  const std::string path = table("T.DBF", 20000);  // several blocks of rows
  forgetClosedTables();
  writeFile(path, readFile(path));  // just written: the bytes read are compared, not the times
  {
    auto file = DbfFile::open(path);
    EXPECT_EQ(fieldText(file->fields()[0], file->record(1), file->codePage()), "CALLE 0");
    file->listener<Mark>().set = true;
  }
  auto again = DbfFile::open(path);
  EXPECT_TRUE(again->listener<Mark>().set);
  EXPECT_EQ(fieldText(again->fields()[0], again->record(20000), again->codePage()), "CALLE 963");
}

TEST_F(DbfCacheTest, RowChangedOnDiskAfterItWasReadIsNotServedFromTheCache) {
  const std::string path = table("T.DBF", 20000);
  forgetClosedTables();
  {
    auto file = DbfFile::open(path);
    EXPECT_EQ(fieldText(file->fields()[0], file->record(1), file->codePage()), "CALLE 0");
    file->listener<Mark>().set = true;
  }
  patch(path, firstRowOffset(path) + 1, 'B');
  auto again = DbfFile::open(path);
  EXPECT_FALSE(again->listener<Mark>().set);
  EXPECT_EQ(fieldText(again->fields()[0], again->record(1), again->codePage()), "BALLE 0");
}

TEST_F(DbfCacheTest, OldTableChangedInPlaceIsNoticedByItsTimes) {
  const std::string path = table("T.DBF", 50);
  // Its last change far enough behind for the times to be trusted.
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  {
    auto file = DbfFile::open(path);
    nameTag(*file).size();
  }
  {
    auto unchanged = DbfFile::open(path);
    EXPECT_TRUE(nameTag(*unchanged).built());  // reused on the times alone
  }
  patch(path, firstRowOffset(path) + 1, 'B');
  auto again = DbfFile::open(path);
  EXPECT_FALSE(nameTag(*again).built());
  EXPECT_EQ(first(*again), "BALLE 0");
}

TEST_F(DbfCacheTest, TableAppendedToByAnotherProgramIsReadAgain) {
  const std::string path = table("T.DBF", 5);
  {
    auto file = DbfFile::open(path);
    nameTag(*file).size();
  }
  std::string bytes = readFile(path);
  bytes.pop_back();  // end marker
  bytes += " AAA OTRA            ";
  bytes.push_back(0x1A);
  putU32(reinterpret_cast<unsigned char*>(bytes.data()) + 4, 6);
  writeFile(path, bytes);
  auto again = DbfFile::open(path);
  EXPECT_EQ(again->recordCount(), 6u);
  EXPECT_EQ(first(*again), "AAA OTRA");
}

TEST_F(DbfCacheTest, DeletedTableIsNotServedFromTheCache) {
  const std::string path = table("T.DBF", 5);
  DbfFile::open(path)->recordCount();
  ASSERT_EQ(DbfFile::cachedFiles(), 1u);
  std::filesystem::remove(path);
  try {
    DbfFile::open(path);
    FAIL() << "a deleted table opened";
  } catch (const Error& e) {
    EXPECT_EQ(int(e.kind()), int(ErrorKind::Io)) << e.what();
  }
  EXPECT_EQ(DbfFile::cachedFiles(), 0u);
}

TEST_F(DbfCacheTest, ReplacedTableIsReadFromTheNewFile) {
  const std::string path = table("T.DBF", 5);
  {
    auto file = DbfFile::open(path);
    EXPECT_EQ(first(*file), "CALLE 0");
  }
  // Another program writes a new copy beside it and renames it over: a new inode.
  const std::string other = table("NUEVA.DBF", 7, "PLAZA");
  std::filesystem::rename(other, path);
  auto again = DbfFile::open(path);
  EXPECT_EQ(again->recordCount(), 7u);
  EXPECT_EQ(first(*again), "PLAZA 0");
}

TEST_F(DbfCacheTest, TableCreatedAgainOverACachedOneStartsEmpty) {
  const std::string path = table("T.DBF", 5);
  DbfFile::open(path)->recordCount();
  auto fresh = DbfFile::create(path, {charField("NOMBRE", 20)}, 0x14, true);
  EXPECT_EQ(fresh->recordCount(), 0u);
}

TEST_F(DbfCacheTest, LeastRecentlyClosedTablesLeaveFirstBeyondTheBudget) {
  const std::string a = table("A.DBF", 2000), b = table("B.DBF", 2000), c = table("C.DBF", 2000);
  size_t one = 0;
  {
    auto file = DbfFile::open(a);
    nameTag(*file).size();
    one = file->memoryBytes();
  }
  DbfFile::setCacheLimit(0);
  DbfFile::setCacheLimit(2 * one + one / 2);  // room for two
  for (const auto& path : {a, b, c}) {
    auto file = DbfFile::open(path);
    nameTag(*file).size();
  }
  EXPECT_EQ(DbfFile::cachedFiles(), 2u);
  EXPECT_LE(DbfFile::cachedBytes(), 2 * one + one / 2);
  EXPECT_FALSE(nameTag(*DbfFile::open(a)).built());  // the first closed went
  EXPECT_TRUE(nameTag(*DbfFile::open(c)).built());
}

TEST_F(DbfCacheTest, ZeroBudgetKeepsNothing) {
  DbfFile::setCacheLimit(0);
  const std::string path = table("T.DBF", 5);
  {
    auto file = DbfFile::open(path);
    nameTag(*file).size();
  }
  EXPECT_EQ(DbfFile::cachedFiles(), 0u);
  EXPECT_FALSE(nameTag(*DbfFile::open(path)).built());
}

TEST_F(DbfCacheTest, TableStillOpenIsSharedNotCached) {
  const std::string path = table("T.DBF", 5);
  auto first = DbfFile::open(path);
  auto second = DbfFile::open(path);
  EXPECT_EQ(first.get(), second.get());
  first.reset();
  EXPECT_EQ(DbfFile::cachedFiles(), 0u);
  second.reset();
  EXPECT_EQ(DbfFile::cachedFiles(), 1u);
}

TEST(DbfCacheBudget, ComesFromTheEnvironmentInMegabytes) {
  if (const char* expected = std::getenv("CODPOSTALES_CACHE_EXPECTED")) {
    // The child run below: the budget read at start-up.
    EXPECT_EQ(DbfFile::cacheLimit(), std::strtoull(expected, nullptr, 10));
    return;
  }
  for (const auto& [mb, bytes] : {std::pair{"7", "7340032"}, std::pair{"0", "0"}, std::pair{"", "536870912"}}) {
    std::vector<std::string> env = {std::string("CODPOSTALES_CACHE_MB=") + mb,
                                    std::string("CODPOSTALES_CACHE_EXPECTED=") + bytes};
    for (char** e = environ; *e; ++e)
      if (std::strncmp(*e, "CODPOSTALES_CACHE_", 18) != 0) env.push_back(*e);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    std::string filter = "--gtest_filter=DbfCacheBudget.ComesFromTheEnvironmentInMegabytes";
    char* argv[] = {self.data(), filter.data(), nullptr};
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv, envp.data()), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "CODPOSTALES_CACHE_MB=" << mb;
  }
}
