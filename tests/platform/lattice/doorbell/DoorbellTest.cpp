// What a subscriber that does not keep to the protocol can do to the agent: nothing; and messages
// byte by byte.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <random>

#include "platform/lattice/doorbell/DoorbellMessage.h"
#include "platform/lattice/doorbell/DoorbellSocket.h"
#include "platform/lattice/records/Packing.h"
#include "platform/vela/UnixListener.h"
#include "tests/platform/lattice/AgentFixture.h"
#include "tests/support/TempDir.h"

namespace Lattice {
namespace {

using namespace TestSupport;
using Vela::ActivityLock;

std::string someReports(uint64_t receivedUpTo) {
  ReportsWriter writer;
  writer.add({1, 2, 3, "text"});
  writer.add({4, 5, 0, ""});
  return writer.finish(receivedUpTo, 0);
}

TEST(DoorbellMessage, IsRefusedAtEveryOtherLength) {
  const std::string messages[] = {AttachMessage{1, {}, "name"}.encode(),
                                  AttachedMessage{}.encode(),
                                  RefusedMessage{"why"}.encode(),
                                  RingMessage{7}.encode(),
                                  InStepMessage{7}.encode(),
                                  someReports(9)};
  const auto accepted = [](const std::string& m) {
    const auto reports = decodeReports(m);
    return AttachMessage::decode(m) || AttachedMessage::decode(m) || RefusedMessage::decode(m) ||
           RingMessage::decode(m) || InStepMessage::decode(m) ||
           (reports && eachReport(*reports, [](const PackedReport&) {}));
  };
  for (const std::string& message : messages) {
    EXPECT_TRUE(accepted(message));
    for (size_t size = 0; size < message.size(); ++size) {
      EXPECT_FALSE(accepted(message.substr(0, size))) << int(message[0]) << " cut at " << size;
    }
    EXPECT_FALSE(accepted(message + "x"));
    std::string foreign = message;
    foreign[1] = 2;
    EXPECT_FALSE(accepted(foreign));
  }
}

TEST(DoorbellMessage, CarriesReportsUpToItsLimits) {
  ReportsWriter writer;
  const std::string longText(5000, 't');
  size_t added = 0;
  for (; !writer.full(); ++added) writer.add({added, added, 1, longText});
  const std::string message = writer.finish(77, 0);
  EXPECT_LE(message.size(), maxMessageBytes);
  const auto reports = decodeReports(message);
  ASSERT_TRUE(reports);
  EXPECT_EQ(reports->receivedUpTo, 77u);
  size_t seen = 0;
  EXPECT_TRUE(eachReport(*reports, [&](const PackedReport& report) {
    EXPECT_EQ(report.entryHandle, seen++);
    EXPECT_EQ(report.text.size(), maxReportText);
  }));
  EXPECT_EQ(seen, added);
}

struct DoorbellTest : testing::Test {
  TempDir directory;
  Agent agent{directory.path()};
  Socket connect() {
    int error = 0;
    Socket socket;
    do {  // the agent may have others to accept first
      socket = connectedTo(directory.file("doorbell.sock"), &error);
    } while (!socket && error == EAGAIN);
    EXPECT_TRUE(socket) << error;
    return socket;
  }
  static bool eventually(const std::function<bool()>& done) { return Agent::followUntil({}, done); }
  size_t attached() {
    const Vela::ActivityLock lock;
    return agent.database->subscribers().size();
  }
};

TEST_F(DoorbellTest, DropsWhoSendsNonsense) {
  const std::string attach = AttachMessage{0, {}, "rude"}.encode();
  std::string foreign = attach;
  foreign[1] = 9;
  const struct {
    const char* what;
    std::vector<std::string> messages;
  } cases[] = {
      {"garbage at first", {"garbage"}},
      {"an oversized message", {std::string(maxMessageBytes + 1, 'x')}},
      {"another version", {foreign}},
      {"reports before attaching", {someReports(0)}},
      {"attaching twice", {attach, attach}},
      {"reports on what it cannot have received", {attach, someReports(1 << 30)}},
      {"in step with the future", {attach, InStepMessage{1 << 30}.encode()}},
      {"cut reports", {attach, someReports(0).substr(0, 30)}},
      {"the agent's own words", {attach, RingMessage{1}.encode()}},
  };
  uint64_t dropped = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Socket socket = connect();
    for (const auto& message : c.messages) socket.send(message);
    ++dropped;
    EXPECT_TRUE(eventually([&] { return agent.database->droppedMessages() == dropped; }));
    EXPECT_TRUE(eventually([&] { return attached() == 0; }));
  }
  std::mt19937 random(5);
  for (int round = 0; round < 300; ++round) {
    const Socket socket = connect();
    if (round % 2) socket.send(attach);
    std::string message(random() % 200, '\0');
    for (char& c : message) c = static_cast<char>(random());
    if (message.size() > 2 && round % 3) message[0] = random() % 7, message[1] = 1;
    socket.send(message);
  }
  EXPECT_TRUE(eventually([&] { return attached() == 0; }));
  Follower follower(directory.path());
  EXPECT_TRUE(Agent::followUntil({follower.subscriber.get()}, [&] { return follower.snapshots; }));
}

TEST_F(DoorbellTest, WhoDoesNotReadDoesNotBlockTheAgent) {
  auto& routes = agent.table("routes");
  const Socket silent = connect();
  silent.send(AttachMessage{0, {}, "silent"}.encode());
  ASSERT_TRUE(eventually([&] { return attached() == 1; }));
  for (uint32_t i = 0; i < 5000; ++i) {
    const ActivityLock lock;
    routes.rowIs(route(1, i), 7);
  }
  const ActivityLock lock;
  EXPECT_EQ(attached(), 1u);
}

TEST_F(DoorbellTest, SubscribersSurviveAnAgentThatTalksNonsense) {
  const TempDir other;
  const Vela::UnixListener listener({.path = other.file("doorbell.sock"), .type = SOCK_SEQPACKET});
  Follower follower(other.path());
  const std::string answers[] = {"garbage", std::string(maxMessageBytes + 1, 'x'),
                                 RingMessage{5}.encode(), RefusedMessage{"not you"}.encode(),
                                 AttachedMessage{}.encode()};
  for (const std::string& answer : answers) {
    Socket peer;
    for (int i = 0; i < 1000 && !peer; ++i) {
      follower.subscriber->follow(1ms);
      peer = Socket(accept4(listener.descriptor(), nullptr, nullptr, SOCK_NONBLOCK));
    }
    ASSERT_TRUE(peer);
    peer.send(answer);
    follower.subscriber->follow(1s);
    EXPECT_FALSE(follower.subscriber->attached());
    EXPECT_NE(follower.subscriber->trouble(), "");
  }
}

// 64 connections that said nothing kept forwarding agents out, for good.
TEST_F(DoorbellTest, ConnectionsThatNeverAttachKeepNobodyOut) {
  std::vector<Socket> silent;
  for (int i = 0; i < 200; ++i) silent.push_back(connect());
  Follower follower(directory.path());
  EXPECT_TRUE(Agent::followUntil({follower.subscriber.get()}, [&] { return follower.snapshots; }));
  EXPECT_EQ(attached(), 1u);
}

TEST_F(DoorbellTest, NoMoreThan64AreAttached) {
  std::vector<Socket> many;
  for (int i = 0; i < 64; ++i) {
    many.push_back(connect());
    many.back().send(AttachMessage{0, {}, "one of many"}.encode());
  }
  ASSERT_TRUE(eventually([&] { return attached() == 64; }));
  Follower late(directory.path());
  EXPECT_TRUE(Agent::followUntil({late.subscriber.get()}, [&] {
    return late.subscriber->trouble().find("64 subscribers are attached") != std::string::npos;
  }));
  many.pop_back();
  EXPECT_TRUE(Agent::followUntil({late.subscriber.get()}, [&] { return late.snapshots; }));
}

}  // namespace
}  // namespace Lattice
