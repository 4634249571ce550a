#include "P4Runtime/table/failures/FailureText.h"

#include <fmt/format.h>

#include <chrono>

#include "platform/vela/ErrorLine.h"
#include "platform/vela/LineBudget.h"

namespace P4Runtime {

std::string failureText(const Lattice::Report& report) {
  std::string text = fmt::format(": error {}", report.errorCode);
  if (!report.message.empty()) text += fmt::format(" {}", report.message);
  if (!report.subscriberName.empty()) {
    text += fmt::format(" (reported by {})", report.subscriberName);
  }
  return text;
}

void sayNotProgrammed(const std::string& text) {
  static auto* budget = new Vela::LineBudget(100, std::chrono::minutes(1));
  const auto verdict = budget->take(std::chrono::steady_clock::now());
  if (verdict == Vela::LineBudget::Verdict::silent) return;
  Vela::tellError("the forwarding plane could not program {}{}", text,
                  verdict == Vela::LineBudget::Verdict::last
                      ? "; more are not shown for a while, korvel status lists them"
                      : "");
}

}  // namespace P4Runtime
