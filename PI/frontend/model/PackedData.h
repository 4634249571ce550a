// Values of a P4 type as forwarding agents give them: their numbers bit behind bit, in the order of
// declaration, big-endian, filled up to whole bytes at the end.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4data.pb.h"

namespace pi::fe::proto {

// Bits of a value; 0 for types that are not packed: stacks, unions, errors, plain enums, varbits,
// and types without bits. Any thread.
uint32_t packedBits(const p4::config::v1::P4TypeInfo& types,
                    const p4::config::v1::P4DataTypeSpec& type);

// Nothing when the type is not packed, or when the bytes are too few or too many.
std::optional<p4::v1::P4Data> unpacked(const p4::config::v1::P4TypeInfo& types,
                                       const p4::config::v1::P4DataTypeSpec& type,
                                       std::string_view bytes);

}  // namespace pi::fe::proto
