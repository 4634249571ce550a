#include "platform/pollen/EntityTypes.h"

#include "platform/orrery/EntityTypes.h"
#include "platform/pollen/QueryConfig.h"
#include "platform/pollen/QueryStatus.h"
#include "platform/pollen/TypeConfig.h"
#include "platform/pollen/TypeStatus.h"

namespace Pollen {

void registerEntityTypes() {
  auto& types = Orrery::TheEntityTypes();
  types.typeIs<QueryConfigDir>("Pollen::QueryConfigDir");
  types.typeIs<QueryStatusDir>("Pollen::QueryStatusDir");
  types.typeIs<TypeConfigDir>("Pollen::TypeConfigDir");
  types.typeIs<TypeStatusDir>("Pollen::TypeStatusDir");
}

}  // namespace Pollen
