// The agent's end of the doorbell socket: attaches subscribers, wakes them and takes their reports.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/lattice/doorbell/DoorbellMessage.h"
#include "platform/lattice/doorbell/DoorbellSocket.h"
#include "platform/lattice/doorbell/Report.h"
#include "platform/lattice/doorbell/ReportBook.h"
#include "platform/lattice/records/Journal.h"
#include "platform/vela/UnixServer.h"

namespace Lattice {

// Call with the activity lock held, on any thread; calls back on the reactor with it held. Loop,
// journal and observer outlive it.
class Doorbell {
 public:
  // A client that does not attach within `silence` is disconnected. Throws std::system_error.
  Doorbell(Vela::ReactorLoop& loop, const std::string& path, std::chrono::milliseconds silence,
           const StoreIdentity& identity, const Journal& journal);
  ~Doorbell();

  void observerIs(SubscriberObserver observer) { observer_ = std::move(observer); }
  // Wakes every subscriber; never waits for one.
  void ring(uint64_t lastSequence, std::span<const CommittedChange> changes);
  bool anyAttached() const;
  uint64_t receivedByAll() const;  // UINT64_MAX without subscribers
  std::vector<SubscriberInfo> subscribers() const;
  uint64_t droppedMessages() const { return droppedMessages_; }

 private:
  struct Peer;
  void handleClient(Vela::UnixClient client);
  Subscribers freeBit() const;  // 0: all are taken
  void handleReadable(Peer& peer);
  bool handleMessage(Peer& peer, std::string_view message);
  bool handleAttach(Peer& peer, std::string_view message);
  bool handleReports(Peer& peer, std::string_view message);
  bool handleInStep(Peer& peer, std::string_view message);
  Report readReport(const Peer& peer, const PackedReport& report);
  bool settles(const Peer& peer, const Report& report);
  void maybeTellInStep();
  void tell(std::span<const Report> reports);
  void tellAttached();
  void refuse(Peer& peer, std::string_view reason);
  void drop(Peer& peer, bool malformed);
  Subscribers attachedSet() const;

  Vela::ReactorLoop& loop_;
  const StoreIdentity identity_;
  const Journal& journal_;
  SubscriberObserver observer_;
  std::vector<std::unique_ptr<Peer>> peers_;
  ReportBook book_;
  std::string buffer_;             // of the message being read
  std::vector<Report> reports_;    // of the message being read
  std::deque<std::string> texts_;  // texts of reports_ that had to be mended
  uint64_t lastId_ = 0;
  uint64_t droppedMessages_ = 0;
  Vela::UnixServer server_;
};

}  // namespace Lattice
