// A query as the device JSON holds it.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/vela/Json.h"

namespace Pipeline {

struct DeviceQuery {
  std::string path;  // of the output table
  std::string type;  // of its rows
  std::string text;
  bool oneShot = false;
  std::vector<std::pair<std::string, std::string>> inputs;  // name in the query, table
  std::vector<std::pair<std::string, std::string>> params;  // name, value
};

// One element of "queries"; throws PipelineError that begins with `place`.
DeviceQuery deviceQuery(const cJSON* element, const std::string& place);
void addQuery(const DeviceQuery& query, cJSON* queries);

}  // namespace Pipeline
