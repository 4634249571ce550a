// Controllers and their roles, for the page and for scraping.
#pragma once

#include <cjson/cJSON.h>

#include "P4Runtime/monitoring/Exposition.h"

namespace P4Runtime {

// Both copy a bounded number of them out of the server; any thread.

// Adds "controllers", primaries first, and "controllersInAll", their number.
void addControllers(cJSON* status);
// By role, since there is no bound on the controllers that come and go.
void writeRoles(Exposition& to);

}  // namespace P4Runtime
