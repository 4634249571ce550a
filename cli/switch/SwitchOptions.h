// The options of `korvel switch`, spelled as users of v1model software switches know them.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct ServerAddress {
  std::string text;  // as it was given, for people
  std::string host;  // an IP address
  uint16_t port = 0;
};

// Absolute paths; empty without TLS.
struct ServerFiles {
  std::string certificate;
  std::string key;
  std::string clientCa;
  std::string crl;
};

struct SwitchOptions {
  std::map<uint32_t, std::string> interfaces;  // by port
  uint32_t deviceId = 0;
  std::string program;     // a file with a compiled P4 program
  bool noProgram = false;  // asked for: a controller is to push one
  std::optional<uint32_t> cpuPort;
  std::optional<uint32_t> dropPort;
  std::optional<uint32_t> priorityQueues;
  ServerAddress server{"127.0.0.1:9559", "127.0.0.1", 9559};
  ServerFiles files;
  bool wantsTls = false;
  bool insecure = false;
  std::string pcapDirectory;  // empty: packets are not recorded
  bool logsToConsole = false;
  std::string logFile;
  std::string stateDirectory;  // empty: one that the switch makes, and removes in the end
  std::string orrery;          // the address of a state database outside; empty: there is none
  bool fresh = false;          // begins with an empty state directory
  std::string forwarder;       // empty: the korvel-forwarder beside the command
  std::vector<std::string> warnings;
};

// Declares the options on the subcommand. A parse fills `options`, which outlives it, and throws
// CLI::ParseError for values that make no sense.
void addSwitchOptions(CLI::App& command, SwitchOptions& options);

// After a parse: throws CLI::ParseError when options contradict each other or one is missing.
void checkSwitchOptions(const SwitchOptions& options);

// The words of a command line as a parse takes them: beginnings of option names become the names,
// and the "--" between two groups of options goes. Throws CLI::ParseError for a beginning that
// several options have.
std::vector<std::string> plainSwitchWords(const CLI::App& command, std::vector<std::string> words);
