#include "platform/vela/EventDescriptor.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

namespace Vela {

EventDescriptor::EventDescriptor() : descriptor_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (descriptor_) return;
  throw std::system_error(errno, std::generic_category(),
                          "no file descriptor for an event; start with fewer open files");
}

// It fails only when 2^64 - 2 rings wait, and then it is readable anyway.
void EventDescriptor::ring() const { static_cast<void>(eventfd_write(get(), 1)); }

bool EventDescriptor::silence() const {
  eventfd_t rings = 0;
  return eventfd_read(get(), &rings) == 0;
}

}  // namespace Vela
