// Records go in, survive, and come out as text, even from damaged files.
#include "platform/scrivel/Trace.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "platform/scrivel/FileLayout.h"
#include "platform/scrivel/TraceReader.h"
#include "tests/support/TempDir.h"

namespace Scrivel {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

static TraceHandle trace("TraceTest");

class TraceTest : public testing::Test {
 protected:
  TraceTest() {
    unsetenv("SCRIVEL_DISABLE");
    unsetenv("SCRIVELDIR");
    setenv("KORVEL_TRACE", "TraceTest/all,*/off", 1);
  }
  ~TraceTest() override { shutdown(); }

  void start(Options options = {}) {
    options.directory = directory_;
    if (options.filePrefix.empty()) options.filePrefix = "test";
    initialize(options);
  }
  std::vector<std::string> texts() {
    std::vector<std::string> all;
    for (const auto& record : TraceReader(directory_).records()) all.push_back(record.text);
    return all;
  }

  const TestSupport::TempDir folder_;
  const std::string& directory_ = folder_.path();
};

TEST_F(TraceTest, EveryKindOfArgumentReadsBackAsText) {
  start();
  const std::string text = "text";
  const char* none = nullptr;
  const uint8_t bytes[] = {0xde, 0xad, 0x01};
  enum class Colour : uint8_t { green = 7 };
  SCRIVEL_TRACE(0, "f", " a: ", text, ' ', std::string_view("view"), none);
  SCRIVEL_TRACE(1, -5, "|", uint64_t{18446744073709551615u}, "|", uint8_t{200}, "|", true);
  SCRIVEL_TRACE(2, 0.5, "|", hex(0xbeef), "|", hex(int8_t{-1}), "|", Colour::green);
  SCRIVEL_TRACE(3, buffer(bytes, sizeof bytes), "|", nullptr, "|", reinterpret_cast<int*>(16));
  SCRIVEL_TRACE(4, "two\nlines");
  EXPECT_THAT(texts(), ElementsAre("f a: text view(null)", "-5|18446744073709551615|200|true",
                                   "0.5|0xbeef|0xff|7", "dead01|0x0|0x10", "two\\x0alines"));
}

TEST_F(TraceTest, ArgumentsAreEvaluatedOnlyWhenTheLevelIsOn) {
  int evaluated = 0;
  SCRIVEL_TRACE(0, ++evaluated);  // nothing is initialised yet
  start();
  levelsAre("TraceTest/3");
  SCRIVEL_TRACE(2, ++evaluated);
  SCRIVEL_TRACE(3, ++evaluated);
  shutdown();
  SCRIVEL_TRACE(3, ++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_THAT(texts(), ElementsAre("1"));
}

TEST_F(TraceTest, LongTextsAndTooManyArgumentsAreCutAndSaySo) {
  start({.maxStringLength = 5});
  SCRIVEL_TRACE(0, "12345", "|", "123456", "|", buffer("abcdef", 6));
  EXPECT_THAT(texts(), ElementsAre("12345|12345...|6162636465..."));
  shutdown();
  start({.maxStringLength = 200, .filePrefix = "wide"});
  const std::string wide(200, 'w');
  SCRIVEL_TRACE(0, wide, wide, wide, "lost", uint64_t{1});
  const auto last = texts().back();
  EXPECT_THAT(last, HasSubstr("..."));
  EXPECT_THAT(last, testing::Not(HasSubstr("lost")));
  EXPECT_THAT(last, testing::Not(HasSubstr("damaged")));
}

TEST_F(TraceTest, RingKeepsTheNewestAndTheReaderCountsTheRest) {
  start({.ringSize = 8});
  for (int i = 0; i < 20; ++i) SCRIVEL_TRACE(0, i);
  SCRIVEL_TRACE(1, "other ring");
  TraceReader reader(directory_);
  const auto records = reader.records();
  ASSERT_EQ(records.size(), 9u);
  EXPECT_EQ(records.front().text, "12");
  EXPECT_EQ(records.back().text, "other ring");
  EXPECT_EQ(records.back().level, 1u);
  EXPECT_EQ(records.back().handle, "TraceTest");
  EXPECT_EQ(reader.lost(), 12u);
  EXPECT_TRUE(reader.records().empty());  // following: only new records
  SCRIVEL_TRACE(0, "new");
  const auto followed = reader.records();
  ASSERT_EQ(followed.size(), 1u);
  EXPECT_EQ(followed[0].text, "new");
}

TEST_F(TraceTest, ThreadsNeverMixTheirRecords) {
  start({.ringSize = 64});
  std::vector<std::thread> threads;
  for (char name = 'a'; name < 'e'; ++name) {
    threads.emplace_back([name] {
      const std::string word(60, name);
      for (int i = 0; i < 5000; ++i) SCRIVEL_TRACE(0, word, word);
    });
  }
  TraceReader reader(directory_);
  size_t seen = 0;
  const auto check = [&] {
    for (const auto& record : reader.records()) {
      ASSERT_EQ(record.text, std::string(120, record.text[0]));
      ++seen;
    }
  };
  for (int i = 0; i < 20; ++i) check();
  for (auto& thread : threads) thread.join();
  check();
  check();  // a record given up is waited for once
  EXPECT_EQ(seen + reader.lost(), 20000u);
}

TEST_F(TraceTest, TracesOfAKilledProcessAreThere) {
  const pid_t child = fork();
  if (child == 0) {
    initialize({.filePrefix = "victim-%d", .directory = directory_});
    SCRIVEL_TRACE(0, "last words of ", getpid());
    kill(getpid(), SIGKILL);
  }
  waitpid(child, nullptr, 0);
  EXPECT_THAT(texts(), ElementsAre("last words of " + std::to_string(child)));
  const auto files = TraceReader(directory_).files();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_FALSE(files[0].alive);
  EXPECT_EQ(files[0].pid, child);
}

TEST_F(TraceTest, OnlyTheNewestFilesOfDeadProcessesStay) {
  for (int i = 0; i < 6; ++i) {
    std::ofstream(directory_ + "/agent-" + std::to_string(i + 1) + ".scv") << i;
  }
  std::ofstream(directory_ + "/agent-x.scv") << "another's";
  std::ofstream(directory_ + "/test.scv") << "earlier run";
  start({.filePrefix = "agent-%d"});
  size_t files = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(directory_)) ++files;
  EXPECT_EQ(files, 3u + 1u + 2u);
  start();  // without a process id the former file is kept once
  EXPECT_TRUE(fs::exists(directory_ + "/test.old.scv"));
}

TEST_F(TraceTest, LevelsChangeInARunningProcessFromOutside) {
  start();
  const std::string file = currentFile();
  setLevels(file, "TraceTest/off");
  EXPECT_FALSE(trace.enabled(0));
  setLevels(file, "Other/5,Late*/2");
  EXPECT_FALSE(trace.enabled(0)) << "not named: stays as it was";
  const TraceHandle late("LateLibrary");
  EXPECT_TRUE(late.enabled(2));
  EXPECT_FALSE(late.enabled(0));
  const auto refusal = [](const std::string& at, const std::string& levels) -> std::string {
    try {
      setLevels(at, levels);
      return "";
    } catch (const TraceError& e) {
      return e.what();
    }
  };
  EXPECT_THAT(refusal(file, "nonsense"), HasSubstr("HANDLE/LEVELS"));
  EXPECT_THAT(refusal(file, std::string(2000, 'a') + "/0"), HasSubstr("longer than"));
  EXPECT_THAT(refusal(directory_ + "/none.scv", "*/0"), HasSubstr("No such file"));
}

TEST_F(TraceTest, UnwritableDirectoryIsSaidAndHarmless) {
  std::ofstream(directory_ + "/file") << "in the way";
  try {
    initialize({.filePrefix = "x", .directory = directory_ + "/file"});
    ADD_FAILURE() << "traces go into a file's directory";
  } catch (const TraceError& e) {
    EXPECT_THAT(e.what(), HasSubstr("nothing is traced"));
  }
  SCRIVEL_TRACE(0, "goes nowhere");
}

// Readers meet files of crashed, older and hostile writers.
TEST_F(TraceTest, GarbageIsReadWithoutHarm) {
  start({.rings = 2, .ringSize = 8});
  for (int i = 0; i < 8; ++i) SCRIVEL_TRACE(0, "text ", i, buffer("xyz", 3));
  const std::string good = currentFile();
  const auto whole = static_cast<size_t>(fs::file_size(good));
  std::mt19937 random(4711);
  std::string bytes;
  {
    std::ifstream in(good, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), {});
  }
  ASSERT_EQ(bytes.size(), whole);
  const size_t slots = ringOffset(8, 0);
  for (int round = 0; round < 300; ++round) {
    std::string bad = bytes;
    const size_t from = round % 2 ? slots : 0;
    for (int i = 0; i < 200; ++i)
      bad[from + random() % (whole - from)] = static_cast<char>(random());
    if (round % 3 == 0) std::copy_n(bytes.begin(), 32, bad.begin());  // the header's numbers hold
    if (round % 7 == 0) bad.resize(random() % whole);
    std::ofstream(directory_ + "/bad.scv", std::ios::binary) << bad;
    TraceReader reader(directory_);
    for (const auto& record : reader.records()) EXPECT_FALSE(toLine(record).empty());
    reader.files();
    try {
      setLevels(directory_ + "/bad.scv", "*/1");
    } catch (const TraceError&) {
      continue;  // no valid header
    }
  }
  EXPECT_THAT(argumentsText("\x01\xff\xffshort"), HasSubstr("damaged"));
}

}  // namespace
}  // namespace Scrivel
