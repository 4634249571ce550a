// What operators are told of the agent's settings: the one table behind docs/configuration.md and
// `korvel config`. A new attribute of a configuration entity gets a line here; its default stands
// in the entity alone.
#pragma once

#include "platform/orrery/Settings.h"

namespace P4Runtime {

Orrery::SettingGroups agentSettings();

}  // namespace P4Runtime
