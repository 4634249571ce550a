// What a look at a pipeline brings up: what would not work, by name, and how bad that is.
#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace Pipeline {

// One line for people: what is wrong, with which file or object, and what was expected.
class PipelineError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class Severity {
  error,    // the agent cannot run this pipeline
  warning,  // it runs, without what is named here
};

struct Finding {
  Severity severity = Severity::error;
  std::string object;  // "table ingress.acl"; empty: the pipeline as a whole
  std::string message;
};

class Findings {
 public:
  void error(std::string object, std::string message) {
    list_.push_back({Severity::error, std::move(object), std::move(message)});
  }
  void warning(std::string object, std::string message) {
    list_.push_back({Severity::warning, std::move(object), std::move(message)});
  }
  bool hasErrors() const {
    return std::any_of(list_.begin(), list_.end(),
                       [](const Finding& f) { return f.severity == Severity::error; });
  }
  const std::vector<Finding>& list() const { return list_; }

 private:
  std::vector<Finding> list_;
};

// "warning: table ingress.acl: ..."
std::string findingText(const Finding& finding);

}  // namespace Pipeline
