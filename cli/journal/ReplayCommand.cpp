#include "cli/journal/ReplayCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "cli/journal/EntryText.h"
#include "cli/journal/ReplaySteps.h"
#include "cli/journal/ReplayTarget.h"
#include "cli/journal/Words.h"
#include "journal/Directory.h"
#include "p4/config/v1/p4info.pb.h"
#include "pipeline/P4InfoLookup.h"

namespace {

using namespace Cli;
using Clock = std::chrono::steady_clock;
using Push = p4::v1::SetForwardingPipelineConfigRequest;

struct ReplayOptions : TargetOptions {
  std::string journal;
  bool push = false;
  size_t batch = 0;  // 0: as they were
};

constexpr size_t mostErrorsShown = 20;
constexpr std::chrono::seconds progressPeriod{1};

// Writes step after step, and tells how far it is.
class Replaying {
 public:
  Replaying(const ReplayOptions& options, const Survey& survey, ReplayTarget& target)
      : options_(options),
        survey_(survey),
        target_(target),
        index_(survey.pipeline ? survey.pipeline->p4info()
                               : p4::config::v1::P4Info::default_instance()) {}

  // `pushes`: those of controllers, too.
  void take(ReplayStep step, bool pushes) {
    last_ = step.sequence;
    if (step.push) {
      flush();
      if (pushes) target_.push(step.push->action(), step.push->config());
      pushesLeftOut_ += pushes ? 0 : 1;
    } else {
      add(std::move(step));
    }
    maybeTell();
  }
  void flush() {
    if (write_.updates().empty()) return;
    writes_ += 1;
    updates_ += static_cast<uint64_t>(write_.updates_size());
    const std::vector<p4::v1::Error> errors = writeNow();
    for (size_t i = 0; i < errors.size(); ++i) {
      if (errors[i].canonical_code() != 0) tellFailure(static_cast<int>(i), errors[i]);
    }
    write_.Clear();
    origins_.clear();
  }

  uint64_t writes() const { return writes_; }
  uint64_t updates() const { return updates_; }
  uint64_t failures() const { return failures_; }
  uint64_t pushesLeftOut() const { return pushesLeftOut_; }
  double seconds() const { return std::chrono::duration<double>(Clock::now() - began_).count(); }

 private:
  struct Origin {
    uint64_t sequence;
    Journal::Time time;
  };

  // Writes that stand or fall as a whole keep to themselves.
  void add(ReplayStep step) {
    const bool isWhole = step.write.atomicity() != p4::v1::WriteRequest::CONTINUE_ON_ERROR;
    const auto more = static_cast<size_t>(step.write.updates_size());
    if (isWhole || origins_.size() + more > options_.batch) flush();
    origins_.resize(origins_.size() + more, Origin{step.sequence, step.time});
    if (write_.updates().empty()) {
      write_ = std::move(step.write);
    } else {
      for (auto& update : *step.write.mutable_updates()) *write_.add_updates() = std::move(update);
    }
    if (isWhole || origins_.size() >= options_.batch) flush();
  }
  std::vector<p4::v1::Error> writeNow() {
    try {
      return target_.write(write_);
    } catch (const std::exception& e) {
      throw std::runtime_error(
          fmt::format("{}; it was record {} of {}, and {} updates before it are written", e.what(),
                      origins_.front().sequence, timeText(origins_.front().time),
                      updates_ - static_cast<uint64_t>(write_.updates_size())));
    }
  }
  void tellFailure(int update, const p4::v1::Error& error) {
    if (++failures_ > mostErrorsShown) return;
    const Origin& origin = origins_[static_cast<size_t>(update)];
    fmt::print(stderr, "korvel: {} (record {}, {}): {}: {}\n",
               updateText(index_, write_.updates(update)), origin.sequence, timeText(origin.time),
               codeText(static_cast<uint32_t>(error.canonical_code())), error.message());
  }
  void maybeTell() {
    if (!isatty(STDERR_FILENO) || Clock::now() - told_ < progressPeriod) return;
    told_ = Clock::now();
    const uint64_t all = survey_.last - survey_.from;
    fmt::print(stderr, "{} updates, {}%\r", updates_,
               all == 0 ? 100 : std::min<uint64_t>(100, (last_ - survey_.from) * 100 / all));
  }

  const ReplayOptions& options_;
  const Survey& survey_;
  ReplayTarget& target_;
  const Pipeline::P4InfoLookup index_;
  p4::v1::WriteRequest write_;
  std::vector<Origin> origins_;  // of its updates
  uint64_t writes_ = 0, updates_ = 0, failures_ = 0, pushesLeftOut_ = 0;
  uint64_t last_ = 0;
  const Clock::time_point began_ = Clock::now();
  Clock::time_point told_ = began_;
};

void tellWhatMayLack(const Survey& survey) {
  for (const std::string& note : survey.notes) fmt::print(stderr, "korvel: {}\n", note);
  if (survey.from == 0 && !survey.isWhole) {
    fmt::print(stderr,
               "korvel: the journal begins at {}, since older records have made room: the switch "
               "may lack entries that were written before\n",
               timeText(survey.begin));
  }
  if (survey.isLacking) {
    fmt::print(stderr,
               "korvel: the journal was off at times: the switch may lack entries, or have some "
               "that were deleted\n");
  }
  if (survey.lost != 0) {
    fmt::print(stderr,
               "korvel: {} records are missing in the journal: the switch may lack entries, or "
               "have some that were deleted\n",
               survey.lost);
  }
}

// Returns whether pipelines are pushed.
bool maybePush(const ReplayOptions& options, const Survey& survey, ReplayTarget& target) {
  if (!options.push && target.hasPipeline()) return false;
  if (!survey.pipeline) {
    throw std::runtime_error(
        options.push ? "the journal has no pipeline any more; push one by other means"
                     : "the switch has no pipeline, and the journal none any more; push one first");
  }
  target.push(Push::VERIFY_AND_COMMIT, *survey.pipeline);
  fmt::print("pushed the pipeline of the journal\n");
  return true;
}

void tellEnd(const Replaying& replaying, const ReplaySteps& steps) {
  fmt::print("replayed {} updates in {} Writes in {:.1f} s; {} failed here\n", replaying.updates(),
             replaying.writes(), replaying.seconds(), replaying.failures());
  if (steps.failed() != 0) {
    fmt::print("left out {} updates that had failed\n", steps.failed());
  }
  if (steps.unknown() != 0) {
    fmt::print("left out {} calls without a known outcome\n", steps.unknown());
  }
  if (replaying.pushesLeftOut() != 0) {
    fmt::print("left out {} pipelines, since the switch had one; --push pushes them\n",
               replaying.pushesLeftOut());
  }
}

// The agent may have gone on writing while the Writes went to the switch.
void tellNewNotes(const Survey& survey, const Journal::Reader& reader) {
  for (const std::string& note : reader.notes()) {
    if (std::ranges::find(survey.notes, note) != survey.notes.end()) continue;
    fmt::print(stderr, "korvel: {}\n", note);
  }
  if (!reader.hasLostFiles()) return;
  fmt::print(stderr,
             "korvel: the switch lacks what stood in there; replay the journal while nobody writes "
             "it, or give it more room\n");
}

void run(ReplayOptions options, bool hasDevice) {
  const Survey survey = surveyOf(Journal::Reader(Journal::filesAt(options.journal)));
  if (survey.records == 0) throw std::runtime_error("the journal " + options.journal + " is empty");
  tellWhatMayLack(survey);
  if (!hasDevice) options.deviceId = survey.deviceId;
  ReplayTarget target(options);
  const bool pushes = maybePush(options, survey, target);
  Replaying replaying(options, survey, target);
  ReplaySteps steps(survey.from, defaultOpenBytes, survey.latePushes);
  const auto takeReady = [&] {
    while (auto step = steps.next()) replaying.take(std::move(*step), pushes);
  };
  Journal::Reader reader(Journal::filesAt(options.journal));
  while (const auto record = reader.next()) {
    steps.add(*record);
    takeReady();
  }
  steps.end();
  takeReady();
  replaying.flush();
  tellEnd(replaying, steps);
  tellNewNotes(survey, reader);
  if (replaying.failures() > 0 || reader.hasLostFiles()) throw CLI::RuntimeError(1);
}

}  // namespace

void addReplayCommand(CLI::App& app) {
  CLI::App* command = app.add_subcommand(
      "replay", "Write a journal to another switch: all updates that had succeeded, in order");
  const auto options = std::make_shared<ReplayOptions>();
  command->add_option("JOURNAL", options->journal, "Its directory, or one of its files")
      ->required();
  command->add_option("--to", options->address, "Where the switch serves P4Runtime")
      ->type_name("ADDRESS")
      ->capture_default_str();
  CLI::Option* device =
      command->add_option("--device-id", options->deviceId, "Without it that of the journal")
          ->type_name("N");
  command->add_option("--role", options->role, "To be primary of; without it the default one")
      ->type_name("NAME");
  command->add_option("--election-id", options->electionId, "To become primary with")
      ->type_name("N")
      ->capture_default_str();
  command->add_flag("--push", options->push,
                    "Push the journal's pipeline, which clears the switch, even if it has one; "
                    "one that has none gets it in any case");
  command
      ->add_option("--batch", options->batch,
                   "Put Writes together to so many updates; without it they are as they were")
      ->type_name("N");
  command->add_option("--ca", options->ca, "Use TLS; the switch's certificate is signed by these")
      ->type_name("FILE");
  command->add_option("--cert", options->certificate, "Our own certificate")->type_name("FILE");
  command->add_option("--key", options->key, "Its private key")->type_name("FILE");
  command->callback([options, device] { run(*options, device->count() > 0); });
}
