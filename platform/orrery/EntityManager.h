// Gives out mounted entities, each in the mode it was mounted in.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/vela/Entity.h"

namespace Orrery {

// An entity was fetched that is not mounted, is of another type, or is mounted without "w" and was
// fetched to be written.
class MountError : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

// Call with the activity lock held.
class EntityManager final : public Vela::RefCounted {
 public:
  // entity<const T>(path) fetches for reading, entity<T>(path) for writing. Throws MountError.
  template <typename T>
  Vela::Ptr<T> entity(std::string_view path) const {
    Vela::Entity& found = mounted(path, !std::is_const_v<T>);
    T* typed = dynamic_cast<T*>(&found);
    if (!typed) refuseType(path, found);
    return Vela::Ptr<T>(typed);
  }
  bool has(std::string_view path) const { return mounts_.find(path) != mounts_.end(); }

 private:
  friend class MountGroup;
  struct Mounted {
    Vela::Ptr<Vela::Entity> entity;
    bool writable = false;
  };
  Vela::Entity& mounted(std::string_view path, bool forWriting) const;
  [[noreturn]] static void refuseType(std::string_view path, const Vela::Entity& found);

  std::map<std::string, Mounted, std::less<>> mounts_;
};

}  // namespace Orrery
