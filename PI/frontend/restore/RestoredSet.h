// The action set of an entry after a restart: as it was written if that agrees with the hidden
// members that the target has, else rebuilt from them.
#pragma once

#include <optional>
#include <vector>

#include "PI/frontend/model/Plans.h"
#include "PI/frontend/store/ProfileObjects.h"

namespace pi::fe::proto {

// A hidden member, and how often it stands in its group.
struct HiddenMember {
  uint64_t handle = 0;
  EntryPtr object;
  uint32_t repeats = 0;
  uint32_t port = 0;  // that it watches, where rows tell; 0: none
};

struct RestoredSet {
  p4::v1::ActionProfileActionSet set;
  std::vector<uint64_t> members;  // handles, one an element
};

RestoredSet restoredSet(const TablePlan& table, const std::vector<HiddenMember>& members,
                        std::string_view bytes);

// The handles for the elements of the set when ports count as well; nothing when they do not come
// out even.
std::optional<std::vector<uint64_t>> membersByPort(const TablePlan& table,
                                                   const std::vector<HiddenMember>& members,
                                                   std::string_view bytes);

}  // namespace pi::fe::proto
