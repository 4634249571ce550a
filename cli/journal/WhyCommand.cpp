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

void printForPeople(const WhyOptions& options, const EntryPattern& pattern,
                    const History& history) {
  if (history.left() > 0) {
    fmt::print("{} older ones are not shown; --last N shows more\n", history.left());
  }
  for (const HistoryEvent& event : history.events()) fmt::print("{}", eventText(event));
  const std::string& table = pattern.table().preamble().name();
  if (history.updates() == 0) {
    fmt::print("no Write of such {} of {} is in the journal\n",
               options.isDefault ? "a default entry" : "an entry", table);
  }
  if (history.begin() && !history.isWhole()) {
    fmt::print("the journal begins at {}: older records have made room\n",
               timeText(*history.begin()));
  }
}

void run(const WhyOptions& options) {
  const auto p4Info = p4InfoOf(options);
  const Pipeline::P4InfoLookup index(*p4Info);
  EntryPattern pattern(index.tableNamed(options.table), options.key);
  if (options.priority) pattern.priorityIs(*options.priority);
  pattern.isDefaultIs(options.isDefault);
  History history(pattern, index, options.last);
  Journal::Reader reader = openJournal(options);
  while (const auto record = reader.next()) history.add(*record);
  history.end();
  if (options.json) {
    for (const HistoryEvent& event : history.events()) fmt::print("{}\n", eventJson(event));
  } else {
    printForPeople(options, pattern, history);
  }
  std::fflush(stdout);
  for (const std::string& note : reader.notes()) fmt::print(stderr, "korvel: {}\n", note);
}

}  // namespace

void addWhyCommand(CLI::App& app) {
  CLI::App* command = app.add_subcommand(
      "why", "Show who wrote an entry, when, and what became of it, from the journal");
  const auto options = std::make_shared<WhyOptions>();
  command->add_option("TABLE", options->table, "Its name, alias, or the last parts of its name")
      ->required();
  command->add_option(
      "KEY", options->key,
      "Fields of its key: ipv4_dst=10.0.0.0/8, port=* for one that the entry leaves "
      "out; entries with any value in the others are shown");
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
