#include "PI/frontend/check/CheckedUpdate.h"

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/store/KeyCodec.h"
#include "PI/frontend/store/ProfileObjects.h"

namespace pi::fe::proto {

std::string updateText(const CheckedUpdate& update) {
  const Entry& entry = *update.slot.entry;
  if (update.table != nullptr) return keyText(*update.table, entry.keyData(), entry.priority);
  return absl::StrCat("action profile ", update.profile->name, ": ", objectText(objectId(entry)));
}

const TablePlan& checkedTable(const P4InfoIndex& index, uint32_t tableId) {
  const TablePlan* table = index.table(tableId);
  if (table != nullptr && table->entity == nullptr && !table->isDefaultEntry) return *table;
  if (tableId == 0) refuse(code::invalidArgument, "the table id is 0");
  refuse(code::invalidArgument, "the table id is that of ", index.objectText(tableId));
}

const ProfilePlan& checkedProfile(const P4InfoIndex& index, uint32_t profileId) {
  const ProfilePlan* profile = index.profile(profileId);
  if (profile != nullptr) return *profile;
  if (profileId == 0) refuse(code::invalidArgument, "the action profile id is 0");
  refuse(code::invalidArgument, "the action profile id is that of ", index.objectText(profileId));
}

}  // namespace pi::fe::proto
