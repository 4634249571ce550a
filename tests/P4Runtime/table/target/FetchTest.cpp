#include <cstring>

#include "PI/int/pi_int.h"
#include "PI/target/pi_tables_imp.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;

class FetchTest : public AgentTest {
 protected:
  // The bytes that a fetch of the table returns.
  std::string fetched(uint32_t table) {
    pi_table_fetch_res_t result{};
    EXPECT_EQ(_pi_table_entries_fetch(0, 1, table, &result), PI_STATUS_SUCCESS);
    entries_ = result.num_entries;
    keySize_ = result.mkey_nbytes;
    const std::string data(result.entries, result.entries_size);
    EXPECT_EQ(_pi_table_entries_fetch_done(0, &result), PI_STATUS_SUCCESS);
    return data;
  }
  static std::string number(uint64_t value, size_t size) {
    return std::string(reinterpret_cast<const char*>(&value), size);
  }

  size_t entries_ = 0;
  size_t keySize_ = 0;
};

TEST_F(FetchTest, LaysEntriesOutWithoutPadding) {
  const uint64_t direct =
      agent().program({meteredTable, bytes("00000009"), setDmac, bytes("665544332211")});
  EXPECT_EQ(fetched(meteredTable), number(direct, 8) + number(0, 4) + bytes("00000009") +
                                       number(1, 4) + number(setDmac, 4) + number(6, 4) +
                                       bytes("665544332211") + number(0, 8));
  EXPECT_EQ(fetched(meteredTable).size(), 42u);
  EXPECT_EQ(entries_, 1u);
  EXPECT_EQ(keySize_, 4u);

  const uint64_t indirect = agent().program(
      {.table = groupTable, .key = bytes("00000003"), .indirectHandle = 0x100000005});
  EXPECT_EQ(fetched(groupTable), number(indirect, 8) + number(0, 4) + bytes("00000003") +
                                     number(2, 4) + number(0x100000005, 8) + number(0, 8));
  EXPECT_EQ(fetched(groupTable).size(), 36u);
}

TEST_F(FetchTest, HasTheEntriesOfTheTableAskedFor) {
  std::string expected;
  for (const uint8_t id : {9, 1, 5}) {
    const Entry entry = exactEntry(id);
    expected += number(agent().program(entry), 8) + number(0, 4) + entry.key + number(1, 4) +
                number(setPort, 4) + number(2, 4) + entry.data + number(0, 8);
  }
  agent().program({aclTable, bytes("0a000000 ff000000 0050 ffff 06"), drop, "", 258});
  EXPECT_EQ(fetched(exactTable), expected);
  EXPECT_EQ(fetched(aclTable).substr(8, 4), number(258, 4));
  for (const uint32_t empty : {route4Table, labelTable, 0u, 0x02ffffffu}) {
    EXPECT_EQ(fetched(empty), "");
    EXPECT_EQ(entries_, 0u);
  }
}

TEST_F(FetchTest, PassesOverWhatCannotBeAnEntry) {
  const uint64_t good = agent().program(exactEntry(1));
  agent().program(exactEntry(2));
  agent().recordBytesAre(exactEntry(2), "\xFF not a record");
  const uint64_t foreign = agent().program(exactEntry(3));
  const uint64_t tooLarge = agent().program(exactEntry(4));
  {
    const Vela::ActivityLock lock;
    TableCache& cache = *agent().tableImpl->tableCache();
    TableCacheEntry record = *cache.cache({{tableResource, exactTable}, foreign});
    record.matchKeyDataIs(7, 1);  // longer than the table's keys
    cache.cacheIs(record);
    record = *cache.cache({{tableResource, exactTable}, tooLarge});
    record.actionDataIs(2047, 1);  // no action of the table is that long
    cache.cacheIs(record);
  }
  EXPECT_EQ(fetched(exactTable).substr(0, 8), number(good, 8));
  EXPECT_EQ(entries_, 1u);
}

}  // namespace
}  // namespace P4Runtime
