// The texts of policies: broken ones are refused in words, and none does harm.
#include <gmock/gmock.h>

#include <random>

#include "access/PolicyText.h"

namespace {

using Access::PolicyError;
using Access::policyOf;

std::string faultOf(const std::string& text) {
  try {
    policyOf(text, "p.json");
    return "";
  } catch (const PolicyError& e) {
    return e.what();
  }
}

std::string withRule(const std::string& rule) {
  return R"({"name": "p", "allow_rules": [)" + rule + "]}";
}

std::string withRequest(const std::string& request) {
  return withRule(R"({"name": "r", "request": {)" + request + "}}");
}

TEST(PolicyText, FaultsNameFileRuleAndKey) {
  const std::string good = R"({"name": "r"})";
  const struct {
    const char* what;
    std::string text;
    const char* fault;
  } cases[] = {
      {"no JSON", "{\n\"name\": ", "p.json: line 2: this is not JSON"},
      {"no object", "[1]", "p.json: expected an object"},
      {"nothing", "", "p.json: line 1: this is not JSON"},
      {"no name", R"({"allow_rules": []})", "p.json: \"name\" is missing"},
      {"no allow rules", R"({"name": "p"})", "\"allow_rules\" is missing"},
      {"unknown key", R"({"name": "p", "allow_rule": []})",
       "\"allow_rule\" is no key of a policy; did you mean \"allow_rules\"?"},
      {"audit", R"({"name": "p", "allow_rules": [], "audit_logging_options": {}})",
       "audit_logging_options is not supported"},
      {"a rule that is a text", withRule("\"r\""), "p.json: allow rule 1: expected an object"},
      {"a rule without a name", withRule(good + ", {}"), "allow rule 2: \"name\" is missing"},
      {"two of a name", withRule(good + "," + good), "allow rule \"r\": two rules have this name"},
      {"a key twice", withRule(R"({"name": "r", "request": {}, "request": {}})"),
       "\"request\" stands twice"},
      {"unknown key of a rule", withRule(R"({"name": "r", "requests": {}})"),
       "allow rule \"r\": \"requests\" is no key of a rule; did you mean \"request\"?"},
      {"unknown key of a source", withRule(R"({"name": "r", "source": {"users": ["a"]}})"),
       "source: \"users\" is no key of a source; known are principals"},
      {"headers", withRequest(R"("headers": [{"key": "a", "values": ["b"]}])"),
       "allow rule \"r\": request.headers is not supported"},
      {"unknown key of a request", withRequest(R"("tabels": ["a"])"),
       "allow rule \"r\": request: \"tabels\" is no key of a request; did you mean \"tables\"?"},
      {"a text in place of a list", withRequest(R"("tables": "a")"),
       "allow rule \"r\": request.tables: expected a list"},
      {"an empty list", withRequest(R"("roles": [])"), "request.roles: the list is empty"},
      {"a number among texts", withRequest(R"("roles": ["a", 1])"),
       "request.roles: expected a text"},
      {"a star in the middle", withRequest(R"("tables": ["a*b"])"), "\"a*b\": one '*' may stand"},
      {"two stars", withRequest(R"("paths": ["*a*"])"), "\"*a*\": one '*' may stand"},
      {"unknown operation", withRequest(R"("operations": ["packetin"])"),
       "\"packetin\" is no operation; did you mean \"packet_in\"?"},
      {"objects of no operation", withRequest(R"("operations": ["push"], "tables": ["a"])"),
       "objects are named, but neither \"read\" nor \"write\""},
      {"election in words", withRequest(R"("election": "no")"), "expected true or false"},
      {"a deny rule that denies nothing",
       R"({"name": "p", "allow_rules": [],
           "deny_rules": [{"name": "d", "request": {"election": false}}]})",
       "deny rule \"d\": request.election: a deny rule with false"},
      {"no annotation", withRequest(R"("tables": ["@"])"), "\"@\" is no annotation"},
      {"unknown part of replication", withRequest(R"("packet_replication": ["clones"])"),
       "\"clones\" is no part of packet replication"},
      {"a zero byte", withRule(R"({"name": "a\u0000b"})"), "may hold no zero bytes"},
      {"too long", std::string((1 << 20) + 1, ' '), "more than 1 MiB"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_THAT(faultOf(c.text), testing::HasSubstr(c.fault));
  }
}

// Whatever stands in the file: a policy, or one line about the fault.
TEST(PolicyText, AnyTextIsAPolicyOrAFault) {
  const std::string whole = R"json({"name": "p", "deny_rules": [{"name": "d", "request": {"paths":
      ["/p4.v1.P4Runtime/*"]}}], "allow_rules": [{"name": "a", "source": {"principals": ["*"]},
      "request": {"roles": ["", "x*"], "election": true, "operations": ["read", "write"],
      "tables": ["*acl", "@p4runtime_role(\"{role}\")"], "entities": ["@a"]}}]})json";
  ASSERT_EQ(faultOf(whole), "");
  std::mt19937 random(1);
  for (int i = 0; i < 20000; ++i) {
    std::string text = whole.substr(0, i % 3 == 0 ? random() % whole.size() : whole.size());
    for (int changes = static_cast<int>(random() % 4); changes > 0 && !text.empty(); --changes) {
      text[random() % text.size()] = "{}[]\",:@*0 \xff"[random() % 12];
    }
    EXPECT_THAT(faultOf(text), testing::Not(testing::HasSubstr("\n")));
  }
  EXPECT_NE(faultOf(std::string(100000, '[')), "");
}

}  // namespace
