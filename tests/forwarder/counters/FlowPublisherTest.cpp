// The counts of rows written by hand, published into a store and read as the agent reads them.
#include "forwarder/counters/FlowPublisher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "platform/lattice/counters/FlowCounters.h"
#include "tests/forwarder/AgentFixture.h"
#include "tests/support/TempDir.h"

namespace Forwarder {
namespace {

using namespace ForwarderTest;
using namespace std::chrono_literals;
using testing::HasSubstr;

class FlowPublisherTest : public AgentFixture {
 protected:
  void publish() {
    do {
      now_ += FlowPublisher::roundInterval;
      publisher_.work(now_, true);
    } while (publisher_.trouble().empty() && publisher_.nextDue());
  }
  void count(uint64_t handle, uint64_t packets) {
    const MatchTable& rows = *agent_.table("route")->rows();
    rows.forEach([&](const StoredRow& row) {
      RowFlow& flow = *rows.flow(row);
      if (flow.entryHandle != handle) return;
      flow.packets += packets;
      agent_.flows().countIs(flow);
    });
  }
  std::optional<uint64_t> packets(uint64_t handle) {
    std::vector<Lattice::FlowCount> found;
    reader_->counts(Lattice::flowCounterName(handle), &found);
    if (found.empty()) return std::nullopt;
    return found[0].packets;
  }

  TestSupport::TempDir state_;
  FlowPublisher::Clock::time_point now_{};
  FlowPublisher publisher_{state_.path(), "main", agent_.flows(),
                           [this] { agent_.republishFlows(); }};
  std::unique_ptr<Lattice::FlowCounterReader> reader_ =
      Lattice::FlowCounterReader::create(state_.path());
};

TEST_F(FlowPublisherTest, WhatIsCountedIsReadAndGoesWithItsRow) {
  route("10.0.0.0", 8, 1);
  route("11.0.0.0", 8, 2, counter({{5000, 50}}));
  publish();
  EXPECT_EQ(packets(1), std::nullopt);
  EXPECT_EQ(packets(2), 50u);
  count(1, 5);
  publish();
  EXPECT_EQ(packets(1), 5u);
  route("10.0.0.0", 8, 7);
  erase(routes(), big(1, 2) + prefix("11.0.0.0", 8));
  publish();
  EXPECT_EQ(packets(1), std::nullopt);
  EXPECT_EQ(packets(2), std::nullopt);
  count(7, 1);
  publish();
  EXPECT_EQ(packets(7), 1u);
  agent_.tableRemoved(routes());
  publish();
  EXPECT_EQ(packets(7), std::nullopt);
}

TEST_F(FlowPublisherTest, ManyFlowsArePublishedInSlices) {
  for (uint32_t i = 1; i <= 5000; ++i) {
    write(routes(), big(i, 2) + prefix("10.0.0.0", 8), little(8, 4) + counter({{i, i}}), i);
  }
  publisher_.work(now_ += FlowPublisher::roundInterval, true);
  EXPECT_EQ(publisher_.publishedCount(), 1000u);
  publish();
  for (const uint64_t handle : {1, 999, 2500, 5000}) EXPECT_EQ(packets(handle), handle);
}

TEST_F(FlowPublisherTest, AnotherStateDirectoryGetsEveryCount) {
  route("10.0.0.0", 8, 1, counter({{1, 1}}));
  route("11.0.0.0", 8, 2, counter({{2, 2}}));
  publish();
  std::filesystem::remove_all(state_.file("counters"));
  route("12.0.0.0", 8, 3, counter({{3, 3}}));
  publish();
  for (const uint64_t handle : {1, 2, 3}) EXPECT_EQ(packets(handle), handle);
}

TEST_F(FlowPublisherTest, RowsOfASnapshotKeepCountingAndThoseThatAreGoneDoNot) {
  route("10.0.0.0", 8, 1, counter({{1, 1}}));
  route("11.0.0.0", 8, 2, counter({{2, 2}}));
  publish();
  agent_.snapshotBegin();
  route("10.0.0.0", 8, 1, counter({{1, 1}}));
  route("12.0.0.0", 8, 2, counter({{9, 9}}));  // the handle of a row that is gone
  agent_.snapshotEnd();
  publish();
  EXPECT_EQ(packets(1), 1u);
  EXPECT_EQ(packets(2), 9u);
}

TEST_F(FlowPublisherTest, WhatCannotBePublishedIsKept) {
  auto other = Lattice::FlowCounterWriter::create(state_.path(), "main");
  route("10.0.0.0", 8, 1, counter({{1, 1}}));
  publish();
  EXPECT_THAT(publisher_.trouble(), HasSubstr("another process writes"));
  other.reset();
  now_ += 1min;
  publish();
  EXPECT_EQ(publisher_.trouble(), "");
  EXPECT_EQ(packets(1), 1u);
}

}  // namespace
}  // namespace Forwarder
