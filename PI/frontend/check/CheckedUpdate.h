// An update as its check leaves it.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "PI/frontend/model/P4InfoIndex.h"
#include "PI/frontend/names/NamePins.h"
#include "PI/frontend/store/EntryStore.h"

namespace pi::fe::proto {

struct Counts {
  uint64_t bytes = 0;
  uint64_t packets = 0;
};

// Few updates have any, and thousands are under way.
struct UpdateExtras {
  std::optional<Counts> counts;  // of the entry's direct counter; nothing: they go on
  int64_t idleTimeout = 0;       // of the entry, in nanoseconds; 0: none
  // Changes of other tables that come and fail with the update, found when it runs: the rows of
  // single cells go with an update of all, and an entry's idle time-out is a row of its own.
  std::vector<Change> also;
};

struct CheckedUpdate {
  enum class Subject : uint8_t { entry, directMeter, directCounter, member, group };

  // INSERT, MODIFY or DELETE. A MODIFY that sets a default entry back is a DELETE.
  p4::v1::Update::Type type = p4::v1::Update::UNSPECIFIED;
  Subject subject = Subject::entry;
  const TablePlan* table = nullptr;      // null for members and groups
  const ProfilePlan* profile = nullptr;  // the table's, or that of the member or group
  // The entry to write, handles left open. The key alone for a DELETE, for a MODIFY that keeps
  // the action, and for a direct resource. Null: the update changes nothing.
  EntrySlot slot;
  NamePins names;                        // that the entry uses
  bool ofAllCells = false;               // of an array: the default entry of its table
  std::unique_ptr<UpdateExtras> extras;  // null: none

  UpdateExtras& withExtras() {
    if (!extras) extras = std::make_unique<UpdateExtras>();
    return *extras;
  }
  std::optional<Counts> counts() const { return extras ? extras->counts : std::nullopt; }
  int64_t idleTimeout() const { return extras ? extras->idleTimeout : 0; }
  std::span<Change> also() const {
    return extras ? std::span<Change>(extras->also) : std::span<Change>();
  }
};

// "table ingress.ipv4: dst 10.0.0.0/8", "action profile ingress.nexthops: member 7".
std::string updateText(const CheckedUpdate& update);

// The table or profile an update or query names. Throws a Refusal when the P4Info has no such one.
const TablePlan& checkedTable(const P4InfoIndex& index, uint32_t tableId);
const ProfilePlan& checkedProfile(const P4InfoIndex& index, uint32_t profileId);

}  // namespace pi::fe::proto
