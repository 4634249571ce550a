// What forwarding agents have counted, as readers of the state directory find it.
#include "platform/lattice/counters/FlowCounters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <sstream>
#include <thread>
#include <utility>

#include "platform/brine/Store.h"
#include "platform/lattice/counters/FlowCountersLayout.h"
#include "tests/support/TempDir.h"

namespace Lattice {

void PrintTo(const FlowCount& count, std::ostream* out) {
  *out << count.packets << " packets, " << count.bytes << " bytes";
}

namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// A process that ends with this, if not before.
class Child {
 public:
  explicit Child(const std::function<void()>& work) : process_(fork()) {
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    work();
    _exit(0);  // like one that is killed: nothing is closed
  }
  ~Child() {
    if (!running_) return;
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  int wait() {  // until it stops or ends; returns its status
    int status = 0;
    EXPECT_EQ(waitpid(process_, &status, 0), process_);
    running_ = WIFSTOPPED(status);
    return status;
  }
  pid_t process() const { return process_; }

 private:
  const pid_t process_;
  bool running_ = true;
};

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
    return state_.file("counters/" + flowCountersFolder(name) + "/counts");
  }
  // In the file `data`.
  static size_t placeOf(std::string_view flow, const std::string& data) {
    std::ostringstream file;
    file << std::ifstream(data).rdbuf();
    const FlowHash hash = flowHash(flow);
    const size_t at = file.str().find({reinterpret_cast<const char*>(&hash), sizeof hash}, 128);
    EXPECT_NE(at, std::string::npos);
    return at;
  }
  static void spoilAllBut(unsigned first, unsigned end, const std::string& data) {
    std::set<uint64_t> spared{emptySlot};
    for (unsigned i = first; i < end; ++i) spared.insert(flowHash("f" + std::to_string(i)).low);
    std::vector<CountSlot> slots((fs::file_size(data) - 128) / sizeof(CountSlot));
    std::fstream file(data, std::ios::in | std::ios::out | std::ios::binary);
    file.seekg(128).read(reinterpret_cast<char*>(slots.data()), 40 * std::ssize(slots));
    for (CountSlot& slot : slots) slot.count.bytes += !spared.contains(slot.hash.low);
    file.seekp(128).write(reinterpret_cast<char*>(slots.data()), 40 * std::ssize(slots));
  }
  // A process of that name counts in `flows` flows, and ends.
  void haveCounted(const std::string& name, unsigned flows) {
    Child child([&] {
      const auto counting = writer(name);
      for (unsigned i = 0; i < flows; ++i) counting->countIs("f" + std::to_string(i), {i, i});
      counting->commit();
      _exit(7);
    });
    ASSERT_EQ(WEXITSTATUS(child.wait()), 7);
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
  for (const std::string& name : {std::string(), std::string(501, 'n')}) {
    EXPECT_THROW(second->countIs(name, {}), std::invalid_argument);
  }
  EXPECT_THAT(counts(""), IsEmpty());
  EXPECT_THAT(counts(std::string(5000, 'n')), IsEmpty());
}

TEST_F(FlowCountersTest, AWriterThatStartsAnewBeginsWithNothing) {
  haveCounted("main", 1000);
  std::ofstream(fs::path(dataOf("main")).replace_filename("brine.mdb")) << "of a former version";
  std::ofstream(fs::path(dataOf("main")).replace_filename("counts.new")) << "of a killed writer";
  EXPECT_THAT(counts("f7"), ElementsAre(FlowCount{7, 7}));
  haveCounted("main", 5);
  EXPECT_THAT(counts("f7"), IsEmpty());
  EXPECT_THAT(counts("f3"), ElementsAre(FlowCount{3, 3}));
  const fs::path folder = fs::path(dataOf("main")).parent_path();
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 2) << "counts, and the lock's file";
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
  auto again = writer("main");
  EXPECT_FALSE(lost->reachable());
  EXPECT_TRUE(again->reachable());
  // It must not put its larger file in the other writer's place.
  for (unsigned i = 0; i < 1000; ++i) lost->countIs("f" + std::to_string(i), {1, 1});
  EXPECT_THROW(lost->commit(), Brine::StoreError);
  EXPECT_TRUE(again->reachable());
  fs::remove(dataOf("main"));
  EXPECT_FALSE(again->reachable());
  again.reset();
  EXPECT_TRUE(writer("main")->reachable());
}

TEST_F(FlowCountersTest, WhateverIsBrokenIsPassedOver) {
  const auto overwrite = [](const std::string& path, size_t at, const std::string& bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(at));
    file << bytes;
  };
  const auto size = [](const std::string& data) { return fs::file_size(data); };
  const struct {
    const char* what;
    std::function<void(const std::string& data)> damage;
    size_t left = 0;  // of the flows f2 to f101
  } cases[] = {
      {"no file yet", [](auto& data) { fs::remove(data); }},
      {"an empty file", [](auto& data) { fs::resize_file(data, 0); }},
      {"half a head", [](auto& data) { fs::resize_file(data, 64); }},
      {"nothing but a head", [](auto& data) { fs::resize_file(data, 128); }},
      {"cut off", [&](auto& data) { fs::resize_file(data, size(data) - 1); }},
      {"no head", [&](auto& data) { overwrite(data, 0, std::string(128, 'x')); }},
      {"another version", [&](auto& data) { overwrite(data, 8, "\x02"); }},
      {"slots without end", [&](auto& data) { overwrite(data, 16, std::string(7, '\xff')); }},
      {"all slots overwritten",
       [&](auto& data) { overwrite(data, 128, std::string(size(data) - 128, '\xee')); }},
      {"all slots emptied",
       [&](auto& data) { overwrite(data, 128, std::string(size(data) - 128, '\0')); }},
      {"all but a hundred counts overwritten", [&](auto& data) { spoilAllBut(2, 102, data); }, 100},
      {"another slot's contents",
       [&](auto& data) {
         std::string slot(40, '\0');
         std::ifstream(data).seekg(static_cast<long>(placeOf("f2", data))).read(slot.data(), 40);
         overwrite(data, placeOf("f1", data), slot);
       },
       100},
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
    EXPECT_EQ(counts("f1").size(), 2u);
    c.damage(dataOf("bad"));
    EXPECT_THAT(counts("f1"), Contains(FlowCount{10, 10}));
    reader_ = FlowCounterReader::create(state_.path());
    EXPECT_THAT(counts("f1"), ElementsAre(FlowCount{10, 10}));
    size_t left = 0;
    for (unsigned flow = 2; flow < 102; ++flow) left += counts("f" + std::to_string(flow)).size();
    EXPECT_EQ(left, c.left);
    if (!fs::is_directory(folder)) continue;
    if (fs::exists(dataOf("bad")) && !fs::is_regular_file(dataOf("bad"))) {
      EXPECT_THROW(writer("bad"), Brine::StoreError);
      continue;
    }
    haveCounted("bad", 2);  // the writer makes another file
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
  for (const uintmax_t size : {uintmax_t{200 * 4096}, uintmax_t{5 * 4096 + 17}, uintmax_t{128},
                               uintmax_t{100}, uintmax_t{0}}) {
    SCOPED_TRACE(size);
    EXPECT_FALSE(counts("f1").empty());
    fs::resize_file(dataOf("bad"), size);
    for (unsigned flow = 0; flow < 20000; flow += 99) {
      const auto found = counts("f" + std::to_string(flow));
      EXPECT_TRUE(found.empty() || found[0] == FlowCount(flow, flow));
    }
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

// While another process counts, and its file grows and shrinks over and over.
TEST_F(FlowCountersTest, ReadersSeeWholeCountsAndMissNone) {
  const Child child([&] {
    const auto busy = writer("busy");
    for (uint64_t i = 1;; ++i) {
      for (unsigned flow = 0; flow < 500; ++flow) {
        const std::string passing = "passing" + std::to_string(flow);
        busy->countIs("f" + std::to_string(flow % 10), {64 * i, i});
        if (i % 3 == 0) {
          busy->countDel(passing);
        } else {
          busy->countIs(passing, {64 * i, i});
        }
      }
      busy->commit();
    }
  });
  std::map<std::string, uint64_t> newest;
  ASSERT_TRUE(comesTo([&] {
    for (unsigned flow = 0; flow < 10; ++flow) {
      if (counts("f" + std::to_string(flow)).empty()) return false;
    }
    return true;
  }));
  for (unsigned look = 0; look < 20000 || newest["f0"] < 100; ++look) {
    if (look % 100 == 0) reader_ = FlowCounterReader::create(state_.path());
    const std::string name = "f" + std::to_string(look % 10);
    const auto found = counts(name);
    ASSERT_EQ(found.size(), 1u) << name;
    EXPECT_EQ(found[0].bytes, 64 * found[0].packets);
    EXPECT_GE(found[0].packets, std::exchange(newest[name], found[0].packets));
  }
}

// The writer takes its commit in single instructions. What the reader finds after each of them is
// what it would find if the writer were killed there.
TEST_F(FlowCountersTest, AWriterKilledAtAnyInstructionLeavesEachCountAsBeforeOrAfter) {
  const struct {
    const char* what;
    unsigned flows;
  } cases[] = {{"in one file", 20}, {"while a larger one is made", 31}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Child child([&] {
      const auto main = writer("main");
      for (unsigned i = 0; i < c.flows; ++i) main->countIs("f" + std::to_string(i), {1, 1});
      main->commit();
      for (const char* name : {"f1", "f2", "new1", "new2"}) main->countIs(name, {2, 2});
      main->countDel("f3");
      if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) return;
      raise(SIGSTOP);
      main->commit();
      raise(SIGSTOP);
    });
    int status = child.wait();
    if (WIFEXITED(status)) GTEST_SKIP() << "no process may be traced here";
    std::map<std::string, unsigned> changed;  // looks that found the count as it is afterwards
    const auto look = [&](const std::string& name, const std::vector<FlowCount>& before,
                          const std::vector<FlowCount>& after) {
      const auto now = counts(name);
      if (now == after) ++changed[name];
      return now == after || (changed[name] == 0 && now == before);
    };
    unsigned steps = 0;
    bool whole = true;
    do {
      ASSERT_EQ(ptrace(PTRACE_SINGLESTEP, child.process(), nullptr, nullptr), 0);
      status = child.wait();
      whole = look("f1", {{1, 1}}, {{2, 2}}) && look("f2", {{1, 1}}, {{2, 2}}) &&
              look("f3", {{1, 1}}, {}) && look("new1", {}, {{2, 2}}) &&
              look("new2", {}, {{2, 2}}) && counts("f4") == std::vector<FlowCount>{{1, 1}};
      ++steps;
    } while (whole && WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP);
    EXPECT_TRUE(whole) << "after " << steps << " instructions";
    for (const auto& [name, looks] : changed) EXPECT_GT(looks, 0u) << name;
    EXPECT_EQ(changed.size(), 5u);
    EXPECT_GT(steps, 500u);
  }
}

TEST_F(FlowCountersTest, AFullStateDirectoryCostsOneCommit) {
  const std::string small = state_.file("small");
  fs::create_directory(small);
  if (mount("korvel-test", small.c_str(), "tmpfs", 0, "size=1m,mode=0700") != 0) {
    GTEST_SKIP() << "mounting a small tmpfs needs root";
  }
  {
    reader_ = FlowCounterReader::create(small);
    const auto main = FlowCounterWriter::create(small, "main");
    unsigned committed = 0;
    const auto countMore = [&] {
      for (unsigned i = 0; i < 100; ++i) {
        main->countIs("f" + std::to_string(committed + i), {i, 1});
      }
      main->countIs("all", {committed + 100, 1});
      main->commit();
      committed += 100;
    };
    try {
      while (committed < 100000) countMore();
      ADD_FAILURE() << "never full";
    } catch (const Brine::StoreError& error) {
      EXPECT_EQ(error.trouble, Brine::Trouble::full);
      EXPECT_THAT(error.what(), testing::HasSubstr(small));
    }
    EXPECT_GT(committed, 1000u);
    EXPECT_THAT(counts("all"), ElementsAre(FlowCount{committed, 1}));
    EXPECT_THAT(counts("f" + std::to_string(committed)), IsEmpty());
    main->countIs("f0", {5, 5});  // needs no room
    main->commit();
    EXPECT_THAT(counts("f0"), ElementsAre(FlowCount{5, 5}));
    ASSERT_EQ(mount("korvel-test", small.c_str(), "tmpfs", MS_REMOUNT, "size=4m"), 0);
    countMore();
    EXPECT_THAT(counts("all"), ElementsAre(FlowCount{committed, 1}));
  }
  umount2(small.c_str(), MNT_DETACH);
}

TEST_F(FlowCountersTest, TheFileTakesLittleMemoryAndGivesItBack) {
  const auto memory = [&] { return TestSupport::allocatedBytes(state_.path()); };
  constexpr unsigned flows = 250000;
  const auto main = writer("main");
  EXPECT_LT(memory(), 16384u);
  for (unsigned i = 0; i < flows; ++i) main->countIs("f" + std::to_string(i), {i, i});
  main->commit();
  EXPECT_LT(memory(), 100u * flows);
  // Rows come and go.
  for (unsigned i = 0; i < flows; ++i) {
    main->countDel("f" + std::to_string(i));
    main->countIs("g" + std::to_string(i), {i, i});
    if (i % 1000 == 0) main->commit();
  }
  main->commit();
  EXPECT_LT(memory(), 100u * flows);
  for (unsigned i = 0; i < flows; i += 1111) {
    EXPECT_THAT(counts("g" + std::to_string(i)), ElementsAre(FlowCount{i, i}));
    EXPECT_THAT(counts("f" + std::to_string(i)), IsEmpty());
  }
  for (unsigned i = 10; i < flows; ++i) main->countDel("g" + std::to_string(i));
  main->commit();
  EXPECT_LT(memory(), 16384u);
  EXPECT_THAT(counts("g9"), ElementsAre(FlowCount{9, 9}));
  EXPECT_FALSE(reader_->empty());
  for (unsigned i = 0; i < 10; ++i) main->countDel("g" + std::to_string(i));
  main->commit();
  EXPECT_TRUE(reader_->empty());
}

// Another release reads the files of this one.
TEST_F(FlowCountersTest, TheLayoutStays) {
  const auto main = writer("main");
  main->countIs("flow-1-p4rt", {0x1122334455667788, 9});
  main->commit();
  std::vector<uint64_t> file(1000);
  std::ifstream(dataOf("main")).read(reinterpret_cast<char*>(file.data()), 8000);
  EXPECT_EQ(fs::file_size(dataOf("main")), 128u + 64 * 40);
  EXPECT_THAT(std::span(file).first(4), ElementsAre(0x73746e756f436c46, 1, 64, 0x1119e9295322009d));
  EXPECT_THAT(std::span(file).subspan((128 + 8 * 40) / 8, 5),
              ElementsAre(0xaa36f8a4e55b08e5, 0x20dda2230816d65c, 0x1122334455667788, 9,
                          0xb588d67052824f31));
}

TEST(FlowNames, AreThoseThatOldStoresHold) {
  EXPECT_EQ(buildFlowName(42), "flow-42");
  EXPECT_EQ(flowCounterName(UINT64_MAX), "flow-18446744073709551615-p4rt");
}

}  // namespace
}  // namespace Lattice
