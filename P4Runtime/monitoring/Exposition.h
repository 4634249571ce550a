// Writes metrics in the text forms that monitoring systems scrape: OpenMetrics 1.0, or the older
// text form of Prometheus.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace P4Runtime {

// One thread at a time. Names are of the caller's making; values of labels and help may be any
// text. A family is begun, and its samples follow.
class Exposition {
 public:
  enum class Form { openMetrics, prometheus };
  using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

  explicit Exposition(Form form) : form_(form) {}

  // `name` without the ending "_total", which samples get.
  void counter(std::string_view name, std::string_view help);
  void gauge(std::string_view name, std::string_view help);
  void histogram(std::string_view name, std::string_view help);

  void sample(double value, Labels labels = {});
  void sample(uint64_t value, Labels labels = {});
  // One bucket of a histogram: the number of observations up to `end` seconds. Infinity comes last.
  void bucket(double end, uint64_t count, Labels labels);
  void sum(double seconds, uint64_t count, Labels labels);

  std::string finish();
  static const char* contentType(Form form);

 private:
  void family(std::string_view name, std::string_view type, std::string_view help);
  void line(std::string_view ending, Labels labels, std::string_view end, std::string_view value);

  const Form form_;
  std::string text_;
  std::string family_;
  std::string_view ending_;  // of its samples
};

}  // namespace P4Runtime
