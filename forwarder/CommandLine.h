// The options of korvel-forwarder that are control commands, too: each is applied as the command of
// its name is.
#pragma once

#include <CLI/CLI.hpp>
#include <map>
#include <string>
#include <vector>

#include "forwarder/Runner.h"

namespace Forwarder {

// Collects the words of options while the command line is parsed. It outlives the parse of `app`.
class CommandLine {
 public:
  explicit CommandLine(CLI::App& app);
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // After the parse. Throws CommandError when an option's words make no sense.
  Rules rules() const;
  TrafficOptions traffic() const;
  PuntOptions punt() const;
  std::optional<ForwardingOptions> forwarding() const;

 private:
  // The words of an option that may be repeated.
  CLI::Option* add(const std::string& name, const std::string& what, const std::string& help);
  const std::vector<std::string>& words(const std::string& name) const { return words_.at(name); }
  void addRules();
  void addTraffic();
  void addPunt();
  void addForwarding();

  CLI::App& app_;
  std::map<std::string, std::vector<std::string>> words_;  // by option name
  bool silent_ = false;
  std::string puntDevice_;
  CLI::Option* punt_ = nullptr;
  bool forwards_ = false;
  ForwardingOptions forwarding_;
  std::string programFile_;
};

}  // namespace Forwarder
