#include "platform/pollen/entities/TypeConfig.h"

namespace Pollen {

using Vela::Ptr;

Ptr<TypeConfig> TypeConfigDir::typeConfig(const std::string& name) const {
  return dynamic_cast<TypeConfig*>(entity(name).get());
}

Ptr<TypeConfig> TypeConfigDir::typeConfigIs(const std::string& name,
                                            const std::string& definition) {
  Ptr<TypeConfig> config = typeConfig(name);
  if (config) {
    config->definitionIs(definition);
  } else {
    config = Vela::make<TypeConfig>(name);
    config->definitionIs(definition);
    entityIs(name, config);
  }
  return config;
}

}  // namespace Pollen
