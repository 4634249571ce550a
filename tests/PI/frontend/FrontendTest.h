// A device with the test pipeline over a fake target, ready for controllers.
#pragma once

#include <gmock/gmock.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <optional>

#include "PI/frontend/DeviceMgrImp.h"
#include "PI/frontend/Refusal.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/pi_extensions.h"
#include "tests/PI/frontend/FakeTarget.h"
#include "tests/PI/frontend/TestPipeline.h"

namespace pi::fe::proto {

class FrontendTest : public testing::Test {
 protected:
  using Status = google::rpc::Status;
  using Entries = std::vector<p4::v1::TableEntry>;
  using Push = p4::v1::SetForwardingPipelineConfigRequest;

  FrontendTest() {
    DeviceMgr::init(1);
    DeviceMgr::set_operation_permission_level(2);
    device.emplace(1, std::chrono::milliseconds(0));
  }
  ~FrontendTest() override {
    device.reset();
    DeviceMgr::destroy();
  }

  void pipelineIsUp() {
    ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, config).code(), code::ok);
    target.restored(0, "");
  }
  Status written(const std::vector<p4::v1::Update>& updates) {
    return device->write(test::writeOf(updates));
  }
  Status inserted(const p4::v1::TableEntry& entry) {
    return written({test::update(p4::v1::Update::INSERT, entry)});
  }
  Status read(const Entries& queries, Entries* entries) const {
    entries->clear();
    return device->read(test::readOf(queries), [&](const p4::v1::ReadResponse& response) {
      for (const auto& entity : response.entities()) entries->push_back(entity.table_entry());
      return true;
    });
  }
  // What a query that must succeed finds.
  Entries found(const p4::v1::TableEntry& query) const {
    Entries entries;
    const Status status = read({query}, &entries);
    EXPECT_EQ(status.code(), code::ok) << status.ShortDebugString();
    return entries;
  }

  const p4::v1::ForwardingPipelineConfig config = test::pipelineConfig();
  FakeTarget target;
  std::optional<DeviceMgrImp> device;  // number 1; does not wait for restores
};

MATCHER_P(EqualsProto, expected, "equals " + expected.ShortDebugString()) {
  *result_listener << arg.ShortDebugString();
  return google::protobuf::util::MessageDifferencer::Equals(arg, expected);
}

}  // namespace pi::fe::proto
