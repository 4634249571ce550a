#include "platform/vela/Failure.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#ifdef NDEBUG
#error "assertions guard invariants of the agent: build without -DNDEBUG"
#endif

namespace Vela {

void endProcess(std::string_view trouble) noexcept {
  std::fprintf(stderr, "%s: cannot go on: %.*s\n", program_invocation_short_name,
               static_cast<int>(trouble.size()), trouble.data());
  std::fflush(nullptr);
  _exit(1);
}

std::thread startThread(const std::string& purpose, std::function<void()> body) try {
  return std::thread([body = std::move(body)] { guarded(body); });
} catch (const std::system_error& e) {
  throw std::system_error(e.code(), "cannot start a thread to " + purpose +
                                        "; raise the limit on processes (ulimit -u)");
}

}  // namespace Vela
