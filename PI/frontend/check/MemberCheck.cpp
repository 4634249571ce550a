// An action profile member of an update.
#include "PI/frontend/check/MemberCheck.h"

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/store/ActionCodec.h"
#include "PI/frontend/store/ProfileObjects.h"

namespace pi::fe::proto {

CheckedUpdate checkedMember(const P4InfoIndex& index, const p4::v1::ActionProfileMember& given,
                            p4::v1::Update::Type type) {
  CheckedUpdate result;
  result.subject = CheckedUpdate::Subject::member;
  const ProfilePlan& profile = checkedProfile(index, given.action_profile_id());
  result.profile = &profile;
  const ObjectId id{profile.id, false, given.member_id()};
  if (id.id == 0) {
    refuse(code::invalidArgument, "action profile ", profile.name, ": the member id is 0");
  }
  if (type == p4::v1::Update::DELETE) {
    result.slot.entry = makeObject(id, 0);
    return result;
  }
  if (!given.has_action()) {
    refuse(code::invalidArgument, "action profile ", profile.name, ": ", objectText(id),
           " needs an action");
  }
  const ActionPlan& action = checkedAction(profile, given.action());
  result.slot.entry = makeObject(id, action.dataBytes);
  result.slot.entry->actionId = action.id;
  encodeActionData(profile, action, given.action(), result.slot.entry->actionData());
  return result;
}

}  // namespace pi::fe::proto
