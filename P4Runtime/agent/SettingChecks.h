// What an operator may set while the agent runs.
#pragma once

#include "platform/orrery/Database.h"

namespace P4Runtime {

// "" or why a setting is refused, and what to do: one that would end the agent, and one that only
// the next start would heed. For Orrery::Database::settingCheckIs().
std::string settingRefused(const Orrery::Database& database, const std::string& path,
                           const Vela::AttributeBase& attribute, const std::string& text);

}  // namespace P4Runtime
