// Whether something succeeded or, if not, the reason for people.
#pragma once

#include <cassert>
#include <string>
#include <utility>

namespace Vela {

// Returned where a caller expects both ends: a check, an operation that the system may refuse. The
// reason is one line and says what to do. A request that is refused outright throws instead.
class [[nodiscard]] Outcome {
 public:
  Outcome() = default;  // success
  static Outcome failure(std::string reason) {
    assert(!reason.empty());
    Outcome outcome;
    outcome.reason_ = std::move(reason);
    return outcome;
  }

  bool ok() const { return reason_.empty(); }
  const std::string& reason() const { return reason_; }  // empty: success

 private:
  std::string reason_;
};

}  // namespace Vela
