#include "PI/frontend/names/Dictionary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace pi::fe::proto {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

TEST(Dictionary, ANumberStaysWhileItIsHeldAndIsNotGivenOutAgain) {
  Dictionary ports("port_t");
  const auto first = ports.hold("a");
  ASSERT_TRUE(first && first->isNew);
  EXPECT_GE(first->number, Dictionary::kFirstGiven);
  EXPECT_EQ(ports.hold("a")->number, first->number);
  ports.release(first->number);
  EXPECT_EQ(ports.name(first->number), "a") << "held once more";
  ports.release(first->number);
  EXPECT_EQ(ports.size(), 0u);
  EXPECT_FALSE(ports.holdKnown("a"));
  EXPECT_EQ(ports.name(first->number), std::to_string(first->number));
  EXPECT_GT(ports.hold("a")->number, first->number);
}

TEST(Dictionary, AStoredPairStaysUntilItsRowIsDeleted) {
  Dictionary ports("port_t");
  const uint32_t number = ports.hold("a")->number;
  ports.storedIs(number, true);
  EXPECT_FALSE(ports.hold("a")->isNew);
  ports.release(number);
  EXPECT_THAT(ports.leaving(), IsEmpty());
  ports.release(number);
  ASSERT_THAT(ports.leaving(), SizeIs(1));
  EXPECT_THAT(ports.leaving(), IsEmpty()) << "it is told once";

  const auto again = ports.hold("a");  // while the row is being deleted
  EXPECT_EQ(again->number, number);
  EXPECT_TRUE(again->isNew);
  ports.storedIs(number, false);
  EXPECT_EQ(ports.name(number), "a");
  EXPECT_FALSE(ports.isStored(number));

  ports.storedIs(number, true);
  ports.release(number);
  ASSERT_THAT(ports.leaving(), SizeIs(1));
  ports.storedIs(number, true);  // the deletion failed
  EXPECT_THAT(ports.leaving(), SizeIs(1)) << "the next Write tries again";
}

TEST(Dictionary, ReadingsSeeTheNamesThatStoodWhenTheyBegan) {
  Dictionary ports("port_t");
  const uint32_t before = ports.hold("before")->number;
  std::optional<Dictionary::Reading> reading(ports);
  const uint32_t after = ports.hold("after")->number;
  ports.release(before);
  ports.release(after);
  EXPECT_EQ(ports.name(before), "before");
  EXPECT_FALSE(ports.hasName(after)) << "no entry of the reading has it";
  EXPECT_FALSE(ports.number("before"));
  EXPECT_NE(ports.hold("before")->number, before);
  { const Dictionary::Reading later(ports); }
  EXPECT_EQ(ports.name(before), "before");
  reading.reset();
  EXPECT_FALSE(ports.hasName(before));
}

TEST(Dictionary, FixedAndRestoredPairsKeepTheirNumbers) {
  Dictionary ports("port_t");
  EXPECT_TRUE(ports.restoredIs(0x80000005, "five"));
  EXPECT_FALSE(ports.restoredIs(0x80000005, "six"));
  using Fault = Dictionary::Fault;
  EXPECT_THAT(ports.fixedAre({{7, "Ethernet7"}, {8, "five"}, {7, "Ethernet8"}}),
              testing::ElementsAre(Fault::none, Fault::nameIsTaken, Fault::numberIsTaken));
  EXPECT_EQ(ports.hold("Ethernet7")->number, 7u);
  ports.release(7);
  EXPECT_EQ(ports.number("Ethernet7"), 7u);
  EXPECT_THAT(ports.fixedAre({{8, "Ethernet7"}}), testing::ElementsAre(Fault::none));
  EXPECT_EQ(ports.number("Ethernet7"), 8u) << "nothing used it";
  EXPECT_GT(ports.hold("new")->number, 0x80000005);
  EXPECT_THAT(ports.leaving(), SizeIs(1)) << "nobody has held the restored one";
}

TEST(Dictionary, HasRoomForSoManyNames) {
  Dictionary ports("port_t");
  for (size_t i = 0; i < Dictionary::kMostNames; ++i) ASSERT_TRUE(ports.hold(std::to_string(i)));
  EXPECT_FALSE(ports.hold("one more"));
  EXPECT_TRUE(ports.hold("1"));
  ports.release(Dictionary::kFirstGiven);
  EXPECT_TRUE(ports.hold("one more"));
}

TEST(Dictionary, ThreadsAgreeOnNumbers) {
  Dictionary ports("port_t");
  std::atomic<int> wrong = 0;
  const auto work = [&](int seed) {
    for (int i = 0; i < 5000; ++i) {
      const std::string name = "p" + std::to_string((i * 7 + seed) % 16);
      const Dictionary::Reading reading(ports);
      const auto held = ports.hold(name);
      wrong += ports.name(held->number) != name || ports.number(name) != held->number;
      ports.release(held->number);
      const std::string then = ports.name(held->number);
      wrong += then != name && then != std::to_string(held->number);
    }
  };
  std::vector<std::thread> threads;
  for (int seed = 0; seed < 4; ++seed) threads.emplace_back(work, seed);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(ports.size(), 0u);
}

}  // namespace
}  // namespace pi::fe::proto
