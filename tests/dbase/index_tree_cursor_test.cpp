// Cursors on a tag of a production index before the tag loads: moves and
// searches answered from the index file's tree, as the loaded tag would
// answer them, and the change to ranked rows when something needs ranks.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <tuple>
#include <string>
#include <vector>

#include "dbase/core/cursor.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/error.h"
#include "dbase/core/field_value.h"
#include "dbase/core/mdx_build.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/mdx_format.h"
#include "dbase/core/mdx_tag.h"
#include "dbase/core/mdx_tags.h"
#include "support/cache_limit.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;

namespace {

namespace fs = std::filesystem;

// Street names with repeats, accents and mixed case, so that keys tie and
// the collation orders them.
std::string streetName(uint32_t i) {
  static const char* const kStems[] = {"Mayor", "ALCALÁ", "atocha", "Ávila", "Ébano", "Zurbano", "Ñandú", "Olmo"};
  return std::string(kStems[i % 8]) + " " + std::to_string((i * 7919u) % 997u);
}

// A table of `rows` streets in `dir` with its production index: the STREET
// tag on PROVINCIA+VIA, a NAME tag on UPPER(VIA) descending.
std::shared_ptr<DbfFile> streets(const TempDir& dir, uint32_t rows, const std::string& name = "CALLES.DBF") {
  std::vector<Row> data;
  for (uint32_t i = 0; i < rows; ++i) data.push_back({i % 3 == 0 ? "08" : "28", streetName(i)});
  auto file = makeTable(dir.path(), name, {charField("PROVINCIA", 2), charField("VIA", 30)}, data);
  rebuildProductionIndex(*file, {{"STREET", "PROVINCIA+VIA", "", false, false},
                                 {"NAME", "UPPER(VIA)", "", false, true}});
  return file;
}

MdxTag& tagOf(DbfFile& file, const char* name) { return *MdxTags::of(file).tag(name); }

void orderBy(Cursor& cursor, MdxTag& tag) { cursor.setOrder(tag, tag.expression().fields()); }

// A street table with its index, and a cursor on its STREET tag.
struct OnStreets {
  explicit OnStreets(uint32_t rows) : file(streets(dir, rows)), tag(tagOf(*file, "STREET")), cursor(file) {
    orderBy(cursor, tag);
  }
  TempDir dir;
  std::shared_ptr<DbfFile> file;
  MdxTag& tag;
  Cursor cursor;
};

// The live rows of a tag in the order the index file stores them.
std::vector<uint32_t> storedOrder(DbfFile& file, const char* tag) {
  auto mdx = MdxFile::open(MdxTags::pathFor(file.path()));
  std::vector<uint32_t> rows;
  mdx->walk(size_t(mdx->tagIndex(tag)), [&](std::string_view, uint32_t recno) {
    if (!file.isDeleted(recno)) rows.push_back(recno);
  });
  return rows;
}

std::vector<uint32_t> forward(Cursor& cursor) {
  std::vector<uint32_t> rows;
  for (cursor.first(); !cursor.eof(); cursor.next()) rows.push_back(cursor.recno());
  return rows;
}

std::vector<uint32_t> backward(Cursor& cursor) {
  std::vector<uint32_t> rows;
  for (cursor.last(); !cursor.bof(); cursor.prior()) rows.push_back(cursor.recno());
  return rows;
}

bool loaded(const MdxTag& tag) { return tag.memoryBytes() != 0; }

// The street of a row (VIA in the street tables, NOMBRE in the wide one).
std::string via(DbfFile& file, uint32_t recno) {
  const int field = file.fieldIndex("VIA") >= 0 ? file.fieldIndex("VIA") : file.fieldIndex("NOMBRE");
  return fieldText(file.fields()[size_t(field)], file.record(recno), file.codePage());
}

void deleteRow(DbfFile& file, uint32_t recno) {
  MdxTags::of(file);  // kept on every write
  std::string r(file.record(recno), file.recordLength());
  r[0] = '*';
  file.update(recno, r);
}

}  // namespace

TEST(IndexTreeCursor, WalksBothWaysInTheIndexFilesOrderWithoutLoadingTheTag) {
  TempDir dir;
  auto file = streets(dir, 600);
  for (const char* name : {"STREET", "NAME"}) {
    MdxTag& tag = tagOf(*file, name);
    Cursor cursor(file);
  orderBy(cursor, tag);
    const std::vector<uint32_t> expected = storedOrder(*file, name);
    ASSERT_EQ(expected.size(), 600u);
    EXPECT_EQ(forward(cursor), expected) << name;
    EXPECT_EQ(backward(cursor), std::vector<uint32_t>(expected.rbegin(), expected.rend())) << name;
    EXPECT_FALSE(loaded(tag)) << name;
    EXPECT_TRUE(tag.unranked()) << name;
  }
}

TEST(IndexTreeCursor, EdgesBehaveAsOnRankedRows) {
  OnStreets on(50);
  auto [file, tag, cursor] = std::tie(on.file, on.tag, on.cursor);
  const std::vector<uint32_t> order = storedOrder(*file, "STREET");
  cursor.first();
  EXPECT_TRUE(cursor.bof());
  EXPECT_FALSE(cursor.eof());
  EXPECT_EQ(cursor.recno(), order.front());
  cursor.prior();  // before the start: stays on the first row
  EXPECT_TRUE(cursor.bof());
  EXPECT_EQ(cursor.recno(), order.front());
  cursor.next();
  EXPECT_EQ(cursor.recno(), order[1]);
  cursor.last();
  EXPECT_TRUE(cursor.eof());
  EXPECT_EQ(cursor.recno(), order.back());
  cursor.next();  // past the end: stays on the last row
  EXPECT_TRUE(cursor.eof());
  EXPECT_EQ(cursor.recno(), order.back());
  cursor.prior();
  EXPECT_EQ(cursor.recno(), order[order.size() - 2]);
  EXPECT_FALSE(loaded(tag));
}

TEST(IndexTreeCursor, SearchesAnswerAsTheLoadedTagDoesBeforeAndAfterItLoads) {
  TempDir one, two;
  auto tree = streets(one, 900);
  auto ranked = streets(two, 900);
  MdxTag& treeTag = tagOf(*tree, "STREET");
  MdxTag& rankedTag = tagOf(*ranked, "STREET");
  Cursor fromTree(tree);
  orderBy(fromTree, treeTag);
  Cursor fromRanks(ranked);
  orderBy(fromRanks, rankedTag);
  ASSERT_EQ(fromRanks.count(), 900u);  // ranks: the tag loads
  ASSERT_TRUE(loaded(rankedTag));
  std::mt19937 random(11);
  for (int i = 0; i < 60; ++i) {
    const uint32_t r = 1 + random() % 900;
    const std::string province = r % 3 == 1 ? "08" : "28";
    std::string street = via(*tree, r);
    const bool exact = i % 2 == 0;
    if (!exact) street.resize(1 + random() % street.size());
    if (i % 10 == 9) street = "Zz no existe";
    const bool foundInTree = fromTree.seek({province, street}, exact);
    const bool foundInRanks = fromRanks.seek({province, street}, exact);
    ASSERT_EQ(foundInTree, foundInRanks) << province << " " << street << " exact " << exact;
    if (foundInTree) {
      EXPECT_EQ(fromTree.recno(), fromRanks.recno()) << province << " " << street;
    }
    // The row after the one found is the same too.
    fromTree.next();
    fromRanks.next();
    EXPECT_EQ(fromTree.recno(), fromRanks.recno());
    if (i == 9) {
      EXPECT_FALSE(loaded(treeTag));  // the first searches read a few blocks each
    }
  }
  EXPECT_FALSE(fromTree.seek({"46"}, true));
  EXPECT_TRUE(loaded(treeTag));  // past that, searching in memory pays
}

TEST(IndexTreeCursor, NearestSearchPastEveryKeyLandsOnTheLastRow) {
  OnStreets on(40);
  auto [file, tag, cursor] = std::tie(on.file, on.tag, on.cursor);
  ASSERT_TRUE(cursor.seek({"99"}, false));
  EXPECT_EQ(cursor.recno(), storedOrder(*file, "STREET").back());
  EXPECT_FALSE(loaded(tag));
}

TEST(IndexTreeCursor, FailedExactSearchLeavesTheCursorWhereItStood) {
  OnStreets on(40);
  auto [file, tag, cursor] = std::tie(on.file, on.tag, on.cursor);
  cursor.first();
  cursor.next();
  const uint32_t stood = cursor.recno();
  EXPECT_FALSE(cursor.seek({"28", "No hay tal calle"}, true));
  EXPECT_EQ(cursor.recno(), stood);
  cursor.next();
  EXPECT_EQ(cursor.recno(), storedOrder(*file, "STREET")[2]);
}

TEST(IndexTreeCursor, DeletedRowsAreSkippedAsTheWalkMeetsThem) {
  TempDir dir;
  auto file = streets(dir, 300);
  const std::vector<uint32_t> order = storedOrder(*file, "STREET");
  // The first and last rows of the order, and a run in the middle.
  std::vector<uint32_t> gone = {order.front(), order.back()};
  for (size_t i = 100; i < 140; ++i) gone.push_back(order[i]);
  for (uint32_t r : gone) deleteRow(*file, r);
  MdxTag& tag = tagOf(*file, "STREET");
  Cursor cursor(file);
  orderBy(cursor, tag);
  const std::vector<uint32_t> live = storedOrder(*file, "STREET");
  ASSERT_EQ(live.size(), 300u - gone.size());
  EXPECT_EQ(forward(cursor), live);
  EXPECT_EQ(backward(cursor), std::vector<uint32_t>(live.rbegin(), live.rend()));
  // A search for a deleted row's key finds a live row with that key, or nothing.
  const uint32_t deleted = order[120];
  const bool found = cursor.seek({fieldText(file->field("PROVINCIA"), file->record(deleted), file->codePage()),
                                  via(*file, deleted)},
                                 true);
  if (found) {
    EXPECT_NE(cursor.recno(), deleted);
  }
  EXPECT_FALSE(loaded(tag));
}

TEST(IndexTreeCursor, AskingForAPositionRanksTheRowsAndKeepsTheRow) {
  OnStreets on(200);
  auto [file, tag, cursor] = std::tie(on.file, on.tag, on.cursor);
  const std::vector<uint32_t> order = storedOrder(*file, "STREET");
  cursor.first();
  for (int i = 0; i < 37; ++i) cursor.next();
  ASSERT_FALSE(loaded(tag));
  EXPECT_EQ(cursor.position(), 37u);
  EXPECT_TRUE(loaded(tag));
  EXPECT_EQ(cursor.recno(), order[37]);
  cursor.next();
  EXPECT_EQ(cursor.recno(), order[38]);
  EXPECT_EQ(cursor.count(), 200u);
}

TEST(IndexTreeCursor, ALongWalkLoadsTheTagMidwayAndGoesOnInOrder) {
  OnStreets on(25000);
  auto [file, tag, cursor] = std::tie(on.file, on.tag, on.cursor);
  const std::vector<uint32_t> expected = storedOrder(*file, "STREET");
  cursor.first();
  std::vector<uint32_t> walked;
  bool wasUnrankedEarly = false;
  for (; !cursor.eof(); cursor.next()) {
    if (walked.size() == 10) wasUnrankedEarly = !loaded(tag);
    walked.push_back(cursor.recno());
  }
  EXPECT_TRUE(wasUnrankedEarly);
  EXPECT_TRUE(loaded(tag));  // the walk read enough blocks for loading to pay
  EXPECT_EQ(walked, expected);
}

TEST(IndexTreeCursor, ARowAppendedHereIsMetByTheNextStep) {
  OnStreets on(100);
  auto [file, tag, cursor] = std::tie(on.file, on.tag, on.cursor);
  ASSERT_TRUE(cursor.seek({"28", "Mayor"}, false));
  const uint32_t stood = cursor.recno();
  // A street that sorts right after the one stood on.
  std::string r = file->blankRecord();
  setFieldText(file->field("PROVINCIA"), r.data(), "28", file->codePage(), file->name());
  setFieldText(file->field("VIA"), r.data(), via(*file, stood) + "0", file->codePage(), file->name());
  const uint32_t added = file->append(r);
  cursor.next();
  EXPECT_EQ(cursor.recno(), added);
  cursor.prior();
  EXPECT_EQ(cursor.recno(), stood);
  EXPECT_EQ(forward(cursor), storedOrder(*file, "STREET"));
}

TEST(IndexTreeCursor, AnotherProgramsNewIndexIsFollowedOnceTheWalkReadsFromIt) {
  TempDir dir;
  std::vector<Row> rows;
  char a[8], b[8];
  for (int i = 1; i <= 400; ++i) {
    std::snprintf(a, sizeof a, "r%03d", i);
    std::snprintf(b, sizeof b, "%04d", 400 - i);
    rows.push_back({a, b});
  }
  auto file = makeTable(dir.path(), "T.DBF", {charField("A", 4), charField("B", 4)}, rows);
  rebuildProductionIndex(*file, {{"ORDEN", "A", "", false, false}});
  MdxTag& tag = tagOf(*file, "ORDEN");
  Cursor cursor(file);
  orderBy(cursor, tag);
  cursor.first();
  ASSERT_EQ(cursor.recno(), 1u);
  // Another program writes the index anew with the tag on B: the order turns round.
  std::vector<MdxTagBuild> tags(1);
  tags[0] = {"ORDEN", "B", "", 'C', 4, false, false, {}};
  for (uint32_t r = 400; r >= 1; --r) {
    std::snprintf(b, sizeof b, "%04u", 400 - r);
    tags[0].entries.push_back({b, r});
  }
  writeMdx(MdxTags::pathFor(file->path()), "T", file->languageDriver(), tags);
  // Steps within the leaf already read go on through it, as a ranked view
  // goes on until it is refreshed; the first step that reads a block finds
  // the file changed and goes on in its order.
  std::vector<uint32_t> walked{1};
  for (cursor.next(); !cursor.eof(); cursor.next()) walked.push_back(cursor.recno());
  size_t turn = 1;
  while (turn < walked.size() && walked[turn] == turn + 1) ++turn;
  ASSERT_GT(turn, 1u);
  ASSERT_LT(turn, 400u);
  std::vector<uint32_t> after;
  for (uint32_t r = uint32_t(turn) - 1; r >= 1; --r) after.push_back(r);
  EXPECT_EQ(std::vector<uint32_t>(walked.begin() + long(turn), walked.end()), after);
  EXPECT_EQ(forward(cursor).front(), 400u);
}

TEST(IndexTreeCursor, EmptyTagServesAnEmptyView) {
  TempDir dir;
  auto file = makeTable(dir.path(), "T.DBF", {charField("A", 4)}, {});
  rebuildProductionIndex(*file, {{"ORDEN", "A", "", false, false}});
  MdxTag& tag = tagOf(*file, "ORDEN");
  Cursor cursor(file);
  orderBy(cursor, tag);
  cursor.first();
  EXPECT_TRUE(cursor.eof());
  EXPECT_TRUE(cursor.bof());
  EXPECT_EQ(cursor.recno(), 0u);
  cursor.last();
  EXPECT_EQ(cursor.recno(), 0u);
  EXPECT_FALSE(cursor.seek({"a"}, false));
  EXPECT_FALSE(cursor.seek({"a"}, true));
}

TEST(IndexTreeCursor, DamagedLeafMetOnTheWayIsAnErrorNamingTheIndex) {
  TempDir dir;
  auto file = streets(dir, 2000);
  const std::string mdxPath = MdxTags::pathFor(file->path());
  uint32_t firstLeaf = 0, headerPage = 0;
  {
    auto mdx = MdxFile::open(mdxPath);
    headerPage = mdx->tags()[size_t(mdx->tagIndex("STREET"))].headerPage;
  }
  {
    std::ifstream in(mdxPath, std::ios::binary);
    in.seekg(std::streamoff(headerPage) * 512 + mdx::kTagFirstLeaf);
    unsigned char b[4];
    in.read(reinterpret_cast<char*>(b), 4);
    firstLeaf = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
  }
  {
    // The first leaf claims more keys than fit in a block.
    std::fstream out(mdxPath, std::ios::in | std::ios::out | std::ios::binary);
    out.seekp(std::streamoff(firstLeaf) * 512);
    const unsigned char many[4] = {0xFF, 0xFF, 0, 0};
    out.write(reinterpret_cast<const char*>(many), 4);
  }
  auto reopened = DbfFile::open(file->path());
  MdxTags::of(*reopened).rowsReloaded();
  MdxTag& tag = tagOf(*reopened, "STREET");
  Cursor cursor(reopened);
  orderBy(cursor, tag);
  try {
    cursor.first();
    FAIL() << "a damaged leaf was walked";
  } catch (const Error& e) {
    EXPECT_EQ(e.kind(), ErrorKind::Corrupt);
    EXPECT_NE(std::string(e.what()).find("CALLES.MDX"), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("STREET"), std::string::npos) << e.what();
  }
}

namespace {

// Opens the file afresh each time (no copy kept after closing), so that what
// a test reads of its rows starts from nothing.
class ColdTable : public ::testing::Test {
 protected:
  // Rows of 203 bytes: NOMBRE, a padding field, every seventh row deleted.
  std::string wideTable(uint32_t rows) {
    auto file = makeTable(dir.path(), "ANCHA.DBF", {charField("NOMBRE", 12), charField("RELLENO", 190)}, {});
    std::string all;
    for (uint32_t i = 1; i <= rows; ++i) {
      std::string r = file->blankRecord();
      setFieldText(file->field("NOMBRE"), r.data(), streetName(i), file->codePage(), file->name());
      if (i % 7 == 0) r[0] = '*';
      all += r;
    }
    file->appendMany(all);
    rebuildProductionIndex(*file, {{"NOMBRE", "UPPER(NOMBRE)", "", false, false}});
    return file->path();
  }
  CacheLimit noCache;
  TempDir dir;
};

}  // namespace

// Memory is counted by the pages touched, 2 MB each where the system gives
// large pages: the tables are large enough for a few of them to be a part.
constexpr uint32_t kWideRows = 100000;

TEST_F(ColdTable, WhetherATableIsEmptyIsToldWithoutReadingItWhole) {
  auto file = DbfFile::open(wideTable(kWideRows));
  Cursor cursor(file);
  EXPECT_FALSE(cursor.empty());
  EXPECT_LT(file->memoryBytes(), size_t(kWideRows) * file->recordLength() / 2);
}

TEST_F(ColdTable, PhysicalOrderStepsOverDeletedRowsWithoutReadingTheWholeTable) {
  constexpr uint32_t kRows = kWideRows;
  auto file = DbfFile::open(wideTable(kRows));
  const size_t tableBytes = size_t(kRows) * file->recordLength();
  Cursor cursor(file);
  std::vector<uint32_t> walked;
  for (cursor.first(); walked.size() < 100; cursor.next()) walked.push_back(cursor.recno());
  std::vector<uint32_t> live;
  for (uint32_t r = 1; live.size() < 100; ++r)
    if (r % 7 != 0) live.push_back(r);
  EXPECT_EQ(walked, live);
  cursor.last();
  EXPECT_EQ(cursor.recno(), kRows % 7 ? kRows : kRows - 1);
  for (int i = 0; i < 7; ++i) cursor.prior();
  EXPECT_NE(cursor.recno() % 7, 0u);
  EXPECT_LT(file->memoryBytes(), tableBytes / 2);
  // A position needs every deleted row known: the whole table is read.
  const uint32_t stood = cursor.recno();
  EXPECT_EQ(cursor.position(), size_t(stood - 1 - stood / 7));
  EXPECT_GE(file->memoryBytes(), tableBytes);
}

TEST_F(ColdTable, ALookUpThroughAnIndexTagReadsAFewBlocksOfTheTable) {
  constexpr uint32_t kRows = kWideRows;
  const std::string path = wideTable(kRows);
  auto file = DbfFile::open(path);
  MdxTag& tag = tagOf(*file, "NOMBRE");
  Cursor cursor(file);
  orderBy(cursor, tag);
  ASSERT_TRUE(cursor.seek({"ZURBANO"}, false));
  const uint32_t found = cursor.recno();
  EXPECT_EQ(via(*file, found).rfind("Zurbano", 0), 0u) << via(*file, found);
  EXPECT_NE(found % 7, 0u);  // a deleted row is never the answer
  cursor.next();
  EXPECT_LT(file->memoryBytes(), size_t(kRows) * file->recordLength() / 2);
}
