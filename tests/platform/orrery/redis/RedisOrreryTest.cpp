// A process's part of a real Redis: status there, faults told, and a server that is away, full,
// stalled, empty, or lets nobody in.
#include "platform/orrery/redis/RedisOrrery.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "tests/platform/orrery/redis/Support.h"

namespace Orrery {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* ownStatus = "orrery/status/redis";

class RedisOrreryTest : public testing::Test, public ConfiguredDatabase {
 protected:
  void SetUp() override {
    if (!TestSupport::RedisServer::installed()) GTEST_SKIP() << "redis-server is not installed";
  }
  void serve(const std::vector<std::string>& arguments = {}) {
    server = std::make_unique<TestSupport::RedisServer>(folder.path(), arguments);
    address = server->address("s1");
  }
  void write(const std::string& path, const std::string& json) {
    server->run({"HSET", "s1/config", path, json});
  }
  std::unique_ptr<Part> madePart() {
    return std::make_unique<Part>(*this, address, folder.file("copy.json"));
  }
  // Loads and starts. A test that passes `mayBeWithout` has a configuration file.
  void start(bool mayBeWithout = false) {
    part = madePart();
    part->orrery->load(mayBeWithout, [] { return false; });
    part->orrery->start();
  }
  // Serves, with a port of 9000 bytes.
  void startServed() {
    serve();
    write("config/port", R"({"mtuBytes": 9000})");
    start();
  }
  bool untilSaid(const std::string& text) {
    return runUntil([&] { return part->said(text); });
  }
  bool untilField(const std::string& path, const std::string& text) {
    return runUntil([&] { return server->field("s1/status", path).find(text) != text.npos; });
  }
  std::string own(const char* attribute) {
    const auto entity = at(ownStatus);
    return entity->attribute(attribute)->text();
  }

  const TestSupport::TempDir folder;
  std::unique_ptr<TestSupport::RedisServer> server;
  std::string address;
  std::unique_ptr<Part> part;
  const Vela::ActivityLock lock_;
};

TEST_F(RedisOrreryTest, PublishesStatusAndThatItIsAlive) {
  serve();
  server->run({"HSET", "s1/status", "status/gone", "{}"});
  database->entityIs("status/secret/port", Vela::make<Port>("secret"));
  database->entityIs("status/more/p1", Vela::make<Port>("p1"));
  write("config/port", "{}");
  start();
  ASSERT_TRUE(untilField("status/port", R"("mtuBytes":1500)"));
  EXPECT_TRUE(untilField("status/more/p1", R"("drops":3)"));
  EXPECT_EQ(server->run({"HKEYS", "s1/status"}).find("secret"), std::string::npos);
  EXPECT_EQ(server->field("s1/status", "status/gone"), "") << "of a former process";
  EXPECT_EQ(server->field("s1/status", "config/port"), "");
  EXPECT_EQ(server->run({"GET", "s1/alive"}), part->summary);
  EXPECT_GT(std::stol(server->run({"PTTL", "s1/alive"})), 0);

  statusPort->mtuBytesIs(1600);
  EXPECT_TRUE(untilField("status/port", R"("mtuBytes":1600)"));
  part->summary = R"({"state": "critical"})";
  EXPECT_TRUE(runUntil([&] { return server->run({"GET", "s1/alive"}) == part->summary; }));
  database->entityDel("status/more/p1");
  EXPECT_TRUE(runUntil([&] { return server->field("s1/status", "status/more/p1").empty(); }));
  server->run({"FLUSHALL"});
  EXPECT_TRUE(untilField("status/port", R"("mtuBytes":1600)")) << "written again";
}

TEST_F(RedisOrreryTest, IsReachedOverTcpInAnotherDatabase) {
  const std::string number = std::to_string(TestSupport::freePort());
  serve({"--port", number, "--bind", "127.0.0.1"});
  server->run({"-n", "3", "HSET", "s1/config", "config/port", R"({"mtuBytes": 9000})"});
  address = "redis://127.0.0.1:" + number + "/3?prefix=s1";
  start();
  EXPECT_EQ(port->mtuBytes(), 9000);
  EXPECT_EQ(own("server"), "redis://127.0.0.1:" + number + "/3");
  EXPECT_TRUE(runUntil([&] { return server->run({"-n", "3", "EXISTS", "s1/alive"}) == "1"; }));
}

TEST_F(RedisOrreryTest, AFaultyValueKeepsTheFormerOneAndIsToldInRedis) {
  startServed();
  cookieNeedsStart();
  write("config/port", R"({"mtuBytes": "much", "alias": "up", "cookie": 7})");
  ASSERT_TRUE(runUntil([&] { return port->alias() == "up"; }));
  EXPECT_EQ(port->mtuBytes(), 9000);
  EXPECT_TRUE(untilField(ownStatus, R"("config/port mtuBytes":)"));
  EXPECT_TRUE(untilField(ownStatus, R"("config/port cookie":)"));
  EXPECT_TRUE(part->said("\"mtuBytes\": expected a value of type uint16, found a string"));

  write("config/port", "{broken");
  ASSERT_TRUE(untilSaid("\"config/port\": line 1: expected a JSON object"));
  EXPECT_EQ(port->mtuBytes(), 9000);
  EXPECT_EQ(port->alias(), "up");
  write("config/port", R"({"mtuBytes": 70})");
  EXPECT_TRUE(untilField(ownStatus, R"("refused":{})"));
  EXPECT_EQ(port->mtuBytes(), 70);
  EXPECT_EQ(port->alias(), "");
}

TEST_F(RedisOrreryTest, ManyFaultsAreToldByTheirNumber) {
  startServed();
  write("config/port", R"({"mtuBytes": "much", "alias": "up"})");
  ASSERT_TRUE(runUntil([&] { return port->alias() == "up"; }));
  part->lines.clear();
  server->run({"EVAL",
               "for i = 1, 5000 do redis.call('HSET', KEYS[1], 'bogus/' .. i, '{}') end "
               "redis.call('HSET', KEYS[1], 'config/port', '{\"mtuBytes\": 7, \"alias\": 3}') "
               "redis.call('HSET', KEYS[1], 'ports/p1', '{\"alias\": \"one\", \"loss\": []}')",
               "1", "s1/config"});
  ASSERT_TRUE(runUntil([&] { return at("ports/p1") != nullptr; }));
  EXPECT_EQ(port->mtuBytes(), 7);
  EXPECT_EQ(port->alias(), "up") << "the former value";
  EXPECT_LE(part->lines.size(), 25);
  EXPECT_TRUE(part->said("\"bogus/1\" is no path"));
  EXPECT_TRUE(part->said("s1/config: other settings refused: 4982"));
  EXPECT_EQ(at(ownStatus)->attribute("refused")->entryTexts(100).size(), 21);

  server->run({"DEL", "s1/config"});
  write("config/port", "{}");
  EXPECT_TRUE(untilField(ownStatus, R"("refused":{})"));
}

// The part before the zero byte was taken for the path.
TEST_F(RedisOrreryTest, AFieldWhoseNameIsNoLineIsNoPath) {
  startServed();
  server->run({"EVAL",
               "redis.call('HSET', KEYS[1], 'config/port\\0x', '{\"mtuBytes\": 7}', "
               "'bad\\nline', '{}', string.rep('a', 2000), '{}', "
               "'ports/p1', '{\"bad\\nname\": 1}')",
               "1", "s1/config"});
  ASSERT_TRUE(runUntil([&] { return at("ports/p1") != nullptr; }));
  EXPECT_EQ(port->mtuBytes(), 9000);
  EXPECT_TRUE(part->said("\"config/port x\" is no path: a path is one line"));
  EXPECT_TRUE(part->said("\"bad line\" is no path"));
  EXPECT_TRUE(part->said("is no path: a path is one line of at most 1000 bytes"));
  EXPECT_THAT(part->lines, Each(Not(HasSubstr("\n"))));
}

TEST_F(RedisOrreryTest, AStartWhileItIsAwayTakesTheCopyOfTheLastConfiguration) {
  startServed();
  write("ports/p1", R"({"alias": "\u00fcber", "cookie": "18446744073709551615"})");
  ASSERT_TRUE(runUntil([&] { return at("ports/p1") != nullptr; }));
  const auto isKept = [&] {
    return TestSupport::fileText(folder.file("copy.json")).find("ports/p1") != std::string::npos;
  };
  ASSERT_TRUE(TestSupport::waitUntil(isKept));
  part.reset();
  server->kill();
  port->mtuBytesIs(1500);
  database->entityDel("ports/p1");

  ConfiguredDatabase next;
  const auto later = std::make_unique<Part>(next, address, folder.file("copy.json"));
  later->orrery->load(false, [] { return false; });
  EXPECT_EQ(next.port->mtuBytes(), 9000);
  ASSERT_TRUE(next.at("ports/p1"));
  EXPECT_EQ(next.at("ports/p1")->attribute("alias")->text(), "\u00fcber");
  EXPECT_EQ(next.at("ports/p1")->attribute("cookie")->text(), "18446744073709551615");
  EXPECT_EQ(next.at(ownStatus)->attribute("configuration")->text(), "copy");
  EXPECT_TRUE(later->said("kept in " + folder.file("copy.json")));

  later->orrery->start();
  server->start();
  write("config/port", R"({"mtuBytes": 3})");
  EXPECT_TRUE(next.runUntil([&] { return next.port->mtuBytes() == 3; }));
  EXPECT_FALSE(next.at("ports/p1"));
}

// A typing error did no harm until the agent started again: then the setting was gone, from the
// copy, too.
TEST_F(RedisOrreryTest, AFaultyValueKeepsThatOfTheCopyWithAStart) {
  startServed();
  const auto kept = [&] { return TestSupport::fileText(folder.file("copy.json")); };
  ASSERT_TRUE(TestSupport::waitUntil([&] { return kept().find("9000") != std::string::npos; }));
  part.reset();
  write("config/port", R"({"mtuBytes": "much", "alias": "up"})");
  write("ports/p1", "{");

  ConfiguredDatabase next;
  const auto later = std::make_unique<Part>(next, address, folder.file("copy.json"));
  later->orrery->load(false, [] { return false; });
  later->orrery->start();
  EXPECT_EQ(next.at(ownStatus)->attribute("configuration")->text(), "redis");
  EXPECT_EQ(next.port->mtuBytes(), 9000);
  EXPECT_EQ(next.port->alias(), "up");
  EXPECT_FALSE(next.at("ports/p1")) << "the copy has none";
  EXPECT_TRUE(later->said("\"mtuBytes\": expected a value of type uint16"));
  EXPECT_TRUE(TestSupport::waitUntil([&] {
    return kept().find("up") != std::string::npos && kept().find("9000") != std::string::npos;
  }));
}

TEST_F(RedisOrreryTest, TakesNoCopyOfAnotherPlaceAndNoBrokenOne) {
  address = "unix:" + folder.file("nobody.sock") + "?prefix=s1";
  for (
      const char* text :
      {"", "{", "[]", R"({"configuration": {"config/port": {"mtuBytes": 7}}})",
       R"({"stateDatabase": "redis://h s1/config", "configuration": {"config/port": {"mtuBytes": 7}}})"}) {
    SCOPED_TRACE(text);
    std::ofstream(folder.file("copy.json")) << text;
    start(true);
    EXPECT_EQ(port->mtuBytes(), 1500);
    EXPECT_TRUE(part->said("cannot connect"));
    EXPECT_TRUE(part->said("starts with its configuration file alone"));
    part.reset();
  }
}

TEST_F(RedisOrreryTest, AStartWithoutAnyConfigurationWaitsForItOrForAStop) {
  serve();
  part = madePart();
  int looks = 0;
  part->orrery->load(false, [&] { return ++looks == 5; });
  EXPECT_EQ(own("configuration"), "");
  EXPECT_TRUE(part->said("there is no s1/config; write it with HSET"));
  EXPECT_TRUE(part->said("waits for its configuration"));
  part->orrery->load(false, [&] {
    write("config/port", R"({"mtuBytes": 9000})");
    return false;
  });
  EXPECT_EQ(port->mtuBytes(), 9000);
}

TEST_F(RedisOrreryTest, AServerThatComesBackEmptyChangesNoSetting) {
  startServed();
  ASSERT_TRUE(untilField("status/port", "mtuBytes"));
  server->kill();
  ASSERT_TRUE(untilSaid("the last configuration stands, and status is written later"));
  EXPECT_EQ(own("connected"), "false");
  statusPort->mtuBytesIs(44);
  server->start();
  ASSERT_TRUE(untilSaid("connected again"));
  EXPECT_TRUE(untilField("status/port", R"("mtuBytes":44)"));
  EXPECT_TRUE(untilSaid("there is no s1/config; the last configuration stands"));
  EXPECT_EQ(port->mtuBytes(), 9000);
  EXPECT_THAT(own("trouble"), HasSubstr("there is no s1/config"));
  write("config/port", "{}");
  EXPECT_TRUE(runUntil([&] { return port->mtuBytes() == 1500; }));
  EXPECT_TRUE(untilField(ownStatus, R"("trouble":"")"));
}

TEST_F(RedisOrreryTest, AWrongPasswordIsToldOnceAndNeverShown) {
  const std::string file = folder.file("password");
  std::ofstream(file) << "falsch\n";
  serve({"--user", "default", "off", "--user", "s1", "on", ">richtig", "~s1/*", "+@all"});
  address += "&user=s1&password-file=" + file;
  start(true);
  int turns = 0;
  ASSERT_TRUE(runUntil([&] { return ++turns == 100; }));
  EXPECT_EQ(
      std::ranges::count_if(
          part->lines, [](const auto& l) { return l.find("refuses user and password") != l.npos; }),
      1);
  EXPECT_THAT(own("trouble"), AllOf(HasSubstr("(WRONGPASS)"), HasSubstr("password-file")));
  EXPECT_THAT(part->lines, Each(Not(HasSubstr("falsch"))));
  std::ofstream(file) << "richtig\n";
  EXPECT_TRUE(untilSaid("connected again"));
}

TEST_F(RedisOrreryTest, WhatTheServerSaysAboutAPasswordStaysHidden) {
  serve({"--rename-command", "AUTH", ""});
  address.replace(0, 5, "unix://:geheim@");
  start(true);
  EXPECT_TRUE(part->said("refuses user and password (ERR)"));
  EXPECT_THAT(part->lines, Each(Not(HasSubstr("geheim"))));
  EXPECT_THAT(own("trouble"), Not(HasSubstr("geheim")));
}

TEST_F(RedisOrreryTest, NamesTheRefusalsOfAServer) {
  const struct {
    const char* what;
    std::vector<std::string> cause;
    const char* trouble;
    std::vector<std::string> end;
  } cases[] = {
      {"full", {"CONFIG", "SET", "maxmemory", "1"}, "OOM", {"CONFIG", "SET", "maxmemory", "0"}},
      {"a replica", {"REPLICAOF", "127.0.0.1", "1"}, "it is a replica", {"REPLICAOF", "NO", "ONE"}},
      {"no right to write",
       {"ACL", "SETUSER", "default", "-hset"},
       "ACL SETUSER",
       {"ACL", "SETUSER", "default", "+@all"}},
      {"no right to read",
       {"ACL", "SETUSER", "default", "-hgetall"},
       "ACL SETUSER",
       {"ACL", "SETUSER", "default", "+@all"}},
  };
  startServed();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(untilField("status/port", "mtuBytes"));
    server->run(c.cause);
    statusPort->mtuBytesIs(statusPort->mtuBytes() + 1);
    ASSERT_TRUE(runUntil([&] { return own("trouble").find(c.trouble) != std::string::npos; }));
    EXPECT_EQ(own("connected"), "true");
    server->run(c.end);
    ASSERT_TRUE(runUntil([&] { return own("trouble").empty(); }));
    EXPECT_TRUE(untilField("status/port", fmt::format(R"("mtuBytes":{})", statusPort->mtuBytes())));
  }
}

TEST_F(RedisOrreryTest, AFullServerStillConfigures) {
  startServed();
  ASSERT_TRUE(untilField("status/port", "mtuBytes"));
  write("config/port", R"({"mtuBytes": 5, "alias": "x"})");
  server->run({"CONFIG", "SET", "maxmemory", "1"});
  ASSERT_TRUE(runUntil([&] { return port->mtuBytes() == 5; }));
  server->run({"HDEL", "s1/config", "nothing"});
  ASSERT_TRUE(runUntil([&] { return !own("trouble").empty(); }));
}

TEST_F(RedisOrreryTest, KeysOfAnotherKindOrSizeAreTold) {
  startServed();
  server->run({"SET", "s1/config", "text"});
  ASSERT_TRUE(runUntil([&] { return own("trouble").find("DEL it") != std::string::npos; }));
  server->run({"EVAL",
               "redis.call('DEL', KEYS[1]); "
               "redis.call('HSET', KEYS[1], 'x', string.rep('a', 17000000))",
               "1", "s1/config"});
  ASSERT_TRUE(runUntil([&] { return own("trouble").find("16 MiB") != std::string::npos; }));
  EXPECT_EQ(port->mtuBytes(), 9000);
}

TEST_F(RedisOrreryTest, AStalledServerHoldsNothingUp) {
  startServed();
  server->stall();
  ASSERT_TRUE(untilSaid("does not answer within 0.5 s"));
  int turns = 0;
  EXPECT_TRUE(runUntil([&] { return ++turns == 200; })) << "the loop turns";
  server->goOn();
  ASSERT_TRUE(untilSaid("connected again"));
  write("config/port", R"({"mtuBytes": 8})");
  EXPECT_TRUE(runUntil([&] { return port->mtuBytes() == 8; }));
}

TEST_F(RedisOrreryTest, TwoSwitchesOfOnePrefixAreTold) {
  startServed();
  ConfiguredDatabase other;
  {
    Part second(other, address, folder.file("other.json"));
    second.summary = R"({"state": "the other"})";
    second.orrery->load(false, [] { return false; });
    second.orrery->start();
    const auto isTold = [&] {
      return own("trouble").find("prefix of its own") != std::string::npos;
    };
    const auto bothTurn = [&] {
      other.runUntil([] { return true; });
      return isTold();
    };
    ASSERT_TRUE(runUntil(bothTurn));
  }
  EXPECT_TRUE(runUntil([&] { return own("trouble").empty(); }));
}

TEST_F(RedisOrreryTest, AServerThatComesAndGoesDoesNotFloodTheLog) {
  startServed();
  for (int round = 0; round < 15; ++round) {
    server->kill();
    ASSERT_TRUE(runUntil([&] { return own("connected") == "false"; }));
    server->start();
    ASSERT_TRUE(runUntil([&] { return own("connected") == "true"; }));
  }
  EXPECT_LE(part->lines.size(), 20);
  EXPECT_TRUE(part->said("no more lines about it"));
}

}  // namespace
}  // namespace Orrery
