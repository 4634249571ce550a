// The kernel's network devices of this process's network namespace, by name.
#pragma once

#include <cstdint>
#include <string>
#include <system_error>

#include "platform/vela/Descriptors.h"

namespace Forwarder {

unsigned ifIndexOf(const std::string& device);  // 0 when there is no such device
bool isTap(const std::string& device);
bool isUp(const std::string& device);

// The message for people when `action` ("open") fails on a device.
std::string deviceTrouble(const char* action, const std::string& device, std::error_code error);

// A raw packet socket, bound to no device yet. `flags` are flags of socket(2), such as
// SOCK_NONBLOCK. Throws std::system_error, for want of CAP_NET_RAW for example.
Vela::UniqueFd openPacketSocket(int flags);

// Lets the socket receive packets of an EtherType, in host byte order; 0: it only sends. Throws
// std::system_error.
void bindToDevice(int packetSocket, unsigned ifIndex, uint16_t etherType);

}  // namespace Forwarder
