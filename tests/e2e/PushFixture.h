// A switch without a pipeline, and the controller that pushes to it.
#pragma once

#include <gmock/gmock.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <iostream>

#include "tests/e2e/Router.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/ForwarderProcess.h"
#include "tests/support/StoredState.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestController.h"
#include "tests/support/Views.h"

namespace TestSupport {

class PushTest : public testing::Test {
 protected:
  using Config = p4::v1::ForwardingPipelineConfig;
  using Get = p4::v1::GetForwardingPipelineConfigRequest;
  using Set = p4::v1::SetForwardingPipelineConfigRequest;

  explicit PushTest(bool isConfigured = false)
      : agent_({.stateDirectory = directory_.file("state"),
                .pipelineFile = isConfigured ? KORVEL_ROUTER_PIPELINE : ""}),
        forwarder_(directory_.file("state")) {}
  ~PushTest() override {
    if (HasFailure()) std::cerr << "---- agent ----\n" << agent_.output();
  }

  void SetUp() override {
    agent_.start();
    forwarder_.start();
    ASSERT_TRUE(forwarder_.waitAttached());
    ASSERT_TRUE(controllerBegins());
  }
  // The agent may still be starting.
  bool controllerBegins() {
    return waitUntil([&] {
      controller_ = std::make_unique<TestController>(agent_.address(), ++electionId_);
      return controller_->waitConnected(std::chrono::milliseconds(100)) &&
             controller_->becomePrimary();
    });
  }
  void restart() {
    agent_.kill();
    startAgain();
  }
  void startAgain() {
    agent_.start();
    ASSERT_TRUE(agent_.waitServing()) << agent_.output();
    ASSERT_TRUE(forwarder_.waitAttached());
    ASSERT_TRUE(controllerBegins());
  }

  // Of the router program, whose route table has room for `routes`.
  Config config(const std::string& device = "", int64_t routes = 10000) {
    Config config;
    *config.mutable_p4info() = router_.p4info();
    for (auto& table : *config.mutable_p4info()->mutable_tables()) {
      if (table.preamble().name() == router_.table(Router::routeTable).preamble().name()) {
        table.set_size(routes);
      }
    }
    config.set_p4_device_config(device);
    return config;
  }
  // With so many more actions of the route table.
  Config extended(Config config, uint32_t actions) {
    for (uint32_t i = 0; i < actions; ++i) {
      auto* preamble = config.mutable_p4info()->add_actions()->mutable_preamble();
      preamble->set_id(addedAction + i);
      preamble->set_name("added_" + std::to_string(i));
      preamble->set_alias(preamble->name());
      for (auto& table : *config.mutable_p4info()->mutable_tables()) {
        if (table.preamble().id() != router_.table(Router::routeTable).preamble().id()) continue;
        table.add_action_refs()->set_id(preamble->id());
      }
    }
    return config;
  }
  grpc::Status pushOf(uint64_t electionId, Set::Action action, const Config* config) {
    Set request;
    request.set_device_id(1);
    request.mutable_election_id()->set_low(electionId);
    request.set_action(action);
    if (config) *request.mutable_config() = *config;
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + patience);
    p4::v1::SetForwardingPipelineConfigResponse response;
    return controller_->stub().SetForwardingPipelineConfig(&context, request, &response);
  }
  grpc::Status push(const Config& config, Set::Action action = Set::VERIFY_AND_COMMIT) {
    return pushOf(electionId_, action, &config);
  }
  grpc::Status commit() { return pushOf(electionId_, Set::COMMIT, nullptr); }
  p4::v1::GetForwardingPipelineConfigResponse get(Get::ResponseType type = Get::ALL) {
    Get request;
    request.set_device_id(1);
    request.set_response_type(type);
    grpc::ClientContext context;
    p4::v1::GetForwardingPipelineConfigResponse response;
    const auto status =
        controller_->stub().GetForwardingPipelineConfig(&context, request, &response);
    EXPECT_TRUE(status.ok()) << status.error_message();
    return response;
  }
  void expectRuns(const Config& expected) {
    const auto found = get();
    EXPECT_TRUE(google::protobuf::util::MessageDifferencer::Equals(found.config(), expected));
  }
  WriteOutcome insertRoutes(uint32_t from, uint32_t to) {
    std::vector<p4::v1::Update> updates;
    for (uint32_t i = from; i < to; ++i) updates.push_back(insertOf(Router::route(router_, i, 1)));
    return controller_->write(updates);
  }
  std::vector<p4::v1::TableEntry> entries() {
    const ReadOutcome read = controller_->readTable(0);
    EXPECT_TRUE(read.status.ok()) << read.status.error_code() << read.status.error_message();
    return read.entries;
  }
  std::string disagreement() {
    std::string text;
    waitUntil([&] {
      const StoredState stored = storedState(router_, agent_.options().stateDirectory);
      text = difference("rows", stored.rows, "forwarder", forwarderView(forwarder_));
      for (const std::string& fault : stored.faults) text += fault + "\n";
      return text.empty();
    });
    return text;
  }

  static constexpr uint32_t addedAction = 0x01aaaaaa;

  const TempDir directory_;
  const TestSupport::Pipeline router_ = Router::pipeline();
  AgentProcess agent_;
  ForwarderProcess forwarder_;
  std::unique_ptr<TestController> controller_;
  uint64_t electionId_ = 0;
};

}  // namespace TestSupport

#define EXPECT_CODE(status, code)                                                   \
  do {                                                                              \
    const grpc::Status& given = (status);                                           \
    EXPECT_EQ(given.error_code(), grpc::StatusCode::code) << given.error_message(); \
  } while (false)
