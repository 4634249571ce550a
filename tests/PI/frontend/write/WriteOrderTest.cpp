// Which updates of a Write run together, and that each one's outcome is that of the order sent.
#include "PI/frontend/write/WriteOrder.h"

#include "PI/frontend/check/UpdateCheck.h"
#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::v1::Update;
using test::update;
using testing::ElementsAreArray;

constexpr auto kInsert = Update::INSERT;
constexpr auto kModify = Update::MODIFY;
constexpr auto kDelete = Update::DELETE;

TEST(WriteOrder, RunsTogetherWhatDoesNotDepend) {
  const auto route = [](uint32_t n) { return test::ipv4(1, n << 8, 24, 1); };
  const struct {
    const char* what;
    std::vector<Update> committed;  // beforehand
    std::vector<Update> updates;
    std::vector<uint32_t> levels;
  } cases[] = {
      {"entries of a direct table",
       {},
       {update(kInsert, route(1)), update(kInsert, route(2)), update(kDelete, route(1))},
       {0, 0, 1}},
      {"members, and a group of others",
       {update(kInsert, test::member(8, 1)), update(kInsert, test::member(9, 1))},
       {update(kInsert, test::member(1, 1)), update(kInsert, test::group(1, {{8, 1}})),
        update(kInsert, test::toMember(1, 9)), update(kInsert, test::member(2, 1))},
       {0, 0, 0, 0}},
      {"from members up, and down again",
       {},
       {update(kInsert, test::member(1, 1)), update(kInsert, test::group(1, {{1, 1}})),
        update(kInsert, test::toGroup(1, 1)), update(kDelete, test::toGroup(1, 1)),
        update(kDelete, test::group(1, {})), update(kDelete, test::member(1, 1))},
       {0, 1, 2, 3, 4, 5}},
      {"what stands there now is let go first",
       {update(kInsert, test::member(1, 1)), update(kInsert, test::member(2, 1)),
        update(kInsert, test::group(1, {{1, 1}})), update(kInsert, test::toMember(1, 2))},
       {update(kModify, test::group(1, {})), update(kDelete, test::member(1, 1)),
        update(kDelete, test::toMember(1, 2)), update(kDelete, test::member(2, 1))},
       {0, 1, 0, 1}},
      {"what an earlier update of the entry named counts, too",
       {update(kInsert, test::member(1, 1))},
       {update(kInsert, test::toMember(1, 1)), update(kDelete, test::toMember(1, 1)),
        update(kDelete, test::member(1, 1))},
       {0, 1, 2}},
      {"a member changes after those that came to use it",
       {update(kInsert, test::member(1, 1))},
       {update(kInsert, test::group(1, {{1, 1}})), update(kModify, test::member(1, 2)),
        update(kInsert, test::group(2, {{1, 1}}))},
       {0, 1, 2}},
      {"a profile changes its style",
       {update(kInsert, test::member(1, 1))},
       {update(kDelete, test::member(1, 1)), update(kInsert, test::oneShot(1, {{1, 1}})),
        update(kInsert, test::oneShot(2, {{1, 1}})), update(kDelete, test::oneShot(1, {})),
        update(kInsert, test::member(2, 1))},
       {0, 1, 1, 2, 3}},
      {"a full profile frees room first",
       {update(kInsert, test::oneShot(1, {{1, 16}})), update(kInsert, test::oneShot(2, {{1, 16}})),
        update(kInsert, test::oneShot(3, {{1, 8}}))},
       {update(kDelete, test::oneShot(3, {})), update(kInsert, test::oneShot(4, {{2, 8}})),
        update(kModify, test::oneShot(2, {{1, 15}}))},
       {0, 1, 0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const P4InfoIndex index(test::pipelineConfig().p4info());
    EntryStore store;
    ProfileUse use;
    for (const Update& one : c.committed) {
      const CheckedUpdate checked = checkedUpdate(index, one);
      use.countChange(*checked.profile, nullptr, checked.slot.entry.get());
      store.entryIs(checked.slot.entry);
    }
    WriteOrder order(store, use);
    std::vector<CheckedUpdate> checked;  // outlives the order's look-ups
    std::vector<uint32_t> levels;
    for (const Update& one : c.updates) {
      checked.push_back(checkedUpdate(index, one));
      levels.push_back(order.level(checked.back()));
    }
    EXPECT_THAT(levels, ElementsAreArray(c.levels));
  }
}

}  // namespace
}  // namespace pi::fe::proto
