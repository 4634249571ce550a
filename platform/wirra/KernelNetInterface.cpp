#include "platform/wirra/KernelNetInterface.h"

namespace Wirra {

Vela::Ptr<KernelNetInterface> KernelNetInterfaceStatus::device(const std::string& name) const {
  return dynamic_cast<KernelNetInterface*>(entity(name).get());
}

}  // namespace Wirra
