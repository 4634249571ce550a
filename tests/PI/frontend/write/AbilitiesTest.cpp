// Writes of pipelines that ask for more: default entries, ranges, optional fields.
#include "PI/target/pi_extensions_imp.h"
#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::v1::TableEntry;
using p4::v1::Update;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::string_literals;

class AbilitiesTest : public FrontendTest {
 protected:
  AbilitiesTest() {
    target.abilitiesAre({.fields = 1, .default_actions = 1});
    pipelineIsUp();
  }
  static TableEntry defaultOf(uint32_t table, const std::optional<p4::v1::Action>& action = {}) {
    TableEntry entry = test::query(table);
    entry.set_is_default_action(true);
    if (action) *entry.mutable_action()->mutable_action() = *action;
    return entry;
  }
  int modified(const TableEntry& entry) {
    const Status status = written({test::update(Update::MODIFY, entry)});
    const std::vector<int> codes = test::codesOf(status);
    return codes.empty() ? status.code() : codes[0];
  }
  TableEntry readBack(const TableEntry& query) const {
    TableEntry result;
    device->read(test::readOf({query}), [&](const p4::v1::ReadResponse& response) {
      EXPECT_THAT(response.entities(), SizeIs(1));
      if (response.entities_size() > 0) result = response.entities(0).table_entry();
      return true;
    });
    return result;
  }
  static bool same(const TableEntry& a, const TableEntry& b) {
    return google::protobuf::util::MessageDifferencer::Equals(a, b);
  }
};

const FakeTarget::Key defaultKey{PI_DEFAULT_ENTRY_TABLE(test::kIpv4), 0, "\0"s};

TEST_F(AbilitiesTest, DefaultEntriesAreWrittenReadAndSetBack) {
  const TableEntry initial = readBack(defaultOf(test::kIpv4));
  TableEntry entry = defaultOf(test::kIpv4, test::forward(7));
  entry.set_controller_metadata(9);
  entry.set_metadata("mine");
  ASSERT_EQ(modified(entry), code::ok);
  ASSERT_TRUE(target.rows().contains(defaultKey));
  EXPECT_EQ(target.rows().at(defaultKey).actionId, test::kForward);
  EXPECT_TRUE(same(readBack(defaultOf(test::kIpv4)), entry));

  restart();
  EXPECT_TRUE(same(readBack(defaultOf(test::kIpv4)), entry)) << "found again";
  const auto entries = [&] {
    size_t count = 0;
    device->read(test::readOf({test::query(0)}), [&](const p4::v1::ReadResponse& response) {
      count += response.entities_size();
      return true;
    });
    return count;
  };
  EXPECT_EQ(entries(), 0u) << "no entry of a table";

  ASSERT_EQ(modified(defaultOf(test::kIpv4)), code::ok);
  EXPECT_THAT(target.rows(), IsEmpty());
  EXPECT_TRUE(same(readBack(defaultOf(test::kIpv4)), initial));
  const size_t batches = target.batches().size();
  ASSERT_EQ(modified(defaultOf(test::kIpv4)), code::ok) << "once more";
  for (size_t i = batches; i < target.batches().size(); ++i) {
    EXPECT_THAT(target.batches()[i], IsEmpty());
  }
}

TEST_F(AbilitiesTest, ADefaultEntryThatFailsLeavesTheFormer) {
  ASSERT_EQ(modified(defaultOf(test::kIpv4, test::forward(7))), code::ok);
  target.failureIs(0, code::internal, "no room");
  EXPECT_EQ(modified(defaultOf(test::kIpv4, test::forward(8))), code::internal);
  target.failuresAreOver();
  EXPECT_TRUE(same(readBack(defaultOf(test::kIpv4)), defaultOf(test::kIpv4, test::forward(7))));
}

TEST_F(AbilitiesTest, DefaultEntriesHaveTheirOwnActions) {
  p4::v1::Action noAction;
  noAction.set_action_id(test::kNoAction);
  p4::v1::Action group;
  group.set_action_id(test::kGroup);
  const struct {
    const char* what;
    TableEntry entry;
    int code;
  } cases[] = {
      {"an action for defaults alone", defaultOf(test::kIpv4, noAction), code::ok},
      {"an action of groups", defaultOf(test::kIpv4, group), code::permissionDenied},
      {"a constant default", defaultOf(test::kConst, test::forward(1)), code::permissionDenied},
      {"a table of a profile", defaultOf(test::kWcmp, test::forward(1)), code::permissionDenied},
      {"another table's action", defaultOf(test::kKeyless, group), code::invalidArgument},
  };
  for (const auto& c : cases) EXPECT_EQ(modified(c.entry), c.code) << c.what;
}

// Table kPort: a range of 12 bits, an optional field of 8.
TEST_F(AbilitiesTest, RangesAndOptionalFieldsTravelWhole) {
  const auto entry = [](const char* low, const char* high, const char* tos) {
    TableEntry entry = test::query(test::kPort);
    entry.set_priority(5);
    entry.mutable_action()->mutable_action()->set_action_id(test::kDrop);
    if (low != nullptr) {
      auto* match = entry.add_match();
      match->set_field_id(1);
      match->mutable_range()->set_low(low);
      match->mutable_range()->set_high(high);
    }
    if (tos != nullptr) {
      auto* match = entry.add_match();
      match->set_field_id(2);
      match->mutable_optional()->set_value(tos);
    }
    return entry;
  };
  const struct {
    TableEntry entry;
    std::string key;
  } cases[] = {
      {entry("\1", "\3", "\7"), "\0\1\0\3\7\1"s},
      {entry("\1", "\3", nullptr), "\0\1\0\3\0\0"s},
      {entry(nullptr, nullptr, "\7"), "\0\0\x0f\xff\7\1"s},
      {entry(nullptr, nullptr, nullptr), "\0\0\x0f\xff\0\0"s},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.entry.ShortDebugString());
    ASSERT_EQ(inserted(c.entry).code(), code::ok);
    ASSERT_TRUE(target.rows().contains({test::kPort, 5, c.key}));
    TableEntry query = c.entry;
    query.clear_action();
    EXPECT_TRUE(same(readBack(query), c.entry));
    ASSERT_EQ(written({test::update(Update::DELETE, c.entry)}).code(), code::ok);
  }
}

}  // namespace
}  // namespace pi::fe::proto
