// Two connections: one for notices of changes, one for queries.
#include "cli/switch/AgentView.h"

#include <chrono>
#include <string_view>
#include <utility>

#include "platform/orrery/Client.h"
#include "platform/vela/Failure.h"

namespace {

using std::chrono::milliseconds;

constexpr const char* statusPath = "p4runtime/status/agent";
constexpr const char* mappingPath = "p4runtime/config/port-mapping";
constexpr const char* mappingStatusPath = "p4runtime/status/port-mapping";
constexpr milliseconds slice{100};      // between looks at whether to stop
constexpr milliseconds again{20};       // between two tries to reach the agent
constexpr milliseconds patience{1000};  // with an agent that is busy

std::map<uint32_t, std::string> portsOf(Orrery::Client& client) {
  std::map<uint32_t, std::string> ports;
  const Vela::Json list = client.list(mappingPath);
  for (const cJSON* one : Vela::JsonElements(Vela::jsonArray(list.get(), "paths"))) {
    const std::string path = Vela::jsonString(one, "path").value_or("");
    const auto port = Vela::TextForm<uint32_t>::fromText(path.substr(path.rfind('/') + 1));
    if (path == mappingPath || !port) continue;
    const Vela::Json intf = client.get(path, "intf");
    ports[*port] = Vela::jsonString(intf.get(), "value").value_or("");
    if (ports[*port].empty()) ports.erase(*port);
  }
  return ports;
}

AgentPicture fetchPicture(Orrery::Client& client) {
  AgentPicture picture{.pid = static_cast<pid_t>(client.agentPid())};
  const Vela::Json listens = client.get(statusPath, "serverListens");
  picture.listens = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(listens.get(), "value"));
  picture.ports = portsOf(client);
  return picture;
}

enum class Event { change, nothing, end };

// Most notices are of counts in the status.
bool isChange(const cJSON& notice) {
  const char* path = Vela::stringMember(notice, "path");
  const char* attribute = Vela::stringMember(notice, "attribute");
  const bool isOfStatus = path && std::string_view(path) == statusPath;
  return !isOfStatus || (attribute && std::string_view(attribute) == "serverListens");
}

// Reads all notices that have come: one query then serves many changes.
Event waitForChange(Orrery::Client& client) {
  const auto from = std::chrono::steady_clock::now();
  Vela::Json notice = client.next(slice);
  if (!notice) {
    return std::chrono::steady_clock::now() - from < slice / 2 ? Event::end : Event::nothing;
  }
  Event event = Event::nothing;
  for (; notice; notice = client.next(milliseconds(0))) {
    if (isChange(*notice)) event = Event::change;
  }
  return event;
}

}  // namespace

AgentView::AgentView(std::string stateDirectory)
    : stateDirectory_(std::move(stateDirectory)),
      thread_(Vela::startThread("follow the agent", [this] { run(); })) {}

AgentView::~AgentView() {
  stopping_ = true;
  thread_.join();
}

AgentPicture AgentView::picture() const {
  const std::lock_guard lock(mutex_);
  return picture_;
}

void AgentView::clearChange() const { change_.silence(); }

void AgentView::run() {
  while (!stopping_) {
    try {
      doFollow();
    } catch (const std::exception&) {
      // The agent has gone, or is not up yet.
    }
    if (!stopping_) std::this_thread::sleep_for(again);
  }
}

void AgentView::doFollow() {
  Orrery::Client changes(stateDirectory_);
  Orrery::Client queries(stateDirectory_);
  changes.timeoutIs(patience);
  queries.timeoutIs(patience);
  for (const char* path : {mappingPath, mappingStatusPath, statusPath}) changes.watch(path);
  for (Event event = Event::change; event != Event::end && !stopping_;
       event = waitForChange(changes)) {
    if (event == Event::change) publish(fetchPicture(queries));
  }
}

void AgentView::publish(AgentPicture picture) {
  {
    const std::lock_guard lock(mutex_);
    if (picture == picture_) return;
    picture_ = std::move(picture);
  }
  change_.ring();
}
