#include "quorvel/backend/lru_map.hpp"

#include <gtest/gtest.h>

#include <string>

namespace quorvel {
namespace {

using Map = LruMap<std::pair<size_t, size_t>, std::string>;

void put(Map& m, size_t id, size_t cost) {
  m.access({0, id}) = std::to_string(id);
  m.setCost({0, id}, cost);
}

// Locked entries on top of the capacity, through the instance, are the tile store's test;
// here, what is left once the lock goes.
TEST(LruMap, UnlockingOverBudgetEvictsAtTheNextInsertion) {
  Map m(100);
  put(m, 1, 64);
  m.lock({0, 1});
  m.lock({0, 1});  // locks do not nest
  put(m, 2, 64);
  EXPECT_EQ(m.lockedCost(), 64u);
  m.unlock({0, 1});
  EXPECT_FALSE(m.locked({0, 1}));
  EXPECT_EQ(m.lockedCost(), 0u);
  EXPECT_EQ(m.totalCost(), 128u);
  m.access({0, 4});  // over budget now: the least recently used (1) goes
  EXPECT_FALSE(m.contains({0, 1}));
  EXPECT_TRUE(m.contains({0, 2}));
}

TEST(LruMap, AccessRefreshesRecencyAndCostGrowthNeverEvictsItself) {
  Map m(100);
  put(m, 1, 40);
  put(m, 2, 40);
  m.access({0, 1});  // now 2 is the oldest
  put(m, 3, 40);
  EXPECT_TRUE(m.contains({0, 1}));
  EXPECT_FALSE(m.contains({0, 2}));
  EXPECT_EQ(m.setCost({0, 3}, 500), 40u);  // only entry 1 can go
  EXPECT_FALSE(m.contains({0, 1}));
  EXPECT_TRUE(m.contains({0, 3}));
  EXPECT_EQ(m.setCost({0, 9}, 5), 0u);
}

TEST(LruMap, EraseAndEraseRangeIncludeLockedEntries) {
  Map m(1000);
  for (size_t i = 4; i < 10; ++i) put(m, i, i);
  m.lock({0, 6});
  EXPECT_EQ(m.eraseRange({0, 5}, {0, 8}), 5u + 6 + 7);
  EXPECT_EQ(m.lockedCost(), 0u);
  EXPECT_TRUE(m.contains({0, 8}));
  EXPECT_EQ(m.erase({0, 4}), 4u);
  EXPECT_EQ(m.erase({0, 4}), 0u);
  m.access({0, SIZE_MAX});
  EXPECT_EQ(m.eraseRange({0, 0}, {0, SIZE_MAX}), 8u + 9);
  EXPECT_TRUE(m.contains({0, SIZE_MAX}));
  EXPECT_EQ(m.size(), 1u);
}

}  // namespace
}  // namespace quorvel
