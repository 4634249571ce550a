#include "PI/frontend/store/NameCodec.h"

#include <absl/strings/escaping.h>
#include <absl/strings/str_cat.h>
#include <absl/strings/str_join.h>

namespace pi::fe::proto {

namespace {

constexpr size_t kShownBytes = 64;

template <typename... Texts>
[[noreturn]] void refuseName(int code, std::initializer_list<absl::string_view> place,
                             const Texts&... texts) {
  refuse(code, absl::StrJoin(place, ""), ": ", texts...);
}

Dictionary::Held heldNumber(Dictionary& type, std::string_view name,
                            std::initializer_list<absl::string_view> place) {
  if (name.size() > Dictionary::kMostBytes) {
    refuseName(code::resourceExhausted, place, "the ", type.type(), " ", quotedName(name), " has ",
               name.size(), " bytes; ", Dictionary::kMostBytes, " is the most");
  }
  const auto held = type.hold(name);
  if (held) return *held;
  refuseName(code::resourceExhausted, place, "there is no room for the ", type.type(), " ",
             quotedName(name), ": ", Dictionary::kMostNames,
             " of them are in use, which is the most; delete entries that use others first");
}

[[noreturn]] void refuseUnknown(const Dictionary& type, std::string_view name,
                                std::initializer_list<absl::string_view> place) {
  throw UnknownName(code::notFound, absl::StrCat(absl::StrJoin(place, ""), ": nothing has the ",
                                                 type.type(), " ", quotedName(name)));
}

}  // namespace

uint32_t numberOf(Dictionary& type, std::string_view name, const Naming& naming,
                  std::initializer_list<absl::string_view> place) {
  if (name.empty()) {
    refuseName(code::invalidArgument, place, "the ", type.type(),
               " is empty; it is a string with at least one byte");
  }
  if (naming.pins == nullptr) {
    const auto number = type.number(name);
    if (!number) refuseUnknown(type, name, place);
    return *number;
  }
  const auto held = naming.givesNumbers ? heldNumber(type, name, place) : type.holdKnown(name);
  if (!held) refuseUnknown(type, name, place);
  naming.pins->add(type, *held);
  return held->number;
}

const std::string& wholeValue(const p4::v1::FieldMatch& match) {
  if (match.has_lpm()) return match.lpm().value();
  if (match.has_ternary()) return match.ternary().value();
  if (match.has_range()) return match.range().low();
  return match.has_optional() ? match.optional().value() : match.exact().value();
}

void putNumber(uint32_t number, uint8_t* out) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(number >> (24 - 8 * i));
}

uint32_t numberAt(const uint8_t* at) {
  return static_cast<uint32_t>(at[0]) << 24 | static_cast<uint32_t>(at[1]) << 16 |
         static_cast<uint32_t>(at[2]) << 8 | at[3];
}

std::string quotedName(std::string_view name) {
  const bool isCut = name.size() > kShownBytes;
  return absl::StrCat("\"", absl::CHexEscape({name.data(), isCut ? kShownBytes : name.size()}),
                      isCut ? "..." : "", "\"");
}

}  // namespace pi::fe::proto
