// The account of who did what: its lines, and the bound of its files.
#include "P4Runtime/agent/AccountLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "tests/support/TempDir.h"

namespace P4Runtime {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::SizeIs;

PIGrpcServerAccount_t account() {
  return {.what = "Write",
          .identity = "spiffe://lab/a",
          .address = "ipv4:192.0.2.1:5000",
          .device_id = 1,
          .role = "",
          .detail = "3 updates",
          .code = 0,
          .is_refused = 0,
          .message = "",
          .duration_us = 512};
}

PIGrpcServerAccount_t refusal(const char* identity) {
  PIGrpcServerAccount_t refused = account();
  refused.identity = identity;
  refused.code = 7;
  refused.is_refused = 1;
  refused.message = "not primary";
  return refused;
}

std::vector<std::string> linesOf(const std::string& path) {
  std::ifstream stream(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

TEST(AccountLine, SaysWhoDidWhatInOneLineWhateverTheClientSends) {
  const std::chrono::system_clock::time_point when{std::chrono::microseconds(1'500'000)};
  EXPECT_EQ(accountLine({account(), when}),
            "1970-01-01T00:00:01.500000Z Write OK spiffe://lab/a ipv4:192.0.2.1:5000 device 1 role "
            "default: 3 updates, 512 us");
  auto refused = refusal("");
  refused.role = "evil\n1970 Write OK root";
  refused.message = "not primary\x1b[2J";
  const std::string longText(5000, 'x');
  refused.detail = longText.c_str();
  const std::string line = accountLine({refused, when});
  EXPECT_EQ(line.find_first_of("\n\x1b"), std::string::npos);
  EXPECT_THAT(line, HasSubstr("PERMISSION_DENIED anybody"));
  EXPECT_THAT(line, HasSubstr("xxx..., 512 us; not primary"));
  EXPECT_LT(line.size(), 500u);
}

TEST(AccountLine, ANameIsNotTakenForAnotherPartOfTheLine) {
  const struct {
    const char* identity;
    const char* address;
    const char* role;
    const char* shown;
  } cases[] = {
      {"agent", "ipv4:192.0.2.1:5000", "x", "OK \"agent\" ipv4:192.0.2.1:5000 device 1 role x: "},
      {"agent", "own", "", "OK agent own device 1 role default: "},
      {"anybody", "a", "default", "OK \"anybody\" a device 1 role \"default\": "},
      {"b", "a", "x: 9 updates, 1 us;", "role \"x: 9 updates, 1 us;\": 3 updates"},
      {"b", "a", "x:", "role \"x:\": 3 updates"},
      {"b", "a", "say \"x\"", "role \"say 'x'\": 3 updates"},
  };
  for (const auto& c : cases) {
    auto told = account();
    told.identity = c.identity;
    told.address = c.address;
    told.role = c.role;
    EXPECT_THAT(accountLine({told, {}}), HasSubstr(c.shown));
  }
}

TEST(AccountLog, KeepsTheNewestLinesWithinItsBound) {
  const TestSupport::TempDir directory;
  const std::string path = directory.file("accounts-writes.log");
  {
    AccountLog log(directory.path(), {.fileBytes = 1000});
    for (int i = 0; i < 100; ++i) log.add(account());
  }
  AccountLog again(directory.path(), {.fileBytes = 1000});
  auto last = account();
  last.detail = "the last";
  again.add(last);
  again.flush();
  EXPECT_LE(std::filesystem::file_size(path), 1000u);
  EXPECT_LE(std::filesystem::file_size(path + ".1"), 1000u);
  EXPECT_THAT(linesOf(path + ".1"), SizeIs(testing::Ge(5u)));
  EXPECT_THAT(linesOf(path).back(), EndsWith("the last, 512 us"));
}

TEST(AccountLog, NeitherWritesNorRefusalsPushOutWhoElseCameBy) {
  const TestSupport::TempDir directory;
  AccountLog log(directory.path(), {.fileBytes = 4000, .calls = 10});
  auto push = account();
  push.what = "push";
  log.add(push);
  for (int i = 0; i < 1000; ++i) {
    log.add(account());
    log.add(refusal(""));
    log.add(refusal("spiffe://lab/a"));
  }
  log.add(push);
  log.add(refusal("spiffe://lab/b"));
  log.flush();
  EXPECT_THAT(linesOf(directory.file("accounts.log")),
              testing::ElementsAre(HasSubstr("push OK"), HasSubstr("push OK")));
  const std::vector<std::string> refused = linesOf(directory.file("accounts-refused.log"));
  ASSERT_THAT(refused, SizeIs(21));  // each identity has its own number
  EXPECT_THAT(refused[18], HasSubstr("not shown for a while"));
  EXPECT_THAT(refused.back(), HasSubstr("spiffe://lab/b"));
}

TEST(AccountLog, CountsTheLinesForWhichItHasNoRoom) {
  const TestSupport::TempDir directory;
  AccountLog log(directory.path(), {.waiting = 0});
  for (int i = 0; i < 3; ++i) log.add(account());
  log.flush();
  EXPECT_THAT(linesOf(directory.file("accounts.log")),
              testing::ElementsAre(HasSubstr(" 3 more calls")));
}

}  // namespace
}  // namespace P4Runtime
