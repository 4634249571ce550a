#include "P4Runtime/packet/ControllerTxPktDesc.h"

#include <fmt/format.h>

#include "platform/vela/Exception.h"

namespace P4Runtime {

void ControllerTxPktFlags::valueIs(uint32_t value) {
  if (value > 0x1) throw Vela::Exception("ControllerTxPktFlags::value > 0x1 not allowed");
  value_ = value;
}

std::string enumToText(ControllerTxPktResult result) {
  switch (result) {
    case ControllerTxPktResult::packetTxResultUnknown:
      return "packetTxResultUnknown";
    case ControllerTxPktResult::packetTxResultOk:
      return "packetTxResultOk";
    case ControllerTxPktResult::packetTxResultFailed:
      return "packetTxResultFailed";
  }
  return "packetTxResultUnknown";
}

}  // namespace P4Runtime

namespace Vela {

std::string TextForm<P4Runtime::ControllerTxPktFlags>::toText(
    const P4Runtime::ControllerTxPktFlags& flags) {
  return fmt::format("Value('P4Runtime::ControllerTxPktFlags', ** {{'value': {}}})", flags.value());
}

std::string TextForm<P4Runtime::ControllerTxPktDesc>::toText(
    const P4Runtime::ControllerTxPktDesc& desc) {
  return fmt::format(
      "Value('P4Runtime::ControllerTxPktDesc', ** {{'egressP4PortId': {}, 'pkt': {}, 'flags': "
      "{}}})",
      desc.egressP4PortId, desc.pkt ? fmt::format("{} bytes", desc.pkt->size()) : "none",
      TextForm<P4Runtime::ControllerTxPktFlags>::toText(desc.flags));
}

std::string TextForm<P4Runtime::ControllerTxPktStatusEntry>::toText(
    const P4Runtime::ControllerTxPktStatusEntry& entry) {
  return fmt::format(
      "Value('P4Runtime::ControllerTxPktStatusEntry', ** {{'txPktDesc': {}, 'result': {}}})",
      TextForm<P4Runtime::ControllerTxPktDesc>::toText(entry.txPktDesc), enumToText(entry.result));
}

}  // namespace Vela
