// A P4Runtime action to PI action data, and back.
#pragma once

#include <cstdint>
#include <span>

#include "PI/frontend/model/Plans.h"
#include "PI/frontend/names/NamePins.h"
#include "PI/frontend/wire/EntryViews.h"

namespace pi::fe::proto {

// The action that an ordinary entry of the table, or a member of the profile, names, if it may.
// Throws a Refusal.
const ActionPlan& checkedAction(const ActionUser& user, uint32_t actionId);

// Writes action.dataBytes bytes. Throws a Refusal that names user, action and parameter.
void encodeActionData(const ActionUser& user, const ActionPlan& action, const p4::v1::Action& given,
                      uint8_t* data, const Naming& naming = {});
void encodeActionData(const ActionUser& user, const ActionPlan& action,
                      std::span<const ParamView> params, uint8_t* data, const Naming& naming = {});

// Brings the numbers among the parameters into their shortest form. Of a checked action.
void shortenParams(const ActionPlan& action, p4::v1::Action* given);
bool areParamsShortest(const ActionPlan& action, const p4::v1::Action& given);

// Brings the numbers of an action that is kept in its shortest form into the form of answers.
void answerParamsAre(const ActionPlan& action, p4::v1::Action* sent);

// Adds id and parameters, numbers in the form of answers.
void decodeAction(const ActionPlan& action, const uint8_t* data, p4::v1::Action* out);

}  // namespace pi::fe::proto
