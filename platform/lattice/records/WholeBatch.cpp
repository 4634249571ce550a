#include "platform/lattice/records/WholeBatch.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/lattice/records/Packing.h"
#include "platform/lattice/records/StoreLayout.h"

namespace Lattice {
namespace {

using Range = std::pair<uint64_t, uint64_t>;  // first and last

Brine::Bytes recordKey() { return Brine::asBytes("batch"); }

std::string packed(std::span<const uint64_t> changes) {
  std::string bytes;
  for (size_t i = 0; i < changes.size();) {
    size_t next = i + 1;
    while (next < changes.size() && changes[next] == changes[next - 1] + 1) ++next;
    append(bytes, changes[i]);
    append(bytes, changes[next - 1]);
    i = next;
  }
  return bytes;
}

// The changes of a batch without an outcome.
std::vector<Range> unfinished(Brine::Store& store) {
  if (!store.hasTable(wholeBatchTable)) return {};
  const auto record = store.record(store.table(wholeBatchTable), recordKey());
  if (!record || !store.isUnsettled(*record)) return {};
  std::vector<Range> ranges = wholeBatchRanges(Brine::asText(record->value));
  std::erase_if(ranges, [&](const Range& range) { return range.second > record->sequence; });
  return ranges;
}

}  // namespace

std::vector<Range> wholeBatchRanges(std::string_view record) {
  std::vector<Range> ranges;
  Unpacker from(record);
  while (!from.finished() && !from.bad()) {
    const auto first = from.take<uint64_t>();
    const auto last = from.take<uint64_t>();
    if (!from.bad() && first <= last) ranges.emplace_back(first, last);
  }
  return ranges;
}

void noteWholeBatch(Brine::Store& store, std::span<const uint64_t> changes) {
  if (changes.size() > store.mostUndoneLater()) {
    throw std::length_error("a Write that stands or falls as a whole may change at most " +
                            std::to_string(store.mostUndoneLater()) +
                            " rows and records; send fewer updates, or use CONTINUE_ON_ERROR");
  }
  store.put(store.table(wholeBatchTable), recordKey(), Brine::asBytes(packed(changes)));
}

// The latest change first: a row may follow from another one.
size_t undoUnfinishedBatch(Brine::Store& store) {
  const std::vector<Range> ranges = unfinished(store);
  if (ranges.empty()) return 0;
  size_t undone = 0;
  for (auto range = ranges.rbegin(); range != ranges.rend(); ++range) {
    for (uint64_t change = range->second; change + 1 > range->first; --change) {
      if (store.undo(change) != 0) ++undone;
    }
  }
  store.erase(store.table(wholeBatchTable), recordKey());
  store.commit();
  store.settle();
  return undone;
}

}  // namespace Lattice
