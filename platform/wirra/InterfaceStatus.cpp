#include "platform/wirra/InterfaceStatus.h"

#include <net/if.h>

namespace Interface {

Vela::Ptr<Vela::Entity> AllEthPhyIntfConfigDir::entityMade(const std::string& name) const {
  if (name.empty() || name.size() >= IFNAMSIZ) return nullptr;
  if (name.find_first_of("/ \t\n\v\f\r") != std::string::npos) return nullptr;
  return Vela::make<EthPhyIntfConfig>(name);
}

}  // namespace Interface
