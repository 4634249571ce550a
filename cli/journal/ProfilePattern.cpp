#include "cli/journal/ProfilePattern.h"

#include <charconv>
#include <string_view>

#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"

namespace Cli {

namespace {

std::optional<uint32_t> idIn(std::string_view word, std::string_view prefix) {
  if (!word.starts_with(prefix)) return std::nullopt;
  word.remove_prefix(prefix.size());
  uint32_t id = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), id);
  const bool isAll = error == std::errc() && end == word.data() + word.size();
  return isAll ? std::optional(id) : std::nullopt;
}

}  // namespace

ProfilePattern::ProfilePattern(const p4::config::v1::ActionProfile& profile,
                               const std::vector<std::string>& words)
    : profile_(profile) {
  for (const std::string& word : words) {
    const auto member = idIn(word, "member=");
    const auto group = idIn(word, "group=");
    if (words.size() > 1 || (!member && !group)) {
      throw Pipeline::PipelineError(Pipeline::quoted(word) + ": of the action profile " +
                                    Pipeline::quoted(profile.preamble().name()) +
                                    " name member=ID or group=ID");
    }
    member_ = member;
    group_ = group;
  }
}

bool ProfilePattern::matches(const p4::v1::Entity& entity) const {
  const uint32_t profile = profile_.preamble().id();
  if (entity.has_action_profile_member()) {
    const auto& member = entity.action_profile_member();
    return member.action_profile_id() == profile && !group_ &&
           member.member_id() == member_.value_or(member.member_id());
  }
  if (!entity.has_action_profile_group()) return false;
  const auto& group = entity.action_profile_group();
  return group.action_profile_id() == profile && !member_ &&
         group.group_id() == group_.value_or(group.group_id());
}

}  // namespace Cli
