#include "platform/orrery/ServerConnection.h"

#include <cjson/cJSON.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "platform/orrery/AttributeJson.h"
#include "platform/orrery/Requests.h"
#include "platform/scrivel/Trace.h"

static Scrivel::TraceHandle trace("OrreryServer");

namespace Orrery {

ServerConnection::ServerConnection(Vela::ReactorLoop& loop, Database& database,
                                   Vela::UnixClient client,
                                   std::function<void(ServerConnection*)> closed)
    : loop_(loop),
      database_(database),
      client_(std::move(client)),
      closed_(std::move(closed)),
      descriptor_(Vela::make<Vela::FileDescriptor>(loop, "orrery client")) {
  descriptor_->descriptorIs(client_.socket.get());
  watchSocket();
}

ServerConnection::~ServerConnection() { descriptor_->descriptorIs(-1); }

void ServerConnection::close() {
  if (!open()) return;
  descriptor_->descriptorIs(-1);
  client_ = {};
  watches_.clear();
  output_.clear();
  // Not at once: a caller above us may still use this object.
  loop_.post([self = Vela::Ptr<ServerConnection>(this)] { self->closed_(self.get()); });
}

void ServerConnection::watchSocket() {
  if (!open()) return;
  if (!reading_ && output_.empty()) return close();
  if (reading_ && output_.size() < pauseBytes) {
    descriptor_->onReadableIs([this] { handleReadable(); });
  } else {
    descriptor_->onReadableIs({});
  }
  if (output_.empty()) {
    descriptor_->onWritableIs({});
  } else {
    descriptor_->onWritableIs([this] { handleWritable(); });
  }
}

void ServerConnection::handleReadable() {
  const Vela::Ptr<ServerConnection> alive(this);
  char block[16384];
  const ssize_t got = recv(client_.socket.get(), block, sizeof block, 0);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (got <= 0) {
    reading_ = false;  // it may still wait for responses
    return watchSocket();
  }
  input_.append(block, got);
  for (size_t end; reading_ && (end = input_.find('\n')) != std::string::npos;) {
    const std::string line = input_.substr(0, end);
    input_.erase(0, end + 1);
    if (line.empty()) continue;
    client_.seat->endSilence();
    handleLine(line);
    if (!open()) return;
  }
  if (reading_ && input_.size() > maxRequestBytes) {
    send(errorAnswer("the request is longer than 65536 bytes; ask for less at a time"));
    reading_ = false;
  }
  watchSocket();
}

void ServerConnection::handleLine(std::string_view line) {
  const Vela::Json request = line.size() > maxRequestBytes ? nullptr : Vela::parseJson(line);
  if (!request) {
    send(errorAnswer("the request is not JSON; write one JSON object a line"));
    reading_ = false;
    return;
  }
  doAnswer(*request);
}

void ServerConnection::doAnswer(const cJSON& request) {
  try {
    const Vela::Json answer = answerRequest(database_, request);
    const char* what = Vela::stringMember(request, "request");
    const bool watch = what && std::string_view(what) == "watch";
    if (watch && watches_.size() >= maxWatches) {
      throw RequestError("a connection watches 64 paths at most; open another one");
    }
    send(answer);
    if (watch) doWatch(Vela::stringMember(request, "path"), requestedEntity(database_, request));
  } catch (const std::exception& e) {
    SCRIVEL_TRACE(1, "request refused: ", e.what());
    send(errorAnswer(e.what()));
  }
}

void ServerConnection::doWatch(const std::string& path, const Vela::Ptr<Vela::Entity>& entity) {
  Watch watch{entity, {}, {}};
  watch.change = entity->observeAll([this, path, entity = entity.get()](const std::string& name) {
    doTell(path, *entity, name);
  });
  if (const auto* directory = dynamic_cast<const Directory*>(entity.get())) {
    watch.children =
        directory->entityCollection().observeKeys([this, path, directory](const std::string& name) {
          Vela::Json line(cJSON_CreateObject());
          cJSON_AddStringToObject(line.get(), "path", path.c_str());
          cJSON_AddStringToObject(line.get(), "child", name.c_str());
          cJSON_AddBoolToObject(line.get(), "present", directory->entityHas(name));
          send(line);
        });
  }
  watches_.push_back(std::move(watch));
}

void ServerConnection::doTell(const std::string& path, const Vela::Entity& entity,
                              const std::string& name) {
  const Vela::AttributeBase* attribute = entity.attribute(name);
  const auto* directory = dynamic_cast<const Directory*>(&entity);
  if (!attribute || (directory && attribute == &directory->entityCollection())) return;
  Vela::Json line(cJSON_CreateObject());
  cJSON_AddStringToObject(line.get(), "path", path.c_str());
  cJSON_AddStringToObject(line.get(), "attribute", name.c_str());
  cJSON_AddItemToObject(line.get(), "value", valueJson(*attribute).release());
  send(line);
}

void ServerConnection::send(const Vela::Json& json) {
  if (!open()) return;
  const bool idle = output_.empty();
  output_ += Vela::jsonLine(*json) + "\n";
  if (output_.size() > maxAnswerBytes) {
    SCRIVEL_TRACE(0, "client takes no answers, closed; bytes kept: ", output_.size());
    return close();
  }
  if (!idle) return;  // the line goes with the ones that wait already
  if (loop_.onThread()) return doSend();
  loop_.post([self = Vela::Ptr<ServerConnection>(this)] { self->doSend(); });
}

void ServerConnection::handleWritable() {
  const Vela::Ptr<ServerConnection> alive(this);
  doSend();
}

// Answers go out at once: the request may be one that ends the agent.
void ServerConnection::doSend() {
  if (!open()) return;
  const ssize_t sent = ::send(client_.socket.get(), output_.data(), output_.size(), MSG_NOSIGNAL);
  if (sent < 0 && errno != EAGAIN && errno != EINTR) return close();
  if (sent > 0) output_.erase(0, sent);
  watchSocket();
}

}  // namespace Orrery
