#include "P4Runtime/packet/ControllerTxPktConfig.h"

namespace P4Runtime {

bool ControllerTxPktConfig::txPktDescEnq(const ControllerTxPktDesc& desc) {
  if (txPktDesc_.size() + held() >= capacity || crowdedLanes_.count(laneOf(desc))) {
    refusedFullIs(refusedFull() + 1);
    return false;
  }
  txPktDesc_.enq(desc);
  return true;
}

Vela::Ptr<ControllerTxPktConfig> controllerTxPktConfigFactory() {
  return Vela::make<ControllerTxPktConfig>("controllerTxPktConfig");
}

}  // namespace P4Runtime
