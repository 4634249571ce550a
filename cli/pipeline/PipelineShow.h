// What 'korvel pipeline show' prints.
#pragma once

#include <string>

namespace Cli {

// The pipeline for people, or as JSON. Throws Pipeline::PipelineError for a file that holds none.
std::string shownPipeline(const std::string& path, bool json);

}  // namespace Cli
