// Two connections: on one the agent tells of changes, on the other it is asked.
#include "forwarder/PuntView.h"

#include <cjson/cJSON.h>

#include <charconv>
#include <chrono>
#include <cstring>
#include <utility>

#include "platform/orrery/Client.h"

namespace Forwarder {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* metadataPath = "p4runtime/status/packet-metadata";
constexpr const char* mappingPath = "p4runtime/status/port-mapping";
constexpr milliseconds slice{100};      // between looks at whether to stop
constexpr milliseconds patience{1000};  // with an agent that is busy

const cJSON* attribute(const Orrery::Json& entity, const char* name) {
  const cJSON* attributes = cJSON_GetObjectItemCaseSensitive(entity.get(), "attributes");
  return cJSON_GetObjectItemCaseSensitive(attributes, name);
}

// Everything that comes is read before we ask: then we ask once for many changes. False when the
// connection is gone.
bool changeCame(Orrery::Client& client) {
  const auto from = steady_clock::now();
  if (!client.next(slice)) return steady_clock::now() - from >= slice / 2;
  while (client.next(milliseconds(0))) {
  }
  return true;
}

}  // namespace

PuntView::PuntView(std::string stateDirectory, std::function<void()> changed)
    : stateDirectory_(std::move(stateDirectory)),
      changed_(std::move(changed)),
      thread_([this] { run(); }) {}

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
      const auto known = picture();
      if (!known || !known->trouble.empty()) publish({.trouble = e.what()});
    }
    if (!stopping_) std::this_thread::sleep_for(slice);
  }
}

void PuntView::doFollow() {
  Orrery::Client changes(stateDirectory_);
  Orrery::Client questions(stateDirectory_);
  changes.timeoutIs(patience);
  questions.timeoutIs(patience);
  changes.watch(metadataPath);
  changes.watch(mappingPath);
  do {
    publish(asked(questions));
  } while (changeCame(changes) && !stopping_);
}

PuntPicture PuntView::asked(Orrery::Client& client) {
  PuntPicture picture;
  const Orrery::Json metadata = client.get(metadataPath);
  const cJSON* packetIn = attribute(metadata, "packetIn");
  if (cJSON_IsString(packetIn)) picture.packetIn = packetIn->valuestring;
  const Orrery::Json mapping = client.get(mappingPath);
  const cJSON* one = nullptr;
  cJSON_ArrayForEach(one, attribute(mapping, "intfOfPort")) {
    uint32_t port = 0;
    const char* end = one->string + std::strlen(one->string);
    if (!cJSON_IsString(one) || std::from_chars(one->string, end, port).ptr != end) continue;
    picture.ports[port] = one->valuestring;
  }
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
