#include "P4Runtime/agent/ProtobufLog.h"

#include <google/protobuf/stubs/logging.h>

#include <chrono>
#include <mutex>
#include <string>

#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"
#include "platform/vela/LineBudget.h"
#include "platform/vela/PlainText.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("ProtobufLog");

constexpr size_t longestLine = 300;

Vela::LineBudget::Verdict verdict() {
  static auto* mutex = new std::mutex;  // any thread may parse
  static auto* budget = new Vela::LineBudget(10, std::chrono::minutes(1));
  const std::lock_guard guard(*mutex);
  return budget->take(std::chrono::steady_clock::now());
}

// Any sender of a message can cause this.
void handleMessage(google::protobuf::LogLevel level, const char*, int, const std::string& message) {
  const std::string line = Vela::plainLine(message, longestLine);
  SCRIVEL_TRACE(1, "handleMessage", " level: ", static_cast<int>(level), " ", line);
  const auto write = verdict();
  if (write == Vela::LineBudget::Verdict::silent) return;
  Vela::tellError("protobuf: {}{}", line,
                  write == Vela::LineBudget::Verdict::last
                      ? "; more are not shown for a while, korvel trace has them"
                      : "");
}

}  // namespace

void takeProtobufLog() { google::protobuf::SetLogHandler(&handleMessage); }

}  // namespace P4Runtime
