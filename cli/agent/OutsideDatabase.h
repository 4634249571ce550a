// The state database outside that `korvel agent --orrery` names.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/orrery/LayeredConfig.h"
#include "platform/orrery/redis/RedisOrrery.h"
#include "platform/vela/ReactorLoop.h"

// Throws Orrery::AddressError for an address that makes no sense. Loads nothing yet. Call with the
// activity lock held; both references must outlive it.
std::unique_ptr<Orrery::RedisOrrery> outsideDatabase(Vela::ReactorLoop& loop,
                                                     Orrery::LayeredConfig& layers,
                                                     const std::string& address,
                                                     const std::string& stateDirectory);
