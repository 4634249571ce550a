// Members and groups: their rows, how they are put back, and how they survive.
#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <sstream>

#include "P4Runtime/table/failures/EntryFailures.h"
#include "PI/int/pi_int.h"
#include "PI/target/pi_act_prof_imp.h"
#include "tests/P4Runtime/support/AgentTest.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr pi_dev_tgt_t target{1, 0xffff};

class ActionProfileTest : public AgentTest {
 protected:
  // The calls of a batch, in the update that agent().updateIs() named last.
  static uint64_t createMember(uint8_t port) {
    uint64_t handle = 0;
    withAction(port, [&](const pi_action_data_t& action) {
      return _pi_act_prof_mbr_create(0, target, profile, &action, &handle);
    });
    return handle;
  }
  static pi_status_t modifyMember(uint64_t handle, uint8_t port) {
    return withAction(port, [&](const pi_action_data_t& action) {
      return _pi_act_prof_mbr_modify(0, 1, profile, handle, &action);
    });
  }
  static pi_status_t deleteMember(uint64_t handle) {
    return _pi_act_prof_mbr_delete(0, 1, profile, handle);
  }
  static uint64_t createGroup() {
    uint64_t handle = 0;
    _pi_act_prof_grp_create(0, target, profile, 0, &handle);
    return handle;
  }
  static pi_status_t deleteGroup(uint64_t handle) {
    return _pi_act_prof_grp_delete(0, 1, profile, handle);
  }
  static pi_status_t addToGroup(uint64_t group, uint64_t member) {
    return _pi_act_prof_grp_add_mbr(0, 1, profile, group, member);
  }
  static pi_status_t removeFromGroup(uint64_t group, uint64_t member) {
    return _pi_act_prof_grp_remove_mbr(0, 1, profile, group, member);
  }
  static Entry entryTo(uint64_t handle, uint8_t id = 3) {
    return {.table = groupTable,
            .key = std::string(3, '\0') + static_cast<char>(id),
            .indirectHandle = handle};
  }

  // A batch that the forwarding agents confirm.
  StatusVector runBatch(const std::function<void()>& calls) {
    agent().begin();
    calls();
    agent().end();
    forwarder().programAll();
    return agent().outcome();
  }
  uint64_t member(uint32_t id, uint8_t port) {
    uint64_t handle = 0;
    runBatch([&] {
      agent().updateIs(0, id, "of the member");
      handle = createMember(port);
    });
    return handle;
  }
  uint64_t group(uint32_t id, const std::vector<uint64_t>& members) {
    uint64_t handle = 0;
    runBatch([&] {
      agent().updateIs(0, id, "of the group");
      handle = createGroup();
      for (const uint64_t one : members) addToGroup(handle, one);
    });
    return handle;
  }

  // Everything that is remembered of the profile and its table, in the agent and beyond; rows
  // without their sequence numbers.
  std::string picture() {
    forwarder().programAll();
    std::string text;
    for (const auto& [key, value] : forwarder().rows()) {
      text += fmt::format("{} {:02x} = {:02x}\n", key.first, fmt::join(key.second, ""),
                          fmt::join(value, ""));
    }
    const Vela::ActivityLock lock;
    const auto add = [&](Brine::Bytes key, Brine::Bytes stored) {
      text += fmt::format("{:02x} = {:02x}\n", fmt::join(key, ""), fmt::join(stored, ""));
      return true;
    };
    agent().tableImpl->memberCache()->forEach(add);
    agent().tableImpl->groupCache()->forEach(add);
    agent().store->forEach(agent().store->table("p4runtime/cache/metadata"), add);
    for (const char* table : {"row/profile_member", "row/profile_group", "row/group"}) {
      agent().store->forEachRecord(agent().store->table(table), [&](const Brine::Record& row) {
        text += fmt::format("{} ", row.owner);
        return add(row.key, row.value) && add(row.key, row.attachment);
      });
    }
    return sorted(text);
  }
  static std::string sorted(const std::string& lines) {
    std::vector<std::string> all;
    std::istringstream from(lines);
    for (std::string line; std::getline(from, line);) all.push_back(line);
    std::ranges::sort(all);
    return fmt::format("{}", fmt::join(all, "\n"));
  }
  std::vector<uint64_t> handlesInUse() {
    std::vector<uint64_t> handles;
    for (uint64_t id = 1; id < 64; ++id) {
      if (agent().handles->memberHandleToEntryHandleHas(id)) handles.push_back(id);
      const uint64_t group = uint64_t{1} << 32 | id;
      if (agent().handles->groupHandleToEntryHandleHas(group)) handles.push_back(group);
    }
    return handles;
  }
  void restart(const p4::v1::SetForwardingPipelineConfigRequest& pipeline = smallPipeline()) {
    start(pipeline);
    const Vela::ActivityLock lock;
    agent().tableImpl->restoreCachedEntries();
  }

 private:
  template <typename Call>
  static pi_status_t withAction(uint8_t port, Call call) {
    char data[] = {0, static_cast<char>(port)};
    return call(pi_action_data_t{nullptr, setPort, sizeof data, data});
  }
};

TEST_F(ActionProfileTest, RowsAreKeyedByTheLowerHalvesOfHandles) {
  const uint64_t first = member(70, 5);
  const uint64_t second = member(80, 6);
  const uint64_t both = group(9, {first, second, first});
  EXPECT_EQ(first >> 32, 0u);
  EXPECT_EQ(both >> 32, 1u);
  EXPECT_EQ(forwarder().rows().at({"profile_member", bytes("00000001")}), bytes("01000001 0500"));
  EXPECT_EQ(forwarder().rows().at({"profile_group", bytes("00000001")}),
            bytes("03000000 01000000 02000000 01000000"));

  EXPECT_THAT(runBatch([&] { modifyMember(first, 7); }), IsEmpty());
  EXPECT_EQ(forwarder().rows().at({"profile_member", bytes("00000001")}), bytes("01000001 0700"));
  runBatch([&] {
    agent().updateIs(0);
    removeFromGroup(both, first);  // one of the two
  });
  EXPECT_EQ(forwarder().rows().at({"profile_group", bytes("00000001")}),
            bytes("02000000 02000000 01000000"));
}

TEST_F(ActionProfileTest, GroupIsThereAtOnceAndHasARowFromItsFirstMemberOn) {
  const uint64_t one = member(1, 5);
  const uint64_t before = agent().lastSequence();
  const uint64_t empty = group(1, {});
  EXPECT_TRUE(agent().handles->groupHandleToEntryHandleHas(empty));
  EXPECT_EQ(agent().lastSequence(), before) << "there is nothing to program";
  const auto left = runBatch([&] {
    agent().updateIs(4);
    removeFromGroup(empty, one);
  });
  ASSERT_THAT(left, ElementsAre(FailedWith(4, INVALID_ARGUMENT)));
  EXPECT_EQ(left[0].second.message(), "group id 1 not found, cannot delete");

  EXPECT_THAT(runBatch([&] {
                agent().updateIs(0);
                addToGroup(empty, one);
              }),
              IsEmpty());
  EXPECT_EQ(forwarder().rows().count({"profile_group", bytes("00000001")}), 1u);
}

// A group made, filled, emptied and deleted ends where the controller thinks it ends, in one batch
// or in four, even if its earlier steps completed without the forwarding plane.
TEST_F(ActionProfileTest, GroupLivesItsLifeInOneBatchOrInFour) {
  const uint64_t one = member(1, 5);
  const std::string before = picture();
  uint64_t handle = 0;
  const std::function<void()> steps[] = {
      [&] { handle = createGroup(); }, [&] { addToGroup(handle, one); },
      [&] { removeFromGroup(handle, one); }, [&] { deleteGroup(handle); }};
  EXPECT_THAT(runBatch([&] {
                for (uint32_t offset = 0; offset < 4; ++offset) {
                  agent().updateIs(offset, 1);
                  steps[offset]();
                }
              }),
              IsEmpty());
  EXPECT_EQ(picture(), before);
  EXPECT_THAT(handlesInUse(), ElementsAre(one));
  for (const auto& step : steps) {
    EXPECT_THAT(runBatch([&] {
                  agent().updateIs(0, 1);
                  step();
                }),
                IsEmpty());
  }
  EXPECT_EQ(picture(), before);
  EXPECT_THAT(handlesInUse(), ElementsAre(one));
}

// Each update fails at each of its changes once by error and once by silence; the other changes are
// confirmed. Then all is as before.
TEST_F(ActionProfileTest, FailedUpdateLeavesEverythingAsItWas) {
  const uint64_t one = member(1, 5);
  const uint64_t two = member(2, 6);
  const uint64_t held = group(1, {one, two});
  const uint64_t empty = group(2, {});
  runBatch([&] { agent().add(0, entryTo(held)); });
  const struct {
    const char* what;
    size_t changes;
    std::function<void()> calls;
  } cases[] = {
      {"member create", 1, [&] { createMember(9); }},
      {"member modify", 1, [&] { modifyMember(one, 9); }},
      {"member delete", 1, [&] { deleteMember(two); }},
      {"group create", 1,
       [&] {
         const uint64_t made = createGroup();
         for (const uint64_t member : {one, one, two}) addToGroup(made, member);
       }},
      {"group grows", 1, [&] { addToGroup(held, one); }},
      {"empty group grows", 1, [&] { addToGroup(empty, one); }},
      {"group is emptied", 1, [&] { removeFromGroup(held, one), removeFromGroup(held, two); }},
      {"group delete", 1, [&] { deleteGroup(held); }},
      {"empty group delete", 1, [&] { deleteGroup(empty); }},
      {"group made and deleted", 1, [&] { deleteGroup(createGroup()); }},
      {"kept bytes and members change", 1,
       [&] {
         addToGroup(held, one);
         _pi_act_prof_grp_metadata_set(0, 1, profile, held);
       }},
      {"several objects in one update", 4,
       [&] {
         const uint64_t first = createMember(7);
         const uint64_t second = createMember(8);
         const uint64_t made = createGroup();
         addToGroup(made, first), addToGroup(made, second);
         agent().add(0, entryTo(made, 4));
       }},
      {"several deletions in one update", 3,
       [&] {
         agent().del(0, entryTo(held));
         deleteGroup(held);
         deleteMember(two);
       }},
  };
  const std::string before = picture();
  const auto handles = handlesInUse();
  for (const auto& c : cases) {
    for (size_t at = 0; at < 2 * c.changes; ++at) {
      const bool silent = at >= c.changes;
      SCOPED_TRACE(fmt::format("{}, change {} {}", c.what, at % c.changes,
                               silent ? "not confirmed" : "fails"));
      agent().begin();
      agent().updateIs(0, 33, "new bytes");
      c.calls();
      agent().end();
      ASSERT_EQ(forwarder().pending(), c.changes);
      for (size_t change = 0; change < c.changes; ++change) {
        if (change != at % c.changes) {
          forwarder().programNext();
        } else {
          silent ? forwarder().ignoreNext() : forwarder().failNext(ErrorCode::hardwareError);
        }
      }
      EXPECT_THAT(agent().outcome(),
                  ElementsAre(FailedWith(0, silent ? DEADLINE_EXCEEDED : INTERNAL)));
      EXPECT_EQ(agent().status->critical(), silent);
      agent().tableImpl->revertCriticalState();
      EXPECT_EQ(picture(), before);
      EXPECT_EQ(handlesInUse(), handles);
      EXPECT_EQ(agent().tableImpl->numPendingEntries(), 0u);
    }
  }
}

TEST_F(ActionProfileTest, SilenceOnPartOfAFailedUpdateIsCriticalAllTheSame) {
  const std::string before = picture();
  agent().begin();
  agent().updateIs(0);
  for (const uint8_t port : {1, 2, 3}) createMember(port);
  agent().end();
  forwarder().failNext(ErrorCode::hardwareError);
  forwarder().ignoreNext();
  forwarder().programNext();
  EXPECT_THAT(agent().outcome(), ElementsAre(FailedWith(0, INTERNAL)));
  EXPECT_TRUE(agent().status->critical());
  EXPECT_EQ(picture(), before);
  EXPECT_THAT(handlesInUse(), IsEmpty());
}

TEST_F(ActionProfileTest, RefusalInTheMiddleOfAnUpdateUndoesItsEarlierCalls) {
  for (uint8_t id = 1; id < 16; ++id) member(id, id);
  const std::string before = picture();
  const auto left = runBatch([&] {
    agent().updateIs(2, 0, "set");
    const uint64_t made = createGroup();
    addToGroup(made, createMember(1));
    createMember(2);  // the profile holds sixteen
  });
  ASSERT_THAT(left, ElementsAre(FailedWith(2, RESOURCE_EXHAUSTED)));
  EXPECT_EQ(left[0].second.message(), "table id 285212673 size limit reached");
  EXPECT_EQ(picture(), before);
  EXPECT_EQ(handlesInUse().size(), 15u);

  member(16, 1);
  EXPECT_THAT(runBatch([&] {
                agent().updateIs(0);
                modifyMember(1, 77);  // no new row
              }),
              IsEmpty());
}

TEST_F(ActionProfileTest, GroupHoldsAsManyMembersAsItsRecord) {
  const uint64_t one = member(1, 5);
  const uint64_t full = group(1, std::vector<uint64_t>(2048, one));
  ASSERT_EQ(forwarder().rows().at({"profile_group", bytes("00000001")}).size(), 4 + 2048 * 4u);
  const auto left = runBatch([&] {
    agent().updateIs(0);
    addToGroup(full, one);
  });
  EXPECT_THAT(left, ElementsAre(FailedWith(0, RESOURCE_EXHAUSTED)));
  EXPECT_EQ(forwarder().rows().at({"profile_group", bytes("00000001")}).size(), 4 + 2048 * 4u);
}

TEST_F(ActionProfileTest, StoreThatTakesNothingFailsTheGroupThatNeedsNoForwarder) {
  const std::string before = picture();
  agent().failCommits();
  agent().begin();
  agent().updateIs(0, 1);
  createGroup();
  agent().add(1, exactEntry(1));
  agent().end();
  EXPECT_THAT(agent().outcome(),
              ElementsAre(FailedWith(0, RESOURCE_EXHAUSTED), FailedWith(1, RESOURCE_EXHAUSTED)));
  EXPECT_EQ(picture(), before);
  EXPECT_THAT(handlesInUse(), IsEmpty());
}

TEST_F(ActionProfileTest, HandlesOfTheOtherKindOrOfNoneStopTheProcess) {
  EXPECT_DEATH(agent().tableImpl->actionProfileMemberEntryDelete(profile, uint64_t{1} << 32 | 1),
               "mbrHandle >> 32 == 0");
  EXPECT_DEATH(agent().tableImpl->actionProfileGroupEntryDelete(profile, 1),
               "grpHandle >> 32 == 1");
  EXPECT_DEATH(agent().tableImpl->actionProfileMemberEntryDelete(profile, 0), "memberId > 0");
  EXPECT_DEATH(agent().tableImpl->actionProfileGroupEntryDelete(profile, uint64_t{1} << 32),
               "groupId > 0");
  EXPECT_DEATH(deleteGroup(uint64_t{1} << 32 | 77), "groupHandleToEntryHandleHas");
}

TEST_F(ActionProfileTest, FetchLaysMembersAndGroupsOutWithoutPadding) {
  const uint64_t first = member(1, 5);
  const uint64_t second = member(2, 6);
  const uint64_t empty = group(1, {});
  const uint64_t both = group(2, {second, first, second});
  pi_act_prof_fetch_res_t result{};
  agent().begin();  // an open batch keeps nobody from looking
  ASSERT_EQ(_pi_act_prof_entries_fetch(0, 1, profile, &result), PI_STATUS_SUCCESS);
  agent().end();
  EXPECT_EQ(result.num_members, 2u);
  EXPECT_EQ(result.num_groups, 2u);
  EXPECT_EQ(result.num_cumulated_mbr_handles, 3u);
  const auto word = [](uint64_t value, size_t size) {
    return std::string(reinterpret_cast<const char*>(&value), size);
  };
  EXPECT_EQ(std::string(result.entries_members, result.entries_members_size),
            word(first, 8) + word(setPort, 4) + word(2, 4) + bytes("0005") + word(second, 8) +
                word(setPort, 4) + word(2, 4) + bytes("0006"));
  EXPECT_EQ(std::string(result.entries_groups, result.entries_groups_size),
            word(empty, 8) + word(0, 4) + word(0, 4) + word(both, 8) + word(3, 4) + word(0, 4));
  EXPECT_EQ(std::vector<uint64_t>(result.mbr_handles, result.mbr_handles + 3),
            (std::vector<uint64_t>{second, first, second}));
  EXPECT_EQ(_pi_act_prof_entries_fetch_done(0, &result), PI_STATUS_SUCCESS);
}

TEST_F(ActionProfileTest, RestartBringsAllBackWithoutATrace) {
  const uint64_t first = member(70, 5);
  const uint64_t hidden = member(0, 6);
  const uint64_t both = group(9, {hidden, first, first});
  const uint64_t empty = group(10, {});
  runBatch([&] { agent().add(0, entryTo(both)); });
  const std::string before = picture();
  const uint64_t sequence = agent().lastSequence();
  restart();
  EXPECT_EQ(agent().lastSequence(), sequence) << "forwarding agents hear of no change";
  EXPECT_EQ(picture(), before);
  using Object = FakeFrontEnd::RestoredObject;
  EXPECT_THAT(agent().frontEnd.members,
              ElementsAre(Object{70, first, bytes("0005"), "of the member"},
                          Object{0, hidden, bytes("0006"), "of the member"}));
  EXPECT_THAT(agent().frontEnd.groups,
              testing::UnorderedElementsAre(
                  Object{9, both, fmt::format("{} {} {} ", hidden, first, first), "of the group"},
                  Object{10, empty, "", "of the group"}));
  ASSERT_EQ(agent().frontEnd.restored.size(), 1u);
  EXPECT_EQ(agent().frontEnd.restored[0].indirectHandle, both);
  EXPECT_GT(member(71, 1), hidden) << "new handles start above restored ones";
  EXPECT_GT(group(11, {}), empty);
}

// The profile's members lose their action, or its tables are gone: their dependents go, too.
// The others come back all the same.
TEST_F(ActionProfileTest, RecordOfAMemberThatCannotBeRestoredStopsNoOther) {
  const uint64_t good = member(7, 5);
  const uint64_t bad = member(8, 6);
  group(9, {good, bad});
  {
    const Vela::ActivityLock lock;
    agent().tableImpl->memberCache()->storedIs({{actionProfileResource, profile}, bad},
                                               Brine::asBytes("not a record"));
  }
  restart();
  EXPECT_EQ(agent().frontEnd.members.size(), 1u);
  ASSERT_EQ(agent().frontEnd.groups.size(), 1u);
  EXPECT_EQ(agent().frontEnd.groups[0].data, std::to_string(good) + " ");
  EXPECT_EQ(
      agent().tableImpl->failures()->notRestoredList(),
      "a member of action profile profile, handle " + std::to_string(bad) + ": unreadable record");
}

TEST_F(ActionProfileTest, WhatThePipelineHasNoPlaceForGoesWithItsRows) {
  const uint64_t first = member(1, 5);
  const uint64_t held = group(1, {first});
  runBatch([&] { agent().add(0, entryTo(held)); });
  restart(pipelineOf(replaced(smallP4Info(),
                              "match_type: EXACT } action_refs { id: 0x01000001 } }\ntables { "
                              "preamble { id: 0x02000008",
                              "match_type: EXACT } action_refs { id: 0x01000003 } }\ntables { "
                              "preamble { id: 0x02000008"),
                     smallDeviceConfig()));
  EXPECT_THAT(agent().frontEnd.members, IsEmpty());
  EXPECT_THAT(agent().frontEnd.groups,
              ElementsAre(FakeFrontEnd::RestoredObject{1, held, "", "of the group"}));
  forwarder().programAll();
  EXPECT_EQ(forwarder().rows().count({"profile_member", bytes("00000001")}), 0u);
  EXPECT_EQ(forwarder().rows().at({"profile_group", bytes("00000001")}), bytes("00000000"));
}

}  // namespace
}  // namespace P4Runtime
