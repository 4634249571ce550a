// A change of the tables that is not made.
#pragma once

#include <stdexcept>
#include <string>

namespace P4 {

enum class RefusalKind : uint8_t { invalid, notFound, alreadyExists, full, constant, inUse };

// Nothing has changed when it is thrown.
class Refusal : public std::runtime_error {
 public:
  Refusal(RefusalKind kind, const std::string& message)
      : std::runtime_error(message), kind_(kind) {}
  RefusalKind kind() const { return kind_; }

 private:
  RefusalKind kind_;
};

}  // namespace P4
