// What forwarding agents have counted, as readers of the state directory find it.
#include "platform/lattice/counters/FlowCounters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "platform/brine/Store.h"
#include "platform/lattice/counters/FlowCountersLayout.h"
#include "tests/support/TempDir.h"

namespace Lattice {

void PrintTo(const FlowCount& count, std::ostream* out) {
  *out << count.packets << " packets, " << count.bytes << " bytes";
}

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class FlowCountersTest : public testing::Test {
 protected:
  std::unique_ptr<FlowCounterWriter> writer(const std::string& name) {
    return FlowCounterWriter::create(state_.path(), name);
  }
  std::vector<FlowCount> counts(std::string_view name) {
    std::vector<FlowCount> found{{9, 9}};  // counts() replaces it
    reader_->counts(name, &found);
    return found;
  }
  std::string dataOf(const std::string& name) {
    return state_.file("counters/" + flowCountersFolder(name) + "/brine.mdb");
  }
  // A process of that name counts in `flows` flows, and ends.
  void haveCounted(const std::string& name, unsigned flows) {
    const pid_t child = fork();
    if (child == 0) {
      const auto counting = writer(name);
      for (unsigned i = 0; i < flows; ++i) counting->countIs("f" + std::to_string(i), {i, i});
      counting->commit();
      _exit(0);  // like one that is killed: nothing is closed
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
  }
  // Found at the next look at the folders, which a look-up does now and then.
  bool comesTo(std::string_view name, const std::vector<FlowCount>& wanted) {
    return comesTo([&] { return counts(name) == wanted; });
  }
  static bool comesTo(const std::function<bool()>& done) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }

  TestSupport::TempDir state_;
  std::unique_ptr<FlowCounterReader> reader_ = FlowCounterReader::create(state_.path());
};

TEST_F(FlowCountersTest, EachForwardingAgentsCountIsFoundFromItsCommitOnUntilItIsRemoved) {
  EXPECT_THAT(counts("f"), IsEmpty());
  auto first = writer("first");
  first->countIs("f", {100, 1});
  EXPECT_THAT(counts("f"), IsEmpty());
  first->commit();
  EXPECT_THAT(counts("f"), ElementsAre(FlowCount{100, 1}));
  const auto second = writer("second");
  second->countIs("f", {5000, 50});
  second->countIs("g", {7, 7});
  second->commit();
  EXPECT_THAT(counts("f"), UnorderedElementsAre(FlowCount{100, 1}, FlowCount{5000, 50}));
  first->countIs("f", {300, 3});
  second->countDel("g");
  second->countDel("never there");
  first->commit();
  second->commit();
  EXPECT_THAT(counts("f"), UnorderedElementsAre(FlowCount{300, 3}, FlowCount{5000, 50}));
  EXPECT_THAT(counts("g"), IsEmpty());
  first.reset();  // its hardware may well go on
  EXPECT_THAT(counts("f"), UnorderedElementsAre(FlowCount{300, 3}, FlowCount{5000, 50}));
  EXPECT_THAT(counts(""), IsEmpty());
  EXPECT_THAT(counts(std::string(5000, 'n')), IsEmpty());
}

TEST_F(FlowCountersTest, AWriterThatStartsAnewBeginsWithNothing) {
  haveCounted("main", 1000);
  EXPECT_THAT(counts("f7"), ElementsAre(FlowCount{7, 7}));
  haveCounted("main", 5);
  EXPECT_THAT(counts("f7"), IsEmpty());
  EXPECT_THAT(counts("f3"), ElementsAre(FlowCount{3, 3}));
}

TEST_F(FlowCountersTest, CollectionsThatGoOrAreReplacedAreNoticed) {
  haveCounted("a", 3);
  haveCounted("b", 2);
  EXPECT_EQ(counts("f1").size(), 2u);
  fs::remove_all(state_.file("counters/b"));
  EXPECT_EQ(counts("f1").size(), 1u);
  haveCounted("b", 2);
  EXPECT_EQ(counts("f1").size(), 2u);
  fs::rename(state_.file("counters"), state_.file("elsewhere"));
  EXPECT_TRUE(comesTo("f1", {}));
  haveCounted("c", 2);
  EXPECT_TRUE(comesTo("f1", {{1, 1}}));
}

TEST_F(FlowCountersTest, AWriterKnowsThatTheStateDirectoryWasMadeAnew) {
  const auto lost = writer("main");
  EXPECT_TRUE(lost->reachable());
  fs::remove_all(state_.file("counters"));
  EXPECT_FALSE(lost->reachable());
  const auto again = writer("main");
  EXPECT_FALSE(lost->reachable());
  EXPECT_TRUE(again->reachable());
}

TEST_F(FlowCountersTest, WhateverIsBrokenIsPassedOver) {
  const auto overwritten = [](const std::string& path, size_t at, const std::string& bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(at));
    file << bytes;
  };
  const struct {
    const char* what;
    std::function<void(const std::string& data)> broken;
  } cases[] = {
      {"no file yet", [](auto& data) { fs::remove(data); }},
      {"an empty file", [](auto& data) { fs::resize_file(data, 0); }},
      {"nothing but a head", [](auto& data) { fs::resize_file(data, 8192); }},
      {"cut off", [](auto& data) { fs::resize_file(data, 5 * 4096 + 17); }},
      {"no store", [&](auto& data) { overwritten(data, 0, std::string(8192, 'x')); }},
      {"pages overwritten",
       [&](auto& data) { overwritten(data, 8192, std::string(200 * 4096, '\xee')); }},
      {"a fifo in its place",
       [](auto& data) {
         fs::remove(data);
         ASSERT_EQ(mkfifo(data.c_str(), 0600), 0);
       }},
      {"a folder in its place", [](auto& data) { fs::remove(data), fs::create_directory(data); }},
      {"a file in place of the folder",
       [](auto& data) {
         const fs::path folder = fs::path(data).parent_path();
         fs::remove_all(folder);
         std::ofstream(folder) << "x";
       }},
  };
  const auto sound = writer("sound");
  sound->countIs("f1", {10, 10});
  sound->commit();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string folder = fs::path(dataOf("bad")).parent_path();
    fs::remove_all(folder);
    haveCounted("bad", 20000);
    c.broken(dataOf("bad"));
    reader_ = FlowCounterReader::create(state_.path());
    EXPECT_THAT(counts("f1"), ElementsAre(FlowCount{10, 10}));
    if (!fs::is_directory(folder)) continue;
    if (fs::exists(dataOf("bad")) && !fs::is_regular_file(dataOf("bad"))) continue;
    haveCounted("bad", 2);  // the writer replaces a damaged store
    EXPECT_EQ(std::distance(fs::directory_iterator(state_.file("counters")), {}), 2);
    EXPECT_TRUE(comesTo("f1", {{1, 1}, {10, 10}}));
  }
}

// The reader had mapped a file that another process cut off: a signal ended the agent.
TEST_F(FlowCountersTest, AFileThatIsCutOffWhileItIsReadIsPassedOver) {
  const auto sound = writer("sound");
  sound->countIs("f1", {10, 10});
  sound->commit();
  haveCounted("bad", 20000);
  for (const uintmax_t size : {uintmax_t{200 * 4096}, uintmax_t{5 * 4096}, uintmax_t{8192},
                               uintmax_t{100}, uintmax_t{0}}) {
    SCOPED_TRACE(size);
    EXPECT_FALSE(counts("f1").empty());
    fs::resize_file(dataOf("bad"), size);
    for (unsigned flow = 0; flow < 20000; flow += 99) counts("f" + std::to_string(flow));
  }
  EXPECT_TRUE(comesTo("f1", {{10, 10}}));
}

TEST_F(FlowCountersTest, NamesBecomeFoldersOfTheirOwn) {
  const std::string names[] = {"main",       "Main", "../escape", "a/b", ".",
                               "..",         "a b",  "a%20b",     "\n",  std::string(64, '/'),
                               "x.damaged-1"};
  std::vector<std::unique_ptr<FlowCounterWriter>> writers;
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    writers.push_back(writer(name));
    writers.back()->countIs("f", {1, 1});
    writers.back()->commit();
    EXPECT_TRUE(fs::is_regular_file(dataOf(name)));
  }
  EXPECT_EQ(counts("f").size(), std::size(names));
  EXPECT_EQ(std::distance(fs::directory_iterator(state_.path()), {}), 1);
  EXPECT_EQ(std::distance(fs::directory_iterator(state_.file("counters")), {}),
            static_cast<long>(std::size(names)));
  for (const std::string& name : {std::string(), std::string(65, 'n')}) {
    EXPECT_THROW(writer(name), Brine::StoreError);
  }
}

TEST_F(FlowCountersTest, ASecondWriterOfANameIsRefused) {
  const auto only = writer("main");
  try {
    writer("main");
    ADD_FAILURE() << "taken";
  } catch (const Brine::StoreError& error) {
    EXPECT_EQ(error.trouble, Brine::Trouble::busy);
  }
}

TEST_F(FlowCountersTest, ReadersSeeWholeCommits) {
  std::atomic<bool> done = false;
  std::thread counting([&] {
    const auto main = writer("main");
    for (uint64_t i = 1; i <= 300; ++i) {
      for (unsigned flow = 0; flow < 500; ++flow) {
        main->countIs("f" + std::to_string(flow), {64 * i, i});
      }
      main->commit();
    }
    done = true;
  });
  uint64_t newest = 0;
  bool last = false;
  do {
    last = done;
    for (unsigned flow = 0; flow < 500; flow += 71) {
      for (const FlowCount& count : counts("f" + std::to_string(flow))) {
        EXPECT_EQ(count.bytes, 64 * count.packets);
        EXPECT_GE(count.packets, newest);
        newest = count.packets;
      }
    }
  } while (!last);
  counting.join();
  // A reader that came while the store was being made looks again after a while.
  EXPECT_TRUE(comesTo([&] {
    const auto found = counts("f0");
    return found.size() == 1 && found[0].packets == 300;
  }));
}

// Each commit reuses pages that the one before the last had left, while a reader looks through
// them.
TEST_F(FlowCountersTest, AReaderThatComesWhileAWriterIsBusyReadsAtOnce) {
  const pid_t child = fork();
  if (child == 0) {
    const auto busy = writer("busy");
    for (uint64_t i = 1;; ++i) {
      for (unsigned flow = 0; flow < 20000; flow += i == 1 ? 1 : 7) {
        busy->countIs("f" + std::to_string((flow * i) % 20000), {i, i});
      }
      busy->commit();
    }
  }
  const bool begun = comesTo([&] { return counts("f0").size() == 1; });
  for (int i = 0; begun && i < 200; ++i) {
    reader_ = FlowCounterReader::create(state_.path());
    EXPECT_EQ(counts("f1").size(), 1u);
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(begun);
}

TEST_F(FlowCountersTest, TheStoreTakesLittleMemory) {
  haveCounted("main", 10000);
  struct stat status {};
  ASSERT_EQ(stat(dataOf("main").c_str(), &status), 0);
  EXPECT_LT(status.st_blocks * 512, 4 * 1024 * 1024);
}

TEST(FlowNames, AreThoseThatOldStoresHold) {
  EXPECT_EQ(buildFlowName(42), "flow-42");
  EXPECT_EQ(flowCounterName(UINT64_MAX), "flow-18446744073709551615-p4rt");
}

}  // namespace
}  // namespace Lattice
