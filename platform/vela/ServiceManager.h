// Tells the service manager, systemd, how the process is. Without one (no $NOTIFY_SOCKET) nothing
// happens.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace Vela {

// Use it on one thread, but for stopping(), which any thread may call. No call waits: a service
// manager that does not read must not hold a reactor up, so that a message it has no room for is
// dropped.
class ServiceManager {
 public:
  ServiceManager();

  bool isPresent() const { return isPresent_; }
  // How often to call alive(), with time to spare; nothing: no watchdog is set.
  std::optional<std::chrono::milliseconds> alivePeriod() const { return alivePeriod_; }

  // The process does its work; again after reloading(). False when there was no room: try again.
  bool ready() const;
  // One line for `systemctl status`. One that has been sent is not sent again.
  void statusIs(const std::string& line);
  void alive() const;
  void reloading() const;  // the process reads its configuration again; ready() ends it
  static void stopping();

 private:
  bool isPresent_ = false;
  std::optional<std::chrono::milliseconds> alivePeriod_;
  std::string status_;
};

}  // namespace Vela
