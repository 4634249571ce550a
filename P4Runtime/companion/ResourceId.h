// The object that an entry belongs to: its kind and its id in the P4Info.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

#include "platform/vela/Text.h"

namespace P4Runtime {

using EntryHandle = uint64_t;   // 0: none
using MemberHandle = uint64_t;  // upper half 0
using GroupHandle = uint64_t;   // upper half 1
using BatchOffset = uint32_t;   // position of an update in its Write request

enum ResourceType : uint32_t {
  actionResource = 1,
  tableResource = 2,
  groupTableResource = 3,     // the group table of an action profile
  actionProfileResource = 4,  // an action profile, and its member table
  directMeterResource = 5,
  directCounterResource = 6,
};

struct ResourceId {
  uint32_t type = 0;  // a ResourceType
  uint32_t id = 0;    // from the P4Info preamble

  friend auto operator<=>(const ResourceId&, const ResourceId&) = default;
};

std::string toText(const ResourceId& rid);  // "table 33554433"

}  // namespace P4Runtime

template <>
struct std::hash<P4Runtime::ResourceId> {
  size_t operator()(const P4Runtime::ResourceId& rid) const noexcept {
    return std::hash<uint64_t>()((uint64_t{rid.type} << 32) | rid.id);
  }
};

template <>
struct Vela::TextForm<P4Runtime::ResourceId> {
  static const char* typeName() { return "resource id"; }
  static std::string toText(const P4Runtime::ResourceId& rid) { return P4Runtime::toText(rid); }
  static std::optional<P4Runtime::ResourceId> fromText(std::string_view) { return std::nullopt; }
};
