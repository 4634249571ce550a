// 'korvel pipeline' as people type it: what each command prints, and its exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace {

using testing::HasSubstr;

class PipelineCommandTest : public testing::Test {
 protected:
  std::string written(const std::string& name, const std::string& contents) const {
    std::ofstream(folder_.file(name), std::ios::binary) << contents;
    return folder_.file(name);
  }
  static TestSupport::CommandResult korvel(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {TestSupport::binaryPath("korvel"), "pipeline"});
    return TestSupport::run(arguments);
  }

  const TestSupport::TempDir folder_;
};

TEST_F(PipelineCommandTest, SaysWhatIsWrongAndTheWayOut) {
  const std::string router = KORVEL_EXAMPLES "/router/router.p4info.txtpb";
  const std::string entries = KORVEL_EXAMPLES "/router/router.entries.json";
  const std::string good = folder_.file("good");
  const std::string out = folder_.file("out");
  const std::string action = "actions { preamble { id: 16777217 name: \"a\" } }";
  const std::string tables = R"(tables { preamble { id: 33554433 name: "c.plain" }
    match_fields { id: 1 name: "f" bitwidth: 8 other_match_type: "odd" }
    const_default_action_id: 16777217 action_refs { id: 16777217 } })";
  const std::string noTables = written("noTables", action);
  const std::string plain = written("plain", action + tables);
  const std::string half = folder_.file("half");
  const std::string program = written("program", R"({"header_types": [], "parsers": []})");
  const std::string comma = written("comma", "{\"tables\": []\n \"actions\": []}");
  const auto build = [&](const std::string& p4Info, std::vector<std::string> more) {
    more.insert(more.begin(), {"build", "--p4info", p4Info});
    return more;
  };
  const struct {
    const char* what;
    std::vector<std::string> arguments;
    int code;
    std::string says;  // on either output
  } cases[] = {
      {"a good build", build(router, {"--device-id", "0", "--entries", entries, "-o", good}), 0,
       ""},
      {"its check", {"check", good}, 0, good + ": nothing to object to\n"},
      {"for programs", {"check", "--json", good}, 0, "\"runs\":\ttrue"},
      {"its page", {"show", good}, 0, " for device 0\n"},
      {"for programs", {"show", "--json", good}, 0, "\"device_id\":\t\"0\""},
      {"a table of no use", build(plain, {"--device-id", "1", "-o", half}), 0,
       "warning: table c.plain: cannot be programmed: match field \"f\""},
      {"its check", {"check", half}, 0, half + ": runs, without what the warnings name\n"},
      {"its page", {"show", half}, 0, "1 table (1 of them cannot be programmed)"},
      {"no tables", build(noTables, {"--device-id", "1", "-o", out}), 1,
       "error: P4Info: has no tables; the agent needs one\n" + out + " was not written\n"},
      {"no file", build(out, {"--device-id", "1", "-o", out}), 1,
       "korvel: " + out + ": cannot be read: No such file or directory\n"},
      {"the other file of the compiler", build(program, {"--device-id", "1", "-o", out}), 1,
       "no P4Info: it is the compiler's JSON for a software switch; give the P4Info"},
      {"a comma missing", build(comma, {"--device-id", "1", "-o", out}), 1,
       comma + ":2:2: not JSON: a comma or a colon is missing before \"actions\""},
      {"an entries file that is none",
       build(router, {"--device-id", "1", "-o", out, "--entries", comma}), 1,
       comma + ":2:2: not JSON: a comma"},
      {"a P4Info for entries", build(router, {"--device-id", "1", "-o", out, "--entries", router}),
       1, router + ": neither JSON entries nor the text of a p4.v1.WriteRequest"},
      {"nowhere to write to", build(router, {"--device-id", "1", "-o", out + "/x"}), 1,
       out + "/x: cannot be written: No such file or directory"},
      {"a device id of 33 bits", build(router, {"--device-id", "4294967296", "-o", out}), 2,
       "'4294967296' is no device id; expected a number from 0 to 4294967295"},
      {"no output", build(router, {"--device-id", "1"}), 2,
       "--output is required; see 'korvel pipeline build --help'"},
      {"a P4Info in place of a pipeline",
       {"check", router},
       1,
       "it is a P4Info; make a pipeline file of it with 'korvel pipeline build --p4info FILE"},
      {"the same for programs", {"check", "--json", router}, 1, "\"runs\":\tfalse"},
      {"the same, shown", {"show", router}, 1, "no pipeline file: it is a P4Info"},
      {"a folder", {"check", folder_.path()}, 1, folder_.path() + ": is a directory"},
      {"an option without its value", {"build", "-o"}, 2, "--output needs a value; see"},
      {"nothing to check", {"check"}, 2, "FILE is required; see 'korvel pipeline check --help'"},
      {"a word that is none",
       {"chek", good},
       2,
       "'chek' is no subcommand; see 'korvel pipeline --help'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto result = korvel(c.arguments);
    EXPECT_EQ(result.exit.code, c.code);
    EXPECT_THAT(result.output + result.error, HasSubstr(c.says));
    EXPECT_EQ(result.output + result.error == "", c.says == "") << result.error;
    if (c.code == 2) {
      EXPECT_EQ(result.output, "");
    }
  }
}

}  // namespace
