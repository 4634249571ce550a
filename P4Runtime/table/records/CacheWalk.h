// Walks the records of a cache while the store is being written.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "P4Runtime/table/records/TableCache.h"

namespace P4Runtime {

// Visits each committed record once, as it is stored: a store must not be written while it is
// walked, so records are copied out by the thousand.
template <typename Record, typename Visit>
void forEachCopied(const EntryCache<Record>& cache, Visit visit) {
  constexpr size_t chunkSize = 4096;
  std::vector<std::pair<std::string, std::string>> chunk;  // stored keys and records
  std::string from;
  do {
    chunk.clear();
    cache.forEach(
        [&](Brine::Bytes key, Brine::Bytes stored) {
          chunk.emplace_back(Brine::asText(key), Brine::asText(stored));
          return chunk.size() < chunkSize;
        },
        Brine::asBytes(from));
    for (const auto& [key, stored] : chunk) visit(Brine::asBytes(key), Brine::asBytes(stored));
    if (!chunk.empty()) from = chunk.back().first + '\0';
  } while (chunk.size() == chunkSize);
}

}  // namespace P4Runtime
