// Collecting findings, and their text form.
#include "pipeline/Finding.h"

#include <algorithm>
#include <utility>

#include "platform/vela/PlainText.h"

namespace Pipeline {
namespace {

// Names come from the file, and a terminal or a JSON reader has to live with them.
std::string plain(const std::string& text) { return Vela::plainLine(text, text.size() * 3); }

std::string text(const std::string& object, const std::string& message) {
  return object.empty() ? message : object + ": " + message;
}

}  // namespace

void Findings::error(std::string object, std::string message) {
  ParsingFailure failure{text(object, message)};
  error(std::move(object), std::move(message), std::move(failure));
}

void Findings::error(std::string object, std::string message, ParsingFailure failure) {
  list_.push_back({Severity::error, plain(object), plain(message), std::move(failure)});
}

void Findings::warning(std::string object, std::string message) {
  list_.push_back({Severity::warning, plain(object), plain(message), {}});
}

const Finding* Findings::firstError() const {
  const auto found = std::ranges::find(list_, Severity::error, &Finding::severity);
  return found == list_.end() ? nullptr : &*found;
}

std::string findingText(const Finding& finding) {
  const std::string kind = finding.severity == Severity::error ? "error: " : "warning: ";
  return kind + text(finding.object, finding.message);
}

}  // namespace Pipeline
