#include "PI/int/pi_frontend_hooks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "PI/int/pi_int.h"
#include "PI/pi_extensions.h"

namespace {

using testing::ElementsAre;

// A front end that records its calls.
struct Frontend {
  std::vector<std::string> told;

  static std::vector<std::string>& of(void* cookie) { return static_cast<Frontend*>(cookie)->told; }
  static pi_frontend_hooks_t hooks() {
    pi_frontend_hooks_t hooks{};
    hooks.entry_status_changed = [](void* cookie, pi_dev_id_t, pi_entry_handle_t handle,
                                    uint32_t code) {
      of(cookie).push_back("entry " + std::to_string(handle) + " code " + std::to_string(code));
    };
    hooks.restore_table_entry = [](void* cookie, pi_dev_id_t, pi_p4_id_t, const pi_match_key_t* key,
                                   const pi_table_entry_t*, pi_entry_handle_t handle,
                                   uint64_t number, const char* metadata, size_t size) {
      of(cookie).push_back("restore " + std::string(key->data, key->data_size) + " as " +
                           std::to_string(handle) + " with " + std::to_string(number) + " " +
                           std::string(metadata, size));
      return PI_STATUS_SUCCESS;
    };
    hooks.restore_action_profile_member =
        [](void* cookie, pi_dev_id_t, pi_p4_id_t, const pi_action_data_t*, uint32_t id,
           pi_indirect_handle_t, const char* metadata, size_t size) {
          of(cookie).push_back("member " + std::to_string(id) + " " + std::string(metadata, size));
          return PI_STATUS_SUCCESS;
        };
    hooks.restore_action_profile_group =
        [](void* cookie, pi_dev_id_t, pi_p4_id_t, uint32_t id, const pi_indirect_handle_t*,
           size_t count, pi_indirect_handle_t, const char* metadata, size_t size) {
          of(cookie).push_back("group " + std::to_string(id) + " of " + std::to_string(count) +
                               " " + std::string(metadata, size));
          return PI_STATUS_ALLOC_ERROR;
        };
    hooks.constant_table_entry = [](void* cookie, pi_dev_id_t, pi_p4_id_t,
                                    const pi_match_key_t* key, const pi_table_entry_t* entry,
                                    pi_entry_handle_t handle) {
      of(cookie).push_back("constant " + std::string(key->data, key->data_size) + " is " +
                           std::to_string(handle) + (entry ? "" : " as before"));
      return PI_STATUS_SUCCESS;
    };
    hooks.restore_done = [](void* cookie, pi_dev_id_t id) {
      of(cookie).push_back("done " + std::to_string(id));
      return PI_STATUS_SUCCESS;
    };
    hooks.restore_expect = [](void* cookie, pi_dev_id_t, size_t entries) {
      of(cookie).push_back("expect " + std::to_string(entries));
      return PI_STATUS_SUCCESS;
    };
    hooks.restore_keep = [](void* cookie, pi_dev_id_t, pi_p4_id_t*, size_t* count) {
      of(cookie).push_back("keep one of " + std::to_string((*count)--));
      return PI_STATUS_SUCCESS;
    };
    return hooks;
  }
};

TEST(FrontendHooks, HearWhatTheTargetReportsOnTheirDevice) {
  Frontend frontend;
  const pi_frontend_hooks_t hooks = Frontend::hooks();
  ASSERT_EQ(pi_frontend_hooks_set(1, &hooks, &frontend), PI_STATUS_SUCCESS);

  char keyBytes[] = {'k', 'e', 'y'};
  pi_match_key_t key{};
  key.data = keyBytes;
  key.data_size = sizeof keyBytes;
  const pi_table_entry_t entry{};
  const pi_entry_handle_t handle = 17;
  const pi_indirect_handle_t members[] = {1, 2};
  EXPECT_EQ(pi_restore_action_profile_member_state(1, 2, nullptr, 5, 6, "m", 1), PI_STATUS_SUCCESS);
  EXPECT_EQ(pi_restore_action_profile_group_state(1, 2, 8, members, 2, 9, "g", 1),
            PI_STATUS_ALLOC_ERROR);
  EXPECT_EQ(pi_restore_expect(1, 20), PI_STATUS_SUCCESS);
  pi_p4_id_t tables[] = {7, 8};
  size_t count = 2;
  EXPECT_EQ(pi_restore_keep(1, tables, &count), PI_STATUS_SUCCESS);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(pi_restore_table_entry_state(1, 2, &key, &entry, handle, 3, "meta", 4),
            PI_STATUS_SUCCESS);
  EXPECT_EQ(pi_constant_table_entry_state(1, 2, &key, nullptr, 18), PI_STATUS_SUCCESS);
  EXPECT_EQ(pi_restore_done(1), PI_STATUS_SUCCESS);
  EXPECT_EQ(pi_table_pending_entry_status_changed(1, &handle, 13), PI_STATUS_SUCCESS);
  EXPECT_THAT(frontend.told,
              ElementsAre("member 5 m", "group 8 of 2 g", "expect 20", "keep one of 2",
                          "restore key as 17 with 3 meta", "constant key is 18 as before", "done 1",
                          "entry 17 code 13"));

  EXPECT_EQ(pi_restore_done(2), PI_STATUS_DEV_NOT_ASSIGNED);
  EXPECT_EQ(pi_frontend_hooks_clear(1), PI_STATUS_SUCCESS);
  EXPECT_EQ(pi_restore_done(1), PI_STATUS_DEV_NOT_ASSIGNED);
  EXPECT_EQ(pi_frontend_hooks_clear(1), PI_STATUS_DEV_NOT_ASSIGNED);
}

TEST(FrontendHooks, MustBeCompleteButForTheStatusAndTheNumberOfEntries) {
  pi_frontend_hooks_t hooks = Frontend::hooks();
  hooks.entry_status_changed = nullptr;
  hooks.restore_expect = nullptr;
  hooks.restore_keep = nullptr;
  ASSERT_EQ(pi_frontend_hooks_set(1, &hooks, nullptr), PI_STATUS_SUCCESS);
  const pi_entry_handle_t handle = 17;
  EXPECT_EQ(pi_table_pending_entry_status_changed(1, &handle, 13), PI_STATUS_SUCCESS);
  EXPECT_EQ(pi_restore_expect(1, 20), PI_STATUS_SUCCESS);
  pi_p4_id_t table = 7;
  size_t count = 1;
  EXPECT_NE(pi_restore_keep(1, &table, &count), PI_STATUS_SUCCESS);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(pi_frontend_hooks_clear(1), PI_STATUS_SUCCESS);
  hooks.restore_done = nullptr;
  EXPECT_EQ(pi_frontend_hooks_set(1, &hooks, nullptr), PI_STATUS_BUFFER_ERROR);
  EXPECT_EQ(pi_restore_done(1), PI_STATUS_DEV_NOT_ASSIGNED);
}

}  // namespace
