// The action of a P4Runtime table entry to PI action data, and back.
#pragma once

#include <cstdint>

#include "PI/frontend/Plans.h"

namespace pi::fe::proto {

// The action an ordinary entry of the table names, if it may. Throws a Refusal.
const ActionPlan& checkedAction(const TablePlan& table, const p4::v1::TableAction& action);

// Writes action.dataBytes bytes. Throws a Refusal that names table, action and parameter.
void encodeActionData(const TablePlan& table, const ActionPlan& action, const p4::v1::Action& given,
                      uint8_t* data);

// Adds id and parameters, values in their shortest form.
void decodeAction(const ActionPlan& action, const uint8_t* data, p4::v1::Action* out);

}  // namespace pi::fe::proto
