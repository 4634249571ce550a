// One client of the server.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/orrery/Database.h"
#include "platform/vela/FileDescriptor.h"
#include "platform/vela/Json.h"
#include "platform/vela/UnixServer.h"

namespace Orrery {

// Reads request lines and writes response lines, never waiting for the client: responses that it
// does not take are kept up to a bound. Call with the activity lock held. Watched attributes change
// on any thread: that thread keeps the line, and the reactor sends it.
class ServerConnection final : public Vela::RefCounted {
 public:
  static constexpr size_t maxRequestBytes = 64 * 1024;
  static constexpr size_t pauseBytes = 256 * 1024;  // of answers not taken: no more requests
  static constexpr size_t maxAnswerBytes = 4 * 1024 * 1024;  // of answers not taken: closed
  static constexpr size_t maxWatches = 64;

  // `closed` runs once, on a later turn.
  ServerConnection(Vela::ReactorLoop& loop, Database& database, Vela::UnixClient client,
                   std::function<void(ServerConnection*)> closed);
  ~ServerConnection() override;

  void close();

 private:
  bool open() const { return bool(client_.socket); }
  void handleReadable();
  void handleWritable();
  void handleLine(std::string_view line);
  void doAnswer(const cJSON& request);
  void doWatch(const std::string& path, const Vela::Ptr<Vela::Entity>& entity);
  void doTell(const std::string& path, const Vela::Entity& entity, const std::string& attribute);
  void send(const Vela::Json& json);
  void doSend();
  void watchSocket();

  Vela::ReactorLoop& loop_;
  Database& database_;
  Vela::UnixClient client_;
  std::function<void(ServerConnection*)> closed_;
  Vela::Ptr<Vela::FileDescriptor> descriptor_;
  std::string input_;
  std::string output_;
  bool reading_ = true;  // false: close once the output is gone
  struct Watch {
    Vela::Ptr<Vela::Entity> entity;
    Vela::Observation change;
    Vela::Observation children;
  };
  std::vector<Watch> watches_;
};

}  // namespace Orrery
