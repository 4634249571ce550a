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

// Takes the parameters of one action, in any order.
class ParamEncoder {
 public:
  ParamEncoder(const ActionUser& user, const ActionPlan& action, uint8_t* data,
               const Naming& naming)
      : user_(user), action_(action), data_(data), naming_(naming) {
    seen_.resize(action.params.size(), false);
  }

  void add(const ParamView& given) {
    const size_t index = paramIndex(user_, action_, given.id, added_++);
    const ParamPlan& param = action_.params[index];
    if (seen_[index]) refuseParam(code::invalidArgument, param, " is given twice");
    seen_[index] = true;
    uint8_t* const out = data_ + param.offset;
    if (param.names != nullptr) return putName(param, given.value, out);
    if (!fits(given.value, param.bits)) {
      refuseParam(code::outOfRange, param, ": the value ", hexText(given.value),
                  " is not a number of ", param.bits, " bits; the largest is ",
                  largestText(param.bits));
    }
    putPadded(given.value, out, param.bytes);
  }

  void end() const {
    if (added_ == seen_.size()) return;
    for (size_t i = 0; i < seen_.size(); ++i) {
      if (!seen_[i]) refuseParam(code::invalidArgument, action_.params[i], " is missing");
    }
  }

 private:
  template <typename... Texts>
  [[noreturn]] void refuseParam(int code, const ParamPlan& param, const Texts&... texts) const {
    refuse(code, user_.kind, " ", user_.name, ": action ", action_.name, ": parameter ", param.name,
           texts...);
  }

  void putName(const ParamPlan& param, std::string_view name, uint8_t* out) const {
    putNumber(numberOf(*param.names, name, naming_,
                       {user_.kind, " ", user_.name, ": action ", action_.name, ": parameter ",
                        param.name}),
              out);
  }

  const ActionUser& user_;
  const ActionPlan& action_;
  uint8_t* const data_;
  const Naming& naming_;
  absl::InlinedVector<bool, 32> seen_;
  size_t added_ = 0;
};

bool isNumber(const ActionPlan& action, const p4::v1::Action::Param& value) {
  const ParamPlan* param = action.param(value.param_id());
  return param == nullptr || param->names == nullptr;
}

}  // namespace

const ActionPlan& checkedAction(const ActionUser& user, uint32_t id) {
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
  ParamEncoder encoder(user, action, data, naming);
  for (const auto& param : given.params()) encoder.add(viewOf(param));
  encoder.end();
}

void encodeActionData(const ActionUser& user, const ActionPlan& action,
                      std::span<const ParamView> params, uint8_t* data, const Naming& naming) {
  ParamEncoder encoder(user, action, data, naming);
  for (const ParamView& param : params) encoder.add(param);
  encoder.end();
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
