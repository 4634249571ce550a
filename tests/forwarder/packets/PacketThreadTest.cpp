// Frames in, the program, frames out: on real devices.
#include "forwarder/packets/PacketThread.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

#include "forwarder/base/Answer.h"
#include "forwarder/packets/PacketCommand.h"
#include "platform/wirra/devices/InterfaceOperations.h"
#include "platform/wirra/packets/ShortFrame.h"
#include "tests/forwarder/packets/SwitchFixture.h"
#include "tests/support/TempDir.h"

namespace Forwarder {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;
using TestSupport::VethPair;
using TestSupport::waitUntil;

// Two hosts at ports 1 and 2.
class PacketThreadTest : public SwitchTest {
 protected:
  void SetUp() override {
    SwitchTest::SetUp();
    if (IsSkipped()) return;
    start({.cpuPort = cpuPort});
  }
  void connect(unsigned mtuBytes = 1500) {
    one_.emplace("s1", "h1", mtuBytes);
    two_.emplace("s2", "h2", mtuBytes);
    portsAre({{1, "s1"}, {2, "s2"}});
    left_.emplace("h1");
    right_.emplace("h2");
  }
  std::string words(const Answer& answer) const { return answer.text; }

  std::optional<VethPair> one_, two_;
  std::optional<Host> left_, right_;
};

std::string tagged(std::string frame) { return frame.insert(12, "\x81\x00\x20\x07", 4); }

TEST_F(PacketThreadTest, FramesOfAllSizesArriveAsTheyWereSent) {
  connect(9000);
  push();
  std::vector<std::string> sent;
  uint64_t bytes = 0;
  for (const size_t size : {16u, 60u, 64u, 512u, 1514u, 1900u, 2100u, 9014u}) {
    sent.push_back(frameTo(2, size));
    sent.push_back(tagged(frameTo(2, size)));
    bytes += 2 * size + 4;
  }
  for (const std::string& frame : sent) ASSERT_TRUE(left_->send(frame)) << frame.size();
  ASSERT_TRUE(waitUntil([&] { return right_->count() == sent.size(); })) << right_->count();
  EXPECT_EQ(right_->frames(), sent);
  ASSERT_TRUE(waitUntil([&] { return report(2).counts.sent == sent.size(); }));
  EXPECT_EQ(report(1).counts.received, sent.size());
  EXPECT_EQ(report(1).counts.receivedBytes, bytes);
  EXPECT_EQ(report(2).counts.sentBytes, bytes);
  EXPECT_EQ(report(2).counts.received, 0);  // what we send does not come back
  EXPECT_EQ(left_->count(), 0);
}

// A device that was opened for ordinary frames takes longer ones another way, in their order.
TEST_F(PacketThreadTest, LongerFramesThanExpectedComeInOrder) {
  connect(1500);
  push();
  for (const char* device : {"s1", "h1", "s2", "h2"}) {
    TestSupport::ip(std::string("link set mtu 9000 dev ") + device);
  }
  std::vector<std::string> sent;
  for (uint8_t i = 0; i < 100; ++i) sent.push_back(frameTo(2, i % 3 ? 100 : 5000, i));
  for (const std::string& frame : sent) ASSERT_TRUE(left_->send(frame));
  ASSERT_TRUE(waitUntil([&] { return right_->count() == sent.size(); })) << right_->count();
  EXPECT_EQ(right_->frames(), sent);
}

TEST_F(PacketThreadTest, FramesThatCannotGoOnAreCountedByReason) {
  connect(1500);
  left_->send(frameTo(2));
  ASSERT_TRUE(waitUntil([&] { return report(1).counts.of(PacketDrop::noProgram) == 1; }));
  push();
  TestSupport::ip("link set mtu 600 dev s2");
  left_->send(frameTo(2, 1000));
  ASSERT_TRUE(waitUntil([&] { return report(2).counts.of(PacketDrop::tooLong) == 1; }));
  left_->send(frameTo(77));
  ASSERT_TRUE(waitUntil([&] { return packets_->toNoPort() == 1; }));
  left_->send(frameTo(511));  // the drop port
  ASSERT_TRUE(waitUntil([&] { return packets_->switchCounts().dropped[0] == 1; }));
  TestSupport::deviceUpIs("s2", false);
  ASSERT_TRUE(waitUntil([&] { return !report(2).up; }));
  left_->send(frameTo(2));
  ASSERT_TRUE(waitUntil([&] { return report(2).counts.of(PacketDrop::deviceDown) == 1; }));
  const std::string text = words(runPortsCommand(*packets_, ""));
  EXPECT_THAT(text, HasSubstr("port 1 on s1 up received 5 bytes 1240 sent 0 bytes 0 no-program 1"));
  EXPECT_THAT(text, HasSubstr("port 2 on s2 down received 0 bytes 0 sent 0 bytes 0 device-down 1 "
                              "too-long 1"));
  EXPECT_THAT(text, HasSubstr("to-no-port 1\ndropped"));
}

TEST_F(PacketThreadTest, DevicesGoDownAndAwayAndComeBack) {
  connect();
  push();
  const auto toldUp = [&](bool up) {
    return waitUntil([&] { return !states(2).empty() && states(2).back() == up; });
  };
  ASSERT_TRUE(toldUp(true));
  TestSupport::deviceUpIs("s2", false);
  ASSERT_TRUE(toldUp(false));
  TestSupport::deviceUpIs("s2", true);
  ASSERT_TRUE(toldUp(true));
  left_->send(frameTo(2));
  ASSERT_TRUE(waitUntil([&] { return right_->count() == 1; }));

  // The link's other end counts, too.
  TestSupport::deviceUpIs("h2", false);
  ASSERT_TRUE(toldUp(false));
  TestSupport::deviceUpIs("h2", true);
  ASSERT_TRUE(toldUp(true));

  right_.reset();
  TestSupport::ip("link del s2");
  ASSERT_TRUE(waitUntil([&] { return report(2).trouble == "there is no device s2"; }));
  ASSERT_TRUE(toldUp(false));
  two_.reset();
  two_.emplace("s2", "h2", 1500);
  ASSERT_TRUE(toldUp(true));
  right_.emplace("h2");
  left_->send(frameTo(2));
  ASSERT_TRUE(waitUntil([&] { return right_->count() == 1; }));
  right_->send(frameTo(1));
  ASSERT_TRUE(waitUntil([&] { return left_->count() == 1; }));
  packets_->portsAre({{1, "s1"}});
  ASSERT_TRUE(toldUp(false));
  const std::vector<bool> told = states(2);
  EXPECT_EQ(std::ranges::adjacent_find(told), told.end());  // each change once
  EXPECT_THAT(log(), HasSubstr("port 2 on s2 is down: there is no device s2"));
}

// Sends until it ends.
class Traffic {
 public:
  Traffic(Host& host, std::string frame)
      : thread_([this, &host, frame = std::move(frame)] {
          while (!stop_) {
            host.send(frame);
            std::this_thread::yield();
          }
        }) {}
  ~Traffic() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

TEST_F(PacketThreadTest, PortsProgramsAndTracesChangeUnderTraffic) {
  connect();
  push();
  const VethPair three("s3", "h3");
  Host third("h3");
  const Traffic one(*left_, frameTo(2));
  const Traffic another(third, frameTo(1));
  for (int i = 0; i < 30; ++i) {
    packets_->portsAre({{1, "s1"}, {2, "s2"}});
    packets_->portsAre({{1, "s1"}, {2, "s2"}, {3, "s3"}});
    const size_t before = left_->count();
    ASSERT_TRUE(waitUntil([&] { return left_->count() > before; })) << log();
    if (i % 3 == 0) push();
    if (i % 3 == 1) packets_->traceIs(i % 2);
    slot_.freeFormer();
    left_->clear();
    right_->clear();
  }
  const size_t before = right_->count();
  EXPECT_TRUE(waitUntil([&] { return right_->count() > before; }));
  slot_.engineIs(nullptr);
  ASSERT_TRUE(waitUntil([&] { return report(1).counts.of(PacketDrop::noProgram) > 0; }));
}

TEST_F(PacketThreadTest, TheCpuPortIsTheOtherEndOfAVeth) {
  packets_.reset();
  start({.cpuPort = cpuPort, .cpuDevice = "cpu"});
  connect();
  push();
  const VethPair pair("cpu", "controller");
  Host controller("controller");
  ASSERT_TRUE(waitUntil([&] { return report(cpuPort).up; }));
  left_->send(frameTo(cpuPort));
  ASSERT_TRUE(waitUntil([&] { return controller.count() == 1; }));
  controller.send(frameTo(2, 100));
  ASSERT_TRUE(waitUntil([&] { return right_->count() == 1; }));
  EXPECT_THAT(controller.frames(), ElementsAre(frameTo(cpuPort)));
  EXPECT_THAT(right_->frames(), ElementsAre(frameTo(2, 100)));
  EXPECT_TRUE(states(cpuPort).empty());
}

// No device takes frames shorter than an Ethernet header, so they have a mark in front.
TEST_F(PacketThreadTest, FramesOfAnyLengthCrossTheCpuDevice) {
  packets_.reset();
  start({.cpuPort = cpuPort, .cpuDevice = "cpu"});
  P4Test::SmallProgram program;
  program.state("start", "[]");
  program.ingressAction(
      P4Test::assign(P4Test::metadata("egress_spec"), P4Test::object("hexstr", "0x1fe")));
  slot_.engineIs(std::make_shared<P4::Engine>(program.json()));
  const VethPair pair("cpu", "controller");
  Host controller("controller");
  ASSERT_TRUE(waitUntil([&] { return report(cpuPort).up; }));
  const std::string mark(Wirra::shortFrameMark.begin(), Wirra::shortFrameMark.end());
  const std::vector<std::string> frames = {mark + "abcd", mark + std::string(13, 'x'),
                                           mark + mark + "that begins like a marked one",
                                           frameTo(1)};
  for (const std::string& frame : frames) ASSERT_TRUE(controller.send(frame));
  ASSERT_TRUE(waitUntil([&] { return controller.count() == frames.size(); })) << log();
  EXPECT_EQ(controller.frames(), frames) << "sent back by a program that sees no mark";
  EXPECT_EQ(report(cpuPort).counts.receivedBytes, 4 + 13 + mark.size() + 29 + 60);
}

TEST_F(PacketThreadTest, TheCpuPortIsTheAgentsTap) {
  if (access("/dev/net/tun", R_OK | W_OK) != 0) GTEST_SKIP() << "no /dev/net/tun";
  connect();
  push();
  for (int life = 0; life < 2; ++life) {
    const Wirra::TapDevice agent("p4controller");
    ASSERT_EQ(Wirra::InterfaceOperations().up("p4controller", "", true).reason(), "");
    Host controller("p4controller");
    right_->clear();
    ASSERT_TRUE(waitUntil([&] { return report(cpuPort).trouble.empty(); })) << log();
    ASSERT_TRUE(controller.send(frameTo(2, 99)));
    ASSERT_TRUE(waitUntil([&] { return right_->count() == 1; })) << log();
    right_->clear();
    left_->send(frameTo(cpuPort));
    ASSERT_TRUE(waitUntil([&] { return controller.count() == 1; })) << log();
    EXPECT_THAT(controller.frames(), ElementsAre(frameTo(cpuPort)));
    // More than the TAP's queue holds: nobody but us empties it.
    for (size_t i = 1; i <= 3000; ++i) {
      ASSERT_TRUE(controller.send(frameTo(2, 100)));
      ASSERT_TRUE(waitUntil([&] { return i < right_->count() + 100; }));
    }
    ASSERT_TRUE(waitUntil([&] { return right_->count() == 3000; })) << right_->count();
    EXPECT_EQ(right_->frames().back(), frameTo(2, 100));
  }
}

uint32_t word(const std::string& bytes, size_t at) {
  uint32_t value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

// The frames of a pcap file.
std::vector<std::string> framesOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(file), {});
  std::vector<std::string> frames;
  EXPECT_GE(bytes.size(), 24);
  EXPECT_EQ(word(bytes, 0), 0xa1b2c3d4);
  EXPECT_EQ(word(bytes, 20), 1);
  for (size_t at = 24; at + 16 <= bytes.size(); at += 16 + word(bytes, at + 8)) {
    EXPECT_EQ(word(bytes, at + 8), word(bytes, at + 12));
    EXPECT_LT(word(bytes, at + 4), 1000000);
    frames.push_back(bytes.substr(at + 16, word(bytes, at + 8)));
  }
  return frames;
}

TEST_F(PacketThreadTest, PcapFilesHoldTheFramesOfAPort) {
  const TestSupport::TempDir directory;
  connect();
  push();
  const std::string both = directory.file("both.pcap");
  const std::string out = directory.file("out.pcap");
  runPcapCommand(*packets_, "1 " + both);
  runPcapCommand(*packets_, "2 " + out + " out");
  ASSERT_TRUE(waitUntil([&] { return report(2).pcap == out && report(1).pcap == both; }));
  left_->send(tagged(frameTo(2, 60)));
  ASSERT_TRUE(waitUntil([&] { return right_->count() == 1; }));
  right_->send(frameTo(1, 1514));
  ASSERT_TRUE(waitUntil([&] { return left_->count() == 1; }));
  const std::string there = tagged(frameTo(2, 60));
  ASSERT_TRUE(waitUntil([&] { return framesOf(both).size() == 2; }));
  EXPECT_THAT(framesOf(both), ElementsAre(there, frameTo(1, 1514)));
  EXPECT_THAT(framesOf(out), ElementsAre(there));
  runPcapCommand(*packets_, "1 off");
  ASSERT_TRUE(waitUntil([&] { return report(1).pcap.empty(); }));

  const struct {
    std::string words, says;
  } refusals[] = {
      {"1 " + directory.file("no/such/folder"), "No such file or directory"},
      {"1 here.pcap", "give the file's path from /"},
      {"1 /dev/null", "/dev/null is no ordinary file"},
      {"9 " + both, "there is no port 9"},
      {"x " + both, "a port is a number"},
      {"1", "which port, and which file?"},
      {"1 " + both + " sideways", "'sideways' is too much"},
  };
  for (const auto& c : refusals) {
    EXPECT_THAT([&] { runPcapCommand(*packets_, c.words); },
                ThrowsMessage<CommandError>(HasSubstr(c.says)));
  }
}

TEST_F(PacketThreadTest, TracesTellThePacketsWay) {
  connect();
  push();
  const Answer answer = runTraceCommand(*packets_, "2 1 for 600");
  right_->send(frameTo(1));  // of another port
  ASSERT_TRUE(waitUntil([&] { return left_->count() == 1; }));
  left_->send(frameTo(2, 60));
  left_->send(frameTo(77, 61));
  std::optional<Answer> text;
  ASSERT_TRUE(waitUntil([&] { return (text = answer.later()).has_value(); }));
  EXPECT_EQ(text->text,
            "packet 1: port 1, 60 bytes\n"
            "  parser state start\n"
            "  ingress 1\n"
            "  table tbl_in: action in()\n"
            "  egress 2\n"
            "  sent to port 2\n"
            "  out: port 2, 60 bytes\n"
            "packet 2: port 1, 61 bytes\n"
            "  parser state start\n"
            "  ingress 1\n"
            "  table tbl_in: action in()\n"
            "  egress 77\n"
            "  sent to port 77\n"
            "  out: port 77, which is not there, 61 bytes\n");

  const Answer none = runTraceCommand(*packets_, "3 2 for 1");
  ASSERT_TRUE(waitUntil([&] { return (text = none.later()).has_value(); }));
  EXPECT_EQ(text->text, "0 of 3 packets came in 1 seconds\n");

  EXPECT_THAT(words(runTraceCommand(*packets_, "")), HasSubstr("tracing is off"));
  runTraceCommand(*packets_, "on 2");
  right_->send(frameTo(511));
  std::string kept;
  ASSERT_TRUE(waitUntil([&] {
    kept = words(runTraceCommand(*packets_, ""));
    return kept.starts_with("packet");
  }));
  EXPECT_THAT(kept, HasSubstr("out: nothing"));
  runTraceCommand(*packets_, "off");
  for (const char* wrong : {"0", "1001", "x", "on x", "1 2 3", "1 for ever", "off now"}) {
    EXPECT_THROW(runTraceCommand(*packets_, wrong), CommandError) << wrong;
  }
}

TEST_F(PacketThreadTest, TheProgramIsToldInItsWords) {
  EXPECT_THAT([&] { runProgramCommand(slot_, ""); },
              ThrowsMessage<CommandError>(HasSubstr("there is no program yet")));
  push();
  EXPECT_EQ(words(runProgramCommand(slot_, "")),
            "header ethernet: high 39 port 9 source 48 type 16\n"
            "state start\n"
            "table tbl_in ingress: size 16, entries 0\n"
            "  action in()\n"
            "  default in, constant\n");
  EXPECT_THAT(words(runProgramCommand(slot_, "tbl_in")), HasSubstr("action in()"));
  EXPECT_THROW(runProgramCommand(slot_, "other"), CommandError);
}

}  // namespace
}  // namespace Forwarder
