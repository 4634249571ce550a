#include "platform/pollen/entities/TypeStatus.h"

namespace Pollen {

using Vela::Ptr;

std::string enumToText(CompilationStatus status) {
  switch (status) {
    case CompilationStatus::inProgress:
      return "inProgress";
    case CompilationStatus::compiled:
      return "compiled";
    case CompilationStatus::failed:
      return "failed";
  }
  return "unknown";
}

bool enumFromText(std::string_view text, CompilationStatus* status) {
  for (const auto one :
       {CompilationStatus::inProgress, CompilationStatus::compiled, CompilationStatus::failed}) {
    if (text != enumToText(one)) continue;
    *status = one;
    return true;
  }
  return false;
}

Ptr<TypeStatus> TypeStatusDir::typeStatus(const std::string& name) const {
  return dynamic_cast<TypeStatus*>(entity(name).get());
}

Ptr<TypeStatus> TypeStatusDir::typeStatusIs(const std::string& name) {
  Ptr<TypeStatus> status = typeStatus(name);
  if (!status) {
    status = Vela::make<TypeStatus>(name);
    entityIs(name, status);
  }
  return status;
}

}  // namespace Pollen
