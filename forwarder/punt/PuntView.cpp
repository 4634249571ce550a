// Two connections: one for notices of changes, one for queries.
#include "forwarder/punt/PuntView.h"

#include <cjson/cJSON.h>

#include <charconv>
#include <chrono>
#include <cstring>
#include <string_view>
#include <utility>

#include "platform/orrery/Client.h"
#include "platform/vela/Failure.h"

namespace Forwarder {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* metadataPath = "p4runtime/status/packet-metadata";
constexpr const char* mappingPath = "p4runtime/status/port-mapping";
constexpr milliseconds slice{100};      // between looks at whether to stop
constexpr milliseconds patience{1000};  // with an agent that is busy

const cJSON* attribute(const Vela::Json& entity, const char* name) {
  const cJSON* attributes = cJSON_GetObjectItemCaseSensitive(entity.get(), "attributes");
  return cJSON_GetObjectItemCaseSensitive(attributes, name);
}

bool pipelineRuns(Orrery::Client& client) {
  const Vela::Json state = client.get("p4runtime/tableInfo", "tableInfoState");
  const char* text = Vela::stringMember(*state, "value");
  return text && std::string_view(text) == "tableInfoReady";
}

enum class Event { change, nothing, end };

// Reads all notices that have come: one query then serves many changes.
Event waitForChange(Orrery::Client& client) {
  const auto from = steady_clock::now();
  if (!client.next(slice)) {
    return steady_clock::now() - from < slice / 2 ? Event::end : Event::nothing;
  }
  while (client.next(milliseconds(0))) {
  }
  return Event::change;
}

}  // namespace

PuntView::PuntView(std::string stateDirectory, std::function<void()> changed)
    : stateDirectory_(std::move(stateDirectory)),
      changed_(std::move(changed)),
      thread_(Vela::startThread("follow the agent's ports", [this] { run(); })) {}

PuntView::~PuntView() {
  stopping_ = true;
  thread_.join();
}

std::shared_ptr<const PuntPicture> PuntView::picture() const {
  const std::lock_guard lock(mutex_);
  return picture_;
}

void PuntView::run() {
  while (!stopping_) {
    try {
      doFollow();
    } catch (const std::exception& e) {
      maybePublish({.trouble = e.what()});
    }
    if (!stopping_) std::this_thread::sleep_for(slice);
  }
}

void PuntView::doFollow() {
  Orrery::Client changes(stateDirectory_);
  Orrery::Client queries(stateDirectory_);
  changes.timeoutIs(patience);
  queries.timeoutIs(patience);
  changes.watch(metadataPath);
  changes.watch(mappingPath);
  bool known = false;
  for (Event event = Event::change; event != Event::end && !stopping_;
       event = waitForChange(changes)) {
    if (event == Event::nothing && known) continue;
    known = maybePublish(fetchPicture(queries));
  }
}

// Trouble does not replace a picture. Returns whether the picture was without trouble.
bool PuntView::maybePublish(PuntPicture picture) {
  const bool good = picture.trouble.empty();
  const auto former = this->picture();
  if (good || !former || !former->trouble.empty()) publish(std::move(picture));
  return good;
}

PuntPicture PuntView::fetchPicture(Orrery::Client& client) {
  PuntPicture picture;
  const Vela::Json metadata = client.get(metadataPath);
  const cJSON* packetIn = attribute(metadata, "packetIn");
  if (cJSON_IsString(packetIn)) picture.packetIn = packetIn->valuestring;
  // A pipeline without packet_in and a missing pipeline look alike.
  if (picture.packetIn.empty() && !pipelineRuns(client)) {
    picture.trouble = "the agent runs no pipeline yet";
  }
  const Vela::Json mapping = client.get(mappingPath);
  picture.reached = true;
  const cJSON* one = nullptr;
  cJSON_ArrayForEach(one, attribute(mapping, "intfOfPort")) {
    uint32_t port = 0;
    const char* end = one->string + std::strlen(one->string);
    if (!cJSON_IsString(one) || std::from_chars(one->string, end, port).ptr != end) continue;
    picture.ports[port] = one->valuestring;
  }
  picture.portsAreKnown = true;
  return picture;
}

void PuntView::publish(PuntPicture picture) {
  {
    const std::lock_guard lock(mutex_);
    if (picture_ && *picture_ == picture) return;
    picture_ = std::make_shared<const PuntPicture>(std::move(picture));
  }
  changed_();
}

}  // namespace Forwarder
