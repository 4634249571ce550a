// The header fields of a synthetic packet, as people write them.
#pragma once

#include <absl/container/inlined_vector.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Forwarder {

// A field's value, big-endian or in network order; how many bytes a column gives it is another
// matter.
using FieldValue = absl::InlinedVector<uint8_t, 16>;

// "10.1.2.3", "2001:db8::1", "00:11:22:33:44:55", "0x0800", "2048". Nothing for anything else, and
// for more than 1,024 bytes.
std::optional<FieldValue> fieldValue(std::string_view text);

// One packet's given fields, by column name.
struct PacketHeader {
  std::string text;  // as it was given
  std::vector<std::pair<std::string, FieldValue>> fields;
};

// "FIELD=VALUE[,FIELD=VALUE...]". Throws RuleError.
PacketHeader packetHeader(std::string_view text);

}  // namespace Forwarder
