#include "forwarder/counters/FlowBook.h"

#include <utility>

namespace Forwarder {

FlowBook::CounterColumns FlowBook::countersOf(const ProgrammedTable& table, const StoredRow& row) {
  if (!table.hasCounter()) return std::nullopt;
  return Lattice::counterOfRow(*table.type(), row.value());
}

// Another entry handle means another entry. Counter columns count once: a change that repeats them
// says nothing about the packets since.
bool FlowBook::handleRowWritten(const ProgrammedTable& table, const StoredRow& row,
                                uint64_t entryHandle, const CounterColumns& former) {
  if (!table.hasCounter()) return false;
  RowFlow& flow = *table.rows()->flow(row);
  const bool another = flow.entryHandle != entryHandle;
  if (another) {
    if (flow.entryHandle != 0) countDel(flow.entryHandle);
    flow = {.entryHandle = entryHandle};
  }
  const CounterColumns given = countersOf(table, row);
  if (!given || !given->given) return another;
  const bool repeated = !another && former && former->flag == given->flag &&
                        former->bytes == given->bytes && former->packets == given->packets;
  if (repeated) return false;
  flow.bytes = given->bytes;
  flow.packets = given->packets;
  countIs(flow);
  isUrgent_ = true;
  return true;
}

void FlowBook::forgetRow(const ProgrammedTable& table, const StoredRow& row) {
  if (table.hasCounter()) countDel(table.rows()->flow(row)->entryHandle);
}

void FlowBook::forgetTable(const ProgrammedTable& table) {
  if (!table.hasCounter()) return;
  table.rows()->forEach([&](const StoredRow& row) { forgetRow(table, row); });
}

void FlowBook::republishTable(const ProgrammedTable& table) {
  if (!table.hasCounter()) return;
  table.rows()->forEach([&](const StoredRow& row) {
    const RowFlow& flow = *table.rows()->flow(row);
    if (flow.packets != 0 || flow.bytes != 0) countIs(flow);
  });
}

std::vector<FlowBook::Change> FlowBook::takeChanges() {
  std::vector<Change> changes;
  changes.reserve(changes_.size());
  for (const auto& [place, change] : std::exchange(changes_, {})) changes.push_back(change);
  return changes;
}

}  // namespace Forwarder
