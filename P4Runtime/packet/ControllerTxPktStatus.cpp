#include "P4Runtime/packet/ControllerTxPktStatus.h"

namespace P4Runtime {

void ControllerTxPktStatus::recordDrop(uint64_t key, const ControllerTxPktDesc& desc, TxDrop reason,
                                       const std::string& trouble) {
  switch (reason) {
    case TxDrop::noPacket:
      noPacketIs(noPacket() + 1);
      break;
    case TxDrop::noMapping:
      noMappingIs(noMapping() + 1);
      break;
    case TxDrop::noPam:
      noPamIs(noPam() + 1);
      break;
    case TxDrop::deviceDown:
      deviceDownIs(deviceDown() + 1);
      break;
    case TxDrop::tooLong:
      tooLongIs(tooLong() + 1);
      break;
    case TxDrop::failed:
      failedIs(failed() + 1);
      break;
  }
  if (!trouble.empty()) lastTroubleIs(trouble);
  statusEntry_.valueIs(key, {{desc.egressP4PortId, nullptr, desc.flags},
                             ControllerTxPktResult::packetTxResultFailed});
  if (statusEntry().size() > mostEntries) statusEntry_.valueDel(statusEntry().begin()->first);
}

}  // namespace P4Runtime
