// Decoding of fetch buffers of targets, whole and broken.
#include <gtest/gtest.h>

#include <string>

#include "PI/pi_act_prof.h"
#include "PI/pi_tables.h"
#include "tests/PI/core/FakeTarget.h"

namespace {

using std::string;

const string kNoExtras = le<uint32_t>(0) + le<uint32_t>(0);

string directEntry(uint64_t handle, uint32_t priority, const string& key, const string& params) {
  return le(handle) + le(priority) + key + le<uint32_t>(1) + le<uint32_t>(0x01000007) +
         le<uint32_t>(params.size()) + params + kNoExtras;
}

string indirectEntry(uint64_t handle, const string& key, uint64_t member) {
  return le(handle) + le<uint32_t>(0) + key + le<uint32_t>(2) + le(member) + kNoExtras;
}

class TableFetchTest : public testing::Test {
 protected:
  TableFetchTest() { TheFakeTarget() = {}; }
  ~TableFetchTest() override {
    if (res_) pi_table_entries_fetch_done(0, res_);
  }
  void fetch(const string& entries, size_t count, size_t keyBytes) {
    TheFakeTarget().entries = entries;
    TheFakeTarget().entryCount = count;
    TheFakeTarget().keyBytes = keyBytes;
    if (res_) pi_table_entries_fetch_done(0, res_);
    ASSERT_EQ(pi_table_entries_fetch(0, 1, 0x02000001, &res_), PI_STATUS_SUCCESS);
  }
  pi_status_t next() { return pi_table_entries_next(res_, &entry_, &handle_); }
  string key() const { return {entry_.match_key->data, entry_.match_key->data_size}; }

  pi_table_fetch_res_t* res_ = nullptr;
  pi_table_ma_entry_t entry_{};
  pi_entry_handle_t handle_ = 0;
};

TEST_F(TableFetchTest, ShowsDirectAndIndirectEntriesInOrder) {
  const string direct = directEntry(0x1122334455667788, 9, "\x0a\x0b\x0c\x0d", "params");
  const string indirect = indirectEntry(2, "wxyz", 0x100000003);
  ASSERT_EQ(direct.size(), 42u);  // as targets compute it
  ASSERT_EQ(indirect.size(), 36u);
  fetch(direct + indirect, 2, 4);
  EXPECT_EQ(pi_table_entries_num(res_), 2u);

  ASSERT_EQ(next(), PI_STATUS_SUCCESS);
  EXPECT_EQ(handle_, 0x1122334455667788u);
  EXPECT_EQ(entry_.match_key->priority, 9u);
  EXPECT_EQ(entry_.match_key->table_id, 0x02000001u);
  EXPECT_EQ(key(), "\x0a\x0b\x0c\x0d");
  ASSERT_EQ(entry_.entry.entry_type, PI_ACTION_ENTRY_TYPE_DATA);
  const pi_action_data_t& action = *entry_.entry.entry.action_data;
  EXPECT_EQ(action.action_id, 0x01000007u);
  EXPECT_EQ(string(action.data, action.data_size), "params");

  ASSERT_EQ(next(), PI_STATUS_SUCCESS);
  EXPECT_EQ(key(), "wxyz");
  ASSERT_EQ(entry_.entry.entry_type, PI_ACTION_ENTRY_TYPE_INDIRECT);
  EXPECT_EQ(entry_.entry.entry.indirect_handle, 0x100000003u);

  EXPECT_EQ(next(), PI_STATUS_OUT_OF_BOUND_IDX);
}

TEST_F(TableFetchTest, RefusesAnEntryCutShortAnywhereAndStaysRefusing) {
  const string entries[] = {directEntry(1, 0, "keyk", "params"), indirectEntry(1, "keyk", 5)};
  for (const string& whole : entries) {
    for (size_t size = 0; size < whole.size(); ++size) {
      SCOPED_TRACE(size);
      fetch(whole.substr(0, size), 1, 4);
      EXPECT_EQ(next(), PI_STATUS_BUFFER_ERROR);
      EXPECT_EQ(next(), PI_STATUS_BUFFER_ERROR);
    }
  }
}

TEST_F(TableFetchTest, RefusesWhatIsNoEntry) {
  const string head = le<uint64_t>(1) + le<uint32_t>(0) + "keyk";
  const struct {
    const char* what;
    string bytes;
    size_t keyBytes;
  } cases[] = {
      {"action data longer than the rest",
       head + le<uint32_t>(1) + le<uint32_t>(7) + le<uint32_t>(0xffffffff) + "p" + kNoExtras, 4},
      {"a key wider than the buffer", head, ~size_t{0}},
      {"no action", head + le<uint32_t>(0) + kNoExtras, 4},
      {"an unknown action type", head + le<uint32_t>(3) + le<uint64_t>(0) + kNoExtras, 4},
      {"properties", head + le<uint32_t>(2) + le<uint64_t>(5) + le<uint32_t>(1) + le<uint32_t>(0),
       4},
      {"direct resources",
       head + le<uint32_t>(2) + le<uint64_t>(5) + le<uint32_t>(0) + le<uint32_t>(1), 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    fetch(c.bytes, 1, c.keyBytes);
    EXPECT_EQ(next(), PI_STATUS_BUFFER_ERROR);
  }
}

TEST_F(TableFetchTest, AFailedFetchLeavesNothing) {
  TheFakeTarget().fetchStatus = PI_STATUS_TARGET_ERROR;
  EXPECT_EQ(pi_table_entries_fetch(0, 1, 0x02000001, &res_), PI_STATUS_TARGET_ERROR);
  EXPECT_EQ(res_, nullptr);
}

class ProfileFetchTest : public testing::Test {
 protected:
  ProfileFetchTest() { TheFakeTarget() = {}; }
  ~ProfileFetchTest() override {
    if (res_) pi_act_prof_entries_fetch_done(0, res_);
  }
  void fetch() {
    if (res_) pi_act_prof_entries_fetch_done(0, res_);
    ASSERT_EQ(pi_act_prof_entries_fetch(0, 1, 0x11000001, &res_), PI_STATUS_SUCCESS);
  }
  pi_status_t nextMember() { return pi_act_prof_mbrs_next(res_, &action_, &handle_); }
  pi_status_t nextGroup() { return pi_act_prof_grps_next(res_, &members_, &count_, &handle_); }

  pi_act_prof_fetch_res_t* res_ = nullptr;
  pi_action_data_t* action_ = nullptr;
  pi_indirect_handle_t* members_ = nullptr;
  size_t count_ = 0;
  pi_indirect_handle_t handle_ = 0;
};

TEST_F(ProfileFetchTest, ShowsMembersAndGroups) {
  TheFakeTarget().members = le<uint64_t>(4) + le<uint32_t>(7) + le<uint32_t>(6) + "params" +
                            le<uint64_t>(5) + le<uint32_t>(8) + le<uint32_t>(0);
  TheFakeTarget().memberCount = 2;
  TheFakeTarget().groups = le<uint64_t>(0x100000001) + le<uint32_t>(0) + le<uint32_t>(0) +
                           le<uint64_t>(0x100000002) + le<uint32_t>(2) + le<uint32_t>(0);
  TheFakeTarget().groupCount = 2;
  TheFakeTarget().memberHandles = {4, 5};
  fetch();
  EXPECT_EQ(pi_act_prof_mbrs_num(res_), 2u);
  EXPECT_EQ(pi_act_prof_grps_num(res_), 2u);

  ASSERT_EQ(nextMember(), PI_STATUS_SUCCESS);
  EXPECT_EQ(handle_, 4u);
  EXPECT_EQ(action_->action_id, 7u);
  EXPECT_EQ(string(action_->data, action_->data_size), "params");
  ASSERT_EQ(nextMember(), PI_STATUS_SUCCESS);
  EXPECT_EQ(action_->data_size, 0u);
  EXPECT_EQ(nextMember(), PI_STATUS_OUT_OF_BOUND_IDX);

  ASSERT_EQ(nextGroup(), PI_STATUS_SUCCESS);
  EXPECT_EQ(handle_, 0x100000001u);
  EXPECT_EQ(count_, 0u);
  ASSERT_EQ(nextGroup(), PI_STATUS_SUCCESS);
  ASSERT_EQ(count_, 2u);
  EXPECT_EQ(members_[0], 4u);
  EXPECT_EQ(members_[1], 5u);
  EXPECT_EQ(nextGroup(), PI_STATUS_OUT_OF_BOUND_IDX);
}

TEST_F(ProfileFetchTest, RefusesWhatIsCutShort) {
  const string member = le<uint64_t>(4) + le<uint32_t>(7) + le<uint32_t>(6) + "params";
  const string group = le<uint64_t>(0x100000001) + le<uint32_t>(0) + le<uint32_t>(0);
  TheFakeTarget().memberCount = 1;
  TheFakeTarget().groupCount = 1;
  for (size_t size = 0; size < member.size(); ++size) {
    SCOPED_TRACE(size);
    TheFakeTarget().members = member.substr(0, size);
    TheFakeTarget().groups = group.substr(0, std::min(size, group.size() - 1));
    fetch();
    EXPECT_EQ(nextMember(), PI_STATUS_BUFFER_ERROR);
    EXPECT_EQ(nextGroup(), PI_STATUS_BUFFER_ERROR);
  }
}

TEST_F(ProfileFetchTest, RefusesAGroupWhoseMembersLieOutsideTheArray) {
  const struct {
    const char* what;
    uint32_t count;
    uint32_t first;
  } cases[] = {{"one too many", 3, 0},
               {"beginning behind the end", 0, 3},
               {"ending behind the end", 1, 2},
               {"a sum that wraps around", 2, 0xffffffff}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TheFakeTarget().groups = le<uint64_t>(0x100000001) + le(c.count) + le(c.first);
    TheFakeTarget().groupCount = 1;
    TheFakeTarget().memberHandles = {4, 5};
    fetch();
    EXPECT_EQ(nextGroup(), PI_STATUS_BUFFER_ERROR);
  }
}

}  // namespace
