// What stands before a punted packet, and how people ask for one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "forwarder/PuntCommand.h"
#include "forwarder/PuntFrames.h"
#include "forwarder/Rules.h"

namespace Forwarder {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;

// What RuleError says; "" when there is none.
template <typename Work>
std::string refusal(const Work& work) {
  try {
    work();
    return {};
  } catch (const RuleError& e) {
    return e.what();
  }
}

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
    EXPECT_THAT(refusal([&] { PuntHeader(c.lines, c.values); }), HasSubstr(c.says)) << c.lines;
  }
}

TEST(Punt, RequestsAreReadAsWritten) {
  const std::string bytes = "0102030405060708090a0b0c88cc";
  const struct {
    std::string words;
    uint32_t port;
    size_t size;
    bool numbered;
    uint64_t count, rate;
  } cases[] = {
      {"7 " + bytes, 7, 14, false, 1, 0},
      {"4294967295 0x" + bytes + " 3", UINT32_MAX, 14, false, 3, 0},
      {"0x10 " + bytes + " count=5 rate=100", 16, 14, false, 5, 100},
      {"1 size=9000", 1, 9000, true, 1, 0},
      {"1 size=22 20", 1, 22, true, 20, 0},
      {"1 rate=1000 size=60 count=1000000000", 1, 60, true, 1'000'000'000, 1000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words);
    const PuntRequest request = puntRequest(c.words);
    EXPECT_EQ(request.port, c.port);
    EXPECT_EQ(request.packet.size(), c.size);
    EXPECT_EQ(request.numbered, c.numbered);
    EXPECT_EQ(request.count, c.count);
    EXPECT_EQ(request.rate, c.rate);
    EXPECT_EQ(request.packet.substr(12, 2), c.numbered ? "\x88\xb5" : "\x88\xcc");
  }
}

TEST(Punt, WrongWordsAreRefusedAndSayWhatIsRight) {
  const std::string huge(2 * (FrameBatch::longest + 1), '0');
  const struct {
    std::string words, says;
  } requests[] = {
      {"7", "which packet?"},
      {"x size=60", "a port's id is a number"},
      {"-1 size=60", "a port's id is a number"},
      {"4294967296 size=60", "a port's id is a number"},
      {"1 0102", "a packet has 14 to 9216 bytes, not 2"},
      {"1 " + huge, "not 9217"},
      {"1 010", "'0' at digit 3"},
      {"1 01+2", "'+2' at digit 3"},
      {"1 size=21", "size is a number from 22 to 9216"},
      {"1 size=60 count=0", "count is a number from 1"},
      {"1 size=60 twice", "count is a number from 1"},
      {"1 size=60 rate=0", "rate is a number from 1"},
      {"1 count=5", "give the packet's bytes, or size=N"},
  };
  for (const auto& c : requests) {
    EXPECT_THAT(refusal([&] { puntRequest(c.words); }), HasSubstr(c.says)) << c.words;
  }
  using Apply = void (*)(PuntOptions&, std::string_view);
  const struct {
    Apply apply;
    const char *words, *says;
  } options[] = {
      {applyPunt, "7", "'7' is not PORT=DEVICE"},
      {applyPunt, "veth0=7", "a port's id is a number"},
      {applyPuntEtherType, "65536", "an EtherType is a number"},
      {applyPuntField, "reason", "'reason' is not NAME=VALUE"},
      {applyPuntField, "reason=high", "is not NAME=VALUE with a number"},
      {applyPuntField, "ingress_port=1", "ingress_port is the port that a packet came from"},
  };
  for (const auto& c : options) {
    PuntOptions former;
    EXPECT_THAT(refusal([&] { c.apply(former, c.words); }), HasSubstr(c.says)) << c.words;
    EXPECT_FALSE(former.listens());
  }
}

TEST(Punt, OptionsAddUp) {
  PuntOptions options;
  applyPunt(options, "3=eth0");
  applyPunt(options, "4=eth1");
  EXPECT_FALSE(options.mapped);
  applyPunt(options, "");
  applyPuntEtherType(options, "0x0806");
  applyPuntEtherType(options, "35020");
  applyPuntField(options, "reason=1");
  applyPuntField(options, "reason=2");
  EXPECT_TRUE(options.mapped);
  EXPECT_THAT(options.ports,
              testing::ElementsAre(testing::Pair(3, "eth0"), testing::Pair(4, "eth1")));
  EXPECT_THAT(options.etherTypes, testing::ElementsAre(0x0806, 0x88cc));
  EXPECT_EQ(PuntHeader("1 reason 8\n", options.values).bytes(0), "\2");
}

}  // namespace
}  // namespace Forwarder
