// Copies of a few bytes: each size, and nothing beside it.
#include "p4/execute/CopyBytes.h"

#include <gtest/gtest.h>

#include <string>

namespace P4Test {
namespace {

TEST(CopyBytesTest, CopiesJustTheBytes) {
  std::string from;
  for (int i = 0; i < 80; ++i) from += static_cast<char>('0' + i);
  for (size_t count = 0; count <= 70; ++count) {
    SCOPED_TRACE(count);
    std::string to(from.size(), '.');
    P4::copyBytes(reinterpret_cast<uint8_t*>(to.data() + 3),
                  reinterpret_cast<const uint8_t*>(from.data() + 1), count);
    EXPECT_EQ(to, "..." + from.substr(1, count) + std::string(from.size() - 3 - count, '.'));
  }
}

}  // namespace
}  // namespace P4Test
