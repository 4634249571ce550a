#include "forwarder/TrafficCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <utility>

namespace Forwarder {
namespace {

constexpr uint64_t maxRate = 1'000'000'000;
constexpr uint64_t maxBytes = 65535;

uint64_t number(const char* what, std::string_view text, uint64_t least, uint64_t most) {
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool whole = error == std::errc() && end == text.data() + text.size();
  if (whole && value >= least && value <= most) return value;
  throw RuleError(
      fmt::format("traffic: {} is a number from {} to {}, not '{}'", what, least, most, text));
}

std::pair<std::string_view, std::string_view> split(std::string_view words) {
  const size_t blank = std::min(words.find(' '), words.size());
  std::string_view rest = words.substr(blank);
  rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
  return {words.substr(0, blank), rest};
}

std::string shown(Traffic& traffic) {
  const TrafficOptions& options = traffic.options();
  std::string text = fmt::format("rate {}\nachieved {}{}\nbytes {}\nseed {}\n", options.rate,
                                 traffic.achievedRate(), traffic.behind() ? " (behind)" : "",
                                 options.bytes, options.seed);
  for (size_t i = 0; i < options.headers.size(); ++i) {
    const char* note = traffic.headerMeetsTables(i) ? "" : " (no table matches on such a field)";
    text += fmt::format("header {}{}\n", options.headers[i].text, note);
  }
  return text + traffic.stats().text();
}

}  // namespace

void applyTraffic(TrafficOptions& options, std::string_view words) {
  const auto [name, argument] = split(words);
  if (name == "header" && argument == "none") {
    options.headers.clear();
  } else if (name == "header") {
    options.headers.push_back(packetHeader(argument));
  } else if (name == "bytes") {
    options.bytes = number("bytes", argument, 1, maxBytes);
  } else if (name == "seed") {
    options.seed = number("seed", argument, 0, UINT64_MAX);
  } else if (words == "off") {
    options.rate = 0;
  } else {
    options.rate = number("the rate in packets a second", words, 0, maxRate);
  }
}

Answer trafficAnswered(Traffic& traffic, std::string_view words) {
  if (words.empty()) return {true, shown(traffic)};
  if (words == "reset") {
    traffic.statsDel();
    return {};
  }
  try {
    TrafficOptions options = traffic.options();
    applyTraffic(options, words);
    traffic.optionsIs(std::move(options));
    return {};
  } catch (const RuleError& e) {
    return {false, e.what()};
  }
}

}  // namespace Forwarder
