#include "P4Runtime/companion/PortMapping.h"

namespace P4RuntimeConfig {

std::optional<uint32_t> portFromText(const std::string& text) {
  const auto port = Vela::TextForm<uint32_t>::fromText(text);
  if (!port || Vela::TextForm<uint32_t>::toText(*port) != text) return std::nullopt;
  return port;
}

Vela::Ptr<Vela::Entity> PortMappingConfigDir::makeEntity(const std::string& name) const {
  if (!portFromText(name)) {
    throw Vela::BadValue("'" + name.substr(0, 80) +
                         "' is no P4 port id; write a number from 0 to 4294967295");
  }
  return Vela::make<PortMappingConfig>(name);
}

}  // namespace P4RuntimeConfig
