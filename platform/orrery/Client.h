// The other end of the server, for commands: sends a request and waits for its response.
#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/orrery/Requests.h"
#include "platform/vela/Descriptors.h"
#include "platform/vela/Json.h"

namespace Orrery {

// No agent listens, or the agent refused the request; the message says what to do.
class ClientError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
// No agent listens on the socket.
class NoAgentError : public ClientError {
 public:
  using ClientError::ClientError;
};

// Threads: one at a time. Errors: every request throws ClientError when the agent is gone, slow, or
// refuses; after a time-out the connection is of no more use. Lifetime: holds one connection, from
// construction to destruction.
class Client {
 public:
  // `stateDirectory` is the agent's. Throws NoAgentError, ClientError.
  explicit Client(const std::string& stateDirectory);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void timeoutIs(std::chrono::milliseconds timeout) { timeout_ = timeout; }  // of each answer
  // Sends a request and waits for the answer. Throws ClientError also when the answer says
  // {"ok": false}.
  Vela::Json request(const cJSON& request);
  // The next line after a "watch"; waits for good without a timeout. Null when the agent is gone or
  // the time is up.
  Vela::Json next(std::optional<std::chrono::milliseconds> timeout = std::nullopt);
  int64_t agentPid() const;  // 0 when not known

  // The requests of Requests.h.
  Vela::Json get(const std::string& path, const std::string& attribute = {});
  Vela::Json set(const std::string& path, const std::string& attribute, const std::string& value);
  Vela::Json create(const std::string& path, const Attributes& attributes);
  Vela::Json del(const std::string& path);
  Vela::Json call(const std::string& path, const std::string& operation,
                  const std::vector<std::string>& arguments);
  Vela::Json list(const std::string& path);
  Vela::Json watch(const std::string& path);

 private:
  std::optional<std::string> line(std::optional<std::chrono::milliseconds> timeout);
  std::string path_;
  std::chrono::milliseconds timeout_ = std::chrono::seconds(10);
  Vela::UniqueFd socket_;
  std::string input_;
};

}  // namespace Orrery
