// The values of header fields, as people write them.
#pragma once

#include <absl/container/inlined_vector.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace Forwarder {

// A field's value, big-endian or in network order. Its size follows from the text, not from the
// field: the user of the value places it in the field's width.
using FieldValue = absl::InlinedVector<uint8_t, 16>;

// "10.1.2.3", "2001:db8::1", "00:11:22:33:44:55", "0x0800", "2048". Nothing for any other text, and
// for more than 1,024 bytes.
std::optional<FieldValue> fieldValue(std::string_view text);

}  // namespace Forwarder
