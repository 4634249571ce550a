// What one caller may write and read of a device's pipeline. Whoever calls the DeviceMgr for a
// caller with limits hands it in; without it everything is permitted.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace p4::config::v1 {
class P4Info;
}

namespace pi::fe::proto {

// An object that holds entities.
struct EntityObject {
  enum class Kind : uint8_t { ofP4Info, multicastGroups, cloneSessions };
  Kind kind = Kind::ofP4Info;
  uint32_t id = 0;  // of the P4Info: a table's also for its direct counter and meter
};

enum class EntityUse : uint8_t { write, read };

// Of one pipeline. Constant; any thread.
class EntityRights {
 public:
  virtual ~EntityRights() = default;
  // Asked for each update: a look-up.
  virtual bool permits(EntityUse use, const EntityObject& object) const = 0;
  // Why not, for the caller. `objectText` names the object: "table ingress.acl".
  virtual std::string refusal(EntityUse use, const EntityObject& object,
                              std::string_view objectText) const = 0;
};

// A caller, whose rights follow from the pipeline.
class EntityCaller {
 public:
  virtual ~EntityCaller() = default;
  // `pipeline` numbers the pipelines of the process. Never null. Any thread; waits for look-ups.
  virtual std::shared_ptr<const EntityRights> rights(
      uint64_t pipeline, const p4::config::v1::P4Info& p4Info) const = 0;
};

}  // namespace pi::fe::proto
