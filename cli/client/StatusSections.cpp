#include "cli/client/StatusSections.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "cli/client/AttributeText.h"

namespace {

using Vela::Json;

constexpr const char* journalPath = "p4runtime/status/journal";
constexpr const char* pipelinePath = "p4runtime/status/pipeline";
constexpr const char* policyPath = "p4runtime/status/policy";
constexpr const char* portsPath = "p4runtime/status/port-mapping";
constexpr const char* translationPath = "p4runtime/status/translation";
constexpr const char* queriesPath = "lattice/status/query/p4runtime";
constexpr const char* vrfsPath = "p4runtime/status/vrf";
constexpr const char* outsidePath = "orrery/status/redis";

// An entity as the agent shows it; null when it has none there.
Json entityAt(Orrery::Client& client, const std::string& path) {
  try {
    return client.get(path);
  } catch (const Orrery::NoAgentError&) {
    throw;
  } catch (const Orrery::ClientError&) {
    return nullptr;
  }
}

// The attributes of each child of a directory, by name; null without children.
Json childrenAt(Orrery::Client& client, const std::string& path) {
  const Json directory = entityAt(client, path);
  Json all(cJSON_CreateObject());
  const cJSON* name = nullptr;
  cJSON_ArrayForEach(name, cJSON_GetObjectItemCaseSensitive(directory.get(), "children")) {
    const std::string child = name->valuestring ? name->valuestring : "";
    Json attributes = attributesAt(client, fmt::format("{}/{}", path, child));
    if (attributes) cJSON_AddItemToObject(all.get(), child.c_str(), attributes.release());
  }
  return cJSON_GetArraySize(all.get()) == 0 ? nullptr : std::move(all);
}

std::string textOf(const cJSON* attributes, const char* name) {
  const cJSON* value = cJSON_GetObjectItemCaseSensitive(attributes, name);
  return value ? valueText(*value) : "";
}

void add(cJSON* status, const char* name, Json section) {
  if (section) cJSON_AddItemToObject(status, name, section.release());
}

// A title, once there is something to say below it.
class Section {
 public:
  explicit Section(const char* title) : title_(title) {}
  void line(const std::string& text) {
    if (title_) fmt::print("{}\n", std::exchange(title_, nullptr));
    fmt::print("  {}\n", text);
  }

 private:
  const char* title_;
};

// The file that could not be used, and the tables and actions that the running pipeline leaves out.
void printPipeline(const cJSON* pipeline) {
  Section section("pipeline");
  if (textOf(pipeline, "waitsForPush") == "true") {
    section.line("NONE YET: no file is configured; the agent waits for a controller to push one");
  } else if (textOf(pipeline, "failed") == "true")
    section.line("FAILED: " + textOf(pipeline, "text"));
  std::istringstream refused(textOf(pipeline, "refused"));
  for (std::string line; std::getline(refused, line);) section.line(line);
}

void printPolicy(const cJSON* policy) {
  Section section("policy");
  const std::string file = textOf(policy, "file");
  const std::string fault = textOf(policy, "fault");
  if (!file.empty()) section.line(file);
  if (!fault.empty()) section.line("BROKEN, and in force as it was before: " + fault);
}

void printOutside(const cJSON* outside) {
  if (!outside) return;
  Section section("state database outside");
  section.line(textOf(outside, "server") + " " + textOf(outside, "prefix"));
  const std::string trouble = textOf(outside, "trouble");
  if (!trouble.empty()) section.line("TROUBLE: " + trouble);
  for (const auto& [setting, reason] : sortedEntries(outside, "refused")) {
    section.line(fmt::format("{} refused: {}", setting, reason));
  }
}

void printJournal(const cJSON* journal) {
  Section section("journal");
  const std::string directory = textOf(journal, "directory");
  const std::string lost = textOf(journal, "lost");
  const std::string trouble = textOf(journal, "trouble");
  if (!directory.empty()) {
    section.line(fmt::format("{}, {} bytes", directory, textOf(journal, "bytes")));
  }
  if (!lost.empty() && lost != "0")
    section.line(fmt::format("{} RECORDS LOST for want of room", lost));
  if (!trouble.empty()) section.line("NOT WRITTEN: " + trouble);
}

void printPorts(const cJSON* ports) {
  Section section("ports");
  for (const auto& [port, intf] : sortedEntries(ports, "intfOfPort")) {
    section.line(fmt::format("{} {}", port, intf));
  }
  for (const auto& [port, reason] : sortedEntries(ports, "refused")) {
    section.line(fmt::format("{} refused: {}", port, reason));
  }
}

// Names that the configuration cannot fix.
void printTranslation(const cJSON* translation) {
  Section section("translation");
  for (const auto& [name, reason] : sortedEntries(translation, "refused")) {
    section.line(fmt::format("{} refused: {}", name, reason));
  }
}

std::string queryText(const cJSON* query) {
  const std::string reason = textOf(query, "reason");
  if (!reason.empty()) return "failed: " + reason;
  if (textOf(query, "active") != "true") {
    return textOf(query, "defined") == "true" ? "not active" : "waits for its tables";
  }
  std::string text = fmt::format("{} rows, {}", textOf(query, "rows"), textOf(query, "method"));
  const std::string trouble = textOf(query, "trouble");
  return trouble.empty() ? text : text + "; " + trouble;
}

void printQueries(const cJSON* queries) {
  Section section("queries");
  const cJSON* query = nullptr;
  cJSON_ArrayForEach(query, queries) {
    std::string text = fmt::format("{}: {}", query->string, queryText(query));
    std::replace(text.begin(), text.end(), '\n', ' ');
    section.line(text);
  }
}

void printVrfs(const cJSON* vrfs) {
  Section section("vrfs");
  for (const auto& [name, id] : sortedEntries(vrfs, "vrfId")) {
    section.line(fmt::format("{} {}", name, id));
  }
}

}  // namespace

Json attributesAt(Orrery::Client& client, const std::string& path) {
  const Json entity = entityAt(client, path);
  return Json(entity ? cJSON_DetachItemFromObjectCaseSensitive(entity.get(), "attributes")
                     : nullptr);
}

std::vector<std::pair<std::string, std::string>> sortedEntries(const cJSON* attributes,
                                                               const char* name) {
  std::vector<std::pair<std::string, std::string>> entries;
  const cJSON* one = nullptr;
  cJSON_ArrayForEach(one, cJSON_GetObjectItemCaseSensitive(attributes, name)) {
    entries.emplace_back(one->string, valueText(*one));
  }
  std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
    return std::pair(a.first.size(), a.first) < std::pair(b.first.size(), b.first);
  });
  return entries;
}

void addStatusSections(Orrery::Client& client, cJSON* status) {
  add(status, "pipeline", attributesAt(client, pipelinePath));
  add(status, "journal", attributesAt(client, journalPath));
  add(status, "policy", attributesAt(client, policyPath));
  add(status, "stateDatabase", attributesAt(client, outsidePath));
  add(status, "ports", attributesAt(client, portsPath));
  add(status, "translation", attributesAt(client, translationPath));
  add(status, "queries", childrenAt(client, queriesPath));
  add(status, "vrfs", attributesAt(client, vrfsPath));
}

void printStatusSections(const cJSON& status) {
  const auto section = [&](const char* name) {
    return cJSON_GetObjectItemCaseSensitive(&status, name);
  };
  printPipeline(section("pipeline"));
  printPolicy(section("policy"));
  printOutside(section("stateDatabase"));
  printJournal(section("journal"));
  printPorts(section("ports"));
  printTranslation(section("translation"));
  printQueries(section("queries"));
  printVrfs(section("vrfs"));
}
