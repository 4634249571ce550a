// Queries, through the very compiler that the agent uses.
#include "pipeline/QueryCheck.h"

#include <set>
#include <vector>

#include "pipeline/Finding.h"
#include "platform/pollen/sql/QueryCheck.h"

namespace Pipeline {
namespace {

using Vela::Outcome;

std::string typeOfTable(const DeviceConfig& config, const std::string& table) {
  for (const DeviceTable& one : config.tables) {
    if (one.name == table) return one.type;
  }
  for (const DeviceQuery& one : config.queries) {
    if (one.path == table) return one.type;
  }
  return {};
}

// Looks up the types of the query's tables for `checked`.
Outcome resolveTables(const DeviceQuery& query, const DeviceConfig& config,
                      const CompiledTypes& types, Pollen::CheckedQuery* checked) {
  const auto compiled = [&](const std::string& name) {
    const auto found = types.find(name);
    return found == types.end() ? nullptr : found->second;
  };
  checked->text = query.text;
  checked->output = compiled(query.type);
  if (!checked->output) return Outcome::failure("its output type " + query.type + " is not known");
  for (const auto& [name, table] : query.inputs) {
    const auto type = compiled(typeOfTable(config, table));
    if (!type) return Outcome::failure("its input table " + table + " does not exist");
    checked->inputs.emplace_back(name, type);
  }
  for (const auto& [name, value] : query.params) checked->parameters.push_back(name);
  return {};
}

// Whether the query follows from its own output.
bool readsItself(const DeviceQuery& query, const DeviceConfig& config) {
  std::set<std::string> seen;
  std::vector<const DeviceQuery*> open{&query};
  while (!open.empty()) {
    const DeviceQuery& reader = *open.back();
    open.pop_back();
    for (const auto& [name, table] : reader.inputs) {
      if (table == query.path) return true;
      if (!seen.insert(table).second) continue;
      for (const DeviceQuery& one : config.queries) {
        if (one.path == table) open.push_back(&one);
      }
    }
  }
  return false;
}

// `paths` holds the names of the tables so far.
Outcome checkQuery(const DeviceQuery& query, const DeviceConfig& config, const CompiledTypes& types,
                   std::set<std::string>* paths) {
  if (query.path.empty() || query.path.size() > maxNameBytes) {
    return Outcome::failure("its output table needs a name of 1 to " +
                            std::to_string(maxNameBytes) + " bytes");
  }
  if (!paths->insert(query.path).second) {
    return Outcome::failure("its output table has the name of another table");
  }
  if (readsItself(query, config)) return Outcome::failure("it reads its own output");
  Pollen::CheckedQuery checked;
  Outcome resolved = resolveTables(query, config, types, &checked);
  return resolved.ok() ? Pollen::checkQuery(checked) : resolved;
}

}  // namespace

void checkQueries(const DeviceConfig& config, const CompiledTypes& types, Findings* findings) {
  std::set<std::string> paths;
  for (const DeviceTable& table : config.tables) paths.insert(table.name);
  for (const DeviceQuery& query : config.queries) {
    const Outcome sound = checkQuery(query, config, types, &paths);
    if (sound.ok()) continue;
    findings->error("query " + query.path, sound.reason(),
                    {"Query compilation failed for " + query.path, sound.reason()});
  }
}

std::string queryMethodText(const DeviceQuery& query, const DeviceConfig& config,
                            const CompiledTypes& types) {
  Pollen::CheckedQuery checked;
  if (!resolveTables(query, config, types, &checked).ok()) return {};
  if (!Pollen::checkQuery(checked).ok()) return {};
  return query.oneShot ? "one-shot" : methodText(Pollen::queryMethod(checked));
}

}  // namespace Pipeline
