// The metadata before a punted packet.
#include "forwarder/punt/PuntHeader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "forwarder/base/Answer.h"

namespace Forwarder {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::ThrowsMessage;

TEST(PuntHeader, HasEachFieldInWholeBytesByAscendingIds) {
  const struct {
    const char* what;
    const char* lines;
    PuntValues values;
    uint32_t port;
    std::optional<std::string> bytes;
  } cases[] = {
      {"as the router has it",
       "1 ingress_port 32\n2 reason 8\n",
       {{"reason", {3}}},
       0x01020304,
       "\1\2\3\4\3"s},
      {"ids out of order", "2 reason 8\n1 ingress_port 32\n", {}, 7, "\0\0\0\7\0"s},
      {"9 and 7 bits take 3 bytes",
       "1 ingress_port 9\n2 x 7\n",
       {{"x", {0x7f}}},
       0x1ff,
       "\1\xff\x7f"s},
      {"packed, 9 and 7 bits take 2 bytes, in the order of the lines",
       "packed\n2 ingress_port 9\n1 x 7\n",
       {{"x", {0x55}}},
       0x103,
       "\x81\xd5"s},
      {"packed, filled up to a byte",
       "packed\n1 x 3\n2 ingress_port 6\n",
       {{"x", {5}}},
       0x3f,
       "\xbf\x80"s},
      {"a port of 10 bits does not fit 9", "1 ingress_port 9\n2 x 7\n", {}, 0x200, std::nullopt},
      {"a port of 9 bits does not fit 8", "1 ingress_port 8\n", {}, 0x100, std::nullopt},
      {"a value with leading zeros", "1 x 16\n", {{"x", {0, 0, 0, 5, 6}}}, 1, "\5\6"s},
      {"a short value, and no port", "1 x 64\n", {{"x", {9}}}, 1, "\0\0\0\0\0\0\0\x09"s},
      {"no fields", "", {}, 7, ""s},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const PuntHeader header(c.lines, c.values);
    EXPECT_EQ(header.bytes(c.port), c.bytes);
    EXPECT_EQ(header.size(), header.bytes(0)->size());
  }
}

TEST(PuntHeader, RefusesWhatCannotBeByName) {
  const struct {
    const char* lines;
    PuntValues values;
    const char* says;
  } cases[] = {
      {"1 x 8\n", {{"y", {1}}}, "packet_in has no field y; it has: x:8"},
      {"", {{"y", {1}}}, "packet_in has no field y; it has: none"},
      {"1 x 7\n", {{"x", {0x80}}}, "more than its 7 bits"},
      {"1 x 8\n", {{"x", {1, 0}}}, "more than its 8 bits"},
      {"1 x\n", {}, "'1 x'"},
      {"1 x 0\n", {}, "'1 x 0'"},
      {"a x 8\n", {}, "'a x 8'"},
      {"1 x 8 9\n", {}, "'1 x 8 9'"},
      {"1 x 4294967295\n", {}, "4294967295"},
      {"1 x 8192\n2 y 8\n", {}, "more than 1024 bytes"},
  };
  for (const auto& c : cases) {
    EXPECT_THAT([&] { PuntHeader(c.lines, c.values); },
                ThrowsMessage<CommandError>(HasSubstr(c.says)))
        << c.lines;
  }
}

}  // namespace
}  // namespace Forwarder
