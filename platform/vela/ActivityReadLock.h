// The activity lock for those that only look.
#pragma once

namespace Vela {

// Takes the activity lock for a scope, as an ActivityLock does, after all that wait for one: what
// readers want never delays a Write that settles, nor the reactor. Nests, also in an ActivityLock.
// Hold it for microseconds.
class ActivityReadLock {
 public:
  ActivityReadLock();
  ~ActivityReadLock();
  ActivityReadLock(const ActivityReadLock&) = delete;
  ActivityReadLock& operator=(const ActivityReadLock&) = delete;
};

}  // namespace Vela
