// A journal of the calls that write: who made them, their bytes as they came, and their outcome.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "journal/FileWriter.h"
#include "journal/Queue.h"
#include "journal/Record.h"

namespace Journal {

// Thread-safe. A thread of its own writes the files; callers never wait for a disk: without room in
// the queue a record is lost, which the journal tells in its place.
class Journal {
 public:
  struct Options {
    std::string directory;  // of the files
    // Of the process before, if it is known: what that left in the queue belongs there.
    std::string formerDirectory = {};
    std::string queuePath;  // in shared memory
    uint64_t mostBytes = 0;
    size_t queueBytes = 16 << 20;
    std::chrono::milliseconds moment{20};  // for which records wait for others
    Start start;  // a first file without Writes before it lacks those of the entries there are
    // Called with news for the operator, a line each, on any thread. It may throw: the line is
    // lost.
    std::function<void(const std::string& line)> tell;
  };
  // Writes what a former process left in the queue, whatever the size and the directory of its
  // journal were. Throws std::system_error.
  explicit Journal(Options options);
  ~Journal();  // writes what is in the queue
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // Returns the record's sequence, for the outcome; 0 when it is lost.
  uint64_t requestIs(RecordKind kind, std::string_view identity, std::string_view address,
                     Draft::Pieces pieces);
  void outcomeIs(const Outcome& outcome);

  const std::string& directory() const { return options_.directory; }
  struct Figures {
    uint64_t bytes = 0;   // of all files
    uint64_t lost = 0;    // records, since it was made
    std::string trouble;  // with the last write to the files; empty: none
  };
  Figures figures() const;
  // Returns when all that was added before is in the files, or `most` is over.
  bool flush(std::chrono::milliseconds most) { return queue_.flush(most); }

 private:
  const std::string& queuePathWithoutOthersRest();
  void doRecover(Queue& queue, FileWriter& files);
  void run();
  void write(FileWriter& files, const Queue::Taken& taken, uint64_t after);
  void writeRecords(FileWriter& files, std::string_view records);
  void noteLost(uint64_t records);
  void noteTrouble(const std::string& trouble);
  void tell(const std::string& line) const;

  const Options options_;
  mutable std::mutex mutex_;  // guards figures_
  Figures figures_;
  // Of the constructor, then of the thread.
  uint64_t unwritten_ = 0;  // records that found no room in the files
  FileWriter files_;
  Queue queue_;
  std::thread thread_;
};

}  // namespace Journal
