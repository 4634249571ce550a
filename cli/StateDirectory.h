// Where the agent's state lives when no option says so.
#pragma once

#include <cstdlib>
#include <string>

// $KORVEL_STATE_DIR, else /run/korvel.
inline std::string defaultStateDirectory() {
  const char* set = std::getenv("KORVEL_STATE_DIR");
  return set && *set ? set : "/run/korvel";
}
