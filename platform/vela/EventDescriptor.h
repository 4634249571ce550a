// A bell between threads: a descriptor that is readable once somebody has rung.
#pragma once

#include "platform/vela/Descriptors.h"

namespace Vela {

// An eventfd. Threads: any, at once.
class EventDescriptor {
 public:
  EventDescriptor();                             // throws std::system_error: no descriptor is left
  int get() const { return descriptor_.get(); }  // for poll()
  void ring() const;
  // Returns whether it had rung since the last time. Look for the work that it tells of afterwards.
  bool silence() const;

 private:
  const UniqueFd descriptor_;
};

}  // namespace Vela
