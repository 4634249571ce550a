#include "P4Runtime/agent/GrpcLog.h"

#include <grpc/support/log.h>

#include <chrono>
#include <mutex>
#include <string>
#include <string_view>

#include "P4Runtime/agent/AccountLog.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"
#include "platform/vela/LineBudget.h"
#include "platform/vela/PlainText.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("GrpcLog");

constexpr size_t longestLine = 300;

Vela::LineBudget::Verdict verdict() {
  static auto* mutex = new std::mutex;
  static auto* budget = new Vela::LineBudget(10, std::chrono::minutes(1));
  const std::lock_guard guard(*mutex);
  return budget->take(std::chrono::steady_clock::now());
}

// Of a client that the TLS library has refused.
bool isHandshake(const gpr_log_func_args& message) {
  return std::string_view(message.message).starts_with("Handshake failed");
}

// Anybody who connects can cause this, as often as he likes.
void handleMessage(gpr_log_func_args* message) {
  const std::string line = Vela::plainLine(message->message, longestLine);
  SCRIVEL_TRACE(1, "handleMessage", " severity: ", static_cast<int>(message->severity), " ", line);
  if (isHandshake(*message)) accountHandshake(line);
  const auto write = verdict();
  if (write == Vela::LineBudget::Verdict::silent) return;
  Vela::tellError("gRPC: {}{}", line,
                  write == Vela::LineBudget::Verdict::last
                      ? "; more are not shown for a while, korvel trace has them"
                      : "");
}

}  // namespace

void takeGrpcLog() { gpr_set_log_function(&handleMessage); }

}  // namespace P4Runtime
