// Makes the directories of this folder known to the state database.
#pragma once

namespace Pollen {

// So that mounts with mode "c" can create "Pollen::TypeConfigDir" and the like. Call before
// mounting, with the activity lock held.
void registerEntityTypes();

}  // namespace Pollen
