// What 'korvel pipeline show' prints.
#pragma once

#include <string>

namespace Cli {

// The pipeline for people, or as JSON. Throws Pipeline::PipelineError where there is none to show.
std::string shownPipeline(const std::string& path, bool json);

}  // namespace Cli
