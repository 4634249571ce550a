// The decisions of policies: who may do what, and which rule says so.
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <sstream>

#include "access/EntityTable.h"
#include "access/PolicyText.h"
#include "p4/config/v1/p4info.pb.h"

namespace Access {
namespace {

constexpr const char* fabric = R"json({
  "name": "fabric",
  "deny_rules": [
    {"name": "guests are out", "source": {"principals": ["spiffe://x/guest/*"]}},
    {"name": "no pushes at night", "source": {"principals": ["*/night"]},
     "request": {"paths": ["/p4.v1.P4Runtime/SetForwardingPipelineConfig"]}},
    {"name": "secrets", "request": {"tables": ["*secret"], "operations": ["read"]}},
    {"name": "b is no judge", "source": {"principals": ["b"]},
     "request": {"roles": ["court"], "election": true}},
    {"name": "a is not in hell", "source": {"principals": ["admin"]}, "request": {"roles": ["hell"]}}
  ],
  "allow_rules": [
    {"name": "admin", "source": {"principals": ["admin", "spiffe://x/*"]}},
    {"name": "monitors read", "source": {"principals": ["mon-*"]},
     "request": {"operations": ["read"]}},
    {"name": "acl", "source": {"principals": ["acl"]},
     "request": {"roles": ["acl"], "tables": ["c.acl_*"], "counters": ["*"]}},
    {"name": "each its own", "source": {"principals": ["own-*"]},
     "request": {"roles": ["r*"], "tables": ["@p4runtime_role(\"{role}\")"]}},
    {"name": "packets", "source": {"principals": ["punt"]},
     "request": {"roles": [""], "operations": ["packet_in", "packet_out"]}},
    {"name": "watch", "source": {"principals": ["watch"]},
     "request": {"roles": ["*"], "election": false, "operations": ["packet_in"]}},
    {"name": "court", "source": {"principals": ["b"]}, "request": {"roles": ["court"]}},
    {"name": "anybody may ask", "request": {"paths": ["/p4.v1.P4Runtime/Capabilities"]}},
    {"name": "replication", "source": {"principals": ["pre"]},
     "request": {"packet_replication": ["multicast_groups"], "entities": ["@shared"]}}
  ]
})json";

constexpr const char* program = R"text(
  tables { preamble { id: 1 name: "c.acl_in" alias: "acl_in"
                      annotations: "@p4runtime_role(\"r1\")" } }
  tables { preamble { id: 2 name: "c.route" alias: "route"
                      annotations: " @p4runtime_role ( \"r2\" ) " annotations: "@shared" } }
  tables { preamble { id: 3 name: "c.acl_secret" } }
  counters { preamble { id: 4 name: "c.hits" structured_annotations {
    name: "p4runtime_role" expression_list { expressions { string_value: "r1" } } } } }
  action_profiles { preamble { id: 5 name: "c.acl_ways" } })text";

const Object* objectNamed(const std::string& name) {
  static const std::vector<Object> objects = [] {
    p4::config::v1::P4Info p4Info;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(program, &p4Info));
    std::vector<Object> objects = objectsOf(p4Info);
    objects.push_back(replicationObject(multicastGroups));
    objects.push_back(replicationObject(cloneSessions));
    return objects;
  }();
  for (const Object& object : objects) {
    if (object.name == name) return &object;
  }
  ADD_FAILURE() << "no object " << name;
  return nullptr;
}

// "call Write", "claim", "contest", "push", "read c.acl_in".
Verdict verdict(const std::string& identity, std::optional<std::string_view> role,
                const std::string& does) {
  static const auto policy = policyOf(fabric, "fabric.json");
  std::istringstream words(does);
  std::string verb;
  std::string noun;
  words >> verb >> noun;
  const std::string path = noun.starts_with('/') ? noun : "/p4.v1.P4Runtime/" + noun;
  Question question{Question::Kind::operation, identity, path, role};
  if (verb == "call") question.kind = Question::Kind::call;
  if (verb == "claim") question.kind = Question::Kind::claim;
  if (verb == "contest") question.kind = Question::Kind::contest;
  if (verb == "write") question.operation = Operation::write;
  if (verb == "push") question.operation = Operation::push;
  if (verb == "packet_in") question.operation = Operation::packetIn;
  if (verb == "packet_out") question.operation = Operation::packetOut;
  if (verb == "write" || verb == "read") question.object = objectNamed(noun);
  return policy->decide(question);
}

TEST(Policy, DecidesByIdentityRoleAndObject) {
  const std::optional<std::string_view> anyRole;
  const struct {
    const char* identity;
    std::optional<std::string_view> role;
    const char* does;
    bool allowed;
    const char* rule;  // empty: none
  } cases[] = {
      {"admin", "", "write c.route", true, "admin"},
      {"admin", "x", "push", true, "admin"},
      {"admin", "x", "contest", true, "admin"},
      {"admin", "hell", "claim", false, "a is not in hell"},
      {"admin", "hell", "write c.route", false, "a is not in hell"},
      {"admin", anyRole, "call Write", true, "admin"},
      {"admin", anyRole, "read c.route", true, "admin"},  // in all roles but one
      {"admin", "", "read c.acl_secret", false, "secrets"},
      {"admin", "", "write c.acl_secret", true, "admin"},
      {"spiffe://x/ctl", "", "write c.route", true, "admin"},
      {"spiffe://x/guest/1", "", "write c.route", false, "guests are out"},
      {"spiffe://x/guest/1", anyRole, "call Capabilities", false, "guests are out"},
      {"spiffe://x/night", "", "push", false, "no pushes at night"},
      {"spiffe://x/night", anyRole, "call SetForwardingPipelineConfig", false,
       "no pushes at night"},
      {"spiffe://x/night", "", "write c.route", true, "admin"},
      {"stranger", "", "write c.route", false, ""},
      {"stranger", anyRole, "call Write", false, ""},
      {"stranger", anyRole, "call Capabilities", true, "anybody may ask"},
      {"", anyRole, "call Capabilities", true, "anybody may ask"},
      {"", "", "claim", false, ""},

      {"mon-1", "", "read c.route", true, "monitors read"},
      {"mon-1", "", "write c.route", false, ""},
      {"mon-1", anyRole, "call Read", true, "monitors read"},
      {"mon-1", anyRole, "call GetForwardingPipelineConfig", true, "monitors read"},
      {"mon-1", anyRole, "call Write", false, ""},
      {"mon-1", "", "claim", true, "monitors read"},
      {"mon-1", "", "contest", false, ""},
      {"mon-1", "", "read c.acl_secret", false, "secrets"},

      {"acl", "acl", "contest", true, "acl"},
      {"acl", "", "claim", false, ""},
      {"acl", "acl", "write c.acl_in", true, "acl"},
      {"acl", "acl", "write c.hits", true, "acl"},
      {"acl", "acl", "write c.acl_ways", false, ""},  // a profile
      {"acl", "acl", "write c.route", false, ""},
      {"acl", "", "write c.acl_in", false, ""},
      {"acl", "acl", "push", false, ""},
      {"acl", "acl", "packet_out", false, ""},
      {"acl", anyRole, "read c.acl_in", true, "acl"},
      {"acl", anyRole, "read c.acl_secret", false, "secrets"},

      {"own-1", "r1", "write c.acl_in", true, "each its own"},
      {"own-1", "r1", "write c.route", false, ""},
      {"own-1", "r2", "write c.route", true, "each its own"},
      {"own-1", "s1", "write c.acl_in", false, ""},
      {"own-1", "r1", "write c.hits", false, ""},  // tables alone
      {"own-1", anyRole, "read c.route", true, "each its own"},
      {"own-1", anyRole, "read c.hits", false, ""},

      {"punt", "", "packet_in", true, "packets"},
      {"punt", "r", "packet_in", false, ""},  // "" is the default role alone
      {"punt", "", "contest", true, "packets"},
      {"punt", "", "write c.route", false, ""},
      {"watch", "r", "claim", true, "watch"},
      {"watch", "", "claim", false, ""},  // "*" is every role with a name
      {"watch", "r", "contest", false, ""},
      {"b", "court", "claim", true, "court"},
      {"b", "court", "contest", false, "b is no judge"},
      {"b", "court", "write c.route", true, "court"},
      {"pre", "", "write multicast_groups", true, "replication"},
      {"pre", "", "write clone_sessions", false, ""},
      {"pre", "", "read c.route", true, "replication"},
      {"pre", "", "read c.acl_in", false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.identity) + " in '" + std::string(c.role.value_or("any")) +
                 "': " + c.does);
    const Verdict decided = verdict(c.identity, c.role, c.does);
    EXPECT_EQ(decided.allowed, c.allowed);
    EXPECT_EQ(decided.rule ? decided.rule->name : "", c.rule);
  }
}

// The monitoring shows all tables, whatever their names.
TEST(Policy, MonitoringIsForThoseWhoMayReadEverything) {
  const struct {
    const char* what;
    const char* deny;
    const char* allow;
    bool allowed;
  } cases[] = {
      {"no rule", "", R"({"source": {"principals": ["other"]}})", false},
      {"an administrator", "", "{}", true},
      {"readers of everything", "", R"({"request": {"operations": ["read"]}})", true},
      {"writers", "", R"({"request": {"operations": ["write"]}})", false},
      {"readers of a table", "", R"({"request": {"tables": ["acl"]}})", false},
      {"readers in a role", "", R"({"request": {"roles": ["acl"]}})", false},
      {"everybody for the path", "", R"({"request": {"paths": ["/metrics"]}})", true},
      {"everybody for another path", "", R"({"request": {"paths": ["/rows.json"]}})", false},
      {"every call of P4Runtime", "", R"({"request": {"paths": ["/p4.v1.P4Runtime/*"]}})", false},
      {"a path is denied", R"({"request": {"paths": ["/metrics"]}})", "{}", false},
      {"another path is denied", R"({"request": {"paths": ["/rows.json"]}})", "{}", true},
      {"a table is denied", R"({"request": {"tables": ["secret"]}})", "{}", false},
      {"writes of a table are denied",
       R"({"request": {"tables": ["secret"], "operations": ["write"]}})", "{}", true},
      {"a role is denied", R"({"request": {"roles": ["x"]}})", "{}", false},
      {"reading in each role is denied",
       R"({"request": {"roles": ["", "*"], "operations": ["read"]}})", "{}", false},
      {"writing in a role is denied", R"({"request": {"roles": ["x"], "operations": ["write"]}})",
       "{}", true},
      {"Read is denied", R"({"request": {"paths": ["/p4.v1.P4Runtime/Read"]}})",
       R"({"request": {"paths": ["/metrics"]}})", false},
      {"Write is denied", R"({"request": {"paths": ["/p4.v1.P4Runtime/Write"]}})", "{}", true},
      {"elections are denied", R"({"request": {"election": true}})", "{}", true},
      {"it is denied altogether", R"({"source": {"principals": ["p*"]}})", "{}", false},
  };
  const auto named = [](std::string rule) {
    return rule.empty() ? rule : R"({"name": "r")" + (rule == "{}" ? "}" : ", " + rule.substr(1));
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto policy = policyOf(R"({"name": "p", "deny_rules": [)" + named(c.deny) +
                                     R"(], "allow_rules": [)" + named(c.allow) + "]}",
                                 "p.json");
    EXPECT_EQ(policy->allows({Question::Kind::call, "prometheus", "/metrics"}), c.allowed);
  }
}

TEST(Policy, PatternsAreExactOrHaveOneStarAtAnEnd) {
  const struct {
    const char* pattern;
    const char* name;
    bool matches;
  } cases[] = {{"a", "a", true},    {"a", "ab", false}, {"a*", "ab", true},  {"a*", "a", true},
               {"a*", "ba", false}, {"*a", "ba", true}, {"*a", "ab", false}, {"*", "x", true},
               {"*", "", false},    {"", "", true},     {"", "x", false}};
  for (const auto& c : cases) {
    EXPECT_EQ(Pattern(c.pattern).matches(c.name), c.matches) << c.pattern << " and " << c.name;
  }
}

TEST(Policy, ATableOfDecisionsHasThoseOfTheRules) {
  const auto policy = policyOf(fabric, "fabric.json");
  const std::vector<Object> objects{*objectNamed("c.acl_in"), *objectNamed("c.route")};
  const EntityTable table(objects, [&](Operation operation, const Object& object) {
    return policy->allows({Question::Kind::operation, "acl", "", "acl", operation, &object});
  });
  EXPECT_TRUE(table.takes(Operation::write, 1));
  EXPECT_FALSE(table.takes(Operation::write, 2));
  EXPECT_FALSE(table.takes(Operation::read, 2));
  EXPECT_TRUE(table.takes(Operation::write, 999));  // not in the P4Info: refused as such
  EXPECT_FALSE(table.takesMulticastGroups(Operation::read));
}

}  // namespace
}  // namespace Access
