// The requests of a journal's records, and what became of their updates.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "journal/Record.h"
#include "p4/v1/p4runtime.pb.h"

namespace Cli {

template <typename Message>
bool parse(std::string_view bytes, Message* message) {
  return message->ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
}

// Clients of former API versions give a number.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
template <typename Message>
std::string roleOf(const Message& message) {
  const bool isNumber = message.role().empty() && message.role_id() != 0;
  return isNumber ? std::to_string(message.role_id()) : message.role();
}
#pragma GCC diagnostic pop

// "7", "1:7" with a high half; empty without one.
template <typename Message>
std::string electionIdText(const Message& message) {
  if (!message.has_election_id()) return "";
  const p4::v1::Uint128& id = message.election_id();
  return id.high() == 0 ? std::to_string(id.low()) : fmt::format("{}:{}", id.high(), id.low());
}

// Whether another pipeline runs after such a push, if it succeeds.
inline bool changesPipeline(p4::v1::SetForwardingPipelineConfigRequest::Action action) {
  using Request = p4::v1::SetForwardingPipelineConfigRequest;
  return action == Request::VERIFY_AND_COMMIT || action == Request::COMMIT ||
         action == Request::RECONCILE_AND_COMMIT;
}

struct UpdateOutcome {
  uint32_t code = 0;
  std::string_view message;
};

// Of the update at `index`, from 0.
inline UpdateOutcome outcomeOfUpdate(const Journal::Outcome& outcome, size_t index) {
  if (outcome.code == 0) return {};
  if (outcome.failures.empty()) return {outcome.code, outcome.message};
  for (const Journal::Failure& failure : outcome.failures) {
    if (failure.index != index) continue;
    // A message for many has no room for each; that of the only failure stands for it.
    const bool isOnly = outcome.failures.size() == 1 && failure.message.empty();
    return {failure.code, isOnly ? outcome.message : failure.message};
  }
  return {};
}

}  // namespace Cli
