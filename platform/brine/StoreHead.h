// The head of a store: the version of its layout, the boot that it was written in, and the list of
// its tables.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/brine/Environment.h"
#include "platform/brine/StateDirectory.h"

namespace Brine {

// Names of LMDB databases that are the store's own, not tables.
inline constexpr std::string_view metaTable = "brine/meta";
inline constexpr std::string_view layoutKey = "layoutVersion";
inline constexpr std::string_view bootKey = "boot";
inline constexpr std::string_view tableKeyPrefix = "table/";  // and the name: an empty record
inline constexpr uint32_t layoutVersion = 2;

// Checks the head, and that no table is lost; a writer makes the head of an empty environment.
// `bootId` empty: the kernel's. Throws StoreError.
void checkOrCreate(Environment& environment, Purpose purpose, const std::string& bootId);

}  // namespace Brine
