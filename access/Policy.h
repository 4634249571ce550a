// Who may do what: the rules of a policy, and their decisions. Constant after it was read, so that
// any thread may ask.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "access/Objects.h"
#include "access/Pattern.h"

namespace Access {

enum class Operation : uint8_t { read, write, push, packetIn, packetOut };
inline constexpr int operationCount = 5;
// A bit for each operation.
using Operations = uint8_t;
constexpr Operations bitOf(Operation operation) { return 1u << static_cast<int>(operation); }
inline constexpr Operations allOperations = (1u << operationCount) - 1;
inline constexpr Operations entityOperations = bitOf(Operation::read) | bitOf(Operation::write);

// The calls of P4Runtime by the names that gRPC gives them. Any other path is one of the
// monitoring, such as "/metrics": it shows everything, and so takes the right to read everything.
namespace path {
inline constexpr std::string_view service = "/p4.v1.P4Runtime/";
inline constexpr std::string_view write = "/p4.v1.P4Runtime/Write";
inline constexpr std::string_view read = "/p4.v1.P4Runtime/Read";
inline constexpr std::string_view setPipeline = "/p4.v1.P4Runtime/SetForwardingPipelineConfig";
inline constexpr std::string_view getPipeline = "/p4.v1.P4Runtime/GetForwardingPipelineConfig";
inline constexpr std::string_view stream = "/p4.v1.P4Runtime/StreamChannel";
inline constexpr std::string_view capabilities = "/p4.v1.P4Runtime/Capabilities";
}  // namespace path
std::string_view pathOf(Operation operation);

// Takes objects by name, or by an annotation.
struct Selector {
  std::optional<ObjectKind> kind;  // nothing: objects of every kind
  std::optional<Pattern> name;     // of name or alias; nothing: by annotation
  std::string annotation;          // its name
  std::optional<Pattern> value;    // nothing: any
  bool valueIsRole = false;        // the value is the caller's role
};

// What nothing stands for: the rule does not look at it.
struct Rule {
  std::string name;
  std::optional<Patterns> principals;
  std::optional<Patterns> paths;
  std::optional<Patterns> roles;
  std::optional<bool> election;
  std::optional<Operations> operations;
  std::vector<Selector> objects;  // empty: every object

  bool takesIdentity(std::string_view identity) const;
  bool takesPath(std::string_view path) const;
  // A role of nothing stands for each role that the rule takes.
  bool takesRole(std::optional<std::string_view> role) const;
  bool takesObject(std::optional<std::string_view> role, const Object& object) const;
};

// One thing that somebody wants to do.
struct Question {
  enum class Kind {
    call,      // to make a call at all
    claim,     // to have a stream in a role
    contest,   // to take part in the role's election
    operation  // to do it, in a role, with an object
  };
  Kind kind = Kind::call;
  std::string_view identity;
  std::string_view path;  // of a call
  // Nothing: a call whose role is not known yet, or a Read that names none and so is made in all
  // roles of its caller.
  std::optional<std::string_view> role;
  Operation operation = Operation::read;
  const Object* object = nullptr;  // of a read or write
};

// The rule that decided; null: no rule allows it.
struct Verdict {
  bool allowed = false;
  const Rule* rule = nullptr;
};

struct Policy {
  std::string name;
  std::vector<Rule> denyRules;
  std::vector<Rule> allowRules;

  // A deny rule wins over all allow rules; without any rule it is denied. An operation without a
  // role is allowed if it is in some role.
  Verdict decide(const Question& question) const;
  bool allows(const Question& question) const { return decide(question).allowed; }

 private:
  Verdict decideInAnyRole(Question question) const;
};

}  // namespace Access
