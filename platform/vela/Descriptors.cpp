#include "platform/vela/Descriptors.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <vector>

#include "platform/vela/Exception.h"

namespace Vela {
namespace {

rlimit limitNow() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return limit;
}

}  // namespace

size_t raiseDescriptorLimit() {
  rlimit limit = limitNow();
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  return limitNow().rlim_cur;
}

void requireDescriptors(size_t count) {
  std::vector<UniqueFd> opened;
  while (opened.size() < count) {
    UniqueFd one(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (one) {
      opened.push_back(std::move(one));
    } else if (errno == EMFILE) {
      throw Exception("this process needs " + std::to_string(count) +
                      " file descriptors and may open " + std::to_string(opened.size()) +
                      " of its limit of " + std::to_string(limitNow().rlim_cur) +
                      "; raise the limit (ulimit -n, or LimitNOFILE of a systemd unit)");
    } else if (errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "cannot open files");
    }
  }
}

UniqueFd::~UniqueFd() {
  if (descriptor_ >= 0) close(descriptor_);
}

UniqueFd selectableEvent(const std::string& purpose) {
  UniqueFd made(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  const int error = made ? EMFILE : errno;
  if (made && made.get() < FD_SETSIZE) return made;
  throw std::system_error(error, std::generic_category(),
                          "no file descriptor below " + std::to_string(FD_SETSIZE) + " for " +
                              purpose + "; start with fewer open files");
}

}  // namespace Vela
