// The words in which people ask for punted packets.
#include "forwarder/punt/PuntCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "forwarder/device/Frames.h"

namespace Forwarder {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

TEST(PuntCommand, RequestsAreReadAsWritten) {
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

TEST(PuntCommand, WrongWordsAreRefusedAndSayWhatIsRight) {
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
    EXPECT_THAT([&] { puntRequest(c.words); }, ThrowsMessage<CommandError>(HasSubstr(c.says)))
        << c.words;
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
    EXPECT_THAT([&] { c.apply(former, c.words); }, ThrowsMessage<CommandError>(HasSubstr(c.says)))
        << c.words;
    EXPECT_FALSE(former.listens());
  }
}

TEST(PuntCommand, OptionsAddUp) {
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
