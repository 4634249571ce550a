// Policies in words.
#pragma once

#include <string>
#include <vector>

#include "access/Policy.h"

namespace Cli {

// For each rule the objects of the pipeline that it names, and a warning for each name or
// annotation that no object has.
std::string objectsText(const Access::Policy& policy, const std::vector<Access::Object>& objects);

// What somebody wants to do.
struct Wish {
  std::string identity;
  std::optional<std::string> role;  // nothing: the default role; of a read: every role
  std::optional<Access::Operation> operation;
  std::string path;                      // of a call, where there is no operation
  std::optional<Access::Object> object;  // to read or write
};

struct Explanation {
  bool allowed = true;
  std::string text;  // lines: the outcome, and for each thing that it takes the rule that decides
};
Explanation explained(const Access::Policy& policy, const Wish& wish);

}  // namespace Cli
