// Production indexes (.MDX): dBASE IV's own files read, our files written and
// read back, damaged files refused with a clear error, replacement atomic.
#include <gtest/gtest.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>

#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/mdx_format.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;

namespace {

const char* const kSamples[] = {"ACCT_REC", "CLIENT", "CODES", "CONTENTS", "CUST", "GOODS", "ORDERS",
                                "PEOPLE", "STOCK", "STOKNAME", "STOKPRIC", "TESTGEN", "TRANSACT", "VENDORS"};

std::string samplePath(const std::string& file) { return sharedDir() + "/mdx/" + file; }

std::vector<std::pair<std::string, uint32_t>> walked(const MdxFile& file, size_t tag) {
  std::vector<std::pair<std::string, uint32_t>> out;
  file.walk(tag, [&](std::string_view key, uint32_t recno) { out.emplace_back(std::string(key), recno); });
  return out;
}

void expectCorrupt(const std::string& fragment, const std::function<void()>& action) {
  try {
    action();
    FAIL() << "no error raised; expected one containing: " << fragment;
  } catch (const Error& e) {
    EXPECT_EQ(int(e.kind()), int(ErrorKind::Corrupt)) << e.what();
    EXPECT_NE(std::string(e.what()).find(fragment), std::string::npos) << e.what();
  }
}

int prefixCompare(std::string_view search, std::string_view stored) {
  int c = stored.substr(0, search.size()).compare(search);
  return -c;
}

// Rows numbered 1..count with keys "K000123" padded to length, in order.
std::vector<std::pair<std::string, uint32_t>> numberedKeys(uint32_t count, uint16_t length) {
  std::vector<std::pair<std::string, uint32_t>> entries;
  for (uint32_t i = 1; i <= count; ++i) {
    char text[16];
    std::snprintf(text, sizeof text, "K%06u", i);
    std::string key(text);
    key.resize(length, ' ');
    entries.emplace_back(key, i);
  }
  return entries;
}

MdxTagBuild numberedTag(const std::string& name, uint32_t count, uint16_t length = 20) {
  return {name, name, "", 'C', length, false, false, numberedKeys(count, length)};
}

void patch32(const std::string& path, uint64_t offset, uint32_t value) {
  int fd = ::open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  unsigned char bytes[4];
  mdx::put32(bytes, value);
  ASSERT_EQ(::pwrite(fd, bytes, 4, off_t(offset)), 4);
  ::close(fd);
}

void patch16(const std::string& path, uint64_t offset, uint16_t value) {
  int fd = ::open(path.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  unsigned char bytes[2];
  mdx::put16(bytes, value);
  ASSERT_EQ(::pwrite(fd, bytes, 2, off_t(offset)), 2);
  ::close(fd);
}

uint32_t read32(const std::string& path, uint64_t offset) {
  std::string bytes = readFile(path);
  return mdx::get32(reinterpret_cast<const unsigned char*>(bytes.data()) + offset);
}

size_t filesIn(const std::string& dir) {
  size_t n = 0;
  for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir)) ++n;
  return n;
}

class MdxFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (sharedDir().empty() || !std::filesystem::exists(samplePath("CODES.MDX")))
      GTEST_SKIP() << "no dBASE IV samples in the shared folder";
  }
  TempDir dir;
};

// A three-level index: the root, interior nodes, leaves.
std::string writeDeepIndex(const TempDir& dir) {
  std::string path = dir.file("DEEP.MDX");
  writeMdx(path, "DEEP", 0x1B, {numberedTag("NAME", 6000)});
  return path;
}

}  // namespace

TEST_F(MdxFileTest, ListsTheTagsDbaseWroteWithTheirDefinitions) {
  auto file = MdxFile::open(samplePath("CODES.MDX"));
  EXPECT_EQ(file->name(), "CODES.MDX");
  EXPECT_EQ(file->blockBytes(), 1024u);
  EXPECT_EQ(file->languageDriver(), 0x1B);
  EXPECT_EQ(file->tableName(), "CODES");
  ASSERT_EQ(file->tags().size(), 2u);
  const MdxTagInfo& city = file->tags()[0];
  EXPECT_EQ(city.name, "CITY");
  EXPECT_EQ(city.expression, "City");
  EXPECT_EQ(city.forExpression, "");
  EXPECT_EQ(city.keyType, 'C');
  EXPECT_EQ(city.keyLength, 20);
  EXPECT_EQ(city.itemLength, 24);
  EXPECT_EQ(city.maxKeys, 42);
  EXPECT_FALSE(city.unique);
  EXPECT_FALSE(city.descending);
  EXPECT_EQ(city.headerPage, 4u);
  const MdxTagInfo& code = file->tags()[1];
  EXPECT_EQ(code.name, "AREACODE");
  EXPECT_EQ(code.expression, "Code");
  EXPECT_EQ(code.keyType, 'N');
  EXPECT_EQ(code.keyLength, 12);
  EXPECT_EQ(code.maxKeys, 63);
  EXPECT_EQ(file->tagIndex("areacode"), 1);
  EXPECT_EQ(file->tagIndex("City"), 0);
  EXPECT_EQ(file->tagIndex("CIT"), -1);

  auto orders = MdxFile::open(samplePath("ORDERS.MDX"));
  ASSERT_EQ(orders->tags().size(), 1u);
  EXPECT_EQ(orders->tags()[0].expression, "cust_id+DTOC(date_trans)+po_number");
}

// Each tag of each sample indexes every row once; a tag keyed on one
// character field holds exactly that field's bytes for its record.
TEST_F(MdxFileTest, EverySampleTagHoldsEveryRowOnceWithItsFieldAsKey) {
  size_t tags = 0, entries = 0, fieldKeys = 0;
  for (const char* table : kSamples) {
    SCOPED_TRACE(table);
    std::string dbfPath = dir.file(std::string(table) + ".DBF");
    writeFile(dbfPath, readFile(samplePath(std::string(table) + ".DBF")));
    auto dbf = DbfFile::open(dbfPath);
    auto mdx = MdxFile::open(samplePath(std::string(table) + ".MDX"));
    ASSERT_FALSE(mdx->tags().empty());
    for (size_t t = 0; t < mdx->tags().size(); ++t) {
      const MdxTagInfo& info = mdx->tags()[t];
      SCOPED_TRACE(info.name);
      EXPECT_TRUE(mdx->tagFault(t).empty()) << mdx->tagFault(t);
      auto all = walked(*mdx, t);
      std::set<uint32_t> recnos;
      for (const auto& [key, recno] : all) {
        EXPECT_EQ(key.size(), info.keyLength);
        ASSERT_GE(recno, 1u);
        ASSERT_LE(recno, dbf->recordCount());
        recnos.insert(recno);
      }
      EXPECT_EQ(all.size(), dbf->recordCount());
      EXPECT_EQ(recnos.size(), all.size());
      int field = dbf->fieldIndex(info.expression);
      if (field >= 0 && info.keyType == 'C') {
        const FieldDescriptor& f = dbf->fields()[size_t(field)];
        for (const auto& [key, recno] : all)
          EXPECT_EQ(key, std::string(dbf->record(recno) + f.offset, f.length));
        ++fieldKeys;
      }
      ++tags;
      entries += all.size();
    }
  }
  EXPECT_EQ(tags, 22u);
  EXPECT_EQ(entries, 334u);
  EXPECT_GE(fieldKeys, 15u);
}

TEST_F(MdxFileTest, RewritingASampleKeepsItsHeaderFieldsAndNameTree) {
  auto original = MdxFile::open(samplePath("ACCT_REC.MDX"));
  std::vector<MdxTagBuild> tags;
  for (size_t t = 0; t < original->tags().size(); ++t) {
    const MdxTagInfo& i = original->tags()[t];
    tags.push_back({i.name, i.expression, i.forExpression, i.keyType, i.keyLength, i.unique, i.descending,
                    walked(*original, t)});
  }
  std::string path = dir.file("ACCT_REC.MDX");
  writeMdx(path, "acct_rec", 0x1B, tags);
  std::string ours = readFile(path), theirs = readFile(samplePath("ACCT_REC.MDX"));
  EXPECT_EQ(ours.size(), theirs.size());  // one header block and one leaf per tag, as dBase made it
  // Header from the block size on (the dates differ), and every slot.
  EXPECT_EQ(ours.substr(4, 16), theirs.substr(4, 16));
  EXPECT_EQ(ours.substr(20, 12), theirs.substr(20, 12));
  EXPECT_EQ(ours.substr(529, 1), theirs.substr(529, 1));
  EXPECT_EQ(ours.substr(544, 3 * 32), theirs.substr(544, 3 * 32));
  auto copy = MdxFile::open(path);
  for (size_t t = 0; t < tags.size(); ++t) {
    EXPECT_EQ(walked(*copy, t), tags[t].entries);
    // Tag header up to the expression, apart from the change counter.
    std::string a = ours.substr(copy->tags()[t].headerPage * 512, 24);
    std::string b = theirs.substr(original->tags()[t].headerPage * 512, 24);
    a[20] = b[20] = 0;
    EXPECT_EQ(a, b) << tags[t].name;
  }
}

TEST_F(MdxFileTest, WrittenTreesOfSeveralLevelsWalkBackInOrder) {
  std::vector<MdxTagBuild> tags = {numberedTag("NAME", 6000), numberedTag("SHORT", 3, 6), numberedTag("EMPTY", 0),
                                   {"DESC", "UPPER(NAME)", "NAME > 'A'", 'C', 10, true, true, {}}};
  auto& desc = tags.back().entries;
  desc = numberedKeys(500, 10);
  std::reverse(desc.begin(), desc.end());
  std::string path = dir.file("MANY.MDX");
  writeMdx(path, "MANY", 0x57, tags);
  auto file = MdxFile::open(path);
  EXPECT_EQ(file->languageDriver(), 0x57);
  ASSERT_EQ(file->tags().size(), 4u);
  for (size_t t = 0; t < tags.size(); ++t) {
    SCOPED_TRACE(tags[t].name);
    EXPECT_TRUE(file->tagFault(t).empty());
    EXPECT_EQ(walked(*file, t), tags[t].entries);
    EXPECT_EQ(file->tags()[t].name, tags[t].name);
    EXPECT_EQ(file->tags()[t].expression, tags[t].expression);
    EXPECT_EQ(file->tags()[t].forExpression, tags[t].forExpression);
    EXPECT_EQ(file->tags()[t].unique, tags[t].unique);
    EXPECT_EQ(file->tags()[t].descending, tags[t].descending);
  }
  // The root of NAME is an interior node whose children are interior too.
  std::string bytes = readFile(path);
  const MdxTagInfo& name = file->tags()[0];
  auto node = [&](uint32_t page) { return reinterpret_cast<const unsigned char*>(bytes.data()) + page * 512; };
  auto interior = [&](uint32_t page) { return mdx::get32(node(page) + 8 + mdx::get32(node(page)) * name.itemLength) != 0; };
  ASSERT_TRUE(interior(name.rootPage));
  EXPECT_TRUE(interior(mdx::get32(node(name.rootPage) + 8)));
}

TEST_F(MdxFileTest, LowerBoundFindsTheFirstEntryAtOrAfterAKey) {
  auto file = MdxFile::open(writeDeepIndex(dir));
  auto hit = file->lowerBound(0, "K004321", prefixCompare);
  ASSERT_TRUE(hit);
  EXPECT_EQ(hit->second, 4321u);
  hit = file->lowerBound(0, "K00432", prefixCompare);  // a partial key: the first that starts with it
  ASSERT_TRUE(hit);
  EXPECT_EQ(hit->second, 4320u);
  hit = file->lowerBound(0, "K0043215", prefixCompare);  // between two keys: the next one
  ASSERT_TRUE(hit);
  EXPECT_EQ(hit->second, 4322u);
  hit = file->lowerBound(0, "A", prefixCompare);
  ASSERT_TRUE(hit);
  EXPECT_EQ(hit->second, 1u);
  EXPECT_FALSE(file->lowerBound(0, "L", prefixCompare));
  // Every leaf boundary: the first key of each leaf is found through the tree.
  for (uint32_t i = 1; i <= 6000; i += 41) {
    char text[16];
    std::snprintf(text, sizeof text, "K%06u", i);
    hit = file->lowerBound(0, text, prefixCompare);
    ASSERT_TRUE(hit);
    EXPECT_EQ(hit->second, i);
  }
  auto codes = MdxFile::open(samplePath("CODES.MDX"));
  hit = codes->lowerBound(0, "San D", prefixCompare);
  ASSERT_TRUE(hit);
  EXPECT_EQ(hit->first.substr(0, 9), "San Diego");
}

namespace {

// Gives the file a modification time `ahead` from now: to whoever reads it,
// it has just been written, whatever the time the test takes to get there.
void touchAhead(const std::string& path, std::chrono::milliseconds ahead) {
  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  const int64_t ns = int64_t(now.tv_sec) * 1000000000 + now.tv_nsec + int64_t(ahead.count()) * 1000000;
  struct timespec times[2] = {{ns / 1000000000, ns % 1000000000}, {ns / 1000000000, ns % 1000000000}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

// Bumps the first tag's change counter in place and puts size and times back,
// as a change made within the same tick of the file's clock leaves them.
void bumpCounterKeepingTimes(const std::string& path, const MdxFile& file) {
  struct stat before {};
  ASSERT_EQ(::stat(path.c_str(), &before), 0);
  int fd = ::open(path.c_str(), O_WRONLY);
  unsigned char serial = uint8_t(file.tags()[0].serial + 1);
  ASSERT_EQ(::pwrite(fd, &serial, 1, off_t(file.tags()[0].headerPage) * 512 + 20), 1);
  struct timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::futimens(fd, times), 0);
  ::close(fd);
}

}  // namespace

TEST_F(MdxFileTest, ReportsAChangeOnDisk) {
  std::string path = writeDeepIndex(dir);
  touchAhead(path, std::chrono::seconds(60));
  auto file = MdxFile::open(path);
  EXPECT_FALSE(file->changedOnDisk());
  bumpCounterKeepingTimes(path, *file);
  EXPECT_TRUE(file->changedOnDisk());
  auto again = MdxFile::open(path);
  EXPECT_FALSE(again->changedOnDisk());
  writeMdx(path, "DEEP", 0x1B, {numberedTag("NAME", 10)});
  EXPECT_TRUE(again->changedOnDisk());
}

TEST_F(MdxFileTest, AChangeInTheTickOfTheLastIsFoundHoweverLateItIsLookedFor) {
  std::string path = writeDeepIndex(dir);
  touchAhead(path, std::chrono::milliseconds(500));
  auto file = MdxFile::open(path);  // read within the tick of its last change
  bumpCounterKeepingTimes(path, *file);
  std::this_thread::sleep_for(std::chrono::milliseconds(700));  // that tick long over
  EXPECT_TRUE(file->changedOnDisk());
}

TEST_F(MdxFileTest, AFileReadLongAfterItsLastChangeIsJudgedByItsTimes) {
  std::string path = writeDeepIndex(dir);
  touchAhead(path, std::chrono::seconds(-60));
  auto file = MdxFile::open(path);
  EXPECT_FALSE(file->changedOnDisk());
  touchAhead(path, std::chrono::seconds(-30));  // written again
  EXPECT_TRUE(file->changedOnDisk());
}

TEST_F(MdxFileTest, RefusesATruncatedFile) {
  std::string path = writeDeepIndex(dir);
  std::string bytes = readFile(path);
  writeFile(path, bytes.substr(0, 300));
  expectCorrupt("DEEP.MDX: más corto", [&] { MdxFile::open(path); });
  // Cut inside the tree: the tag header is there, some nodes are not.
  writeFile(path, bytes.substr(0, bytes.size() / 2));
  auto file = MdxFile::open(path);
  expectCorrupt("índice NAME", [&] { walked(*file, 0); });
}

TEST_F(MdxFileTest, ATagHeaderOutsideTheFileSpoilsOnlyThatTag) {
  std::string path = dir.file("TWO.MDX");
  writeMdx(path, "TWO", 0x1B, {numberedTag("FIRST", 10), numberedTag("SECOND", 10)});
  patch32(path, mdx::kOffTagTable + 32 + mdx::kSlotHeaderPage, 0x7FFFFFFF);
  auto file = MdxFile::open(path);
  ASSERT_EQ(file->tags().size(), 2u);
  EXPECT_EQ(walked(*file, 0).size(), 10u);
  EXPECT_NE(file->tagFault(1).find("fuera del fichero"), std::string::npos);
  expectCorrupt("TWO.MDX: índice SECOND: la página de su cabecera, 2147483647, cae fuera del fichero", [&] { walked(*file, 1); });
}

TEST_F(MdxFileTest, RefusesAChildPointerOutsideTheFile) {
  std::string path = writeDeepIndex(dir);
  uint32_t root = MdxFile::open(path)->tags()[0].rootPage;
  patch32(path, uint64_t(root) * 512 + 8, 0xFFFFFFF0);  // a tag claiming billions of pages
  auto file = MdxFile::open(path);
  expectCorrupt("DEEP.MDX: índice NAME: la página 4294967280 de un nodo cae fuera del fichero", [&] { walked(*file, 0); });
  expectCorrupt("fuera del fichero", [&] { file->lowerBound(0, "K000001", prefixCompare); });
}

TEST_F(MdxFileTest, RefusesALoopBackToAnAncestor) {
  std::string path = writeDeepIndex(dir);
  uint32_t root = MdxFile::open(path)->tags()[0].rootPage;
  uint32_t child = read32(path, uint64_t(root) * 512 + 8);
  patch32(path, uint64_t(child) * 512 + 8, root);
  auto file = MdxFile::open(path);
  expectCorrupt("índice NAME: la página " + std::to_string(root) + " se alcanza dos veces", [&] { walked(*file, 0); });
  expectCorrupt("se alcanza dos veces", [&] { file->lowerBound(0, "K000001", prefixCompare); });
}

TEST_F(MdxFileTest, RefusesANodeClaimingMoreKeysThanFit) {
  std::string path = writeDeepIndex(dir);
  uint32_t firstLeaf = read32(path, uint64_t(MdxFile::open(path)->tags()[0].headerPage) * 512 + mdx::kTagFirstLeaf);
  patch32(path, uint64_t(firstLeaf) * 512, 43);
  auto file = MdxFile::open(path);
  expectCorrupt("índice NAME: la página " + std::to_string(firstLeaf) + " dice tener 43 claves, más de las 42",
                [&] { walked(*file, 0); });
  patch32(path, uint64_t(firstLeaf) * 512, 0xFFFFFFFF);
  expectCorrupt("dice tener 4294967295 claves", [&] { walked(*MdxFile::open(path), 0); });
}

TEST_F(MdxFileTest, RefusesLeavesAtUnevenDepths) {
  std::string path = writeDeepIndex(dir);
  auto original = MdxFile::open(path);
  const MdxTagInfo& tag = original->tags()[0];
  uint32_t firstLeaf = read32(path, uint64_t(tag.headerPage) * 512 + mdx::kTagFirstLeaf);
  // The root's first child becomes a leaf from further on.
  patch32(path, uint64_t(tag.rootPage) * 512 + 8, firstLeaf + 2 * 50);
  expectCorrupt("índice NAME: hojas a distinta profundidad", [&] { walked(*MdxFile::open(path), 0); });
}

TEST_F(MdxFileTest, AKeyLengthThatDoesNotFitABlockSpoilsTheTag) {
  std::string path = dir.file("TWO.MDX");
  writeMdx(path, "TWO", 0x1B, {numberedTag("FIRST", 10), numberedTag("SECOND", 10)});
  uint32_t header = read32(path, mdx::kOffTagTable + mdx::kSlotHeaderPage);
  patch16(path, uint64_t(header) * 512 + mdx::kTagKeyLength, 2000);
  auto file = MdxFile::open(path);
  expectCorrupt("TWO.MDX: índice FIRST: una clave de 2000 bytes no cabe en un bloque de 1024 bytes", [&] { walked(*file, 0); });
  EXPECT_EQ(walked(*file, 1).size(), 10u);
  // Keys per node beyond what a block holds.
  writeMdx(path, "TWO", 0x1B, {numberedTag("FIRST", 10)});
  patch16(path, uint64_t(header) * 512 + mdx::kTagMaxKeys, 60);
  expectCorrupt("índice FIRST: 60 claves por nodo no caben", [&] { walked(*MdxFile::open(path), 0); });
}

TEST_F(MdxFileTest, RefusesABlockSizeOfZero) {
  std::string path = writeDeepIndex(dir);
  patch16(path, mdx::kOffBlockPages, 0);
  expectCorrupt("DEEP.MDX: bloques de 0 páginas", [&] { MdxFile::open(path); });
  patch16(path, mdx::kOffBlockPages, 2);
  patch16(path, mdx::kOffBlockBytes, 0);
  expectCorrupt("DEEP.MDX: bloques de 0 bytes", [&] { MdxFile::open(path); });
}

TEST_F(MdxFileTest, RefusesBadDefinitionsWithoutTouchingTheFile) {
  std::string path = writeDeepIndex(dir);
  const std::string before = readFile(path);
  auto refused = [&](std::vector<MdxTagBuild> tags) {
    try {
      writeMdx(path, "DEEP", 0x1B, tags);
      ADD_FAILURE() << "accepted";
    } catch (const Error& e) {
      EXPECT_EQ(int(e.kind()), int(ErrorKind::InvalidArgument)) << e.what();
    }
  };
  MdxTagBuild shortKey = numberedTag("NAME", 5);
  shortKey.entries[2].first.pop_back();
  refused({shortKey});
  refused({numberedTag("NAME", 5), numberedTag("name", 5)});
  refused({numberedTag("ELEVENCHARS", 5)});
  MdxTagBuild numeric = numberedTag("N", 0);
  numeric.keyType = 'N';
  refused({numeric});
  EXPECT_EQ(readFile(path), before);
  EXPECT_EQ(filesIn(dir.path()), 1u);
}

TEST_F(MdxFileTest, AFailedWriteLeavesTheOldFileWhole) {
  std::string path = dir.file("OLD.MDX");
  writeMdx(path, "OLD", 0x1B, {numberedTag("NAME", 100)});
  const std::string before = readFile(path);
  // Files may not grow past 16 KB: the new index cannot be written whole.
  struct rlimit saved {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto oldHandler = ::signal(SIGXFSZ, SIG_IGN);
  struct rlimit small = saved;
  small.rlim_cur = 16384;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  bool failed = false;
  try {
    writeMdx(path, "OLD", 0x1B, {numberedTag("NAME", 6000)});
  } catch (const Error& e) {
    failed = e.kind() == ErrorKind::Io;
  }
  ::setrlimit(RLIMIT_FSIZE, &saved);
  ::signal(SIGXFSZ, oldHandler);
  EXPECT_TRUE(failed);
  EXPECT_EQ(readFile(path), before);
  EXPECT_EQ(filesIn(dir.path()), 1u);  // no temporary file left behind

  // A folder that cannot be written (not for root, who writes anywhere).
  if (::geteuid() != 0) {
    ASSERT_EQ(::chmod(dir.path().c_str(), 0555), 0);
    EXPECT_THROW(writeMdx(path, "OLD", 0x1B, {numberedTag("NAME", 5)}), Error);
    ::chmod(dir.path().c_str(), 0755);
    EXPECT_EQ(readFile(path), before);
  }
  EXPECT_THROW(writeMdx(dir.file("no/such/folder/X.MDX"), "X", 0x1B, {numberedTag("NAME", 5)}), Error);
}
