#include "PI/frontend/read/LastHits.h"

#include <algorithm>
#include <limits>
#include <string>

#include "PI/target/pi_extensions_imp.h"

namespace pi::fe::proto {

std::optional<Refusal> lastHits(const TargetSession& session, const TablePlan& table,
                                std::span<const Entry* const> entries,
                                std::vector<std::optional<int64_t>>* times) {
  std::vector<pi_entry_handle_t> handles;
  handles.reserve(entries.size());
  for (const Entry* entry : entries) handles.push_back(entry->handle);
  std::vector<uint64_t> told(entries.size());
  std::string why;
  const auto keep = [](void* text, const char* data, size_t size) {
    static_cast<std::string*>(text)->assign(data, size);
  };
  const int status = _pi_last_hits(session.deviceId, table.id, handles.data(), handles.size(),
                                   told.data(), keep, &why);
  if (status != code::ok) {
    return Refusal(status,
                   absl::StrCat("table ", table.name, ": time_since_last_hit is not known: ", why));
  }
  times->clear();
  constexpr auto longest = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  for (const uint64_t time : told) {
    if (time == PI_LAST_HIT_UNKNOWN) {
      times->emplace_back();
    } else {
      times->emplace_back(static_cast<int64_t>(std::min(time, longest)));
    }
  }
  return std::nullopt;
}

}  // namespace pi::fe::proto
