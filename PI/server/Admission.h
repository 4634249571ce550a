// Counts the work under way against a limit. Thread-safe.
#pragma once

#include <atomic>
#include <cstddef>
#include <optional>
#include <utility>

namespace pi::server {

class Admission {
 public:
  // Returns its amount to the admission, which outlives it, when it is destroyed.
  class Held {
   public:
    Held(Admission& from, size_t amount) : from_(&from), amount_(amount) {}
    Held(Held&& other) noexcept
        : from_(std::exchange(other.from_, nullptr)), amount_(other.amount_) {}
    Held& operator=(Held&&) = delete;
    ~Held() {
      if (from_) from_->used_.fetch_sub(amount_);
    }

   private:
    Admission* from_;
    size_t amount_;
  };

  // Empty beyond the limit; an amount larger than the limit is admitted while nothing else is.
  std::optional<Held> take(size_t amount, size_t limit) {
    size_t used = used_.load();
    do {
      if (used > 0 && used + amount > limit) return std::nullopt;
    } while (!used_.compare_exchange_weak(used, used + amount));
    return Held(*this, amount);
  }

 private:
  std::atomic<size_t> used_{0};
};

}  // namespace pi::server
