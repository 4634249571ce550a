// Values and names as people write them.
#include "pipeline/ValueText.h"

#include <gtest/gtest.h>

#include "pipeline/Finding.h"
#include "pipeline/Names.h"

namespace Pipeline {
namespace {

TEST(ValueBytes, TakeNumbersAndAddressesThatFit) {
  const struct {
    const char* text;
    uint32_t bits;
    const char* hex;  // "": refused
  } cases[] = {
      {"0", 1, "00"},
      {"511", 9, "01ff"},
      {"512", 9, ""},
      {"0x0800", 16, "0800"},
      {"0x1_0000", 16, ""},
      {"0b101", 3, "05"},
      {"0x00000000000000000000000000000007", 3, "07"},
      {"340282366920938463463374607431768211455", 128, "ffffffffffffffffffffffffffffffff"},
      {"340282366920938463463374607431768211456", 128, ""},
      {"10.0.0.1", 32, "0a000001"},
      {"10.0.0.1", 16, ""},
      {"10.0.0", 32, ""},
      {"2001:db8::1", 128, "20010db8000000000000000000000001"},
      {"::1", 32, ""},
      {"00:11:22:33:44:55", 48, "001122334455"},
      {"00-11-22-33-44-5F", 48, "00112233445f"},
      {"00:11:22:33:44", 48, ""},
      {"-1", 8, ""},
      {"", 8, ""},
      {"0x", 8, ""},
      {"12a", 8, ""},
      {"1e3", 16, ""},
      {"1", 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " in " + std::to_string(c.bits) + " bits");
    if (*c.hex != 0) {
      EXPECT_EQ(hexText(valueBytes(c.text, c.bits)), c.hex);
    } else {
      EXPECT_THROW(valueBytes(c.text, c.bits), PipelineError);
    }
  }
}

TEST(CanonicalValue, HasTheWidthsLengthWhateverLengthItCameIn) {
  EXPECT_EQ(hexText(canonicalValue("\x07", 32)), "00000007");
  EXPECT_EQ(hexText(canonicalValue(std::string("\0\0\0\x01\xff", 5), 9)), "01ff");
  EXPECT_THROW(canonicalValue("\x02\xff", 9), PipelineError);
  EXPECT_THROW(canonicalValue(std::string("\x01\0\0", 3), 16), PipelineError);
  EXPECT_THROW(canonicalValue("", 8), PipelineError);
}

TEST(Masks, StartAtTheWidthsFirstBit) {
  EXPECT_EQ(hexText(prefixMask(0, 32)), "00000000");
  EXPECT_EQ(hexText(prefixMask(9, 32)), "ff800000");
  EXPECT_EQ(hexText(prefixMask(3, 9)), "01c0");
  EXPECT_EQ(hexText(fullMask(9)), "01ff");
}

TEST(LegalNames, AreWordsThatDefinitionsDoNotUse) {
  const struct {
    const char* name;
    const char* legal;
  } cases[] = {
      {"ingress.ipv4[0].dst", "ingress_ipv4_0_dst"},
      {"hdr.ipv4.$valid$", "hdr_ipv4_valid"},
      {"a__b", "a_b"},
      {"2nd", "f_2nd"},
      {"Priority", "Priority_"},
      {"key", "key_"},
      {"\xc3\xbc", "fallback"},
      {"", "fallback"},
  };
  for (const auto& c : cases) EXPECT_EQ(legalName(c.name, "fallback"), c.legal);
  EXPECT_EQ(legalTableName("ingress.acl[1].", "fallback"), "ingress.acl_1");
  EXPECT_LT(legalName(std::string(5000, 'x'), "fallback").size(), 200u);
}

TEST(UniqueNames, DifferWithoutRegardToCase) {
  UniqueNames names;
  EXPECT_EQ(names.take("dst_2"), "dst_2");
  EXPECT_EQ(names.take("dst"), "dst");
  EXPECT_EQ(names.take("Dst"), "Dst_3");
}

}  // namespace
}  // namespace Pipeline
