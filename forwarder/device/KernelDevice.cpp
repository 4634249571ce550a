#include "forwarder/device/KernelDevice.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <linux/ethtool.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace Forwarder {
namespace {

// Fills `request` with the kernel's reply; false when there is no such device.
bool queryDevice(const std::string& device, unsigned long query, ifreq& request) {
  const Vela::UniqueFd any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  device.copy(request.ifr_name, sizeof request.ifr_name - 1);
  return any && ioctl(any.get(), query, &request) == 0;
}

}  // namespace

unsigned ifIndexOf(const std::string& device) { return if_nametoindex(device.c_str()); }

bool isTap(const std::string& device) {
  ethtool_drvinfo info{.cmd = ETHTOOL_GDRVINFO};
  ifreq request{};
  request.ifr_data = reinterpret_cast<char*>(&info);
  return queryDevice(device, SIOCETHTOOL, request) && std::strcmp(info.driver, "tun") == 0 &&
         std::strcmp(info.bus_info, "tap") == 0;
}

bool isUp(const std::string& device) {
  ifreq request{};
  return queryDevice(device, SIOCGIFFLAGS, request) && (request.ifr_flags & IFF_UP);
}

std::string deviceTrouble(const char* action, const std::string& device, std::error_code error) {
  if (error == std::errc::no_such_device) return "there is no device " + device;
  std::string trouble = fmt::format("cannot {} {}: {}", action, device, error.message());
  if (error == std::errc::operation_not_permitted) trouble += "; this needs CAP_NET_RAW";
  return trouble;
}

Vela::UniqueFd openPacketSocket(int flags) {
  Vela::UniqueFd descriptor(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | flags, 0));
  if (!descriptor) throw std::system_error(errno, std::generic_category());
  return descriptor;
}

void bindToDevice(int packetSocket, unsigned ifIndex, uint16_t etherType) {
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(etherType);
  address.sll_ifindex = static_cast<int>(ifIndex);
  if (bind(packetSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::system_error(errno, std::generic_category());
  }
}

}  // namespace Forwarder
