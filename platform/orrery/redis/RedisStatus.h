// How this switch stands with its Redis.
#pragma once

#include <string>

#include "platform/vela/Entity.h"

namespace Orrery {

// At "orrery/status/redis". Read with the activity lock held.
class RedisStatus final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "Orrery::RedisStatus"; }

  VELA_READONLY_ATTRIBUTE(std::string, server, "")  // without user and password
  VELA_READONLY_ATTRIBUTE(std::string, prefix, "")  // of this switch's keys
  VELA_READONLY_ATTRIBUTE(bool, connected, false)
  VELA_READONLY_ATTRIBUTE(std::string, trouble, "")  // for people; "": none
  // Where the settings in force come from: "redis", "copy" (of an earlier process), or "" (none).
  VELA_READONLY_ATTRIBUTE(std::string, configuration, "")
  VELA_READONLY_ATTRIBUTE(std::string, configurationTime,
                          "")  // when it was applied (UTC, ISO 8601)
  // "PATH ATTRIBUTE", or a path -> why the setting is not in force. A few of many, and "..." -> how
  // many others there are.
  VELA_COLLECTION(std::string, std::string, refused)
};

}  // namespace Orrery
