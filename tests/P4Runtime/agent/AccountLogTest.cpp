// The account of who did what: its lines, and the bound of its files.
#include "P4Runtime/agent/AccountLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/TempDir.h"

namespace P4Runtime {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

PIGrpcServerAccount_t account() {
  return {.what = "Write",
          .identity = "spiffe://lab/a",
          .address = "ipv4:192.0.2.1:5000",
          .device_id = 1,
          .role = "",
          .detail = "3 updates",
          .code = 0,
          .message = "",
          .duration_us = 512};
}

TEST(AccountLine, SaysWhoDidWhatInOneLineWhateverTheClientSends) {
  const std::chrono::system_clock::time_point when{std::chrono::microseconds(1'500'000)};
  EXPECT_EQ(accountLine(account(), when),
            "1970-01-01T00:00:01.500000Z Write OK spiffe://lab/a ipv4:192.0.2.1:5000 device 1 role "
            "default: 3 updates, 512 us");
  auto refused = account();
  refused.identity = "";
  refused.role = "evil\n1970 Write OK root";
  refused.code = 7;
  refused.message = "not primary\x1b[2J";
  const std::string line = accountLine(refused, when);
  EXPECT_EQ(line.find_first_of("\n\x1b"), std::string::npos);
  EXPECT_THAT(line, HasSubstr("PERMISSION_DENIED anybody"));
  EXPECT_THAT(line, HasSubstr("; not primary"));
}

TEST(AccountLog, KeepsTheNewestLinesWithinItsBound) {
  const TestSupport::TempDir directory;
  const std::string path = directory.file("accounts.log");
  {
    AccountLog log(path, 1000);
    for (int i = 0; i < 100; ++i) log.add(account());
  }
  AccountLog again(path, 1000);
  auto last = account();
  last.detail = "the last";
  again.add(last);
  EXPECT_LE(std::filesystem::file_size(path), 1000u);
  EXPECT_LE(std::filesystem::file_size(path + ".1"), 1000u);
  EXPECT_GT(std::filesystem::file_size(path + ".1"), 0u);
  std::ifstream stream(path);
  std::string line, newest;
  while (std::getline(stream, line)) newest = line;
  EXPECT_THAT(newest, EndsWith("the last, 512 us"));
}

}  // namespace
}  // namespace P4Runtime
