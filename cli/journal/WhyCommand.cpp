#include "cli/journal/WhyCommand.h"

#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/journal/EntryPattern.h"
#include "cli/journal/History.h"
#include "cli/journal/JournalSource.h"
#include "cli/journal/ProfilePattern.h"
#include "cli/journal/Words.h"
#include "p4/config/v1/p4info.pb.h"
#include "pipeline/P4InfoLookup.h"

namespace {

using namespace Cli;

struct WhyOptions : JournalOptions {
  std::string table;
  std::vector<std::string> key;
  std::optional<int32_t> priority;
  bool isDefault = false;
  size_t last = 100;
  bool json = false;
};

// Tables and action profiles share the names of a program. A pattern that borrows from the P4Info.
std::unique_ptr<EntityPattern> patternOf(const WhyOptions& options,
                                         const Pipeline::P4InfoLookup& index) {
  for (const auto& profile : index.p4Info().action_profiles()) {
    const auto& preamble = profile.preamble();
    if (options.table != preamble.name() && options.table != preamble.alias()) continue;
    return std::make_unique<ProfilePattern>(profile, options.key);
  }
  auto pattern = std::make_unique<EntryPattern>(index.tableNamed(options.table), options.key);
  if (options.priority) pattern->priorityIs(*options.priority);
  pattern->isDefaultIs(options.isDefault);
  return pattern;
}

void printForPeople(const History& history) {
  if (history.left() > 0) {
    fmt::print("{} older ones are not shown; --last N shows more\n", history.left());
  }
  for (const HistoryEvent& event : history.events()) fmt::print("{}", eventText(event));
  if (history.updates() == 0) fmt::print("no Write of it is in the journal\n");
  if (history.begin() && !history.isWhole()) {
    fmt::print("the journal begins at {}: older records have made room\n",
               timeText(*history.begin()));
  }
}

void run(const WhyOptions& options) {
  const auto p4Info = p4InfoOf(options);
  const Pipeline::P4InfoLookup index(*p4Info);
  const auto pattern = patternOf(options, index);
  History history(*pattern, index, options.last);
  Journal::Reader reader = openJournal(options);
  while (const auto record = reader.next()) history.add(*record);
  history.end();
  if (options.json) {
    for (const HistoryEvent& event : history.events()) fmt::print("{}\n", eventJson(event));
  } else {
    printForPeople(history);
  }
  std::fflush(stdout);
  for (const std::string& note : reader.notes()) fmt::print(stderr, "korvel: {}\n", note);
}

}  // namespace

void addWhyCommand(CLI::App& app) {
  CLI::App* command = app.add_subcommand(
      "why", "Show who wrote an entry, when, and what became of it, from the journal");
  const auto options = std::make_shared<WhyOptions>();
  command
      ->add_option("TABLE", options->table,
                   "Its name, alias, or the last parts of its name; or an action profile")
      ->required();
  command->add_option(
      "KEY", options->key,
      "Fields of its key: ipv4_dst=10.0.0.0/8, port=* for one that the entry leaves "
      "out; entries with any value in the others are shown. Of an action profile: "
      "member=ID or group=ID");
  command->add_option("--priority", options->priority, "Only entries of this priority")
      ->type_name("N");
  command->add_flag("--default", options->isDefault, "The default entry of the table");
  command->add_option("-n,--last", options->last, "Only so many, the newest")
      ->type_name("N")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  command->add_flag("--json", options->json, "Print JSON, one object a line");
  addJournalOptions(*command, *options);
  command->callback([options] { run(*options); });
}
