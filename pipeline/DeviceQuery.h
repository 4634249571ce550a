// The queries of a pipeline file.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "pipeline/TypeCheck.h"
#include "platform/vela/Json.h"

namespace Pipeline {

class Findings;
struct DeviceConfig;
struct DeviceType;

struct DeviceQuery {
  std::string path;  // of the output table
  std::string type;  // of its rows
  std::string text;
  bool oneShot = false;
  std::vector<std::pair<std::string, std::string>> inputs;  // name in the query, table
  std::vector<std::pair<std::string, std::string>> params;  // name, value
};

// From a file with an array of queries, or an object with one under "queries" and, if need be,
// types of their outputs under "table_type_definitions". Throws PipelineError that names the query
// and its missing part.
void readQueriesFile(const std::string& path, std::vector<DeviceType>* types,
                     std::vector<DeviceQuery>* queries);

// One element of "queries"; throws PipelineError that begins with `place`.
DeviceQuery deviceQuery(const cJSON* element, const std::string& place);
void addQuery(const DeviceQuery& query, cJSON* queries);

// Errors: the agent's refusals of the queries when it starts.
void checkQueries(const DeviceConfig& config, const CompiledTypes& types, Findings* findings);
// How the agent keeps the query's output up to date; empty when it cannot.
std::string queryMethodText(const DeviceQuery& query, const DeviceConfig& config,
                            const CompiledTypes& types);

}  // namespace Pipeline
