// Findings for programs.
#include "cli/pipeline/FindingsJson.h"

#include "pipeline/Finding.h"
#include "platform/vela/Json.h"

namespace Cli {

using namespace Pipeline;

std::string findingsJson(const std::string& path, const Findings& findings) {
  const Vela::Json root(cJSON_CreateObject());
  Vela::addString(root.get(), "file", path);
  cJSON_AddBoolToObject(root.get(), "runs", findings.hasErrors() ? 0 : 1);
  cJSON* list = Vela::addArray(root.get(), "findings");
  for (const Finding& finding : findings.list()) {
    cJSON* item = Vela::addObjectTo(list);
    Vela::addString(item, "severity", finding.severity == Severity::error ? "error" : "warning");
    Vela::addString(item, "object", finding.object);
    Vela::addString(item, "message", finding.message);
  }
  return Vela::jsonBytes(*root) + '\n';
}

}  // namespace Cli
