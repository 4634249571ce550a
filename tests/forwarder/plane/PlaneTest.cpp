// The plane behind the following of tables: rows in any order become entries that packets meet, a
// program takes the place of another, and news go back to the agent.
#include "forwarder/plane/Plane.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "forwarder/follow/ForwardingAgent.h"
#include "forwarder/packets/PacketThread.h"
#include "platform/lattice/records/Packing.h"
#include "tests/forwarder/FormerRows.h"
#include "tests/p4/Playing.h"
#include "tests/support/TempDir.h"

namespace Forwarder {
namespace {

using namespace P4Test;
using ForwarderTest::FormerRows;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// Numbers as rows have them: little-endian in values, big-endian in keys.
std::string little(uint64_t number, size_t size) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(std::exchange(number, number >> 8));
  return bytes;
}
std::string big(uint64_t number, size_t size) {
  const std::string bytes = little(number, size);
  return {bytes.rbegin(), bytes.rend()};
}

// A byte `h.v` selects a port: by table `direct` with a counter, else by table `spread`, which has
// an action profile. Each packet of the value 7 is told of in a digest, and counted in a cell.
std::string program(uint64_t offset = 0) {
  SmallProgram made;
  made.header("h", {{"v", 8}});
  made.header("m", {{"nibble", 4}, {"pad", 4}}, true);
  made.state("start", list({extract("h")}));
  const std::string port = R"({"type":"runtime_data","value":0})";
  const std::string digest =
      call("generate_digest", {hex(1), hex(1)}) + "," +
      call("count", {object("counter_array", "hits"), hex(2)}) + "," +
      call("register_write", {object("register_array", "memory"), hex(1), field("h", "v")});
  made.ingressAction(assign(field("m", "nibble"), field("h", "v")) + "," + digest, "direct");
  const size_t send =
      made.action("send", R"({"name":"port","bitwidth":9})",
                  assign(metadata("egress_spec"), wrapped(op("+", port, hex(offset)))));
  const auto table = [&](const std::string& name, const std::string& rest) {
    made.table(
        R"({"name":")" + name + R"(","id":)" + std::to_string(name.size()) +
        R"(,"match_type":"exact","max_size":16,"key":[{"match_type":"exact","target":["h","v"],"name":"v"}],"action_ids":[)" +
        std::to_string(send) + R"(],"actions":["send"],)" + rest + "}");
  };
  table(
      "direct",
      R"("type":"simple","with_counters":true,"support_timeout":true,"next_tables":{"__HIT__":null,"__MISS__":"spread"})");
  table("spread", R"("type":"indirect_ws","action_profile":"ecmp","next_tables":{"send":null})");
  made.section(
      "action_profiles",
      R"([{"name":"ecmp","id":0,"max_size":16,"selector":{"algo":"crc16","input":[{"type":"field","value":["h","v"]}]}}])");
  made.section(
      "learn_lists",
      R"([{"id":1,"name":"seen","elements":[{"type":"field","value":["m","nibble"]},{"type":"field","value":["h","v"]}]}])");
  made.section("counter_arrays", R"([{"name":"hits","id":0,"size":4,"is_direct":false}])");
  made.section("register_arrays", R"([{"name":"memory","id":0,"size":4,"bitwidth":12}])");
  made.deparse({"h"});
  return made.json();
}

constexpr const char* names = R"({"tables":[
  {"rows":"direct","kind":"entries","name":"direct","id":6},
  {"rows":"spread","kind":"entries","name":"spread","id":7},
  {"rows":"ecmp.member","kind":"members","name":"ecmp","id":8},
  {"rows":"ecmp.group","kind":"groups","name":"ecmp","id":8},
  {"rows":"ecmp.watch","kind":"watch","name":"ecmp","id":8},
  {"rows":"digest.seen","kind":"digest","name":"seen","id":9},
  {"rows":"idle_timeout.direct","kind":"idle_timeout","name":"direct","id":6},
  {"rows":"register.memory","kind":"register","name":"memory","id":11},
  {"rows":"counter.hits","kind":"counter","name":"hits","id":10},
  {"rows":"counter.hits.default","kind":"counter.default","name":"hits","id":10},
  {"rows":"lost","kind":"entries","name":"ingress.lost","id":12}],
  "actions":[{"id":5,"name":"send"}]})";

// Keeps the reports, by sequence number.
class ReportKeeper final : public Lattice::Subscriber {
 public:
  std::map<uint64_t, std::string> reports;  // code and text

  void appliesAtOnceIs(bool) override {}
  void follow(std::chrono::milliseconds) override {}
  const std::string& trouble() const override { return trouble_; }
  bool attached() const override { return true; }
  void report(uint64_t, uint64_t sequence, uint16_t code, std::string_view text) override {
    EXPECT_FALSE(reports.contains(sequence)) << "a second report";
    reports[sequence] = std::to_string(code) + " " + std::string(text);
  }
  void flush() override {}
  uint64_t sequence() const override { return 0; }
  int descriptor() const override { return -1; }
  void lookForIs(std::chrono::microseconds) override {}

 private:
  std::string trouble_;
};

class PlaneTest : public testing::Test {
 protected:
  PlaneTest() {
    reports_.subscriberIs(&subscriber_);
    push(1, program());
    agent_.planeIs(&plane_);
  }

  // The entries of push `kept` stay.
  void push(uint64_t number, const std::string& json, uint64_t kept = 1) {
    const std::string folder = directory_.path() + "/pushed";
    std::filesystem::create_directories(folder);
    const std::string base = folder + "/" + std::to_string(number);
    std::ofstream(base + ".program") << json;
    std::ofstream(base + ".names") << names;
    std::ofstream(folder + "/new") << number << " " << kept << "\n";
    std::filesystem::rename(folder + "/new", folder + "/current");
  }

  const Lattice::FollowedTable& table(const std::string& name) {
    auto& table = tables_[name];
    if (!table.name.empty()) return table;
    static const std::map<std::string, const char*> definitions = {
        {"direct", "key v : U8; action { send 5 { port : U16; } } counter;"},
        {"spread", "key v : U8; indirect_id : U32; is_group : U8;"},
        {"ecmp.member", "key member_id : U32; action { send 5 { port : U16; } }"},
        {"ecmp.group", "key group_id : U32; member_id : U32[];"},
        {"ecmp.watch", "key group_id : U32; key member_id : U32; action { set 4 { port : U32; } }"},
        {"digest.seen", "key entry : U8; action { set 3 { none : Void; } }"},
        {"idle_timeout.direct", "key v : U8; action { set 3 { ns : Bits<64>; } }"},
        {"counter.hits",
         "key index : Bytes<8>; action { set 2 { packets : Bytes<8>; bytes : Bytes<8>; } }"},
        {"counter.hits.default",
         "key entry : U8; action { set 2 { packets : Bytes<8>; bytes : Bytes<8>; } }"},
        {"lost", "key v : U8; action { send 5 { port : U16; } }"}};
    table = {name, Lattice::TableType::compile(name, definitions.at(name))};
    agent_.tableAdded(table);
    return table;
  }
  uint64_t write(const std::string& name, const std::string& key, const std::string& value,
                 bool deleted = false) {
    agent_.rowChanged({.table = &table(name),
                       .key = key,
                       .value = value,
                       .deleted = deleted,
                       .entryHandle = ++sequence_ + 100,
                       .sequence = sequence_});
    return sequence_;
  }
  uint64_t erase(const std::string& name, const std::string& key) {
    return write(name, key, "", true);
  }
  uint64_t direct(uint8_t v, uint16_t port, const std::string& counter = std::string(17, '\0')) {
    return write("direct", big(v, 1), little(5, 4) + little(port, 2) + counter);
  }
  void directOf(uint64_t handle, uint8_t v, uint16_t port, bool deleted = false) {
    agent_.rowChanged(
        {.table = &table("direct"),
         .key = big(v, 1),
         .value = deleted ? "" : little(5, 4) + little(port, 2) + std::string(17, '\0'),
         .deleted = deleted,
         .entryHandle = handle,
         .sequence = ++sequence_});
  }
  uint64_t memberIs(uint32_t id, uint16_t port) {
    return write("ecmp.member", big(id, 4), little(5, 4) + little(port, 2));
  }
  uint64_t groupIs(uint32_t id, const std::vector<uint32_t>& members) {
    std::string value = little(members.size(), 4);
    for (const uint32_t one : members) value += little(one, 4);
    return write("ecmp.group", big(id, 4), value);
  }
  uint64_t spread(uint8_t v, uint32_t group) {
    return write("spread", big(v, 1), little(group, 4) + little(1, 1));
  }
  std::string reportOn(uint64_t sequence) { return subscriber_.reports[sequence]; }

  // Nanoseconds since the last hits of entries of a table; nothing: not known.
  std::vector<std::optional<uint64_t>> sinceHits(const std::vector<uint64_t>& handles,
                                                 uint32_t tableId = 6) {
    const Lattice::Answer answer = agent_.answer(
        {.kind = Lattice::Question::Kind::lastHits, .tableId = tableId, .entryHandles = handles});
    EXPECT_EQ(answer.errorCode, 0) << answer.bytes;
    std::vector<std::optional<uint64_t>> times;
    for (size_t at = 0; at < answer.bytes.size(); at += 8) {
      const auto time = Lattice::loadAt<uint64_t>(answer.bytes.data() + at);
      times.push_back(time == Lattice::unknownLastHit ? std::nullopt : std::optional(time));
    }
    return times;
  }
  // The times of packets and entries are those of the clock. It moves on.
  static void clockMovesOn() {
    const uint64_t from = PacketThread::now();
    while (PacketThread::now() < from + 1000) std::this_thread::yield();
  }

  // The packets that come out for one, by the engine that packets meet now.
  Strings out(const std::string& packet, uint32_t port = 1) {
    const auto engine = slot_.engine();
    if (!engine) return {"no program"};
    const std::string bytes = bytesOf(packet);
    P4::Outputs outputs;
    engine->process(port, {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()},
                    PacketThread::now(), outputs);
    digests_.add(*engine, outputs.digests);
    Strings all;
    for (size_t i = 0; i < outputs.size(); ++i) {
      const auto frame = outputs.frame(i);
      all.push_back(std::to_string(frame.port) + ":" +
                    hexOf(std::string(frame.bytes.begin(), frame.bytes.end())));
    }
    return all;
  }
  // "HANDLE: PACKETS BYTES", for cells "COUNTER/INDEX: ...".
  Strings countsTold() {
    for (int slice = 0; slice < 3; ++slice) plane_.maybeTellCounts(time_ += std::chrono::hours(1));
    Strings all;
    for (const FlowBook::Change& change : agent_.flows().takeChanges()) {
      const std::string of = change.counterId ? std::to_string(change.counterId) + "/" : "";
      all.push_back(of + std::to_string(change.entryHandle) + ": " +
                    std::to_string(change.packets) + " " + std::to_string(change.bytes));
    }
    std::ranges::sort(all);
    return all;
  }

  TestSupport::TempDir directory_;
  ReportKeeper subscriber_;
  ReportQueue reports_;
  ForwardingAgent agent_{reports_};
  std::vector<std::string> log_;
  EngineSlot slot_;
  DigestQueue digests_;
  Plane plane_{{.stateDirectory = directory_.path(), .program = {}, .engine = {}},
               slot_,
               digests_,
               agent_.flows(),
               [this](const std::string& line) { log_.push_back(line); }};
  std::map<std::string, Lattice::FollowedTable> tables_;
  uint64_t sequence_ = 0;
  Plane::Clock::time_point time_ = Plane::Clock::now();
};

TEST_F(PlaneTest, AGroupOfChangesTakesEffectAtItsEnd) {
  const uint64_t entry = direct(7, 3);
  EXPECT_THAT(out("07"), ElementsAre("no program"));
  EXPECT_THAT(subscriber_.reports, IsEmpty());
  agent_.rowsEnd();
  EXPECT_EQ(reportOn(entry), "0 ");
  EXPECT_THAT(out("07"), ElementsAre("3:07"));
  direct(7, 4);
  direct(9, 5);
  EXPECT_THAT(out("07"), ElementsAre("3:07"));
  agent_.rowsEnd();
  EXPECT_THAT(out("07"), ElementsAre("4:07"));
  erase("direct", big(7, 1));
  agent_.rowsEnd();
  EXPECT_THAT(out("07"), ElementsAre("0:07"));
  EXPECT_THAT(out("09"), ElementsAre("5:09"));
}

TEST_F(PlaneTest, ReferencesMayComeInAnyOrder) {
  const uint64_t entry = spread(7, 10);
  const uint64_t group = groupIs(10, {1, 1, 2});
  const uint64_t lonely = spread(8, 11);
  memberIs(1, 3);
  memberIs(2, 3);
  agent_.rowsEnd();
  EXPECT_EQ(reportOn(entry), "0 ");
  EXPECT_EQ(reportOn(group), "0 ");
  EXPECT_THAT(reportOn(lonely), HasSubstr("11 table spread: "));
  EXPECT_THAT(out("07"), ElementsAre("3:07"));
  // Its members go before it, and it before the entry.
  erase("ecmp.member", big(1, 4));
  erase("ecmp.member", big(2, 4));
  erase("ecmp.group", big(10, 4));
  const uint64_t last = erase("spread", big(7, 1));
  agent_.rowsEnd();
  for (uint64_t sequence = last - 3; sequence <= last; ++sequence) {
    EXPECT_EQ(reportOn(sequence), "0 ");
  }
  EXPECT_THAT(out("07"), ElementsAre("0:07"));
}

TEST_F(PlaneTest, AWatchedPortThatIsDownIsPassedOver) {
  memberIs(1, 3);
  memberIs(2, 4);
  groupIs(10, {1, 2});
  spread(7, 10);
  write("ecmp.watch", big(10, 4) + big(1, 4), little(4, 4) + little(31, 4));
  write("ecmp.watch", big(10, 4) + big(2, 4), little(4, 4) + little(41, 4));
  agent_.rowsEnd();
  plane_.portIs(31, false);
  EXPECT_THAT(out("07"), ElementsAre("4:07"));
  plane_.portIs(31, true);
  plane_.portIs(41, false);
  EXPECT_THAT(out("07"), ElementsAre("3:07"));
  erase("ecmp.watch", big(10, 4) + big(2, 4));
  erase("ecmp.watch", big(10, 4) + big(1, 4));
  groupIs(10, {2});
  agent_.rowsEnd();
  EXPECT_THAT(out("07"), ElementsAre("4:07"));
}

TEST_F(PlaneTest, ASnapshotTakesTheOtherRowsOut) {
  memberIs(1, 3);
  groupIs(10, {1});
  spread(7, 10);
  direct(9, 5);
  agent_.rowsEnd();
  agent_.snapshotBegin();
  direct(8, 6);
  agent_.snapshotEnd();
  agent_.rowsEnd();
  EXPECT_THAT(out("07"), ElementsAre("0:07"));
  EXPECT_THAT(out("09"), ElementsAre("0:09"));
  EXPECT_THAT(out("08"), ElementsAre("6:08"));
  const uint64_t again = memberIs(1, 4);  // nothing of it is left
  agent_.rowsEnd();
  EXPECT_EQ(reportOn(again), "0 ");
}

TEST_F(PlaneTest, RowsWithoutAPlaceAreRefused) {
  const uint64_t lost = write("lost", big(7, 1), little(5, 4) + little(3, 2));
  const uint64_t wide = direct(7, 512);
  agent_.rowsEnd();
  EXPECT_THAT(reportOn(lost), AllOf(HasSubstr("14 table lost: "), HasSubstr("ingress.lost")));
  EXPECT_THAT(reportOn(wide), AllOf(HasSubstr("14 table direct: "), HasSubstr("9 bits")));
  EXPECT_THAT(out("07"), ElementsAre("0:07"));
  const uint64_t right = direct(7, 5);
  agent_.rowsEnd();
  EXPECT_EQ(reportOn(right), "0 ");
}

// A packet of 7 leaves by port 3, by one of two tables; a Write moves the entry from one to the
// other, and every second one has a row that is refused.
TEST_F(PlaneTest, APacketSeesAllOfAWholeCommitOrNothing) {
  const std::string seven = big(7, 1), nine = big(9, 1);
  const std::string toPort = little(5, 4) + little(3, 2) + std::string(17, '\0');
  const std::string toGroup = little(10, 4) + little(1, 1);
  memberIs(1, 3);
  groupIs(10, {1});
  direct(7, 3);
  agent_.rowsEnd();
  table("spread");
  ASSERT_THAT(out("07"), ElementsAre("3:07"));

  std::atomic<bool> stop = false;
  std::atomic<uint64_t> packets = 0, torn = 0;
  std::thread reader([&] {
    P4::Outputs outputs;
    const uint8_t packet = 7;
    for (; !stop; ++packets, outputs.clear()) {
      slot_.engine()->process(1, {&packet, 1}, 1, outputs);
      torn += outputs.size() != 1 || outputs.frame(0).port != 3;
    }
  });
  bool isDirect = true;
  for (int round = 0; round < 500 || packets < 500; ++round) {
    const bool fails = round % 2 == 0;
    FormerRows commit(sequence_ + 1);
    const auto moved = [&](const std::string& name, const std::string& value, bool isThere) {
      write(name, seven, isThere ? "" : value, isThere);
      commit.add(table(name), seven, isThere ? std::optional(value) : std::nullopt);
    };
    moved("direct", toPort, isDirect);
    if (fails) {
      const uint64_t refused = direct(9, 512);
      commit.add(table("direct"), nine, std::nullopt);
      moved("spread", toGroup, !isDirect);
      agent_.wholeCommit(commit);
      agent_.rowsEnd();
      EXPECT_THAT(reportOn(refused), HasSubstr("9 bits"));
    } else {
      moved("spread", toGroup, !isDirect);
      agent_.wholeCommit(commit);
      agent_.rowsEnd();
      isDirect = !isDirect;
    }
    ASSERT_EQ(agent_.table("direct")->rowCount(), isDirect ? 1 : 0) << round;
    ASSERT_EQ(agent_.table("spread")->rowCount(), isDirect ? 0 : 1) << round;
  }
  stop = true;
  reader.join();
  EXPECT_EQ(torn, 0u);
}

// A batch that came before its commit, and that its agent did not live to commit.
TEST_F(PlaneTest, PacketsSeeNothingOfRowsThatWereLostAheadOfTheirCommit) {
  const auto toPort = [](uint16_t port) {
    return little(5, 4) + little(port, 2) + std::string(17, '\0');
  };
  direct(7, 3);
  direct(9, 5);
  agent_.rowsEnd();
  FormerRows lost(sequence_ + 1);
  const auto seesFormer = [&] {
    EXPECT_THAT(out("07"), ElementsAre("3:07"));
    EXPECT_THAT(out("08"), ElementsAre("0:08"));
    EXPECT_THAT(out("09"), ElementsAre("5:09"));
    EXPECT_THAT(out("0a"), ElementsAre("0:0a"));
  };
  for (const auto& [v, port] : {std::pair(7, 4), {8, 6}, {7, 8}}) direct(v, port);
  erase("direct", big(9, 1));
  memberIs(1, 3);
  groupIs(10, {1});
  spread(10, 10);
  const auto& rows = table("direct");
  lost.add(rows, big(7, 1), toPort(3));
  lost.add(rows, big(8, 1), std::nullopt);
  lost.add(rows, big(7, 1), toPort(4));
  lost.add(rows, big(9, 1), toPort(5));
  lost.add(table("ecmp.member"), big(1, 4), std::nullopt);
  lost.add(table("ecmp.group"), big(10, 4), std::nullopt);
  lost.add(table("spread"), big(10, 1), std::nullopt);
  agent_.rowsReported();
  agent_.checkPlane();
  seesFormer();
  agent_.aheadLost(lost);
  seesFormer();
  agent_.rowsEnd();
  seesFormer();
  for (const auto& [name, count] : {std::pair("direct", 2), {"spread", 0}, {"ecmp.member", 0}}) {
    EXPECT_EQ(agent_.table(name)->rowCount(), count) << name;
  }
}

// The group of changes has no end before the commit, which may be a while.
TEST_F(PlaneTest, APortThatGoesDownShowsNoRowsAheadOfTheirCommit) {
  direct(7, 3);
  memberIs(1, 3);
  memberIs(2, 4);
  groupIs(10, {1, 2});
  spread(8, 10);
  write("ecmp.watch", big(10, 4) + big(1, 4), little(4, 4) + little(31, 4));
  agent_.rowsEnd();
  direct(7, 4);
  plane_.portIs(31, false);
  EXPECT_THAT(out("07"), ElementsAre("3:07"));
  agent_.rowsEnd();
  EXPECT_THAT(out("07"), ElementsAre("4:07"));
  EXPECT_THAT(out("08"), ElementsAre("4:08"));
}

// Rows wait for the rest of their group, until it turns out that they never were.
TEST_F(PlaneTest, RowsThatWaitAreForgottenWithASnapshot) {
  direct(7, 3);
  agent_.rowsEnd();
  push(2, program(100));
  direct(8, 6);
  spread(9, 10);
  agent_.snapshotBegin();
  direct(7, 3);
  memberIs(1, 3);
  groupIs(10, {1});
  agent_.snapshotEnd();
  agent_.rowsEnd();
  EXPECT_EQ(agent_.table("direct")->rowCount(), 1u);
  EXPECT_EQ(agent_.table("spread")->rowCount(), 0u);
  EXPECT_THAT(out("07"), ElementsAre("103:07"));
  EXPECT_THAT(out("08"), ElementsAre("0:08"));
}

TEST_F(PlaneTest, AnotherProgramTakesTheRowsOver) {
  memberIs(1, 3);
  groupIs(10, {1});
  spread(7, 10);
  direct(9, 5);
  agent_.rowsEnd();
  push(2, program(100));
  EXPECT_THAT(out("07"), ElementsAre("3:07"));
  EXPECT_EQ(agent_.answer({.push = 2}).errorCode, 0);
  EXPECT_THAT(out("07"), ElementsAre("103:07"));
  EXPECT_THAT(out("09"), ElementsAre("105:09"));

  push(3, R"({"header_types": 7})");
  const Lattice::Answer broken = agent_.answer({.push = 3});
  EXPECT_NE(broken.errorCode, 0);
  EXPECT_THAT(broken.bytes, AllOf(HasSubstr("push 3"), HasSubstr("header_types")));
  EXPECT_THAT(log_, Contains(broken.bytes));
  EXPECT_THAT(out("07"), ElementsAre("103:07"));

  // Rows of its own come with the next one.
  push(4, program(200));
  const uint64_t entry = direct(8, 6);
  agent_.rowsEnd();
  EXPECT_EQ(reportOn(entry), "0 ");
  EXPECT_THAT(out("08"), ElementsAre("206:08"));
  EXPECT_THAT(out("07"), ElementsAre("203:07"));

  // Rows that came with an earlier one are changed and deleted in this one.
  direct(9, 7);
  direct(8, 300);
  agent_.rowsEnd();
  EXPECT_THAT(out("09"), ElementsAre("207:09"));
  EXPECT_THAT(out("08"), ElementsAre("500:08"));
  erase("direct", big(9, 1));
  agent_.rowsEnd();
  EXPECT_THAT(out("09"), Not(ElementsAre("207:09")));
  EXPECT_THAT(out("08"), ElementsAre("500:08"));
}

// With the same program, or with one that comes with the type.
TEST_F(PlaneTest, ATableMayGetAnotherTypeUnderItsRows) {
  memberIs(1, 3);
  groupIs(10, {1});
  spread(7, 10);
  const std::string entry = std::to_string(direct(9, 5) + 100);
  agent_.rowsEnd();
  EXPECT_THAT(out("09"), ElementsAre("5:09"));
  const struct {
    const char* what;
    const char* actions;
    bool isPushed;
    const char* before;
    const char* of7;
    const char* of9;
  } cases[] = {
      {"the same program", "send 5 { port : U16; } other 6 { a : U8; }", false, "5:09", "3:07",
       "5:09"},
      {"another program", "other 6 { a : U8; } send 5 { port : U16; } more 7 { none : Void; }",
       true, "5:09", "103:07", "105:09"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.isPushed) push(2, program(100));
    Lattice::FollowedTable& direct = tables_["direct"];
    direct.type = Lattice::TableType::compile(
        "direct", std::string("key v : U8; action { ") + c.actions + " } counter;");
    agent_.tableRetyped(direct);
    const uint64_t other =
        write("direct", big(8, 1), little(6, 4) + little(1, 1) + std::string(17, '\0'));
    EXPECT_THAT(out("09"), ElementsAre(c.before)) << "until the end of the commit";
    agent_.rowsEnd();
    EXPECT_THAT(reportOn(other), AllOf(Not("0 "), Not(HasSubstr("cannot read"))))
        << "the program has no such action";
    EXPECT_THAT(out("07"), ElementsAre(c.of7));
    EXPECT_THAT(out("09"), ElementsAre(c.of9));
  }
  EXPECT_THAT(countsTold(), Contains(entry + ": 5 5"));
  const uint64_t next = direct(8, 6);
  agent_.rowsEnd();
  EXPECT_EQ(reportOn(next), "0 ");
  EXPECT_THAT(out("08"), ElementsAre("106:08"));
  erase("direct", big(9, 1));
  agent_.rowsEnd();
  EXPECT_THAT(out("09"), Not(ElementsAre("105:09")));
}

TEST_F(PlaneTest, CellsAndCountsStayAsLongAsTheEntries) {
  const std::string entry = std::to_string(direct(7, 3) + 100);
  agent_.rowsEnd();
  const auto memory = [&] {
    return hexOf(agent_
                     .answer({.kind = Lattice::Question::Kind::registerCells,
                              .registerId = 11,
                              .firstCell = 1,
                              .cellCount = 1})
                     .bytes);
  };
  out("07");
  push(2, program(100));
  EXPECT_EQ(agent_.answer({.push = 2}).errorCode, 0);
  EXPECT_EQ(memory(), "0007");
  EXPECT_THAT(out("07aa"), ElementsAre("103:07aa"));
  EXPECT_THAT(countsTold(), ElementsAre("10/2: 2 3", entry + ": 2 3"));
  push(3, program(100), 3);
  EXPECT_EQ(agent_.answer({.push = 3}).errorCode, 0);
  EXPECT_EQ(memory(), "0000");
}

TEST_F(PlaneTest, CountsAreToldAndSet) {
  const std::string set = little(1, 1) + little(640, 8) + little(10, 8);
  const uint64_t plain = direct(7, 3), given = direct(9, 3, set);
  write("counter.hits", big(3, 8), little(2, 4) + big(5, 8) + big(50, 8));
  agent_.rowsEnd();
  const std::string first = std::to_string(plain + 100), second = std::to_string(given + 100);
  EXPECT_THAT(countsTold(), ElementsAre("10/3: 5 50", second + ": 10 640"));
  out("07");
  out("09aa");
  EXPECT_THAT(countsTold(), ElementsAre("10/2: 2 3", first + ": 1 1", second + ": 11 642"));
  EXPECT_THAT(countsTold(), IsEmpty());
  plane_.retellCounts();
  EXPECT_THAT(countsTold(), Contains(first + ": 1 1"));
  out("07");
  EXPECT_EQ(agent_.answer({.kind = Lattice::Question::Kind::counts}).errorCode, 0);
  EXPECT_THAT(agent_.flows().takeChanges(), testing::SizeIs(2));
  // All cells are set but the one with a row; the next set counts as set.
  write("counter.hits.default", big(0, 1), little(2, 4) + big(1, 8) + big(2, 8));
  agent_.rowsEnd();
  EXPECT_THAT(countsTold(), ElementsAre("10/0: 1 2", "10/1: 1 2", "10/2: 1 2"));
}

TEST_F(PlaneTest, NewsForControllers) {
  direct(7, 3);
  agent_.rowsEnd();
  out("07");
  EXPECT_THAT(digests_.take(), IsEmpty());  // nobody wants them
  write("digest.seen", big(0, 1), little(3, 4));
  agent_.rowsEnd();
  out("a7");
  const auto digests = digests_.take();
  ASSERT_EQ(digests.size(), 1u);
  EXPECT_EQ(digests[0].id, 9u);
  EXPECT_EQ(hexOf(digests[0].message), "7a70");

  const Lattice::Answer cells = agent_.answer({.kind = Lattice::Question::Kind::registerCells,
                                               .registerId = 11,
                                               .firstCell = 0,
                                               .cellCount = 2});
  EXPECT_EQ(cells.errorCode, 0);
  EXPECT_EQ(hexOf(cells.bytes), "000000a7");
  const Lattice::Answer beyond = agent_.answer({.kind = Lattice::Question::Kind::registerCells,
                                                .registerId = 11,
                                                .firstCell = 3,
                                                .cellCount = 2});
  EXPECT_NE(beyond.errorCode, 0);

  const uint64_t idle = direct(8, 3);
  write("idle_timeout.direct", big(8, 1), little(3, 4) + big(5'000'000'000, 8));
  agent_.rowsEnd();
  const uint64_t now = PacketThread::now();
  EXPECT_THAT(plane_.idleEntries(now + 1'000'000), IsEmpty());
  EXPECT_THAT(plane_.idleEntries(now + 6'000'000), ElementsAre(idle + 100));
  // The time-out goes with its table, also while another program comes; the entry stays.
  push(2, program(1));
  agent_.tableRemoved(table("idle_timeout.direct"));
  agent_.rowsEnd();
  EXPECT_THAT(out("08"), ElementsAre("4:08"));
  EXPECT_THAT(plane_.idleEntries(now + 60'000'000), IsEmpty());
}

TEST_F(PlaneTest, LastHitsAreThoseOfPacketsOrOfTheEntriesThemselves) {
  const uint64_t begin = PacketThread::now();
  const auto since = [](uint64_t from) { return (PacketThread::now() - from) * 1000; };
  const uint64_t first = direct(7, 3) + 100, second = direct(8, 3) + 100;
  spread(9, 1);
  agent_.rowsEnd();
  const uint64_t programmed = PacketThread::now();
  clockMovesOn();
  out("07");
  const uint64_t hit = PacketThread::now();
  clockMovesOn();
  const auto known = [&](uint64_t entry, uint64_t other) {
    const auto times = sinceHits({entry, 99, other});
    ASSERT_EQ(times.size(), 3u);
    EXPECT_THAT(times[0], testing::Optional(testing::Ge(1'000'000u)));
    EXPECT_THAT(times[0], testing::Optional(testing::Lt(since(programmed)))) << "the packet";
    EXPECT_EQ(times[1], std::nullopt) << "there is no such entry";
    EXPECT_THAT(times[2], testing::Optional(testing::Ge(1000 * (hit - programmed)))) << "no packet";
    EXPECT_THAT(times[2], testing::Optional(testing::Le(since(begin))));
  };
  known(first, second);
  EXPECT_THAT(sinceHits({first}, 77), ElementsAre(std::nullopt)) << "of another table";
  EXPECT_THAT(sinceHits({}), IsEmpty());

  // A modified entry keeps its time, and a program that keeps the entries keeps them all.
  directOf(first, 7, 4);
  agent_.rowsEnd();
  known(first, second);
  push(2, program(100));
  known(first, second);

  erase("direct", big(7, 1));
  agent_.rowsEnd();
  EXPECT_THAT(sinceHits({first}), ElementsAre(std::nullopt));
  EXPECT_THAT(sinceHits({second})[0], testing::Ne(std::nullopt));

  // Without the program's own support nobody notes the hits.
  std::string ageless = program();
  const std::string support = R"("support_timeout":true)";
  ageless.replace(ageless.find(support), support.size(), R"("support_timeout":false)");
  push(3, ageless);
  const Lattice::Answer answer = agent_.answer(
      {.kind = Lattice::Question::Kind::lastHits, .tableId = 6, .entryHandles = {second}});
  EXPECT_EQ(answer.errorCode, 6);
  EXPECT_THAT(answer.bytes, HasSubstr("no idle time-outs"));
}

// The handle of a deleted entry may be given to the next one, in the same group of changes, and a
// row that is the same may be that of another entry.
TEST_F(PlaneTest, LastHitsFollowTheHandlesOfEntries) {
  directOf(1, 7, 3);
  directOf(2, 8, 3);
  agent_.rowsEnd();
  clockMovesOn();
  const uint64_t later = PacketThread::now();
  directOf(2, 8, 0, true);
  directOf(2, 9, 3);
  directOf(3, 7, 3);
  directOf(1, 10, 3);
  directOf(4, 7, 3);
  agent_.rowsEnd();
  const auto times = sinceHits({1, 2, 3, 4});
  const uint64_t longest = (PacketThread::now() - later) * 1000;
  EXPECT_EQ(times[2], std::nullopt);
  for (const size_t entry : {0, 1, 3}) {
    EXPECT_THAT(times[entry], testing::Optional(testing::Le(longest))) << entry;
  }
  directOf(1, 10, 0, true);
  agent_.rowsEnd();
  EXPECT_THAT(sinceHits({1}), ElementsAre(std::nullopt));
}

}  // namespace
}  // namespace Forwarder
