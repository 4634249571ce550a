// Text from outside made printable, and causes that would flood a log.
#include "platform/vela/PlainText.h"

#include <gtest/gtest.h>

#include "platform/vela/LineBudget.h"

namespace Vela {
namespace {

TEST(PlainLine, IsOneLineOfUtf8WhateverCame) {
  const struct {
    const char* what;
    std::string in;
    size_t most;
    std::string out;
  } cases[] = {
      {"plain text stays", "no room in the TCAM", 40, "no room in the TCAM"},
      {"so do other scripts",
       "Gr\xC3\xB6\xC3\x9F"
       "e \xE2\x82\xAC \xF0\x9F\x90\xA7",
       40,
       "Gr\xC3\xB6\xC3\x9F"
       "e \xE2\x82\xAC \xF0\x9F\x90\xA7"},
      {"a stray byte", "bad \xFF byte", 40, "bad \xEF\xBF\xBD byte"},
      {"a character cut short", "euro \xE2\x82", 40, "euro \xEF\xBF\xBD\xEF\xBF\xBD"},
      {"an overlong slash", "\xC0\xAF", 40, "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"half a surrogate pair", "\xED\xA0\x80", 40, "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"beyond the last character", "\xF4\x90\x80\x80", 40,
       "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"lines become one",
       "a\nb\r\tc\x7F\xC2\x85\xE2\x80\xA8"
       "d",
       40, "a b  c   d"},
      {"a zero byte", std::string("a\0b", 3), 40, "a b"},
      {"just fits", "12345678", 8, "12345678"},
      {"is cut between characters", "12\xE2\x82\xAC\xE2\x82\xAC", 7, "12..."},
      {"no room for anything", "12345", 2, ".."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(plainLine(c.in, c.most), c.out);
    EXPECT_EQ(isPlainLine(c.in, c.most), c.in == c.out);
    EXPECT_TRUE(isPlainLine(c.out, c.most));
  }
  EXPECT_EQ(validUtf8("a\n\tb\xFF"), "a\n\tb\xEF\xBF\xBD");
}

TEST(LineBudget, SaysWhichLineOfAPeriodIsTheLast) {
  using Verdict = LineBudget::Verdict;
  using std::chrono::seconds;
  LineBudget budget(2, seconds(60));
  LineBudget::Clock::time_point now{seconds(1000)};
  EXPECT_EQ(budget.take(now), Verdict::write);
  EXPECT_EQ(budget.take(now), Verdict::last);
  EXPECT_EQ(budget.take(now + seconds(59)), Verdict::silent);
  EXPECT_EQ(budget.take(now + seconds(60)), Verdict::write);
}

}  // namespace
}  // namespace Vela
