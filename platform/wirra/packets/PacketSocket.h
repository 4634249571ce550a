// An AF_PACKET socket on one kernel device.
#pragma once

#include <string>

namespace Wirra {

// Owns the descriptor, which never blocks. Stays bound to the device when that is renamed or goes
// down; when the device goes for good, nothing comes and nothing can be sent any more.
class PacketSocket final {
 public:
  // `receive` false: nothing ever comes. Throws std::system_error, naming the device, when it is
  // absent or permission is missing.
  PacketSocket(const std::string& device, bool receive);
  ~PacketSocket();
  PacketSocket(const PacketSocket&) = delete;
  PacketSocket& operator=(const PacketSocket&) = delete;

  int descriptor() const { return descriptor_; }
  int ifIndex() const { return ifIndex_; }

 private:
  void doBind(bool receive);
  void doPrepareReceive();
  [[noreturn]] void fail(const char* what);

  const std::string device_;
  int ifIndex_ = 0;
  int descriptor_ = -1;
};

}  // namespace Wirra
