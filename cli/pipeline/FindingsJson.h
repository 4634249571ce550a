// What 'korvel pipeline check --json' prints.
#pragma once

#include <string>

namespace Pipeline {
class Findings;
}

namespace Cli {

// The findings of `path` as a JSON object {"file", "runs", "findings": [...]}.
std::string findingsJson(const std::string& path, const Pipeline::Findings& findings);

}  // namespace Cli
