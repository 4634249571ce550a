#include "forwarder/CommandLine.h"

#include <fstream>
#include <sstream>

#include "forwarder/punt/PuntCommand.h"
#include "forwarder/traffic/TrafficCommand.h"

namespace Forwarder {
namespace {

constexpr const char* ruleNames[] = {"capacity", "fail-code",  "fail-every",
                                     "fail-key", "fail-table", "latency"};

}  // namespace

CommandLine::CommandLine(CLI::App& app) : app_(app) {
  addRules();
  addTraffic();
  addPunt();
  addForwarding();
  app.add_flag("--silent", silent_, "never report");
}

CLI::Option* CommandLine::add(const std::string& name, const std::string& what,
                              const std::string& help) {
  return app_.add_option("--" + name, words_[name], help)
      ->type_name(what)
      ->allow_extra_args(false)
      ->take_all();
}

void CommandLine::addRules() {
  add("capacity", "TABLE=N", "the table holds N rows; TABLE may be *");
  add("latency", "MS", "reports come so many milliseconds later");
  add("fail-table", "TABLE", "every write of the table fails");
  add("fail-key", "TABLE:COLUMN=TEXT", "writes of rows with this key fail");
  add("fail-every", "N", "one write in N fails");
  add("fail-code", "CODE", "the error code of such failures (default 2)");
}

Rules CommandLine::rules() const {
  Rules rules;
  for (const char* name : ruleNames) {
    for (const std::string& argument : words(name)) applyRule(rules, name, argument);
  }
  rules.silent = silent_;
  return rules;
}

void CommandLine::addTraffic() {
  add("traffic", "RATE", "look up so many synthetic packets a second, and count hits");
  add("traffic-header", "FIELD=VALUE,...", "a packet to take in turn; fields not given are drawn");
  add("traffic-bytes", "N", "a packet's size (default 64)");
  add("traffic-seed", "N", "the same seed draws the same packets (default 1)");
}

TrafficOptions CommandLine::traffic() const {
  TrafficOptions options;
  for (const std::string& word : words("traffic")) applyTraffic(options, word);
  for (const std::string& word : words("traffic-header")) applyTraffic(options, "header " + word);
  for (const std::string& word : words("traffic-bytes")) applyTraffic(options, "bytes " + word);
  for (const std::string& word : words("traffic-seed")) applyTraffic(options, "seed " + word);
  return options;
}

void CommandLine::addPunt() {
  punt_ = add("punt", "[PORT=DEVICE]",
              "punt packets that arrive on the ports that the agent maps, or on this one")
              ->expected(0, 1);
  add("punt-ethertype", "TYPE", "only packets of this EtherType");
  add("punt-field", "NAME=VALUE", "a value for a field of packet_in");
  app_.add_option("--punt-device", puntDevice_,
                  "send to the controller on this device, not into the TAP p4controller")
      ->type_name("DEVICE")
      ->allow_extra_args(false);
}

PuntOptions CommandLine::punt() const {
  PuntOptions options;
  // `--punt` by itself stands as an empty word, or as no word.
  if (punt_->count() > words("punt").size()) applyPunt(options, "");
  for (const std::string& word : words("punt")) applyPunt(options, word);
  for (const std::string& word : words("punt-ethertype")) applyPuntEtherType(options, word);
  for (const std::string& word : words("punt-field")) applyPuntField(options, word);
  options.device = puntDevice_;
  return options;
}

void CommandLine::addForwarding() {
  const std::string group = "Forwarding of packets";
  CLI::Option* forward = app_.add_flag(
      "--forward", forwards_,
      "forward the packets of the ports that the agent maps, by the P4 program that a "
      "controller pushes");
  PacketOptions& packets = forwarding_.packets;
  P4::EngineOptions& engine = forwarding_.plane.engine;
  const std::vector<CLI::Option*> options = {
      app_.add_option("--program", programFile_,
                      "a compiled P4 program (JSON), executed until a push brings another"),
      app_.add_option("--cpu-port", packets.cpuPort, "the port of packets from and to controllers"),
      app_.add_option("--cpu-device", packets.cpuDevice, "the device they come over")
          ->capture_default_str(),
      app_.add_option("--drop-port", engine.dropPort, "packets for it are dropped")
          ->capture_default_str(),
      app_.add_option("--priority-queues", engine.priorityQueues, "of a port")
          ->check(CLI::Range(1, 256))
          ->capture_default_str(),
      app_.add_option("--pcap", packets.pcapDirectory,
                      "write DEVICE_in.pcap and DEVICE_out.pcap of each port into this folder")};
  for (CLI::Option* option : options) option->needs(forward)->group(group);
  forward->group(group)->excludes(punt_);
}

std::optional<ForwardingOptions> CommandLine::forwarding() const {
  if (!forwards_) return std::nullopt;
  ForwardingOptions options = forwarding_;
  if (programFile_.empty()) return options;
  std::ifstream file(programFile_, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  if (!file) throw CommandError("cannot read the program " + programFile_);
  options.plane.program = text.str();
  return options;
}

}  // namespace Forwarder
