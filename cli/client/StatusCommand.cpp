#include "cli/client/StatusCommand.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>

#include "cli/client/AttributeText.h"
#include "cli/client/ClientOptions.h"
#include "cli/client/StatusSections.h"
#include "platform/orrery/Client.h"

namespace {

using Vela::Json;

constexpr const char* systemPath = "p4runtime/status/system";
constexpr const char* agentPath = "p4runtime/status/agent";
constexpr const char* failuresPath = "p4runtime/status/failures";
constexpr const char* packetsPath = "p4runtime/status/packets";

std::string textOf(const Json& object, const char* name) {
  const cJSON* value = object ? cJSON_GetObjectItemCaseSensitive(object.get(), name) : nullptr;
  return value ? valueText(*value) : "";
}

// The path of an operation by its name, so that the hint is a command to type.
std::string pathOfOperation(Orrery::Client& client, const char* operation) {
  const Json list = client.list("");
  const cJSON* one = nullptr;
  cJSON_ArrayForEach(one, cJSON_GetObjectItemCaseSensitive(list.get(), "paths")) {
    const char* path = Vela::stringMember(*one, "path");
    if (!path) continue;
    const Json entity = client.get(path);
    const cJSON* known = nullptr;
    cJSON_ArrayForEach(known, cJSON_GetObjectItemCaseSensitive(entity.get(), "operations")) {
      const char* name = Vela::stringMember(*known, "name");
      if (name && std::strcmp(name, operation) == 0) return path;
    }
  }
  return {};
}

void printCritical(Orrery::Client& client, const Json& system) {
  const bool critical = textOf(system, "critical") == "true";
  if (!critical && textOf(system, "brokenInvariant") != "true") return;
  const std::string since = textOf(system, "criticalSince");
  const std::string reason = textOf(system, "criticalReason");
  fmt::print("CRITICAL{}{}: writes are refused\n", since.empty() ? "" : " since ", since);
  if (!reason.empty()) fmt::print("  why: {}\n", reason);
  const std::string path = pathOfOperation(client, "revertCriticalState");
  if (!path.empty()) {
    fmt::print("  once the forwarding plane is sound: korvel call {} revertCriticalState\n", path);
  }
}

void printForwardingAgents(const Json& agent) {
  if (textOf(agent, "pretendsProgramming") == "true") {
    fmt::print("PRETENDING: writes are confirmed whether or not anybody programs them\n");
    return;
  }
  if (textOf(agent, "forwardingAgents") != "0") return;
  fmt::print(
      "NO FORWARDING AGENT is attached: writes are refused\n"
      "  start one with this state directory, such as korvel-forwarder\n");
}

void printRestoring(const Json& agent) {
  const std::string progress = textOf(agent, "restoring");
  if (!progress.empty()) fmt::print("RESTORING {}: controllers wait for the end\n", progress);
}

// Failures that no controller was told of, with table and key.
void printList(const Json& failures, const char* attribute, const char* title) {
  const std::string list = textOf(failures, attribute);
  if (list.empty()) return;
  printAttribute(title, *Json(cJSON_CreateString(("\n" + list).c_str())));
}

void printFailures(const Json& failures) {
  printList(failures, "list", "not programmed");
  printList(failures, "notRestoredList", "not restored");
}

// Attributes that have lines of their own.
bool shownElsewhere(const char* name) {
  for (const char* known : {"pid", "criticalSince", "criticalReason", "forwardingAgents",
                            "pretendsProgramming", "restoring"}) {
    if (std::strcmp(name, known) == 0) return true;
  }
  return false;
}

void printAll(const Json& object) {
  const cJSON* attribute = nullptr;
  cJSON_ArrayForEach(attribute, object.get()) {
    if (!shownElsewhere(attribute->string)) {
      printAttribute(spacedName(attribute->string), *attribute);
    }
  }
}

// A count of 0 is no news, except for the counts that are always shown.
bool isNews(const cJSON& count) {
  static const char* const always[] = {"in", "inToControllers", "out"};
  const auto isIt = [&](const char* name) { return std::strcmp(name, count.string) == 0; };
  const std::string text = valueText(count);
  return (text != "0" && !text.empty()) || std::any_of(std::begin(always), std::end(always), isIt);
}

void printPackets(const Json& packets) {
  if (!packets) return;
  fmt::print("packets\n");
  const cJSON* count = nullptr;
  cJSON_ArrayForEach(count, packets.get()) {
    if (isNews(*count)) printAttribute("  " + spacedName(count->string), *count);
  }
}

void printForPeople(Orrery::Client& client, const Json& system, const Json& agent,
                    const Json& failures, const Json& packets, const Json& sections) {
  printAttribute(
      "agent",
      *Json(cJSON_CreateString(fmt::format("running, pid {}", client.agentPid()).c_str())));
  printRestoring(agent);
  printForwardingAgents(agent);
  printCritical(client, system);
  if (agent) {
    printAll(agent);
  } else {
    fmt::print("the agent is starting: there is no {} yet\n", agentPath);
  }
  if (system) printAll(system);
  printStatusSections(*sections);
  printPackets(packets);
  printFailures(failures);
}

// Adds members to `json`.
void printJson(int64_t pid, Json system, Json agent, Json failures, Json packets,
               const Json& json) {
  cJSON_AddBoolToObject(json.get(), "running", pid != 0);
  if (pid != 0) cJSON_AddNumberToObject(json.get(), "pid", static_cast<double>(pid));
  if (system) cJSON_AddItemToObject(json.get(), "system", system.release());
  if (agent) cJSON_AddItemToObject(json.get(), "agent", agent.release());
  if (failures) cJSON_AddItemToObject(json.get(), "failures", failures.release());
  if (packets) cJSON_AddItemToObject(json.get(), "packets", packets.release());
  fmt::print("{}\n", Vela::jsonText(*json));
}

void runStatus(const ClientOptions& options) {
  try {
    Orrery::Client client(options.stateDirectory);
    Json system = attributesAt(client, systemPath);
    Json agent = attributesAt(client, agentPath);
    Json failures = attributesAt(client, failuresPath);
    Json packets = attributesAt(client, packetsPath);
    const Json sections(cJSON_CreateObject());
    addStatusSections(client, sections.get());
    if (options.json) {
      printJson(client.agentPid(), std::move(system), std::move(agent), std::move(failures),
                std::move(packets), sections);
    } else {
      printForPeople(client, system, agent, failures, packets, sections);
    }
  } catch (const Orrery::NoAgentError&) {
    if (options.json) printJson(0, nullptr, nullptr, nullptr, nullptr, Json(cJSON_CreateObject()));
    throw;
  }
}

}  // namespace

void addStatusCommand(CLI::App& app) {
  CLI::App* command =
      app.add_subcommand("status", "Show whether the switch serves, and its failures");
  const auto options = std::make_shared<ClientOptions>();
  addClientOptions(*command, *options);
  command->callback([options] { runStatus(*options); });
}
