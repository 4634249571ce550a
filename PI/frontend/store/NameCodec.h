// Names in messages to their numbers in keys and action data, and back.
#pragma once

#include <absl/strings/string_view.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/names/NamePins.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

inline constexpr size_t kNumberBytes = 4;

// NOT_FOUND: nothing can have a value that nobody uses.
class UnknownName : public Refusal {
 public:
  using Refusal::Refusal;
};

// The number of `name`, for the place whose text is `place` put together. Throws a Refusal
// (INVALID_ARGUMENT, RESOURCE_EXHAUSTED) or an UnknownName.
uint32_t numberOf(Dictionary& type, std::string_view name, const Naming& naming,
                  std::initializer_list<absl::string_view> place);

// The name in a match of a field whose values are names, which match whole.
const std::string& wholeValue(const p4::v1::FieldMatch& match);

// Four bytes, big-endian. 0 is no name's.
void putNumber(uint32_t number, uint8_t* out);
uint32_t numberAt(const uint8_t* at);

// The name in quotes, cut to fit into a message; bytes that are no text in hexadecimal.
std::string quotedName(std::string_view name);

}  // namespace pi::fe::proto
