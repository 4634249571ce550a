#include "platform/pollen/entities/QueryConfig.h"

namespace Pollen {

using Vela::Ptr;

Ptr<QueryConfig> QueryConfigDir::queryConfig(const std::string& path) const {
  return dynamic_cast<QueryConfig*>(entity(path).get());
}

Ptr<QueryConfig> QueryConfigDir::queryConfigIs(const std::string& path,
                                               const std::string& outputType) {
  activeQueryConfigDel(path);
  const auto query = Vela::make<QueryConfig>(path, outputType);
  entityIs(path, query);
  return query;
}

void QueryConfigDir::queryConfigDelAll() {
  activeQueryConfigDelAll();
  entityDelAll();
}

void QueryConfigDir::activeQueryConfigIs(const Ptr<QueryConfig>& query) {
  if (query) activeIs(query->name(), query);
}

}  // namespace Pollen
