// The base of the exceptions that carry a message for people.
#pragma once

#include <stdexcept>

namespace Vela {

class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Vela
