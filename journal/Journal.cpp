#include "journal/Journal.h"

#include <fmt/format.h>

#include <algorithm>
#include <system_error>
#include <utility>

namespace Journal {
namespace {

// Their checksums are set by the thread that writes them: calls do not wait for that.
std::string_view sealed(std::span<char> records) {
  size_t whole = 0;
  while (const size_t size = recordBytes({records.data() + whole, records.size() - whole})) {
    seal(records.subspan(whole, size));
    whole += size;
  }
  return {records.data(), whole};
}

// Those with a higher sequence: they come last.
std::string_view behind(std::string_view records, uint64_t sequence) {
  while (const size_t size = recordBytes(records)) {
    if (sequenceOf(records) > sequence) break;
    records.remove_prefix(size);
  }
  return records;
}

uint64_t countOf(std::string_view records) {
  uint64_t count = 0;
  while (const size_t size = recordBytes(records)) {
    records.remove_prefix(size);
    ++count;
  }
  return count;
}

void writeGap(FileWriter& files, uint64_t sequence, const Gap& gap) {
  const Draft draft = Draft::gap(gap);
  std::string bytes(draft.size(), '\0');
  draft.write(sequence, std::chrono::system_clock::now(), bytes.data());
  seal(bytes);
  size_t written = 0;
  files.write(bytes, &written);
}

}  // namespace

Journal::Journal(Options options)
    : options_(std::move(options)),
      files_(options_.directory, options_.mostBytes),
      queue_(queuePathWithoutOthersRest(), options_.queueBytes / 2) {
  if (!files_.found().empty()) tell("the journal: " + files_.found());
  doRecover(queue_, files_);
  Start start = options_.start;
  start.isLacking |= !start.isFromEmpty && files_.lastSequence() == 0;
  queue_.append(Draft::start(start));
  thread_ = std::thread([this] { run(); });
}

Journal::~Journal() {
  queue_.endIs();
  thread_.join();
}

// A queue of another size is not taken over, and another directory has another journal.
const std::string& Journal::queuePathWithoutOthersRest() {
  const std::string& path = options_.queuePath;
  const std::string& former = options_.formerDirectory;
  const size_t left = Queue::halfBytesAt(path);
  if (left == 0) return path;
  if (!former.empty() && former != options_.directory) {
    try {
      FileWriter files(former, UINT64_MAX);  // nothing makes room there any more
      Queue queue(path, left);
      doRecover(queue, files);
      return path;
    } catch (const std::system_error& e) {
      tell(fmt::format("the last records of the journal in {} go to {}: {}", former,
                       options_.directory, e.what()));
    }
  }
  if (left != Queue::halfBytesFor(options_.queueBytes / 2)) {
    Queue queue(path, left);
    doRecover(queue, files_);
  }
  return path;
}

void Journal::doRecover(Queue& queue, FileWriter& files) {
  const uint64_t last = files.lastSequence();
  queue.lastSequenceIs(last);
  for (int half = 0; half < 2; ++half) {
    write(files, queue.take(), last);
    queue.takenIs();
  }
}

uint64_t Journal::requestIs(RecordKind kind, std::string_view identity, std::string_view address,
                            Draft::Pieces pieces) {
  return queue_.append(Draft::request(kind, identity, address, pieces));
}

void Journal::outcomeIs(const Outcome& outcome) {
  if (outcome.request != 0) queue_.append(Draft::outcome(outcome));
}

Journal::Figures Journal::figures() const {
  const std::lock_guard lock(mutex_);
  return figures_;
}

void Journal::run() {
  while (queue_.wait(options_.moment)) {
    write(files_, queue_.take(), 0);
    queue_.takenIs();
  }
}

void Journal::write(FileWriter& files, const Queue::Taken& taken, uint64_t after) {
  writeRecords(files, behind(sealed(taken.records), after));
  if (taken.lost != 0 && taken.gapSequence > after) {
    noteLost(taken.lost);
    try {
      writeGap(files, taken.gapSequence, {taken.lost, taken.reason});
    } catch (const std::system_error& e) {
      unwritten_ += taken.lost;
      noteTrouble(e.what());
    }
  }
  const std::lock_guard lock(mutex_);
  figures_.bytes = files.bytes();
}

void Journal::writeRecords(FileWriter& files, std::string_view records) {
  if (records.empty()) return;
  size_t written = 0;
  try {
    if (unwritten_ != 0) {
      // The place of the last record that was lost.
      writeGap(files, sequenceOf(records) - 1, {unwritten_, GapReason::noRoom});
      unwritten_ = 0;
    }
    files.write(records, &written);
    noteTrouble("");
  } catch (const std::system_error& e) {
    const uint64_t lost = countOf(records.substr(written));
    unwritten_ += lost;
    noteLost(lost);
    noteTrouble(e.what());
  }
}

void Journal::noteLost(uint64_t records) {
  const std::lock_guard lock(mutex_);
  figures_.lost += records;
}

// Once when it comes, and once when it goes.
void Journal::noteTrouble(const std::string& trouble) {
  std::string former;
  {
    const std::lock_guard lock(mutex_);
    former = std::exchange(figures_.trouble, trouble);
  }
  if (former.empty() == trouble.empty()) return;
  tell(trouble.empty()
           ? std::string("the journal is written again; records of the meantime are lost")
           : fmt::format("the journal is not written, and records are lost: {}", trouble));
}

// The log may lie on the disk that is full.
void Journal::tell(const std::string& line) const {
  try {
    options_.tell(line);
  } catch (const std::exception&) {
    // The status has the trouble all the same.
  }
}

}  // namespace Journal
