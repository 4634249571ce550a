// The router example in compiled form: it agrees with its P4Info, and routes.
#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <array>

#include "tests/p4/Playing.h"
#include "tests/p4/VectorFile.h"

namespace P4Test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::Le;

constexpr uint32_t cpuPort = 510;
const std::string broadcast = "ffffffffffff";
const std::string host = "020000000a01", router = "020000000001", neighbor = "020000000b02";

template <typename List>
std::string nameOf(const List& list, uint32_t id) {
  for (const auto& one : list)
    if (one.preamble().id() == id) return one.preamble().name();
  return "no such id";
}

// Names, widths and how they match, of a list on either side.
using Widths = std::vector<std::string>;

Widths widthsOf(const std::vector<P4::KeyElement>& key) {
  Widths widths;
  for (const P4::KeyElement& element : key)
    widths.push_back(element.name + ":" + std::to_string(element.bits) + " " +
                     std::array{"exact", "lpm", "ternary"}.at(static_cast<size_t>(element.kind)));
  return widths;
}

Widths widthsOf(const google::protobuf::RepeatedPtrField<p4::config::v1::MatchField>& fields) {
  using Field = p4::config::v1::MatchField;
  Widths widths;
  for (const Field& field : fields)
    widths.push_back(field.name() + ":" + std::to_string(field.bitwidth()) +
                     (field.match_type() == Field::EXACT ? " exact"
                      : field.match_type() == Field::LPM ? " lpm"
                                                         : " ternary"));
  return widths;
}

template <typename Programs>
requires requires(Programs list) { list[0].bits; }
Widths widthsOf(const Programs& list) {
  Widths widths;
  for (const auto& one : list) widths.push_back(one.name + ":" + std::to_string(one.bits));
  return widths;
}

template <typename P4Infos>
requires requires(P4Infos list) { list[0].bitwidth(); }
Widths widthsOf(const P4Infos& list) {
  Widths widths;
  for (const auto& one : list) widths.push_back(one.name() + ":" + std::to_string(one.bitwidth()));
  return widths;
}

std::string number(uint64_t value, int digits) {
  std::string hex;
  for (int at = digits - 1; at >= 0; --at) hex += "0123456789abcdef"[value >> 4 * at & 15];
  return hex;
}

std::string checksumOf(const std::string& hex) {
  uint32_t sum = 0;
  for (size_t at = 0; at < hex.size(); at += 4)
    sum += static_cast<uint32_t>(std::stoul(hex.substr(at, 4), nullptr, 16));
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return number(~sum & 0xffff, 4);
}

struct Datagram {
  uint32_t source = 0x0a000001;
  uint32_t destination = 0x0b000005;
  uint32_t sourcePort = 4000;
  uint32_t destinationPort = 53;
  uint32_t ttl = 64;
};

std::string frame(const std::string& to, const std::string& from, const Datagram& datagram,
                  const std::string& firstByte = "45") {
  const std::string begin = firstByte + "00002400070000" + number(datagram.ttl, 2) + "11";
  const std::string addresses = number(datagram.source, 8) + number(datagram.destination, 8);
  return to + from + "0800" + begin + checksumOf(begin + "0000" + addresses) + addresses +
         number(datagram.sourcePort, 4) + number(datagram.destinationPort, 4) +
         "0010"
         "0000"
         "7061796c6f616421";
}

std::string arrived(const Datagram& datagram) { return frame(router, host, datagram); }

// As it leaves on port 2.
std::string routed(Datagram datagram) {
  --datagram.ttl;
  return "2:" + frame(neighbor, router, datagram);
}

// Ports 1 and 2 route in VRF 5, where 11.0.0.0/8 and 2001:db8::/32 lead to a neighbor on port 2.
class RouterTest : public testing::Test {
 protected:
  RouterTest() {
    google::protobuf::TextFormat::ParseFromString(fileText(KORVEL_ROUTER_P4INFO), &p4info_);
    for (const char* port : {"\x01", "\x02"}) insert("port", {{port}}, "set_vrf", {"\x05"});
    insert("ipv4_route", {{"\x05"}, prefix("0b000000", 8)}, "set_nexthop", {"\x07"});
    insert("ipv6_route", {{"\x05"}, prefix("20010db8" + std::string(24, '0'), 32)}, "set_nexthop",
           {"\x07"});
    addHop("\x07", "\x02");
    engine_.tables().commit();
  }

  static P4::MatchElement prefix(const std::string& hex, uint32_t length) {
    return {bytesOf(hex), "", length};
  }

  void addHop(const std::string& hop, const std::string& port) {
    insert("nexthop", {{hop}}, "forward", {port, bytesOf(router), hop});
    insert("neighbor", {{port}, {hop}}, "set_dst_mac", {bytesOf(neighbor)});
  }

  P4::ActionSpec actionOf(uint32_t table, const std::string& action,
                          const std::vector<std::string>& arguments) const {
    return {actionNamed(engine_.program(), table, "ingress." + action).value(), arguments};
  }
  P4::Entry& insert(const std::string& name, const std::vector<P4::MatchElement>& match,
                    const std::string& action, const std::vector<std::string>& arguments = {},
                    uint32_t priority = 0) {
    const uint32_t table = tableNamed(engine_.program(), "ingress." + name).value();
    return engine_.tables().insert({table, match, priority}, actionOf(table, action, arguments));
  }
  // An access rule on a destination port; it comes before older ones.
  P4::Entry& rule(uint32_t destinationPort, const std::string& action,
                  const std::vector<std::string>& arguments = {}) {
    P4::Entry& entry =
        insert("acl", {{}, {}, {}, {}, {bytesOf(number(destinationPort, 4)), "\xff\xff"}}, action,
               arguments, ++priority_);
    engine_.tables().commit();
    return entry;
  }

  void expectSameTable(const P4::Table& table, const p4::config::v1::Table& info) const {
    const P4::Program& program = engine_.program();
    std::vector<std::string> actions, wantedActions;
    for (const uint32_t action : table.actions) actions.push_back(program.actions[action].name);
    for (const auto& ref : info.action_refs())
      wantedActions.push_back(nameOf(p4info_.actions(), ref.id()));
    EXPECT_EQ(actions, wantedActions);
    EXPECT_EQ(widthsOf(table.key), widthsOf(info.match_fields()));
    EXPECT_EQ(table.immutable, info.is_const_table());
    if (!table.immutable) {
      EXPECT_EQ(table.maxSize, info.size());
    }
    if (table.type == P4::TableKind::simple) {
      EXPECT_EQ(program.actions[table.defaultAction.value().action].name,
                nameOf(p4info_.actions(), info.const_default_action_id()));
      EXPECT_TRUE(table.defaultActionConstant);
    } else {
      EXPECT_EQ(profileNamed(program, nameOf(p4info_.action_profiles(), info.implementation_id())),
                table.profile);
    }
    bool counts = false, meters = false;
    for (const uint32_t id : info.direct_resource_ids()) {
      counts = counts || counterNamed(program, nameOf(p4info_.direct_counters(), id));
      meters = meters || meterNamed(program, nameOf(p4info_.direct_meters(), id)) == table.meters;
    }
    EXPECT_EQ(table.counters, counts);
    EXPECT_EQ(table.meters != P4::absent, meters);
  }

  Widths widthsOfHeader(const std::string& name) const {
    for (const P4::Header& header : engine_.program().headers)
      if (header.name == name) return widthsOf(engine_.program().headerTypes[header.type].fields);
    return {};
  }

  Strings send(uint32_t port, const std::string& hex, uint64_t now = 0) {
    return play(engine_, port, hex, now);
  }

  P4::Engine engine_{fileText(KORVEL_ROUTER_PROGRAM)};
  p4::config::v1::P4Info p4info_;
  uint32_t priority_ = 0;
};

TEST_F(RouterTest, AgreesWithItsP4Info) {
  ASSERT_EQ(p4info_.tables_size(), 9);
  for (const auto& info : p4info_.tables()) {
    SCOPED_TRACE(info.preamble().name());
    const auto position = tableNamed(engine_.program(), info.preamble().name());
    ASSERT_TRUE(position);
    expectSameTable(engine_.program().tables[*position], info);
  }
  for (const auto& info : p4info_.actions())
    for (const P4::Action& action : engine_.program().actions)
      if (action.name == info.preamble().name()) {
        EXPECT_EQ(widthsOf(action.parameters), widthsOf(info.params())) << action.name;
      }
  for (const auto& info : p4info_.controller_packet_metadata())
    EXPECT_EQ(widthsOfHeader(info.preamble().name()), widthsOf(info.metadata()));
}

TEST_F(RouterTest, ForwardsWhatHasARouteAndMayLive) {
  insert("ipv4_route", {{"\x05"}, prefix("0b010000", 16)}, "drop");
  rule(23, "acl_drop");
  const std::string ipv6 = "20010db8" + std::string(23, '0') + "1";
  const std::string six =
      "86dd"
      "60000000"
      "0000"
      "3b";
  const std::string arp = broadcast + host +
                          "0806"
                          "0001080006040001";
  const struct {
    const char* what;
    uint32_t port;
    std::string frame;
    Strings out;
  } cases[] = {
      {"by its route", 1, arrived({}), {routed({})}},
      {"out of the port where it came in", 2, arrived({}), {routed({})}},
      {"by the longest prefix", 1, arrived({.destination = 0x0b010005}), {}},
      {"without a route", 1, arrived({.destination = 0x0c000005}), {}},
      {"on a port that is shut", 3, arrived({}), {}},
      {"against an access rule", 1, arrived({.destinationPort = 23}), {}},
      {"with one hop left", 1, arrived({.ttl = 2}), {routed({.ttl = 2})}},
      {"with no hop left", 1, arrived({.ttl = 1}), {}},
      {"with options", 1, frame(router, host, {}, "46"), {}},
      {"with a wrong checksum", 1, frame(router, host, {}).replace(48, 4, "1234"), {}},
      {"cut in its header", 1, arrived({}).substr(0, 60), {}},
      {"IPv6",
       1,
       router + host + six + "40" + ipv6 + ipv6,
       {"2:" + neighbor + router + six + "3f" + ipv6 + ipv6}},
      {"IPv6 with no hop left", 1, router + host + six + "01" + ipv6 + ipv6, {}},
      {"ARP goes to the controller",
       1,
       arp,
       {"510:"
        "00000001"
        "01" +
        arp}},
      {"ARP on a port that is shut", 3, arp, {}},
      {"another kind of packet",
       1,
       router + host +
           "88b5"
           "00",
       {}},
      {"from the controller to a port",
       cpuPort,
       "00000003"
       "00" +
           arp,
       {"3:" + arp}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(send(c.port, c.frame), c.out);
  }
}

TEST_F(RouterTest, RoutesForTheControllerAsForAPort) {
  const std::string submitted =
      "00000000"
      "01" +
      arrived({});
  EXPECT_THAT(send(cpuPort, submitted), IsEmpty());
  insert("port", {{bytesOf("01fe")}}, "set_vrf", {"\x05"});
  engine_.tables().commit();
  EXPECT_THAT(send(cpuPort, submitted), ElementsAre(routed({})));
}

TEST_F(RouterTest, AccessRulesSendToTheControllerInAGivenOrder) {
  rule(53, "acl_drop");
  rule(53, "to_controller", {"\x09"});
  const std::string frame = routed({}).substr(2);
  EXPECT_THAT(send(1, arrived({})), ElementsAre("510:"
                                                "00000001"
                                                "09" +
                                                frame));
}

TEST_F(RouterTest, AMeterDropsWhatIsAboveItsRates) {
  P4::Entry& limited = rule(53, "acl_permit");
  const size_t bytes = arrived({}).size() / 2;
  engine_.tables().setMeter(limited, P4::MeterRates{1000, bytes, 1000, 2 * bytes});
  engine_.tables().commit();
  EXPECT_THAT(send(1, arrived({})), ElementsAre(routed({})));  // green
  EXPECT_THAT(send(1, arrived({})), ElementsAre(routed({})));  // yellow
  EXPECT_THAT(send(1, arrived({})), IsEmpty());                // red
  EXPECT_THAT(send(1, arrived({.destinationPort = 80})),
              ElementsAre(routed({.destinationPort = 80})));
  EXPECT_THAT(send(1, arrived({}), 1000000), ElementsAre(routed({})));
  EXPECT_EQ(limited.counter.counts(), (P4::Counts{4, 4 * bytes}));
}

// Also in the memory of a former one.
TEST_F(RouterTest, ANewEntryHasNothingOfAFormerOne) {
  P4::Entry& former = rule(53, "to_controller", {"\x09"});
  engine_.tables().setMeter(former, P4::MeterRates{1, 1, 1, 1});
  former.cookie = 7;
  engine_.tables().commit();
  EXPECT_THAT(send(1, arrived({}), 1000), IsEmpty());  // above its rates
  EXPECT_EQ(former.counter.counts().packets, 1u);
  engine_.tables().remove(former);
  engine_.tables().commit();
  const P4::Entry& now = rule(53, "acl_permit");
  EXPECT_EQ(now.counter.counts(), P4::Counts{});
  EXPECT_EQ(now.lastHit, 0u);
  EXPECT_EQ(now.cookie, 0u);
  for (int n = 1; n <= 3; ++n) {  // no meter drops it
    EXPECT_THAT(send(1, arrived({})), ElementsAre(routed({})));
  }
}

TEST_F(RouterTest, AFlowKeepsToOneMemberOfItsGroup) {
  addHop("\x08", "\x03");
  P4::ProfileStore& profile =
      engine_.tables().profile(profileNamed(engine_.program(), "ingress.wcmp_selector").value());
  const uint32_t wcmp = tableNamed(engine_.program(), "ingress.wcmp").value();
  profile.insertMember(1, actionOf(wcmp, "set_nexthop", {"\x07"}));
  profile.insertMember(2, actionOf(wcmp, "set_nexthop", {"\x08"}));
  profile.insertGroup(9, {{1, 3}, {2, 1}});
  const P4::Entry& group = engine_.tables().insert({wcmp, {{"\x04"}}}, P4::GroupId{9});
  insert("ipv4_route", {{"\x05"}, prefix("0b010000", 16)}, "set_wcmp", {"\x04"});
  engine_.tables().commit();

  std::map<char, int> flows;
  for (uint32_t flow = 0; flow < 1000; ++flow) {
    const std::string packet = arrived({.destination = 0x0b010005, .sourcePort = 2000 + flow});
    const Strings out = send(1, packet);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(send(1, packet), out);
    ++flows[out[0][0]];
  }
  EXPECT_THAT(flows['2'], AllOf(Ge(700), Le(800)));
  EXPECT_EQ(flows['2'] + flows['3'], 1000);
  EXPECT_EQ(group.counter.counts().packets, 2000u);
}

TEST_F(RouterTest, ABundleSpreadsOverItsLinks) {
  const uint32_t lag = tableNamed(engine_.program(), "ingress.lag").value();
  engine_.tables().insert({lag, {{"\x02"}}},
                          P4::OneShotSet{{.action = actionOf(lag, "set_port", {"\x04"})},
                                         {.action = actionOf(lag, "set_port", {"\x05"})}});
  engine_.tables().commit();
  std::map<char, int> packets;
  for (uint32_t source = 1; source <= 100; ++source)
    ++packets[send(1, arrived({.source = 0x0a000000 + source})).at(0)[0]];
  EXPECT_EQ(packets['4'] + packets['5'], 100);
  EXPECT_GT(packets['4'], 25);
  EXPECT_GT(packets['5'], 25);
}

}  // namespace
}  // namespace P4Test
