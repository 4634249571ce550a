#include "cli/journal/JournalSource.h"

#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "cli/client/ClientOptions.h"
#include "cli/client/StatusSections.h"
#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "platform/orrery/Client.h"

namespace Cli {
namespace {

constexpr const char* journalPath = "p4runtime/status/journal";
constexpr const char* agentPath = "p4runtime/status/agent";
constexpr std::chrono::milliseconds untilWritten{100};

using P4InfoPtr = std::shared_ptr<p4::config::v1::P4Info>;

// Empty without a running agent.
std::string agentsAttribute(const JournalOptions& options, const char* path, const char* name) {
  try {
    Orrery::Client client(options.stateDirectory);
    const Vela::Json attributes = attributesAt(client, path);
    return Vela::jsonString(attributes.get(), name).value_or("");
  } catch (const Orrery::NoAgentError&) {
    return "";
  }
}

std::string journalOf(const JournalOptions& options) {
  if (!options.journal.empty()) return options.journal;
  std::string directory = agentsAttribute(options, journalPath, "directory");
  if (!directory.empty()) return directory;
  directory = options.stateDirectory + "/journal";
  if (std::filesystem::exists(directory)) return directory;
  throw std::runtime_error(fmt::format(
      "the agent of {} keeps no journal; set sizeMib of p4runtime/config/journal, or name another "
      "--state-dir or --journal",
      options.stateDirectory));
}

P4InfoPtr newestInJournal(const JournalOptions& options) {
  Journal::Reader reader = openJournal(options);
  std::string newest;
  while (const auto record = reader.next()) {
    if (record->kind != Journal::RecordKind::pipeline) continue;
    if (const auto request = Journal::requestOf(*record)) newest = request->bytes;
  }
  p4::v1::SetForwardingPipelineConfigRequest request;
  if (newest.empty() || !request.ParseFromString(newest)) return nullptr;
  return std::make_shared<p4::config::v1::P4Info>(
      std::move(*request.mutable_config()->mutable_p4info()));
}

P4InfoPtr runningP4Info(const JournalOptions& options) {
  const std::string file = agentsAttribute(options, agentPath, "pipelineFile");
  if (file.empty()) return nullptr;
  p4::v1::SetForwardingPipelineConfigRequest request;
  Pipeline::readPipelineFile(file, &request);
  return std::make_shared<p4::config::v1::P4Info>(
      std::move(*request.mutable_config()->mutable_p4info()));
}

}  // namespace

void addJournalOptions(CLI::App& command, JournalOptions& options) {
  options.stateDirectory = defaultStateDirectory();
  addStateDirectoryOption(command, options.stateDirectory);
  command
      .add_option("--journal", options.journal,
                  "The journal's directory, or one of its files; without it that of the agent")
      ->type_name("PATH");
  command
      .add_option("--p4info", options.p4Info,
                  "To know names by; without it the newest pipeline that the journal has")
      ->type_name("FILE");
}

Journal::Reader openJournal(const JournalOptions& options) {
  const std::string path = journalOf(options);
  if (Journal::isBeingWritten(path)) std::this_thread::sleep_for(untilWritten);
  return Journal::Reader(Journal::filesAt(path));
}

std::shared_ptr<const p4::config::v1::P4Info> p4InfoOf(const JournalOptions& options) {
  if (!options.p4Info.empty()) {
    const auto p4Info = std::make_shared<p4::config::v1::P4Info>();
    Pipeline::Findings findings;
    Pipeline::readP4Info(options.p4Info, p4Info.get(), &findings);
    return p4Info;
  }
  if (auto p4Info = newestInJournal(options)) return p4Info;
  if (auto p4Info = runningP4Info(options)) return p4Info;
  throw std::runtime_error("the journal has no pipeline any more; name its P4Info with --p4info");
}

}  // namespace Cli
