// The library's life with its devices, and the packets they punt.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "PI/pi.h"
#include "PI/target/pi_imp.h"
#include "tests/PI/core/FakeTarget.h"

namespace {

using testing::ElementsAre;

class DevicesTest : public testing::Test {
 protected:
  DevicesTest() { TheFakeTarget() = {}; }
  ~DevicesTest() override { pi_destroy(); }

  pi_status_t assigned(pi_dev_id_t id) { return pi_assign_device(id, &p4info_, nullptr); }

  pi_p4info_s p4info_{};
};

TEST_F(DevicesTest, AreAssignedOnceAndUpToTheLimit) {
  EXPECT_EQ(assigned(1), PI_STATUS_DEV_OUT_OF_RANGE);  // not initialised yet
  ASSERT_EQ(pi_init(1, nullptr), PI_STATUS_SUCCESS);
  EXPECT_EQ(assigned(1), PI_STATUS_SUCCESS);
  EXPECT_EQ(assigned(1), PI_STATUS_DEV_ALREADY_ASSIGNED);
  EXPECT_EQ(assigned(2), PI_STATUS_DEV_OUT_OF_RANGE);
  EXPECT_EQ(pi_num_devices(), 1u);
  pi_dev_id_t ids[2] = {};
  EXPECT_EQ(pi_get_device_ids(ids, 2), 1u);
  EXPECT_EQ(ids[0], 1u);
  EXPECT_EQ(pi_get_device_ids(ids, 0), 0u);
  EXPECT_EQ(pi_get_device_p4info(1), &p4info_);
  EXPECT_EQ(pi_get_device_p4info(2), nullptr);
}

TEST_F(DevicesTest, ADeviceThatTheTargetRefusesIsNotAssigned) {
  pi_init(1, nullptr);
  TheFakeTarget().assignStatus = PI_STATUS_ALLOC_ERROR;
  EXPECT_EQ(assigned(1), PI_STATUS_ALLOC_ERROR);
  EXPECT_FALSE(pi_is_device_assigned(1));
  EXPECT_EQ(pi_remove_device(1), PI_STATUS_DEV_NOT_ASSIGNED);
}

TEST_F(DevicesTest, AnUpdateBringsItsP4Info) {
  pi_p4info_s newer{};
  pi_init(1, nullptr);
  EXPECT_EQ(pi_update_device_start(1, &newer, "", 0), PI_STATUS_DEV_NOT_ASSIGNED);
  EXPECT_EQ(pi_update_device_end(1), PI_STATUS_DEV_NOT_ASSIGNED);
  assigned(1);
  EXPECT_EQ(pi_update_device_start(1, &newer, "", 0), PI_STATUS_SUCCESS);
  EXPECT_EQ(pi_get_device_p4info(1), &newer);
}

// The target's own pi_remove_device() from within its _pi_destroy() once looked like a recursion
// that a lock held meanwhile would have turned into a deadlock.
TEST_F(DevicesTest, DestroyLetsTheTargetRemoveItsDeviceThenRemovesTheRest) {
  pi_init(2, nullptr);
  pi_init(2, nullptr);
  assigned(1);
  assigned(2);
  EXPECT_EQ(pi_destroy(), PI_STATUS_SUCCESS);
  EXPECT_THAT(TheFakeTarget().calls,
              ElementsAre("init", "assign 1", "assign 2", "destroy", "remove 1", "remove 2"));
  EXPECT_EQ(pi_num_devices(), 0u);
  pi_init(1, nullptr);
  EXPECT_EQ(assigned(3), PI_STATUS_SUCCESS);
}

TEST_F(DevicesTest, DestroyAnswersWhatTheTargetAnswers) {
  pi_init(1, nullptr);
  EXPECT_EQ(pi_destroy(), PI_STATUS_DEV_NOT_ASSIGNED);
}

TEST_F(DevicesTest, RemovingWhatIsNotThereDoesNotReachTheTarget) {
  EXPECT_EQ(pi_remove_device(0), PI_STATUS_DEV_NOT_ASSIGNED);
  EXPECT_THAT(TheFakeTarget().calls, ElementsAre());
}

struct Taken {
  std::vector<std::string> packets;
  static void take(pi_dev_id_t id, const char* packet, size_t size, void* cookie) {
    static_cast<Taken*>(cookie)->packets.push_back(std::to_string(id) + ":" +
                                                   std::string(packet, size));
  }
};

TEST(PacketIn, GoesToTheDevicesCallbackElseToTheDefaultElseNowhere) {
  Taken own;
  Taken others;
  EXPECT_EQ(pi_packetin_receive(1, "a", 1), PI_STATUS_PACKETIN_NO_CB);
  pi_packetin_register_cb(1, &Taken::take, &own);
  pi_packetin_register_default_cb(&Taken::take, &others);
  EXPECT_EQ(pi_packetin_receive(1, "b", 1), PI_STATUS_SUCCESS);
  EXPECT_EQ(pi_packetin_receive(2, "c", 1), PI_STATUS_SUCCESS);
  pi_packetin_deregister_cb(1);
  EXPECT_EQ(pi_packetin_receive(1, "d", 1), PI_STATUS_SUCCESS);
  pi_packetin_deregister_default_cb();
  EXPECT_EQ(pi_packetin_receive(1, "e", 1), PI_STATUS_PACKETIN_NO_CB);
  EXPECT_THAT(own.packets, ElementsAre("1:b"));
  EXPECT_THAT(others.packets, ElementsAre("2:c", "1:d"));
}

}  // namespace
