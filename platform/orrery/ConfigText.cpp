#include "platform/orrery/ConfigText.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace Orrery {
namespace {

class Blanker {
 public:
  explicit Blanker(std::string text) : text_(std::move(text)) {}

  std::string run() {
    while (at_ < text_.size()) step();
    return std::move(text_);
  }

 private:
  void step() {
    const std::string_view rest = std::string_view(text_).substr(at_);
    if (rest.starts_with("//")) return blankTo(text_.find('\n', at_));
    if (rest.starts_with("/*")) return blankBlock();
    const char c = rest.front();
    if (c == '"') return skipString();
    if ((c == '}' || c == ']') && comma_ != std::string::npos) text_[comma_] = ' ';
    if (!isBlank(c)) {
      const bool endsValue = last_ != '{' && last_ != '[';
      comma_ = c == ',' && endsValue ? at_ : std::string::npos;
      last_ = c;
    }
    ++at_;
  }

  void blankBlock() {
    const size_t end = text_.find("*/", at_ + 2);
    if (end == std::string::npos) {
      at_ = text_.size();
      return;
    }
    blankTo(end + 2);
  }

  void blankTo(size_t end) {
    end = std::min(end, text_.size());
    for (; at_ < end; ++at_) {
      if (!isBlank(text_[at_])) text_[at_] = ' ';
    }
  }

  void skipString() {
    comma_ = std::string::npos;
    last_ = '"';
    for (++at_; at_ < text_.size() && text_[at_] != '"'; ++at_) {
      if (text_[at_] == '\\') ++at_;
    }
    ++at_;
  }

  static bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

  std::string text_;
  size_t at_ = 0;
  char last_ = '{';                   // but for blanks
  size_t comma_ = std::string::npos;  // since which nothing but blanks and comments came
};

}  // namespace

std::string plainJson(std::string text) { return Blanker(std::move(text)).run(); }

}  // namespace Orrery
