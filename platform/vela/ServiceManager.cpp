// The protocol is that of sd_notify(3), whose function waits for room.
#include "platform/vela/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/vela/Descriptors.h"
#include "platform/vela/Text.h"

namespace Vela {
namespace {

using std::chrono::milliseconds;

// A path, or with '@' in front a name in the abstract namespace.
bool send(const std::string& message) {
  const char* place = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const size_t size = place ? std::strlen(place) : 0;
  if (size < 2 || size >= sizeof address.sun_path || !std::strchr("/@", *place)) return false;
  std::memcpy(address.sun_path, place, size);
  if (*place == '@') address.sun_path[0] = 0;
  const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size);
  return socket && sendto(socket.get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                          reinterpret_cast<const sockaddr*>(&address), length) >= 0;
}

std::optional<uint64_t> numberFrom(const char* variable) {
  const char* text = std::getenv(variable);
  return text ? TextForm<uint64_t>::fromText(text) : std::nullopt;
}

// A third: two turns may come late.
std::optional<milliseconds> askedPeriod() {
  const auto microseconds = numberFrom("WATCHDOG_USEC");
  if (!microseconds || *microseconds == 0) return std::nullopt;
  const auto pid = numberFrom("WATCHDOG_PID");
  if (pid && *pid != static_cast<uint64_t>(getpid())) return std::nullopt;
  return milliseconds(std::max<uint64_t>(*microseconds / 3000, 1));
}

std::string monotonicMicroseconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

}  // namespace

ServiceManager::ServiceManager() : isPresent_(std::getenv("NOTIFY_SOCKET") != nullptr) {
  if (isPresent_) alivePeriod_ = askedPeriod();
}

bool ServiceManager::ready() const { return !isPresent_ || send("READY=1"); }

void ServiceManager::statusIs(const std::string& line) {
  if (!isPresent_ || line == status_) return;
  if (send("STATUS=" + line.substr(0, line.find('\n')))) status_ = line;
}

void ServiceManager::alive() const {
  if (alivePeriod_) (void)send("WATCHDOG=1");
}

void ServiceManager::reloading() const {
  if (isPresent_) (void)send("RELOADING=1\nMONOTONIC_USEC=" + monotonicMicroseconds());
}

void ServiceManager::stopping() { (void)send("STOPPING=1"); }

}  // namespace Vela
