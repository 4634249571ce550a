// A packet to send for a controller, and its result: plain values with texts for people.
#pragma once

#include <cstdint>
#include <string>

#include "platform/vela/Entity.h"
#include "platform/wirra/packets/Packet.h"

namespace P4Runtime {

// How a packet is to be sent.
class ControllerTxPktFlags {
 public:
  ControllerTxPktFlags() = default;
  // Throws Vela::Exception for bits that mean nothing.
  explicit ControllerTxPktFlags(uint32_t value) { valueIs(value); }

  uint32_t value() const { return value_; }
  void valueIs(uint32_t value);
  // Bit 0: the packet goes through the forwarding plane as if it had come in on a port, which then
  // decides where it leaves; without it, it leaves through its egress port as it is.
  bool ingressProcessingEnabled() const { return value_ & 1; }
  void ingressProcessingEnabledIs(bool enabled) { value_ = enabled ? 1 : 0; }

  friend bool operator==(const ControllerTxPktFlags&, const ControllerTxPktFlags&) = default;

 private:
  uint32_t value_ = 0;
};

struct ControllerTxPktDesc {
  uint32_t egressP4PortId = 0;
  Wirra::Packet::Ptr pkt;  // the payload, without the controller's metadata
  ControllerTxPktFlags flags;

  friend bool operator==(const ControllerTxPktDesc&, const ControllerTxPktDesc&) = default;
};

// Packets of one lane keep their order: a lane a port, and one for ingress processing.
inline uint64_t laneOf(const ControllerTxPktDesc& desc) {
  constexpr uint64_t ingressLane = uint64_t{1} << 32;  // beyond all ports
  return desc.flags.ingressProcessingEnabled() ? ingressLane : desc.egressP4PortId;
}

enum class ControllerTxPktResult {
  packetTxResultUnknown = 0,
  packetTxResultOk = 1,
  packetTxResultFailed = 2
};
std::string enumToText(ControllerTxPktResult result);

struct ControllerTxPktStatusEntry {
  ControllerTxPktDesc txPktDesc;
  ControllerTxPktResult result = ControllerTxPktResult::packetTxResultUnknown;

  friend bool operator==(const ControllerTxPktStatusEntry&,
                         const ControllerTxPktStatusEntry&) = default;
};

}  // namespace P4Runtime

// Texts for people only; none of these is read back.
template <>
struct Vela::TextForm<P4Runtime::ControllerTxPktFlags> {
  static const char* typeName() { return "P4Runtime::ControllerTxPktFlags"; }
  static std::string toText(const P4Runtime::ControllerTxPktFlags& flags);
  static std::optional<P4Runtime::ControllerTxPktFlags> fromText(std::string_view) { return {}; }
};

template <>
struct Vela::TextForm<P4Runtime::ControllerTxPktDesc> {
  static const char* typeName() { return "P4Runtime::ControllerTxPktDesc"; }
  static std::string toText(const P4Runtime::ControllerTxPktDesc& desc);
  static std::optional<P4Runtime::ControllerTxPktDesc> fromText(std::string_view) { return {}; }
};

template <>
struct Vela::TextForm<P4Runtime::ControllerTxPktStatusEntry> {
  static const char* typeName() { return "P4Runtime::ControllerTxPktStatusEntry"; }
  static std::string toText(const P4Runtime::ControllerTxPktStatusEntry& entry);
  static std::optional<P4Runtime::ControllerTxPktStatusEntry> fromText(std::string_view) {
    return {};
  }
};
