// Records on their way to the files of a journal. They lie in a file of shared memory, so that
// those which a killed process had not written yet are still there for the next one.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>

#include "journal/Record.h"
#include "platform/vela/Descriptors.h"

namespace Journal {

// Two halves: callers fill one while the other is written to the files.
class Queue {
 public:
  // Makes the file unless there is one of a former process. `halfBytes` is rounded up to pages.
  // Throws std::system_error, naming the file, when it cannot be made, there is no memory for it,
  // or another queue has it (EBUSY).
  Queue(const std::string& path, size_t halfBytes);
  ~Queue();
  // Of the queue that a former process left there; 0: there is none, or it is damaged.
  static size_t halfBytesAt(const std::string& path);
  static size_t halfBytesFor(size_t halfBytes);  // rounded up
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  // Before the first take(): the next sequences are above this one, and above those of the records
  // that a former process left. take() returns these first, in two halves.
  void lastSequenceIs(uint64_t sequence);
  // Thread-safe; takes as long as a copy of the bytes. Returns the record's sequence, 0 when there
  // is no room. Requests leave room for the outcomes of others.
  uint64_t append(const Draft& draft);

  // For the thread that writes. Waits until there are records, or endIs(), and then a moment
  // longer, so that many are written at once. False: it is ending, and there are none.
  bool wait(std::chrono::milliseconds moment);
  // Whole records, oldest first, and how many were lost behind them. They stay until takenIs().
  struct Taken {
    std::span<char> records;  // unsealed
    uint64_t lost = 0;
    GapReason reason = GapReason::queueFull;
    uint64_t gapSequence = 0;  // for the record that tells of the loss
  };
  Taken take();
  void takenIs();
  void endIs();  // wait() waits no more
  // Returns when all that was appended before is in the files, or `most` is over.
  bool flush(std::chrono::milliseconds most);

 private:
  struct Half;
  struct Head;

  Half& half(size_t which) const;
  char* bytesOf(size_t which) const;
  bool isEmpty() const;
  void lose(GapReason reason);

  const size_t halfBytes_;
  size_t mappedBytes_ = 0;
  Vela::UniqueFd fd_;
  Head* head_ = nullptr;
  std::mutex mutex_;  // guards the members below, and the half that is being filled
  std::condition_variable filled_;
  std::condition_variable written_;
  uint64_t nextSequence_ = 1;
  uint64_t takenUpTo_ = 1;    // the next sequence when the last half was taken
  uint64_t writtenUpTo_ = 1;  // the same of the last half that is in the files
  bool isIdle_ = false;       // the writing thread waits for filled_
  bool isEnding_ = false;
};

}  // namespace Journal
