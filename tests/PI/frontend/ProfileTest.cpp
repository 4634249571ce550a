// Members, groups and the entries that point at them, from Write to target to Read.
#include "tests/PI/frontend/FrontendTest.h"

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
  ASSERT_EQ(inserted(watched).code(), code::ok);
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

}  // namespace
}  // namespace pi::fe::proto
