// The far end of a port: a bare AF_PACKET socket, written and read in batches.
#pragma once

#include <atomic>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <thread>

namespace TestSupport {

// Bound to the device that has the name now. Packets are whole Ethernet frames, up to 64 KiB.
class PacketEndpoint {
 public:
  // `packet`, if given, is called for each one that the device receives, in order, on a thread of
  // the endpoint's own. Throws std::system_error.
  using Handler = std::function<void(std::span<const uint8_t> packet)>;
  explicit PacketEndpoint(const std::string& device, Handler packet = nullptr);
  ~PacketEndpoint();
  PacketEndpoint(const PacketEndpoint&) = delete;
  PacketEndpoint& operator=(const PacketEndpoint&) = delete;

  // How many went out, from the first on; fewer when the device is down or gone. Any thread.
  size_t send(std::span<const std::string_view> packets);
  bool send(std::string_view packet) { return send({&packet, 1}) == 1; }
  // The packets dropped for want of room since the last call.
  size_t missed();

 private:
  void receive();

  const int socket_;
  const int stop_;  // an eventfd
  const Handler handler_;
  std::thread receiver_;
};

}  // namespace TestSupport
