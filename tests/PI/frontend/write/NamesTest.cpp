// Translated types whose values are names to controllers, and numbers to the target.
#include <google/protobuf/text_format.h>

#include "PI/frontends/proto/translation_tables.h"
#include "p4/tmp/p4config.pb.h"
#include "tests/PI/frontend/support/FrontendTest.h"

namespace pi::fe::proto {
namespace {

using p4::v1::TableEntry;
using p4::v1::Update;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::string_literals;

constexpr uint32_t kTo = 0x01000001;
constexpr uint32_t kNeighbors = 0x02000001;  // vrf exact, port optional
constexpr uint32_t kSets = 0x02000002;       // key exact 8; one-shot sets
constexpr uint32_t kMembers = 0x02000003;    // key exact 8; members
constexpr uint32_t kProfile = 0x11000002;
constexpr uint32_t kWatch = 0x51000001;  // the ports that elements of sets watch

constexpr char kP4Info[] = R"(
  tables {
    preamble { id: 0x02000001 name: "neighbors" }
    match_fields { id: 1 name: "vrf" match_type: EXACT type_name { name: "vrf_t" } }
    match_fields { id: 2 name: "port" match_type: OPTIONAL type_name { name: "port_t" } }
    action_refs { id: 0x01000001 }
  }
  tables {
    preamble { id: 0x02000002 name: "sets" }
    match_fields { id: 1 name: "key" bitwidth: 8 match_type: EXACT }
    action_refs { id: 0x01000001 } implementation_id: 0x11000001
  }
  tables {
    preamble { id: 0x02000003 name: "members" }
    match_fields { id: 1 name: "key" bitwidth: 8 match_type: EXACT }
    action_refs { id: 0x01000001 } implementation_id: 0x11000002
  }
  actions {
    preamble { id: 0x01000001 name: "to" }
    params { id: 1 name: "port" type_name { name: "port_t" } }
    params { id: 2 name: "tag" bitwidth: 12 }
  }
  action_profiles {
    preamble { id: 0x11000001 name: "selector" } table_ids: 0x02000002
    with_selector: true size: 100 max_group_size: 10
  }
  action_profiles { preamble { id: 0x11000002 name: "plain" } table_ids: 0x02000003 size: 100 }
  controller_packet_metadata {
    preamble { id: 0x03000001 name: "packet_out" }
    metadata { id: 1 name: "ingress" bitwidth: 1 }
    metadata { id: 2 name: "port" type_name { name: "port_t" } }
  }
  controller_packet_metadata {
    preamble { id: 0x03000002 name: "packet_in" }
    metadata { id: 1 name: "ingress_port" type_name { name: "port_t" } }
  }
  value_sets {
    preamble { id: 0x04000001 name: "ports" } size: 8
    match { id: 1 name: "port" match_type: EXACT type_name { name: "port_t" } }
  }
  type_info {
    new_types { key: "vrf_t" value { translated_type { sdn_string { } } } }
    new_types { key: "port_t" value { translated_type { sdn_string { } } } }
  }
)";

p4::v1::ForwardingPipelineConfig namesConfig() {
  p4::v1::ForwardingPipelineConfig config;
  google::protobuf::TextFormat::ParseFromString(kP4Info, config.mutable_p4info());
  p4::tmp::P4DeviceConfig device;
  device.set_device_data("{}");
  config.set_p4_device_config(device.SerializeAsString());
  return config;
}

p4::v1::Action to(const std::string& port) {
  p4::v1::Action action;
  action.set_action_id(kTo);
  action.add_params()->set_param_id(1);
  action.mutable_params(0)->set_value(port);
  action.add_params()->set_param_id(2);
  action.mutable_params(1)->set_value("\7");
  return action;
}

TableEntry neighbor(const std::string& vrf, const std::string& port, const std::string& toPort) {
  TableEntry entry = test::query(kNeighbors);
  entry.set_priority(1);
  entry.add_match()->set_field_id(1);
  entry.mutable_match(0)->mutable_exact()->set_value(vrf);
  if (!port.empty()) {
    entry.add_match()->set_field_id(2);
    entry.mutable_match(1)->mutable_optional()->set_value(port);
  }
  *entry.mutable_action()->mutable_action() = to(toPort);
  return entry;
}

TableEntry keyed(uint32_t table, uint32_t key) {
  TableEntry entry = test::query(table);
  entry.add_match()->set_field_id(1);
  entry.mutable_match(0)->mutable_exact()->set_value(test::number(key));
  return entry;
}

class NamesTest : public FrontendTest {
 protected:
  NamesTest() : FrontendTest(namesConfig()) {
    target.abilitiesAre({.fields = 1,
                         .default_actions = 0,
                         .packet_headers = 1,
                         .entities = 1,
                         .strings = 1,
                         .watch_ports = 1});
    pipelineIsUp();
  }
  int codeOf(Update::Type type, const TableEntry& entry, std::string* message = nullptr) {
    const Status status = written({test::update(type, entry)});
    const auto errors = test::errorsOf(status);
    if (message != nullptr) *message = errors.empty() ? status.message() : errors[0].message();
    return errors.empty() ? status.code() : errors[0].canonical_code();
  }
  // The names that the target has, with their numbers.
  std::map<std::string, std::string> stored(const std::string& type) const {
    const uint32_t table = translation_tables(config.p4info()).at(type);
    std::map<std::string, std::string> names;
    for (const auto& [key, row] : target.rows()) {
      if (key.tableId != table) continue;
      const size_t length =
          static_cast<uint8_t>(row.action[0]) * 256 + static_cast<uint8_t>(row.action[1]);
      names[row.action.substr(2, length)] = key.bytes;
    }
    return names;
  }
  size_t batchesOf(const std::vector<Update>& updates) {
    const size_t before = target.batches().size();
    EXPECT_EQ(written(updates).code(), code::ok);
    return target.batches().size() - before;
  }
};

TEST_F(NamesTest, TravelAsNumbersAndComeBackAsTheyWere) {
  const TableEntry entry = neighbor("red", "Ethernet0", "Ethernet4");
  EXPECT_EQ(batchesOf({test::update(Update::INSERT, entry)}), 2u) << "names, then the entry";
  const auto ports = stored("port_t");
  ASSERT_THAT(ports, SizeIs(2));
  ASSERT_THAT(stored("vrf_t"), SizeIs(1));
  const FakeTarget::Key key{kNeighbors, 1,
                            stored("vrf_t").at("red") + ports.at("Ethernet0") + "\1"};
  ASSERT_TRUE(target.rows().contains(key));
  EXPECT_EQ(target.rows().at(key).action, ports.at("Ethernet4") + "\0\7"s);
  EXPECT_THAT(found(entry), ElementsAre(EqualsProto(entry)));

  const TableEntry other = neighbor("red", "", "Ethernet0");
  EXPECT_EQ(batchesOf({test::update(Update::INSERT, other)}), 1u) << "all names are known";
  EXPECT_THAT(found(test::query(0)), SizeIs(2)) << "tables of names are no controller's";
  EXPECT_EQ(batchesOf({test::update(Update::DELETE, entry)}), 2u) << "the entry, then a name";
  EXPECT_THAT(stored("port_t"), SizeIs(1));
  EXPECT_EQ(batchesOf({test::update(Update::MODIFY, neighbor("red", "", "Ethernet8"))}), 3u);
  EXPECT_THAT(stored("port_t"), testing::Contains(testing::Key("Ethernet8")));
  EXPECT_EQ(codeOf(Update::DELETE, other), code::ok);
  EXPECT_THAT(target.rows(), IsEmpty());
}

TEST_F(NamesTest, OfAnySizeAreTakenUpToALimit) {
  std::string message;
  for (const size_t bytes : {1, 32, 33, 128, 129, 1000}) {
    const TableEntry entry = neighbor(std::string(bytes, '\0'), "\0x"s, "\xff\xfe");
    EXPECT_EQ(codeOf(Update::INSERT, entry), code::ok) << bytes;
    EXPECT_THAT(found(entry), ElementsAre(EqualsProto(entry)));
  }
  EXPECT_EQ(codeOf(Update::INSERT, neighbor(std::string(1001, 'x'), "", "a"), &message),
            code::resourceExhausted);
  EXPECT_THAT(message, HasSubstr("table neighbors: field vrf"));
  EXPECT_THAT(message, HasSubstr("1001 bytes; 1000 is the most"));
  EXPECT_EQ(codeOf(Update::INSERT, neighbor("", "", "a"), &message), code::invalidArgument);
  EXPECT_EQ(codeOf(Update::INSERT, neighbor("a", "", ""), &message), code::invalidArgument);
  EXPECT_THAT(message, HasSubstr("action to: parameter port: the port_t is empty"));
}

TEST_F(NamesTest, ThatAreUnknownNameNothing) {
  std::string message;
  EXPECT_EQ(codeOf(Update::DELETE, neighbor("red", "", "a"), &message), code::notFound);
  EXPECT_THAT(message, HasSubstr("field vrf: nothing has the vrf_t \"red\""));
  EXPECT_EQ(codeOf(Update::MODIFY, neighbor("red", "", "a")), code::notFound);
  EXPECT_THAT(found(neighbor("red", "", "a")), IsEmpty());
  EXPECT_THAT(target.rows(), IsEmpty());
  EXPECT_THAT(target.batches(), IsEmpty()) << "no number was given out";

  const Status status = written({test::update(Update::INSERT, neighbor("red", "", "a")),
                                 test::update(Update::DELETE, neighbor("red", "", "a")),
                                 test::update(Update::INSERT, neighbor("red", "", "b"))});
  EXPECT_EQ(status.code(), code::ok) << "names of earlier updates are known";
  EXPECT_THAT(stored("port_t"), ElementsAre(testing::Key("b")));
}

TEST_F(NamesTest, OfFailedUpdatesLeaveNothing) {
  const TableEntry first = neighbor("red", "", "a");
  std::string message;
  target.failureIs(0, code::resourceExhausted, "no room");  // of one of two names
  EXPECT_EQ(codeOf(Update::INSERT, first, &message), code::resourceExhausted);
  EXPECT_THAT(message, HasSubstr("could not be stored: no room"));
  target.failuresAreOver();
  EXPECT_THAT(found(test::query(0)), IsEmpty());

  ASSERT_EQ(codeOf(Update::INSERT, first), code::ok);
  EXPECT_EQ(codeOf(Update::INSERT, neighbor("red", "", "b")), code::alreadyExists);
  EXPECT_THAT(stored("port_t"), ElementsAre(testing::Key("a")));

  target.batchStatusIs(PI_STATUS_NO_FORWARDING_AGENT);
  EXPECT_EQ(written({test::update(Update::INSERT, neighbor("blue", "", "b"))}).code(),
            code::unavailable);
  target.batchStatusIs(PI_STATUS_SUCCESS);
  EXPECT_THAT(stored("vrf_t"), ElementsAre(testing::Key("red")));
  EXPECT_THAT(found(test::query(0)), ElementsAre(EqualsProto(first)));
}

TEST_F(NamesTest, OfMembersAndOneShotSetsAreKeptOverRestarts) {
  p4::v1::ActionProfileMember member;
  member.set_action_profile_id(kProfile);
  member.set_member_id(1);
  *member.mutable_action() = to("\0member"s);
  ASSERT_EQ(inserted(member).code(), code::ok);
  TableEntry set = keyed(kSets, 1);
  auto& elements = *set.mutable_action()->mutable_action_profile_action_set();
  for (const char* port : {"a", "b"}) {
    auto* element = elements.add_action_profile_actions();
    *element->mutable_action() = to(port);
    element->set_weight(1);
    element->set_watch_port("watched");
  }
  ASSERT_EQ(codeOf(Update::INSERT, set), code::ok);
  const auto watched = [&] {
    return std::ranges::count_if(target.rows(), [&](const auto& row) {
      return row.first.tableId == kWatch && row.second.action == stored("port_t").at("watched");
    });
  };
  EXPECT_EQ(watched(), 2);
  const TableEntry entry = neighbor("red", "b", "c");
  ASSERT_EQ(codeOf(Update::INSERT, entry), code::ok);
  const auto before = stored("port_t");

  restart();
  EXPECT_EQ(stored("port_t"), before);
  EXPECT_EQ(watched(), 2);
  EXPECT_THAT(members(), ElementsAre(EqualsProto(member)));
  EXPECT_THAT(found(keyed(kSets, 1)), ElementsAre(EqualsProto(set)));
  EXPECT_THAT(found(entry), ElementsAre(EqualsProto(entry)));
  ASSERT_EQ(codeOf(Update::INSERT, neighbor("blue", "", "d")), code::ok);
  for (const auto& [name, number] : before) EXPECT_LT(number, stored("port_t").at("d")) << name;

  elements.mutable_action_profile_actions()->RemoveLast();
  ASSERT_EQ(codeOf(Update::MODIFY, set), code::ok);
  EXPECT_TRUE(stored("port_t").contains("b")) << "the entry still has it";
  ASSERT_EQ(codeOf(Update::DELETE, entry), code::ok);
  EXPECT_FALSE(stored("port_t").contains("b"));
  ASSERT_EQ(codeOf(Update::DELETE, set), code::ok);
  ASSERT_EQ(written({test::update(Update::DELETE, member)}).code(), code::ok);
  ASSERT_EQ(codeOf(Update::DELETE, neighbor("blue", "", "d")), code::ok);
  EXPECT_THAT(target.rows(), IsEmpty());
}

// The pipeline that takes them over counts their users once more.
TEST_F(NamesTest, OfEntriesThatGoOverAreHeldByThem) {
  const TableEntry first = neighbor("red", "Ethernet0", "a");
  const TableEntry second = neighbor("red", "", "a");
  ASSERT_EQ(
      written({test::update(Update::INSERT, first), test::update(Update::INSERT, second)}).code(),
      code::ok);
  const auto before = stored("port_t");
  p4::v1::ForwardingPipelineConfig next = config;
  next.mutable_p4info()->mutable_tables(1)->mutable_match_fields(0)->set_bitwidth(9);
  (*next.mutable_p4info()->mutable_type_info()->mutable_new_types())["other_t"]
      .mutable_translated_type()
      ->mutable_sdn_string();
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, next).code(), code::ok);
  pi_p4_id_t table = kNeighbors;
  size_t count = 1;
  ASSERT_EQ(pi_restore_keep(1, &table, &count), PI_STATUS_SUCCESS);
  ASSERT_EQ(count, 1u);
  target.restored(0, "", kNeighbors);
  EXPECT_THAT(found(test::query(0)),
              testing::UnorderedElementsAre(EqualsProto(first), EqualsProto(second)));
  EXPECT_EQ(stored("port_t"), before);
  ASSERT_EQ(codeOf(Update::DELETE, first), code::ok);
  EXPECT_THAT(stored("port_t"), ElementsAre(testing::Pair("a", before.at("a"))));
  EXPECT_THAT(stored("vrf_t"), SizeIs(1));
  ASSERT_EQ(codeOf(Update::DELETE, second), code::ok);
  EXPECT_THAT(target.rows(), IsEmpty());

  // A type that is translated in another way.
  ASSERT_EQ(codeOf(Update::INSERT, second), code::ok);
  (*next.mutable_p4info()->mutable_type_info()->mutable_new_types())["port_t"]
      .mutable_translated_type()
      ->set_uri("other");
  ASSERT_EQ(device->pipelineConfigSet(Push::VERIFY_AND_COMMIT, next).code(), code::ok);
  ASSERT_EQ(pi_restore_keep(1, &table, &count), PI_STATUS_SUCCESS);
  EXPECT_EQ(count, 0u);
}

TEST_F(NamesTest, OfValueSetsAreKeptToo) {
  p4::v1::Entity entity;
  auto& set = *entity.mutable_value_set_entry();
  set.set_value_set_id(0x04000001);
  const auto modified = [&](const std::vector<std::string>& ports) {
    set.clear_members();
    for (const std::string& port : ports) {
      auto* match = set.add_members()->add_match();
      match->set_field_id(1);
      match->mutable_exact()->set_value(port);
    }
    p4::v1::Update update;
    update.set_type(Update::MODIFY);
    *update.mutable_entity() = entity;
    return written({update}).code();
  };
  ASSERT_EQ(modified({"\0a"s, "b"}), code::ok);
  EXPECT_THAT(stored("port_t"), SizeIs(2));
  restart();
  p4::v1::Entity query;
  query.mutable_value_set_entry()->set_value_set_id(0x04000001);
  std::vector<p4::v1::Entity> sets;
  EXPECT_EQ(objectsRead(query, &sets), code::ok);
  EXPECT_THAT(sets, ElementsAre(EqualsProto(entity)));
  ASSERT_EQ(modified({"b", "c"}), code::ok);
  EXPECT_THAT(stored("port_t"), ElementsAre(testing::Key("b"), testing::Key("c")));
  ASSERT_EQ(modified({}), code::ok);
  EXPECT_THAT(target.rows(), IsEmpty());
}

TEST_F(NamesTest, ThatAreLostStandAsNumbersThatCanBeDeleted) {
  ASSERT_EQ(codeOf(Update::INSERT, neighbor("red", "", "a")), code::ok);
  std::erase_if(const_cast<std::map<FakeTarget::Key, FakeTarget::Row>&>(target.rows()),
                [](const auto& row) { return row.first.tableId != kNeighbors; });
  restart();
  const Entries entries = found(test::query(kNeighbors));
  ASSERT_THAT(entries, SizeIs(1));
  EXPECT_EQ(entries[0].match(0).exact().value(), std::to_string(Dictionary::kFirstGiven));
  EXPECT_EQ(codeOf(Update::DELETE, entries[0]), code::ok);
  EXPECT_THAT(target.rows(), IsEmpty());
}

TEST_F(NamesTest, LeftBehindByAKillGoWithTheNextWrite) {
  ASSERT_EQ(codeOf(Update::INSERT, neighbor("red", "", "a")), code::ok);
  std::erase_if(const_cast<std::map<FakeTarget::Key, FakeTarget::Row>&>(target.rows()),
                [](const auto& row) { return row.first.tableId == kNeighbors; });
  restart();
  ASSERT_EQ(codeOf(Update::INSERT, neighbor("blue", "", "b")), code::ok);
  EXPECT_THAT(stored("vrf_t"), ElementsAre(testing::Key("blue")));
}

// A Read sends page after page; the entries that it is still to send are deleted meanwhile.
TEST_F(NamesTest, AreSentThoughTheirEntriesAreGone) {
  std::vector<Update> inserts;
  std::vector<Update> deletes;
  for (int i = 0; i < 500; ++i) {
    const TableEntry entry = neighbor(std::string(200, 'x') + std::to_string(i), "", "a");
    inserts.push_back(test::update(Update::INSERT, entry));
    deletes.push_back(test::update(Update::DELETE, entry));
  }
  ASSERT_EQ(written(inserts).code(), code::ok);
  size_t count = 0;
  device->read(test::readOf({test::query(kNeighbors)}), [&](const p4::v1::ReadResponse& response) {
    if (count == 0) {
      EXPECT_EQ(written(deletes).code(), code::ok);
    }
    for (const auto& entity : response.entities()) {
      EXPECT_EQ(entity.table_entry().match(0).exact().value()[0], 'x');
      ++count;
    }
    return true;
  });
  EXPECT_EQ(count, 500u);
  EXPECT_THAT(target.rows(), IsEmpty());
}

TEST_F(NamesTest, StandInHeadersOfPackets) {
  ASSERT_EQ(codeOf(Update::INSERT, neighbor("red", "", "a")), code::ok);
  const std::string number = stored("port_t").at("a");
  const auto sent = [&](const std::string& port) {
    p4::v1::StreamMessageRequest request;
    request.mutable_packet()->set_payload("payload");
    auto* metadata = request.mutable_packet()->add_metadata();
    metadata->set_metadata_id(2);
    metadata->set_value(port);
    return device->streamMessage(request);
  };
  EXPECT_EQ(sent("b").code(), code::invalidArgument);
  EXPECT_THAT(sent("b").message(), HasSubstr("\"b\", which is no port_t that is known"));
  ASSERT_EQ(sent("a").code(), code::ok);
  // One bit of the flag before it, and seven of padding behind.
  EXPECT_EQ(target.sent().back(), "\x40\0\0\0\0payload"s);

  std::vector<std::string> ports;
  device->streamResponseCbIs(
      [&](uint64_t, p4::v1::StreamMessageResponse* response, void*) {
        ports.push_back(response->packet().metadata(0).value());
      },
      nullptr);
  target.punted(number + "payload");
  target.punted("\0\0\0\x2a"s + "payload");
  EXPECT_THAT(ports, ElementsAre("a", "42"));
}

}  // namespace
}  // namespace pi::fe::proto
