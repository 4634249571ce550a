#include "forwarder/traffic/TrafficCommand.h"

#include <fmt/format.h>

#include <utility>

#include "forwarder/base/Answer.h"
#include "forwarder/base/Words.h"

namespace Forwarder {
namespace {

constexpr uint64_t maxRate = 1'000'000'000;
constexpr uint64_t maxBytes = 65535;

uint64_t numberFrom(const char* what, std::string_view text, uint64_t least, uint64_t most) {
  const auto number = decimalNumber(text);
  if (number && *number >= least && *number <= most) return *number;
  throw CommandError(
      fmt::format("traffic: {} is a number from {} to {}, not '{}'", what, least, most, text));
}

std::string stateText(Traffic& traffic) {
  const TrafficOptions& options = traffic.options();
  std::string text = fmt::format(
      "rate {}\nachieved {}{}\nbytes {}\nseed {}\n", options.rate, traffic.pace().achievedRate(),
      traffic.pace().behind() ? " (behind)" : "", options.bytes, options.seed);
  for (size_t i = 0; i < options.headers.size(); ++i) {
    const char* note = traffic.headerMeetsTables(i) ? "" : " (no table matches on such a field)";
    text += fmt::format("header {}{}\n", options.headers[i].text, note);
  }
  return text + traffic.stats().text();
}

}  // namespace

void applyTraffic(TrafficOptions& options, std::string_view words) {
  std::string_view argument = words;
  const std::string_view name = takeWord(argument);
  if (name == "header" && argument == "none") {
    options.headers.clear();
  } else if (name == "header") {
    options.headers.push_back(packetHeader(argument));
  } else if (name == "bytes") {
    options.bytes = numberFrom("bytes", argument, 1, maxBytes);
  } else if (name == "seed") {
    options.seed = numberFrom("seed", argument, 0, UINT64_MAX);
  } else if (words == "off") {
    options.rate = 0;
  } else {
    options.rate = numberFrom("the rate in packets a second", words, 0, maxRate);
  }
}

std::string runTrafficCommand(Traffic& traffic, std::string_view words) {
  if (words.empty()) return stateText(traffic);
  if (words == "reset") {
    traffic.statsDel();
    return {};
  }
  TrafficOptions options = traffic.options();
  applyTraffic(options, words);
  traffic.optionsIs(std::move(options));
  return {};
}

}  // namespace Forwarder
