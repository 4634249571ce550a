#include "tests/P4Runtime/support/FakeForwarder.h"

#include <stdexcept>

#include "platform/lattice/records/StoreLayout.h"
#include "platform/vela/ActivityLock.h"

namespace TestSupport {

using P4Runtime::ErrorCode;

std::map<uint32_t, std::string> FakeForwarder::tables() {
  std::map<uint32_t, std::string> names;
  const auto remember = [&](Brine::Bytes key, Brine::Bytes record) {
    if (const auto table = Lattice::TableRecord::decode(Brine::asText(record))) {
      names[table->number] = Brine::asText(key);
    }
    return true;
  };
  reader_->snapshot()->forEach(Lattice::typesTable, remember);
  return names;
}

void FakeForwarder::takeSnapshot() {
  const Vela::ActivityLock lock;
  pending_.clear();
  rows_.clear();
  const auto snapshot = reader_->snapshot();
  for (const auto& [number, name] : tables()) {
    snapshot->forEach(Lattice::rowTable(name), [&](Brine::Bytes key, Brine::Bytes value) {
      rows_[{name, std::string(Brine::asText(key))}] = Brine::asText(value);
      return true;
    });
  }
  seen_ = snapshot->sequence();
}

void FakeForwarder::follow() {
  const Vela::ActivityLock lock;
  std::map<uint32_t, std::string> names = tables();
  const auto follow = [&](const Brine::FollowedChange& change) {
    if (!names.contains(change.table)) return;
    pending_.push_back({names[change.table], std::string(Brine::asText(change.key)),
                        std::string(Brine::asText(change.value)), change.deleted, change.owner,
                        change.sequence});
    ++heard_;
    lastHeard_ = change.sequence;
  };
  const auto reached = reader_->followEach(seen_, UINT64_MAX, follow);
  if (!reached) throw std::logic_error("changes were trimmed that the forwarder has not seen");
  seen_ = *reached;
}

size_t FakeForwarder::pending() {
  follow();
  return pending_.size();
}

size_t FakeForwarder::heard() {
  follow();
  return heard_;
}

uint64_t FakeForwarder::lastHeard() {
  follow();
  return lastHeard_;
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
