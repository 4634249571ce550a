// The type service: compiles the table types of a configuration directory and publishes how it
// went.
#pragma once

#include <map>
#include <string>

#include "platform/pollen/entities/TypeConfig.h"
#include "platform/pollen/entities/TypeStatus.h"
#include "platform/vela/ReactorLoop.h"

namespace Pollen {

// A type that comes, or whose definition changes, gets the status `inProgress` at once and is
// compiled on a later turn of the reactor; it stands in Lattice::TheTypeRegistry() before its
// status becomes `compiled`. A failure leaves no type of that name there. Deleting a configuration
// deletes status and type. Call with the activity lock held; the loop must outlive the service.
class TypeService final : public Vela::RefCounted {
 public:
  TypeService(Vela::ReactorLoop& loop, Vela::Ptr<TypeConfigDir> configs,
              Vela::Ptr<TypeStatusDir> statuses);

 private:
  struct Watched {
    Vela::Ptr<TypeConfig> config;
    Vela::Observation definition;
  };
  void handleConfig(const std::string& name);
  void handleDefinition(const std::string& name);
  void doCompile(const std::string& name, const std::string& definition);

  Vela::ReactorLoop& loop_;
  Vela::Ptr<TypeConfigDir> configs_;
  Vela::Ptr<TypeStatusDir> statuses_;
  std::map<std::string, Watched> watched_;
  Vela::Observation configsChange_;
};

}  // namespace Pollen
