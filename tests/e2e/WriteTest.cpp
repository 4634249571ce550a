// Writes and reads of a controller, seen through to the forwarder's tables.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <list>
#include <thread>

#include "tests/e2e/Switch.h"

using namespace TestSupport;

namespace {

TEST(Writes, AreVerifiedReadBackAndSurviveARestart) {
  Switch tested;
  ASSERT_TRUE(tested.start());
  auto& controller = tested.controller();
  const View constants = tested.controllerView();  // the pipeline's own entries
  EXPECT_FALSE(constants.empty());
  const auto rule = Router::aclRule(tested.pipeline(), 5);

  ASSERT_TRUE(tested.insertRoutes(0, 10, 1).ok());
  ASSERT_TRUE(controller.write({insertOf(rule)}).ok());
  ASSERT_TRUE(controller.write({modifyOf(tested.route(3, 9)), deleteOf(tested.route(4, 0))}).ok());

  const struct {
    const char* what;
    p4::v1::Update update;
    grpc::StatusCode code;
  } refused[] = {
      {"insert of what is there", insertOf(tested.route(3, 1)), grpc::ALREADY_EXISTS},
      {"modify of what is not", modifyOf(tested.route(4, 1)), grpc::NOT_FOUND},
      {"delete of what is not", deleteOf(tested.route(4, 1)), grpc::NOT_FOUND},
  };
  for (const auto& c : refused) {
    SCOPED_TRACE(c.what);
    const WriteOutcome outcome = controller.write({c.update});
    EXPECT_EQ(outcome.status.error_code(), grpc::UNKNOWN);
    EXPECT_EQ(outcome.code(0), c.code);
  }

  std::vector<p4::v1::TableEntry> expected{rule};
  for (uint32_t i : {0, 1, 2, 3, 5, 6, 7, 8, 9}) {
    expected.push_back(tested.route(i, i == 3 ? 9 : 1));
  }
  View wanted = viewOfEntries(tested.pipeline(), expected);
  wanted.insert(constants.begin(), constants.end());
  EXPECT_EQ(difference("written", wanted, "read", tested.controllerView()), "");
  EXPECT_EQ(tested.disagreement(), "");
  ASSERT_TRUE(tested.restartAgent());
  EXPECT_EQ(difference("written", wanted, "restored", tested.controllerView()), "");
  EXPECT_EQ(tested.disagreement(), "");
}

TEST(Writes, OfABatchSucceedOrFailEachForItself) {
  const std::string failing = Router::rowTable(Router::routeTable) + ":ipv4_dst=0.0.60.0/24";
  Switch tested({.forwarder = {"--fail-key", failing}});
  ASSERT_TRUE(tested.start());
  ASSERT_TRUE(tested.insertRoutes(0, 3, 1).ok());
  std::vector<p4::v1::Update> batch;
  for (uint32_t i = 0; i < 100; ++i) batch.push_back(insertOf(tested.route(i, 2)));
  batch[50] = modifyOf(tested.route(200, 2));  // is not there
  batch[70].mutable_entity()->mutable_table_entry()->clear_action();

  const WriteOutcome outcome = tested.controller().write(batch);
  EXPECT_EQ(outcome.status.error_code(), grpc::UNKNOWN);
  ASSERT_EQ(outcome.errors.size(), batch.size());
  for (uint32_t i = 0; i < 100; ++i) {
    SCOPED_TRACE(testing::Message() << "update " << i);
    if (i < 3) {
      EXPECT_EQ(outcome.code(i), grpc::ALREADY_EXISTS);
    } else if (i == 50) {
      EXPECT_EQ(outcome.code(i), grpc::NOT_FOUND);
    } else if (i == 60) {  // the forwarder's refusal
      EXPECT_THAT(outcome.code(i),
                  testing::Not(testing::AnyOf(grpc::OK, grpc::DEADLINE_EXCEEDED, grpc::UNKNOWN)));
    } else if (i == 70) {
      EXPECT_EQ(outcome.code(i), grpc::INVALID_ARGUMENT);
    } else {
      EXPECT_EQ(outcome.code(i), grpc::OK);
    }
  }
  EXPECT_EQ(tested.routes().entries.size(), 97u);  // 0 to 99 without 50, 60 and 70
  EXPECT_EQ(tested.disagreement(), "");
}

TEST(Writes, OfTenThousandUpdatesGoThroughAsOneBatch) {
  Switch tested({.routeTableSize = 20000});
  ASSERT_TRUE(tested.start());
  const WriteOutcome outcome = tested.insertRoutes(0, 10000, 4);
  EXPECT_TRUE(outcome.ok()) << testing::PrintToString(outcome);
  EXPECT_EQ(tested.routes().entries.size(), 10000u);
  EXPECT_EQ(tested.disagreement(), "");
}

// One Read sees each Write done or not begun: so two routes that always change together never
// differ in an answer, however many entries stand between them.
TEST(Reads, OfAHundredThousandEntriesSeeEachBatchWholeOrNotAtAll) {
  constexpr uint32_t count = 100000;
  Switch tested({.routeTableSize = count + 1000});
  ASSERT_TRUE(tested.start());
  for (uint32_t from = 0; from < count; from += 5000) {
    ASSERT_TRUE(tested.insertRoutes(from, from + 5000, 1).ok());
  }
  std::atomic<bool> reading{true};
  std::atomic<bool> failed{false};
  std::thread writer([&] {
    for (uint32_t nexthop = 2; reading && !failed; ++nexthop) {
      const WriteOutcome outcome = tested.controller().write(
          {modifyOf(tested.route(0, nexthop)), modifyOf(tested.route(count - 1, nexthop))});
      if (!outcome.ok()) failed = true;
    }
  });
  for (int i = 0; i < 5; ++i) {
    const ReadOutcome read = tested.routes();
    EXPECT_TRUE(read.status.ok()) << read.status.error_message();
    EXPECT_EQ(read.entries.size(), count);
    std::set<std::string> nexthops;
    for (const auto& entry : read.entries) {
      const std::string& value = entry.action().action().params(0).value();
      if (value != "\x01") nexthops.insert(value);
    }
    EXPECT_LE(nexthops.size(), 1u);
  }
  reading = false;
  writer.join();
  EXPECT_FALSE(failed);
  EXPECT_EQ(tested.disagreement(), "");
}

// Kilobytes of the process's memory that stand in RAM.
size_t residentKilobytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stoul(line.substr(6));
  }
  return 0;
}

// A Read of the whole switch. The client takes its first message and no other.
struct UntakenRead {
  explicit UntakenRead(p4::v1::P4Runtime::Stub& stub) {
    p4::v1::ReadRequest request;
    request.set_device_id(1);
    request.add_entities()->mutable_table_entry();
    stream = stub.Read(&context, request);
    p4::v1::ReadResponse response;
    EXPECT_TRUE(stream->Read(&response));
  }
  ~UntakenRead() {
    context.TryCancel();
    stream->Finish();
  }
  grpc::ClientContext context;
  std::unique_ptr<grpc::ClientReader<p4::v1::ReadResponse>> stream;
};

// Each used to hold a copy of the table, and the lock that Writes and reports need.
TEST(Reads, ThatNobodyTakesHoldUpNoWriteAndCostLittle) {
  constexpr uint32_t count = 20000;
  Switch tested({.routeTableSize = count + 1000});
  ASSERT_TRUE(tested.start());
  for (uint32_t from = 0; from < count; from += 5000) {
    ASSERT_TRUE(tested.insertRoutes(from, from + 5000, 1).ok());
  }
  const size_t before = residentKilobytes(tested.agent.pid());
  TestController reader(tested.agent.address(), 1);
  std::list<UntakenRead> untaken;
  for (int i = 0; i < 300; ++i) untaken.emplace_back(reader.stub());
  for (uint32_t i = 0; i < 100; ++i) {
    ASSERT_TRUE(tested.insertRoutes(count + i, count + i + 1, 1).ok()) << i;
  }
#ifndef KORVEL_SANITIZED
  EXPECT_LT(residentKilobytes(tested.agent.pid()), before + 300 * 1024);
#endif
  untaken.clear();
  EXPECT_EQ(tested.disagreement(), "");
}

TEST(Arbitration, LetsOnlyTheHighestElectionIdWrite) {
  Switch tested;
  ASSERT_TRUE(tested.start());
  TestController low(tested.agent.address(), 100);
  TestController high(tested.agent.address(), 200);
  ASSERT_EQ(low.arbitrate(), grpc::OK);
  EXPECT_EQ(tested.controller().arbitrationNotice(), grpc::ALREADY_EXISTS);
  ASSERT_EQ(high.arbitrate(), grpc::OK);
  EXPECT_EQ(low.arbitrationNotice(), grpc::ALREADY_EXISTS);

  const auto write = [&](TestController& by) {
    return by.write({insertOf(tested.route(1, 1))}).status.error_code();
  };
  EXPECT_EQ(write(low), grpc::PERMISSION_DENIED);
  EXPECT_EQ(write(high), grpc::OK);
  high.disconnect();
  EXPECT_EQ(low.arbitrationNotice(), grpc::NOT_FOUND);
  EXPECT_EQ(write(low), grpc::PERMISSION_DENIED);  // nobody inherits
  EXPECT_EQ(low.arbitrate(), grpc::NOT_FOUND);
  low.electionIdIs(200);
  EXPECT_EQ(low.arbitrate(), grpc::OK);
  EXPECT_EQ(low.write({modifyOf(tested.route(1, 2))}).status.error_code(), grpc::OK);
  TestController twin(tested.agent.address(), 200);
  EXPECT_EQ(twin.arbitrate(), grpc::INVALID_ARGUMENT);
}

}  // namespace
