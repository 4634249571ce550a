#include "cli/client/AgentRequest.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string_view>

#include "platform/orrery/Client.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* requestsPath = "p4runtime/config/cli";
constexpr const char* answersPath = "p4runtime/status/cli";

std::string jsonArray(const std::vector<std::string>& texts) {
  const Vela::Json array(cJSON_CreateArray());
  for (const std::string& text : texts) {
    cJSON_AddItemToArray(array.get(), cJSON_CreateString(text.c_str()));
  }
  return Vela::jsonLine(*array);
}

// No other requester's: a pid may be the same in another namespace.
std::string newId() { return fmt::format("{}-{:08x}", getpid(), std::random_device{}()); }

void waitForAnswer(Orrery::Client& watcher, const std::string& id, milliseconds timeout) {
  const auto deadline = steady_clock::now() + timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
    const Vela::Json change = watcher.next(std::max(left, milliseconds(0)));
    if (!change) {
      throw Orrery::ClientError(
          steady_clock::now() < deadline
              ? "the agent ended before it answered; see 'korvel status'"
              : "the agent gave no answer in time; see 'korvel status' whether it did it");
    }
    const char* child = Vela::stringMember(*change, "child");
    if (child && child == id) return;
  }
}

}  // namespace

std::string execute(const std::string& stateDirectory, const std::string& command,
                    const std::vector<std::string>& arguments, milliseconds timeout) {
  Orrery::Client watcher(stateDirectory);  // apart: changes must not mix with answers
  Orrery::Client client(stateDirectory);
  watcher.timeoutIs(timeout);
  client.timeoutIs(timeout);
  watcher.watch(answersPath);
  const std::string id = newId();
  const std::string request = fmt::format("{}/{}", requestsPath, id);
  client.create(request, {{"command", command}, {"arguments", jsonArray(arguments)}});
  waitForAnswer(watcher, id, timeout);
  const Vela::Json answer = client.get(fmt::format("{}/{}", answersPath, id));
  client.del(request);
  const cJSON* attributes = cJSON_GetObjectItemCaseSensitive(answer.get(), "attributes");
  const char* text = attributes ? Vela::stringMember(*attributes, "text") : nullptr;
  if (!cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(attributes, "ok"))) {
    throw CommandRefused(text ? text : "the agent refused the command without a reason");
  }
  return text ? text : "";
}
