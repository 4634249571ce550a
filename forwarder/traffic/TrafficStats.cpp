#include "forwarder/traffic/TrafficStats.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

namespace Forwarder {
namespace {

double percent(uint64_t part, uint64_t whole) {
  return whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

}  // namespace

std::string TrafficStats::text() const {
  std::string text = fmt::format("packets {}\nskipped {}\n", packets, skipped);
  for (const auto& [name, table] : tables) {
    if (table.hits == 0 && table.misses == 0) continue;
    text += fmt::format("table {} hits {} misses {}", name, table.hits, table.misses);
    if (table.dangling > 0) text += fmt::format(" dangling {}", table.dangling);
    if (table.emptyGroup > 0) text += fmt::format(" empty-group {}", table.emptyGroup);
    text += '\n';
  }
  if (!newestDangling.empty()) text += fmt::format("dangling {}\n", newestDangling);
  std::vector<std::pair<MemberKey, uint64_t>> sorted(members.begin(), members.end());
  std::ranges::sort(sorted);
  std::map<uint32_t, uint64_t> groups;
  for (const auto& [key, hits] : sorted) {
    if (!key.direct) groups[key.group] += hits;
  }
  for (const auto& [key, hits] : sorted) {
    text += key.direct ? fmt::format("member {} hits {}\n", key.member, hits)
                       : fmt::format("group {} member {} hits {} share {:.1f}%\n", key.group,
                                     key.member, hits, percent(hits, groups[key.group]));
  }
  return text;
}

}  // namespace Forwarder
