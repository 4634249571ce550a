// The words in which failures are asked for.
#include "forwarder/follow/Rules.h"

#include <gtest/gtest.h>

#include "forwarder/base/Answer.h"

namespace Forwarder {
namespace {

TEST(Rules, AreTheCommandsThatMakeThem) {
  const struct {
    const char* what;
    std::vector<std::pair<const char*, const char*>> commands;
    const char* rules;  // without the four lines that are always there
  } cases[] = {
      {"capacity", {{"capacity", "t=5"}, {"capacity", "*=9"}}, "capacity *=9\ncapacity t=5\n"},
      {"capacity undone", {{"capacity", "t=5"}, {"capacity", "t=none"}}, ""},
      {"a table",
       {{"fail-table", "t"}, {"fail-table", "u"}, {"fail-table", "t off"}},
       "fail-table u\n"},
      {"a key", {{"fail-key", "t:ipv6_dst=2001:db8::/32"}}, "fail-key t:ipv6_dst=2001:db8::/32\n"},
      {"a key of columns, twice",
       {{"fail-key", "t: vrf=1, port=2"}, {"fail-key", "t:vrf=1 port=2"}},
       "fail-key t:vrf=1 port=2\n"},
      {"a key undone", {{"fail-key", "t:vrf=1"}, {"fail-key", "t:vrf=1  off"}}, ""},
      {"all undone", {{"fail-key", "t:vrf=1"}, {"fail-table", "t"}, {"clear", ""}}, ""},
  };
  const std::string always = rulesText(Rules());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Rules rules;
    for (const auto& [name, argument] : c.commands) EXPECT_TRUE(applyRule(rules, name, argument));
    EXPECT_EQ(rulesText(rules), c.rules + always);
  }
  Rules rules;
  for (const auto& [name, argument] :
       {std::pair{"fail-every", "7"}, {"fail-code", "8"}, {"latency", "250"}, {"silent", "on"}}) {
    EXPECT_TRUE(applyRule(rules, name, argument));
  }
  EXPECT_EQ(rulesText(rules), "fail-every 7\nfail-code 8\nlatency 250\nsilent on\n");
}

TEST(Rules, RefusedOnesNameTheirFaultAndChangeNothing) {
  const std::pair<const char*, const char*> cases[] = {
      {"capacity", "t"},         {"capacity", "=5"},         {"capacity", "t=-1"},
      {"capacity", "t=5x"},      {"capacity", ""},           {"fail-table", ""},
      {"fail-key", "t"},         {"fail-key", "t:"},         {"fail-key", "t:vrf"},
      {"fail-key", ":vrf=1"},    {"fail-key", "t:=1"},       {"fail-every", "often"},
      {"fail-every", "-1"},      {"fail-code", "0"},         {"fail-code", "65536"},
      {"latency", "1.5"},        {"latency", "99999999999"}, {"silent", "maybe"},
      {"fail-key", "t:vrf=1 x"},
  };
  for (const auto& [name, argument] : cases) {
    SCOPED_TRACE(std::string(name) + ' ' + argument);
    Rules rules;
    try {
      applyRule(rules, name, argument);
      ADD_FAILURE() << "accepted";
    } catch (const CommandError& e) {
      EXPECT_TRUE(std::string(e.what()).starts_with(name)) << e.what();
    }
    EXPECT_EQ(rulesText(rules), rulesText(Rules()));
  }
  Rules rules;
  EXPECT_FALSE(applyRule(rules, "explode", ""));
}

TEST(Rules, ATablesOwnCapacityGoesBeforeTheStar) {
  Rules rules;
  EXPECT_EQ(rules.capacity("t"), std::nullopt);
  applyRule(rules, "capacity", "*=3");
  applyRule(rules, "capacity", "t=7");
  EXPECT_EQ(rules.capacity("t"), 7u);
  EXPECT_EQ(rules.capacity("u"), 3u);
}

}  // namespace
}  // namespace Forwarder
