#include "P4Runtime/companion/P4RtSystemConfig.h"

namespace P4RuntimeConfig {

void P4RtSystemStatus::criticalIs(const std::string& reason, const std::string& since) {
  if (critical()) return;
  criticalReasonIs(reason);
  criticalSinceIs(since);
  criticalIs(true);
}

void P4RtSystemStatus::criticalCleared() {
  criticalReasonIs("");
  criticalSinceIs("");
  criticalIs(false);
}

}  // namespace P4RuntimeConfig
