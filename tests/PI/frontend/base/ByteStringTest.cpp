// Byte strings: which ones are numbers of a width, and how they are sent.
#include "PI/frontend/base/ByteString.h"

#include <gtest/gtest.h>

namespace pi::fe::proto {
namespace {

using namespace std::string_literals;

TEST(ByteString, FitsByItsNumberNotItsLength) {
  const struct {
    const char* what;
    std::string in;
    uint32_t bits;
    bool fits;
  } cases[] = {
      {"shortest form", "\x63"s, 8, true},
      {"shortest form of a wider field", "\x63"s, 16, true},
      {"leading zero bytes count for nothing", "\0\0\x30\x64"s, 16, true},
      {"zero", "\0\0"s, 1, true},
      {"top bit used", "\x0f\xff"s, 12, true},
      {"one bit too many", "\x10\x63"s, 12, false},
      {"one byte too many", "\x01\x63"s, 8, false},
      {"too wide behind a zero byte", "\0\x40\x63"s, 12, false},
      {"empty is no number", "", 16, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(fits(c.in, c.bits), c.fits);
  }
}

TEST(ByteString, IsPaddedForTheTargetAndShortestForTheController) {
  const struct {
    const char* what;
    std::string in;
    std::string padded;  // to three bytes
    std::string out;
  } cases[] = {
      {"short", "\x63"s, "\0\0\x63"s, "\x63"s},
      {"long", "\0\0\0\0\x01\x02"s, "\0\x01\x02"s, "\x01\x02"s},
      {"zero keeps one byte", "\0\0"s, "\0\0\0"s, "\0"s},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    uint8_t padded[3];
    putPadded(c.in, padded, sizeof(padded));
    EXPECT_EQ(std::string(padded, padded + 3), c.padded);
    EXPECT_EQ(shortest(padded, sizeof(padded)), c.out);
  }
}

}  // namespace
}  // namespace pi::fe::proto
