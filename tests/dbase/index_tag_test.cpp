// Index tags against the plain definition of their order: rows sorted by
// their keys (sort_key.h) compared as bytes, equal keys by record number.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"
#include "dbase/core/index_tag.h"
#include "dbase/core/sort_key.h"
#include "dbase/core/tag_set.h"
#include "support/tables.h"
#include "support/temp_dir.h"

using namespace dbase;
using namespace testsupport;

namespace {

// The live rows in (key, record number) order, worked out the slow way.
std::vector<uint32_t> expectedOrder(const DbfFile& file, const std::vector<int>& fields) {
  std::vector<std::pair<std::string, uint32_t>> keyed;
  for (uint32_t r = 1; r <= file.recordCount(); ++r) {
    if (file.isDeleted(r)) continue;
    std::string key;
    appendRecordKey(file, fields, file.record(r), key);
    keyed.push_back({key, r});
  }
  std::sort(keyed.begin(), keyed.end());
  std::vector<uint32_t> out;
  for (const auto& k : keyed) out.push_back(k.second);
  return out;
}

std::vector<uint32_t> tagOrder(IndexTag& tag) {
  std::vector<uint32_t> out;
  tag.appendAll(out);
  return out;
}

// Every way of asking the tag where a row is agrees with its order.
void expectConsistent(const DbfFile& file, IndexTag& tag, const std::vector<int>& fields) {
  const std::vector<uint32_t> expected = expectedOrder(file, fields);
  ASSERT_EQ(tagOrder(tag), expected);
  ASSERT_EQ(tag.size(), expected.size());
  for (size_t rank = 0; rank < expected.size(); rank += 1 + rank / 50) {
    ASSERT_EQ(tag.recnoAt(rank), expected[rank]) << "rank " << rank;
    ASSERT_EQ(tag.rankOf(expected[rank]), rank) << "row " << expected[rank];
    std::string key;
    appendRecordKey(file, fields, file.record(expected[rank]), key);
    ASSERT_EQ(tag.keyOf(expected[rank]), key);
    const size_t first = tag.lowerBound(key);
    ASSERT_LE(first, rank);
    ASSERT_EQ(tag.keyOf(tag.recnoAt(first)), key);
    if (first > 0) {
      ASSERT_LT(tag.keyOf(tag.recnoAt(first - 1)), key);
    }
  }
}

class IndexTagTest : public ::testing::Test {
 protected:
  void SetUp() override {
    file = makeTable(dir.path(), "CALLES.DBF",
                     {charField("PROVINCIA", 12), charField("VIA", 14), numField("NUM", 7), logicalField("CAPITAL"),
                      dateField("ALTA"), numField("SUPERF", 9, 2)},
                     {});
  }
  std::string randomName() {
    static const char* pieces[] = {"A", "B", "C", "CH", "D", "L", "LL", "M", "N", "Ñ", "O", "Á", "á", " ", "a", "-", "Ç", "ß"};
    std::string s;
    const int n = 1 + int(random() % 6);
    for (int i = 0; i < n; ++i) s += pieces[random() % (sizeof pieces / sizeof *pieces)];
    return s;
  }
  std::string randomRow(int province) {
    std::string r = file->blankRecord();
    auto set = [&](const char* field, const std::string& text) {
      setFieldText(file->field(field), r.data(), text, file->codePage(), "T");
    };
    set("PROVINCIA", "PROV " + std::to_string(province));
    set("VIA", randomName());
    if (random() % 7) set("NUM", std::to_string(int(random() % 200) - 20));
    set("CAPITAL", random() % 3 == 0 ? "" : random() % 2 ? "T" : "F");
    if (random() % 5) set("ALTA", "20" + std::to_string(10 + random() % 15) + "0" + std::to_string(1 + random() % 9) + "15");
    if (random() % 4) set("SUPERF", std::to_string(random() % 50) + "." + std::to_string(random() % 100));
    if (random() % 11 == 0) r[0] = '*';
    return r;
  }
  std::vector<int> fields(std::initializer_list<const char*> names) {
    std::vector<int> out;
    for (auto n : names) out.push_back(file->fieldIndex(n));
    return out;
  }
  TempDir dir;
  std::shared_ptr<DbfFile> file;
  std::mt19937 random{11};
};

}  // namespace

TEST_F(IndexTagTest, BuiltOrderIsTheOrderOfTheKeysWithEveryFieldType) {
  std::string rows;
  for (int i = 0; i < 3000; ++i) rows += randomRow(1 + i % 2);
  file->appendMany(rows);
  for (auto names : {std::vector<const char*>{"VIA"}, {"NUM"}, {"CAPITAL"}, {"ALTA"}, {"SUPERF"},
                     {"PROVINCIA", "CAPITAL", "VIA", "NUM"}, {"NUM", "VIA", "NUM"}, {"ALTA", "SUPERF", "VIA"}}) {
    std::vector<int> f;
    for (auto n : names) f.push_back(file->fieldIndex(n));
    SCOPED_TRACE(names.front());
    expectConsistent(*file, TagSet::of(*file).tag(f), f);
  }
}

TEST_F(IndexTagTest, ManyDistinctValuesAndWideCompoundKeysKeepTheOrder) {
  // Over 65,536 distinct keys in one field, and three fields whose ranks do
  // not fit 32 bits together.
  std::string rows;
  for (int i = 0; i < 70000; ++i) {
    std::string r = file->blankRecord();
    setFieldNumber(file->field("NUM"), r.data(), double((i * 7919) % 70001), "T");
    setFieldText(file->field("VIA"), r.data(), std::to_string((i * 31) % 4099), file->codePage(), "T");
    setFieldText(file->field("PROVINCIA"), r.data(), std::to_string((i * 17) % 4001), file->codePage(), "T");
    setFieldNumber(file->field("SUPERF"), r.data(), double((i * 13) % 4003), "T");
    rows += r;
  }
  file->appendMany(rows);
  expectConsistent(*file, TagSet::of(*file).tag(fields({"NUM"})), fields({"NUM"}));
  expectConsistent(*file, TagSet::of(*file).tag(fields({"VIA", "PROVINCIA", "SUPERF"})), fields({"VIA", "PROVINCIA", "SUPERF"}));
}

TEST_F(IndexTagTest, AppendsEditsAndDeletionsKeepTheOrder) {
  std::string rows;
  for (int i = 0; i < 2000; ++i) rows += randomRow(1);
  file->appendMany(rows);
  const auto compound = fields({"PROVINCIA", "CAPITAL", "VIA", "NUM"});
  const auto name = fields({"VIA"});
  IndexTag& byCompound = TagSet::of(*file).tag(compound);
  IndexTag& byName = TagSet::of(*file).tag(name);
  ASSERT_GT(byCompound.size(), 0u);
  ASSERT_GT(byName.size(), 0u);
  for (int i = 0; i < 3000; ++i) {
    // Mostly the same province (every key shares its start), now and then another.
    const int province = i % 500 == 499 ? 2 + i / 500 : 1;
    const std::string row = randomRow(province);
    if (i % 4 == 0)
      file->update(1 + random() % file->recordCount(), row);
    else
      file->append(row);
    if (i % 50 == 0) {  // a cursor looking for the row it was on
      const uint32_t last = file->recordCount();
      if (!file->isDeleted(last)) {
        ASSERT_EQ(byCompound.recnoAt(byCompound.rankOf(last)), last);
      }
    }
  }
  expectConsistent(*file, byCompound, compound);
  expectConsistent(*file, byName, name);
}

TEST_F(IndexTagTest, RowsWithTheSameKeyAsOthersJoinTheEndOfTheirRun) {
  std::string rows;
  for (int i = 0; i < 1500; ++i) {
    std::string r = file->blankRecord();
    setFieldText(file->field("VIA"), r.data(), i % 3 ? "MAYOR" : "REAL", file->codePage(), "T");
    rows += r;
  }
  file->appendMany(rows);
  const auto name = fields({"VIA"});
  IndexTag& tag = TagSet::of(*file).tag(name);
  for (int i = 0; i < 600; ++i) {  // enough to split the chunks the run lies in
    std::string r = file->blankRecord();
    setFieldText(file->field("VIA"), r.data(), "MAYOR", file->codePage(), "T");
    const uint32_t recno = file->append(r);
    ASSERT_EQ(tag.rankOf(recno), 1000u + size_t(i));  // after every earlier MAYOR
  }
  expectConsistent(*file, tag, name);
}

TEST_F(IndexTagTest, TagOfATableWithoutRowsTakesItsFirstRows) {
  const auto name = fields({"VIA"});
  IndexTag& tag = TagSet::of(*file).tag(name);
  EXPECT_EQ(tag.size(), 0u);
  for (int i = 0; i < 300; ++i) file->append(randomRow(1));
  expectConsistent(*file, tag, name);
}

TEST_F(IndexTagTest, ATagNobodyAsksTakesTheRowsAppendedMeanwhileWhenNextAsked) {
  std::string rows;
  for (int i = 0; i < 3000; ++i) rows += randomRow(1);
  file->appendMany(rows);
  const auto name = fields({"VIA"});
  const auto number = fields({"NUM", "VIA"});
  IndexTag& byName = TagSet::of(*file).tag(name);
  IndexTag& byNumber = TagSet::of(*file).tag(number);
  ASSERT_GT(byName.size() + byNumber.size(), 0u);
  // A few hundred rows: the last ones wait, and are placed one by one.
  for (int i = 0; i < 400; ++i) file->append(randomRow(1));
  file->update(3100, randomRow(1));  // placed already
  file->update(3390, randomRow(1));  // still waiting
  expectConsistent(*file, byName, name);
  // Many more than the tag holds an eighth of: built again.
  for (int i = 0; i < 2000; ++i) file->append(randomRow(i % 3 ? 1 : 2));
  for (int i = 0; i < 20; ++i) file->update(1 + random() % file->recordCount(), randomRow(3));
  expectConsistent(*file, byName, name);
  expectConsistent(*file, byNumber, number);
}
