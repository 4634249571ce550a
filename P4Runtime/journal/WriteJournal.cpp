#include "P4Runtime/journal/WriteJournal.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "PI/proto/pi_server_journal.h"
#include "journal/Journal.h"

namespace P4Runtime {
namespace {

using JournalPtr = std::shared_ptr<Journal::Journal>;

constexpr const char* markName = "/journal.kept";
constexpr uint64_t mostQueueBytes = 16 << 20;

// The server's threads may outlive the agent.
std::atomic<JournalPtr>& current() {
  static auto* const one = new std::atomic<JournalPtr>;
  return *one;
}

// Journals whose queue and files are in use, also by a call that ends in a former one.
std::atomic<int> alive{0};

// A log that cannot be written is no reason to end.
void say(const std::string& line) { std::fprintf(stderr, "korvel: %s\n", line.c_str()); }

void endJournal(const Journal::Journal* journal) {
  delete journal;
  --alive;
}

// Its end waits for the disk: on a thread of its own, since a disk may hang.
JournalPtr newJournal(Journal::Journal::Options options) {
  auto made = std::make_unique<Journal::Journal>(std::move(options));
  ++alive;
  return JournalPtr(made.release(), [](const Journal::Journal* journal) {
    try {
      std::thread([journal] { endJournal(journal); }).detach();
    } catch (const std::system_error&) {
      endJournal(journal);
    }
  });
}

// So that another size or directory leaves no time without a journal. A disk that does not write
// holds this up no longer.
void awaitEnd() {
  constexpr std::chrono::milliseconds turn{5};
  for (int i = 0; i < 100 && alive != 0; ++i) std::this_thread::sleep_for(turn);
}

// A call that has begun, and the journal that has it.
struct JournaledCall {
  JournalPtr journal;
  uint64_t sequence = 0;
};

Journal::RecordKind kindOf(PIGrpcServerJournalKind_t kind) {
  switch (kind) {
    case PI_GRPC_SERVER_JOURNAL_WRITE:
      return Journal::RecordKind::write;
    case PI_GRPC_SERVER_JOURNAL_PUSH:
      return Journal::RecordKind::push;
    case PI_GRPC_SERVER_JOURNAL_PIPELINE:
      break;
  }
  return Journal::RecordKind::pipeline;
}

void* begin(const PIGrpcServerJournalRequest_t* request) {
  JournalPtr journal = current().load();
  if (!journal) return nullptr;
  std::vector<std::string_view> pieces;
  pieces.reserve(request->piece_count);
  for (size_t i = 0; i < request->piece_count; ++i) {
    pieces.emplace_back(request->pieces[i].data, request->pieces[i].size);
  }
  const uint64_t sequence =
      journal->requestIs(kindOf(request->kind), request->identity, request->address, pieces);
  return new JournaledCall{std::move(journal), sequence};
}

void end(void* ended, const PIGrpcServerJournalOutcome_t* told) {
  const std::unique_ptr<JournaledCall> call(static_cast<JournaledCall*>(ended));
  if (!call) return;
  Journal::Outcome outcome;
  outcome.request = call->sequence;
  outcome.code = static_cast<uint32_t>(told->code);
  outcome.message = told->message;
  outcome.failures.reserve(told->failure_count);
  for (size_t i = 0; i < told->failure_count; ++i) {
    const PIGrpcServerJournalFailure_t& failure = told->failures[i];
    outcome.failures.push_back({.index = failure.index,
                                .code = static_cast<uint32_t>(failure.code),
                                .message = {failure.message.data, failure.message.size}});
  }
  call->journal->outcomeIs(outcome);
}

constexpr PIGrpcServerJournal_t calls{.begin = begin, .end = end};

}  // namespace

WriteJournal::WriteJournal(std::string stateDirectory, Vela::Ptr<const JournalConfig> config,
                           Vela::Ptr<JournalStatus> status, bool isSwitchEmpty)
    : stateDirectory_(std::move(stateDirectory)),
      config_(std::move(config)),
      status_(std::move(status)),
      isSwitchEmpty_(isSwitchEmpty) {
  std::getline(std::ifstream(stateDirectory_ + markName), keptIn_);
  const auto follow = [this] { handleConfig(); };
  changes_.push_back(config_->sizeMibAttribute().observe(follow));
  changes_.push_back(config_->directoryAttribute().observe(follow));
  update();
  isSwitchEmpty_ = false;
  if (!current().load()) keptInIs("");
}

WriteJournal::~WriteJournal() { PIGrpcServerJournalIs(nullptr); }

void WriteJournal::handleConfig() {
  PIGrpcServerJournalIs(nullptr);
  current().store(nullptr);
  awaitEnd();
  keptInIs("");
  status_->directoryIs("");
  status_->bytesIs(0);
  status_->lostIs(0);
  status_->troubleIs("");
  update();
}

void WriteJournal::maybeBegin() {
  if (config_->sizeMib() == 0) return;  // handleConfig() asks again
  if (alive != 0) return;               // begun already, or a former one ends: update() asks again
  try {
    doBegin();
  } catch (const std::exception& e) {
    if (status_->trouble() == e.what()) return;
    status_->troubleIs(e.what());
    say(std::string("there is no journal of Writes (p4runtime/config/journal): ") + e.what());
  }
}

void WriteJournal::doBegin() {
  const uint64_t bytes = uint64_t{config_->sizeMib()} << 20;
  Journal::Journal::Options options;
  options.directory =
      config_->directory().empty() ? stateDirectory_ + "/journal" : config_->directory();
  options.formerDirectory = keptIn_;
  options.queuePath = stateDirectory_ + "/journal.queue";
  options.mostBytes = bytes;
  options.queueBytes = std::min(mostQueueBytes, bytes / 2);
  options.start.isFromEmpty = isSwitchEmpty_;
  options.start.isLacking = !isSwitchEmpty_ && keptIn_ != options.directory;
  options.tell = say;
  current().store(newJournal(std::move(options)));
  status_->directoryIs(current().load()->directory());
  PIGrpcServerJournalIs(&calls);
  keptInIs(status_->directory());
}

void WriteJournal::keptInIs(const std::string& directory) {
  keptIn_ = directory;
  const std::string path = stateDirectory_ + markName;
  if (directory.empty()) {
    unlink(path.c_str());
  } else {
    std::ofstream(path) << directory << '\n';
  }
}

void WriteJournal::update() {
  maybeBegin();
  const JournalPtr journal = current().load();
  if (!journal) return;
  const Journal::Journal::Figures figures = journal->figures();
  status_->bytesIs(figures.bytes);
  status_->lostIs(figures.lost);
  status_->troubleIs(figures.trouble);
}

}  // namespace P4Runtime
