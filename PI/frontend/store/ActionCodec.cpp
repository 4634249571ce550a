// A P4Runtime action to PI action data, and back.
#include "PI/frontend/store/ActionCodec.h"

#include <absl/container/inlined_vector.h>

#include <algorithm>

#include "PI/frontend/base/ByteString.h"
#include "PI/frontend/base/ChoiceText.h"
#include "PI/frontend/base/Lenience.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/store/NameCodec.h"

namespace pi::fe::proto {

namespace {

std::string idText(uint32_t id) { return absl::StrCat("0x", absl::Hex(id, absl::kZeroPad8)); }

// Those that an entry may have, or the default entry.
std::string actionChoices(const ActionUser& user) {
  const ActionScope other = user.isDefaultEntry ? ActionScope::tableOnly : ActionScope::defaultOnly;
  std::vector<std::string> texts;
  for (const ActionUse& use : user.actions) {
    if (use.scope == other || use.scope == ActionScope::groupAction) continue;
    texts.push_back(absl::StrCat(idText(use.id), " ", use.action->name));
  }
  return choiceText(texts);
}

void requireScope(const ActionUser& user, const ActionUse& use) {
  const ActionScope own = user.isDefaultEntry ? ActionScope::defaultOnly : ActionScope::tableOnly;
  if (use.scope == ActionScope::tableAndDefault || use.scope == own) return;
  refuse(code::permissionDenied, user.kind, " ", user.name, ": action ", use.action->name,
         use.scope == ActionScope::defaultOnly ? " may only be the default action"
         : use.scope == ActionScope::tableOnly ? " may not be the default action"
                                               : " may only be a group action");
}

// Controllers mostly send the parameters in P4Info order, so the i-th is tried first.
size_t paramIndex(const ActionUser& user, const ActionPlan& action, uint32_t id, size_t hint) {
  if (hint < action.params.size() && action.params[hint].id == id) return hint;
  for (size_t i = 0; i < action.params.size(); ++i) {
    if (action.params[i].id == id) return i;
  }
  refuse(code::invalidArgument, user.kind, " ", user.name, ": action ", action.name,
         " has no parameter with the id ", id, "; it has ", choices(action.params));
}

void requireAll(const ActionUser& user, const ActionPlan& action,
                const absl::InlinedVector<bool, 32>& seen) {
  for (size_t i = 0; i < seen.size(); ++i) {
    if (seen[i]) continue;
    refuse(code::invalidArgument, user.kind, " ", user.name, ": action ", action.name,
           ": parameter ", action.params[i].name, " is missing");
  }
}

bool isNumber(const ActionPlan& action, const p4::v1::Action::Param& value) {
  const ParamPlan* param = action.param(value.param_id());
  return param == nullptr || param->names == nullptr;
}

}  // namespace

const ActionPlan& checkedAction(const ActionUser& user, const p4::v1::Action& action) {
  const uint32_t id = action.action_id();
  const ActionUse* use = user.actionUse(id);
  if (use == nullptr) {
    refuse(code::invalidArgument, user.kind, " ", user.name, " has no action with the id ",
           idText(id), "; it takes ", actionChoices(user));
  }
  requireScope(user, *use);
  if (!use->action->unsupported.empty()) {
    refuse(code::unimplemented, user.kind, " ", user.name, ": ", use->action->unsupported);
  }
  return *use->action;
}

void encodeActionData(const ActionUser& user, const ActionPlan& action, const p4::v1::Action& given,
                      uint8_t* data, const Naming& naming) {
  absl::InlinedVector<bool, 32> seen(action.params.size(), false);
  size_t hint = 0;
  for (const auto& value : given.params()) {
    const size_t index = paramIndex(user, action, value.param_id(), hint++);
    const ParamPlan& param = action.params[index];
    if (seen[index]) {
      refuse(code::invalidArgument, user.kind, " ", user.name, ": action ", action.name,
             ": parameter ", param.name, " is given twice");
    }
    seen[index] = true;
    if (param.names != nullptr) {
      putNumber(numberOf(*param.names, value.value(), naming,
                         {user.kind, " ", user.name, ": action ", action.name, ": parameter ",
                          param.name}),
                data + param.offset);
      continue;
    }
    if (!fits(value.value(), param.bits)) {
      refuse(code::outOfRange, user.kind, " ", user.name, ": action ", action.name, ": parameter ",
             param.name, ": the value ", hexText(value.value()), " is not a number of ", param.bits,
             " bits; the largest is ", largestText(param.bits));
    }
    putPadded(value.value(), data + param.offset, param.bytes);
  }
  if (static_cast<size_t>(given.params_size()) != seen.size()) requireAll(user, action, seen);
}

void shortenParams(const ActionPlan& action, p4::v1::Action* given) {
  for (auto& value : *given->mutable_params()) {
    if (isNumber(action, value)) shorten(value.mutable_value());
  }
}

bool areParamsShortest(const ActionPlan& action, const p4::v1::Action& given) {
  return std::ranges::all_of(given.params(), [&](const auto& value) {
    return !isNumber(action, value) || isShortest(value.value());
  });
}

void answerParamsAre(const ActionPlan& action, p4::v1::Action* sent) {
  if (!answersPadded()) return;
  for (auto& value : *sent->mutable_params()) {
    const ParamPlan* param = action.param(value.param_id());
    if (param == nullptr || param->names != nullptr || value.value().size() >= param->bytes)
      continue;
    value.mutable_value()->insert(0, param->bytes - value.value().size(), '\0');
  }
}

void decodeAction(const ActionPlan& action, const uint8_t* data, p4::v1::Action* out) {
  out->set_action_id(action.id);
  for (const ParamPlan& param : action.params) {
    auto* sent = out->add_params();
    sent->set_param_id(param.id);
    if (param.names != nullptr) {
      sent->set_value(param.names->name(numberAt(data + param.offset)));
      continue;
    }
    setAnswer(data + param.offset, param.bytes, sent->mutable_value());
  }
}

}  // namespace pi::fe::proto
