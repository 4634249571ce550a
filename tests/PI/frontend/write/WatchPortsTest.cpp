// Watch ports of groups and action sets: rows that come, change and go with them.
#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::v1::ActionProfileGroup;
using p4::v1::TableEntry;
using p4::v1::Update;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

constexpr uint32_t kWatch = 0x51000001;  // the table of the profile's watch ports

class WatchPortsTest : public FrontendTest {
 protected:
  WatchPortsTest() {
    target.abilitiesAre({.fields = 1, .entities = 1, .watch_ports = 1});
    pipelineIsUp();
  }

  // "group-member" to the port.
  std::map<std::string, uint32_t> rows() const {
    std::map<std::string, uint32_t> result;
    const auto at = [](const std::string& bytes, size_t from) {
      uint32_t number = 0;
      for (size_t i = from; i < from + 4; ++i) number = number << 8 | uint8_t(bytes[i]);
      return number;
    };
    for (const auto& [key, row] : target.rows()) {
      if (key.tableId != kWatch) continue;
      EXPECT_EQ(key.bytes.size(), 8u);
      EXPECT_EQ(row.action.size(), 4u);
      result[std::to_string(at(key.bytes, 0)) + "-" + std::to_string(at(key.bytes, 4))] =
          at(row.action, 0);
    }
    return result;
  }
  // Members with their ports; 0: none.
  static ActionProfileGroup group(const std::vector<std::pair<uint32_t, uint32_t>>& members) {
    ActionProfileGroup result = test::group(7, {});
    for (const auto& [id, port] : members) {
      auto* member = result.add_members();
      member->set_member_id(id);
      member->set_weight(2);
      if (port != 0) member->set_watch_port(test::number(port));
    }
    return result;
  }
  // Elements with the action's own port, and the one to watch.
  static TableEntry set(const std::vector<std::pair<uint32_t, uint32_t>>& elements) {
    std::vector<test::Weight> weights;
    for (const auto& [own, port] : elements) weights.push_back({own, 1});
    TableEntry entry = test::oneShot(1, weights);
    auto* given = entry.mutable_action()->mutable_action_profile_action_set();
    for (size_t i = 0; i < elements.size(); ++i) {
      const uint32_t port = elements[i].second;
      auto* element = given->mutable_action_profile_actions(static_cast<int>(i));
      if (port != 0) element->set_watch_port(test::number(port));
    }
    return entry;
  }
  template <typename Entity>
  int run(Update::Type type, const Entity& entity) {
    const Status status = written({test::update(type, entity)});
    const std::vector<int> codes = test::codesOf(status);
    return codes.empty() ? status.code() : codes[0];
  }
};

TEST_F(WatchPortsTest, RowsFollowAGroup) {
  for (const uint32_t id : {1, 2, 3}) ASSERT_EQ(inserted(test::member(id, id)).code(), code::ok);
  ActionProfileGroup both = group({{1, 5}, {2, 0}, {3, 0}});
  both.mutable_members(2)->set_watch(6);  // the deprecated form
  const struct {
    const char* what;
    ActionProfileGroup group;
    std::map<std::string, uint32_t> rows;
  } steps[] = {
      {"both forms", both, {{"1-1", 5}, {"1-3", 6}}},
      {"the other form, another port", group({{1, 8}, {3, 6}}), {{"1-1", 8}, {"1-3", 6}}},
      {"a member leaves, one watches no longer", group({{1, 0}, {2, 70000}}), {{"1-2", 70000}}},
      {"all as before", group({{1, 0}, {2, 70000}}), {{"1-2", 70000}}},
  };
  Update::Type type = Update::INSERT;
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    ASSERT_EQ(run(type, step.group), code::ok);
    type = Update::MODIFY;
    EXPECT_EQ(rows(), step.rows);
    restart();
    EXPECT_EQ(rows(), step.rows) << "after a restart";
    EXPECT_THAT(groups(), ElementsAre(EqualsProto(step.group)));
  }
  ASSERT_EQ(run(Update::DELETE, test::group(7, {})), code::ok);
  EXPECT_THAT(rows(), IsEmpty());
}

TEST_F(WatchPortsTest, RowsFollowAnActionSet) {
  ASSERT_EQ(inserted(set({{4, 5}, {4, 6}, {4, 0}})).code(), code::ok);
  EXPECT_THAT(rows(), ElementsAre(Pair("1-1", 5), Pair("1-2", 6)));
  ASSERT_EQ(run(Update::MODIFY, set({{4, 5}, {4, 9}})), code::ok);
  EXPECT_THAT(rows(), ElementsAre(Pair("1-1", 5), Pair("1-2", 9)));
  ASSERT_EQ(run(Update::DELETE, set({})), code::ok);
  EXPECT_THAT(target.rows(), IsEmpty());
}

// The target alone knows which of two members that look alike watches which port.
TEST_F(WatchPortsTest, MembersThatLookAlikeKeepTheirPortsOverARestart) {
  const TableEntry entry = set({{4, 5}, {4, 6}});
  ASSERT_EQ(inserted(entry).code(), code::ok);
  auto [handle, hidden] = *target.groups().begin();
  std::ranges::reverse(hidden.members);
  target.groupIs(handle, hidden);
  const auto standing = target.rows();
  restart();
  EXPECT_EQ(rows(), (std::map<std::string, uint32_t>{{"1-1", 5}, {"1-2", 6}})) << "untouched";
  ASSERT_EQ(run(Update::MODIFY, set({{4, 5}, {4, 9}})), code::ok);
  EXPECT_THAT(rows(), ElementsAre(Pair("1-1", 5), Pair("1-2", 9)));
}

TEST_F(WatchPortsTest, ARestartMendsRowsThatDoNotAgree) {
  ASSERT_EQ(inserted(set({{4, 5}, {3, 6}})).code(), code::ok);
  const auto right = rows();
  std::vector<FakeTarget::Key> keys;
  for (const auto& [key, row] : target.rows()) {
    if (key.tableId == kWatch) keys.push_back(key);
  }
  FakeTarget::Row row = target.rows().at(keys[0]);
  row.action = "\0\0\0\x63"s;
  target.rowIs(keys[0], row);
  target.rowDel(keys[1]);
  target.rowIs({kWatch, 0, "\0\0\0\x09\0\0\0\x09"s}, row);
  restart();
  EXPECT_EQ(rows(), right);
}

TEST_F(WatchPortsTest, AFailureLeavesTheFormerRows) {
  ASSERT_EQ(inserted(set({{4, 5}, {3, 0}})).code(), code::ok);
  const auto before = rows();
  const TableEntry after = set({{4, 6}, {3, 7}});
  target.failureIs(0, code::internal, "no");
  EXPECT_EQ(run(Update::MODIFY, after), code::internal);
  EXPECT_EQ(run(Update::DELETE, after), code::internal);
  EXPECT_EQ(rows(), before);
  target.failuresAreOver();
  p4::v1::WriteRequest whole = test::writeOf({test::update(Update::MODIFY, after),
                                              test::update(Update::MODIFY, set({{2, 2}})),
                                              test::update(Update::INSERT, after)});
  whole.set_atomicity(p4::v1::WriteRequest::ROLLBACK_ON_ERROR);
  EXPECT_NE(device->write(whole).code(), code::ok);
  EXPECT_EQ(rows(), before);
  ASSERT_EQ(run(Update::MODIFY, after), code::ok);
  EXPECT_THAT(rows(), ElementsAre(Pair("1-1", 6), Pair("1-2", 7)));
}

}  // namespace
}  // namespace pi::fe::proto
