// The text form of findings.
#include "pipeline/Finding.h"

namespace Pipeline {

std::string findingText(const Finding& finding) {
  std::string text = finding.severity == Severity::error ? "error: " : "warning: ";
  if (!finding.object.empty()) text += finding.object + ": ";
  return text + finding.message;
}

}  // namespace Pipeline
