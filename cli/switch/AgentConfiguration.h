// The configuration file with which the switch starts its agent.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "cli/switch/SwitchOptions.h"

// The CPU device of a switch: at most 15 characters, and another one for each server port, so that
// switches get along in one network namespace.
std::string cpuDeviceOf(const SwitchOptions& options);

// The configuration, as JSON; `ports` are mapped to interfaces.
std::string agentConfiguration(const SwitchOptions& options, const std::string& stateDirectory,
                               const std::map<uint32_t, std::string>& ports);
