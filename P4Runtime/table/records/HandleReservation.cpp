#include "P4Runtime/table/records/HandleReservation.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string_view>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "PI/pi_extensions.h"

namespace P4Runtime {
namespace {

constexpr const char* reservedHandlesTable = "p4runtime/handles";
constexpr std::string_view entryKey = "entry";

}  // namespace

void HandleReservation::continueHandles() {
  const Brine::TableNumber reserved = store_->table(reservedHandlesTable);
  EntryHandle upTo = stored(reserved);
  if (upTo == 0) upTo = handlesOfFormerStores();
  handles_.reserveUpTo(std::min(upTo, largestEntryHandle));
  handles_.reservationHandlerIs([this, reserved](EntryHandle end) { reserve(reserved, end); });
}

EntryHandle HandleReservation::stored(Brine::TableNumber table) const {
  EntryHandle upTo = 0;
  const auto stored = store_->get(table, Brine::asBytes(entryKey));
  if (stored && stored->size() == sizeof upTo) std::memcpy(&upTo, stored->data(), sizeof upTo);
  return upTo;
}

// A new store knows nothing of the handles of its predecessor, under which forwarding agents may
// have left counts. No agent ever gave out more than one handle a microsecond.
EntryHandle HandleReservation::handlesOfFormerStores() const {
  if (!hwStatus_ || !hwStatus_->anyFlowCounter()) return 0;
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<EntryHandle>(
      std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count());
}

void HandleReservation::reserve(Brine::TableNumber table, EntryHandle end) {
  const std::string_view bytes(reinterpret_cast<const char*>(&end), sizeof end);
  try {
    store_->put(table, Brine::asBytes(entryKey), Brine::asBytes(bytes));
  } catch (const Brine::StoreError& e) {
    throw P4RuntimeException(e.what(), 0, pi_batch_current_offset(), ErrorCode::outOfResources);
  }
}

}  // namespace P4Runtime
