// The activity lock for threads that only read.
#pragma once

namespace Vela {

// Takes the activity lock for a scope, as an ActivityLock does, but after all threads that wait for
// an ActivityLock: readers never delay a Write that settles, nor the reactor. Nests, also in an
// ActivityLock.
// Hold it for microseconds.
class ActivityReadLock {
 public:
  ActivityReadLock();
  ~ActivityReadLock();
  ActivityReadLock(const ActivityReadLock&) = delete;
  ActivityReadLock& operator=(const ActivityReadLock&) = delete;
};

}  // namespace Vela
