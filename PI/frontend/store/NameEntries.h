// The entries of a translation table: a number as the key, and the name as action data.
#pragma once

#include <optional>
#include <string_view>

#include "PI/frontend/model/NamedType.h"
#include "PI/frontend/store/Entry.h"

namespace pi::fe::proto {

// In the smallest action that holds the name, which has at most Dictionary::kMostBytes.
EntryPtr nameEntry(const NamedType& type, uint32_t number, std::string_view name);
EntryPtr nameKey(const NamedType& type, uint32_t number);  // the key alone

// Nothing for an entry of another table.
std::optional<Dictionary::Pair> namePair(const NamedType& type, const Entry& entry);

}  // namespace pi::fe::proto
