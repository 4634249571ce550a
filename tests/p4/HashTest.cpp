// Hash algorithms against published check values.
#include "p4/externs/Hash.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "p4/externs/InternetSum.h"

namespace P4Test {
namespace {

using P4::Algorithm;

uint64_t hashOf(Algorithm algorithm, const std::string& bytes) {
  return P4::hashBytes(algorithm, {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

TEST(HashTest, CheckValues) {
  const std::string digits = "123456789";
  const std::string ipv4(
      "\x45\x00\x00\x3c\x1c\x46\x40\x00\x40\x06\x00\x00\xac\x10\x0a\x63\xac\x10\x0a\x0c", 20);
  const struct {
    const char* what;
    Algorithm algorithm;
    std::string bytes;
    uint64_t hash;
  } cases[] = {
      {"crc16", Algorithm::crc16, digits, 0xbb3d},
      {"crc16 of two bytes", Algorithm::crc16, "\xab\xcc", 0x657f},
      {"crc16 of a flow", Algorithm::crc16, std::string("\x0a\0\0\1\x0a\0\0\2\6\4\xd2\0\x50", 13),
       0xb81f},
      {"crc32", Algorithm::crc32, digits, 0xcbf43926},
      {"crcCCITT", Algorithm::crcCcitt, digits, 0x29b1},
      {"crc8", Algorithm::crc8, digits, 0xf4},
      {"crc64", Algorithm::crc64, digits, 0x46a5a9388a5beffe},
      {"csum16", Algorithm::csum16, digits, 0xf62a},
      {"csum16 of a header", Algorithm::csum16, ipv4, 0xb1e6},
      {"csum16 of an odd length", Algorithm::csum16, "\1\2\3", 0xfbfd},
      {"csum16 of nothing", Algorithm::csum16, "", 0xffff},
      {"csum16 of zeros", Algorithm::csum16, std::string(10, '\0'), 0xffff},
      {"xor16", Algorithm::xor16, digits, 0x3908},
      {"xor32", Algorithm::xor32, digits, 0x3d04040c},
      {"identity", Algorithm::identity, digits, 0x3132333435363738},
      {"toeplitz without key", Algorithm::toeplitz, digits, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(hashOf(c.algorithm, c.bytes), c.hash);
  }
}

// A checksum over runs of even length, and a last one of any length.
TEST(HashTest, InternetSumOfRuns) {
  std::minstd_rand random(1);
  for (int round = 0; round < 200; ++round) {
    P4::InternetSum sum;
    std::string all;
    for (int run = 0; run < 4; ++run) {
      std::string bytes(random() % 20 * 2 + (run == 3 ? random() % 2 : 0), '\0');
      for (char& byte : bytes) byte = static_cast<char>(random() % 3 ? random() : 0xff);
      sum.add({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
      all += bytes;
    }
    uint64_t expected = 0;
    for (size_t i = 0; i < all.size(); ++i)
      expected += uint64_t{static_cast<uint8_t>(all[i])} << (i % 2 ? 0 : 8);
    while (expected >> 16) expected = (expected & 0xffff) + (expected >> 16);
    EXPECT_EQ(sum.checksum(), ~expected & 0xffff);
  }
}

}  // namespace
}  // namespace P4Test
