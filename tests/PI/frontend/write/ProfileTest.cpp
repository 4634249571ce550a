// Members, groups and the entries that point at them, from Write to target to Read.
#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::v1::TableEntry;
using p4::v1::Update;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

class ProfileTest : public FrontendTest {
 protected:
  ProfileTest() { pipelineIsUp(); }

  template <typename Entity>
  static Update insert(const Entity& entity) {
    return test::update(Update::INSERT, entity);
  }
  template <typename Entity>
  static Update modify(const Entity& entity) {
    return test::update(Update::MODIFY, entity);
  }
  template <typename Entity>
  static Update remove(const Entity& entity) {
    return test::update(Update::DELETE, entity);
  }
  std::vector<std::vector<uint32_t>> offsets() const {
    std::vector<std::vector<uint32_t>> result;
    for (const auto& batch : target.batches()) {
      result.emplace_back();
      for (const auto& call : batch) {
        if (result.back().empty() || result.back().back() != call.offset) {
          result.back().push_back(call.offset);
        }
      }
    }
    return result;
  }
  void nothingIsLeft() const {
    EXPECT_THAT(target.rows(), IsEmpty());
    EXPECT_THAT(target.members(), IsEmpty());
    EXPECT_THAT(target.groups(), IsEmpty());
    EXPECT_EQ(device->pipeline()->store().size(), 0u);
  }

  const p4::v1::ActionProfileMember one = test::member(1, 11), two = test::member(2, 22),
                                    three = test::member(3, 33);
};

TEST_F(ProfileTest, MembersGroupsAndEntriesReachTargetAndReads) {
  p4::v1::ActionProfileGroup watched = test::group(7, {{2, 3}, {1, 1}});
  watched.set_max_size(8);
  watched.mutable_members(0)->set_watch_port("\x05");
  watched.mutable_members(1)->set_watch(9);
  ASSERT_EQ(written({insert(one), insert(two)}).code(), code::ok);
  EXPECT_THAT(target.lastCalls(), ElementsAre("create member 1", "create member 2"));
  p4::v1::ActionProfileGroup longer = watched;
  longer.mutable_members(0)->set_watch_port(std::string("\0\x05", 2));
  ASSERT_EQ(inserted(longer).code(), code::ok);
  EXPECT_THAT(target.lastCalls(), ElementsAre("create group 1", "add 2 to 1", "add 2 to 1",
                                              "add 2 to 1", "add 1 to 1"));
  EXPECT_EQ(target.batches().back()[0].metadata, watched.SerializeAsString());
  EXPECT_EQ(target.members().at(2).controllerId, 2u);
  EXPECT_EQ(target.groups().at((1ull << 32) + 1).controllerId, 7u);
  ASSERT_EQ(written({insert(test::toGroup(1, 7)), insert(test::toMember(2, 1))}).code(), code::ok);
  EXPECT_THAT(members(), ElementsAre(EqualsProto(one), EqualsProto(two)));
  EXPECT_THAT(groups(), ElementsAre(EqualsProto(watched)));
  EXPECT_THAT(
      found(test::query(test::kWcmp)),
      UnorderedElementsAre(EqualsProto(test::toGroup(1, 7)), EqualsProto(test::toMember(2, 1))));
}

TEST_F(ProfileTest, DependentUpdatesOfOneWriteEndAsSent) {
  const auto group = test::group(7, {{1, 1}});
  const TableEntry entry = test::toGroup(1, 7);
  EXPECT_EQ(written({insert(one), insert(group), insert(entry), remove(entry), remove(group),
                     remove(one)})
                .code(),
            code::ok);
  EXPECT_THAT(offsets(), SizeIs(6));
  nothingIsLeft();
}

TEST_F(ProfileTest, WhatIsInUseStays) {
  ASSERT_EQ(written({insert(one), insert(two), insert(test::group(7, {{1, 1}, {2, 1}})),
                     insert(test::group(8, {{1, 1}})), insert(test::toGroup(1, 7)),
                     insert(test::toMember(2, 1))})
                .code(),
            code::ok);
  const Status status = written({remove(one), remove(test::group(7, {}))});
  EXPECT_THAT(test::codesOf(status),
              ElementsAre(code::failedPrecondition, code::failedPrecondition));
  EXPECT_THAT(test::errorsOf(status)[0].message(),
              HasSubstr("action profile ingress.nexthops: member 1: it is used by 2 groups and 1 "
                        "table entry"));
  EXPECT_THAT(test::errorsOf(status)[1].message(), HasSubstr("0 groups and 1 table entry"));
}

TEST_F(ProfileTest, LaterUpdatesSeeThatEarlierOnesFailed) {
  target.failureIs(0, code::resourceExhausted, "full");
  const auto group = test::group(7, {{1, 1}});
  EXPECT_THAT(test::codesOf(
                  written({insert(one), insert(group), insert(test::toGroup(1, 7)), insert(two)})),
              ElementsAre(code::resourceExhausted, code::notFound, code::notFound, code::ok));
  target.failuresAreOver();
  ASSERT_EQ(written({insert(one), insert(group), insert(test::toGroup(1, 7))}).code(), code::ok);
  target.failureIs(0, code::internal, "no");
  EXPECT_THAT(test::codesOf(written({remove(test::toGroup(1, 7)), remove(group)})),
              ElementsAre(code::internal, code::failedPrecondition));
  EXPECT_THAT(found(test::query(test::kWcmp)), SizeIs(1));
}

TEST_F(ProfileTest, RefusedByWhatIsThere) {
  ASSERT_EQ(written({insert(one), insert(two), insert(test::group(7, {{1, 1}}))}).code(), code::ok);
  auto resized = test::group(7, {{1, 1}});
  resized.set_max_size(3);
  const struct {
    const char* what;
    Update update;
    int code;
    const char* says;
  } cases[] = {
      {"member again", insert(one), code::alreadyExists, "member 1: there is such a member"},
      {"group again", insert(test::group(7, {})), code::alreadyExists, "there is such a group"},
      {"no such member", modify(three), code::notFound, "member 3: there is no such member"},
      {"no such group", remove(test::group(8, {})), code::notFound, "there is no such group"},
      {"group of no such member", insert(test::group(8, {{1, 1}, {3, 1}})), code::notFound,
       "group 8: there is no member 3; insert it first"},
      {"MODIFY to no such member", modify(test::group(7, {{3, 1}})), code::notFound, "member 3"},
      {"max_size changes", modify(resized), code::invalidArgument, "it was inserted with 0"},
      {"entry to no such member", insert(test::toMember(1, 3)), code::notFound,
       "table ingress.wcmp: key 0x01: action profile ingress.nexthops has no member 3"},
      {"entry to no such group", insert(test::toGroup(1, 1)), code::notFound, "no group 1"},
      {"another profile's member", insert(test::toMember(1, 1, test::kPlain)), code::notFound,
       "ingress.plain_nexthops has no member 1"},
      {"action set", insert(test::oneShot(1, {{1, 1}})), code::invalidArgument,
       "has 3 members and groups"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Status status = written({c.update});
    EXPECT_THAT(test::codesOf(status), ElementsAre(c.code));
    EXPECT_THAT(test::errorsOf(status)[0].message(), HasSubstr(c.says));
  }
  EXPECT_THAT(groups(), ElementsAre(EqualsProto(test::group(7, {{1, 1}}))));
}

TEST_F(ProfileTest, RoomInAProfileIsLimited) {
  ASSERT_EQ(
      written({insert(one), insert(test::group(1, {{1, 16}})), insert(test::group(2, {{1, 16}}))})
          .code(),
      code::ok);
  EXPECT_THAT(
      test::codesOf(written({insert(test::group(3, {{1, 8}})), insert(test::group(4, {{1, 1}}))})),
      ElementsAre(code::ok, code::resourceExhausted));
  EXPECT_EQ(written({remove(test::group(3, {})), insert(test::group(4, {{1, 4}})),
                     insert(test::group(5, {{1, 4}}))})
                .code(),
            code::ok);
  const Status grown = written({modify(test::group(4, {{1, 5}}))});
  EXPECT_THAT(test::codesOf(grown), ElementsAre(code::resourceExhausted));
  EXPECT_THAT(test::errorsOf(grown)[0].message(), HasSubstr("would have the size 41; it may have"));
  EXPECT_EQ(written({modify(test::group(4, {{1, 3}})), modify(test::group(5, {{1, 5}}))}).code(),
            code::ok);
  // Without a selector members count.
  std::vector<Update> plain;
  for (uint32_t id = 1; id <= 4; ++id) {
    plain.push_back(insert(test::member(id, id, test::kPlainNexthops)));
  }
  EXPECT_THAT(test::codesOf(written(plain)),
              ElementsAre(code::ok, code::ok, code::ok, code::resourceExhausted));
}

TEST_F(ProfileTest, MemberChangesInPlace) {
  ASSERT_EQ(written({insert(one), insert(test::group(7, {{1, 2}}))}).code(), code::ok);
  auto dropping = one;
  dropping.mutable_action()->Clear();
  dropping.mutable_action()->set_action_id(test::kDrop);
  ASSERT_EQ(written({modify(dropping)}).code(), code::ok);
  EXPECT_THAT(target.lastCalls(), ElementsAre("modify member 1"));
  EXPECT_THAT(members(test::kNexthops, 1), ElementsAre(EqualsProto(dropping)));
}

TEST_F(ProfileTest, GroupChangesWithTheFewestCalls) {
  ASSERT_EQ(written({insert(one), insert(two), insert(three)}).code(), code::ok);
  ASSERT_EQ(inserted(test::group(7, {})).code(), code::ok);
  const struct {
    const char* what;
    std::vector<test::Weight> members;
    std::vector<std::string> calls;
  } steps[] = {
      {"filled", {{1, 2}, {2, 1}}, {"add 1 to 1", "add 1 to 1", "add 2 to 1", "describe group 1"}},
      {"as it is", {{1, 2}, {2, 1}}, {}},
      {"another order", {{2, 1}, {1, 2}}, {"describe group 1"}},
      {"a weight more", {{1, 2}, {2, 2}}, {"add 2 to 1", "describe group 1"}},
      {"adds before removes",
       {{3, 1}, {2, 1}},
       {"add 3 to 1", "remove 2 to 1", "remove 1 to 1", "remove 1 to 1", "describe group 1"}},
      {"emptied", {}, {"remove 3 to 1", "remove 2 to 1", "describe group 1"}},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    const auto group = test::group(7, step.members);
    ASSERT_EQ(written({modify(group)}).code(), code::ok);
    std::vector<std::string> calls = target.lastCalls();
    EXPECT_EQ(calls, step.calls);
    EXPECT_THAT(groups(test::kNexthops, 7), ElementsAre(EqualsProto(group)));
    EXPECT_EQ(target.groups().begin()->second.metadata, group.SerializeAsString());
  }
}

// The target holds no more than 2048, so a full group is changed hand over hand, never emptied.
TEST_F(ProfileTest, FullGroupIsChangedHandOverHand) {
  auto wide = config;
  wide.mutable_p4info()->mutable_action_profiles(0)->set_max_group_size(0);
  wide.mutable_p4info()->mutable_action_profiles(0)->set_size(0);
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, wide).code(), code::ok);
  target.restored(0, "");
  ASSERT_EQ(written({insert(one), insert(two), insert(test::group(7, {{1, 2047}}))}).code(),
            code::ok);
  ASSERT_EQ(written({modify(test::group(7, {{2, 2048}}))}).code(), code::ok);
  const auto calls = target.lastCalls();
  EXPECT_THAT(calls, SizeIs(2048 + 2047 + 1));
  EXPECT_EQ(calls[0], "add 2 to 1");
  EXPECT_EQ(calls[1], "remove 1 to 1");
  EXPECT_THAT(target.groups().begin()->second.members, SizeIs(2048));
}

TEST_F(ProfileTest, EntryMovesBetweenMembersAndGroups) {
  ASSERT_EQ(written({insert(one), insert(two), insert(test::group(7, {{1, 1}})),
                     insert(test::toMember(1, 1))})
                .code(),
            code::ok);
  ASSERT_EQ(written({modify(test::toGroup(1, 7))}).code(), code::ok);
  EXPECT_THAT(found(test::query(test::kWcmp)), ElementsAre(EqualsProto(test::toGroup(1, 7))));
  TableEntry described = test::toGroup(1, 7);
  described.set_metadata("blue");
  TableEntry withoutAction = described;
  withoutAction.clear_action();
  ASSERT_EQ(written({modify(withoutAction)}).code(), code::ok);
  EXPECT_THAT(found(test::query(test::kWcmp)), ElementsAre(EqualsProto(described)));
  EXPECT_EQ(written({modify(test::toMember(1, 2)), remove(test::group(7, {})), remove(one)}).code(),
            code::ok);
  EXPECT_THAT(members(), ElementsAre(EqualsProto(two)));
}

TEST_F(ProfileTest, ReadsOfMembersAndGroups) {
  const auto plain = test::member(9, 9, test::kPlainNexthops);
  std::vector<Update> updates{insert(plain), insert(test::group(7, {}))};
  for (uint32_t id = 600; id > 0; --id) updates.push_back(insert(test::member(id, 5)));
  ASSERT_EQ(written(updates).code(), code::ok);
  EXPECT_THAT(members(), SizeIs(601));
  const auto nexthops = members(test::kNexthops);
  ASSERT_THAT(nexthops, SizeIs(600));
  for (uint32_t id = 1; id <= 600; ++id) EXPECT_EQ(nexthops[id - 1].member_id(), id);
  EXPECT_THAT(members(test::kPlainNexthops), ElementsAre(EqualsProto(plain)));
  EXPECT_THAT(groups(), SizeIs(1));
  const struct {
    const char* what;
    bool isGroup;
    uint32_t profile, id;
    int code;
  } cases[] = {
      {"member that is not there", false, test::kNexthops, 601, code::notFound},
      {"group that is not there", true, test::kNexthops, 1, code::notFound},
      {"member of no profile", false, 0, 1, code::invalidArgument},
      {"profile unknown", false, 0x11000009, 0, code::invalidArgument},
      {"groups where there are none", true, test::kPlainNexthops, 0, code::invalidArgument},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    p4::v1::Entity query;
    if (c.isGroup) {
      query.mutable_action_profile_group()->set_action_profile_id(c.profile);
      query.mutable_action_profile_group()->set_group_id(c.id);
    } else {
      query.mutable_action_profile_member()->set_action_profile_id(c.profile);
      query.mutable_action_profile_member()->set_member_id(c.id);
    }
    std::vector<p4::v1::Entity> found;
    EXPECT_EQ(objectsRead(query, &found), c.code);
    EXPECT_THAT(found, IsEmpty());
  }
  TableEntry byAction = test::query(test::kWcmp);
  byAction.mutable_action()->mutable_action()->set_action_id(test::kForward);
  Entries none;
  EXPECT_THAT(test::codesOf(read({byAction}, &none)), ElementsAre(code::invalidArgument));
}

TEST_F(ProfileTest, EverythingIsKnownAgainAfterARestart) {
  auto watched = test::group(7, {{2, 2}, {1, 1}});
  watched.mutable_members(0)->set_watch_port("\x05");
  watched.set_max_size(9);
  TableEntry entry = test::toGroup(1, 7);
  entry.set_metadata("blue");
  ASSERT_EQ(written({insert(one), insert(two), insert(watched), insert(entry),
                     insert(test::toMember(2, 1))})
                .code(),
            code::ok);
  restart();
  EXPECT_THAT(members(), ElementsAre(EqualsProto(one), EqualsProto(two)));
  EXPECT_THAT(groups(), ElementsAre(EqualsProto(watched)));
  EXPECT_THAT(found(test::query(test::kWcmp)),
              UnorderedElementsAre(EqualsProto(entry), EqualsProto(test::toMember(2, 1))));
  EXPECT_THAT(test::codesOf(written(
                  {remove(one), remove(watched), insert(two), insert(test::oneShot(3, {}))})),
              ElementsAre(code::failedPrecondition, code::failedPrecondition, code::alreadyExists,
                          code::invalidArgument));
  EXPECT_EQ(written({remove(entry), remove(test::toMember(2, 1)), remove(watched), remove(one),
                     remove(two)})
                .code(),
            code::ok);
  nothingIsLeft();
}

TEST_F(ProfileTest, RestoredGroupIsRebuiltFromItsMembersWhenItsBytesDisagree) {
  auto written7 = test::group(7, {{1, 1}, {2, 1}});
  written7.mutable_members(1)->set_watch_port("\x05");
  ASSERT_EQ(written({insert(one), insert(two), insert(written7)}).code(), code::ok);
  FakeTarget::Group group = target.groups().begin()->second;
  group.members = {2, 1, 2};
  auto rebuilt = test::group(7, {{2, 2}, {1, 1}});
  rebuilt.mutable_members(0)->set_watch_port("\x05");
  target.groupIs(target.groups().begin()->first, group);
  restart();
  EXPECT_THAT(groups(), ElementsAre(EqualsProto(rebuilt)));
  group.metadata = "no group";
  target.groupIs(target.groups().begin()->first, group);
  restart();
  EXPECT_THAT(groups(), ElementsAre(EqualsProto(test::group(7, {{2, 2}, {1, 1}}))));
}

TEST_F(ProfileTest, RestoreRefusesWhatDoesNotFit) {
  device.reset();
  device.emplace(1, std::chrono::milliseconds(0));
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, config).code(), code::ok);
  const auto member = [](uint32_t profile, uint32_t id, uint32_t action, std::string data,
                         uint64_t handle) {
    const pi_action_data_t bytes{nullptr, action, data.size(), data.data()};
    return pi_restore_action_profile_member_state(1, profile, &bytes, id, handle, nullptr, 0);
  };
  const auto group = [](uint32_t profile, uint32_t id, std::vector<uint64_t> members,
                        uint64_t handle) {
    return pi_restore_action_profile_group_state(1, profile, id, members.data(), members.size(),
                                                 handle, nullptr, 0);
  };
  EXPECT_EQ(member(test::kNexthops, 1, test::kDrop, "", 1), PI_STATUS_SUCCESS);
  EXPECT_EQ(member(test::kNexthops, 0, test::kDrop, "", 2), PI_STATUS_SUCCESS);
  EXPECT_EQ(group(test::kNexthops, 5, {1, 1}, 50), PI_STATUS_SUCCESS);
  EXPECT_NE(member(test::kWcmp, 2, test::kDrop, "", 3), PI_STATUS_SUCCESS) << "no profile";
  EXPECT_NE(member(test::kNexthops, 2, test::kGroup, "", 3), PI_STATUS_SUCCESS) << "action";
  EXPECT_NE(member(test::kNexthops, 2, test::kDrop, "1", 3), PI_STATUS_SUCCESS) << "too long";
  EXPECT_NE(member(test::kNexthops, 1, test::kDrop, "", 3), PI_STATUS_SUCCESS) << "id twice";
  EXPECT_NE(member(test::kNexthops, 3, test::kDrop, "", 1), PI_STATUS_SUCCESS) << "handle twice";
  EXPECT_NE(group(test::kPlainNexthops, 6, {}, 60), PI_STATUS_SUCCESS) << "no selector";
  EXPECT_NE(group(test::kNexthops, 6, {9}, 60), PI_STATUS_SUCCESS) << "unknown member";
  EXPECT_NE(group(test::kNexthops, 6, {2}, 60), PI_STATUS_SUCCESS) << "hidden member";
  EXPECT_NE(group(test::kNexthops, 0, {1}, 60), PI_STATUS_SUCCESS) << "member of a controller";
  EXPECT_NE(group(test::kNexthops, 5, {1}, 60), PI_STATUS_SUCCESS) << "id twice";
  const std::string key("\1");
  const auto entry = [&](uint64_t handle) {
    std::string bytes = key;
    const pi_match_key_t match{nullptr, test::kWcmp, 0, bytes.size(), bytes.data()};
    pi_table_entry_t given{};
    given.entry_type = PI_ACTION_ENTRY_TYPE_INDIRECT;
    given.entry.indirect_handle = handle;
    return pi_restore_table_entry_state(1, test::kWcmp, &match, &given, 9, 0, nullptr, 0);
  };
  EXPECT_EQ(entry(50), PI_STATUS_SUCCESS);
  EXPECT_NE(entry(60), PI_STATUS_SUCCESS) << "unknown group";
  EXPECT_NE(entry(2), PI_STATUS_SUCCESS) << "hidden member by itself";
  EXPECT_EQ(device->pipeline()->store().size(), 3u);
}

}  // namespace
}  // namespace pi::fe::proto
