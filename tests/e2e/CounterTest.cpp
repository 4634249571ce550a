// Direct counters: the controller reads the forwarder's counts.
#include <gtest/gtest.h>

#include "tests/e2e/Switch.h"

using namespace TestSupport;

namespace {

class Counters : public testing::Test {
 protected:
  void SetUp() override {
    const Pipeline& router = tested.pipeline();
    ASSERT_TRUE(tested.start());
    ASSERT_TRUE(tested
                    .write({insertOf(Router::member(router, 1, 1)),
                            insertOf(Router::group(router, 1, {{1, 2}})), insertOf(busy.group(1)),
                            insertOf(quiet.group(1)), insertOf(tested.route(1, 1))})
                    .ok());
  }

  void traffic(const std::vector<std::string>& words) {
    std::vector<std::string> arguments{"traffic"};
    arguments.insert(arguments.end(), words.begin(), words.end());
    const CommandResult told = tested.forwarder.ctl(arguments);
    ASSERT_EQ(told.exit.code, 0) << told.error;
  }

  EntitiesOutcome counter(p4::v1::TableEntry key) {
    key.clear_action();
    p4::v1::DirectCounterEntry query;
    *query.mutable_table_entry() = key;
    return tested.controller().read(std::vector{entityOf(query)});
  }
  p4::v1::CounterData count(const p4::v1::TableEntry& entry) {
    const EntitiesOutcome read = counter(entry);
    EXPECT_TRUE(read.status.ok()) << read.status.error_message();
    if (read.entities.size() != 1) return {};
    return read.entities[0].direct_counter_entry().data();
  }
  // Whether more packets than `before` come to be counted.
  bool moves(const p4::v1::TableEntry& entry, int64_t before) {
    return waitUntil([&] { return count(entry).packet_count() > before; },
                     tested.forwarder.process().descriptor());
  }

  Switch tested;
  EntryOf busy = Router::wcmp(tested.pipeline(), 1);
  EntryOf quiet = Router::wcmp(tested.pipeline(), 2);
};

TEST_F(Counters, FollowTheTrafficOfTheirEntryThroughChangesAndRestarts) {
  EXPECT_EQ(count(busy).packet_count(), 0);
  traffic({"header", "wcmp_id=1"});
  traffic({"bytes", "100"});
  traffic({"20000"});
  ASSERT_TRUE(moves(busy, 0));
  ASSERT_TRUE(tested.write({modifyOf(busy.member(1))}).ok());
  ASSERT_TRUE(moves(busy, count(busy).packet_count()));
  const int64_t before = count(busy).packet_count();
  ASSERT_TRUE(tested.restartAgent());
  EXPECT_GE(count(busy).packet_count(), before);
  ASSERT_TRUE(moves(busy, count(busy).packet_count()));
  const p4::v1::CounterData counted = count(busy);
  EXPECT_EQ(counted.byte_count(), counted.packet_count() * 100);
  EXPECT_EQ(count(quiet).packet_count(), 0);
  EXPECT_EQ(count(tested.route(1, 1)).packet_count(), 0);

  traffic({"off"});
  ASSERT_TRUE(tested.write({deleteOf(busy)}).ok());
  EXPECT_EQ(counter(busy).status.error_code(), grpc::UNKNOWN);  // one query, and nothing there
  ASSERT_TRUE(tested.write({insertOf(busy.group(1))}).ok());
  EXPECT_EQ(count(busy).packet_count(), 0);

  tested.forwarder.kill();  // and its counters with it
  ASSERT_TRUE(tested.startForwarder());
  traffic({"header", "wcmp_id=2"});
  traffic({"20000"});
  EXPECT_TRUE(moves(quiet, 0));
  EXPECT_EQ(count(busy).packet_count(), 0);
  EXPECT_EQ(tested.disagreement(), "");
}

}  // namespace
