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

const Question registerCells{.kind = Question::Kind::registerCells,
                             .registerId = 5,
                             .firstCell = 1ull << 40,
                             .cellCount = 9};

const Question lastHits{
    .kind = Question::Kind::lastHits, .tableId = 6, .entryHandles = {1, 1ull << 40}};

TEST(DoorbellMessage, IsRefusedAtEveryOtherLength) {
  const std::string messages[] = {AttachMessage{1, {}, "name"}.encode(),
                                  AttachedMessage{}.encode(),
                                  RefusedMessage{"why"}.encode(),
                                  RingMessage{7}.encode(),
                                  InStepMessage{7}.encode(),
                                  ProgrammedMessage{7}.encode(),
                                  QuestionMessage{7, {.push = 3}}.encode(),
                                  QuestionMessage{7, registerCells}.encode(),
                                  QuestionMessage{7, {.kind = Question::Kind::counts}}.encode(),
                                  QuestionMessage{7, lastHits}.encode(),
                                  AnswerMessage{7, 2, "why"}.encode(),
                                  someReports(9)};
  const auto accepted = [](const std::string& m) {
    const auto reports = decodeReports(m);
    return AttachMessage::decode(m) || AttachedMessage::decode(m) || RefusedMessage::decode(m) ||
           QuestionMessage::decode(m) || AnswerMessage::decode(m) || RingMessage::decode(m) ||
           InStepMessage::decode(m) || ProgrammedMessage::decode(m) ||
           (reports && eachReport(*reports, [](const PackedReport&) {}));
  };
  for (const std::string& message : messages) {
    EXPECT_TRUE(accepted(message));
    for (size_t size = 0; size < message.size(); ++size) {
      EXPECT_FALSE(accepted(message.substr(0, size))) << int(message[0]) << " cut at " << size;
    }
    EXPECT_FALSE(accepted(message + "x"));
    std::string foreign = message;
    foreign[1] = 9;
    EXPECT_FALSE(accepted(foreign));
  }
}

TEST(DoorbellMessage, AttachesWithFlagsOrWithout) {
  const std::string without = AttachMessage{1, {}, "name"}.encode();
  const std::string with = AttachMessage{1, {}, "name", AttachMessage::appliesAtOnce}.encode();
  EXPECT_EQ(with, without + '\x01');
  EXPECT_EQ(AttachMessage::decode(without)->flags, 0);
  EXPECT_EQ(AttachMessage::decode(with)->flags, AttachMessage::appliesAtOnce);
}

TEST(DoorbellMessage, AsksForTheLastHitsOfSoManyEntries) {
  EXPECT_EQ(QuestionMessage({1, lastHits}).encode(),
            std::string("\x09\x02"
                        "\1\0\0\0\0\0\0\0"  // id
                        "\4"                // kind
                        "\6\0\0\0"          // table
                        "\2\0"
                        "\1\0\0\0\0\0\0\0"
                        "\0\0\0\0\0\1\0\0",
                        33));
  Question many = lastHits;
  many.entryHandles.resize(Question::mostEntries, 9);
  const std::string message = QuestionMessage{1, many}.encode();
  EXPECT_LE(message.size(), maxMessageBytes);
  EXPECT_LE(many.entryHandles.size() * sizeof(uint64_t), AnswerMessage::mostBytes);
  EXPECT_EQ(QuestionMessage::decode(message)->question.entryHandles, many.entryHandles);
  std::string more = message + std::string(8, '\0');
  storeAt(more.data() + 2 + 8 + 1 + 4, static_cast<uint16_t>(Question::mostEntries + 1));
  EXPECT_FALSE(QuestionMessage::decode(more));
}

// A later agent may have other questions: a subscriber that does not know one says so.
TEST(DoorbellMessage, AsksQuestionsOfOtherKinds) {
  std::string later = QuestionMessage{7, {.kind = Question::Kind::counts}}.encode() + "more";
  later[2 + 8] = 99;
  const auto asked = QuestionMessage::decode(later);
  ASSERT_TRUE(asked);
  EXPECT_EQ(asked->id, 7u);
  EXPECT_EQ(static_cast<int>(asked->question.kind), 99);
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

TEST_F(DoorbellTest, KnowsWhoAppliesCommitsAtOnce) {
  Follower one(directory.path(), "one"), other(directory.path(), "other");
  one.subscriber->appliesAtOnceIs(true);
  ASSERT_TRUE(Agent::followUntil({one.subscriber.get(), other.subscriber.get()},
                                 [&] { return attached() == 2; }));
  const Vela::ActivityLock lock;
  for (const SubscriberInfo& info : agent.database->subscribers()) {
    EXPECT_EQ(info.appliesAtOnce, info.name == "one");
  }
}

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
      {"having programmed the future", {attach, ProgrammedMessage{1 << 30}.encode()}},
      {"cut reports", {attach, someReports(0).substr(0, 30)}},
      {"the agent's own words", {attach, RingMessage{1}.encode()}},
      {"a notice of no kind", {attach, std::string("\x08\x02\x09", 3)}},
      {"a cut notice", {attach, NoticeMessage{{.message = "news"}}.encode().substr(0, 10)}},
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
    if (message.size() > 2 && round % 3) message[0] = random() % 9, message[1] = 1 + random() % 2;
    socket.send(message);
  }
  EXPECT_TRUE(eventually([&] { return attached() == 0; }));
  Follower follower(directory.path());
  EXPECT_TRUE(Agent::followUntil({follower.subscriber.get()}, [&] { return follower.snapshots; }));
}

// As the followers of the first version do, which know no cumulative word.
std::string asFirstVersion(std::string message) {
  message[1] = 1;
  return message;
}

struct FirstVersionTest : DoorbellTest {
  ArTableInterface& routes = agent.table("routes");
  Socket old = connect();

  // The next message of the agent that is no ring.
  std::string received() {
    std::string buffer(maxMessageBytes, '\0');
    std::string_view message;
    const bool came = eventually([&] {
      return old.receive(buffer, &message) == Socket::Received::message &&
             messageKind(message) != MessageKind::ring;
    });
    return came ? std::string(message) : std::string();
  }
  void attach() {
    old.send(asFirstVersion(AttachMessage{0, {}, "old"}.encode()));
    ASSERT_TRUE(eventually([&] { return attached() == 1; }));
    EXPECT_EQ(received().substr(0, 2), std::string("\2\1", 2));
  }
  uint64_t write(uint32_t dst) {
    const ActivityLock lock;
    return routes.rowIs(route(dst, 1), 100 + dst);
  }
  void report(uint32_t dst, uint64_t sequence, uint16_t code = 0) {
    ReportsWriter writer;
    writer.add({100 + dst, sequence, code, ""});
    old.send(asFirstVersion(writer.finish(sequence, 0)));
  }
  // The changes settled so far, in order, by the rows they were written to.
  std::vector<uint32_t> settled() {
    std::vector<uint32_t> all;
    for (const Report& report : agent.heard) {
      if (report.settles) all.push_back(report.entryHandle - 100);
    }
    return all;
  }
};

TEST_F(FirstVersionTest, GetsMessagesThatItKnowsAndItsReportsCount) {
  attach();
  const uint64_t first = write(1);
  std::string buffer(maxMessageBytes, '\0');
  std::string_view ring;
  ASSERT_TRUE(eventually([&] { return old.receive(buffer, &ring) == Socket::Received::message; }));
  EXPECT_EQ(ring, asFirstVersion(RingMessage{first}.encode()));
  report(1, first);
  report(2, write(2), 7);
  EXPECT_TRUE(eventually([&] { return settled() == std::vector<uint32_t>{1, 2}; }));
  EXPECT_EQ(agent.heard.back().errorCode, 7);
  old.send(asFirstVersion(ProgrammedMessage{first}.encode()));
  EXPECT_TRUE(eventually([&] { return attached() == 0; })) << "not a word of its version";
}

// Each decides about the changes that were committed while it was attached.
TEST_F(FirstVersionTest, DecidesTogetherWithFollowersOfThisVersion) {
  Follower other(directory.path());
  const auto settledAre = [&](const std::vector<uint32_t>& rows) {
    return Agent::followUntil({other.subscriber.get()}, [&] { return settled() == rows; });
  };
  ASSERT_TRUE(Agent::followUntil({other.subscriber.get()}, [&] { return other.snapshots; }));
  other.holdBack = true;
  write(1);
  ASSERT_TRUE(Agent::followUntil({other.subscriber.get()}, [&] { return other.held.size(); }));
  old.send(asFirstVersion(AttachMessage{0, {}, "old"}.encode()));
  ASSERT_TRUE(eventually([&] { return attached() == 2; }));
  other.holdBack = false;
  other.reportAll();
  EXPECT_TRUE(settledAre({1})) << "the old one has come later";
  const uint64_t second = write(2);
  const uint64_t third = write(3);
  report(3, third);
  EXPECT_TRUE(settledAre({1, 3}));
  report(2, second);
  EXPECT_TRUE(settledAre({1, 3, 2}));
}

// A follower that has come since has not programmed what the one before it leaves behind.
TEST_F(DoorbellTest, WhatNobodyProgrammedStaysUnsettledWhenItsFollowerLeaves) {
  auto& routes = agent.table("routes");
  auto first = std::make_unique<Follower>(directory.path(), "first");
  ASSERT_TRUE(Agent::followUntil({first->subscriber.get()}, [&] { return agent.inStep; }));
  first->holdBack = true;
  {
    const ActivityLock lock;
    routes.rowIs(route(1, 1), 7);
  }
  Follower second(directory.path(), "second");
  second.holdBack = true;
  ASSERT_TRUE(Agent::followUntil({first->subscriber.get(), second.subscriber.get()},
                                 [&] { return second.held.size() == 1; }));
  first.reset();
  ASSERT_TRUE(Agent::followUntil({second.subscriber.get()}, [&] { return attached() == 1; }));
  {
    const ActivityLock lock;
    EXPECT_TRUE(agent.heard.empty());
  }
  second.reportAll();
  EXPECT_TRUE(Agent::followUntil({second.subscriber.get()}, [&] { return agent.heard.size(); }));
}

// Its programming goes on when the connection is lost; only when it is through is it programmed.
TEST_F(DoorbellTest, AFollowerThatComesBackDoesNotSayProgrammedTooEarly) {
  auto& routes = agent.table("routes");
  Follower follower(directory.path());
  const auto follow = [&](const std::function<bool()>& done) {
    return Agent::followUntil({follower.subscriber.get()}, done);
  };
  ASSERT_TRUE(follow([&] { return agent.inStep; }));
  follower.holdBack = true;
  for (const uint32_t dst : {1, 2}) {
    const ActivityLock lock;
    routes.rowIs(route(dst, 1), 100 + dst);
  }
  ASSERT_TRUE(follow([&] { return follower.held.size() == 2; }));
  shutdown(follower.subscriber->descriptor(), SHUT_RDWR);
  ASSERT_TRUE(follow([&] { return !follower.subscriber->attached(); }));
  follower.subscriber->report(101, follower.held[0].second, 0, {});
  follower.held.erase(follower.held.begin());
  ASSERT_TRUE(follow([&] { return agent.heard.size(); }));
  EXPECT_EQ(follower.snapshots, 1u);
  {
    const ActivityLock lock;
    EXPECT_EQ(agent.heard.size(), 1u);
    EXPECT_EQ(agent.heard[0].entryHandle, 101u);
  }
  follower.reportAll();
  EXPECT_TRUE(follow([&] { return agent.heard.size() == 2; }));
}

TEST_F(DoorbellTest, AChangeThatIsNeverReportedOnHoldsNoOtherBack) {
  auto& routes = agent.table("routes");
  Follower follower(directory.path());
  const auto follow = [&](const std::function<bool()>& done) {
    return Agent::followUntil({follower.subscriber.get()}, done);
  };
  ASSERT_TRUE(follow([&] { return agent.inStep; }));
  follower.holdBack = true;
  for (uint32_t i = 0; i < 5000; ++i) {
    const ActivityLock lock;
    routes.rowIs(route(i, 1), 100 + i);
  }
  ASSERT_TRUE(follow([&] { return follower.held.size() == 5000; }));
  const auto first = follower.held[0];
  follower.held.erase(follower.held.begin());
  follower.reportAll();
  ASSERT_TRUE(follow([&] { return agent.heard.size() == 4999; }));
  follower.subscriber->report(first.first, first.second, 0, {});  // at last
  ASSERT_TRUE(follow([&] { return agent.heard.size() == 5000; }));
  EXPECT_EQ(agent.heard.back().entryHandle, 100u);
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
  const auto store = Brine::Store::open({.directory = other.path()});
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
  // Another agent's store came between the agent's word and our look.
  EXPECT_NE(follower.subscriber->trouble().find("the store in " + other.path()), std::string::npos);
}

TEST_F(DoorbellTest, NoticesReachTheAgent) {
  Follower follower(directory.path());
  EXPECT_FALSE(follower.subscriber->digest(1, "too early"));
  ASSERT_TRUE(Agent::followUntil({follower.subscriber.get()}, [&] { return follower.snapshots; }));
  EXPECT_TRUE(follower.subscriber->digest(7, std::string("\0news", 5)));
  EXPECT_TRUE(follower.subscriber->idle(99));
  EXPECT_FALSE(follower.subscriber->digest(7, std::string(maxMessageBytes, 'x')));
  ASSERT_TRUE(eventually([&] { return agent.notices.size() == 2; }));
  const Vela::ActivityLock lock;
  EXPECT_EQ(agent.notices[0].kind, Notice::Kind::digest);
  EXPECT_EQ(agent.notices[0].digestId, 7u);
  EXPECT_EQ(agent.notices[0].message, std::string("\0news", 5));
  EXPECT_EQ(agent.notices[1].kind, Notice::Kind::idleEntry);
  EXPECT_EQ(agent.notices[1].entryHandle, 99u);
  EXPECT_EQ(agent.database->droppedMessages(), 0u);
}

// Those that answer questions decide together: the first error counts, and one that leaves is not
// waited for.
TEST_F(DoorbellTest, QuestionsAreAnsweredByThoseThatCan) {
  Follower dumb(directory.path(), "dumb"), one(directory.path(), "one"),
      other(directory.path(), "other");
  auto others = std::make_unique<Follower>(directory.path(), "leaves");
  for (Follower* follower : {&one, &other, others.get()}) {
    follower->subscriber->answersQuestionsIs(true);
  }
  std::vector<std::string> heard;  // code and bytes, or "gone"
  const auto ask = [&](const Question& question) {
    const Vela::ActivityLock lock;
    return agent.database->ask(question, [&](const Answer* answer) {
      heard.push_back(answer ? std::to_string(answer->errorCode) + answer->bytes : "gone");
    });
  };
  const auto follow = [&](const std::vector<Subscriber*>& subscribers, size_t answers) {
    return Agent::followUntil(subscribers, [&] { return heard.size() == answers; });
  };
  ASSERT_TRUE(Agent::followUntil({dumb.subscriber.get()}, [&] { return attached() == 1; }));
  EXPECT_FALSE(ask({.push = 1}));
  ASSERT_TRUE(Agent::followUntil({one.subscriber.get(), other.subscriber.get()},
                                 [&] { return attached() == 3; }));

  one.answers = other.answers = {0, std::string("\0\1", 2)};
  ASSERT_TRUE(ask(registerCells));
  ASSERT_TRUE(follow({one.subscriber.get(), other.subscriber.get()}, 1));
  EXPECT_EQ(heard.back(), std::string("0\0\1", 3));
  ASSERT_EQ(one.questions.size(), 1u);
  EXPECT_EQ(one.questions[0].kind, Question::Kind::registerCells);
  EXPECT_EQ(one.questions[0].registerId, 5u);
  EXPECT_EQ(one.questions[0].firstCell, 1ull << 40);
  EXPECT_EQ(one.questions[0].cellCount, 9u);

  other.answers = {2, "not here\n"};
  ASSERT_TRUE(ask({.push = 7}));
  ASSERT_TRUE(follow({other.subscriber.get()}, 2));
  EXPECT_EQ(heard.back(), "2not here ");
  EXPECT_EQ(other.questions.back().push, 7u);

  other.answers = one.answers;
  ASSERT_TRUE(follow({one.subscriber.get()}, 2));
  ASSERT_TRUE(Agent::followUntil({others->subscriber.get()}, [&] { return attached() == 4; }));
  ASSERT_TRUE(ask({.push = 8}));
  ASSERT_TRUE(follow({one.subscriber.get(), other.subscriber.get()}, 2));
  EXPECT_TRUE(Agent::followUntil({one.subscriber.get(), other.subscriber.get()},
                                 [&] { return other.questions.back().push == 8; }));
  others.reset();
  EXPECT_TRUE(follow({}, 3));
  EXPECT_EQ(heard.back(), std::string("0\0\1", 3));
  EXPECT_EQ(agent.database->droppedMessages(), 0u);
}

// Forwarding agents of before do not know the question, and would hang up. Of those that do, the
// latest hit counts.
TEST_F(DoorbellTest, LastHitsAreToldByThoseThatKnowThem) {
  Follower former(directory.path(), "former"), one(directory.path(), "one"),
      other(directory.path(), "other");
  for (Follower* follower : {&former, &one, &other}) {
    follower->subscriber->answersQuestionsIs(true);
    follower->subscriber->tellsLastHitsIs(follower != &former);
  }
  std::optional<Answer> heard;
  const auto ask = [&] {
    const Vela::ActivityLock lock;
    heard.reset();
    return agent.database->ask(lastHits, [&](const Answer* answer) { heard = *answer; });
  };
  const auto times = [](uint64_t first, uint64_t second) {
    std::string bytes;
    append(bytes, first);
    append(bytes, second);
    return bytes;
  };
  ASSERT_TRUE(Agent::followUntil({former.subscriber.get()}, [&] { return attached() == 1; }));
  EXPECT_FALSE(ask());
  const std::vector<Subscriber*> all = {former.subscriber.get(), one.subscriber.get(),
                                        other.subscriber.get()};
  ASSERT_TRUE(Agent::followUntil(all, [&] { return attached() == 3; }));
  const struct {
    const char* what;
    Answer one, other, heard;
  } cases[] = {
      {"each knows one",
       {0, times(5, unknownLastHit)},
       {0, times(unknownLastHit, 6)},
       {0, times(5, 6)}},
      {"both know both", {0, times(5, 7)}, {0, times(8, 6)}, {0, times(5, 6)}},
      {"neither knows",
       {0, times(unknownLastHit, unknownLastHit)},
       {0, times(unknownLastHit, unknownLastHit)},
       {0, times(unknownLastHit, unknownLastHit)}},
      {"one fails", {6, "none here"}, {6, "none here"}, {6, "none here"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    one.answers = c.one;
    other.answers = c.other;
    ASSERT_TRUE(ask());
    ASSERT_TRUE(Agent::followUntil(all, [&] { return heard.has_value(); }));
    EXPECT_EQ(heard->errorCode, c.heard.errorCode);
    EXPECT_EQ(heard->bytes, c.heard.bytes);
  }
  EXPECT_TRUE(former.questions.empty());
  EXPECT_EQ(one.questions.back().entryHandles, lastHits.entryHandles);
  EXPECT_EQ(agent.database->droppedMessages(), 0u);
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
