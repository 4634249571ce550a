// The entry points that do little: devices, sessions, and the context that all of them reach into.
#include "P4Runtime/agent/KorvelPiServer.h"
#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/target/pi_clone_imp.h"
#include "PI/target/pi_counter_imp.h"
#include "PI/target/pi_imp.h"
#include "PI/target/pi_learn_imp.h"
#include "PI/target/pi_mc_imp.h"
#include "PI/target/pi_meter_imp.h"
#include "PI/target/pi_tables_imp.h"
#include "platform/lattice/counters/FlowCounters.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;

class EntryPointsTest : public AgentTest {
 protected:
  std::vector<std::unique_ptr<Lattice::FlowCounterWriter>> writers_;
};

TEST_F(EntryPointsTest, LastAssignedDeviceCounts) {
  const pi_assign_extra_t extras[] = {{0, "a", "1"}, {0, "b", nullptr}, {1, nullptr, nullptr}};
  EXPECT_EQ(piAssignExtraToString(extras), "{a=1,b=}");
  EXPECT_EQ(piAssignExtraToString(nullptr), "{}");
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

TEST_F(EntryPointsTest, WhatTheTargetCannotDoIsAnAssertion) {
  EXPECT_DEATH(_pi_table_entry_delete(0, 1, exactTable, 1), "0");
  EXPECT_DEATH(_pi_table_entry_modify(0, 1, exactTable, 1, nullptr), "0");
}

// These results are kept for compatibility; objects behind the pointers are not touched.
TEST_F(EntryPointsTest, WhatIsNotDoneIsAcknowledgedOrRefusedAsEver) {
  constexpr pi_dev_tgt_t target{1, 0xffff};
  uint32_t handle = 77;
  pi_counter_data_t count{0, 5, 6};
  pi_meter_spec_t meter{1, 2, 3, 4, PI_METER_UNIT_BYTES, PI_METER_TYPE_DEFAULT};
  const int acknowledged[] = {
      _pi_mc_session_init(&handle),
      _pi_mc_grp_create(0, 1, 5, &handle),
      _pi_mc_node_create(0, 1, 5, 0, nullptr, &handle),
      _pi_mc_grp_attach_node(0, 1, 5, 6),
      _pi_learn_config_set(0, 1, 5, nullptr),
      _pi_learn_msg_ack(0, 1, 5, 6),
      _pi_counter_read(0, target, 5, 0, PI_COUNTER_FLAGS_HW_SYNC, &count),
      _pi_counter_write_direct(0, target, directCounter, 5, &count),
      _pi_counter_hw_sync(0, target, 5, nullptr, nullptr),
      _pi_meter_set(0, target, 5, 0, &meter),
      _pi_meter_read_direct(0, target, directMeter, 5, &meter),
  };
  EXPECT_THAT(acknowledged, testing::Each(0));
  EXPECT_EQ(_pi_clone_session_set(0, target, 5, nullptr), 39);
  EXPECT_EQ(_pi_clone_session_reset(0, target, 5), 39);
  EXPECT_EQ(handle, 77u);
  EXPECT_EQ(count.bytes, 5u);
  EXPECT_EQ(meter.pburst, 4u);
}

TEST_F(EntryPointsTest, DirectCounterIsWhatAllForwardingAgentsHaveCounted) {
  const auto read = [](uint64_t handle) {
    pi_counter_data_t data{0, 1, 1};
    EXPECT_EQ(_pi_counter_read_direct(0, {1, 0}, directCounter, handle, 0, &data), 0);
    EXPECT_EQ(data.valid, PI_COUNTER_UNIT_PACKETS | PI_COUNTER_UNIT_BYTES);
    const pi_entry_handle_t handles[] = {99, handle};
    pi_counter_data_t both[] = {{0, 1, 1}, {0, 1, 1}};
    EXPECT_EQ(_pi_counters_read_direct(0, {1, 0}, directCounter, handles, 2, 0, both), 0);
    EXPECT_EQ(both[0].bytes, 0u);
    EXPECT_EQ(both[1].bytes, data.bytes);
    return std::pair(data.bytes, data.packets);
  };
  EXPECT_EQ(read(7), std::pair(0ul, 0ul)) << "nobody has counted yet";
  for (const char* name : {"chip-a", "chip-b"}) {
    writers_.push_back(Lattice::FlowCounterWriter::create(agent().directory, name));
    writers_.back()->countIs(Lattice::flowCounterName(7), {100, 2});
    writers_.back()->commit();
  }
  EXPECT_EQ(read(7), std::pair(200ul, 4ul));
  EXPECT_EQ(read(8), std::pair(0ul, 0ul));
}

TEST_F(EntryPointsTest, ContextTellsWhatItHolds) {
  std::vector<std::string> held;
  for (const Vela::AttributeBase* attribute : ThePiContext()->attributes()) {
    held.push_back(attribute->name() + (": " + attribute->text()));
  }
  EXPECT_THAT(held, testing::ElementsAre(
                        "piServer: none", "batchStatus: set", "controllerTxPktConfig: none",
                        "p4ControllerPktMetadata: none", "tableImpl: set", "p4HandleMgr: set",
                        "p4RtSystemStatus: set", "hwStatusDir: set"));
  EXPECT_EQ(TheTableImpl(), agent().tableImpl.get());
  EXPECT_EQ(TheBatchEntries(), TheTableImpl()) << "one object, known above and below";
}

}  // namespace
}  // namespace P4Runtime
