// A group of mounts: the parts of the state database that an agent works with.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/orrery/Database.h"
#include "platform/orrery/EntityManager.h"
#include "platform/vela/ReactorLoop.h"

namespace Orrery {

struct MountStatus {
  std::string reason;  // why the mounts failed, naming path and type; empty: all are mounted
  bool ok() const { return reason.empty(); }
};

// Modes: r read, w write (and read), c create the entity when it is absent, i immediate: what a
// directory holds is there when the mount completes (with the embedded database it always is).
// Type "Orrery::Directory" takes a directory of any type. Call with the activity lock held.
class MountGroup {
 public:
  // Both must outlive the group. A group that dies before its mounts complete cancels them.
  MountGroup(Database& database, Vela::ReactorLoop& loop);
  ~MountGroup();

  // What is mounted is fetched by its local name, which is its path unless given.
  void mountIs(std::string path, std::string typeName, std::string mode,
               std::string localName = {});
  using Complete = std::function<void(const MountStatus&, const Vela::Ptr<EntityManager>&)>;
  // Mounts everything declared, in order, on a later turn of the reactor, and then runs `complete`.
  // After a failure the manager has what was mounted before it.
  void completeIs(Complete complete);

 private:
  struct Mount {
    std::string path, typeName, mode, localName;
  };
  std::string mountedReason(const Mount& mount, EntityManager& manager);  // empty: mounted
  void doMount(const Complete& complete);

  Database& database_;
  Vela::ReactorLoop& loop_;
  std::vector<Mount> mounts_;
  std::shared_ptr<MountGroup*> alive_;  // what a post holds to see whether the group still is
};

}  // namespace Orrery
