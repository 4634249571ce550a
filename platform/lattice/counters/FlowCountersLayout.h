// Where flow counters lie: a Brine store a forwarding agent, in a folder of its own.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/brine/Store.h"
#include "platform/lattice/counters/FlowCounters.h"

namespace Lattice {

inline constexpr std::string_view flowCountersTable = "lattice/flowCounters";

inline std::string flowCountersRoot(const std::string& stateDirectory) {
  return stateDirectory + "/counters";
}

// The folder of a forwarding agent of that name: letters, digits, '-' and '_' stand as they are,
// any other byte as '%' and two hex digits. So no two names share a folder, none leads out of the
// root, and other folders there (a damaged store set aside) have a '.' in its name.
std::string flowCountersFolder(std::string_view forwarderName);
inline bool isFlowCountersFolder(std::string_view file) {
  return file.find('.') == std::string_view::npos;
}

// A record, under the flow's name.  bytes u64 | packets u64
struct FlowCountRecord {
  static constexpr size_t size = 16;
  static void encode(const FlowCount& count, std::span<uint8_t> bytes);
  static std::optional<FlowCount> decode(Brine::Bytes bytes);
};

}  // namespace Lattice
