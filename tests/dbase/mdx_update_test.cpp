// Production indexes (.MDX) changed in place: thousands of random inserts and
// removals held against a sorted model, the tree's rules checked after each
// batch (order, interior keys, first and last leaf, pages held), blocks taken
// from the free list again, the counters dBase reads bumped, dBASE IV's own
// files changed, damaged files refused without a byte written.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <filesystem>
#include <random>
#include <tuple>

#include "dbase/core/collation.h"
#include "dbase/core/error.h"
#include "dbase/core/mdx_file.h"
#include "dbase/core/mdx_format.h"
#include "dbase/core/mdx_key.h"
#include "dbase/core/mdx_tag.h"
#include "dbase/core/mdx_update.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;

namespace {

using Entries = std::vector<std::pair<std::string, uint32_t>>;

MdxUpdate::OrderKey orderFor(uint8_t driver, char type, bool descending) {
  const Collation* collation = &Collation::forLanguageDriver(driver);
  return [=](std::string_view stored, std::string& out) {
    appendMdxOrderKey(*collation, type, descending, {}, stored, out);
  };
}

// What a tag should hold: (order key, recno, key), sorted.
class Model {
 public:
  explicit Model(MdxUpdate::OrderKey order) : order_(std::move(order)) {}
  void insert(const std::string& key, uint32_t recno) {
    Item item{orderOf(key), recno, key};
    items_.insert(std::upper_bound(items_.begin(), items_.end(), item, less), item);
  }
  bool remove(const std::string& key, uint32_t recno) {
    Item item{orderOf(key), recno, key};
    auto at = std::lower_bound(items_.begin(), items_.end(), item, less);
    if (at == items_.end() || std::get<0>(*at) != std::get<0>(item) || std::get<1>(*at) != recno) return false;
    items_.erase(at);
    return true;
  }
  Entries entries() const {
    Entries out;
    for (const auto& [order, recno, key] : items_) out.emplace_back(key, recno);
    return out;
  }
  size_t size() const { return items_.size(); }

 private:
  using Item = std::tuple<std::string, uint32_t, std::string>;
  static bool less(const Item& a, const Item& b) {
    return std::tie(std::get<0>(a), std::get<1>(a)) < std::tie(std::get<0>(b), std::get<1>(b));
  }
  std::string orderOf(const std::string& key) const {
    std::string out;
    order_(key, out);
    return out;
  }
  MdxUpdate::OrderKey order_;
  std::vector<Item> items_;
};

Entries walked(const std::string& path, size_t tag) {
  auto file = MdxFile::open(path);
  Entries out;
  file->walk(tag, [&](std::string_view key, uint32_t recno) { out.emplace_back(std::string(key), recno); });
  return out;
}

// The raw file, for the header fields and for walking pages by hand.
struct Raw {
  explicit Raw(const std::string& path) : bytes(readFile(path)) {}
  uint32_t u32(size_t at) const { return mdx::get32(reinterpret_cast<const unsigned char*>(bytes.data()) + at); }
  uint32_t totalPages() const { return u32(mdx::kOffTotalPages); }
  uint32_t freeHead() const { return u32(mdx::kOffFirstFree); }
  size_t tagHeader(const MdxTagInfo& tag) const { return size_t(tag.headerPage) * 512; }
  uint8_t serial(const MdxTagInfo& tag) const { return uint8_t(bytes[tagHeader(tag) + mdx::kTagSerial]); }
  uint32_t root(const MdxTagInfo& tag) const { return u32(tagHeader(tag) + mdx::kTagRoot); }
  uint32_t tagPages(const MdxTagInfo& tag) const { return u32(tagHeader(tag) + mdx::kTagPages); }
  uint32_t firstLeaf(const MdxTagInfo& tag) const { return u32(tagHeader(tag) + mdx::kTagFirstLeaf); }
  uint32_t lastLeaf(const MdxTagInfo& tag) const { return u32(tagHeader(tag) + mdx::kTagLastLeaf); }
  bool hasKeys(const MdxTagInfo& tag) const { return bytes[tagHeader(tag) + mdx::kTagHasKeys] != 0; }
  uint32_t keys(uint32_t page) const { return u32(size_t(page) * 512); }
  uint32_t word4(uint32_t page) const { return u32(size_t(page) * 512 + 4); }
  uint32_t pointer(const MdxTagInfo& tag, uint32_t page, uint32_t i) const {
    return u32(size_t(page) * 512 + 8 + size_t(i) * tag.itemLength);
  }
  bool leaf(const MdxTagInfo& tag, uint32_t page) const { return pointer(tag, page, keys(page)) == 0; }
  // Levels from the root to the leaves.
  int depth(const MdxTagInfo& tag) const {
    int levels = 1;
    for (uint32_t page = root(tag); !leaf(tag, page); page = pointer(tag, page, 0)) ++levels;
    return levels;
  }
  uint32_t edge(const MdxTagInfo& tag, bool last) const {
    uint32_t page = root(tag);
    while (!leaf(tag, page)) page = pointer(tag, page, last ? keys(page) : 0);
    return page;
  }
  size_t nodes(const MdxTagInfo& tag, uint32_t page) const {
    if (leaf(tag, page)) return 1;
    size_t n = 1;
    for (uint32_t i = 0; i <= keys(page); ++i) n += nodes(tag, pointer(tag, page, i));
    return n;
  }
  size_t freeCount() const {
    size_t n = 0;
    for (uint32_t page = freeHead(); page != 0 && n < 1000000; page = word4(page)) ++n;
    return n;
  }
  std::string bytes;
};

// The header fields flush() keeps: root, pages held, first and last leaf, and
// pages in the file.
void expectHeadersMatchTree(const std::string& path, const MdxTagInfo& info, uint32_t blockPages) {
  Raw raw(path);
  EXPECT_EQ(uint64_t(raw.totalPages()) * 512, raw.bytes.size());
  EXPECT_EQ(raw.root(info), info.rootPage);
  EXPECT_EQ(raw.firstLeaf(info), raw.edge(info, false)) << info.name;
  EXPECT_EQ(raw.lastLeaf(info), raw.edge(info, true)) << info.name;
  EXPECT_EQ(raw.tagPages(info), raw.nodes(info, raw.root(info)) * blockPages) << info.name;
}

const char* const kNames[] = {"Ávila", "avila", "AVILA", "Ñandú", "nandu", "Peña", "Pena", "PEÑA", "Zamora",
                              "zamora", "Álava", "alava", "Cádiz", "CADIZ", "León", "leon", "Lugo", "Orense"};

class MdxUpdateTest : public ::testing::Test {
 protected:
  // A table of `rows` rows (NOMBRE C(14), IMPORTE N(9,2)) and its index:
  // NOMBRE ascending in the table's Spanish order, NOMBRED descending,
  // IMPORTE numeric. Names repeat; their bytes order differently from the
  // collation.
  void makeIndex(uint32_t rows) {
    std::vector<Row> data;
    for (uint32_t r = 0; r < rows; ++r) data.push_back({randomName(), randomAmount()});
    auto table = makeTable(dir.path(), "PRUEBA.DBF", {charField("NOMBRE", 14), numField("IMPORTE", 9, 2)}, data);
    const auto& nombre = table->fields()[0];
    const auto& importe = table->fields()[1];
    std::vector<MdxTagBuild> tags = {{"NOMBRE", "NOMBRE", "", 'C', 14, false, false, {}},
                                     {"NOMBRED", "NOMBRE", "", 'C', 14, false, true, {}},
                                     {"IMPORTE", "IMPORTE", "", 'N', 12, false, false, {}}};
    for (size_t t = 0; t < tags.size(); ++t) models.emplace_back(orderFor(0x14, tags[t].keyType, tags[t].descending));
    for (uint32_t r = 1; r <= rows; ++r) {
      const char* record = table->record(r);
      std::string name(record + nombre.offset, nombre.length), amount;
      ASSERT_TRUE(appendBcdText(std::string_view(record + importe.offset, importe.length), amount));
      names.push_back(name);
      keysOf[r] = {name, name, amount};
      for (size_t t = 0; t < tags.size(); ++t) models[t].insert(keysOf[r][t], r);
      live.push_back(r);
    }
    for (size_t t = 0; t < tags.size(); ++t) tags[t].entries = models[t].entries();
    path = dir.file("PRUEBA.MDX");
    writeMdx(path, "PRUEBA", 0x14, tags);
    next = rows + 1;
  }

  std::unique_ptr<MdxUpdate> openWithOrders() {
    auto update = MdxUpdate::open(path);
    for (size_t t = 0; t < update->tags().size(); ++t) {
      const MdxTagInfo& info = update->tags()[t];
      update->setOrder(t, orderFor(0x14, info.keyType, info.descending));
    }
    return update;
  }

  std::string randomName() {
    return std::string(kNames[rng() % std::size(kNames)]) + " " + std::to_string(rng() % 40);
  }
  std::string randomAmount() {
    char text[16];
    std::snprintf(text, sizeof text, "%.2f", (double(rng() % 1000000) - 500000) / 100);
    return text;
  }
  // A name in the table's bytes: one the table already holds, another suffix.
  std::string randomKey() {
    std::string key = names[rng() % names.size()].substr(0, 9);
    key += std::to_string(rng() % 100);
    key.resize(14, ' ');
    return key;
  }

  // One row added to (or removed from) every tag, in the index and the model.
  void addRow(MdxUpdate& update) {
    const uint32_t r = next++;
    std::string name = randomKey(), amount;
    ASSERT_TRUE(appendBcdText(randomAmount(), amount));
    keysOf[r] = {name, name, amount};
    for (size_t t = 0; t < models.size(); ++t) {
      update.insert(t, keysOf[r][t], r);
      models[t].insert(keysOf[r][t], r);
    }
    live.push_back(r);
  }
  void removeRow(MdxUpdate& update) {
    const size_t at = rng() % live.size();
    const uint32_t r = live[at];
    live[at] = live.back();
    live.pop_back();
    for (size_t t = 0; t < models.size(); ++t) {
      ASSERT_TRUE(models[t].remove(keysOf[r][t], r));
      ASSERT_TRUE(update.remove(t, keysOf[r][t], r)) << "tag " << t << " row " << r;
    }
  }

  void expectIndexMatchesModels(MdxUpdate& update) {
    for (size_t t = 0; t < models.size(); ++t) {
      EXPECT_EQ(update.verify(t), "") << update.tags()[t].name;
      EXPECT_EQ(walked(path, t), models[t].entries()) << update.tags()[t].name;
      expectHeadersMatchTree(path, update.tags()[t], update.blockBytes() / 512);
    }
  }

  TempDir dir;
  std::mt19937 rng{20240611};
  std::string path;
  std::vector<Model> models;
  std::vector<std::string> names;
  std::map<uint32_t, std::array<std::string, 3>> keysOf;
  std::vector<uint32_t> live;
  uint32_t next = 1;
};

TEST_F(MdxUpdateTest, RandomInsertsAndRemovalsKeepEveryTagInOrder) {
  makeIndex(1500);
  auto update = openWithOrders();
  std::vector<uint8_t> serials;
  for (const auto& info : update->tags()) serials.push_back(info.serial);
  for (int batch = 0; batch < 4; ++batch) {
    for (int op = 0; op < 1000; ++op) {
      if (rng() % 5 < 3 || live.size() < 10) addRow(*update);
      else removeRow(*update);
    }
    // Entries that are not there: nothing changes.
    EXPECT_FALSE(update->remove(0, keysOf[live[0]][0], next + 5));
    EXPECT_FALSE(update->remove(2, keysOf[live[0]][2], 999999));
    update->flush();
    for (size_t t = 0; t < serials.size(); ++t)
      EXPECT_EQ(update->tags()[t].serial, uint8_t(serials[t] + batch + 1)) << update->tags()[t].name;
    expectIndexMatchesModels(*update);
  }
  EXPECT_GT(models[0].size(), 1900u);
  for (size_t t = 0; t < 3; ++t) EXPECT_GE(Raw(path).depth(update->tags()[t]), 2) << update->tags()[t].name;
}

TEST_F(MdxUpdateTest, AFlushWithoutChangesBumpsNoCounter) {
  makeIndex(50);
  auto update = openWithOrders();
  update->insert(1, keysOf[1][1], 9999);
  update->flush();
  const Raw before(path);
  update->flush();
  EXPECT_EQ(Raw(path).bytes, before.bytes);
  const auto& tags = update->tags();
  EXPECT_EQ(Raw(path).serial(tags[0]), 1) << "an untouched tag keeps its counter";
  EXPECT_EQ(Raw(path).serial(tags[1]), 2);
}

TEST_F(MdxUpdateTest, ContainsKeyFindsAnEntryOfEqualOrder) {
  makeIndex(300);
  auto update = openWithOrders();
  for (uint32_t r = 1; r <= 300; r += 7) EXPECT_TRUE(update->containsKey(0, keysOf[r][0]));
  std::string absent = "ZZZ NO ESTA";
  absent.resize(14, ' ');
  EXPECT_FALSE(update->containsKey(0, absent));
  update->insert(0, absent, 301);
  EXPECT_TRUE(update->containsKey(0, absent));
  EXPECT_TRUE(update->remove(0, absent, 301));
  EXPECT_FALSE(update->containsKey(0, absent));
}

// Keys of 100 bytes in 512-byte blocks: four to a node, so a few thousand
// entries need many levels.
TEST_F(MdxUpdateTest, RootSplitsGrowTheTreeToSeveralLevels) {
  path = dir.file("HONDO.MDX");
  writeMdx(path, "HONDO", 0x1B, {{"LARGO", "LARGO", "", 'C', 100, false, false, {}}}, 1);
  auto update = MdxUpdate::open(path);
  update->setOrder(0, orderFor(0x1B, 'C', false));
  Model model(orderFor(0x1B, 'C', false));
  const uint32_t emptyRoot = update->tags()[0].rootPage;
  for (uint32_t r = 1; r <= 3000; ++r) {
    std::string key = "CLAVE " + std::to_string(rng() % 700);  // duplicates
    key.resize(100, ' ');
    update->insert(0, key, r);
    model.insert(key, r);
  }
  EXPECT_EQ(update->verify(0), "");
  update->flush();
  const MdxTagInfo& info = update->tags()[0];
  EXPECT_NE(info.rootPage, emptyRoot);
  Raw raw(path);
  EXPECT_GE(raw.depth(info), 5);
  EXPECT_TRUE(raw.hasKeys(info));
  // The new root records its right child; a split-off right block its left neighbour.
  const uint32_t root = raw.root(info);
  EXPECT_EQ(raw.word4(root), raw.pointer(info, root, raw.keys(root)));
  const uint32_t right = raw.pointer(info, root, raw.keys(root));
  EXPECT_EQ(raw.word4(right), raw.pointer(info, root, raw.keys(root) - 1));
  EXPECT_EQ(walked(path, 0), model.entries());
  expectHeadersMatchTree(path, info, 1);
}

TEST_F(MdxUpdateTest, BlocksFreedByRemovalsAreTakenAgainBeforeTheFileGrows) {
  path = dir.file("LIBRE.MDX");
  writeMdx(path, "LIBRE", 0x1B, {{"CODIGO", "CODIGO", "", 'C', 20, false, false, {}}});
  std::vector<std::string> keys;
  for (uint32_t r = 1; r <= 4000; ++r) {
    std::string key = "K" + std::to_string(rng() % 100000);
    key.resize(20, ' ');
    keys.push_back(key);
  }
  auto fill = [&](MdxUpdate& update) {
    for (uint32_t r = 1; r <= keys.size(); ++r) update.insert(0, keys[r - 1], r);
  };
  auto update = MdxUpdate::open(path);
  update->setOrder(0, orderFor(0x1B, 'C', false));
  fill(*update);
  update->flush();
  const uint64_t size = Raw(path).bytes.size();
  const uint32_t pages = Raw(path).totalPages();

  for (uint32_t r = 1; r <= keys.size(); ++r) ASSERT_TRUE(update->remove(0, keys[r - 1], r));
  EXPECT_EQ(update->verify(0), "");
  update->flush();
  Raw emptied(path);
  EXPECT_EQ(emptied.bytes.size(), size);
  EXPECT_EQ(emptied.totalPages(), pages);
  EXPECT_NE(emptied.freeHead(), 0u);
  const MdxTagInfo& info = update->tags()[0];
  EXPECT_EQ(emptied.depth(info), 1) << "an emptied tag is one empty root leaf";
  EXPECT_EQ(emptied.keys(emptied.root(info)), 0u);
  EXPECT_TRUE(walked(path, 0).empty());
  EXPECT_EQ(emptied.freeCount() * 2 + emptied.tagPages(info), pages - 4 - 2) << "every other block is free";
  expectHeadersMatchTree(path, info, 2);

  // The same entries again take the freed blocks: the file does not grow.
  fill(*update);
  update->flush();
  Raw refilled(path);
  EXPECT_EQ(refilled.bytes.size(), size);
  EXPECT_EQ(refilled.totalPages(), pages);
  EXPECT_EQ(update->verify(0), "");
  EXPECT_EQ(walked(path, 0).size(), keys.size());
  expectHeadersMatchTree(path, info, 2);

  // A reopened index follows the free list left on disk.
  for (uint32_t r = 1; r <= keys.size(); ++r) ASSERT_TRUE(update->remove(0, keys[r - 1], r));
  update->flush();
  update.reset();
  auto again = MdxUpdate::open(path);
  again->setOrder(0, orderFor(0x1B, 'C', false));
  fill(*again);
  again->flush();
  EXPECT_EQ(Raw(path).totalPages(), pages);
  EXPECT_EQ(again->verify(0), "");
  EXPECT_EQ(walked(path, 0).size(), keys.size());
}

TEST_F(MdxUpdateTest, ChangesADbaseIvSampleAsDbaseWould) {
  const std::string shared = sharedDir();
  if (shared.empty() || !std::filesystem::exists(shared + "/mdx/CODES.MDX"))
    GTEST_SKIP() << "no dBASE IV samples in the shared folder";
  path = dir.file("CODES.MDX");
  std::filesystem::copy_file(shared + "/mdx/CODES.MDX", path);
  const Entries city = walked(path, 0), area = walked(path, 1);
  auto update = MdxUpdate::open(path);
  ASSERT_EQ(update->tags()[0].name, "CITY");
  update->setOrder(0, orderFor(0x1B, 'C', false));
  update->setOrder(1, orderFor(0x1B, 'N', false));
  EXPECT_EQ(update->verify(0), "") << "dBASE's own tree keeps the rules";
  EXPECT_EQ(update->verify(1), "");
  const uint8_t citySerial = update->tags()[0].serial, areaSerial = update->tags()[1].serial;

  Model model(orderFor(0x1B, 'C', false));
  for (const auto& [key, recno] : city) model.insert(key, recno);
  for (size_t i = 0; i < city.size(); i += 2) {
    ASSERT_TRUE(update->remove(0, city[i].first, city[i].second));
    model.remove(city[i].first, city[i].second);
  }
  for (uint32_t r = 40; r < 640; ++r) {
    std::string key = city[rng() % city.size()].first.substr(0, 12) + std::to_string(rng() % 50);
    key.resize(20, ' ');
    update->insert(0, key, r);
    model.insert(key, r);
  }
  update->flush();
  EXPECT_EQ(update->verify(0), "");
  EXPECT_EQ(walked(path, 0), model.entries());
  EXPECT_EQ(walked(path, 1), area);
  EXPECT_EQ(update->tags()[0].serial, uint8_t(citySerial + 1));
  EXPECT_EQ(Raw(path).serial(update->tags()[1]), areaSerial);
  Raw raw(path);
  EXPECT_EQ(uint64_t(raw.totalPages()) * 512, raw.bytes.size());
  EXPECT_GE(raw.depth(update->tags()[0]), 2);
  EXPECT_EQ(raw.firstLeaf(update->tags()[0]), raw.edge(update->tags()[0], false));
  EXPECT_EQ(raw.lastLeaf(update->tags()[0]), raw.edge(update->tags()[0], true));
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

void patch32(const std::string& path, uint64_t offset, uint32_t value) {
  std::string bytes = readFile(path);
  mdx::put32(reinterpret_cast<unsigned char*>(bytes.data()) + offset, value);
  writeFile(path, bytes);
}

std::string paddedKey(const std::string& text, size_t length) {
  std::string key = text;
  key.resize(length, ' ');
  return key;
}

Entries numbered(uint32_t count) {
  Entries entries;
  for (uint32_t r = 1; r <= count; ++r) {
    char text[16];
    std::snprintf(text, sizeof text, "K%06u", r);
    entries.emplace_back(paddedKey(text, 20), r);
  }
  return entries;
}

// An index written whole leaves a slot or more free in every node, so that
// keys written afterwards all over the order go into their leaves in place:
// no block is added and no parent changes.
TEST_F(MdxUpdateTest, AnIndexWrittenWholeTakesNewKeysInItsLeavesWithoutSplitting) {
  path = dir.file("HUECO.MDX");
  const Entries entries = numbered(20000);
  writeMdx(path, "HUECO", 0x1B, {{"NOMBRE", "NOMBRE", "", 'C', 20, false, false, entries}});
  const MdxTagInfo info = MdxFile::open(path)->tags()[0];
  ASSERT_EQ(info.maxKeys, 42);
  const Raw before(path);
  ASSERT_EQ(before.depth(info), 3);
  std::vector<uint32_t> leaves, interior;
  std::function<void(uint32_t)> collect = [&](uint32_t page) {
    if (before.leaf(info, page)) return leaves.push_back(page);
    interior.push_back(page);
    EXPECT_LT(before.keys(page), uint32_t(info.maxKeys - 1)) << "interior node " << page;
    for (uint32_t i = 0; i <= before.keys(page); ++i) collect(before.pointer(info, page, i));
  };
  collect(before.root(info));
  for (uint32_t page : leaves) {
    EXPECT_LE(before.keys(page), uint32_t(info.maxKeys - 4)) << "leaf " << page;
    EXPECT_GE(before.keys(page), uint32_t(info.maxKeys / 2)) << "leaf " << page;
  }

  auto update = MdxUpdate::open(path);
  update->setOrder(0, orderFor(0x1B, 'C', false));
  Model model(orderFor(0x1B, 'C', false));
  for (const auto& [key, recno] : entries) model.insert(key, recno);
  // A new key before every fortieth old one: one a leaf, about. It goes into
  // the leaf of the key after it, whose highest key it does not change.
  uint32_t recno = 20001;
  for (size_t i = 40; i < entries.size(); i += 40, ++recno) {
    const std::string key = paddedKey(entries[i - 1].first.substr(0, 7) + "A", 20);
    update->insert(0, key, recno);
    model.insert(key, recno);
  }
  update->flush();
  const Raw after(path);
  EXPECT_EQ(after.totalPages(), before.totalPages());
  EXPECT_EQ(after.tagPages(info), before.tagPages(info));
  for (uint32_t page : interior)
    EXPECT_EQ(after.bytes.substr(size_t(page) * 512, 1024), before.bytes.substr(size_t(page) * 512, 1024))
        << "interior node " << page;
  EXPECT_EQ(walked(path, 0), model.entries());
}

// Nodes written ahead of the flush reach their blocks and nothing else: the
// tag header (root, counter, pages), the file header (pages, free list) and
// the free blocks' links wait for the flush, which then writes what changed
// after as well.
TEST_F(MdxUpdateTest, NodesWrittenAheadLeaveTheHeadersAndTheFreeListToTheFlush) {
  path = dir.file("ADELANTE.MDX");
  const Entries entries = numbered(5000);
  writeMdx(path, "ADELANTE", 0x1B, {{"NOMBRE", "NOMBRE", "", 'C', 20, false, false, entries}});
  const Raw before(path);
  auto update = MdxUpdate::open(path);
  update->setOrder(0, orderFor(0x1B, 'C', false));
  const MdxTagInfo info = update->tags()[0];
  Model model(orderFor(0x1B, 'C', false));
  for (const auto& [key, recno] : entries) model.insert(key, recno);
  // Splits (new blocks at the end of the file) and a leaf emptied (a block freed).
  uint32_t recno = 5001;
  for (int i = 0; i < 200; ++i, ++recno) {
    const std::string key = paddedKey("K002500" + std::to_string(i), 20);
    update->insert(0, key, recno);
    model.insert(key, recno);
  }
  for (uint32_t r = 1; r <= 100; ++r) {
    ASSERT_TRUE(update->remove(0, entries[r - 1].first, r));
    model.remove(entries[r - 1].first, r);
  }
  update->writeChangedNodes();
  const Raw ahead(path);
  EXPECT_EQ(ahead.bytes.substr(0, 48), before.bytes.substr(0, 48)) << "the file header";
  EXPECT_EQ(ahead.bytes.substr(ahead.tagHeader(info), 512), before.bytes.substr(before.tagHeader(info), 512))
      << "the tag header";
  EXPECT_GT(ahead.bytes.size(), before.bytes.size()) << "the split-off blocks";
  EXPECT_NE(ahead.bytes.substr(0, before.bytes.size()), before.bytes) << "the changed leaves";

  // Two more keys, into a leaf with room: the freed blocks stay free.
  for (int i = 0; i < 2; ++i, ++recno) {
    const std::string key = paddedKey("K004000" + std::to_string(i), 20);
    update->insert(0, key, recno);
    model.insert(key, recno);
  }
  update->flush();
  const Raw after(path);
  EXPECT_EQ(after.serial(info), uint8_t(before.serial(info) + 1));
  EXPECT_NE(after.freeHead(), 0u);
  EXPECT_EQ(after.freeCount(), before.freeCount() + 2);
  EXPECT_EQ(walked(path, 0), model.entries());
  EXPECT_EQ(update->verify(0), "");
  expectHeadersMatchTree(path, update->tags()[0], 2);
}

TEST_F(MdxUpdateTest, RefusesAChildOutsideTheFileWithoutWritingAByte) {
  path = dir.file("ROTO.MDX");
  writeMdx(path, "ROTO", 0x1B, {{"NOMBRE", "NOMBRE", "", 'C', 20, false, false, numbered(6000)}});
  const MdxTagInfo info = MdxFile::open(path)->tags()[0];
  patch32(path, size_t(info.rootPage) * 512 + 8, 0x00FFFFFF);  // the root's first child
  const std::string before = readFile(path);
  auto update = MdxUpdate::open(path);
  update->setOrder(0, orderFor(0x1B, 'C', false));
  expectCorrupt("ROTO.MDX: índice NOMBRE: la página 16777215 de un nodo cae fuera del fichero",
                [&] { update->insert(0, paddedKey("K000001", 20), 7000); });
  expectCorrupt("índice NOMBRE", [&] { update->remove(0, paddedKey("K000001", 20), 1); });
  update->flush();
  EXPECT_EQ(readFile(path), before);
  // The right end of the tree is sound and takes a key, but the flush meets
  // the damage (finding the first leaf) before it writes anything.
  update->insert(0, paddedKey("K999999", 20), 7000);
  expectCorrupt("la página 16777215 de un nodo cae fuera del fichero", [&] { update->flush(); });
  EXPECT_EQ(readFile(path), before);
  EXPECT_NE(update->verify(0).find("fuera del fichero"), std::string::npos);
}

TEST_F(MdxUpdateTest, RefusesABrokenFreeListBeforeSplittingANode) {
  path = dir.file("ROTO.MDX");
  // One leaf of 38 entries, with room for 42.
  writeMdx(path, "ROTO", 0x1B, {{"NOMBRE", "NOMBRE", "", 'C', 20, false, false, numbered(38)}});
  patch32(path, mdx::kOffFirstFree, 5000);  // past the end of the file
  auto update = MdxUpdate::open(path);
  update->setOrder(0, orderFor(0x1B, 'C', false));
  const Entries full = numbered(42);
  for (size_t i = 38; i < full.size(); ++i) update->insert(0, full[i].first, full[i].second);
  update->flush();
  const std::string before = readFile(path);
  // The one leaf is full: the next key needs a block.
  expectCorrupt("ROTO.MDX: índice NOMBRE: la página libre 5000 cae fuera del fichero",
                [&] { update->insert(0, paddedKey("K000100", 20), 100); });
  EXPECT_EQ(update->verify(0), "");
  update->flush();
  EXPECT_EQ(readFile(path), before);
  EXPECT_EQ(walked(path, 0), numbered(42));
}

TEST_F(MdxUpdateTest, RefusesNodesClaimingMoreKeysThanFit) {
  path = dir.file("ROTO.MDX");
  writeMdx(path, "ROTO", 0x1B, {{"NOMBRE", "NOMBRE", "", 'C', 20, false, false, numbered(10)}});
  const MdxTagInfo info = MdxFile::open(path)->tags()[0];
  patch32(path, size_t(info.rootPage) * 512, 500);
  const std::string before = readFile(path);
  auto update = MdxUpdate::open(path);
  update->setOrder(0, orderFor(0x1B, 'C', false));
  expectCorrupt("dice tener 500 claves", [&] { update->insert(0, paddedKey("A", 20), 11); });
  expectCorrupt("dice tener 500 claves", [&] { update->containsKey(0, paddedKey("A", 20)); });
  update->flush();
  EXPECT_EQ(readFile(path), before);
}

TEST_F(MdxUpdateTest, VerifyNamesAnInteriorKeyThatIsNotItsChildsHighest) {
  path = dir.file("MAL.MDX");
  writeMdx(path, "MAL", 0x1B, {{"NOMBRE", "NOMBRE", "", 'C', 20, false, false, numbered(500)}});
  const MdxTagInfo info = MdxFile::open(path)->tags()[0];
  {
    auto update = MdxUpdate::open(path);
    update->setOrder(0, orderFor(0x1B, 'C', false));
    EXPECT_EQ(update->verify(0), "");
  }
  std::string bytes = readFile(path);
  bytes[size_t(info.rootPage) * 512 + 8 + 4 + 6] = '0';  // the root's first key, K0000xx -> K0000x0
  writeFile(path, bytes);
  auto update = MdxUpdate::open(path);
  update->setOrder(0, orderFor(0x1B, 'C', false));
  const std::string fault = update->verify(0);
  EXPECT_NE(fault.find("key 0 is not the highest key under page"), std::string::npos) << fault;
}

TEST_F(MdxUpdateTest, RefusesKeysOfAnotherLengthAndTagsWithoutAnOrder) {
  path = dir.file("CORTO.MDX");
  writeMdx(path, "CORTO", 0x1B, {{"NOMBRE", "NOMBRE", "", 'C', 20, false, false, numbered(10)}});
  auto update = MdxUpdate::open(path);
  try {
    update->insert(0, paddedKey("A", 20), 1);
    FAIL() << "a tag without an order was changed";
  } catch (const Error& e) {
    EXPECT_EQ(int(e.kind()), int(ErrorKind::State));
  }
  update->setOrder(0, orderFor(0x1B, 'C', false));
  try {
    update->insert(0, "SHORT", 1);
    FAIL() << "a short key was taken";
  } catch (const Error& e) {
    EXPECT_EQ(int(e.kind()), int(ErrorKind::InvalidArgument));
  }
  EXPECT_THROW(update->insert(0, paddedKey("A", 20), 0), Error);
  EXPECT_THROW(update->insert(3, paddedKey("A", 20), 1), Error);
}

TEST_F(MdxUpdateTest, RefusesToOpenAFileThatIsNotAnIndex) {
  path = dir.file("NADA.MDX");
  writeFile(path, std::string(600, 'x'));
  expectCorrupt("NADA.MDX", [&] { MdxUpdate::open(path); });
  try {
    MdxUpdate::open(dir.file("FALTA.MDX"));
    FAIL() << "a missing file was opened";
  } catch (const Error& e) {
    EXPECT_EQ(int(e.kind()), int(ErrorKind::Io));
    EXPECT_NE(std::string(e.what()).find("FALTA.MDX"), std::string::npos);
  }
}

// The nodes an insert reads have most of their entries never compared: only
// the order keys a search through a node meets are worked out.
TEST_F(MdxUpdateTest, AnInsertWorksOutOnlyTheOrderKeysItsSearchCompares) {
  path = dir.file("PEREZOSO.MDX");
  writeMdx(path, "PEREZOSO", 0x1B, {{"NOMBRE", "NOMBRE", "", 'C', 20, false, false, numbered(20000)}});
  auto update = MdxUpdate::open(path);
  size_t worked = 0;
  const auto order = orderFor(0x1B, 'C', false);
  update->setOrder(0, [&](std::string_view stored, std::string& out) {
    ++worked;
    order(stored, out);
  });
  Model model(order);
  for (const auto& [key, recno] : numbered(20000)) model.insert(key, recno);
  for (uint32_t r = 20001; r <= 20100; ++r) {
    char text[16];
    std::snprintf(text, sizeof text, "K%06u", uint32_t(rng() % 20000));
    update->insert(0, paddedKey(text, 20), r);
    model.insert(paddedKey(text, 20), r);
  }
  // A node of 1 KB holds 42 keys of 20 bytes; a search compares about six.
  const size_t nodes = update->cachedNodes();
  EXPECT_GT(nodes, 50u);
  EXPECT_LT(worked, nodes * 14) << "order keys of " << nodes << " nodes";
  EXPECT_EQ(update->verify(0), "");
  update->flush();
  EXPECT_EQ(walked(path, 0), model.entries());
}

// Rows appended together go in sorted by key; the tree comes out as inserting
// them one by one in record order would make it, unique tags included.
TEST_F(MdxUpdateTest, RowsAppendedTogetherGoInAsOneByOneInRecordOrder) {
  makeIndex(800);
  const std::string copy = dir.file("COPIA.MDX");
  std::filesystem::copy_file(path, copy);
  auto together = openWithOrders();
  auto oneByOne = MdxUpdate::open(copy);
  for (size_t t = 0; t < oneByOne->tags().size(); ++t) {
    const MdxTagInfo& info = oneByOne->tags()[t];
    oneByOne->setOrder(t, orderFor(0x14, info.keyType, info.descending));
  }
  for (int batch = 0; batch < 6; ++batch) {
    const bool unique = batch % 2 == 1;
    std::vector<uint32_t> recnos;
    std::array<std::string, 3> keys;
    for (int i = 0; i < 300; ++i) {
      const uint32_t r = next++;
      // Every fourth row repeats a key just written, or one the table holds.
      std::string name = i % 4 == 3 ? keysOf[r - 1 - rng() % 3][0] : randomKey(), amount;
      ASSERT_TRUE(appendBcdText(randomAmount(), amount));
      keysOf[r] = {name, name, amount};
      recnos.push_back(r);
      for (size_t t = 0; t < 3; ++t) keys[t] += keysOf[r][t];
    }
    for (size_t t = 0; t < 3; ++t) {
      together->insertAppended(t, keys[t], recnos, unique);
      for (uint32_t r : recnos) {
        if (unique && oneByOne->containsKey(t, keysOf[r][t])) continue;
        oneByOne->insert(t, keysOf[r][t], r);
      }
    }
    together->flush();
    oneByOne->flush();
    for (size_t t = 0; t < 3; ++t) {
      EXPECT_EQ(together->verify(t), "") << together->tags()[t].name;
      EXPECT_EQ(walked(path, t), walked(copy, t)) << together->tags()[t].name << " batch " << batch;
      expectHeadersMatchTree(path, together->tags()[t], together->blockBytes() / 512);
    }
  }
  EXPECT_THROW(together->insertAppended(0, "SHORT", {next}, false), Error);
}

// Long runs of batches, removals and a cache trimmed to almost nothing now and
// then: the tree stays in order, read from the file and from memory.
TEST_F(MdxUpdateTest, BatchesRemovalsAndATrimmedCacheKeepEveryTagInOrder) {
  makeIndex(1200);
  auto update = openWithOrders();
  for (int round = 0; round < 12; ++round) {
    std::vector<uint32_t> recnos;
    std::array<std::string, 3> keys;
    const int rows = int(rng() % 400);
    for (int i = 0; i < rows; ++i) {
      const uint32_t r = next++;
      std::string name = randomKey(), amount;
      ASSERT_TRUE(appendBcdText(randomAmount(), amount));
      keysOf[r] = {name, name, amount};
      recnos.push_back(r);
      live.push_back(r);
      for (size_t t = 0; t < 3; ++t) {
        keys[t] += keysOf[r][t];
        models[t].insert(keysOf[r][t], r);
      }
    }
    for (size_t t = 0; t < 3; ++t) update->insertAppended(t, keys[t], recnos, false);
    for (int i = int(rng() % 300); i > 0 && live.size() > 10; --i) removeRow(*update);
    if (round % 3 == 2) update->trimCache(rng() % 8);
    update->flush();
    if (round % 4 == 3) update->trimCache(0);
    expectIndexMatchesModels(*update);
  }
}

// Trimming keeps the interior nodes every path goes through and drops
// unchanged leaves until half the allowance is left.
TEST_F(MdxUpdateTest, TrimmingTheCacheDropsUnchangedLeavesOnly) {
  path = dir.file("PODA.MDX");
  writeMdx(path, "PODA", 0x1B, {{"NOMBRE", "NOMBRE", "", 'C', 20, false, false, numbered(20000)}});
  auto update = MdxUpdate::open(path);
  update->setOrder(0, orderFor(0x1B, 'C', false));
  EXPECT_EQ(update->verify(0), "");  // reads every node
  const size_t all = update->cachedNodes();
  ASSERT_GT(all, 400u);
  const size_t bytesAll = update->memoryBytes();
  EXPECT_GT(bytesAll, all * 1024) << "at least a block's worth for each node";
  // More entries than the leaf has free slots: it splits in two, once.
  for (uint32_t r = 20001; r <= 20006; ++r) update->insert(0, paddedKey("K000500", 20), r);
  ASSERT_EQ(update->cachedNodes(), all + 1);
  update->trimCache(all + 1);
  EXPECT_EQ(update->cachedNodes(), all + 1) << "within the allowance nothing goes";
  update->trimCache(100);
  EXPECT_LE(update->cachedNodes(), 50u);
  update->trimCache(0);
  // About 530 leaves under fifteen interior nodes: those and the two halves
  // of the leaf split stay.
  const size_t kept = update->cachedNodes();
  EXPECT_GE(kept, 2u + 12u);
  EXPECT_LT(kept, 2u + 20u);
  EXPECT_LT(update->memoryBytes(), bytesAll / 10);
  update->flush();
  auto expected = numbered(20000);
  for (uint32_t r = 20006; r >= 20001; --r) expected.insert(expected.begin() + 500, {paddedKey("K000500", 20), r});
  EXPECT_EQ(walked(path, 0), expected);
  EXPECT_EQ(update->verify(0), "");
}

}  // namespace
