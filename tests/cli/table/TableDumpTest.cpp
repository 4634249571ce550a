// `korvel table dump` of action profiles, meters and counters, from a store made by hand.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>

#include "platform/brine/Store.h"
#include "platform/lattice/counters/FlowCounters.h"
#include "platform/lattice/records/StoreLayout.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace {

using namespace std::string_literals;
using ::testing::AllOf;
using ::testing::HasSubstr;
using TestSupport::CommandResult;

std::string little(uint64_t number, size_t size) {
  std::string bytes;
  for (; size > 0; --size, number >>= 8) bytes += static_cast<char>(number);
  return bytes;
}
std::string big(uint64_t number, size_t size) {
  const std::string bytes = little(number, size);
  return {bytes.rbegin(), bytes.rend()};
}

class TableDumpTest : public testing::Test {
 protected:
  TableDumpTest() : store_(Brine::Store::open({.directory = directory_.path(), .changes = 64})) {
    table("ecmp.member",
          "key member_id : U32; action { out 7 { port : U16; } drop 8 { none : Void; } }");
    table("ecmp.group", "key group_id : U32; member_id : U32[];");
    table("route", "key dst : IpAddr; indirect_id : U32; is_group : U8; meter; counter;");
    row("ecmp.member", big(3, 4), little(7, 4) + little(80, 2), 0);
    row("ecmp.member", big(4, 4), little(8, 4), 0);
    row("ecmp.member", big(5, 4), little(7, 4) + little(81, 2), 0);
    row("ecmp.group", big(2, 4),
        little(4, 4) + little(3, 4) + little(4, 4) + little(3, 4) + little(3, 4), 0);
    row("ecmp.group", big(6, 4), little(1, 4) + little(5, 4), 0);
    row("ecmp.group", big(7, 4), little(0, 4), 0);
    row("ecmp.group", big(8, 4), little(9, 4) + little(1, 4), 0);  // says more than it has
    const std::string key(16, 'k');
    cache("actionProfileMember", key + little(7, 4) + little(17, 4) + little(3, 8) + little(0, 4));
    cache("actionProfileMember", key + little(7, 4) + little(0, 4) + little(5, 8) + little(0, 4));
    cache("actionProfileGroup", key + little(100, 4) + little(1ULL << 32 | 2, 8) + little(0, 4));
    cache("actionProfileGroup", key + little(0, 4) + little(1ULL << 32 | 6, 8) + little(0, 4));
    cache("actionProfileGroup", key + little(101, 4) + little(1ULL << 32 | 9, 8) + little(0, 4));
    cache("actionProfileGroup", "torn");
    store_->commit();
  }

  void table(const std::string& name, const std::string& definition) {
    const Lattice::TableRecord record{1, name + "Type", definition};
    store_->put(store_->table(Lattice::typesTable), Brine::asBytes(name),
                Brine::asBytes(record.encode()));
  }
  void row(const std::string& name, const std::string& key, const std::string& value,
           uint64_t handle) {
    const auto to = store_->write(store_->table("row/" + name), Brine::asBytes(key), value.size(),
                                  {.owner = handle});
    std::ranges::copy(value, to.value.begin());
  }
  void cache(const std::string& name, const std::string& record) {
    store_->put(store_->table("p4runtime/cache/" + name), Brine::asBytes(big(++cached_, 16)),
                Brine::asBytes(record));
  }
  static std::string noMeter() { return std::string(33, '\0'); }
  static std::string noCounter() { return std::string(17, '\0'); }
  void route(uint8_t host, uint32_t id, bool isGroup,
             const std::string& direct = noMeter() + noCounter()) {
    row("route", "\x0a\0\0"s + static_cast<char>(host), little(id, 4) + little(isGroup, 1) + direct,
        100 + host);
    store_->commit();
  }
  std::string dumped(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {TestSupport::binaryPath("korvel"), "table", "dump"});
    arguments.insert(arguments.end(), {"--state-dir", directory_.path()});
    const CommandResult result = TestSupport::run(arguments, {"SCRIVEL_DISABLE=1"});
    EXPECT_EQ(result.error, "");
    return result.output;
  }

  TestSupport::TempDir directory_;
  std::unique_ptr<Brine::Store> store_;
  uint64_t cached_ = 0;
};

TEST_F(TableDumpTest, MembersAndGroupsReadLikeWhatTheyAre) {
  EXPECT_EQ(dumped({"ecmp.member"}),
            "ecmp.member (3 rows)\n"
            "  member 3 (controller id 17): out port=80\n"
            "  member 4: drop\n"
            "  member 5 (one-shot): out port=81\n");
  EXPECT_EQ(dumped({"ecmp.group"}),
            "ecmp.group (4 rows)\n"
            "  group 2 (controller id 100): members 3 x3, 4 x1\n"
            "  group 6 (one-shot): members 5 x1\n"
            "  group 7: empty\n"
            "  group 8: members 1 x1\n");
  EXPECT_THAT(dumped({"ecmp.group", "--json"}),
              HasSubstr(R"("group":2,"controllerId":100,"members":[{"member":3,"controllerId":17,)"
                        R"("action":"out port=80","weight":3},{"member":4,"action":"drop",)"
                        R"("weight":1}])"));
  EXPECT_THAT(dumped({"ecmp.member", "--json"}), HasSubstr(R"("member":5,"oneShot":true)"));
}

TEST_F(TableDumpTest, EntriesOfAProfileShowWhereTheyLead) {
  const struct {
    uint32_t id;
    bool isGroup;
    const char* text;
    const char* json;
  } cases[] = {
      {2, true, "-> group 2 (members 3 x3, 4 x1) meter default  [handle 101]",
       R"("leadsTo":{"group":2,"controllerId":100,"members":[)"},
      {6, true, "-> group 6 (one-shot: members 5 x1) ", R"("group":6,"oneShot":true)"},
      {7, true, "-> group 7 (empty) ", R"("leadsTo":{"group":7,"members":[]})"},
      {9, true, "-> group 9 (empty) ", R"("leadsTo":{"group":9,"controllerId":101,"members":[]})"},
      {3, true, "-> group 3 (which is not there) ", R"("leadsTo":{"group":3})"},
      {3, false, "-> member 3 (out port=80) ", R"("leadsTo":{"member":3,"controllerId":17,)"},
      {5, false, "-> member 5 (one-shot: out port=81) ", R"("oneShot":true)"},
      {2, false, "-> member 2 (which is not there) ", R"("leadsTo":{"member":2})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    route(1, c.id, c.isGroup);
    EXPECT_THAT(dumped({"route"}), HasSubstr(c.text));
    EXPECT_THAT(dumped({"route", "--json"}), HasSubstr(c.json));
  }
}

TEST_F(TableDumpTest, MetersAndWrittenCountersAreReadable) {
  const std::string meter =
      "\1"s + little(1000, 8) + little(10, 8) + little(2000, 8) + little(20, 8);
  const std::string counter = "\1"s + little(640, 8) + little(10, 8);
  route(1, 3, false, meter + counter);
  EXPECT_THAT(dumped({"route"}), HasSubstr("meter cir=1000 cburst=10 pir=2000 pburst=20 "
                                           "counter set to packets=10 bytes=640  [handle 101]"));
  EXPECT_THAT(dumped({"route", "--json"}),
              HasSubstr(R"("meter":{"cir":"1000","cburst":"10","pir":"2000","pburst":"20"})"));
  route(1, 3, false);
  EXPECT_THAT(dumped({"route", "--json"}), HasSubstr(R"("meter":"default")"));
}

TEST_F(TableDumpTest, CountersAreThoseOfAllForwardingAgentsWithTheirRateOnceSeenTwice) {
  route(1, 3, false);
  route(2, 2, true);
  for (const char* name : {"one", "two"}) {
    const auto writer = Lattice::FlowCounterWriter::create(directory_.path(), name);
    writer->countIs(Lattice::flowCounterName(101), {.bytes = 640, .packets = 10});
    writer->commit();
  }
  const std::string text = dumped({"route", "--counters"});
  EXPECT_THAT(text, AllOf(HasSubstr("  packets=20 bytes=1280  [handle 101]"),
                          HasSubstr("  packets=0 bytes=0  [handle 102]")));
  const std::string watched = dumped({"route", "--counters", "--watch", "0.001", "--rounds", "3"});
  EXPECT_EQ(std::count(watched.begin(), watched.end(), '>'), 6);
  EXPECT_THAT(watched, HasSubstr("packets=20 bytes=1280 (0/s)"));
  EXPECT_THAT(dumped({"route", "--counters", "--json"}),
              HasSubstr(R"("counter":{"packets":"20","bytes":"1280"})"));
}

// What is read of a damaged store ended in a crash or never.
TEST_F(TableDumpTest, ADamagedStoreEndsWithAnErrorThatNamesIt) {
  for (uint32_t id = 1; id < 200; ++id) route(id, 3, false);
  const size_t size = store_->bytesUsed();
  store_.reset();
  const std::string file = directory_.path() + "/brine.store";
  std::string whole(size, '\0');
  std::ifstream(file, std::ios::binary).read(whole.data(), static_cast<std::streamsize>(size));
  std::mt19937_64 random(5);
  int named = 0;
  for (int round = 0; round < 150; ++round) {
    SCOPED_TRACE(round);
    std::string flipped = whole;
    for (size_t hits = 1 + random() % 3; hits > 0; --hits) {
      char& byte = flipped[random() % size];
      byte = static_cast<char>(byte ^ (1 + random() % 255));
    }
    std::ofstream(file, std::ios::binary) << flipped;
    const CommandResult result = TestSupport::run(
        {TestSupport::binaryPath("korvel"), "table", "dump", "--state-dir", directory_.path()},
        {"SCRIVEL_DISABLE=1"});
    EXPECT_EQ(result.exit.signal, 0) << result.error;
    const bool lost = result.output.find("handle 299") == std::string::npos;
    EXPECT_EQ(result.exit.code, result.error.empty() ? 0 : 1);
    EXPECT_FALSE(lost && result.error.empty());
    named += result.error.find("table route, dst=") != std::string::npos;
  }
  EXPECT_GT(named, 20);
}

}  // namespace
