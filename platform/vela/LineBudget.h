// Bounds the lines that one cause can add to a log.
#pragma once

#include <chrono>
#include <cstddef>

namespace Vela {

// Used by one thread at a time.
class LineBudget {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Verdict { write, last, silent };  // last: of this period, and say so

  LineBudget(size_t lines, Clock::duration period) : lines_(lines), period_(period) {}

  Verdict take(Clock::time_point now) {
    if (now - begin_ >= period_) {
      begin_ = now;
      taken_ = 0;
    }
    if (taken_ == lines_) return Verdict::silent;
    return ++taken_ == lines_ ? Verdict::last : Verdict::write;
  }

 private:
  const size_t lines_;
  const Clock::duration period_;
  Clock::time_point begin_{};
  size_t taken_ = 0;
};

}  // namespace Vela
