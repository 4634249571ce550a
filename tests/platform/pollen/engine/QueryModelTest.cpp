// Random writes, and after each commit every query's output beside SQLite's result for the same
// rows in plain tables.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <random>

#include "tests/platform/pollen/QueryFixture.h"

namespace Pollen {
namespace {

using namespace TestSupport;
using ::testing::HasSubstr;
using Vela::ActivityLock;

struct Case {
  QueryText query;
  const char* method;
};

const std::map<std::string, std::string> all{
    {"r", "route"}, {"h", "hop"}, {"p", "port"}, {"s", "route"}};

std::map<std::string, std::string> only(const char* name) { return {{name, all.at(name)}}; }

const std::vector<Case>& cases() {
  static const char* const one = "incremental: one input";
  static const char* const join = "incremental: join";
  static const char* const complete = "complete evaluation: it";
  static const std::vector<Case> cases{
      {{"rows", "NumberOf", "SELECT vrf, dst, fwd_hop AS n FROM r WHERE action = 7", only("r")},
       one},
      {{"whole", "Route", "SELECT * FROM r WHERE weight < 200", only("r")}, one},
      {{"arrays", "Port", "SELECT port, speed, members FROM p WHERE members <> x''", only("p")},
       one},
      {{"conflicts", "Number", "SELECT fwd_hop AS id, weight AS n FROM r", only("r")}, one},
      {{"bad", "Number",
        "SELECT weight - 3 AS id, CASE vrf WHEN 1 THEN NULL ELSE vrf END AS n "
        "FROM (SELECT * FROM r WHERE weight < 9)",
        only("r")},
       one},
      {{"param",
        "NumberOf",
        "SELECT vrf, dst, weight AS n FROM r WHERE vrf = :vrf OR dst = $dst",
        only("r"),
        {{"vrf", "0x2"}, {"dst", "x'01080000000000000a" + std::string(30, '0') + "'"}}},
       one},
      {{"byKey", "Resolved",
        "SELECT vrf, dst, mac, speed FROM r JOIN h ON r.fwd_hop = h.hop "
        "JOIN p ON p.port = h.port",
        all},
       join},
      {{"comma", "Resolved",
        "SELECT vrf, dst, mac, speed FROM p, h, r WHERE p.port = h.port AND "
        "h.hop = r.fwd_hop AND speed > 5 AND vrf IS NOT 3",
        all},
       join},
      {{"self", "NumberOf",
        "SELECT r.vrf, r.dst, s.weight AS n FROM r JOIN s ON r.vrf = s.vrf "
        "AND r.weight = s.weight AND r.dst < s.dst",
        all},
       join},
      {{"byPrefix", "Number", "SELECT weight AS id, speed + 1 AS n FROM p JOIN r ON r.vrf = p.port",
        all},
       join},
      {{"either", "Number",
        "SELECT r.weight AS id, h.port AS n FROM r JOIN h ON h.hop = r.fwd_hop "
        "OR h.hop = r.weight",
        all},
       join},
      {{"cross", "Number",
        "SELECT hop * 10 + p.port AS id, speed AS n FROM h, p "
        "WHERE h.port < p.port",
        all},
       join},
      {{"outer", "Resolved",
        "SELECT vrf, dst, mac, coalesce(speed, 0) AS speed FROM r JOIN h ON "
        "fwd_hop = hop LEFT JOIN p ON p.port = h.port",
        all},
       complete},
      {{"counted", "Number", "SELECT vrf AS id, count(*) AS n FROM r GROUP BY vrf", only("r")},
       complete},
      {{"distinct", "Number", "SELECT DISTINCT fwd_hop AS id, 1 AS n FROM r", only("r")}, complete},
      {{"sub", "Number",
        "SELECT hop AS id, port AS n FROM h WHERE EXISTS (SELECT 1 FROM r WHERE "
        "r.fwd_hop = h.hop) OR port IN (SELECT port FROM p)",
        all},
       complete},
      {{"limit", "Number", "SELECT hop AS id, port AS n FROM h ORDER BY hop LIMIT 2", only("h")},
       complete},
      {{"union", "Number",
        "SELECT hop AS id, port AS n FROM h UNION ALL "
        "SELECT port, speed FROM p",
        all},
       complete},
      {{"twice", "Number", "SELECT a.hop AS id, b.port AS n FROM h a JOIN h b ON a.port = b.hop",
        only("h")},
       complete},
      {{"chained",
        "NumberOf",
        "SELECT c.n AS vrf, r.dst, r.weight AS n FROM c JOIN r ON "
        "c.id = r.vrf",
        {{"c", "counted"}, {"r", "route"}}},
       join},
      {{"last", "Number", "SELECT n AS id, sum(vrf) AS n FROM c GROUP BY n", {{"c", "chained"}}},
       complete},
  };
  return cases;
}

std::string prefix(int number) {
  const int length = 8 * (1 + number % 3);
  std::string bytes{'\1', static_cast<char>(length), 0, 0, 0, 0, 0, 0, 10, 0, 0};
  if (length > 8) bytes[9] = static_cast<char>(number);
  bytes.resize(24);
  return bytes;
}

class QueryModelTest : public testing::TestWithParam<unsigned> {
 protected:
  void SetUp() override { doStart(); }
  void TearDown() override { tables.reset(); }

  void doStart() {
    tables = std::make_unique<Tables>(directory.path());
    const ActivityLock lock;
    tables->typeIs("Route",
                   "key vrf : U16; key dst : IpGenPrefix; weight : U8; "
                   "action { fwd 7 { hop : U32; } drop 8 { none : Void; } }");
    tables->typeIs("Hop", "key hop : U32; port : U16; mac : EthAddr;");
    tables->typeIs("Port", "key port : U16; speed : U64; members : U32[];");
    tables->typeIs("Number", "key id : U8; n : U64;");
    tables->typeIs("NumberOf", "key vrf : U16; key dst : IpGenPrefix; n : U32;");
    tables->typeIs("Resolved", "key vrf : U16; key dst : IpGenPrefix; mac : EthAddr; speed : U64;");
    tables->tableIs("route", "Route");
    tables->tableIs("hop", "Hop");
    tables->tableIs("port", "Port");
    for (const Case& one : cases()) tables->queryIs(one.query);
  }

  int any(int below) { return static_cast<int>(random() % static_cast<unsigned>(below)); }
  void writeOne() {
    const bool deleted = any(3) == 0;
    switch (any(4)) {
      case 0:
        return tables->write(
            "hop", {int64_t{any(7)}, int64_t{any(6)}, std::string(6, char(any(3)))}, deleted);
      case 1:
        return tables->write("port", {int64_t{any(5)}, int64_t{any(9)}, std::string(4 * any(3), 1)},
                             deleted);
      default:
        const bool drops = any(4) == 0;
        return tables->write("route",
                             {int64_t{any(4)}, prefix(any(7)), int64_t{any(3) ? any(9) : any(256)},
                              int64_t{drops ? 8 : 7}, drops ? Cell() : Cell(int64_t{any(7)})},
                             deleted);
    }
  }
  void writeSome(int most) {
    for (int i = any(most); i >= 0; --i) writeOne();
  }
  // One commit, of some kind; a failed one leaves all rows as they were.
  void commitSome() {
    const ActivityLock lock;
    const int kind = any(8);
    if (kind < 3) return writeSome(3);
    tables->database->batchBegin();
    writeSome(kind < 6 ? 8 : 60);
    tables->store.failing = kind == 6;
    tables->store.writesFailing = kind == 7;
    const bool isStored = tables->database->batchEnd().ok();
    EXPECT_TRUE(kind == 7 || isStored == (kind != 6)) << "no row may have followed";
    tables->store.failing = tables->store.writesFailing = false;
  }
  void expectAll(const std::string& when) {
    for (const Case& one : cases()) {
      ASSERT_EQ(tables->rows(one.query.path), tables->expected(one.query))
          << one.query.path << " " << when << ", seed " << GetParam() << "\n"
          << (Vela::ActivityLock(), tables->sm->publishStatuses(), tables->sm->statusText());
    }
  }

  TempDir directory;
  std::mt19937_64 random{GetParam()};
  std::unique_ptr<Tables> tables;
};

TEST_P(QueryModelTest, OutputsAreWhatTheQueriesMeanAtEveryCommit) {
  tables->settle();
  for (const Case& one : cases()) {
    EXPECT_THAT(tables->status(one.query.path).text(), HasSubstr(one.method)) << one.query.path;
    EXPECT_TRUE(tables->status(one.query.path).active()) << one.query.path;
  }
  for (int commits = 0; commits < 120; ++commits) {
    commitSome();
    expectAll("after commit " + std::to_string(commits));
    if (HasFatalFailure()) return;
  }
}

TEST_P(QueryModelTest, ARestartWritesNoRowAgainAndChangesAtActivationCount) {
  for (int restarts = 0; restarts < 6; ++restarts) {
    for (int i = any(6); i > 0; --i) commitSome();
    if (restarts % 2 == 0) {
      tables->settle();
      expectAll("before restart " + std::to_string(restarts));
    }
    tables.reset();
    doStart();
  }
  tables->settle();
  expectAll("after the restarts");
  tables.reset();
  doStart();
  const uint64_t before = tables->database->lastSequence();
  tables->settle();
  expectAll("after a quiet restart");
  EXPECT_EQ(tables->database->lastSequence(), before);
}

// A writer killed at any instant leaves inputs and outputs of one commit.
TEST_P(QueryModelTest, AKilledWriterLeavesOutputsThatFitTheirInputs) {
  tables.reset();
  int progress[2];
  ASSERT_EQ(pipe(progress), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    doStart();
    tables->settle();
    for (;;) {
      commitSome();
      if (write(progress[1], "x", 1) != 1) _exit(1);
    }
  }
  close(progress[1]);
  char byte = 0;
  for (unsigned i = 0; i < 20 + 3 * GetParam(); ++i) ASSERT_EQ(read(progress[0], &byte, 1), 1);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  close(progress[0]);
  doStart();  // and no turn that could mend anything
  for (const Case& one : cases()) {
    const ActivityLock lock;
    tables->tableIs(one.query.path, one.query.outputType);
  }
  expectAll("after the kill");
}

INSTANTIATE_TEST_SUITE_P(Seeds, QueryModelTest, testing::Range(1u, 9u));

}  // namespace
}  // namespace Pollen
