// Which handles and levels a setting selects.
#include "platform/scrivel/Levels.h"

#include <gtest/gtest.h>

namespace Scrivel {
namespace {

TEST(Levels, FirstItemThatNamesTheHandleDecides) {
  const struct {
    const char* what;
    const char* text;
    const char* handle;
    uint32_t mask;
  } cases[] = {
      {"nothing said", "", "Agent", 0b1},
      {"range", "Agent/0-5", "Agent", 0b111111},
      {"one level", "Agent/3", "Agent", 0b1000},
      {"upper range", "Agent/8-9", "Agent", 0b1100000000},
      {"all", "*/all", "Agent", 0b1111111111},
      {"off", "*/off", "Agent", 0},
      {"the first of two", "Agent/2,*/0-1", "Agent", 0b100},
      {"the second of two", "Agent/2, */0-1", "Server", 0b11},
      {"named by none", "Agent/2", "Server", 0b1},
      {"star in the middle", "Ko*Tables/1", "KorvelPiTables", 0b10},
      {"star needs its tail", "Ko*Tables/1", "KorvelPiTablesX", 0b1},
      {"two stars", "*Pi*/1", "KorvelPiTables", 0b10},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto levels = Levels::parse(c.text);
    ASSERT_TRUE(levels);
    EXPECT_EQ(levels->mask(c.handle), c.mask);
  }
}

TEST(Levels, MalformedItemsAreNamed) {
  for (const char* text : {"Agent", "Agent/", "Agent/10", "Agent/5-2", "/3", "Agent/x", "*/0,-1"}) {
    SCOPED_TRACE(text);
    std::string trouble;
    EXPECT_FALSE(Levels::parse(text, &trouble));
    EXPECT_NE(trouble.find("HANDLE/LEVELS"), std::string::npos);
  }
}

}  // namespace
}  // namespace Scrivel
