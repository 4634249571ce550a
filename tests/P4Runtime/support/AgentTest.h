// The fixture of stories about the write path: the agent's parts with the small pipeline up.
#pragma once

#include <gmock/gmock.h>
#include <grpcpp/support/status.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "platform/vela/ActivityLock.h"
#include "tests/P4Runtime/support/AgentParts.h"

namespace TestSupport {

using enum grpc::StatusCode;  // canonical codes

class AgentTest : public testing::Test {
 protected:
  AgentTest() { start(); }

  // Ends the agent, if it runs, and starts another on the same state directory.
  void start(const p4::v1::SetForwardingPipelineConfigRequest& pipeline = smallPipeline()) {
    parts_.reset();
    parts_ = std::make_unique<AgentParts>(directory_.path());
    parts_->pipelineIs(pipeline);
    ASSERT_EQ(parts_->tableInfo->tableInfoState(), P4Runtime::P4TableInfoState::tableInfoReady);
  }
  AgentParts& agent() { return *parts_; }
  FakeForwarder& forwarder() { return *parts_->forwarder; }

  // A batch of one update; the canonical code of its outcome.
  int codeOfAdd(const Entry& entry) {
    agent().begin();
    agent().add(0, entry);
    return codeOfBatch();
  }
  int codeOfDelete(const Entry& entry) {
    agent().begin();
    agent().del(0, entry);
    return codeOfBatch();
  }
  const std::string& message() const { return message_; }

  // Table, cache, handle manager and forwarding agent know of nothing at all.
  void expectEmpty(uint32_t table) {
    EXPECT_EQ(agent().rowCount(table), 0u);
    EXPECT_EQ(agent().recordCount(), 0u);
    EXPECT_EQ(agent().metadataCount(), 0u);
    EXPECT_EQ(agent().handles->entryHandleCount({P4Runtime::tableResource, table}), 0u);
    EXPECT_EQ(agent().tableImpl->numPendingEntries(), 0u);
  }

 private:
  int codeOfBatch() {
    agent().end();
    forwarder().programAll();
    const auto left = agent().outcome();
    message_ = left.empty() ? "" : left[0].second.message();
    return left.empty() ? OK : left[0].second.canonical_code();
  }

  TempDir directory_;
  std::unique_ptr<AgentParts> parts_;
  std::string message_;
};

// A status vector's element by its offset and canonical code.
MATCHER_P2(FailedWith, offset, code, "") {
  return arg.first == static_cast<uint32_t>(offset) && arg.second.canonical_code() == code;
}

}  // namespace TestSupport
