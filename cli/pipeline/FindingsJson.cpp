// Findings for programs.
#include "cli/pipeline/FindingsJson.h"

#include "pipeline/Finding.h"
#include "pipeline/Json.h"

namespace Cli {

using namespace Pipeline;

std::string findingsJson(const std::string& path, const Findings& findings) {
  const JsonPtr root(cJSON_CreateObject());
  stringItemIs(root.get(), "file", path);
  cJSON_AddBoolToObject(root.get(), "runs", findings.hasErrors() ? 0 : 1);
  cJSON* list = newArrayItem(root.get(), "findings");
  for (const Finding& finding : findings.list()) {
    cJSON* item = newObjectIn(list);
    stringItemIs(item, "severity", finding.severity == Severity::error ? "error" : "warning");
    stringItemIs(item, "object", finding.object);
    stringItemIs(item, "message", finding.message);
  }
  return printedJson(*root) + '\n';
}

}  // namespace Cli
