#include "platform/pollen/entities/QueryStatus.h"

namespace Pollen {

using Vela::Ptr;

Ptr<QueryStatus> QueryStatusDir::queryStatus(const std::string& path) const {
  return dynamic_cast<QueryStatus*>(entity(path).get());
}

Ptr<QueryStatus> QueryStatusDir::queryStatusIs(const std::string& path) {
  Ptr<QueryStatus> status = queryStatus(path);
  if (!status) {
    status = Vela::make<QueryStatus>(path);
    entityIs(path, status);
  }
  return status;
}

}  // namespace Pollen
