// The findings of a check: the parts of a pipeline that would not work, by name, and how bad it is.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace Pipeline {

// One line for people: the file or object, its fault, and the expectation.
class PipelineError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class Severity {
  error,    // the agent cannot run this pipeline
  warning,  // it runs, without the named part
};

// An error in the words of the agent's parsing status.
struct ParsingFailure {
  std::string error;
  std::string latticeError = {};  // of the compiler of types, or of queries
  std::string jsonError = {};     // the text at which JSON stops making sense
};

struct Finding {
  Severity severity = Severity::error;
  std::string object;  // "table ingress.acl"; empty: the pipeline as a whole
  std::string message;
  ParsingFailure failure;  // of an error
};

class Findings {
 public:
  void error(std::string object, std::string message);
  void error(std::string object, std::string message, ParsingFailure failure);
  void warning(std::string object, std::string message);
  bool hasErrors() const { return firstError() != nullptr; }
  const Finding* firstError() const;  // null without errors
  const std::vector<Finding>& list() const { return list_; }

 private:
  std::vector<Finding> list_;
};

// "warning: table ingress.acl: ..."
std::string findingText(const Finding& finding);

}  // namespace Pipeline
