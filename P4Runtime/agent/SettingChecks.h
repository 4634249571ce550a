// Checks of the settings that an operator makes while the agent runs.
#pragma once

#include "platform/orrery/Database.h"

namespace P4Runtime {

// Refuses a setting that would end the agent, one that only the next start would heed, and
// pretended programming unless it is allowed. For Orrery::Database::settingCheckIs().
Vela::Outcome checkSetting(const Orrery::Database& database, bool pretendingAllowed,
                           const std::string& path, const Vela::AttributeBase& attribute,
                           const std::string& text);

}  // namespace P4Runtime
