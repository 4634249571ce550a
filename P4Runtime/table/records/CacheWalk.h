// Walks the records of a cache while the store is being written.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "P4Runtime/table/records/EntryCache.h"

namespace P4Runtime {

// Visits each committed record once, as it is stored: a store must not be written while it is
// walked, so records are copied out by the thousand.
template <typename Record, typename Visit>
void forEachCopied(const EntryCache<Record>& cache, Visit visit) {
  constexpr size_t chunkSize = 4096;
  std::vector<std::pair<std::string, std::string>> chunk;  // stored keys and records
  Brine::Store::Position position;
  do {
    chunk.clear();
    const auto copy = [&](Brine::Bytes key, Brine::Bytes stored) {
      chunk.emplace_back(Brine::asText(key), Brine::asText(stored));
      return chunk.size() < chunkSize;
    };
    cache.forEach(copy, &position);
    for (const auto& [key, stored] : chunk) visit(Brine::asBytes(key), Brine::asBytes(stored));
  } while (chunk.size() == chunkSize);
}

}  // namespace P4Runtime
