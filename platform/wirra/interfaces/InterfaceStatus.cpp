#include "platform/wirra/interfaces/InterfaceStatus.h"

#include <net/if.h>

namespace Interface {

Vela::Ptr<Vela::Entity> AllEthPhyIntfConfigDir::makeEntity(const std::string& name) const {
  if (name.empty() || name.size() >= IFNAMSIZ ||
      name.find_first_of("/ \t\n\v\f\r") != std::string::npos) {
    throw Vela::BadValue("an interface's name has 1 to 15 characters and no blank among them");
  }
  return Vela::make<EthPhyIntfConfig>(name);
}

}  // namespace Interface
