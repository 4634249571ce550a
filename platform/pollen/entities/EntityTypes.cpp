#include "platform/pollen/entities/EntityTypes.h"

#include "platform/orrery/EntityTypes.h"
#include "platform/pollen/entities/QueryConfig.h"
#include "platform/pollen/entities/QueryStatus.h"
#include "platform/pollen/entities/TypeConfig.h"
#include "platform/pollen/entities/TypeStatus.h"

namespace Pollen {

void registerEntityTypes() {
  auto& types = Orrery::TheEntityTypes();
  types.typeIs<QueryConfigDir>("Pollen::QueryConfigDir");
  types.typeIs<QueryStatusDir>("Pollen::QueryStatusDir");
  types.typeIs<TypeConfigDir>("Pollen::TypeConfigDir");
  types.typeIs<TypeStatusDir>("Pollen::TypeStatusDir");
}

}  // namespace Pollen
