// A device with the test pipeline over a fake target, ready for controllers.
#pragma once

#include <gmock/gmock.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <optional>

#include "PI/frontend/DeviceMgrImp.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/pi_extensions.h"
#include "tests/PI/frontend/support/FakeTarget.h"
#include "tests/PI/frontend/support/TestPipeline.h"

namespace pi::fe::proto {

class FrontendTest : public testing::Test {
 protected:
  using Status = google::rpc::Status;
  using Entries = std::vector<p4::v1::TableEntry>;
  using Push = p4::v1::SetForwardingPipelineConfigRequest;

  explicit FrontendTest(p4::v1::ForwardingPipelineConfig given = test::pipelineConfig())
      : config(std::move(given)) {
    DeviceMgr::init(1);
    DeviceMgr::set_operation_permission_level(2);
    device.emplace(1, std::chrono::milliseconds(0));
  }
  ~FrontendTest() override {
    device.reset();
    DeviceMgr::destroy();
    EXPECT_THAT(target.faults(), testing::IsEmpty());
  }

  void pipelineIsUp() {
    ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, config).code(), code::ok);
    target.restored(0, "");
  }
  // As a controller's, whose bytes are not parsed before.
  Status written(const p4::v1::WriteRequest& request, const EntityCaller* caller = nullptr) {
    const std::string bytes = request.SerializeAsString();
    p4::v1::WriteRequest header;
    const auto split = WriteUpdates::split(bytes, &header);
    EXPECT_TRUE(split);
    return device->write(header, split.value_or(WriteUpdates()), nullptr, caller);
  }
  Status written(const std::vector<p4::v1::Update>& updates) {
    return written(test::writeOf(updates));
  }
  template <typename Entity>
  Status inserted(const Entity& entity) {
    return written({test::update(p4::v1::Update::INSERT, entity)});
  }
  // As when the process starts again over the same target.
  void restart() {
    device.reset();
    device.emplace(1, std::chrono::milliseconds(0));
    pipelineIsUp();
  }
  // The members (or groups) that a query finds, and its code.
  int objectsRead(const p4::v1::Entity& query, std::vector<p4::v1::Entity>* found) const {
    found->clear();
    p4::v1::ReadRequest request;
    *request.add_entities() = query;
    const Status status = device->read(request, [&](const p4::v1::ReadResponse& response) {
      found->insert(found->end(), response.entities().begin(), response.entities().end());
      return true;
    });
    const std::vector<int> codes = test::codesOf(status);
    return codes.empty() ? status.code() : codes[0];
  }
  std::vector<p4::v1::ActionProfileMember> members(uint32_t profile = 0, uint32_t id = 0) const {
    p4::v1::Entity query;
    query.mutable_action_profile_member()->set_action_profile_id(profile);
    query.mutable_action_profile_member()->set_member_id(id);
    std::vector<p4::v1::Entity> found;
    EXPECT_EQ(objectsRead(query, &found), code::ok);
    std::vector<p4::v1::ActionProfileMember> result;
    for (const auto& entity : found) result.push_back(entity.action_profile_member());
    return result;
  }
  std::vector<p4::v1::ActionProfileGroup> groups(uint32_t profile = 0, uint32_t id = 0) const {
    p4::v1::Entity query;
    query.mutable_action_profile_group()->set_action_profile_id(profile);
    query.mutable_action_profile_group()->set_group_id(id);
    std::vector<p4::v1::Entity> found;
    EXPECT_EQ(objectsRead(query, &found), code::ok);
    std::vector<p4::v1::ActionProfileGroup> result;
    for (const auto& entity : found) result.push_back(entity.action_profile_group());
    return result;
  }
  Status read(const Entries& queries, Entries* entries) const {
    entries->clear();
    return device->read(test::readOf(queries), [&](const p4::v1::ReadResponse& response) {
      for (const auto& entity : response.entities()) entries->push_back(entity.table_entry());
      return true;
    });
  }
  // The entries of a query that must succeed.
  Entries found(const p4::v1::TableEntry& query) const {
    Entries entries;
    const Status status = read({query}, &entries);
    EXPECT_EQ(status.code(), code::ok) << status.ShortDebugString();
    return entries;
  }

  const p4::v1::ForwardingPipelineConfig config;
  FakeTarget target;
  std::optional<DeviceMgrImp> device;  // number 1; does not wait for restores
};

MATCHER_P(EqualsProto, expected, "equals " + expected.ShortDebugString()) {
  *result_listener << arg.ShortDebugString();
  return google::protobuf::util::MessageDifferencer::Equals(arg, expected);
}

}  // namespace pi::fe::proto
