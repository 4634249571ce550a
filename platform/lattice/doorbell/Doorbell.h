// The agent's end of the doorbell socket: attaches subscribers, wakes them and takes their reports.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/brine/Store.h"
#include "platform/lattice/doorbell/DoorbellMessage.h"
#include "platform/lattice/doorbell/DoorbellPage.h"
#include "platform/lattice/doorbell/DoorbellSocket.h"
#include "platform/lattice/doorbell/FixedTypes.h"
#include "platform/lattice/doorbell/Report.h"
#include "platform/lattice/doorbell/ReportBook.h"
#include "platform/vela/UnixServer.h"

namespace Lattice {

// Call with the activity lock held, on any thread; calls back with it held, on the reactor or from
// stopLooking(). Loop, store and observer outlive it.
class Doorbell {
 public:
  // A client that does not attach within `silence` is disconnected. `commit` commits what was
  // written into the store, unless a batch is to. Throws std::system_error.
  Doorbell(Vela::ReactorLoop& loop, const std::string& path, std::chrono::milliseconds silence,
           Brine::Store& store, std::function<void()> commit);
  ~Doorbell();

  void observerIs(SubscriberObserver observer) { observer_ = std::move(observer); }
  // Wakes every subscriber, of which none is waited for. The changes after `committedBefore` are
  // new.
  void ring(uint64_t committedBefore);
  // A batch is in the making. When it is urgent, subscribers wake, and look for its changes.
  void urgentIs(bool isUrgent);

  // Changes up to `sequence` can be read ahead of their commit.
  void shownAheadIs(uint64_t sequence);

  // For one thread, that of the batch. While it looks, subscribers say by their pages alone how far
  // they are.
  void look();
  void stopLooking();  // and takes in all that they have said
  // Until each page says that the changes up to `sequence` are programmed, for a moment at most;
  // call it without the lock.
  bool lookForProgrammed(uint64_t sequence) const;

  // Asks all subscribers that answer such questions; false, and no call, when there is none.
  // Whether the answer comes in time is the caller's to see to. Of last hits, the answer has the
  // latest that any of them tells.
  bool ask(const Question& question, AnswerHandler handler);

  // The subscribers, also those that are away, to which a table must not show another type.
  FixedTypes& fixedTypes() { return fixedTypes_; }

  bool anyAttached() const;
  uint64_t receivedByAll() const;  // UINT64_MAX without subscribers
  std::vector<SubscriberInfo> subscribers() const;
  uint64_t droppedMessages() const { return droppedMessages_; }

 private:
  struct Peer;
  void handleClient(Vela::UnixClient client);
  Subscribers freeBit() const;  // 0: all are taken
  void handleReadable(Peer& peer);
  // Takes in at most so many messages; false when the peer is gone.
  bool takeMessages(Peer& peer, int most);
  bool handleMessage(Peer& peer, std::string_view message);
  bool handleAttach(Peer& peer, std::string_view message);
  bool missesTypes(const AttachMessage& attach) const;
  bool handleReports(Peer& peer, std::string_view message);
  bool handleInStep(Peer& peer, std::string_view message);
  bool handleProgrammed(Peer& peer, std::string_view message);
  bool programmedIs(Peer& peer, uint64_t sequence);
  bool handleNotice(std::string_view message);
  bool handleAnswer(Peer& peer, std::string_view message);
  void forgetAsked(Subscribers bit);
  void hear();
  bool heard(Peer& peer);
  static bool looks(Peer& peer);
  Report readReport(const Peer& peer, const PackedReport& report);
  bool settles(const Peer& peer, const Report& report);
  void maybeTellInStep();
  void maybeTellProgrammed();
  void tell(std::span<const Report> reports);
  void tellAttached();
  void refuse(Peer& peer, std::string_view reason);
  void refuseAndEnd(Peer& peer, std::string_view reason);
  void drop(Peer& peer, bool malformed);
  Subscribers attachedSet() const;
  void expectReports(uint64_t committedBefore, Subscribers attached);

  // A question whose answer somebody waits for.
  struct Asked {
    Question::Kind kind = Question::Kind::pipeline;
    Subscribers open = 0;  // have not answered yet
    Answer answer;         // the last one, or of all so far
    bool isAnswered = false;
    AnswerHandler handler;
  };
  using AskedQuestions = std::map<uint64_t, Asked>;
  void finish(AskedQuestions::iterator asked);

  Vela::ReactorLoop& loop_;
  const Brine::Store& store_;
  const StoreIdentity identity_;
  const std::function<void()> commit_;
  FixedTypes fixedTypes_;
  SubscriberObserver observer_;
  std::vector<std::unique_ptr<Peer>> peers_;
  ReportBook book_;
  std::string buffer_;                                 // of the message being read
  std::vector<Report> reports_;                        // of the message being read
  std::deque<std::string> texts_;                      // texts of reports_ that had to be mended
  std::vector<std::shared_ptr<DoorbellPage>> looked_;  // changed by the thread that looks
  AskedQuestions asked_;                               // by id
  uint64_t lastQuestion_ = 0;
  uint64_t lastId_ = 0;
  uint64_t programmedUpTo_ = 0;  // told
  uint64_t droppedMessages_ = 0;
  Vela::UnixServer server_;
};

}  // namespace Lattice
