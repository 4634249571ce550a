// `korvel switch`: what scripts wait for, deaths of its processes and of itself, neighbours, and
// the usual mistakes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fmt/format.h>
#include <net/if.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

#include "tests/e2e/Router.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/PacketEndpoint.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestController.h"

using namespace TestSupport;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

class OwnNetwork final : public testing::Environment {
  void SetUp() override {
    const std::string refusal = enteredNetworkNamespace();
    if (!refusal.empty()) GTEST_SKIP() << refusal;
  }
};
const auto* const network = testing::AddGlobalTestEnvironment(new OwnNetwork);

// Frames that came, for several threads.
class Frames {
 public:
  void add(std::string frame) {
    const std::lock_guard lock(mutex_);
    frames_.push_back(std::move(frame));
  }
  bool has(const std::string& frame) const {
    const std::lock_guard lock(mutex_);
    return std::ranges::count(frames_, frame) > 0;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> frames_;
};

// The router hands ARP to the controller.
std::string arpFrame(char number) {
  return std::string(6, '\xff') + std::string("\x02\0\0\0\x0a\x01\x08\x06", 8) +
         std::string(46, number);
}

class SwitchProcess {
 public:
  explicit SwitchProcess(Words words) : words_(std::move(words)) {
    words_.insert(words_.begin(), {binaryPath("korvel"), "switch"});
    words_.insert(words_.end(), {"--no-p4", "--grpc-server-addr", address()});
  }
  ~SwitchProcess() {
    if (testing::Test::HasFailure()) std::cerr << "---- switch ----\n" << output() << log();
    if (process_ && process_->running()) end();
  }

  void start() {
    for (const char* file : {"out", "log"}) fs::remove(directory_.file(file));
    process_ = std::make_unique<Process>(words_, directory_.file("out"), directory_.file("log"));
  }
  bool waitListening() {
    return waitUntil([&] { return output().find("Server listening on ") != output().npos; },
                     process_->descriptor());
  }
  bool startListening() {
    start();
    return waitListening();
  }
  ExitStatus end() {  // as a user does
    process_->signal(SIGINT);
    return process_->exitStatus().value_or(ExitStatus{});
  }
  Process& process() { return *process_; }
  std::string address() const { return fmt::format("127.0.0.1:{}", port_); }
  std::string cpuDevice() const { return fmt::format("korvel-cpu{}", port_); }
  std::string output() const { return fileText(directory_.file("out")); }
  std::string log() const { return fileText(directory_.file("log")); }
  std::string stateDirectory() const {
    const std::string mark = "State directory ";
    const size_t at = output().find(mark);
    if (at == std::string::npos) return "";
    return output().substr(at + mark.size(), output().find('\n', at) - at - mark.size());
  }
  CommandResult korvel(Words arguments) const {
    arguments.insert(arguments.begin(), binaryPath("korvel"));
    arguments.insert(arguments.end(), {"--state-dir", stateDirectory()});
    return run(arguments);
  }
  // By the name of its program; 0: there is none.
  pid_t child(const std::string& program) const {
    std::istringstream children(
        fileText(fmt::format("/proc/{0}/task/{0}/children", process_->pid())));
    for (pid_t pid = 0; children >> pid;) {
      const std::string name = fileText(fmt::format("/proc/{}/comm", pid));
      if (name == program.substr(0, 15) + "\n") return pid;
    }
    return 0;
  }
  // SIGKILL; then another process has taken its place, and does its work.
  bool killed(const std::string& program, const std::string& name) {
    const std::string words = fmt::format("the {} is back", name);
    const auto times = [&] {
      size_t count = 0;
      const std::string text = log();
      for (size_t at = 0; (at = text.find(words, at)) != text.npos; ++at) ++count;
      return count;
    };
    const size_t before = times();
    kill(child(program), SIGKILL);
    return waitUntil([&] { return times() > before; }, process_->descriptor());
  }

 private:
  const TempDir directory_;
  const uint16_t port_ = freePort();
  Words words_;
  std::unique_ptr<Process> process_;
};

constexpr const char* agentProgram = "korvel";
constexpr const char* forwarderProgram = "korvel-forwarder";

// A controller of a switch whose device id is 0.
class Controller {
 public:
  explicit Controller(const SwitchProcess& tested) : tested_(tested) {}

  bool begin() {
    return waitUntil([&] {
      controller_ = std::make_unique<TestController>(tested_.address(), ++electionId_, 0);
      controller_->onPacketInIs([this](const auto& packet) { handlePacketIn(packet); });
      return controller_->waitConnected(std::chrono::milliseconds(100)) &&
             controller_->becomePrimary();
    });
  }
  grpc::Status push() {
    p4::v1::SetForwardingPipelineConfigRequest request;
    request.mutable_election_id()->set_low(electionId_);
    request.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
    *request.mutable_config()->mutable_p4info() = router_.p4info();
    request.mutable_config()->set_p4_device_config(fileText(KORVEL_ROUTER_PROGRAM));
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + patience);
    p4::v1::SetForwardingPipelineConfigResponse response;
    return controller_->stub().SetForwardingPipelineConfig(&context, request, &response);
  }
  // The router drops packets of ports that are not in its table.
  bool insertPort(uint32_t port) {
    return controller_
        ->write({insertOf(EntryOf(router_, "port")
                              .exact("ingress_port", port)
                              .action("set_vrf", {{"vrf_id", 1}})
                              .entry())})
        .ok();
  }
  bool insert(uint32_t route) {
    return controller_->write({insertOf(Router::route(router_, route, 1))}).ok();
  }
  // The packets that came in at port 0.
  const Frames& packetIns() const { return packetIns_; }
  bool send(uint32_t port, const std::string& frame) {
    return controller_->send(packetOut(port, frame));
  }
  // Once the agent reads again.
  std::vector<p4::v1::TableEntry> routes() {
    const uint32_t table = router_.table(Router::routeTable).preamble().id();
    ReadOutcome read;
    waitUntil([&] { return (read = controller_->readTable(table)).status.ok(); });
    return read.entries;
  }

 private:
  void handlePacketIn(const p4::v1::PacketIn& packet) {
    const bool isOfPort0 =
        packet.metadata_size() == 2 && packet.metadata(0).value() == canonicalBytes(0);
    if (isOfPort0) packetIns_.add(packet.payload());
  }

  const SwitchProcess& tested_;
  Frames packetIns_;
  const TestSupport::Pipeline router_ = Router::pipeline();
  std::unique_ptr<TestController> controller_;
  uint64_t electionId_ = 0;
};

TEST(SwitchCommand, OutlivesTheDeathsOfItsProcesses) {
  const VethPair a("sa", "fa"), b("sb", "fb");
  PacketEndpoint hostA("fa");
  Frames atB;
  const PacketEndpoint hostB("fb", [&](std::span<const uint8_t> frame) {
    atB.add({frame.begin(), frame.end()});
  });
  const TempDir recordings;
  SwitchProcess tested({"-i", "0@sa", "-i", "7@absent", "--cpu-port", "510", "--nanolog", "x",
                        "--pcap", recordings.path()});
  ASSERT_TRUE(tested.startListening());
  EXPECT_THAT(tested.output(),
              AllOf(HasSubstr("Adding interface sa as port 0\n"),
                    HasSubstr("Adding interface absent as port 7\n"),
                    HasSubstr(fmt::format("Server listening on {}\n", tested.address()))));
  EXPECT_THAT(tested.log(), AllOf(HasSubstr("[switch] there is no interface absent yet"),
                                  HasSubstr("[switch] --nanolog is ignored")));
  EXPECT_NE(if_nametoindex(tested.cpuDevice().c_str()), 0u);
  Controller controller(tested);
  ASSERT_TRUE(controller.begin());
  const grpc::Status push = controller.push();
  ASSERT_TRUE(push.ok()) << push.error_message();
  ASSERT_TRUE(controller.insertPort(0));
  ASSERT_TRUE(controller.insert(1));

  ASSERT_EQ(tested.korvel({"port", "map", "3", "sb"}).exit.code, 0);
  ASSERT_EQ(tested.korvel({"port", "unmap", "7"}).exit.code, 0);
  // The switch hears of it a moment later.
  const std::string configuration = tested.stateDirectory() + "/switch-agent.json";
  ASSERT_TRUE(waitUntil([&] {
    const std::string text = fileText(configuration);
    return text.find("sb") != text.npos && text.find("absent") == text.npos;
  }));
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(tested.killed(agentProgram, "agent"));
    EXPECT_THAT(tested.korvel({"port", "list"}).output,
                AllOf(HasSubstr("sa"), HasSubstr("sb"), Not(HasSubstr("absent"))));
    ASSERT_TRUE(controller.begin());
    EXPECT_THAT(controller.routes(), SizeIs(1 + i));
    ASSERT_TRUE(tested.killed(forwarderProgram, "forwarder"));
    EXPECT_TRUE(controller.insert(2 + i));
    // Lost packets are sent again: a program needs a moment to get its ports and its CPU device.
    EXPECT_TRUE(waitUntil([&] {
      hostA.send(arpFrame(1 + i));
      return controller.packetIns().has(arpFrame(1 + i));
    }));
    EXPECT_TRUE(
        waitUntil([&] { return controller.send(3, arpFrame(8 + i)) && atB.has(arpFrame(8 + i)); }));
  }
  for (const char* name : {"sa_in.pcap", "sa_in.pcap.1", "sa_in.pcap.2", "sb_out.pcap"}) {
    EXPECT_TRUE(fs::exists(recordings.file(name))) << name;
  }
  const std::string state = tested.stateDirectory();
  EXPECT_TRUE(fs::exists(state));
  EXPECT_EQ(tested.end(), (ExitStatus{.code = 0}));
  EXPECT_FALSE(fs::exists(state)) << "it has made it itself";
  EXPECT_EQ(if_nametoindex(tested.cpuDevice().c_str()), 0u);
}

TEST(SwitchCommand, GoesOnWithItsTablesAfterItWasKilled) {
  const TempDir directory;
  for (const Words& words : {Words{}, Words{"--state-dir", directory.file("state")}}) {
    SwitchProcess tested(words);
    const auto routesOfNext = [&] {
      EXPECT_TRUE(tested.startListening());
      Controller controller(tested);
      EXPECT_TRUE(controller.begin());
      return controller.routes();
    };
    ASSERT_TRUE(tested.startListening());
    {
      Controller controller(tested);
      ASSERT_TRUE(controller.begin());
      ASSERT_TRUE(controller.push().ok());
      ASSERT_TRUE(controller.insert(1));
    }
    tested.process().kill();
    EXPECT_THAT(routesOfNext(), SizeIs(1));
    EXPECT_THAT(tested.log(), HasSubstr("goes on with the tables of the former switch"));
    tested.process().signal(SIGTERM);
    EXPECT_EQ(tested.process().exitStatus(), (ExitStatus{.code = 0}));
    const bool isNamed = !words.empty();
    EXPECT_EQ(fs::exists(tested.stateDirectory()), isNamed);
    if (isNamed) {
      EXPECT_THAT(routesOfNext(), SizeIs(1));
    }
  }
  SwitchProcess fresh({"--state-dir", directory.file("state"), "--fresh"});
  ASSERT_TRUE(fresh.startListening());
  EXPECT_THAT(fresh.korvel({"status"}).output, HasSubstr("NONE YET"));
}

TEST(SwitchCommand, HasNeighboursInItsNetworkNamespace) {
  const VethPair a("sa", "fa"), b("sb", "fb");
  SwitchProcess left({"-i", "1@sa", "--cpu-port", "255"});
  SwitchProcess right({"-i", "1@sb", "--cpu-port", "255"});
  ASSERT_TRUE(left.startListening());
  ASSERT_TRUE(right.startListening());
  EXPECT_NE(left.stateDirectory(), right.stateDirectory());
  EXPECT_THAT(left.korvel({"status"}).output, HasSubstr(left.cpuDevice() + ": open"));
  EXPECT_EQ(left.end(), (ExitStatus{.code = 0}));
  EXPECT_THAT(right.korvel({"status"}).output, HasSubstr(right.cpuDevice() + ": open"));
  Controller controller(right);
  ASSERT_TRUE(controller.begin());
  EXPECT_TRUE(controller.push().ok());
}

TEST(SwitchCommand, SaysWhatAMistakeIs) {
  const VethPair a("sa", "fa");
  const TempDir directory;
  SwitchProcess running({});
  ASSERT_TRUE(running.startListening());
  const std::string free = fmt::format("127.0.0.1:{}", freePort());
  std::ofstream(directory.file("text")) << "not\nJSON";
  std::ofstream(directory.file("list")) << "[]";
  std::ofstream(directory.file("broken")) << "#!/bin/sh\necho 'no such thing' >&2; exit 3\n";
  fs::permissions(directory.file("broken"), fs::perms::owner_all);
  const struct {
    const char* what;
    Words words;
    int status;
    const char* message;
  } cases[] = {
      {"no program", {}, 2, "--no-p4 to begin without one; see 'korvel switch --help'"},
      {"an option that is none", {"--no-p4", "--colour"}, 2, "--colour"},
      {"the beginning of two", {"--no-p4", "--log"}, 2, "see 'korvel switch --help'"},
      {"a program that is missing", {"none.json"}, 2, "cannot read the program none.json"},
      {"no JSON", {directory.file("text")}, 2, "line 1 is no compiled program"},
      {"JSON of something else", {directory.file("list")}, 2, "is no compiled program"},
      {"a port in use",
       {"--no-p4", "--device-id", "9", "--grpc-server-addr", running.address()},
       1,
       "the port is in use"},
      {"another machine's address",
       {"--no-p4", "--insecure", "--grpc-server-addr", "192.0.2.1:9559"},
       1,
       "choose another --grpc-server-addr"},
      {"another switch's directory",
       {"--no-p4", "--grpc-server-addr", free, "--state-dir", running.stateDirectory()},
       1,
       "another switch, pid "},
      {"a foreign directory",
       {"--no-p4", "--grpc-server-addr", free, "--fresh", "--state-dir", directory.path()},
       1,
       "that no switch has made"},
      {"a forwarder that is missing",
       {"--no-p4", "--grpc-server-addr", free, "--forwarder", "/none"},
       1,
       "cannot run /none: No such file or directory"},
      {"a forwarder that cannot start",
       {"--no-p4", "--grpc-server-addr", free, "--forwarder", directory.file("broken")},
       1,
       "the forwarder ended with status 3 when it was to start: no such thing"},
      {"a log file in no directory",
       {"--no-p4", "--log-file", directory.file("none/log")},
       1,
       "cannot write the log file"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Words words{binaryPath("korvel"), "switch"};
    words.insert(words.end(), c.words.begin(), c.words.end());
    const CommandResult result = run(words);
    EXPECT_EQ(result.exit, (ExitStatus{.code = c.status}));
    EXPECT_THAT(result.error, HasSubstr(c.message));
  }
  const CommandResult withoutRights =
      run({"setpriv", "--bounding-set=-net_raw", "--inh-caps=-net_raw", binaryPath("korvel"),
           "switch", "--no-p4", "-i", "1@sa", "--grpc-server-addr", free});
  EXPECT_EQ(withoutRights.exit, (ExitStatus{.code = 1}));
  EXPECT_THAT(withoutRights.error, HasSubstr("start it with sudo"));
}

// The log goes where it is told, and each start adds to it.
TEST(SwitchCommand, WritesOneLog) {
  const TempDir directory;
  SwitchProcess toFile({"--log-file", directory.file("log")});
  SwitchProcess toConsole({"--log-console"});
  for (SwitchProcess* one : {&toFile, &toConsole}) {
    ASSERT_TRUE(one->startListening());
    EXPECT_EQ(one->end(), (ExitStatus{.code = 0}));
    EXPECT_THAT(one->log(), IsEmpty());
  }
  for (const std::string& log : {fileText(directory.file("log")), toConsole.output()}) {
    EXPECT_THAT(log, AllOf(HasSubstr("] [agent] "), HasSubstr("] [forwarder] ")));
  }
}

}  // namespace
