#include "cli/top/TopScreen.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <string_view>

#include "platform/vela/Json.h"

namespace {

const cJSON* member(const cJSON* object, const char* name) {
  return object ? cJSON_GetObjectItemCaseSensitive(object, name) : nullptr;
}
double numberOf(const cJSON* object, const char* name) {
  const cJSON* value = member(object, name);
  return cJSON_IsNumber(value) ? value->valuedouble : 0;
}
std::string textOf(const cJSON* object, const char* name) {
  const char* text = object ? Vela::stringMember(*object, name) : nullptr;
  return text ? text : "";
}
bool isTrue(const cJSON* object, const char* name) { return cJSON_IsTrue(member(object, name)); }

// "1,234,567"
std::string grouped(double number) {
  const std::string digits = fmt::format("{:.0f}", std::max(number, 0.0));
  std::string text;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) text += ',';
    text += digits[i];
  }
  return text;
}

std::string timeText(std::optional<double> nanoseconds) {
  if (!nanoseconds) return "-";
  if (*nanoseconds < 1e6) return fmt::format("{:.0f} us", *nanoseconds / 1e3);
  if (*nanoseconds < 1e9) return fmt::format("{:.1f} ms", *nanoseconds / 1e6);
  return fmt::format("{:.1f} s", *nanoseconds / 1e9);
}

// The place of a share of the observations between two samples; even within a bucket.
std::optional<double> quantile(const cJSON& before, const cJSON& now, const char* stage,
                               double share) {
  std::vector<double> counts;
  for (const cJSON* count : Vela::JsonElements(member(member(&now, "stages"), stage))) {
    const cJSON* former = cJSON_GetArrayItem(member(member(&before, "stages"), stage),
                                             static_cast<int>(counts.size()));
    counts.push_back(count->valuedouble - (former ? former->valuedouble : 0));
  }
  double left = 0;
  for (const double count : counts) left += count * share;
  double low = 0;
  size_t bucket = 0;
  for (const cJSON* end : Vela::JsonElements(member(&now, "stageEnds"))) {
    if (bucket >= counts.size()) break;
    const double count = counts[bucket++];
    if (left > 0 && left <= count) return low + (end->valuedouble - low) * left / count;
    left -= count;
    low = end->valuedouble;
  }
  return left > 0 ? std::optional(low) : std::nullopt;  // beyond the last end
}

class Screen {
 public:
  Screen(const cJSON& before, const cJSON& now, const ScreenSize& size)
      : before_(before),
        now_(now),
        seconds_(std::max(numberOf(&now, "seconds") - numberOf(&before, "seconds"), 1e-3)),
        size_(size) {}

  std::vector<std::string> lines() {
    addState();
    addWrites();
    addPackets();
    addForwardingAgents();
    addTables();
    return std::move(lines_);
  }

 private:
  void add(std::string line) {
    if (lines_.size() >= size_.lines) return;
    if (line.size() > size_.columns) line.resize(size_.columns);
    while (line.ends_with(' ')) line.pop_back();
    lines_.push_back(std::move(line));
  }
  double rate(const char* of, const char* name) const {
    return (numberOf(member(&now_, of), name) - numberOf(member(&before_, of), name)) / seconds_;
  }

  void addState() {
    const cJSON* agent = member(&now_, "agent");
    const cJSON* system = member(&now_, "system");
    std::string state = "serving";
    if (isTrue(system, "critical")) {
      state = "CRITICAL, Writes are refused";
    } else if (const std::string restoring = textOf(agent, "restoring"); !restoring.empty()) {
      state = "restoring " + restoring;
    } else if (!isTrue(agent, "serverReady")) {
      state = "waiting for a pipeline";
    } else if (numberOf(agent, "forwardingAgents") == 0 && !isTrue(agent, "pretendsProgramming")) {
      state = "NO FORWARDING AGENT, Writes are refused";
    }
    add(fmt::format("korvel {}  device {:.0f}  {}", state, numberOf(agent, "deviceId"),
                    textOf(agent, "serverAddress")));
    if (isTrue(system, "critical")) add("  why: " + textOf(system, "criticalReason"));
  }

  void addWrites() {
    double all = 0;
    double failed = 0;
    for (const cJSON* one : Vela::JsonElements(member(&now_, "updates"))) {
      const double count = rate("updates", one->string);
      all += count;
      if (std::string_view(one->string) != "OK") failed += count;
    }
    add(fmt::format("updates/s {:>12}   failed/s {:>10}", grouped(all), grouped(failed)));
    add(fmt::format("Writes    median {:>9}   99% within {:>9}   hardware {:>9}",
                    timeText(quantile(before_, now_, "whole", 0.5)),
                    timeText(quantile(before_, now_, "whole", 0.99)),
                    timeText(quantile(before_, now_, "hardware", 0.5))));
  }

  void addPackets() {
    double dropped = 0;
    for (const cJSON* one : Vela::JsonElements(member(&now_, "packets"))) {
      const std::string_view name = one->string;
      const bool isDrop = name.find("Dropped") != name.npos || name.find("Refused") != name.npos;
      if (isDrop) dropped += rate("packets", one->string);
    }
    add(fmt::format("packets/s to controllers {:>8}   out {:>8}   dropped {:>8}",
                    grouped(rate("packets", "inToControllers")), grouped(rate("packets", "out")),
                    grouped(dropped)));
  }

  void addForwardingAgents() {
    for (const cJSON* one : Vela::JsonElements(member(&now_, "forwardingAgents"))) {
      const double behind = numberOf(one, "behind");
      add(fmt::format("forwarding agent {} (pid {:.0f})  {}", textOf(one, "name"),
                      numberOf(one, "pid"),
                      behind > 0 ? grouped(behind) + " changes behind" : "up to date"));
    }
  }

  // The fullest first.
  void addTables() {
    std::vector<const cJSON*> tables;
    size_t longest = 5;
    for (const cJSON* table : Vela::JsonElements(member(&now_, "tables"))) {
      tables.push_back(table);
      longest = std::max(longest, textOf(table, "name").size());
    }
    const auto use = [](const cJSON* table) {
      const double size = numberOf(table, "size");
      return size > 0 ? numberOf(table, "entries") / size : 0;
    };
    std::ranges::stable_sort(tables, [&](const cJSON* a, const cJSON* b) {
      return std::pair(use(a), numberOf(a, "entries")) > std::pair(use(b), numberOf(b, "entries"));
    });
    longest = std::min(longest, size_.columns / 2);
    add("");
    add(fmt::format("{:<{}}  {:>11}  {:>11}  {:>4}", "TABLE", longest, "ENTRIES", "SIZE", "USE"));
    for (const cJSON* table : tables) {
      const double size = numberOf(table, "size");
      add(fmt::format("{:<{}.{}}  {:>11}  {:>11}  {:>4}", textOf(table, "name"), longest, longest,
                      grouped(numberOf(table, "entries")), size > 0 ? grouped(size) : "",
                      size > 0 ? fmt::format("{:.0f}%", 100 * use(table)) : ""));
    }
  }

  const cJSON& before_;
  const cJSON& now_;
  const double seconds_;
  const ScreenSize size_;
  std::vector<std::string> lines_;
};

}  // namespace

std::vector<std::string> topLines(const cJSON& before, const cJSON& now, const ScreenSize& size) {
  return Screen(before, now, size).lines();
}
