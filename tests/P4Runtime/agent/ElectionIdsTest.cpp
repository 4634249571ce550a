// Election ids in the store, across restarts and when there is no room
// or a batch is open.
#include "P4Runtime/agent/ElectionIds.h"

#include <future>

#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using std::string_literals::operator""s;
using testing::ElementsAre;
using testing::Pair;

class ElectionIdsTest : public AgentTest {
 protected:
  ElectionIdsTest() { make(); }
  void make() {
    ids_ = std::make_unique<ElectionIds>(*agent().store,
                                         [this] { return agent().database->inBatch(); });
  }
  std::map<RoleKey, ElectionNumber> afterRestart() {
    ids_.reset();
    start();
    make();
    const Vela::ActivityLock lock;
    return ids_->kept();
  }
  // One commit; false when it finds no room.
  bool store(int number) {
    const std::string key = std::to_string(number);
    const std::string value(2000, 'x');
    const Vela::ActivityLock lock;
    try {
      agent().store->put(agent().store->table("filler"), Brine::asBytes(key),
                         Brine::asBytes(value));
      return true;
    } catch (const Brine::StoreError&) {
      return false;
    }
  }

  std::unique_ptr<ElectionIds> ids_;
};

TEST_F(ElectionIdsTest, AreThereAfterARestart) {
  EXPECT_TRUE(ids_->idIs({1, ""}, {0, 7}));
  EXPECT_TRUE(ids_->idIs({1, "routing"}, {2, 1}));
  EXPECT_TRUE(ids_->idIs({~uint64_t{0}, "gone"}, {0, 1}));
  EXPECT_TRUE(ids_->idIs({1, ""}, {3, 8}));
  EXPECT_TRUE(ids_->idDel({~uint64_t{0}, "gone"}));
  EXPECT_THAT(afterRestart(), ElementsAre(Pair(RoleKey{1, ""}, ElectionNumber{3, 8}),
                                          Pair(RoleKey{1, "routing"}, ElectionNumber{2, 1})));
}

// A batch that fails takes everything along that was written within it.
TEST_F(ElectionIdsTest, DoNotShareTheFateOfABatch) {
  agent().failCommits();
  agent().begin();
  agent().add(0, exactEntry(1));
  auto kept = std::async(std::launch::async, [this] { return ids_->idIs({1, ""}, {0, 7}); });
  agent().end();
  EXPECT_TRUE(kept.get());
  EXPECT_EQ(agent().outcome().size(), 1u);
  EXPECT_THAT(afterRestart(), ElementsAre(Pair(RoleKey{1, ""}, ElectionNumber{0, 7})));
}

TEST_F(ElectionIdsTest, AreKeptLaterWhenThereIsNoRoomNow) {
  EXPECT_TRUE(ids_->idIs({1, ""}, {0, 7}));
  int number = 0;
  while (store(number)) ASSERT_LT(++number, 100'000);
  // Small records find room for a while.
  uint64_t id = 8;
  while (ids_->idIs({id, std::string(2000, 'r')}, {0, id})) ASSERT_LT(++id, 100'000u);
  EXPECT_EQ(ids_->keepUnkept(), 1u);
  {
    const Vela::ActivityLock lock;
    agent().store->eraseAll(agent().store->table("filler"));
  }
  EXPECT_EQ(ids_->keepUnkept(), 0u);
  EXPECT_EQ(afterRestart().size(), id - 6);
}

TEST(ElectionIdRecord, IsReadAsItWasWrittenAndRefusedAtEveryOtherLength) {
  const std::string key = electionIdKey({0x0102, "r"});
  const std::string value = electionIdValue({3, 0x0405});
  EXPECT_EQ(key, "\0\0\0\0\0\0\x01\x02r"s);
  EXPECT_EQ(value, "\x03\0\0\0\0\0\0\0\x05\x04\0\0\0\0\0\0"s);
  EXPECT_EQ(roleOfRecord(Brine::asBytes(key)), (RoleKey{0x0102, "r"}));
  EXPECT_EQ(electionIdOfRecord(Brine::asBytes(value)), (ElectionNumber{3, 0x0405}));
  for (size_t size = 0; size < 8; ++size) {
    EXPECT_FALSE(roleOfRecord(Brine::asBytes(key).first(size)));
  }
  for (size_t size = 0; size < 16; ++size) {
    EXPECT_FALSE(electionIdOfRecord(Brine::asBytes(value).first(size)));
  }
  EXPECT_FALSE(electionIdOfRecord(Brine::asBytes(value + "x")));
}

}  // namespace
}  // namespace P4Runtime
