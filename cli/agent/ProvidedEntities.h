// The entities that an operating system has in the state database before its agents start; here the
// launcher adds them.
#pragma once

#include <string>

#include "platform/orrery/Database.h"

// Entities of the types that the agent's library has registered, each unless it is there already.
// Throws std::runtime_error for a type that is not registered. Call with the activity lock held.
void provideEntities(Orrery::Database& database, const std::string& stateDirectory);
