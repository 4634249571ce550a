// The policy of the P4Runtime server, as its file has it.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/vela/Entity.h"
#include "platform/vela/Outcome.h"
#include "platform/vela/Timer.h"

namespace P4Runtime {

// Where the configuration names the file, in the attribute "policy".
inline constexpr const char* securityPath = "p4runtime/config/security";

// Fails when there is no policy in the file that could be in force; an empty path is fine.
Vela::Outcome checkPolicyFile(const std::string& path);

// At "p4runtime/status/policy". Puts the policy in force and looks each second whether the file has
// changed; a broken file leaves the former policy in force, and the status and standard error say
// so. Runs on the reactor, with the activity lock held.
class PolicyFile : public Vela::Entity {
 public:
  PolicyFile(std::string name, Vela::ReactorLoop& loop);
  const char* typeName() const override { return "P4Runtime::PolicyFile"; }

  VELA_READONLY_ATTRIBUTE(std::string, file, "")   // "": everybody may do everything
  VELA_READONLY_ATTRIBUTE(std::string, fault, "")  // of the file as it is; "": it is in force
  VELA_READONLY_ATTRIBUTE(uint64_t, loads, 0)      // policies that were put in force

  // Throws Vela::Exception, in words for operators, when it cannot be put in force; the former file
  // then counts.
  void pathIs(const std::string& path);
  // The same for a change of the configuration: a fault is told, and the former file counts.
  void handlePath(const std::string& path);
  // Reads the file again if it has changed.
  void maybeReload();

 private:
  // When it was written, and which file it is.
  struct Version {
    timespec written{};
    timespec changed{};
    ino_t number = 0;
    off_t size = 0;
    bool operator==(const Version& other) const;
  };

  static std::optional<Version> versionOf(const std::string& path);  // nothing: not there
  void faultFound(const std::string& why);

  Vela::Timer timer_;
  std::optional<Version> version_;  // that was read last
};

}  // namespace P4Runtime
