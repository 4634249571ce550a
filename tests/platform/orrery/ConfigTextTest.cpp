// Comments of configuration files: what goes, what stays, and that lines keep their numbers.
#include "platform/orrery/ConfigText.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "platform/vela/Json.h"

namespace Orrery {
namespace {

TEST(ConfigText, CommentsAndLastCommasBecomeBlanks) {
  const struct {
    const char* what;
    std::string text;
    std::string json;  // in one line; "": it is no JSON
  } cases[] = {
      {"none", R"({"a": 1})", R"({"a":1})"},
      {"to the end of the line", "{ // x\n\"a\": 1 // \"b\": 2\n}", R"({"a":1})"},
      {"to the end of the file", "{} // x", "{}"},
      {"before the object", "// x\n/* y */ {}", "{}"},
      {"between two marks", "{/* \"b\": */\"a\"/**/:/***/1}", R"({"a":1})"},
      {"marks in strings", R"({"a": "http://x", "b": "/* y */", "//": 1})",
       R"({"a":"http://x","b":"/* y */","//":1})"},
      {"a quote in a string", R"({"a": "x\" // y", "b": "\\"} // z)",
       R"({"a":"x\" // y","b":"\\"})"},
      {"a quote in a comment", "{\"a\": 1 // it's \"\n}", R"({"a":1})"},
      {"a mark in a comment", "{/* // */\"a\": 1, // /*\n\"b\": 2}", R"({"a":1,"b":2})"},
      {"a last comma", R"({"a": [1, 2,], "b": {"c": 3,},})", R"({"a":[1,2],"b":{"c":3}})"},
      {"a last comma before a comment", "{\"a\": 1, // x\n /* y */ }", R"({"a":1})"},
      {"a comma in a string", R"({"a": ",", "b": ",}"})", R"({"a":",","b":",}"})"},
      {"two last commas", R"({"a": 1,,})", ""},
      {"a comma alone", "{,}", ""},
      {"a first comma", R"({, "a": 1})", ""},
      {"a block without an end", "{} /* x", ""},
      {"half a mark", "{} / x", ""},
      {"the end of no block", "{} */", ""},
      {"a string without an end", R"({"a // }", "")", ""},
      {"a backslash at the end", "{\"a\\", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string plain = plainJson(c.text);
    EXPECT_EQ(plain.size(), c.text.size());
    EXPECT_EQ(std::ranges::count(plain, '\n'), std::ranges::count(c.text, '\n'));
    const Vela::Json json = Vela::parseJson(plain);
    EXPECT_EQ(json ? Vela::jsonLine(*json) : "", c.json);
  }
}

TEST(ConfigText, FaultsKeepTheirLines) {
  const struct {
    const char* text;
    size_t line;
  } cases[] = {{"{\n// x\n/* y\n*/ \"a\": ? }", 4},
               {"{\r\n// x\r\n\"a\" 1}", 3},
               {"{\n\"a\": 1\n/* no end\n}", 3}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    size_t line = 0;
    EXPECT_FALSE(Vela::parseJson(plainJson(c.text), &line));
    EXPECT_EQ(line, c.line);
  }
}

}  // namespace
}  // namespace Orrery
