// Sends frames on one kernel device, in batches.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "forwarder/device/Frames.h"
#include "platform/vela/Descriptors.h"

namespace Forwarder {

// The fates of sent packets. Each packet counts once.
struct SendCounts {
  uint64_t sent = 0;  // received by the device
  uint64_t sentBytes = 0;
  uint64_t tooLong = 0;   // for the device's MTU
  uint64_t noDevice = 0;  // the device is missing, or down
  uint64_t full = 0;      // more packets waited for the device than it takes
  uint64_t refused = 0;   // by the kernel, for another reason
};

// Bound to a device by its index. Threads: one at a time.
class SendSocket {
 public:
  enum class WhenFull { waitASecond, drop };

  // Throws std::system_error: no such device, no permission.
  SendSocket(unsigned ifIndex, WhenFull whenFull);

  // In order. A packet that is not sent does not hold up those behind it.
  SendCounts send(std::span<const Frame> frames);
  int error() const { return error_; }  // errno of the newest refusal; 0: the last send() had none

 private:
  void count(int error, SendCounts& counts);

  Vela::UniqueFd descriptor_;
  int flags_;
  int error_ = 0;
};

// The words for error(); empty for 0.
std::string sendTrouble(const std::string& device, int error);

}  // namespace Forwarder
