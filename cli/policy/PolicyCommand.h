// 'korvel policy check|explain': judges policies, and tells what they decide.
#pragma once

namespace CLI {
class App;
}

// Adds the subcommand. Its callbacks print their results on standard output and throw
// std::runtime_error with one line for people, or CLI::RuntimeError with an exit status when all is
// said already.
void addPolicyCommand(CLI::App& app);
