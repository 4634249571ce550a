// Numbers of entries: the smallest free one, however they come and go.
#include "p4/tables/HandlePool.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace {

TEST(HandlePoolTest, GivesOutTheSmallestFreeNumber) {
  std::mt19937 random(3);
  P4::HandlePool pool;
  std::set<uint32_t> taken, free;
  // Waves: thousands come, thousands go, so that all levels of its words fill and empty.
  for (int step = 0; step < 60000; ++step) {
    const bool comes = taken.empty() || random() % 8 < (step / 10000 % 2 == 0 ? 7u : 1u);
    if (comes) {
      const uint32_t expected = free.empty() ? static_cast<uint32_t>(taken.size()) : *free.begin();
      ASSERT_EQ(pool.take(), expected) << "step " << step;
      taken.insert(expected);
      free.erase(expected);
      continue;
    }
    auto gone = taken.lower_bound(static_cast<uint32_t>(random() % (*taken.rbegin() + 1)));
    free.insert(*gone);
    pool.give(*gone);
    taken.erase(gone);
  }
}

}  // namespace
