// Follows row changes like a forwarding agent, and reports on them when the test says so.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "P4Runtime/companion/BatchStatus.h"
#include "platform/brine/Reader.h"

namespace TestSupport {

struct RowChange {
  std::string table;
  std::string key;
  std::string value;
  bool deleted = false;
  uint64_t entryHandle = 0;
  uint64_t sequence = 0;
};

// Reads the store's changes in place of a subscriber's socket, and hands its reports straight to
// the batch status, which outlives it.
class FakeForwarder {
 public:
  FakeForwarder(const std::string& stateDirectory, P4Runtime::BatchStatus& batchStatus)
      : reader_(Brine::Reader::open(stateDirectory)), batchStatus_(batchStatus) {
    attachedIs(true);
  }
  void attachedIs(bool attached, std::chrono::milliseconds grace = {}) {
    batchStatus_.forwardingAgentsAre(attached ? 1 : 0, grace);
  }

  // As one must that has not seen changes which are gone.
  void takeSnapshot();

  // The changes that were committed and that it has not reported on.
  size_t pending();
  const RowChange& next();
  // All changes since the store began, and the sequence number of the last.
  size_t heard();
  uint64_t lastHeard();

  void programNext();
  void programAll();
  void failNext(P4Runtime::ErrorCode code, const std::string& message = "");
  void ignoreNext() { taken(); }  // never to report on it
  void report(const RowChange& change, P4Runtime::ErrorCode code, const std::string& message = "");

  // What stands in its tables, by table and key.
  const std::map<std::pair<std::string, std::string>, std::string>& rows() const { return rows_; }

 private:
  std::map<uint32_t, std::string> tables();  // names by number
  void follow();
  RowChange taken();

  std::unique_ptr<Brine::Reader> reader_;
  P4Runtime::BatchStatus& batchStatus_;
  std::deque<RowChange> pending_;
  uint64_t seen_ = 0;
  size_t heard_ = 0;
  uint64_t lastHeard_ = 0;
  std::map<std::pair<std::string, std::string>, std::string> rows_;
};

}  // namespace TestSupport
