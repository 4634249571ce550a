// One-shot action sets: their hidden members and groups come, change and go with the entry.
#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::v1::TableEntry;
using p4::v1::Update;
using namespace std::string_literals;
using test::oneShot;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class OneShotTest : public FrontendTest {
 protected:
  OneShotTest() { pipelineIsUp(); }

  Status modified(const TableEntry& entry) {
    return written({test::update(Update::MODIFY, entry)});
  }
  Status removed(const TableEntry& entry) { return written({test::update(Update::DELETE, entry)}); }
  TableEntry standing() const {
    const Entries entries = found(test::query(test::kWcmp));
    EXPECT_THAT(entries, SizeIs(1));
    return entries.empty() ? TableEntry() : entries[0];
  }
  static TableEntry watching(TableEntry entry, const std::string& param, const std::string& port) {
    auto* element =
        entry.mutable_action()->mutable_action_profile_action_set()->mutable_action_profile_actions(
            0);
    element->mutable_action()->mutable_params(0)->set_value(param);
    element->set_watch_port(port);
    return entry;
  }
  void nothingIsLeft() const {
    EXPECT_THAT(target.rows(), IsEmpty());
    EXPECT_THAT(target.members(), IsEmpty());
    EXPECT_THAT(target.groups(), IsEmpty());
  }
};

TEST_F(OneShotTest, ComesAndGoesWithItsEntry) {
  TableEntry entry = oneShot(1, {{5, 2}, {5, 2}, {6, 1}});
  entry.set_metadata("blue");
  ASSERT_EQ(inserted(entry).code(), code::ok);
  EXPECT_THAT(
      target.lastCalls(),
      ElementsAre("create member 1", "create member 2", "create member 3", "create group 1",
                  "add 1 to 1", "add 1 to 1", "add 2 to 1", "add 2 to 1", "add 3 to 1", ""));
  EXPECT_EQ(target.members().at(1).controllerId, 0u);
  EXPECT_EQ(target.batches().back().back().metadata, "blue");
  EXPECT_THAT(standing(), EqualsProto(entry));
  EXPECT_THAT(members(), IsEmpty());
  EXPECT_THAT(groups(), IsEmpty());
  ASSERT_EQ(removed(entry).code(), code::ok);
  EXPECT_THAT(target.lastCalls(), ElementsAre("", "delete group 1", "delete member 1",
                                              "delete member 2", "delete member 3"));
  nothingIsLeft();
}

TEST_F(OneShotTest, IsReadBackInShortestForm) {
  const TableEntry shortest = watching(oneShot(1, {{5, 2}, {6, 1}}), "\x07", "\x05");
  const TableEntry longer = watching(shortest, "\0\0\x07"s, "\0\x05"s);
  ASSERT_EQ(inserted(longer).code(), code::ok);
  EXPECT_THAT(standing(), EqualsProto(shortest));
}

TEST_F(OneShotTest, ChangesInPlaceWithTheFewestCalls) {
  ASSERT_EQ(inserted(oneShot(1, {{5, 1}, {6, 1}})).code(), code::ok);
  const struct {
    const char* what;
    std::vector<test::Weight> actions;
    std::vector<std::string> calls;
  } steps[] = {
      {"as it is", {{5, 1}, {6, 1}}, {""}},
      {"another action", {{5, 1}, {7, 1}}, {"modify member 2", "describe group 1", ""}},
      {"another weight", {{5, 2}, {7, 1}}, {"add 1 to 1", "describe group 1", ""}},
      {"one more",
       {{5, 1}, {7, 1}, {8, 1}},
       {"create member 3", "add 3 to 1", "remove 1 to 1", "describe group 1", ""}},
      {"two fewer",
       {{9, 1}},
       {"modify member 1", "remove 2 to 1", "remove 3 to 1", "describe group 1", "delete member 2",
        "delete member 3", ""}},
      {"none", {}, {"remove 1 to 1", "describe group 1", "delete member 1", ""}},
      {"one", {{5, 1}}, {"create member 4", "add 4 to 1", "describe group 1", ""}},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    const TableEntry entry = oneShot(1, step.actions);
    ASSERT_EQ(modified(entry).code(), code::ok);
    EXPECT_EQ(target.lastCalls(), step.calls);
    EXPECT_THAT(standing(), EqualsProto(entry));
  }
  TableEntry withoutAction = oneShot(1, {});
  withoutAction.clear_action();
  ASSERT_EQ(modified(withoutAction).code(), code::ok);
  EXPECT_THAT(standing(), EqualsProto(oneShot(1, {{5, 1}})));
  ASSERT_EQ(removed(withoutAction).code(), code::ok);
  nothingIsLeft();
}

// Each update is run with a failure at each of its calls, at once or only reported later; none of
// them may leave a trace, and the entry must still be usable afterwards.
TEST_F(OneShotTest, FailureAtAnyStepLeavesNoTrace) {
  const TableEntry before = oneShot(1, {{5, 1}, {6, 1}, {6, 1}});
  const TableEntry after = oneShot(1, {{7, 2}});
  const auto snapshot = [this] {
    std::vector<std::string> text;
    for (const auto& [key, row] : target.rows()) text.push_back(std::to_string(row.indirect));
    for (const auto& [handle, member] : target.members()) {
      text.push_back(std::to_string(handle) + member.action);
    }
    for (const auto& [handle, group] : target.groups()) {
      text.push_back(group.metadata + testing::PrintToString(group.members));
    }
    return text;
  };
  const struct {
    const char* what;
    Update update;
    size_t calls;
  } cases[] = {{"INSERT", test::update(Update::INSERT, oneShot(2, {{5, 1}, {6, 2}})), 7},
               {"MODIFY", test::update(Update::MODIFY, after), 8},
               {"DELETE", test::update(Update::DELETE, before), 5}};
  ASSERT_EQ(inserted(before).code(), code::ok);
  for (const auto& c : cases) {
    const auto standing = snapshot();
    const auto fails = [&](int expected) {
      EXPECT_THAT(test::codesOf(written({c.update})), ElementsAre(expected));
      target.failuresAreOver();
      EXPECT_EQ(snapshot(), standing);
      EXPECT_THAT(found(test::query(test::kWcmp)), ElementsAre(EqualsProto(before)));
    };
    for (size_t n = 0; n < c.calls; ++n) {
      SCOPED_TRACE(testing::Message() << c.what << ", call " << n);
      target.callStatusIs(0, 1234, n);
      fails(code::internal);
      EXPECT_THAT(target.lastCalls(), SizeIs(n + 1)) << "none after the failed one";
      target.callStatusIs(0, PI_STATUS_BATCH_UPDATE_FAILED, n);
      target.failureIs(0, code::resourceExhausted, "full");
      fails(code::resourceExhausted);
    }
    target.timeoutIs(0);
    fails(code::deadlineExceeded);
  }
  ASSERT_EQ(modified(after).code(), code::ok);
  EXPECT_THAT(standing(), EqualsProto(after));
  ASSERT_EQ(removed(after).code(), code::ok);
  nothingIsLeft();
}

TEST_F(OneShotTest, DoesNotMixWithMembersAndGroups) {
  ASSERT_EQ(inserted(oneShot(1, {{5, 1}})).code(), code::ok);
  const Status status = written({test::update(Update::INSERT, test::member(1, 1)),
                                 test::update(Update::INSERT, test::group(1, {}))});
  EXPECT_THAT(test::codesOf(status), ElementsAre(code::invalidArgument, code::invalidArgument));
  EXPECT_THAT(test::errorsOf(status)[0].message(),
              HasSubstr("used by 1 table entry with one-shot action sets"));
  EXPECT_EQ(inserted(test::member(1, 1, test::kPlainNexthops)).code(), code::ok);
  EXPECT_EQ(written({test::update(Update::DELETE, oneShot(1, {})),
                     test::update(Update::INSERT, test::member(1, 1))})
                .code(),
            code::ok);
}

TEST_F(OneShotTest, IsKnownAgainAfterARestart) {
  const TableEntry entry = oneShot(1, {{5, 1}, {6, 2}, {5, 1}});
  ASSERT_EQ(inserted(oneShot(1, {{9, 1}, {6, 1}})).code(), code::ok);
  ASSERT_EQ(inserted(oneShot(2, {})).code(), code::ok);
  ASSERT_EQ(modified(entry).code(), code::ok);
  restart();
  EXPECT_THAT(found(test::query(test::kWcmp)),
              testing::UnorderedElementsAre(EqualsProto(entry), EqualsProto(oneShot(2, {}))));
  EXPECT_THAT(members(), IsEmpty());
  EXPECT_THAT(test::codesOf(inserted(test::member(1, 1))), ElementsAre(code::invalidArgument));
  ASSERT_EQ(modified(oneShot(1, {{5, 1}})).code(), code::ok);
  ASSERT_EQ(removed(entry).code(), code::ok);
  ASSERT_EQ(removed(oneShot(2, {})).code(), code::ok);
  nothingIsLeft();
}

TEST_F(OneShotTest, RestoredSetIsRebuiltFromItsMembersWhenItsBytesDisagree) {
  ASSERT_EQ(inserted(oneShot(1, {{5, 1}, {6, 2}})).code(), code::ok);
  const uint64_t handle = target.groups().begin()->first;
  FakeTarget::Group group = target.groups().at(handle);
  const auto& bytes = group.metadata;
  const std::string others[] = {
      "no set", "", oneShot(1, {{5, 1}}).action().action_profile_action_set().SerializeAsString(),
      oneShot(1, {{5, 0}}).action().action_profile_action_set().SerializeAsString()};
  for (const std::string& other : others) {
    SCOPED_TRACE(other);
    group.metadata = other;
    target.groupIs(handle, group);
    restart();
    EXPECT_THAT(standing(), EqualsProto(oneShot(1, {{5, 1}, {6, 2}})));
  }
  EXPECT_EQ(bytes, others[3]);
  ASSERT_EQ(removed(oneShot(1, {})).code(), code::ok);
  nothingIsLeft();
}

TEST_F(OneShotTest, HiddenOnesWithoutTheirEntryAreDeletedAfterARestart) {
  ASSERT_EQ(inserted(oneShot(1, {{5, 1}, {6, 2}})).code(), code::ok);
  target.rowDel(target.rows().begin()->first);
  restart();
  nothingIsLeft();
}

}  // namespace
}  // namespace pi::fe::proto
