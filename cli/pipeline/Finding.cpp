// The text form of findings.
#include "cli/pipeline/Finding.h"

namespace Cli {

std::string findingText(const Finding& finding) {
  std::string text = finding.severity == Severity::error ? "error: " : "warning: ";
  if (!finding.object.empty()) text += finding.object + ": ";
  return text + finding.message;
}

}  // namespace Cli
