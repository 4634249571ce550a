// A switch that executes the program that a controller pushed: packets meet the entries that were
// confirmed, also while processes are killed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <mutex>
#include <sstream>

#include "tests/e2e/WiredSwitch.h"

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
      ASSERT_EQ(set.status, 0) << set.errors;
    }
    ASSERT_TRUE(push(fileText(KORVEL_ROUTER_PROGRAM)).ok());
    ASSERT_TRUE(writeRoutes().ok());
  }

  grpc::Status push(const std::string& program) {
    Set request;
    request.set_device_id(1);
    request.mutable_election_id()->set_low(switch_.electionId());
    request.set_action(Set::VERIFY_AND_COMMIT);
    *request.mutable_config()->mutable_p4info() = switch_.pipeline().p4info();
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
  EXPECT_TRUE(waitUntil([&] { return routePackets() >= identification_; }));
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
  ASSERT_EQ(mapped.status, 0) << mapped.errors;
  EXPECT_TRUE(waitUntil([&] {
    const uint16_t identification = ++identification_;
    switch_.farEnd(4).send(arriving(0x0b000006, identification));
    return waitUntil([&] { return hasArrived(2, leaving(0x0b000006, identification)); }, -1,
                     std::chrono::milliseconds(200));
  }));
}

TEST_F(ForwardingTest, AProgramThatCannotBeExecutedIsRefused) {
  ASSERT_TRUE(forwards());
  const struct {
    const char* what;
    std::string program;
    const char* message;
  } cases[] = {
      {"no program", "opaque bytes", "no compiled P4 program"},
      {"no JSON", "{ \"program\": ", "JSON"},
      {"a part that is not there",
       fileText(KORVEL_ROUTER_PROGRAM)
           .replace(0, 1, R"({"calculations":[{"name":"x","id":9,"algo":"crc99","input":[]}],)"),
       "crc99"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const grpc::Status refused = push(c.program);
    EXPECT_EQ(refused.error_code(), grpc::INVALID_ARGUMENT);
    EXPECT_THAT(refused.error_message(), HasSubstr(c.message));
  }
  EXPECT_TRUE(forwards());
}

}  // namespace
