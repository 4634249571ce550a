// Client and server over a real socket, with clients of every manner.
#include "platform/orrery/Server.h"

#include <cjson/cJSON.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <system_error>
#include <thread>

#include "platform/orrery/Client.h"
#include "tests/platform/orrery/Support.h"
#include "tests/support/DescriptorLimit.h"
#include "tests/support/TempDir.h"

namespace Orrery {
namespace {

using ::testing::HasSubstr;

class ServerTest : public testing::Test, public DatabaseFixture {
 protected:
  ServerTest() {
    port = portIs("status/port");
    const Vela::ActivityLock lock;
    server.emplace(loop, *database, directory + "/orrery.sock");
    thread = std::thread([this] { loop.run(); });
  }
  ~ServerTest() override {
    loop.stop();
    thread.join();
    const Vela::ActivityLock lock;
    server.reset();
  }

  int connected(int fd) {
    const Vela::UnixAddress address(server->socketPath());
    EXPECT_EQ(connect(fd, address.get(), Vela::UnixAddress::size()), 0);
    return fd;
  }
  int rawClient() { return connected(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)); }
  bool servedInTheEnd() {
    const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    do {
      if (refusal([](Client& c) { c.get("status/port"); }) == "none") return true;
    } while (std::chrono::steady_clock::now() < patience);
    return false;
  }
  // What comes until the server closes.
  static std::string conversation(int fd, const std::string& said) {
    send(fd, said.data(), said.size(), MSG_NOSIGNAL);
    shutdown(fd, SHUT_WR);
    const timeval patience{.tv_sec = 60};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::string heard;
    char block[4096];
    for (ssize_t got; (got = recv(fd, block, sizeof block, 0)) > 0;) heard.append(block, got);
    close(fd);
    return heard;
  }
  std::string refusal(auto ask) {
    try {
      Client client(directory);
      ask(client);
    } catch (const ClientError& e) {
      return e.what();
    }
    return "none";
  }

  const TestSupport::TempDir folder;
  const std::string& directory = folder.path();
  Vela::Ptr<Port> port;
  std::optional<Server> server;
  std::thread thread;
};

TEST_F(ServerTest, GetsSetsAndCalls) {
  Client client(directory);
  EXPECT_EQ(client.agentPid(), getpid());
  {
    const Vela::ActivityLock lock;
    port->neighbourIs(7, "leaf7");
    port->cookieIs(UINT64_MAX);
  }
  EXPECT_THAT(
      Vela::jsonLine(*client.get("status/port")),
      testing::StrEq(
          R"({"ok":true,"path":"status/port","type":"Test::Port","attributes":{"enabled":false,)"
          R"("mtuBytes":1500,"cookie":"18446744073709551615","loss":0,"alias":"","drops":3,)"
          R"("neighbour":{"7":"leaf7"}},"operations":[{"name":"greet","arguments":["name"]}]})"));
  client.set("status/port", "mtuBytes", "9000");
  EXPECT_THAT(Vela::jsonLine(*client.get("status/port", "mtuBytes")), HasSubstr("\"value\":9000"));
  EXPECT_THAT(Vela::jsonLine(*client.get("status/port", "1")),
              HasSubstr("\"attribute\":\"mtuBytes\""));
  EXPECT_THAT(Vela::jsonLine(*client.call("status/port", "greet", {"ann"})),
              HasSubstr("hello ann"));
  EXPECT_THAT(Vela::jsonLine(*client.get("status")), HasSubstr(R"("children":["port"])"));
  EXPECT_THAT(Vela::jsonLine(*client.list("")),
              HasSubstr(R"([{"path":"status","type":"Orrery::Directory"},)"
                        R"({"path":"status/port","type":"Test::Port"}])"));
  const Vela::ActivityLock lock;
  EXPECT_EQ(port->mtuBytes(), 9000);
}

TEST_F(ServerTest, CreatesAndDeletesWhatADirectoryMakes) {
  const auto ports = Vela::make<Ports>("ports");
  std::string seen;
  Vela::Observation observation;
  {
    const Vela::ActivityLock lock;
    database->entityIs("ports", ports);
    observation = ports->entityCollection().observeKeys([&](const std::string& name) {
      const auto entity = ports->entity(name);
      seen += entity ? "+" + name + dynamic_cast<Port&>(*entity).alias() : "-" + name;
    });
  }
  Client client(directory);
  client.create("ports/p1", {{"alias", "uplink"}, {"mtuBytes", "9000"}});
  client.set("ports/p2", "alias", "core");
  const struct {
    std::function<void(Client&)> ask;
    const char* refusal;
  } cases[] = {
      {[](Client& c) { c.create("ports/p1", {}); }, "is there already"},
      {[](Client& c) { c.create("ports/x", {}); }, "a port's name begins with p"},
      {[](Client& c) { c.set("ports/x", "alias", "y"); }, "a port's name begins with p"},
      {[](Client& c) {
         c.create("ports/p3", {{"colour", "1"}});
       },
       "no attribute colour"},
      {[](Client& c) {
         c.create("ports/p3", {{"mtuBytes", "many"}});
       },
       "takes a uint16"},
      {[](Client& c) { c.set("ports/p3", "drops", "1"); }, "read-only"},
      {[](Client& c) { c.create("status/p1", {}); }, "makes nothing on demand"},
      {[](Client& c) { c.create("ports/p1/p2", {}); }, "makes nothing on demand"},
      {[](Client& c) { c.del("status/port"); }, "cannot be deleted"},
      {[](Client& c) { c.del("ports/p3"); }, "no path 'ports/p3'"},
  };
  for (const auto& c : cases) EXPECT_THAT(refusal(c.ask), HasSubstr(c.refusal));
  client.del("ports/p1");
  const Vela::ActivityLock lock;
  EXPECT_EQ(seen, "+p1uplink+p2core-p1");
}

TEST_F(ServerTest, SettingsAreCheckedBeforehand) {
  {
    const Vela::ActivityLock lock;
    database->settingCheckIs([](const auto& path, const auto& attribute, const auto& text) {
      return path == "status/port" && attribute.name() == std::string("mtuBytes") && text == "9001"
                 ? Vela::Outcome::failure("choose an even one")
                 : Vela::Outcome();
    });
  }
  Client client(directory);
  client.set("status/port", "mtuBytes", "9002");
  EXPECT_EQ(refusal([](Client& c) { c.set("status/port", "mtuBytes", "9001"); }),
            "choose an even one");
  EXPECT_THAT(Vela::jsonLine(*client.get("status/port", "mtuBytes")), HasSubstr("9002"));
}

TEST_F(ServerTest, RefusalsNameTheThingAndAWayOut) {
  EXPECT_THAT(refusal([](Client& c) { c.get("status/none"); }), HasSubstr("no path 'status/none'"));
  EXPECT_THAT(refusal([](Client& c) { c.get("status/port", "mtu"); }),
              HasSubstr("no attribute mtu; it has: enabled, mtuBytes"));
  EXPECT_THAT(refusal([](Client& c) { c.get("status/port", "99"); }),
              HasSubstr("no attribute number 99"));
  EXPECT_THAT(refusal([](Client& c) { c.set("status/port", "mtuBytes", "big"); }),
              HasSubstr("takes a uint16, not 'big'"));
  EXPECT_THAT(refusal([](Client& c) { c.set("status/port", "drops", "1"); }),
              HasSubstr("read-only"));
  EXPECT_THAT(refusal([](Client& c) { c.call("status/port", "explode", {}); }),
              HasSubstr("no operation explode; it has: greet"));
  EXPECT_THAT(refusal([](Client& c) { c.call("status/port", "greet", {}); }),
              HasSubstr("takes 1 arguments (name), not 0"));
  EXPECT_THAT(refusal([](Client& c) { c.call("status/port", "greet", {"nobody"}); }),
              HasSubstr("greet wants a name"));
  EXPECT_THROW(Client(directory + "/elsewhere"), NoAgentError);
}

TEST_F(ServerTest, WatchStreamsChangesAndChildren) {
  Client ports(directory), directories(directory);
  ports.watch("status/port");
  directories.watch("status");
  {
    const Vela::ActivityLock lock;
    port->aliasIs("a \"quoted\"\nname");
    port->enabledIs(true);
    database->entityIs("status/new", Vela::make<Port>("status/new"));
    database->entityDel("status/new");
  }
  EXPECT_EQ(Vela::jsonLine(*ports.next()),
            R"({"path":"status/port","attribute":"alias","value":"a \"quoted\"\nname"})");
  EXPECT_EQ(Vela::jsonLine(*ports.next()),
            R"({"path":"status/port","attribute":"enabled","value":true})");
  EXPECT_EQ(Vela::jsonLine(*directories.next()),
            R"({"path":"status","child":"new","present":true})");
  EXPECT_EQ(Vela::jsonLine(*directories.next()),
            R"({"path":"status","child":"new","present":false})");
}

TEST_F(ServerTest, GarbageIsAnsweredAndTheConnectionClosed) {
  const std::string get = "{\"request\": \"get\", \"path\": \"status/port\"}\n";
  const struct {
    const char* what;
    std::string said;
    const char* heard;
  } cases[] = {
      {"no JSON", "hello\n" + get, "not JSON"},
      {"no object", "[1]\n", "a request is a JSON object"},
      {"no request", "{}\n", "has no \\\"request\\\""},
      {"unknown request", "{\"request\": \"erase\", \"path\": \"x\"}\n", "no request 'erase'"},
      {"no path", "{\"request\": \"get\"}\n", "has no \\\"path\\\""},
      {"path of another kind", "{\"request\": \"get\", \"path\": 5}\n", "has no \\\"path\\\""},
      {"absurd number", "{\"request\":\"get\",\"path\":\"status/port\",\"attribute\":-1e308}\n",
       "no attribute"},
      {"argument of another kind",
       "{\"request\":\"call\",\"path\":\"status/"
       "port\",\"operation\":\"greet\",\"arguments\":[1]}\n",
       "all strings"},
      {"endless line", std::string(200000, 'x'), "longer than"},
      {"deep nesting", std::string(60000, '[') + "\n", "not JSON"},
      {"bytes", std::string("\0\xff\n", 3), "not JSON"},
      {"nothing at all", "", ""},
      {"half a line, then the end", "{\"request\":", ""},
      {"blank lines and a good one", "\n\n" + get, "\"ok\":true"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string heard = conversation(rawClient(), c.said);
    EXPECT_THAT(heard, HasSubstr(c.heard));
    EXPECT_LE(std::count(heard.begin(), heard.end(), '\n'), 1);
  }
}

// A client that asks and watches but never reads must cost the agent neither time nor memory.
TEST_F(ServerTest, AClientThatTakesNothingIsClosed) {
  const int idle = rawClient();
  const std::string watch = "{\"request\": \"watch\", \"path\": \"status/port\"}\n";
  ASSERT_EQ(send(idle, watch.data(), watch.size(), 0), static_cast<ssize_t>(watch.size()));
  Client(directory).get("status/port");  // by now the watch stands, too
  const std::string large(100000, 'n');
  for (int i = 0; i < 100; ++i) {
    const Vela::ActivityLock lock;
    port->aliasIs(large + std::to_string(i));
  }
  EXPECT_THAT(Vela::jsonLine(*Client(directory).get("status/port", "drops")),
              HasSubstr("\"value\":3"));
  char block[65536];
  ssize_t got;
  size_t heard = 0;
  while ((got = recv(idle, block, sizeof block, 0)) > 0) heard += got;
  EXPECT_LT(heard, 100 * large.size()) << "closed before everything was kept for it";
  close(idle);
}

TEST_F(ServerTest, ManyClientsAreTurnedAwayAndLetInAgain) {
  std::vector<std::unique_ptr<Client>> clients;
  for (size_t i = 0; i < Server::maxConnections; ++i) {
    clients.push_back(std::make_unique<Client>(directory));
    clients.back()->get("status/port");
  }
  EXPECT_THAT(conversation(rawClient(), ""), HasSubstr("too many clients"));
  clients.clear();
  EXPECT_TRUE(servedInTheEnd());
}

// Connections that ask for nothing make room, and are closed by and by.
TEST_F(ServerTest, SilentClientsKeepNobodyOut) {
  std::vector<int> silent;
  for (size_t i = 0; i < 2 * Server::maxConnections; ++i) silent.push_back(rawClient());
  EXPECT_EQ(refusal([](Client& c) { c.get("status/port"); }), "none");
  char byte;
  EXPECT_EQ(recv(silent.front(), &byte, 1, 0), 0) << "the longest silent one";
  for (const int fd : silent) close(fd);
  std::optional<Server> impatient;
  {
    const Vela::ActivityLock lock;
    impatient.emplace(loop, *database, directory + "/impatient", std::chrono::milliseconds(1));
  }
  const Vela::UniqueFd late(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const Vela::UnixAddress address(directory + "/impatient");
  ASSERT_EQ(connect(late.get(), address.get(), Vela::UnixAddress::size()), 0);
  EXPECT_EQ(recv(late.get(), &byte, 1, 0), 0);
  const Vela::ActivityLock lock;
  impatient.reset();
}

// Once the process had no descriptor left, nobody was served for the rest of its life.
TEST_F(ServerTest, ServesAgainOnceThereAreDescriptors) {
  Client before(directory);
  before.get("status/port");
  const int late = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  testing::internal::CaptureStderr();
  {
    TestSupport::DescriptorLimit limit(256);
    limit.exhaust();
    connected(late);
    EXPECT_THAT(conversation(late, ""), HasSubstr("no file descriptor is left"));
    before.get("status/port");
  }
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("orrery.sock are turned away, because no file descriptor is left"));
  EXPECT_TRUE(servedInTheEnd());
}

// gRPC's threads change watched attributes. They used to call libuv for the watcher's socket,
// beside the reactor, which ended the agent within thousands of Writes.
TEST_F(ServerTest, WatchersHearOfChangesFromAnyThread) {
  constexpr int threads = 4, changes = 2000;
  std::vector<std::unique_ptr<Client>> watchers;
  for (int i = 0; i < 3; ++i) {
    watchers.push_back(std::make_unique<Client>(directory));
    watchers.back()->watch("status/port");
  }
  std::vector<std::thread> writers;
  for (int t = 0; t < threads; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 1; i <= changes; ++i) {
        const Vela::ActivityLock lock;
        port->cookieIs(t * changes + i);
      }
    });
  }
  for (const auto& watcher : watchers) {
    for (int i = 0; i < threads * changes; ++i) {
      const Vela::Json line = watcher->next();
      ASSERT_TRUE(line) << "closed after " << i << " changes";
    }
  }
  for (auto& writer : writers) writer.join();
}

TEST_F(ServerTest, SocketIsNotTakenFromALivingAgent) {
  const Vela::ActivityLock lock;
  EXPECT_THROW(Server(loop, *database, server->socketPath()), std::system_error);
}

}  // namespace
}  // namespace Orrery
