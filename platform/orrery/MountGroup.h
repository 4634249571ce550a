// A group of mounts: the parts of the state database that an agent works with.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/orrery/Database.h"
#include "platform/orrery/EntityManager.h"
#include "platform/vela/Outcome.h"
#include "platform/vela/ReactorLoop.h"

namespace Orrery {

// Modes: r read, w write (and read), c create the entity when it is absent, i immediate: a
// directory's entities are there when the mount completes (with the embedded database, always).
// Type "Orrery::Directory" takes a directory of any type. Call with the activity lock held.
class MountGroup {
 public:
  // Both must outlive the group. A group that dies before its mounts complete cancels them.
  MountGroup(Database& database, Vela::ReactorLoop& loop);
  ~MountGroup();

  // A mounted entity is fetched by its local name, which is its path unless given.
  void mountIs(std::string path, std::string typeName, std::string mode,
               std::string localName = {});
  using Complete = std::function<void(const Vela::Outcome&, const Vela::Ptr<EntityManager>&)>;
  // Mounts everything declared, in order, on a later turn of the reactor, and then runs `complete`.
  // A failure names path and type; the manager then has the mounts before it.
  void completeIs(Complete complete);

 private:
  struct Mount {
    std::string path, typeName, mode, localName;
  };
  Vela::Outcome tryMount(const Mount& mount, EntityManager& manager);
  void doMount(const Complete& complete);

  Database& database_;
  Vela::ReactorLoop& loop_;
  std::vector<Mount> mounts_;
  std::shared_ptr<MountGroup*> alive_;  // null once the group is gone; posts hold it
};

}  // namespace Orrery
