// The hits and misses of synthetic packets.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstdint>
#include <map>
#include <string>

namespace Forwarder {

struct TableTraffic {
  uint64_t hits = 0;
  uint64_t misses = 0;
  // Hits on rows that lead nowhere: the group or member is missing, or the group is empty.
  uint64_t dangling = 0;
  uint64_t emptyGroup = 0;
};

// A plain value.
struct TrafficStats {
  // A group's member; or, with group 0 and `direct`, a member that rows name themselves.
  struct MemberKey {
    uint32_t group = 0;
    uint32_t member = 0;
    bool direct = false;
    auto operator<=>(const MemberKey&) const = default;
    template <typename H>
    friend H AbslHashValue(H hash, const MemberKey& key) {
      return H::combine(std::move(hash), key.group, key.member, key.direct);
    }
  };
  uint64_t packets = 0;
  uint64_t skipped = 0;  // packets that were due and not sent, since there was no time for them
  std::map<std::string, TableTraffic> tables;
  absl::flat_hash_map<MemberKey, uint64_t> members;  // hits
  std::string newestDangling;                        // "group 3 of table ..."; may be empty

  std::string text() const;  // lines, each ended
};

}  // namespace Forwarder
