// A journal as calls see it: what they tell is in the files, or its loss is.
#include "journal/Journal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "tests/journal/Records.h"
#include "tests/support/TempDir.h"

namespace Journal {
namespace {

using std::chrono::milliseconds;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr milliseconds patience{60'000};

class JournalTest : public testing::Test {
 protected:
  Journal::Options options() {
    return {.directory = directory_.file("journal"),
            .queuePath = directory_.file("queue"),
            .mostBytes = 64 << 20,
            .queueBytes = 1 << 20,
            .moment = milliseconds(1),
            .tell = [this](const std::string& line) {
              told_.push_back(line);
              throw std::runtime_error("the log is on the same disk, which is full");
            }};
  }
  static uint64_t request(Journal& journal, std::string_view message) {
    return journal.requestIs(RecordKind::write, "a", "b", {&message, 1});
  }
  // As if the process of the queue was killed then.
  void append(Queue& queue, std::string_view message) const {
    const std::vector<uint64_t> written = inFiles().sequences;
    queue.lastSequenceIs(written.empty() ? 0 : written.back());
    queue.append(Draft::request(RecordKind::write, "a", "b", {&message, 1}));
  }
  Found inFiles() const { return found(filesIn(directory_.file("journal"))); }

  const TestSupport::TempDir directory_;
  std::vector<std::string> told_;
};

TEST_F(JournalTest, HasAllThatWasToldInItsOrder) {
  {
    Journal journal(options());
    const uint64_t first = request(journal, "one");
    journal.outcomeIs({.request = first});
    ASSERT_TRUE(journal.flush(patience));
    EXPECT_THAT(inFiles().kinds,
                ElementsAre(RecordKind::start, RecordKind::write, RecordKind::outcome));
    request(journal, "two");
  }
  Journal again(options());
  ASSERT_TRUE(again.flush(patience));
  EXPECT_THAT(inFiles().sequences, ElementsAre(1, 2, 3, 4, 5));
  EXPECT_THAT(inFiles().requests, ElementsAre("one", "two"));
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(JournalTest, TakesCallsOfManyThreads) {
  constexpr int threads = 4;
  constexpr int each = 2000;
  {
    Journal journal(options());
    std::vector<std::thread> callers;
    for (int i = 0; i < threads; ++i) {
      callers.emplace_back([&journal, i] {
        for (int k = 0; k < each; ++k)
          request(journal, std::to_string(i) + ":" + std::to_string(k));
      });
    }
    for (std::thread& caller : callers) caller.join();
  }
  const Found all = inFiles();
  EXPECT_EQ(all.requests.size() + all.lost, size_t{threads * each});
  EXPECT_TRUE(std::ranges::is_sorted(all.sequences));
}

// The process is gone before anything was written.
TEST_F(JournalTest, HasWhatAKilledProcessHadNotWritten) {
  const pid_t child = fork();
  if (child == 0) {
    Queue queue(options().queuePath, options().queueBytes / 2);
    const std::string_view message = "last words";
    queue.append(Draft::request(RecordKind::write, "a", "b", {&message, 1}));
    queue.take();  // and is killed before they are in the files
    queue.append(Draft::request(RecordKind::write, "a", "b", {&message, 1}));
    _exit(0);
  }
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  { Journal journal(options()); }
  EXPECT_THAT(inFiles().requests, ElementsAre("last words", "last words"));
  EXPECT_THAT(inFiles().sequences, ElementsAre(1, 2, 3));
  { Journal journal(options()); }
  EXPECT_THAT(inFiles().requests, ElementsAre("last words", "last words")) << "once, not twice";
}

TEST_F(JournalTest, HasWhatAKilledProcessLeftInAQueueOfAnotherSize) {
  { Journal journal(options()); }
  for (const size_t queueBytes : {64 << 10, 4 << 20}) {
    {
      Queue queue(options().queuePath, queueBytes / 2);
      append(queue, "words");
      queue.take();
      append(queue, std::to_string(queueBytes));
    }
    Journal journal(options());
  }
  EXPECT_THAT(inFiles().requests,
              ElementsAre("words", std::to_string(64 << 10), "words", std::to_string(4 << 20)));
  EXPECT_TRUE(std::ranges::is_sorted(inFiles().sequences));
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(JournalTest, WhatAKilledProcessLeftGoesToItsOwnDirectory) {
  Journal::Options moved = options();
  moved.directory = directory_.file("moved");
  moved.formerDirectory = options().directory;
  const auto leave = [&] {
    Queue queue(options().queuePath, options().queueBytes / 2);
    append(queue, "last words");
  };
  { Journal journal(options()); }
  leave();
  { Journal journal(moved); }
  EXPECT_THAT(inFiles().requests, ElementsAre("last words"));
  EXPECT_THAT(found(filesIn(moved.directory)).requests, IsEmpty());
  EXPECT_THAT(told_, IsEmpty());

  // The directory has gone.
  leave();
  moved.formerDirectory = directory_.file("nowhere/journal");
  { Journal journal(moved); }
  EXPECT_THAT(found(filesIn(moved.directory)).requests, ElementsAre("last words"));
  EXPECT_THAT(told_, ElementsAre(AllOf(HasSubstr("nowhere/journal"), HasSubstr(moved.directory))));
}

// Killed between writing a half and letting it go: it is not written twice.
TEST_F(JournalTest, DoesNotWriteTwiceWhatIsInTheFiles) {
  {
    Queue queue(options().queuePath, options().queueBytes / 2);
    const std::string_view message = "words";
    queue.append(Draft::request(RecordKind::write, "a", "b", {&message, 1}));
    FileWriter files(options().directory, options().mostBytes);
    const auto taken = queue.take();
    seal(taken.records);
    size_t written = 0;
    files.write({taken.records.data(), taken.records.size()}, &written);
  }
  { Journal journal(options()); }
  EXPECT_THAT(inFiles().requests, ElementsAre("words"));
}

TEST_F(JournalTest, AFullQueueLosesRecordsAndTellsWhere) {
  constexpr size_t halfBytes = 64 << 10;
  Queue queue(options().queuePath, halfBytes);
  const std::string large(1000, 'x');
  const std::string_view message = large;
  const auto append = [&] {
    return queue.append(Draft::request(RecordKind::write, "a", "b", {&message, 1}));
  };
  uint64_t kept = 0;
  while (append() != 0) ++kept;
  EXPECT_GT(kept, 40u);
  EXPECT_EQ(append(), 0u);
  EXPECT_NE(queue.append(Draft::outcome({.request = 1})), 0u) << "outcomes have room";
  const auto taken = queue.take();
  EXPECT_EQ(taken.lost, 2u);
  EXPECT_EQ(taken.reason, GapReason::queueFull);
  EXPECT_EQ(taken.gapSequence, kept + 2);
  EXPECT_EQ(append(), kept + 3) << "there is room again, behind the gap";
  queue.takenIs();
  const std::string huge(2 * halfBytes, 'x');
  const std::string_view hugeMessage = huge;
  EXPECT_EQ(queue.append(Draft::request(RecordKind::push, "a", "b", {&hugeMessage, 1})), 0u);
  EXPECT_EQ(queue.take().reason, GapReason::tooLarge);
}

TEST_F(JournalTest, AQueueHasOneOwner) {
  const Queue queue(options().queuePath, 4096);
  EXPECT_THROW(Queue(options().queuePath, 4096), std::system_error);
}

TEST_F(JournalTest, GapsStandWhereTheRecordsAreMissing) {
  const std::string large(300'000, 'x');
  {
    Journal::Options slow = options();
    slow.moment = milliseconds(200);
    Journal journal(std::move(slow));
    while (request(journal, large) != 0) {
    }
    ASSERT_TRUE(journal.flush(patience));
    EXPECT_EQ(journal.figures().lost, 1u);
    EXPECT_NE(request(journal, "behind"), 0u);
  }
  const Found all = inFiles();
  EXPECT_EQ(all.lost, 1u);
  EXPECT_THAT(all.kinds, testing::Contains(RecordKind::gap).Times(1));
  EXPECT_EQ(all.kinds.back(), RecordKind::write);
  EXPECT_EQ(all.requests.back(), "behind");
}

// A limit of the process stands for a full disk.
TEST_F(JournalTest, WithoutRoomItSaysSoOnceAndGoesOnWhenThereIsSome) {
  const std::string large(100'000, 'x');
  rlimit former{};
  getrlimit(RLIMIT_FSIZE, &former);
  signal(SIGXFSZ, SIG_IGN);
  {
    Journal journal(options());
    ASSERT_TRUE(journal.flush(patience));
    rlimit low = former;
    low.rlim_cur = 250'000;
    setrlimit(RLIMIT_FSIZE, &low);
    for (int i = 0; i < 10; ++i) {
      request(journal, large);
      ASSERT_TRUE(journal.flush(patience));
    }
    EXPECT_EQ(journal.figures().lost, 8u);
    EXPECT_THAT(journal.figures().trouble, HasSubstr("File too large"));
    EXPECT_THAT(told_, ElementsAre(HasSubstr("is not written, and records are lost")));
    setrlimit(RLIMIT_FSIZE, &former);
    request(journal, "there is room again");
    ASSERT_TRUE(journal.flush(patience));
    EXPECT_EQ(journal.figures().trouble, "");
    EXPECT_THAT(told_, ElementsAre(testing::_, HasSubstr("is written again")));
  }
  signal(SIGXFSZ, SIG_DFL);
  const Found all = inFiles();
  EXPECT_EQ(all.lost, 8u);
  EXPECT_EQ(all.requests.size(), 3u);
  EXPECT_EQ(all.requests.back(), "there is room again");
  EXPECT_THAT(all.notes, IsEmpty());
  EXPECT_TRUE(std::ranges::is_sorted(all.sequences));
}

}  // namespace
}  // namespace Journal
