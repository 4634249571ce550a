// The entry points that do little: devices, sessions, and the context that all of them reach into.
#include "P4Runtime/agent/KorvelPiServer.h"
#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/target/pi_imp.h"
#include "PI/target/pi_tables_imp.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;

class EntryPointsTest : public AgentTest {};

TEST_F(EntryPointsTest, EverySessionIsSessionZero) {
  for (int i = 0; i < 2; ++i) {
    pi_session_handle_t session = 77;
    EXPECT_EQ(_pi_session_init(&session), PI_STATUS_SUCCESS);
    EXPECT_EQ(session, 0u);
  }
  EXPECT_EQ(_pi_session_cleanup(0), PI_STATUS_SUCCESS);
}

TEST_F(EntryPointsTest, LastAssignedDeviceCounts) {
  const pi_assign_extra_t extras[] = {{0, "key", "value"}, {1, nullptr, nullptr}};
  _pi_assign_device(5, nullptr, const_cast<pi_assign_extra_t*>(extras));
  _pi_assign_device(6, nullptr, nullptr);
  EXPECT_EQ(agent().tableImpl->deviceId(), 6u);
  EXPECT_EQ(_pi_update_device_start(6, nullptr, "data", 4), PI_STATUS_SUCCESS);
  EXPECT_EQ(_pi_update_device_end(6), PI_STATUS_SUCCESS);
  EXPECT_EQ(_pi_remove_device(6), PI_STATUS_SUCCESS);
}

TEST_F(EntryPointsTest, DestroyRemovesTheConfiguredDevice) {
  pi_init(8, nullptr);
  pi_p4info_t p4info{};
  for (const pi_dev_id_t id : {0, 1}) pi_assign_device(id, &p4info, nullptr);
  EXPECT_EQ(_pi_destroy(), PI_STATUS_SUCCESS) << "of device 0, without a server";
  EXPECT_FALSE(pi_is_device_assigned(0));
  EXPECT_TRUE(pi_is_device_assigned(1));
  EXPECT_EQ(_pi_destroy(), PI_STATUS_DEV_NOT_ASSIGNED) << "the library's answer as it is";
  pi_destroy();
}

TEST_F(EntryPointsTest, InitEmptiesTheBatch) {
  agent().begin();
  agent().batchStatus->completedTransactionStatusIs({1, 3});
  EXPECT_EQ(_pi_init(nullptr), PI_STATUS_SUCCESS);
  EXPECT_TRUE(agent().batchStatus->completedTransactionStatus().empty());
  agent().end();
}

TEST_F(EntryPointsTest, WhatTheTargetCannotDoIsAnAssertion) {
  EXPECT_DEATH(_pi_table_entry_delete(0, 1, exactTable, 1), "0");
  EXPECT_DEATH(_pi_table_entry_modify(0, 1, exactTable, 1, nullptr), "0");
}

TEST(PiContext, IsSharedAndNeverTakenAway) {
  const auto context = piContextFactory();
  EXPECT_EQ(context->references(), 1u);
  ThePiContextIs(context);
  ThePiContextIs(context);
  EXPECT_EQ(ThePiContext(), context);
  EXPECT_EQ(context->references(), 2u);
  EXPECT_EQ(TheTableImpl(), nullptr);
  EXPECT_DEATH(ThePiContextIs(nullptr), "pic");
  ThePiContextIs(piContextFactory());
  EXPECT_EQ(context->references(), 1u);
}

}  // namespace
}  // namespace P4Runtime
