// The writer's hold on the files of a store.
#pragma once

#include <string>

#include "platform/brine/StoreTerms.h"

namespace Brine {

// Who holds it is the one writer of the directory. The kernel drops it with the process.
class WriterLock {
 public:
  explicit WriterLock(const std::string& directory);  // throws StoreError
  ~WriterLock();
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  int file_ = -1;
};

// Moves a lost store out of the way: beside the directory, or into it when that is a mount point or
// its parent is not ours to write. Returns the place; throws StoreError. The lock is held.
std::string moveAside(const std::string& directory, Trouble why);

}  // namespace Brine
