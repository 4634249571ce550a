#include "tests/P4Runtime/support/FakeForwarder.h"

#include <stdexcept>

#include "platform/lattice/records/StoreLayout.h"
#include "platform/vela/ActivityLock.h"

namespace TestSupport {

using P4Runtime::ErrorCode;

void FakeForwarder::follow() {
  const Vela::ActivityLock lock;
  std::map<uint32_t, std::string> names;
  const auto remember = [&](Brine::Bytes key, Brine::Bytes record) {
    if (const auto table = Lattice::TableRecord::decode(Brine::asText(record))) {
      names[table->number] = Brine::asText(key);
    }
    return true;
  };
  store_.forEach(store_.table(Lattice::typesTable), remember);
  const auto read = [&](Brine::Bytes, Brine::Bytes record) {
    std::string_view rest = Brine::asText(record);
    while (const auto change = Lattice::JournalChange::takeFrom(rest)) {
      if (change->sequence <= seen_) continue;
      seen_ = change->sequence;
      const bool deleted = change->flags & Lattice::JournalChange::deleted;
      pending_.push_back({names[change->table], std::string(change->key),
                          std::string(change->value), deleted, change->entryHandle,
                          change->sequence});
    }
    return true;
  };
  store_.forEach(store_.table(Lattice::journalTable), read);
}

size_t FakeForwarder::pending() {
  follow();
  return pending_.size();
}

const RowChange& FakeForwarder::next() {
  if (pending() == 0) throw std::logic_error("the forwarder has heard of no change");
  return pending_.front();
}

RowChange FakeForwarder::taken() {
  RowChange change = next();
  pending_.pop_front();
  return change;
}

void FakeForwarder::programNext() {
  const RowChange change = taken();
  if (change.deleted) {
    rows_.erase({change.table, change.key});
  } else {
    rows_[{change.table, change.key}] = change.value;
  }
  report(change, ErrorCode::none);
}

void FakeForwarder::programAll() {
  while (pending() > 0) programNext();
}

void FakeForwarder::failNext(ErrorCode code, const std::string& message) {
  report(taken(), code, message);
}

void FakeForwarder::report(const RowChange& change, ErrorCode code, const std::string& message) {
  const Vela::ActivityLock lock;
  const Lattice::Report one{change.entryHandle, change.sequence, static_cast<uint16_t>(code),
                            message};
  batchStatus_.reportsAre({&one, 1});
}

}  // namespace TestSupport
