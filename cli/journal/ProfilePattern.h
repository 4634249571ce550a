// Members and groups of an action profile that a user asks about.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/journal/EntityPattern.h"

namespace p4::config::v1 {
class ActionProfile;
}

namespace Cli {

class ProfilePattern final : public EntityPattern {
 public:
  // `words`: "member=ID" or "group=ID", or none for all of both. Throws PipelineError that names
  // the word. The profile outlives the pattern.
  ProfilePattern(const p4::config::v1::ActionProfile& profile,
                 const std::vector<std::string>& words);

  bool matches(const p4::v1::Entity& entity) const override;
  const std::string& needle() const override { return needle_; }

 private:
  const p4::config::v1::ActionProfile& profile_;
  std::optional<uint32_t> member_;
  std::optional<uint32_t> group_;
  const std::string needle_;  // ids are too short for one
};

}  // namespace Cli
