// Writes and reads of callers with limits.
#include <set>

#include "tests/PI/frontend/support/FrontendTest.h"
#include "tests/PI/support/RefusedWith.h"

namespace pi::fe::proto {
namespace {

using p4::v1::Entity;
using p4::v1::TableEntry;
using p4::v1::Update;
using p4::v1::WriteRequest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using TestSupport::RefusedWith;

// May write and read some objects, and neither groups nor sessions of packet replication.
struct Limited final : EntityCaller {
  struct Rights final : EntityRights {
    Rights(std::set<uint32_t> writes, std::set<uint32_t> reads)
        : writes(std::move(writes)), reads(std::move(reads)) {}
    bool permits(EntityUse use, const EntityObject& object) const override {
      const auto& ids = use == EntityUse::write ? writes : reads;
      return object.kind == EntityObject::Kind::ofP4Info && ids.contains(object.id);
    }
    std::string refusal(EntityUse, const EntityObject&, std::string_view text) const override {
      return std::string(text) + ": not for you";
    }
    const std::set<uint32_t> writes;
    const std::set<uint32_t> reads;
  };
  Limited(std::set<uint32_t> writes, std::set<uint32_t> reads)
      : made(std::make_shared<const Rights>(std::move(writes), std::move(reads))) {}
  std::shared_ptr<const EntityRights> rights(uint64_t pipeline,
                                             const p4::config::v1::P4Info&) const override {
    pipelines.insert(pipeline);
    return made;
  }
  const std::shared_ptr<const Rights> made;
  mutable std::set<uint64_t> pipelines;
};

class RightsTest : public FrontendTest {
 protected:
  RightsTest() { pipelineIsUp(); }

  Status readAs(const EntityCaller* caller, const Entity& query, std::vector<Entity>* found) const {
    found->clear();
    p4::v1::ReadRequest request;
    *request.add_entities() = query;
    const auto take = [&](const p4::v1::ReadResponse& response) {
      found->insert(found->end(), response.entities().begin(), response.entities().end());
      return true;
    };
    return device->read(request, take, caller);
  }
  static Entity ofTable(const TableEntry& entry) {
    Entity query;
    *query.mutable_table_entry() = entry;
    return query;
  }
};

TEST_F(RightsTest, AnUpdateThatTheCallerMayNotMakeFailsByItself) {
  const Limited caller({test::kIpv4}, {});
  WriteRequest request =
      test::writeOf({test::update(Update::INSERT, test::ipv4(1, 1 << 8, 24, 1)),
                     test::update(Update::INSERT, test::acl(1, 0xff, 10)),
                     test::update(Update::INSERT, test::member(1, 1)),
                     test::update(Update::INSERT, test::ipv4(1, 2 << 8, 24, 1))});
  const Status status = written(request, &caller);
  EXPECT_THAT(test::codesOf(status),
              ElementsAre(code::ok, code::permissionDenied, code::permissionDenied, code::ok));
  EXPECT_THAT(test::errorsOf(status)[1],
              RefusedWith(code::permissionDenied, "table ingress.acl: not for you"));
  EXPECT_THAT(found(test::query(test::kIpv4)), SizeIs(2));
  EXPECT_THAT(found(test::query(test::kAcl)), IsEmpty());

  // One that stands or falls as a whole falls.
  request = test::writeOf({test::update(Update::DELETE, test::ipv4(1, 1 << 8, 24, 1)),
                           test::update(Update::INSERT, test::acl(1, 0xff, 10))});
  request.set_atomicity(WriteRequest::ROLLBACK_ON_ERROR);
  EXPECT_THAT(test::codesOf(written(request, &caller)),
              ElementsAre(code::aborted, code::permissionDenied));
  EXPECT_THAT(found(test::query(test::kIpv4)), SizeIs(2));

  // Other words for the same table.
  p4::v1::DirectMeterEntry meter;
  *meter.mutable_table_entry() = test::exact(test::kCounted, 1);
  request = test::writeOf({test::update(Update::MODIFY, meter)});
  EXPECT_THAT(test::codesOf(written(request, &caller)), ElementsAre(code::permissionDenied));
}

TEST_F(RightsTest, ObjectsThatMustBeWritableAreAskedOneByOne) {
  const Limited caller({test::kIpv4, test::kNexthops}, {test::kAcl});
  constexpr uint32_t unknown = 0x02ffffff;
  EXPECT_EQ(device->requireWritable(caller, {}).code(), code::ok);
  EXPECT_EQ(device->requireWritable(caller, std::vector{test::kIpv4, test::kNexthops}).code(),
            code::ok);
  EXPECT_THAT(device->requireWritable(caller, std::vector{test::kIpv4, test::kAcl, unknown}),
              RefusedWith(code::permissionDenied, "table ingress.acl: not for you"));
}

TEST_F(RightsTest, ReadsShowTheCallersObjectsAlone) {
  ASSERT_EQ(written({test::update(Update::INSERT, test::ipv4(1, 1 << 8, 24, 1)),
                     test::update(Update::INSERT, test::acl(1, 0xff, 10)),
                     test::update(Update::INSERT, test::exact(test::kCounted, 1)),
                     test::update(Update::INSERT, test::member(1, 1)),
                     test::update(Update::INSERT, test::group(1, {{1, 1}}))})
                .code(),
            code::ok);
  const Limited caller({}, {test::kIpv4, test::kNexthops});
  const Limited other({}, {test::kAcl, test::kCounted});
  Entity allDefaults = ofTable({});
  allDefaults.mutable_table_entry()->set_is_default_action(true);
  Entity allCounters;
  allCounters.mutable_direct_counter_entry();
  Entity allMembers;
  allMembers.mutable_action_profile_member();
  Entity allGroups;
  allGroups.mutable_action_profile_group();
  Entity aMember = allMembers;
  aMember.mutable_action_profile_member()->set_action_profile_id(test::kNexthops);
  aMember.mutable_action_profile_member()->set_member_id(1);
  const struct {
    const char* what;
    Entity query;
    int ofCaller;  // entities; -1: PERMISSION_DENIED
    int ofOther;
  } cases[] = {
      {"all tables", ofTable({}), 1, 2},
      {"a table", ofTable(test::query(test::kIpv4)), 1, -1},
      {"an entry", ofTable(test::acl(1, 0xff, 10)), -1, 1},
      {"all default entries", allDefaults, 1, 2},
      {"all direct counters", allCounters, 0, 1},
      {"all members", allMembers, 1, 0},
      {"all groups", allGroups, 1, 0},
      {"a member", aMember, 1, -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<Entity> found;
    for (const auto& [who, count] : {std::pair(&caller, c.ofCaller), {&other, c.ofOther}}) {
      const Status status = readAs(who, c.query, &found);
      EXPECT_EQ(status.code(), count < 0 ? code::unknown : code::ok) << status.ShortDebugString();
      EXPECT_THAT(found, SizeIs(std::max(count, 0)));
      if (count < 0) {
        EXPECT_THAT(test::codesOf(status), ElementsAre(code::permissionDenied));
      }
    }
  }
  EXPECT_TRUE(device->mayRead(caller, test::kIpv4));
  EXPECT_FALSE(device->mayRead(caller, test::kAcl));
}

// Rights are asked for by the pipeline: those of a former one do not count for the next.
TEST_F(RightsTest, EachPipelineHasItsOwnRights) {
  const Limited caller({test::kIpv4}, {});
  const WriteRequest request =
      test::writeOf({test::update(Update::INSERT, test::ipv4(1, 1 << 8, 24, 1))});
  ASSERT_EQ(written(request, &caller).code(), code::ok);
  restart();
  written(request, &caller);
  EXPECT_THAT(caller.pipelines, SizeIs(2));
}

}  // namespace
}  // namespace pi::fe::proto
