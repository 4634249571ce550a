// The command line of `korvel switch`: what scripts for other v1model switches write is understood.
#include "cli/switch/SwitchOptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "tests/support/TempDir.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

// Of words that blanks separate.
SwitchOptions parsed(const std::string& line) {
  CLI::App app;
  CLI::App* command = app.add_subcommand("switch");
  SwitchOptions options;
  addSwitchOptions(*command, options);
  std::vector<std::string> words{"switch"};
  std::istringstream stream(line);
  for (std::string word; stream >> word;) words.push_back(word);
  words = plainSwitchWords(*command, words);
  std::reverse(words.begin(), words.end());
  app.parse(words);
  checkSwitchOptions(options);
  return options;
}

// "" when there is none.
std::string refusal(const std::string& line) try {
  parsed(line);
  return "";
} catch (const CLI::ParseError& e) {
  return e.what();
}

TEST(SwitchOptions, UnderstandACommandLineOfMininet) {
  const TestSupport::TempDir directory;
  const SwitchOptions options = parsed("-i 1@s1-eth1 -i 2@s1-eth2 --pcap " + directory.path() +
                                       " --nanolog ipc:///tmp/log.ipc --device-id 3 --no-p4 "
                                       "--log-console --thrift-port 9090 -Ldebug "
                                       "-- --grpc-server-addr 0.0.0.0:50051 --cpu-port 255 "
                                       "--insecure");
  EXPECT_THAT(options.interfaces, ElementsAre(Pair(1u, "s1-eth1"), Pair(2u, "s1-eth2")));
  EXPECT_EQ(options.pcapDirectory, directory.path());
  EXPECT_EQ(options.deviceId, 3u);
  EXPECT_TRUE(options.noProgram);
  EXPECT_TRUE(options.logsToConsole);
  EXPECT_EQ(options.server.host, "0.0.0.0");
  EXPECT_EQ(options.server.port, 50051);
  EXPECT_EQ(options.cpuPort, 255u);
  EXPECT_THAT(options.warnings,
              testing::UnorderedElementsAre(HasSubstr("--nanolog is ignored: "),
                                            HasSubstr("--thrift-port is ignored: "),
                                            HasSubstr("--log-level is ignored: ")));
}

TEST(SwitchOptions, SpellingsMeanTheSame) {
  const struct {
    const char* what;
    const char* line;
  } cases[] = {
      {"one group", "-i 0@veth0 --cpu-port 510 --grpc-server-addr [::1]:700 --pcap=. p.json"},
      {"two groups", "-i 0@veth0 --pcap=. p.json -- --cpu-port 510 --grpc-server-addr [::1]:700"},
      {"the file first", "p.json -i 0@veth0 --pcap . --grpc-server-addr=[::1]:700 --cpu-port=510"},
      {"beginnings", "p.json --int 0@veth0 --pc . --grpc-server-a=[::1]:700 --cpu 510"},
      {"values joined", "p.json -i0@veth0 --grpc-server-addr [::1]:700 --cpu-port 510 --pcap"},
      {"no directory", "p.json --pcap --interface=0@veth0 --cpu 510 --grpc-server-addr [::1]:700"},
      {"the last counts",
       "-i 0@eth9 -i 0@veth0 --pcap . --cpu 1 --cpu 510 --grpc-server-addr [::1]:700 p.json"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(refusal(c.line), "");
    const SwitchOptions options = parsed(c.line);
    EXPECT_THAT(options.interfaces, ElementsAre(Pair(0u, "veth0")));
    EXPECT_EQ(options.cpuPort, 510u);
    EXPECT_EQ(options.server.host, "::1");
    EXPECT_EQ(options.server.port, 700);
    EXPECT_EQ(options.pcapDirectory, ".");
    EXPECT_EQ(options.program, "p.json");
    EXPECT_THAT(options.warnings, IsEmpty());
  }
  EXPECT_EQ(parsed("--no-p4 --grpc-server-addr localhost:1").server.host, "127.0.0.1");
  EXPECT_EQ(parsed("--no-p4").server.text, "127.0.0.1:9559");
}

TEST(SwitchOptions, AreRefusedWithAReason) {
  const struct {
    const char* line;
    const char* reason;
  } cases[] = {
      {"", "--no-p4 to begin without one"},
      {"--no-p4 p.json", "p.json is a program"},
      {"p.json q.json", "not expected: q.json"},
      {"--no-p4 --colour", "not expected: --colour"},
      {"--no-p4 --log", "--log-console or --log-file"},
      {"--no-p4 -i", "--interface"},
      {"--no-p4 -i veth0", "veth0 is no PORT@INTERFACE"},
      {"--no-p4 -i x@veth0", "x is no number from 0 to 2147483647"},
      {"--no-p4 -i 2147483648@veth0", "no number from 0"},
      {"--no-p4 -i -1@veth0", "no number from 0"},
      {"--no-p4 -i 1@", "is no name of an interface"},
      {"--no-p4 -i 1@interface-of-16-ch", "is no name of an interface"},
      {"--no-p4 -i 1@a -i 2@a", "a is given to ports 1 and 2"},
      {"--no-p4 --cpu-port 0", "0 is no number from 1"},
      {"--no-p4 --cpu-port 5 -i 5@a", "port 5 is interface a already"},
      {"--no-p4 --device-id 4294967296", "no number from 0 to 4294967295"},
      {"--no-p4 --priority-queues 0", "0 is no number from 1"},
      {"--no-p4 --grpc-server-addr 9559", "is no ADDRESS:PORT"},
      {"--no-p4 --grpc-server-addr 1.2.3.4:0", "0 is no number from 1 to 65535"},
      {"--no-p4 --grpc-server-addr ::1:9559", "write an IPv6 address in brackets"},
      {"--no-p4 --pcap /no/such/place", "is no directory"},
      {"--no-p4 --log-console --log-file f", "leave out --log-console"},
      {"--no-p4 --grpc-server-ssl", "TLS wants --grpc-server-cert"},
      {"--no-p4 --grpc-server-cert a --grpc-server-key b", "TLS wants --grpc-server-cert"},
      {"--no-p4 --grpc-server-cert a --grpc-server-key b --grpc-server-cacert c --insecure",
       "contradicts TLS"},
      {"--no-p4 --grpc-server-addr 0.0.0.0:9559", "--insecure to let everybody in"},
      {"--no-p4 --dp-grpc-server-addr 127.0.0.1:1", "packets come from interfaces alone"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    EXPECT_THAT(refusal(c.line), HasSubstr(c.reason));
  }
}

TEST(SwitchOptions, TakeAllThatMeansNothingHereWithALineEach) {
  const std::string values =
      "--thrift-port 1 -L trace --log-file-max-size 1 --log-file-max-files 1 --dump-packet-data 9 "
      "--nanolog a --notifications-addr a --debugger-addr a --restore-state f --max-port-count 9 "
      "--max-mc-groups 9 --max-l1-entries 9 --max-l2-entries 9 --load-modules a.so,b.so ";
  const SwitchOptions options =
      parsed(values + "--log-flush --debugger --enable-swap --disable-swap --no-p4");
  EXPECT_THAT(options.warnings, testing::SizeIs(18));
  EXPECT_THAT(options.warnings, testing::Each(HasSubstr(" is ignored: ")));
}

}  // namespace
