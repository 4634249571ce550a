#include "forwarder/punt/PuntCounts.h"

#include <fmt/format.h>

namespace Forwarder {

void PuntCounts::add(const SendCounts& sent) {
  punted += sent.sent;
  tooLong += sent.tooLong;
  noDevice += sent.noDevice;
  refused += sent.refused + sent.full;
}

std::string PuntCounts::text() const {
  return fmt::format(
      "arrived {}\nmade {}\npunted {}\nfiltered {}\nmissed {}\ntoo-long {}\nno-header {}\n"
      "no-device {}\nrefused {}\n",
      arrived.load(), made.load(), punted.load(), filtered.load(), missed.load(), tooLong.load(),
      noHeader.load(), noDevice.load(), refused.load());
}

}  // namespace Forwarder
