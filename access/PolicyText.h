// Reads policies. The form is that of gRPC's authorization policy, with more keys inside "request".
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "access/Policy.h"

namespace Access {

inline constexpr size_t mostPolicyBytes = 1 << 20;

// One line for people that names the file, the rule and the key.
class PolicyError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws PolicyError, whatever the text is. `file` is for messages.
std::shared_ptr<const Policy> policyOf(std::string_view text, const std::string& file);

// The same of a file's content. Throws PolicyError also when it cannot be read.
std::shared_ptr<const Policy> policyOfFile(const std::string& file);
// The content alone, of at most mostPolicyBytes; throws like policyOfFile().
std::string policyFileContent(const std::string& file);

}  // namespace Access
