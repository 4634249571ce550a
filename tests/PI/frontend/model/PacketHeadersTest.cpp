// The headers of packets: metadata of controllers, and the bytes that targets see.
#include "PI/frontend/model/PacketHeaders.h"

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "PI/frontend/base/Refusal.h"
#include "tests/PI/support/RefusedWith.h"

namespace pi::fe::proto {
namespace {

using testing::HasSubstr;
using TestSupport::RefusedWith;
using namespace std::string_literals;

struct Field {
  uint32_t id;
  int32_t bits;
};
struct Value {
  uint32_t id;
  std::string bytes;
};

// A P4Info with a header of the fields, named "f" and the id; none when the name is empty.
p4::config::v1::P4Info p4InfoOf(const std::string& header, const std::vector<Field>& fields) {
  p4::config::v1::P4Info p4Info;
  if (header.empty()) return p4Info;
  auto* declared = p4Info.add_controller_packet_metadata();
  declared->mutable_preamble()->set_name(header);
  for (const Field& field : fields) {
    auto* metadata = declared->add_metadata();
    metadata->set_id(field.id);
    metadata->set_name("f" + std::to_string(field.id));
    metadata->set_bitwidth(field.bits);
  }
  return p4Info;
}

template <typename Packet>
Packet packetOf(const std::vector<Value>& values, const std::string& payload) {
  Packet packet;
  packet.set_payload(payload);
  for (const Value& value : values) {
    auto* metadata = packet.add_metadata();
    metadata->set_metadata_id(value.id);
    metadata->set_value(value.bytes);
  }
  return packet;
}

// Each field stands in bytes of its own, in the order of the ids, in spite of the order in the
// P4Info and the controller's; on the way back each value is the shortest.
TEST(PacketHeaders, TravelInOrderOfTheirIdsAndComeBackInShortestForm) {
  const struct {
    const char* what;
    std::vector<Field> fields;
    std::vector<Value> given;
    std::string header;
    std::vector<Value> back;
  } cases[] = {
      {"none", {}, {}, "", {}},
      {"1 bit", {{1, 1}}, {{1, "\1"}}, "\1", {{1, "\1"}}},
      {"9 and 7 bits",
       {{1, 9}, {2, 7}},
       {{1, "\1\xff"}, {2, "\x7f"}},
       "\1\xff\x7f",
       {{1, "\1\xff"}, {2, "\x7f"}}},
      {"31 bits",
       {{1, 31}},
       {{1, "\x7f\xff\xff\xff"}},
       "\x7f\xff\xff\xff",
       {{1, "\x7f\xff\xff\xff"}}},
      {"32 bits, zero", {{1, 32}}, {{1, "\0"s}}, "\0\0\0\0"s, {{1, "\0"s}}},
      {"33 bits", {{1, 33}}, {{1, "\1\2\3\4\5"}}, "\1\2\3\4\5", {{1, "\1\2\3\4\5"}}},
      {"48 bits, short value", {{1, 48}}, {{1, "\7\1"}}, "\0\0\0\0\7\1"s, {{1, "\7\1"}}},
      {"128 bits",
       {{1, 128}},
       {{1, std::string(16, '\xff')}},
       std::string(16, '\xff'),
       {{1, std::string(16, '\xff')}}},
      {"longer than the shortest", {{1, 9}}, {{1, "\0\0\0\0\1\2"s}}, "\1\2", {{1, "\1\2"}}},
      {"the P4Info out of order",
       {{7, 16}, {3, 1}, {5, 32}},
       {{3, "\1"}, {5, "\5"}, {7, "\7"}},
       "\1\0\0\0\5\0\7"s,
       {{3, "\1"}, {5, "\5"}, {7, "\7"}}},
      {"the controller out of order",
       {{1, 8}, {2, 8}, {0xffffffff, 8}},
       {{0xffffffff, "c"}, {1, "a"}, {2, "b"}},
       "abc",
       {{1, "a"}, {2, "b"}, {0xffffffff, "c"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const PacketHeaders out(p4InfoOf("packet_out", c.fields));
    const std::string bytes = out.packetOut(packetOf<p4::v1::PacketOut>(c.given, "payload"));
    EXPECT_EQ(bytes, c.header + "payload");
    p4::v1::PacketIn in;
    EXPECT_EQ(PacketHeaders(p4InfoOf("packet_in", c.fields)).packetIn(bytes, &in), "");
    EXPECT_EQ(in.SerializeAsString(),
              packetOf<p4::v1::PacketIn>(c.back, "payload").SerializeAsString());
  }
}

// Bit behind bit, in the P4Info's order, as the program's deparser would have it.
TEST(PacketHeaders, TravelAsTheProgramHasThemWhenPacked) {
  const struct {
    const char* what;
    std::vector<Field> fields;
    std::vector<Value> given;
    std::string header;
    std::vector<Value> back;
  } cases[] = {
      {"a port of 9 bits and padding",
       {{1, 9}, {2, 7}},
       {{1, "\1\xff"}, {2, "\0"s}},
       "\xff\x80",
       {{1, "\1\xff"}, {2, "\0"s}}},
      {"padding left out", {{1, 9}, {2, 7}}, {{1, "\1"}}, "\0\x80"s, {{1, "\1"}, {2, "\0"s}}},
      {"nothing given", {{1, 9}, {2, 1}}, {}, "\0\0"s, {{1, "\0"s}, {2, "\0"s}}},
      {"filled up to a byte", {{1, 9}, {2, 1}}, {{2, "\1"}}, "\0\x40"s, {{1, "\0"s}, {2, "\1"}}},
      {"ids out of order",
       {{7, 4}, {3, 12}},
       {{3, "\xab"}, {7, "\xc"}},
       "\xc0\xab",
       {{3, "\xab"}, {7, "\xc"}}},
      {"a wide field",
       {{1, 1}, {2, 65}},
       {{1, "\1"}, {2, "\1\0\0\0\0\0\0\0\3"s}},
       "\xc0\0\0\0\0\0\0\0\xc0"s,
       {{1, "\1"}, {2, "\1\0\0\0\0\0\0\0\3"s}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const PacketHeaders out(p4InfoOf("packet_out", c.fields), true);
    const std::string bytes = out.packetOut(packetOf<p4::v1::PacketOut>(c.given, "payload"));
    EXPECT_EQ(bytes, c.header + "payload");
    p4::v1::PacketIn in;
    EXPECT_EQ(PacketHeaders(p4InfoOf("packet_in", c.fields), true).packetIn(bytes, &in), "");
    EXPECT_EQ(in.SerializeAsString(),
              packetOf<p4::v1::PacketIn>(c.back, "payload").SerializeAsString());
  }
  const PacketHeaders headers(p4InfoOf("packet_out", {{1, 9}, {2, 7}}), true);
  for (const auto& [given, message] : std::vector<std::pair<std::vector<Value>, const char*>>{
           {{{3, "\1"}}, "id 3 is unknown"},
           {{{1, "\1"}, {1, "\1"}}, "is given twice"},
           {{{1, "\2\0"s}}, "cannot hold the value"}}) {
    try {
      headers.packetOut(packetOf<p4::v1::PacketOut>(given, "p"));
      ADD_FAILURE() << message;
    } catch (const Refusal& refusal) {
      EXPECT_THAT(refusal, RefusedWith(code::invalidArgument, message));
    }
  }
}

TEST(PacketHeaders, RefusePacketOutsThatAreNotAsDeclared) {
  const std::vector<Field> fields = {{1, 32}, {2, 1}};
  const Value port{1, "\7"};
  const Value flag{2, "\1"};
  const struct {
    const char* what;
    std::vector<Field> fields;
    std::vector<Value> given;
    const char* message;
    int code = code::invalidArgument;
    std::string payload = "p";
    std::string header = "packet_out";
  } cases[] = {
      {"missing", fields, {port}, "field f2 (id 2, 1 bit) is missing; 1 of the 2 fields"},
      {"all missing", fields, {}, "field f1 (id 1, 32 bits) is missing"},
      {"unknown",
       fields,
       {port, {3, "\1"}},
       "id 3 is unknown: packet_out has f1 (id 1, 32 bits), f2 (id 2, 1 bit)"},
      {"one too many", fields, {port, flag, {9, "\1"}}, "id 9 is unknown"},
      {"twice", fields, {port, port}, "field f1 (id 1, 32 bits) is given twice"},
      {"all there, one twice", fields, {port, flag, flag}, "f2 (id 2, 1 bit) is given twice"},
      {"empty value", fields, {port, {2, ""}}, "field f2 (id 2, 1 bit) has no value"},
      {"too wide by a bit",
       fields,
       {port, {2, "\2"}},
       "f2 (id 2, 1 bit) cannot hold the value 0x02"},
      {"too wide by a byte",
       fields,
       {{1, "\1\0\0\0\0"s}, flag},
       "field f1 (id 1, 32 bits) cannot hold the value 0x0100000000"},
      {"no payload", fields, {port, flag}, "the payload is empty", code::invalidArgument, ""},
      {"a huge payload",
       fields,
       {port, flag},
       "65551 bytes",
       code::invalidArgument,
       std::string(65551, 'x')},
      {"metadata without a header",
       {},
       {port},
       "id 1 is unknown: the pipeline has no packet_out header",
       code::invalidArgument,
       "p",
       ""},
      {"metadata for a header without fields", {}, {port}, "packet_out has no fields"},
      {"a string",
       {{1, 8}, {2, 0}},
       {port, flag},
       "the field f2 (id 2) of packet_out has no bit width",
       code::unimplemented},
      {"a negative width",
       {{1, -8}},
       {port},
       "the field f1 (id 1) of packet_out has an impossible bit width",
       code::unimplemented},
      {"two fields with one id",
       {{1, 8}, {1, 8}},
       {port},
       "two fields of packet_out have the id 1",
       code::unimplemented},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const PacketHeaders headers(p4InfoOf(c.header, c.fields));
    try {
      headers.packetOut(packetOf<p4::v1::PacketOut>(c.given, c.payload));
      ADD_FAILURE() << "not refused";
    } catch (const Refusal& refusal) {
      EXPECT_THAT(refusal, RefusedWith(c.code, c.message));
    }
  }
  EXPECT_EQ(PacketHeaders({}).packetOut(packetOf<p4::v1::PacketOut>({}, "raw")), "raw");
}

TEST(PacketHeaders, SayWhatIsWrongWithAPacketIn) {
  p4::config::v1::P4Info twice = p4InfoOf("packet_in", {{1, 8}});
  twice.MergeFrom(p4InfoOf("packet_in", {{1, 8}}));
  const struct {
    const char* what;
    p4::config::v1::P4Info p4Info;
    std::string packet;
    const char* fault;
  } cases[] = {
      {"empty", p4InfoOf("packet_in", {{1, 9}}), "", "0 bytes is shorter than the 2 bytes"},
      {"a byte short", p4InfoOf("packet_in", {{1, 9}}), "\1", "1 bytes is shorter than the 2"},
      {"the header alone", p4InfoOf("packet_in", {{1, 9}}), "\1\xff", ""},
      {"bits beyond the width", p4InfoOf("packet_in", {{1, 9}}), "\2\1data",
       "the packet_in field f1 (id 1, 9 bits) cannot have the value 0x0201"},
      {"a string", p4InfoOf("packet_in", {{1, 0}}), "data", "has no bit width"},
      {"two headers", twice, "data", "two headers named packet_in"},
      {"no header", {}, "data", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    p4::v1::PacketIn in;
    const std::string fault = PacketHeaders(c.p4Info).packetIn(c.packet, &in);
    if (*c.fault) {
      EXPECT_THAT(fault, HasSubstr(c.fault));
    } else {
      EXPECT_EQ(fault, "");
    }
  }
}

}  // namespace
}  // namespace pi::fe::proto
