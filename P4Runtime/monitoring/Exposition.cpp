#include "P4Runtime/monitoring/Exposition.h"

#include <fmt/format.h>

#include <cmath>

namespace P4Runtime {
namespace {

// Both forms escape alike in labels; help is plain but for line ends and backslashes.
std::string escaped(std::string_view text) {
  std::string result;
  for (const char byte : text) {
    if (byte == '\n') {
      result += "\\n";
    } else {
      if (byte == '\\' || byte == '"') result += '\\';
      result += byte;
    }
  }
  return result;
}

std::string numberText(double number) {
  return std::isinf(number) ? "+Inf" : fmt::format("{}", number);
}

}  // namespace

void Exposition::family(std::string_view name, std::string_view type, std::string_view help) {
  family_ = name;
  ending_ = type == "counter" ? "_total" : "";
  // The older form knows a counter by the name of its samples.
  const std::string_view ending = form_ == Form::prometheus ? ending_ : "";
  text_ += fmt::format("# HELP {}{} {}\n# TYPE {}{} {}\n", name, ending, escaped(help), name,
                       ending, type);
  if (form_ == Form::openMetrics && name.ends_with("_seconds")) {
    text_ += fmt::format("# UNIT {} seconds\n", name);
  }
}

void Exposition::counter(std::string_view name, std::string_view help) {
  family(name, "counter", help);
}
void Exposition::gauge(std::string_view name, std::string_view help) {
  family(name, "gauge", help);
}
void Exposition::histogram(std::string_view name, std::string_view help) {
  family(name, "histogram", help);
}

void Exposition::sample(double value, Labels labels) {
  line(ending_, labels, {}, numberText(value));
}
void Exposition::sample(uint64_t value, Labels labels) {
  line(ending_, labels, {}, std::to_string(value));
}

void Exposition::bucket(double end, uint64_t count, Labels labels) {
  line("_bucket", labels, numberText(end), std::to_string(count));
}

void Exposition::sum(double seconds, uint64_t count, Labels labels) {
  line("_sum", labels, {}, numberText(seconds));
  line("_count", labels, {}, std::to_string(count));
}

void Exposition::line(std::string_view ending, Labels labels, std::string_view end,
                      std::string_view value) {
  text_ += fmt::format("{}{}", family_, ending);
  char before = '{';
  for (const auto& [name, text] : labels) {
    text_ += fmt::format("{}{}=\"{}\"", std::exchange(before, ','), name, escaped(text));
  }
  if (!end.empty()) text_ += fmt::format("{}le=\"{}\"", std::exchange(before, ','), end);
  if (before == ',') text_ += '}';
  text_ += fmt::format(" {}\n", value);
}

std::string Exposition::finish() {
  if (form_ == Form::openMetrics) text_ += "# EOF\n";
  return std::move(text_);
}

const char* Exposition::contentType(Form form) {
  return form == Form::openMetrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                   : "text/plain; version=0.0.4; charset=utf-8";
}

}  // namespace P4Runtime
