// How many Reads of whole tables work at a time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

namespace pi::fe::proto {

// With hundreds of Reads under way, a thread that wants to write would else be one of hundreds that
// want a processor. A Read needs a turn to make and send messages; turns come in the order in which
// they were asked for. Those of long Reads end between two messages, and while a client takes its
// time its turn goes to another. Thread-safe.
class ReadTurns {
 public:
  // How long a turn lasts at least, if others wait.
  static constexpr std::chrono::milliseconds kTurn{50};
  // How long sending a message may take before the turn goes to another.
  static constexpr std::chrono::milliseconds kSending{1};

  explicit ReadTurns(size_t count) : free_(count) {}
  ReadTurns(const ReadTurns&) = delete;
  ReadTurns& operator=(const ReadTurns&) = delete;

 private:
  friend class ReadTurn;
  using Clock = std::chrono::steady_clock;
  struct Sender {
    Clock::time_point since;
    bool isOver = false;  // another has its turn
  };
  struct Waiter {
    std::condition_variable wake;
    bool isServed = false;
  };

  Clock::time_point take();  // when it began
  void give();
  void beginSending(Sender* sender);
  void endSending(Sender* sender, Clock::time_point* began);
  void takeLocked(std::unique_lock<std::mutex>& lock);
  void giveLocked();
  bool maybeTakeFromSender();
  void leaveFirst();

  std::mutex mutex_;  // guards the members below, and the waiters and senders
  size_t free_;
  std::deque<Waiter*> waiters_;
  std::deque<Sender*> senders_;  // their turns may go to others; by time
};

// A turn for a scope.
class ReadTurn {
 public:
  explicit ReadTurn(ReadTurns& turns) : turns_(turns), began_(turns.take()) {}
  ~ReadTurn() { turns_.give(); }
  ReadTurn(const ReadTurn&) = delete;
  ReadTurn& operator=(const ReadTurn&) = delete;

  // A scope in which the client may make us wait. Afterwards it is our turn again.
  class Sending {
   public:
    explicit Sending(ReadTurn& turn) : turn_(turn) { turn_.turns_.beginSending(&sender_); }
    ~Sending() { turn_.turns_.endSending(&sender_, &turn_.began_); }
    Sending(const Sending&) = delete;
    Sending& operator=(const Sending&) = delete;

   private:
    ReadTurn& turn_;
    ReadTurns::Sender sender_;
  };

 private:
  ReadTurns& turns_;
  ReadTurns::Clock::time_point began_;
};

}  // namespace pi::fe::proto
