// Tells the front end the names of translated types that the configuration fixes to numbers.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "P4Runtime/companion/Translation.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// Runs on the reactor, with the activity lock held. A name that is in use with another number stays
// with that one until nothing uses it; the status says so, and the configured number counts from
// the next start, or change of the configuration, on.
class FixedNames : public Vela::RefCounted {
 public:
  FixedNames(uint64_t deviceId, Vela::Ptr<const P4RuntimeConfig::TranslationConfigDir> configDir,
             Vela::Ptr<P4RuntimeConfig::TranslationStatus> status,
             std::function<bool()> entriesAreComing);

  // To a pipeline whose entries are back, before controllers get in.
  void apply();

 private:
  using Refused = std::map<std::string, std::string>;

  void handleNames();
  void handleType(const std::string& type);
  Refused refusedByFrontend() const;
  void statusIs(const Refused& refused);

  const uint64_t deviceId_;
  const Vela::Ptr<const P4RuntimeConfig::TranslationConfigDir> configDir_;
  const Vela::Ptr<P4RuntimeConfig::TranslationStatus> status_;
  const std::function<bool()> entriesAreComing_;
  std::map<std::string, Vela::Observation> changes_;  // by type
  Vela::Observation typesChange_;
};

}  // namespace P4Runtime
