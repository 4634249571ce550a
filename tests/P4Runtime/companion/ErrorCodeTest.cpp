#include "P4Runtime/companion/ErrorCode.h"

#include <gtest/gtest.h>

#include "P4Runtime/companion/IpAddress.h"

namespace P4Runtime {
namespace {

// Forwarding agents and controllers know these numbers.
TEST(CanonicalCode, IsFixedForEveryErrorCode) {
  const int codes[] = {0, 8, 13, 13, 13, 14, 12, 12, 3, 3, 13, 3, 6, 8, 3, 2};
  for (uint32_t errorCode = 0; errorCode < 16; ++errorCode) {
    EXPECT_EQ(canonicalCode(errorCode), codes[errorCode]) << "error code " << errorCode;
  }
  for (const uint32_t outside : {16u, 17u, 65535u, 0xffffffffu}) {
    EXPECT_EQ(canonicalCode(outside), 2) << outside;
  }
}

TEST(IpAddress, IsOneOfEitherFamily) {
  const struct {
    const char* text;
    bool valid;
    bool ipv6;
  } cases[] = {{"10.1.2.3", true, false}, {"::1", true, true},         {"fe80::1", true, true},
               {"10.1.2", false, false},  {"", false, false},          {"localhost", false, false},
               {"[::1]", false, false},   {"10.1.2.3:7", false, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const auto address = IpAddress::fromText(c.text);
    ASSERT_EQ(address.has_value(), c.valid);
    EXPECT_EQ(address && address->isIpv6(), c.ipv6);
  }
}

}  // namespace
}  // namespace P4Runtime
