// Where the journal of an agent is, and the P4Info that gives its entries names.
#pragma once

#include <CLI/CLI.hpp>

#include <memory>
#include <string>

#include "journal/Reader.h"

namespace p4::config::v1 {
class P4Info;
}

namespace Cli {

struct JournalOptions {
  std::string stateDirectory;
  std::string journal;  // directory or file; "": the agent's
  std::string p4Info;   // file; "": the newest pipeline of the journal, else the agent's
};
void addJournalOptions(CLI::App& command, JournalOptions& options);

// Waits a moment for the records that a running agent is about to write. Throws std::runtime_error
// when there is no journal.
Journal::Reader openJournal(const JournalOptions& options);

// Never null. Throws std::runtime_error that says how to name one.
std::shared_ptr<const p4::config::v1::P4Info> p4InfoOf(const JournalOptions& options);

}  // namespace Cli
