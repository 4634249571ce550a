// A switch that executes the program that a controller pushed: packets meet the entries that were
// confirmed, also while processes are killed.
#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "tests/e2e/WiredSwitch.h"
#include "tests/p4/Playing.h"

using namespace TestSupport;
using testing::AllOf;
using testing::HasSubstr;

namespace {

using Set = p4::v1::SetForwardingPipelineConfigRequest;

const std::string host("\x02\0\0\0\x0a\x01", 6), router("\x02\0\0\0\0\x01", 6),
    neighbor("\x02\0\0\0\x0b\x02", 6);

std::string big(uint64_t number, size_t bytes) {
  return paddedBytes(canonicalBytes(number), static_cast<int>(8 * bytes));
}

std::string withChecksum(std::string header) {
  uint32_t sum = 0;
  for (size_t at = 0; at < header.size(); at += 2) {
    sum += static_cast<uint8_t>(header[at]) << 8 | static_cast<uint8_t>(header[at + 1]);
  }
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return header.replace(10, 2, big(~sum & 0xffff, 2));
}

// An IPv4 datagram from 10.0.0.1, told from others by its identification.
std::string datagram(const std::string& to, const std::string& from, uint32_t destination,
                     uint16_t identification, uint8_t ttl = 64) {
  const std::string text = "some payload that fills a frame up";
  const std::string begin = std::string("\x45\0", 2) + big(28 + text.size(), 2) +
                            big(identification, 2) + big(0, 2) + big(ttl, 1) + "\x11" + big(0, 2) +
                            big(0x0a000001, 4) + big(destination, 4);
  return to + from + "\x08" + std::string(1, '\0') + withChecksum(begin) + big(4000, 2) +
         big(53, 2) + big(8 + text.size(), 2) + big(0, 2) + text;
}
std::string arriving(uint32_t destination, uint16_t identification) {
  return datagram(router, host, destination, identification);
}
std::string leaving(uint32_t destination, uint16_t identification) {
  return datagram(neighbor, router, destination, identification, 63);
}

std::string fileText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::string textOf(std::span<const uint8_t> bytes) { return {bytes.begin(), bytes.end()}; }

class ForwardingTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(switch_.start());
    for (const char* setting : {"packetOutToProgram", "checkPrograms"}) {
      const auto set = switch_.agent.korvel({"set", "p4runtime/config/agent", setting, "true"});
      ASSERT_EQ(set.exit.code, 0) << set.error;
    }
    ASSERT_TRUE(push(fileText(KORVEL_ROUTER_PROGRAM)).ok());
    ASSERT_TRUE(writeRoutes().ok());
  }

  grpc::Status push(const std::string& program) {
    return push(switch_.pipeline().p4info(), program);
  }
  grpc::Status push(const p4::config::v1::P4Info& p4Info, const std::string& program) {
    Set request;
    request.set_device_id(1);
    request.mutable_election_id()->set_low(switch_.electionId());
    request.set_action(Set::VERIFY_AND_COMMIT);
    *request.mutable_config()->mutable_p4info() = p4Info;
    request.mutable_config()->set_p4_device_config(program);
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + patience);
    p4::v1::SetForwardingPipelineConfigResponse response;
    return switch_.controller().stub().SetForwardingPipelineConfig(&context, request, &response);
  }

  EntryOf entry(const char* table) { return {switch_.pipeline(), table}; }
  // 11.0.0.0/8 leads to a neighbor behind port 2.
  WriteOutcome writeRoutes() {
    const uint64_t to = 0x020000000b02, from = 0x020000000001;
    std::vector<p4::v1::Update> updates;
    for (const uint32_t port : {1, 2}) {
      updates.push_back(insertOf(
          entry("port").exact("ingress_port", port).action("set_vrf", {{"vrf_id", 5}}).entry()));
    }
    updates.push_back(
        insertOf(entry("nexthop")
                     .exact("nexthop_id", 7)
                     .action("forward", {{"port", 2}, {"smac", from}, {"neighbor_id", 7}})
                     .entry()));
    updates.push_back(insertOf(entry("neighbor")
                                   .exact("port", 2)
                                   .exact("neighbor_id", 7)
                                   .action("set_dst_mac", {{"dmac", to}})
                                   .entry()));
    updates.push_back(insertOf(route()));
    return switch_.write(updates);
  }
  p4::v1::TableEntry route() {
    return entry("ipv4_route")
        .exact("vrf_id", 5)
        .lpm("ipv4_dst", 0x0b000000, 8)
        .action("set_nexthop", {{"nexthop_id", 7}});
  }

  void arrived(uint32_t link, std::span<const uint8_t> packet) {
    const std::lock_guard lock(mutex_);
    arrived_.emplace_back(link, textOf(packet));
  }
  bool hasArrived(uint32_t link, const std::string& packet) {
    const std::lock_guard lock(mutex_);
    return std::ranges::count(arrived_, std::pair(link, packet)) > 0;
  }
  int64_t forwardedTo(uint32_t link) {
    const std::lock_guard lock(mutex_);
    return std::ranges::count_if(arrived_, [&](const auto& one) {
      return one.first == link && one.second.starts_with(leaving(0x0b000005, 0).substr(0, 14));
    });
  }
  // Whether the switch forwards now; the first packets may come before it has its ports.
  bool forwards() {
    return waitUntil([&] {
      const uint16_t identification = ++identification_;
      switch_.farEnd(1).send(arriving(0x0b000005, identification));
      return waitUntil([&] { return hasArrived(2, leaving(0x0b000005, identification)); }, -1,
                       std::chrono::milliseconds(200));
    });
  }
  int64_t routePackets() {
    p4::v1::Entity query;
    *query.mutable_direct_counter_entry()->mutable_table_entry() = route();
    query.mutable_direct_counter_entry()->mutable_table_entry()->clear_action();
    const EntitiesOutcome read = switch_.controller().read({query});
    return read.entities.size() == 1 ? read.entities[0].direct_counter_entry().data().packet_count()
                                     : -1;
  }

  std::mutex mutex_;
  std::vector<std::pair<uint32_t, std::string>> arrived_;  // by link
  std::vector<p4::v1::PacketIn> packetIns_;
  uint16_t identification_ = 0;
  WiredSwitch switch_{{.ports = 3, .spareLinks = 1, .cpuTap = true, .forwards = true},
                      [this](uint32_t link, auto packet) { arrived(link, packet); },
                      [this](const p4::v1::PacketIn& packet) {
                        const std::lock_guard lock(mutex_);
                        packetIns_.push_back(packet);
                      }};
};

TEST_F(ForwardingTest, ByTheEntriesThatAreConfirmed) {
  ASSERT_TRUE(forwards());
  EXPECT_TRUE(waitUntil([&] { return routePackets() >= forwardedTo(2); }));
  ASSERT_TRUE(switch_.write({deleteOf(route())}).ok());
  switch_.farEnd(1).send(arriving(0x0b000005, 60000));
  ASSERT_TRUE(switch_.write({insertOf(route())}).ok());
  switch_.farEnd(1).send(arriving(0x0b000005, 60001));
  EXPECT_TRUE(waitUntil([&] { return hasArrived(2, leaving(0x0b000005, 60001)); }));
  EXPECT_FALSE(hasArrived(2, leaving(0x0b000005, 60000)));

  // The dead take nothing with them.
  switch_.agent.kill();
  switch_.farEnd(1).send(arriving(0x0b000005, 60002));
  EXPECT_TRUE(waitUntil([&] { return hasArrived(2, leaving(0x0b000005, 60002)); }));
  ASSERT_TRUE(switch_.startAgent());
  EXPECT_TRUE(forwards());
  switch_.forwarder.kill();
  ASSERT_TRUE(switch_.startForwarder());
  EXPECT_TRUE(forwards());
  ASSERT_TRUE(switch_.connectController());
  EXPECT_EQ(switch_.disagreement(), "");
}

TEST_F(ForwardingTest, NoPacketSeesAnAtomicWriteThatFails) {
  ASSERT_TRUE(forwards());
  const std::string another("\x02\0\0\0\x0b\x09", 6);
  p4::v1::WriteRequest request = switch_.controller().writeRequest(
      {modifyOf(entry("neighbor")
                    .exact("port", 2)
                    .exact("neighbor_id", 7)
                    .action("set_dst_mac", {{"dmac", 0x020000000b09}})
                    .entry()),
       insertOf(entry("ipv4_route")
                    .exact("vrf_id", 5)
                    .lpm("ipv4_dst", 0x0c000000, 8)
                    .action("set_nexthop", {{"nexthop_id", 7}}))});
  request.set_atomicity(p4::v1::WriteRequest::DATAPLANE_ATOMIC);
  const auto hasCome = [&](const std::string& to) {
    const std::lock_guard lock(mutex_);
    return std::ranges::any_of(
        arrived_, [&](const auto& one) { return one.first == 2 && one.second.starts_with(to); });
  };
  ASSERT_EQ(switch_.forwarder.ctl({"fail-table", "ipv4_route"}).exit.code, 0);
  std::atomic<bool> stop = false;
  std::thread sender([&] {
    while (!stop) switch_.farEnd(1).send(arriving(0x0b000005, 1));
  });
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(switch_.controller().write(request).status.error_code(), grpc::UNKNOWN);
  }
  EXPECT_FALSE(hasCome(another));
  EXPECT_EQ(switch_.disagreement(), "");
  EXPECT_EQ(switch_.forwarder.ctl({"clear"}).exit.code, 0);
  const WriteOutcome outcome = switch_.controller().write(request);
  EXPECT_TRUE(outcome.status.ok()) << outcome.status.error_message();
  EXPECT_TRUE(waitUntil([&] { return hasCome(another); }));
  stop = true;
  sender.join();
}

TEST_F(ForwardingTest, PacketsOfControllers) {
  ASSERT_TRUE(forwards());
  const std::string arp = std::string(6, '\xff') + host + "\x08\x06" + std::string(46, '\1');
  switch_.farEnd(2).send(arp);
  ASSERT_TRUE(waitUntil([&] {
    const std::lock_guard lock(mutex_);
    return !packetIns_.empty();
  }));
  const p4::v1::PacketIn in = packetIns_.front();
  EXPECT_EQ(in.payload(), arp);
  ASSERT_EQ(in.metadata_size(), 2);
  EXPECT_EQ(in.metadata(0).value(), "\x02");
  EXPECT_EQ(in.metadata(1).value(), "\x01");

  ASSERT_TRUE(switch_.controller().send(packetOut(3, arp)));
  EXPECT_TRUE(waitUntil([&] { return hasArrived(3, arp); }));
  // The router takes packets from the controller like those of a port.
  ASSERT_TRUE(
      switch_
          .write({insertOf(
              entry("port").exact("ingress_port", 510).action("set_vrf", {{"vrf_id", 5}}).entry())})
          .ok());
  ASSERT_TRUE(switch_.controller().send(packetOut(0, arriving(0x0b000009, 7), true)));
  EXPECT_TRUE(waitUntil([&] { return hasArrived(2, leaving(0x0b000009, 7)); }));
}

TEST_F(ForwardingTest, APortComesWhileItRuns) {
  ASSERT_TRUE(forwards());
  auto updates = std::vector<p4::v1::Update>{
      insertOf(entry("port").exact("ingress_port", 4).action("set_vrf", {{"vrf_id", 5}}).entry())};
  ASSERT_TRUE(switch_.write(updates).ok());
  const auto mapped = switch_.agent.korvel({"port", "map", "4", WiredSwitch::device(4)});
  ASSERT_EQ(mapped.exit.code, 0) << mapped.error;
  EXPECT_TRUE(waitUntil([&] {
    const uint16_t identification = ++identification_;
    switch_.farEnd(4).send(arriving(0x0b000006, identification));
    return waitUntil([&] { return hasArrived(2, leaving(0x0b000006, identification)); }, -1,
                     std::chrono::milliseconds(200));
  }));
}

TEST_F(ForwardingTest, AProgramThatCannotBeExecutedIsRefused) {
  ASSERT_TRUE(forwards());
  std::string strange = fileText(KORVEL_ROUTER_PROGRAM);
  strange.replace(strange.find("crc32"), 5, "crc99");
  const struct {
    const char* what;
    std::string program;
    const char* message;
  } cases[] = {
      {"no program", "opaque bytes", "no compiled P4 program"},
      {"no JSON", "{ \"program\": ", "JSON"},
      {"a part that is not there", strange, "crc99"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const grpc::Status refused = push(c.program);
    EXPECT_EQ(refused.error_code(), grpc::INVALID_ARGUMENT);
    EXPECT_THAT(refused.error_message(), HasSubstr(c.message));
  }
  EXPECT_TRUE(forwards());
}

// A byte selects a port. Each packet is told of in a digest, counted in cell 2, and kept in a
// register.
std::string newsProgram() {
  using namespace P4Test;
  SmallProgram made;
  made.header("h", {{"v", 8}});
  made.header("m", {{"nibble", 4}, {"pad", 4}}, true);
  made.state("start", list({extract("h")}));
  made.ingressAction(calls({assign(field("m", "nibble"), field("h", "v")),
                            call("generate_digest", {P4Test::hex(1), P4Test::hex(1)}),
                            call("count", {object("counter_array", "hits"), P4Test::hex(2)}),
                            call("register_write", {object("register_array", "memory"),
                                                    P4Test::hex(1), field("h", "v")})}),
                     "direct");
  const size_t send =
      made.action("send", R"({"name":"port","bitwidth":9})",
                  assign(metadata("egress_spec"), R"({"type":"runtime_data","value":0})"));
  made.table(R"({"name":"direct","id":6,"match_type":"exact","type":"simple","max_size":16,)"
             R"("key":[{"match_type":"exact","target":["h","v"],"name":"v"}],"action_ids":[)" +
             std::to_string(send) +
             R"(],"actions":["send"],"support_timeout":true,"next_tables":{"send":null}})");
  made.section("learn_lists",
               R"([{"id":1,"name":"seen","elements":[{"type":"field","value":["m","nibble"]},)"
               R"({"type":"field","value":["h","v"]}]}])");
  made.section("counter_arrays", R"([{"name":"hits","id":0,"size":4,"is_direct":false}])");
  made.section("register_arrays", R"([{"name":"memory","id":0,"size":4,"bitwidth":12}])");
  made.deparse({"h"});
  return made.json();
}

constexpr const char* newsP4Info = R"(
pkg_info { arch: "v1model" }
tables { preamble { id: 33554433 name: "direct" alias: "direct" }
  match_fields { id: 1 name: "v" bitwidth: 8 match_type: EXACT }
  action_refs { id: 16777217 } size: 16 idle_timeout_behavior: NOTIFY_CONTROL }
actions { preamble { id: 16777217 name: "send" alias: "send" }
  params { id: 1 name: "port" bitwidth: 9 } }
counters { preamble { id: 301989889 name: "hits" alias: "hits" } spec { unit: BOTH } size: 4 }
registers { preamble { id: 369098753 name: "memory" alias: "memory" }
  type_spec { bitstring { bit { bitwidth: 12 } } } size: 4 }
digests { preamble { id: 385875969 name: "seen" alias: "seen" }
  type_spec { struct { name: "seen_t" } } }
type_info { structs { key: "seen_t" value {
  members { name: "nibble" type_spec { bitstring { bit { bitwidth: 4 } } } }
  members { name: "v" type_spec { bitstring { bit { bitwidth: 8 } } } } } } }
)";

template <typename Message>
Message parsed(const std::string& text) {
  Message message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
  return message;
}

bool isDigestOf2(const p4::v1::StreamMessageResponse& notice) {
  if (!notice.has_digest() || notice.digest().digest_id() != 385875969) return false;
  const auto& members = notice.digest().data(0).struct_().members();
  return members.size() == 2 && members[0].bitstring() == "\x02" &&
         members[1].bitstring() == "\x02";
}

// News that the data plane alone has come to the controller.
TEST_F(ForwardingTest, NewsOfTheDataPlane) {
  ASSERT_TRUE(forwards());
  std::vector<p4::v1::StreamMessageResponse> notices;
  switch_.controller().onNoticeIs([&](const p4::v1::StreamMessageResponse& notice) {
    const std::lock_guard lock(mutex_);
    notices.push_back(notice);
  });
  const auto has = [&](const std::function<bool(const p4::v1::StreamMessageResponse&)>& wanted) {
    return waitUntil([&] {
      const std::lock_guard lock(mutex_);
      return std::ranges::any_of(notices, wanted);
    });
  };
  const auto read = [&](const char* query) {
    return switch_.controller().read({parsed<p4::v1::Entity>(query)}).entities;
  };
  const grpc::Status pushed = push(parsed<p4::config::v1::P4Info>(newsP4Info), newsProgram());
  ASSERT_TRUE(pushed.ok()) << pushed.error_message();
  const auto digest =
      parsed<p4::v1::Entity>("digest_entry { digest_id: 385875969 config { max_list_size: 1 } }");
  const auto entry = parsed<p4::v1::Entity>(R"(table_entry { table_id: 33554433
      match { field_id: 1 exact { value: "\002" } } idle_timeout_ns: 1000000000
      action { action { action_id: 16777217 params { param_id: 1 value: "\002" } } } })");
  ASSERT_TRUE(switch_.write({insertOf(digest), insertOf(entry)}).ok());

  const std::string packet = arriving(0x0b000005, 1);  // it begins with the byte 2
  switch_.farEnd(1).send(packet);
  EXPECT_TRUE(waitUntil([&] { return hasArrived(2, packet); }));
  EXPECT_TRUE(has(isDigestOf2));
  const auto cells = read("counter_entry { counter_id: 301989889 index { index: 2 } }");
  ASSERT_EQ(cells.size(), 1u);
  EXPECT_EQ(cells[0].counter_entry().data().packet_count(), 1);
  EXPECT_EQ(cells[0].counter_entry().data().byte_count(), static_cast<int64_t>(packet.size()));
  const auto memory = read("register_entry { register_id: 369098753 }");
  ASSERT_EQ(memory.size(), 4u);
  EXPECT_EQ(memory[0].register_entry().data().bitstring(), std::string(1, '\0'));
  EXPECT_EQ(memory[1].register_entry().data().bitstring(), "\x02");
  EXPECT_TRUE(has([](const auto& notice) {
    return notice.has_idle_timeout_notification() &&
           notice.idle_timeout_notification().table_entry(0).table_id() == 33554433;
  }));
}

// Of the entries that packets meet, of those that none has met, and with a verifier alone.
TEST_F(ForwardingTest, LastHitsAreRead) {
  ASSERT_TRUE(forwards());
  const grpc::Status pushed = push(parsed<p4::config::v1::P4Info>(newsP4Info), newsProgram());
  ASSERT_TRUE(pushed.ok()) << pushed.error_message();
  const auto entry = [](char v) {
    return parsed<p4::v1::Entity>(std::string(R"(table_entry { table_id: 33554433
        match { field_id: 1 exact { value: "\00)") +
                                  v + R"(" } }
        action { action { action_id: 16777217 params { param_id: 1 value: "\002" } } } })");
  };
  ASSERT_TRUE(switch_.write({insertOf(entry('2')), insertOf(entry('3'))}).ok());
  // Nanoseconds by the number that the entry matches.
  const auto times = [&](const char* query) {
    std::map<char, int64_t> times;
    const auto read = switch_.controller().read({parsed<p4::v1::Entity>(query)});
    EXPECT_TRUE(read.status.ok()) << read.status.error_message();
    for (const p4::v1::Entity& entity : read.entities) {
      const auto& found = entity.table_entry();
      if (!found.has_time_since_last_hit()) continue;
      times[found.match(0).exact().value()[0]] = found.time_since_last_hit().elapsed_ns();
    }
    return times;
  };
  constexpr const char* ofTable = "table_entry { table_id: 33554433 time_since_last_hit {} }";
  EXPECT_TRUE(times("table_entry { table_id: 33554433 }").empty());
  const auto before = times(ofTable);
  ASSERT_EQ(before.size(), 2u);
  const std::string packet = arriving(0x0b000005, 1);  // it begins with the byte 2
  switch_.farEnd(1).send(packet);
  ASSERT_TRUE(waitUntil([&] { return hasArrived(2, packet); }));
  const auto after = times("table_entry { time_since_last_hit {} }");
  ASSERT_EQ(after.size(), 2u);
  EXPECT_LT(after.at(2), after.at(3)) << "both came together; a packet has met one of them";
  EXPECT_GT(after.at(3), before.at(3));
  const auto one = times(R"(table_entry { table_id: 33554433 time_since_last_hit {}
      match { field_id: 1 exact { value: "\003" } } })");
  ASSERT_EQ(one.size(), 1u);
  EXPECT_GT(one.at(3), after.at(3));
}

}  // namespace
