// Starting, moving and refusing to start, as an operator meets it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>

#include "p4/tmp/p4config.pb.h"
#include "tests/e2e/Load.h"

using namespace TestSupport;
using testing::HasSubstr;

namespace {

TEST(ServerPort, MovesWhileWritesAreInFlightAndEntriesStay) {
  Switch tested;
  ASSERT_TRUE(tested.start());
  Load load(tested, 7);
  for (int move = 0; move < 3; ++move) {
    SCOPED_TRACE(testing::Message() << "move " << move);
    const uint64_t acknowledged = load.acknowledged();
    load.start();
    waitUntil([&] { return load.acknowledged() > acknowledged + 3 || !load.writing(); });
    const uint16_t port = freePort();
    const CommandResult set = tested.agent.korvel(
        {"set", "p4runtime/config/system", "grpcServerPort", std::to_string(port)});
    ASSERT_EQ(set.exit.code, 0) << set.error;
    ASSERT_TRUE(waitUntil([&] { return !load.writing(); }));  // its server has gone
    load.stop();
    tested.agent.portIs(port);
    ASSERT_TRUE(tested.agent.waitServing());
    ASSERT_TRUE(tested.connectController());
    EXPECT_EQ(load.broken(), "");
    EXPECT_EQ(tested.disagreement(), "");
  }
}

size_t lineCount(const std::string& text) {
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The C library reads the setting before main(): the program starts once more, as the same process.
TEST(AgentStart, AsksForLargePagesUnderItsOwnName) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer brings its own allocator";
#endif
  Switch tested;
  ASSERT_TRUE(tested.start());
  const std::string process = "/proc/" + std::to_string(tested.agent.pid());
  EXPECT_THAT(contentOf(process + "/environ"), HasSubstr("glibc.malloc.hugetlb=1"));
  EXPECT_EQ(contentOf(process + "/comm"), "korvel\n");
}

TEST(AgentStart, RefusesToServeWhereNobodyWouldFindIt) {
  const TempDir directory;
  AgentProcess agent({.stateDirectory = directory.file("state"),
                      .configuration = R"({"p4runtime/config/system": {"grpcServerPort": 0}})"});
  agent.start();
  EXPECT_EQ(agent.process().exitStatus(), (ExitStatus{.code = 1})) << agent.output();
  EXPECT_THAT(agent.output(), HasSubstr("grpcServerPort is 0; choose a port"));
}

TEST(AgentStart, NeverServesWithoutThePolicyThatIsConfigured) {
  for (const char* policy : {"", R"({"name": "p", "allow_rule": []})"}) {
    const TempDir directory;
    const std::string file = directory.file("policy.json");
    if (*policy != '\0') std::ofstream(file) << policy;
    AgentProcess agent({.stateDirectory = directory.file("state"),
                        .configuration = R"({"p4runtime/config/security": {"policy": ")" + file +
                                         R"("}, "p4runtime/config/system": {"grpcServerPort": )" +
                                         std::to_string(freePort()) + "}}"});
    agent.start();
    EXPECT_EQ(agent.process().exitStatus(), (ExitStatus{.code = 1})) << agent.output();
    EXPECT_THAT(agent.output(), HasSubstr("the policy cannot be put in force: " + file));
  }
}

TEST(AgentStart, RefusesABadConfigurationInOneLine) {
  const struct {
    const char* what;
    std::string configuration;
    const char* named;  // which the line must name
  } cases[] = {
      {"no JSON", "{\"p4runtime", "config.json"},
      {"unknown path", R"({"p4runtime/config/sytem": {"deviceId": 1}})", "p4runtime/config/sytem"},
      {"wrong type", R"({"p4runtime/config/system": {"deviceId": "one"}})", "deviceId"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const TempDir directory;
    AgentProcess agent(
        {.stateDirectory = directory.file("state"), .configuration = c.configuration});
    agent.start();
    EXPECT_EQ(agent.process().exitStatus(), (ExitStatus{.code = 2})) << agent.output();
    EXPECT_EQ(lineCount(agent.output()), 1u) << agent.output();
    EXPECT_THAT(agent.output(), HasSubstr(c.named));
  }
}

// A pipeline file whose device configuration is `deviceData`.
void writePipeline(const std::string& path, const std::string& deviceData, uint64_t deviceId = 1) {
  Pipeline pipeline = Router::pipeline();
  p4::tmp::P4DeviceConfig device;
  device.set_device_data(deviceData);
  pipeline.request().set_device_id(deviceId);
  pipeline.request().mutable_config()->set_p4_device_config(device.SerializeAsString());
  pipeline.written(path);
}

// The agent stays up without a pipeline, says why, and takes a good file when it is given one.
TEST(AgentStart, SurvivesABrokenPipelineFileAndTakesTheNext) {
  const auto truncated = [](const std::string& path) {
    Router::pipeline().written(path);
    std::filesystem::resize_file(path, std::filesystem::file_size(path) - 7);
  };
  const struct {
    const char* what;
    std::function<void(const std::string& path)> write;
    const char* said;
  } cases[] = {
      {"missing", [](const std::string&) {}, "Failed to open file "},
      {"truncated", truncated, "Failed to read pipeline configuration file "},
      {"other device", [](const auto& path) { writePipeline(path, "{}", 7); },
       "Device id in the pipeline configuration 7 does not match the configured device id 1"},
      {"no root", [](const auto& path) { writePipeline(path, "{\"other\": {}}"); },
       "Cannot find root token"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const TempDir directory;
    AgentProcess agent({.stateDirectory = directory.file("state"),
                        .pipelineFile = directory.file("broken.pb.bin")});
    c.write(agent.options().pipelineFile);
    agent.start();
    EXPECT_TRUE(waitUntil([&] { return agent.output().find(c.said) != std::string::npos; },
                          agent.process().descriptor()))
        << agent.output();
    TestController controller(agent.address(), 1);
    EXPECT_TRUE(waitUntil(
        [&] {
          return controller.waitConnected(std::chrono::milliseconds(100)) &&
                 controller.readTable(0).status.error_code() == grpc::FAILED_PRECONDITION;
        },
        agent.process().descriptor()));
    const CommandResult set =
        agent.korvel({"set", "p4runtime/config/system", "forwardingPipelineConfigFilePath",
                      KORVEL_ROUTER_PIPELINE});
    EXPECT_EQ(set.exit.code, 0) << set.error;
    EXPECT_TRUE(agent.waitServing()) << agent.output();
  }
}

TEST(StateDirectory, WhenFullRefusesWritesAndLosesNothing) {
  Switch tested({.routeTableSize = 1000000});
  const std::string state = tested.agent.options().stateDirectory;
  std::filesystem::create_directories(state);
  if (mount("tmpfs", state.c_str(), "tmpfs", 0, "size=14m,mode=0700") != 0) {
    GTEST_SKIP() << "only root can mount a small tmpfs";
  }
  struct Unmount {
    const std::string path;
    ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
  } unmount{state};
  ASSERT_TRUE(tested.start());
  // Of the last batch those updates succeed that find room.
  uint32_t written = 0;
  WriteOutcome outcome;
  while (outcome.ok()) {
    outcome = tested.insertRoutes(written, written + 1000, 1);
    for (size_t i = 0; i < 1000 && outcome.code(i) == grpc::OK; ++i) ++written;
  }
  ASSERT_GT(written, 1000u);
  EXPECT_EQ(outcome.code(999), grpc::RESOURCE_EXHAUSTED) << testing::PrintToString(outcome);
  EXPECT_FALSE(tested.insertRoutes(written, written + 20, 1).ok());
  EXPECT_EQ(tested.routes().entries.size(), written);
  EXPECT_EQ(tested.disagreement(), "");
  // A set takes several rows.
  std::vector<p4::v1::Update> sets;
  for (uint32_t i = 0; i < 100; ++i)
    sets.push_back(insertOf(Router::lag(tested.pipeline(), i, i, 8)));
  const WriteOutcome full = tested.write(sets);
  EXPECT_EQ(full.code(99), grpc::RESOURCE_EXHAUSTED) << testing::PrintToString(full);
  EXPECT_EQ(tested.disagreement(), "");
  // The hardware fails on top of that: there is room to put everything back.
  const auto deleted = [&](uint32_t from, uint32_t to) {
    std::vector<p4::v1::Update> updates;
    for (uint32_t i = from; i < to; ++i) updates.push_back(deleteOf(tested.route(i, 1)));
    return tested.write(updates);
  };
  ASSERT_EQ(tested.forwarder.ctl({"fail-table", "ipv4_route"}).exit.code, 0);
  for (uint32_t i = 0; i < 200; i += 20) {
    EXPECT_FALSE(deleted(i, i + 20).ok());
    const p4::v1::TableEntry changed = tested.route(i, 2);
    EXPECT_FALSE(tested.write({modifyOf(changed)}).ok());
  }
  ASSERT_EQ(tested.forwarder.ctl({"clear"}).exit.code, 0);
  EXPECT_EQ(tested.routes().entries.size(), written);
  EXPECT_EQ(tested.disagreement(), "");
  ASSERT_TRUE(tested.restartAgent()) << tested.agent.output();
  EXPECT_EQ(tested.routes().entries.size(), written);
  EXPECT_EQ(tested.disagreement(), "");
  // Deletions find room, and make more.
  for (uint32_t i = 0; i < 10000; i += 20) {
    outcome = deleted(i, i + 20);
    EXPECT_TRUE(outcome.ok()) << testing::PrintToString(outcome);
  }
  for (uint32_t i = 0; i < 100; i += 20) {
    outcome = tested.insertRoutes(i, i + 20, 3);
    EXPECT_TRUE(outcome.ok()) << testing::PrintToString(outcome);
  }
  EXPECT_EQ(tested.routes().entries.size(), written - 9900);
  EXPECT_EQ(tested.disagreement(), "");
}

// Sends `bytes` to a Unix socket of the agent's, as a stream or as packets, and goes away.
void sendGarbage(const std::string& path, const std::string& bytes) {
  for (const int type : {SOCK_STREAM, SOCK_SEQPACKET, SOCK_DGRAM}) {
    const int descriptor = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    close(descriptor);
  }
}

TEST(Garbage, OnTheLocalSocketsHarmsNobody) {
  Switch tested;
  ASSERT_TRUE(tested.start());
  ASSERT_TRUE(tested.insertRoutes(0, 50, 1).ok());
  std::mt19937 random(1);
  for (int i = 0; i < 200; ++i) {
    std::string bytes(random() % 2000, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    if (i % 4 == 0) bytes = "{\"op\": \"set\", \"path\": " + bytes;
    if (i % 4 == 1) bytes.assign(bytes.size(), '[');  // deep nesting
    sendGarbage(tested.agent.options().stateDirectory + "/doorbell.sock", bytes + "\n");
    sendGarbage(tested.agent.options().stateDirectory + "/orrery.sock", bytes + "\n");
  }
  ASSERT_TRUE(tested.agent.process().running()) << tested.agent.output();
  EXPECT_TRUE(tested.insertRoutes(50, 100, 1).ok());
  EXPECT_EQ(tested.disagreement(), "");
}

}  // namespace
