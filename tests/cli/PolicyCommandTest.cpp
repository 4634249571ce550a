// 'korvel policy' as people type it: what each command prints, and its exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace {

using testing::HasSubstr;

constexpr const char* policyText = R"({"name": "p",
  "deny_rules": [{"name": "no lag", "request": {"tables": ["*.lag"]}}],
  "allow_rules": [
    {"name": "acl", "source": {"principals": ["a"]},
     "request": {"roles": ["acl"], "tables": ["*.acl", "@nowhere"]}},
    {"name": "all", "source": {"principals": ["root"]}}]})";

TEST(PolicyCommand, SaysWhatAPolicyDecidesAndWhatIsWrong) {
  const TestSupport::TempDir folder;
  const std::string policy = folder.file("policy.json");
  std::ofstream(policy) << policyText;
  const std::string broken = folder.file("broken.json");
  std::ofstream(broken) << R"({"name": "p", "allow_rules": [{"name": "r", "sources": {}}]})";
  const std::string router = KORVEL_EXAMPLES "/router/router.p4info.txtpb";
  using Words = std::vector<std::string>;
  const auto explain = [&](const std::string& identity, Words more) {
    more.insert(more.begin(), {"explain", "--policy", policy, "--identity", identity});
    return more;
  };
  const struct {
    const char* what;
    Words arguments;
    int code;
    std::string says;  // on either output
  } cases[] = {
      {"a good one", {"check", policy}, 0, policy + ": policy \"p\": 1 deny rules, 2 allow rules"},
      {"its objects",
       {"check", policy, "--p4info", router},
       0,
       "allow rule \"acl\" names table ingress.acl\n"},
      {"an object that is not there",
       {"check", policy, "--p4info", router},
       0,
       "warning: allow rule \"acl\": no object of the pipeline is @nowhere"},
      {"a broken one",
       {"check", broken},
       1,
       broken + ": allow rule \"r\": \"sources\" is no key of a rule; did you mean \"source\"?"},
      {"none", {"check", folder.file("none")}, 1, "cannot read the policy: No such file"},
      {"a folder", {"check", folder.path()}, 1, "cannot read the policy: Is a directory"},
      {"a write", explain("a", {"--role", "acl", "--write", "ingress.acl"}), 0,
       "\"a\" in role \"acl\" may write table ingress.acl\n"
       "  to call /p4.v1.P4Runtime/Write: allow rule \"acl\" allows it\n"},
      {"another role", explain("a", {"--write", "ingress.acl"}), 1,
       "\"a\" in the default role may not write table ingress.acl"},
      {"a deny rule", explain("root", {"--read", "ingress.lag"}), 1,
       "to read table ingress.lag: deny rule \"no lag\" denies it"},
      {"by its alias", explain("root", {"--read", "lag", "--p4info", router}), 1,
       "to read table ingress.lag: deny rule"},
      {"a mistyped name", explain("root", {"--read", "ingress.lga", "--p4info", router}), 1,
       "did you mean \"ingress.lag\"?"},
      {"a call", explain("", {"--call", "Write"}), 1,
       "a caller without an identity may not call /p4.v1.P4Runtime/Write\n"},
      {"a push", explain("root", {"--push"}), 0, "may push a pipeline"},
      {"packets", explain("a", {"--role", "acl", "--packet-out"}), 1,
       "to send packets: no rule allows it"},
      {"two wishes", explain("a", {"--push", "--packet-in"}), 2, "see 'korvel policy explain"},
      {"no wish", explain("a", {}), 2, "see 'korvel policy explain"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Words words = c.arguments;
    words.insert(words.begin(), {TestSupport::binaryPath("korvel"), "policy"});
    const TestSupport::CommandResult result = TestSupport::run(words);
    EXPECT_EQ(result.exit.code, c.code) << result.output << result.error;
    EXPECT_THAT(result.output + result.error, HasSubstr(c.says));
  }
}

}  // namespace
