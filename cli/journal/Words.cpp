#include "cli/journal/Words.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <iterator>

#include "P4Runtime/monitoring/CodeNames.h"
#include "platform/vela/PlainText.h"

namespace Cli {

std::string timeText(Journal::Time time) {
  const auto nanos = time.time_since_epoch().count();
  const std::time_t seconds = nanos / 1'000'000'000;
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z", fmt::gmtime(seconds),
                     nanos % 1'000'000'000 / 1000);
}

std::string codeText(uint32_t code) {
  using P4Runtime::statusCodeNames;
  return code < std::size(statusCodeNames) ? statusCodeNames[code] : fmt::format("code {}", code);
}

std::string plainText(std::string_view text) {
  constexpr size_t longestText = 2000;
  return Vela::plainLine(text, longestText);
}

}  // namespace Cli
