// The ordered rows both kinds of tag keep, against a plain sorted list of
// (key, record number): ranks, searches and membership after long runs of
// inserts and removals that split and empty chunks.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "dbase/core/ordered_keys.h"

using dbase::OrderedKeys;

namespace {

using Reference = std::set<std::pair<std::string, uint32_t>>;

// Keys sharing a long prefix (as a province's streets do), few distinct
// values so that runs of equal keys cross chunk boundaries.
std::string keyFor(std::mt19937& rng) {
  std::string key = "28S";
  key += char('A' + rng() % 6);
  key += char('A' + rng() % 4);
  if (rng() % 3 == 0) key += std::string(size_t(rng() % 12), char('a' + rng() % 26));
  return key;
}

void expectSame(OrderedKeys& keys, const Reference& reference) {
  ASSERT_EQ(keys.size(), reference.size());
  std::vector<uint32_t> all;
  keys.appendAll(all);
  size_t rank = 0;
  for (const auto& [key, recno] : reference) {
    ASSERT_EQ(all[rank], recno) << "rank " << rank;
    ASSERT_EQ(keys.recnoAt(rank), recno);
    ASSERT_EQ(keys.rankOf(recno), rank);
    ASSERT_EQ(keys.keyOf(recno), key);
    ++rank;
  }
}

TEST(OrderedKeys, RandomInsertsAndRemovalsKeepTheOrderOfKeyThenRecordNumber) {
  std::mt19937 rng(20261124);
  OrderedKeys keys("PRUEBA.DBF");
  keys.clear(0);
  Reference reference;
  std::vector<std::string> keyOf(4001);
  for (int step = 0; step < 6000; ++step) {
    const uint32_t recno = 1 + rng() % 4000;
    const bool held = reference.count({keyOf[recno], recno}) != 0;
    if (held && rng() % 2) {
      ASSERT_TRUE(keys.remove(recno));
      reference.erase({keyOf[recno], recno});
      keys.forgetKey(recno);
    } else if (!held) {
      keyOf[recno] = keyFor(rng);
      keys.setKey(recno, keyOf[recno]);
      keys.insert(recno);
      reference.insert({keyOf[recno], recno});
    }
    if (step % 500 == 0) expectSame(keys, reference);
  }
  expectSame(keys, reference);
}

TEST(OrderedKeys, LowerBoundIsTheFirstRankNotBeforeTheKey) {
  std::mt19937 rng(7);
  OrderedKeys keys("PRUEBA.DBF");
  keys.clear(3000);
  Reference reference;
  std::vector<uint32_t> order;
  for (uint32_t recno = 1; recno <= 3000; ++recno) {
    const std::string key = keyFor(rng);
    keys.setRef(recno, keys.store(key));
    reference.insert({key, recno});
  }
  for (const auto& entry : reference) order.push_back(entry.second);
  keys.assign(order);
  expectSame(keys, reference);
  for (int i = 0; i < 500; ++i) {
    std::string probe = keyFor(rng);
    probe.resize(std::min(probe.size(), size_t(1 + rng() % 6)));
    const auto first = reference.lower_bound({probe, 0});
    EXPECT_EQ(keys.lowerBound(probe), size_t(std::distance(reference.begin(), first))) << probe;
  }
  EXPECT_EQ(keys.lowerBound("~"), keys.size());
  EXPECT_EQ(keys.lowerBound(""), 0u);
}

TEST(OrderedKeys, AKeyIsHeldByAnotherRowOnlyWhenAnotherRowHasItExactly) {
  OrderedKeys keys("PRUEBA.DBF");
  keys.clear(400);
  // 300 rows of one key span several chunks; then one row of a longer key.
  for (uint32_t recno = 1; recno <= 300; ++recno) {
    keys.setKey(recno, "28SALCALA");
    keys.insert(recno);
  }
  keys.setKey(301, "28SALCALAS");
  keys.insert(301);
  EXPECT_TRUE(keys.heldByAnother("28SALCALA", 1));
  EXPECT_TRUE(keys.heldByAnother("28SALCALA", 300));
  EXPECT_TRUE(keys.heldByAnother("28SALCALA", 999));
  EXPECT_FALSE(keys.heldByAnother("28SALCALAS", 301));
  EXPECT_TRUE(keys.heldByAnother("28SALCALAS", 302));
  EXPECT_FALSE(keys.heldByAnother("28SALCAL", 1));
  EXPECT_FALSE(keys.heldByAnother("28SB", 1));
  for (uint32_t recno = 2; recno <= 300; ++recno) ASSERT_TRUE(keys.remove(recno));
  EXPECT_FALSE(keys.heldByAnother("28SALCALA", 1));
  EXPECT_TRUE(keys.heldByAnother("28SALCALA", 2));
}

TEST(OrderedKeys, RemovingARowNotHeldChangesNothing) {
  OrderedKeys keys("PRUEBA.DBF");
  keys.clear(10);
  keys.setKey(1, "A");
  keys.insert(1);
  keys.setKey(2, "B");  // a key, but not in the order
  EXPECT_FALSE(keys.remove(2));
  EXPECT_FALSE(keys.remove(9));
  EXPECT_EQ(keys.size(), 1u);
  EXPECT_EQ(keys.rankOf(2), 1u);
  EXPECT_EQ(keys.rankOf(1), 0u);
}

TEST(OrderedKeys, InsertingARowTwiceHoldsItOnce) {
  OrderedKeys keys("PRUEBA.DBF");
  keys.clear(10);
  keys.setKey(3, "X");
  keys.insert(3);
  keys.insert(3);
  EXPECT_EQ(keys.size(), 1u);
}

}  // namespace
