// The korvel command's words, with the state of an agent made up in the test's own process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <thread>

#include "P4Runtime/agent/CliCommands.h"
#include "P4Runtime/agent/CliSm.h"
#include "platform/brine/Store.h"
#include "platform/lattice/Database.h"
#include "platform/lattice/records/StoreLayout.h"
#include "platform/lattice/types/RowConstructor.h"
#include "platform/orrery/Server.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

static Scrivel::TraceHandle trace("CommandTest");

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using TestSupport::CommandResult;

class Status final : public Vela::Entity {
 public:
  explicit Status(std::string name) : Entity(std::move(name)) {
    operationIs({"revertCriticalState", {}, [this](const auto&) {
                   criticalIs(false);
                   return "writes are allowed again";
                 }});
  }
  const char* typeName() const override { return "Test::Status"; }

  VELA_READONLY_ATTRIBUTE(bool, critical, false)
  VELA_READONLY_ATTRIBUTE(std::string, criticalSince)
  VELA_READONLY_ATTRIBUTE(std::string, criticalReason)
  VELA_READONLY_ATTRIBUTE(std::string, list)
  VELA_ATTRIBUTE(double, batchTimeout, 5)
};

class CommandTest : public testing::Test {
 protected:
  CommandTest() {
    const Vela::ActivityLock lock;
    for (const char* name : {"system", "agent", "failures"}) {
      database->entityIs(std::string("p4runtime/status/") + name, Vela::make<Status>(name));
    }
    const auto requests = Vela::make<P4Runtime::CliConfigDir>("p4runtime/config/cli");
    const auto answers = Vela::make<P4Runtime::CliStatusDir>("p4runtime/status/cli");
    database->entityIs(requests->name(), requests);
    database->entityIs(answers->name(), answers);
    cliSm =
        Vela::make<P4Runtime::CliSm>(loop, requests, answers, P4Runtime::cliCommands(*database));
    server.emplace(loop, *database, directory.file("orrery.sock"));
    thread = std::thread([this] { loop.run(); });
  }
  ~CommandTest() override {
    loop.stop();
    thread.join();
    Scrivel::shutdown();
    const Vela::ActivityLock lock;
    server.reset();
    cliSm = nullptr;
  }

  CommandResult korvel(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TestSupport::binaryPath("korvel"));
    arguments.insert(arguments.end(), {"--state-dir", directory.path()});
    return TestSupport::run(arguments, {"SCRIVEL_DISABLE=1"});
  }
  Vela::Ptr<Status> status(const char* name) {
    return dynamic_cast<Status*>(database->entity(std::string("p4runtime/status/") + name).get());
  }

  TestSupport::TempDir directory;
  Vela::ReactorLoop loop;
  std::unique_ptr<Orrery::Database> database = Orrery::embeddedDatabase(loop);
  std::optional<Orrery::Server> server;
  Vela::Ptr<P4Runtime::CliSm> cliSm;
  std::thread thread;
};

TEST_F(CommandTest, StatusSaysWhatIsWrongAndTheWayOut) {
  EXPECT_THAT(korvel({"status"}).output,
              AllOf(HasSubstr("running, pid " + std::to_string(getpid())),
                    HasSubstr("batch timeout"), Not(HasSubstr("CRITICAL"))));
  {
    const Vela::ActivityLock lock;
    status("system")->criticalIs(true);
    status("system")->criticalSinceIs("2025-03-01T12:00:00Z");
    status("system")->criticalReasonIs("no report of 10.0.0.0/8");
    status("failures")->listIs("ipv4_route 10.1.0.0/16: resource exhausted\nacl 7: internal");
  }
  const std::string text = korvel({"status"}).output;
  EXPECT_THAT(text, HasSubstr("CRITICAL since 2025-03-01T12:00:00Z: writes are refused\n"
                              "  why: no report of 10.0.0.0/8\n"));
  EXPECT_THAT(text, HasSubstr("not programmed\n  ipv4_route 10.1.0.0/16: resource exhausted\n"
                              "  acl 7: internal\n"));
  const std::string way = "korvel call p4runtime/status/agent revertCriticalState";
  EXPECT_THAT(text, HasSubstr(way)) << "the first path that offers it";
  EXPECT_THAT(korvel({"status", "--json"}).output, HasSubstr("\"critical\":\ttrue"));
  EXPECT_EQ(korvel({"call", "p4runtime/status/system", "revertCriticalState"}).output,
            "writes are allowed again\n");
  EXPECT_THAT(korvel({"status"}).output, Not(HasSubstr("CRITICAL")));
}

TEST_F(CommandTest, GetAndSetSpeakInTexts) {
  const std::string path = "p4runtime/status/agent";
  EXPECT_EQ(korvel({"set", path, "batchTimeout", "2.5"}).error, "");
  EXPECT_EQ(korvel({"get", path, "batchTimeout"}).output, "2.5\n");
  EXPECT_THAT(korvel({"get", path, "4", "--json"}).output, HasSubstr("\"value\":\t2.5"));
  EXPECT_THAT(korvel({"get", path}).output, HasSubstr("operation revertCriticalState\n"));
  EXPECT_THAT(korvel({"get"}).output, HasSubstr(path));
  EXPECT_THAT(korvel({"set", path, "batchTimeout", "soon"}).error,
              HasSubstr("takes a number, not 'soon'"));
}

TEST_F(CommandTest, TracesAreShownFilteredAndSteered) {
  unsetenv("SCRIVELDIR");
  unsetenv("SCRIVEL_DISABLE");
  Scrivel::initialize({.filePrefix = "agent-%d", .directory = directory.path()});
  SCRIVEL_TRACE(0, "first ", 1);
  SCRIVEL_TRACE(3, "not on");
  EXPECT_EQ(korvel({"trace", "--set", "Command*/0-3"}).error, "");
  SCRIVEL_TRACE(3, "second ", 2);
  const std::string all = korvel({"trace"}).output;
  EXPECT_THAT(all, AllOf(HasSubstr(" CommandTest 0 first 1\n"),
                         HasSubstr(" CommandTest 3 second 2\n"), Not(HasSubstr("not on"))));
  EXPECT_THAT(korvel({"trace", "--level", "2", "--handle", "CommandTest"}).output,
              AllOf(HasSubstr("first"), Not(HasSubstr("second"))));
  EXPECT_THAT(korvel({"trace", "-n", "1", "--text", "first", "--json"}).output,
              HasSubstr("\"text\":\"first 1\""));
  EXPECT_THAT(korvel({"trace", "--files"}).output, HasSubstr("running\n"));
  EXPECT_THAT(korvel({"trace", "--set", "nonsense"}).error, HasSubstr("HANDLE/LEVELS"));
}

TEST_F(CommandTest, RowsAreReadFromTheStoreOfARunningOrDeadAgent) {
  EXPECT_THAT(korvel({"table", "dump"}).error, HasSubstr("start the agent first"));
  {
    const auto store = Brine::Store::open({.directory = directory.path()});
    const std::string definition =
        "key dst : IpAddr; action { forward 7 { port : U16; } drop 8 { none : Void; } }";
    const Lattice::TableRecord record{1, "routeType", definition};
    store->put(store->table(Lattice::typesTable), Brine::asBytes("route"),
               Brine::asBytes(record.encode()));
    const Lattice::TableRecord broken{2, "brokenType", "key"};
    store->put(store->table(Lattice::typesTable), Brine::asBytes("unreadable"),
               Brine::asBytes(broken.encode()));
    using namespace std::string_literals;
    const std::string value = "\x07\0\0\0\x50\0"s;
    const auto row = [&](const char* table, const char* key, uint64_t handle, bool isEntry) {
      const auto to = store->write(store->table(table), Brine::asBytes(key), value.size(),
                                   {.attachmentSize = isEntry ? 1u : 0u, .owner = handle});
      std::ranges::copy(value, to.value.begin());
    };
    row("row/unreadable", "\x0a\x01\x02\x03", 5, true);
    row("row/route", "\x0a\x01\x02\x04", 6, false);
    row("row/route", "\x0a\x01\x02\x03", 5, true);
    store->commit();
    store->settle();
    row("row/route", "\x0a\x01\x02\x05", 7, true);
    store->commit();
  }
  EXPECT_EQ(korvel({"table", "dump", "route"}).output,
            "route (3 rows)\n"
            "  dst=10.1.2.3 -> action=forward port=0x0050  [handle 5, stable]\n"
            "  dst=10.1.2.4 -> action=forward port=0x0050  [handle 6]\n"
            "  dst=10.1.2.5 -> action=forward port=0x0050  [handle 7, pending to be added]\n");
  EXPECT_THAT(korvel({"table", "dump", "unreadable"}).output,
              HasSubstr("key=0x0a010203 -> value=0x070000005000"));
  EXPECT_THAT(korvel({"table", "dump", "route", "--json"}).output,
              HasSubstr(R"("value":{"action":"forward","port":"0x0050"},"entryHandle":"5")"));
  EXPECT_THAT(korvel({"table", "list"}).output, HasSubstr("routeType"));
  EXPECT_THAT(korvel({"table", "dump", "nowhere"}).error, HasSubstr("no table 'nowhere'"));
}

}  // namespace
