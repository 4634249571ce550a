// How packets and their metadata travel between controllers and the target: the headers packet_out
// and packet_in, compiled once from the P4Info so that a packet costs no search through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "PI/frontend/model/P4InfoIndex.h"
#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

// One field of a header, and where its bytes lie in it.
struct PacketField {
  uint32_t id = 0;
  std::string name;
  uint32_t bits = 0;
  size_t bytes = 0;
  size_t offset = 0;
  size_t firstBit = 0;          // of a packed header, in place of the offset
  Dictionary* names = nullptr;  // of values that are names to controllers; the header has numbers

  std::string text() const;  // "egress_port (id 1, 32 bits)"
};

struct PacketHeader {
  // A header that cannot be served makes packets unusable, not the pipeline.
  // Packed: the fields stand in the P4Info's order, bit behind bit, filled up to whole bytes; else
  // by their ids, in whole bytes each.
  PacketHeader(const p4::config::v1::P4Info& p4Info, const P4InfoIndex* index,
               std::string_view name, bool isPacked);

  const PacketField* field(uint32_t id) const;  // null: no such field

  std::string name;
  const bool isPacked;
  bool isDeclared = false;
  std::vector<PacketField> fields;  // in ascending order of their ids
  size_t bytes = 0;
  std::string unsupported;  // why packets with it cannot be served; empty when they can

 private:
  void layOut();
  void fieldsAre(const p4::config::v1::ControllerPacketMetadata& declared,
                 const P4InfoIndex* index);
};

// Constant after construction; any thread.
class PacketHeaders {
 public:
  // `index` has the names of values, and outlives this; null: none are names.
  explicit PacketHeaders(const p4::config::v1::P4Info& p4Info, bool arePacked = false,
                         const P4InfoIndex* index = nullptr)
      : out_(p4Info, index, "packet_out", arePacked), in_(p4Info, index, "packet_in", arePacked) {}

  // The header and then the payload, as the target wants them. Throws a Refusal (INVALID_ARGUMENT,
  // UNIMPLEMENTED) that names the field when the metadata differ from packet_out's fields, when a
  // value does not fit its field or is a name that nothing has, or when the payload is empty. In a
  // packed header, a field that is
  // not given is 0.
  std::string packetOut(const p4::v1::PacketOut& packet) const;

  // Takes the target's header off the packet; values in their shortest form, in order of the ids.
  // A number that stands for no name comes as its decimal text.
  // Returns the fault of the packet; empty: none. With a fault *packet has no meaning.
  [[nodiscard]] std::string packetIn(std::string_view received, p4::v1::PacketIn* packet) const;

  const PacketHeader& out() const { return out_; }

 private:
  std::string packedOut(const p4::v1::PacketOut& packet) const;
  std::string packedIn(std::string_view received, p4::v1::PacketIn* packet) const;

  const PacketHeader out_;
  const PacketHeader in_;
};

}  // namespace pi::fe::proto
