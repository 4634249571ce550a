// Reading the queries that a pipeline file shall get.
#pragma once

#include <string>
#include <vector>

#include "pipeline/DeviceConfig.h"

namespace Pipeline {

// From a file with an array of queries, or an object with one under "queries" and, if need be,
// types of their outputs under "table_type_definitions". Throws PipelineError that names the query
// and its missing part.
void readQueriesFile(const std::string& path, std::vector<DeviceType>* types,
                     std::vector<DeviceQuery>* queries);

}  // namespace Pipeline
