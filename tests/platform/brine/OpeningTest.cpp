// Opening a store: refusals of the system that pass, foreign files in its place, and stores of
// another boot. Only a lost store may begin empty; all others stay as they were.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "platform/brine/Store.h"
#include "tests/support/TempDir.h"

namespace Brine {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using TestSupport::TempDir;

struct OpeningTest : testing::Test {
  TempDir parent;
  std::string directory = parent.file("state");
  StoreOptions options{.directory = directory};

  void fill() const {
    const auto store = Store::open(options);
    store->put(store->table("rows"), asBytes("key"), asBytes("kept"));
    store->commit();
  }
  std::string kept() const {
    const auto store = Store::open(options);
    const auto value = store->get(store->table("rows"), asBytes("key"));
    return value ? std::string(asText(*value)) : "(none)";
  }
  std::optional<StoreError> refusal() const {
    try {
      Store::open(options);
      return std::nullopt;
    } catch (const StoreError& error) {
      return error;
    }
  }
};

TEST_F(OpeningTest, WhatIsNoFileIsNamedAndCostsNothing) {
  fill();
  const std::string aside = parent.file("aside"), precious = parent.file("precious");
  std::ofstream(precious) << "precious";
  const struct {
    const char* what;
    std::function<void(const std::string&)> put;
  } obstacles[] = {
      {"a directory", [](auto& path) { fs::create_directory(path); }},
      {"a fifo", [](auto& path) { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); }},
      {"a symbolic link", [&](auto& path) { fs::create_symlink(precious, path); }},
      {"a symbolic link", [&](auto& path) { fs::create_symlink(parent.file("nowhere"), path); }},
      {"a device", [](auto& path) { mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 5)); }},
  };
  for (const char* name : {"brine.mdb", "brine.mdb-lock", "brine.writer"}) {
    for (const auto& obstacle : obstacles) {
      SCOPED_TRACE(std::string(obstacle.what) + " for " + name);
      const std::string path = directory + "/" + name;
      fs::rename(path, aside);
      obstacle.put(path);
      if (fs::exists(fs::symlink_status(path))) {  // devices are root's to make
        const auto error = refusal();
        ASSERT_TRUE(error);
        EXPECT_EQ(error->trouble, Trouble::unwritable);
        EXPECT_THAT(error->what(), AllOf(HasSubstr(path), HasSubstr(obstacle.what)));
        EXPECT_THROW(Store::rebuild(options), StoreError);
        EXPECT_THROW(Reader::open(directory), StoreError);
      }
      fs::remove(path);
      fs::rename(aside, path);
      EXPECT_EQ(kept(), "kept");
    }
  }
  EXPECT_EQ(fs::file_size(precious), 8u);
  EXPECT_FALSE(fs::exists(parent.file("nowhere")));
}

TEST_F(OpeningTest, FilesAreTheOwnersAloneWhateverTheMask) {
  const mode_t mask = umask(0);
  fill();
  umask(mask);
  const auto modeOf = [](const fs::path& path) { return fs::status(path).permissions(); };
  EXPECT_EQ(modeOf(directory), fs::perms::owner_all);
  for (const auto& file : fs::directory_iterator(directory)) {
    EXPECT_EQ(modeOf(file), fs::perms::owner_read | fs::perms::owner_write) << file.path();
  }
}

TEST_F(OpeningTest, ADirectoryThatOthersMayChangeIsRefused) {
  fill();
  fs::permissions(directory, fs::perms::group_write, fs::perm_options::add);
  EXPECT_THAT(refusal().value().what(), HasSubstr("chmod 0700"));
  fs::permissions(directory, fs::perms::owner_all);
  fs::create_directory_symlink(directory, parent.file("link"));
  options.directory = parent.file("link");
  EXPECT_THAT(refusal().value().what(), HasSubstr("symbolic link"));
  options.directory = directory;
  EXPECT_EQ(kept(), "kept");
}

// A start that found no descriptor left took the store for damaged, and began an empty one.
TEST_F(OpeningTest, WantOfDescriptorsIsNoDamageAndMayPass) {
  fill();
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlim_t usual = limit.rlim_cur;
  const auto limitTo = [&](rlim_t descriptors) {
    limit.rlim_cur = descriptors;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  };
  const int next = dup(0);
  close(next);
  for (rlim_t left = 0; left < 3; ++left) {
    limitTo(static_cast<rlim_t>(next) + left);
    const auto error = refusal();
    limitTo(usual);
    ASSERT_TRUE(error) << left;
    EXPECT_EQ(error->trouble, Trouble::unavailable);
    EXPECT_THAT(error->what(),
                AllOf(HasSubstr(directory + "/brine"), HasSubstr("errno 24"), HasSubstr("ulimit")));
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(parent.path()), {}), 1);
  options.patience = std::chrono::minutes(1);
  limitTo(static_cast<rlim_t>(next));
  std::thread relief([&] {
    std::this_thread::yield();
    limitTo(usual);
  });
  EXPECT_EQ(kept(), "kept");
  relief.join();
}

// A process that opens the store just while another file takes the place of its own makes a lock
// file that counts the commits of the former. LMDB took the new store for an empty one by that.
TEST_F(OpeningTest, ALockFileOfAFormerFileCostsNothing) {
  for (const int commits : {20, 21}) {  // its two heads take turns
    SCOPED_TRACE(commits);
    fs::remove_all(directory);
    fill();
    for (int i = 0; i < commits; ++i) fill();
    int ready[2], hold[2];
    for (int* ends : {ready, hold}) ASSERT_EQ(pipe(ends), 0);
    const pid_t reader = fork();
    if (reader == 0) {
      execl("/proc/self/exe", "brine_test", "--hold", directory.c_str(),
            std::to_string(ready[1]).c_str(), std::to_string(hold[0]).c_str(), nullptr);
      _exit(1);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    const std::string former = directory;
    directory = options.directory = parent.file("other");
    fill();
    fs::rename(directory + "/brine.mdb", former + "/brine.mdb");
    fs::remove_all(directory);
    directory = options.directory = former;
    EXPECT_EQ(kept(), "kept");
    EXPECT_EQ(write(hold[1], "e", 1), 1);
    waitpid(reader, nullptr, 0);
    for (const int end : {ready[0], ready[1], hold[0], hold[1]}) close(end);
    EXPECT_EQ(kept(), "kept");
  }
}

// Runs this program as the first process of a PID namespace of its own; returns its process id as
// the test sees it, or -1.
pid_t startAlone(const std::vector<const char*>& arguments) {
  const pid_t child = fork();
  if (child != 0) return child;
  if (unshare(CLONE_NEWPID) != 0) _exit(77);
  const pid_t first = fork();
  if (first == 0) {
    std::vector<char*> all;
    for (const char* argument : arguments) all.push_back(const_cast<char*>(argument));
    all.push_back(nullptr);
    execv("/proc/self/exe", all.data());
    _exit(1);
  }
  int status = 0;
  waitpid(first, &status, 0);
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}

std::string textFrom(int pipe) {
  std::string text;
  char c = 0;
  while (read(pipe, &c, 1) == 1) text += c;
  return text;
}

// One container for the agent and one for the forwarding agent: both are process 1.
TEST_F(OpeningTest, ProcessesOfOneNumberInTwoNamespacesAreNamed) {
  fill();
  int ready[2], said[2], hold[2];
  for (int* ends : {ready, hold}) ASSERT_EQ(pipe(ends), 0);
  const auto text = [](int number) { return std::to_string(number); };
  const pid_t reader = startAlone(
      {"brine_test", "--hold", directory.c_str(), text(ready[1]).c_str(), text(hold[0]).c_str()});
  close(ready[1]);
  char byte = 0;
  if (read(ready[0], &byte, 1) != 1) {
    int status = 0;
    waitpid(reader, &status, 0);
    ASSERT_EQ(WEXITSTATUS(status), 77);
    GTEST_SKIP() << "a PID namespace needs root";
  }
  ASSERT_EQ(pipe(said), 0);
  const pid_t writer =
      startAlone({"brine_test", "--open", directory.c_str(), text(said[1]).c_str()});
  close(said[1]);
  EXPECT_THAT(textFrom(said[0]), AllOf(HasSubstr("PID namespace"), HasSubstr("share")));
  waitpid(writer, nullptr, 0);
  EXPECT_EQ(write(hold[1], "e", 1), 1);
  waitpid(reader, nullptr, 0);
  for (const int end : {ready[0], said[0], hold[0], hold[1]}) close(end);
  EXPECT_EQ(kept(), "kept");
}

TEST_F(OpeningTest, AnotherBootsStoreIsKeptAsideOnce) {
  for (const char* boot : {"first", "second", "third"}) {
    SCOPED_TRACE(boot);
    options.bootId = boot;
    if (const auto error = refusal()) {
      EXPECT_EQ(error->trouble, Trouble::otherBoot);
      EXPECT_THAT(error->what(), HasSubstr("boot"));
      std::string place;
      Store::rebuild(options, error->trouble, &place);
      EXPECT_EQ(place, directory + ".earlier-boot");
      EXPECT_TRUE(fs::exists(place + "/brine.mdb"));
    }
    EXPECT_EQ(kept(), "(none)");
    fill();
    EXPECT_EQ(kept(), "kept");
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(parent.path()), {}), 2);
}

}  // namespace

// The children of the test above: one keeps a snapshot until it is told to end, the other opens the
// store and names the obstacle.
int holdSnapshot(const std::string& directory, int ready, int hold) {
  const auto reader = Reader::open(directory);
  const auto snapshot = reader->snapshot();
  char byte = 'r';
  if (write(ready, &byte, 1) != 1) return 1;
  close(ready);
  return read(hold, &byte, 1) == 1 ? 0 : 1;
}

int openAndSay(const std::string& directory, int said) {
  std::string text = "opened";
  try {
    Store::open({.directory = directory});
  } catch (const StoreError& error) {
    text = error.what();
  }
  return write(said, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
}

}  // namespace Brine
