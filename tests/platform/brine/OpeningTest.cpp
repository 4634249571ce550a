// Opening a store: what the system refuses for a while, what others have put in its place, and
// another boot's. Only a store that is lost may be begun anew; all else stays as it was.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "platform/brine/Reader.h"
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
  for (const char* name : {"brine.store", "brine.writer"}) {
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

// A start that found no descriptor left took the store for damaged, and began anew.
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
  std::atomic<bool> isLimited = false;
  std::thread relief([&] {
    while (!isLimited) std::this_thread::yield();
    limitTo(usual);
  });
  limitTo(static_cast<rlim_t>(next));
  isLimited = true;
  EXPECT_EQ(kept(), "kept");
  relief.join();
}

// Before the store was a file of slots, brine.mdb was its name.
TEST_F(OpeningTest, AStoreOfAFormerVersionIsKeptAside) {
  fs::create_directory(directory);
  for (const char* name : {"/brine.mdb", "/brine.mdb-lock"}) std::ofstream(directory + name) << "x";
  const auto error = refusal();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->trouble, Trouble::wrongVersion);
  EXPECT_TRUE(fs::exists(directory + "/brine.mdb"));
  std::string place;
  Store::rebuild(options, error->trouble, &place);
  EXPECT_EQ(fs::file_size(place + "/brine.mdb"), 1u);
  EXPECT_EQ(kept(), "(none)");
  fill();
  EXPECT_EQ(kept(), "kept");
}

TEST_F(OpeningTest, AStoreLargerThanItsLimitServesWhatItHas) {
  fill();
  options.maxBytes = 1;
  EXPECT_EQ(kept(), "kept");
  const auto store = Store::open(options);
  try {
    store->put(store->table("rows"), asBytes("large"), asBytes(std::string(200000, 'l')));
    ADD_FAILURE() << "no limit";
  } catch (const StoreError& error) {
    EXPECT_EQ(error.trouble, Trouble::full);
  }
  store->put(store->table("rows"), asBytes("new"), asBytes("slot"));
  store->commit();
  EXPECT_EQ(store->count(store->table("rows")), 2u);
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
      EXPECT_TRUE(fs::exists(place + "/brine.store"));
    }
    EXPECT_EQ(kept(), "(none)");
    fill();
    EXPECT_EQ(kept(), "kept");
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(parent.path()), {}), 2);
}

}  // namespace
}  // namespace Brine
