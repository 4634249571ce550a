// Digests of the data plane on their way to the controller: gathered into lists, each message once
// until the controller has acknowledged it.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

// How a digest's lists are made; see p4.v1.DigestEntry.Config.
using DigestConfig = p4::v1::DigestEntry::Config;

// Threads: any. Sends lists on the thread that brings a message, or, when it is time, on one of its
// own; `send` waits for nothing. Messages beyond what is kept are dropped: controllers may lose
// some.
class DigestLists {
 public:
  using Clock = std::chrono::steady_clock;
  // The messages of one list, in the order in which they came; packed, as the target gave them.
  using Send = std::function<void(uint32_t digestId, uint64_t listId,
                                  const std::vector<std::string>& messages)>;
  static constexpr size_t mostOfAList = 1000;      // also of a list without a limit
  static constexpr size_t mostUnanswered = 65536;  // messages of a digest

  explicit DigestLists(Send send) : send_(std::move(send)) {}
  ~DigestLists();
  DigestLists(const DigestLists&) = delete;
  DigestLists& operator=(const DigestLists&) = delete;

  void messageIs(uint32_t digestId, const DigestConfig& config, std::string_view message);
  void handleAck(uint32_t digestId, uint64_t listId);
  void forget(uint32_t digestId);  // the controller wants no more of it

 private:
  struct SentList {
    std::vector<std::string> messages;
    Clock::time_point forgottenAt;
  };
  struct Digest {
    std::vector<std::string> waiting;
    Clock::time_point dueAt;                 // of the waiting ones
    absl::flat_hash_set<std::string> known;  // waiting, or sent and not acknowledged
    absl::flat_hash_map<uint64_t, SentList> sent;
    std::chrono::nanoseconds ackTimeout{0};
  };
  // A list that is to be sent once the lock is given up.
  struct ReadyList {
    uint32_t digestId = 0;
    uint64_t listId = 0;
    std::vector<std::string> messages;
  };

  void doForgetOld(Digest& digest, Clock::time_point now);
  static void doForgetList(Digest& digest, const SentList& list);
  ReadyList take(uint32_t digestId, Digest& digest, Clock::time_point now);
  void runTimer();
  std::vector<ReadyList> takeDue(Clock::time_point now, Clock::time_point* next);

  const Send send_;
  std::mutex mutex_;  // guards the members below
  std::condition_variable changed_;
  absl::flat_hash_map<uint32_t, Digest> digests_;
  uint64_t lastList_ = 0;
  bool ends_ = false;
  std::thread timer_;  // runs once a list has waited
};

}  // namespace pi::fe::proto
