#include "platform/orrery/Client.h"

#include <cjson/cJSON.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "platform/vela/UnixListener.h"

namespace Orrery {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

[[noreturn]] void failConnect(int error, const std::string& path) {
  if (error == ENOENT || error == ECONNREFUSED || error == ENOTDIR) {
    throw NoAgentError("no agent answers on " + path +
                       "; start one with 'korvel agent', or name its --state-dir");
  }
  if (error == EACCES || error == EPERM) {
    throw ClientError("no permission to use " + path + "; run this as the agent's user");
  }
  throw ClientError("cannot use " + path + ": " + strerror(error) + "; name another --state-dir");
}

}  // namespace

Client::Client(const std::string& stateDirectory) : path_(stateDirectory + "/orrery.sock") {
  try {
    const Vela::UnixAddress address(path_);
    Vela::UniqueFd made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!made || connect(made.get(), address.get(), Vela::UnixAddress::size()) != 0) {
      failConnect(errno, path_);
    }
    socket_ = std::move(made);
  } catch (const std::system_error& e) {
    failConnect(e.code().value(), path_);
  }
}

Client::~Client() = default;

int64_t Client::agentPid() const {
  ucred peer{};
  socklen_t size = sizeof peer;
  return getsockopt(socket_.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.pid : 0;
}

Vela::Json Client::request(const cJSON& request) {
  const std::string text = Vela::jsonLine(request) + "\n";
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t n = send(socket_.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw ClientError("the agent closed " + path_ + "; look whether it still runs");
    sent += n;
  }
  const auto received = line(timeout_);
  if (!received) {
    throw ClientError("the agent gave no answer on " + path_ + "; look at 'korvel trace'");
  }
  Vela::Json answer = Vela::parseJson(*received);
  if (!answer) throw ClientError("what answers on " + path_ + " is no agent");
  if (!cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(answer.get(), "ok"))) {
    const char* error = Vela::stringMember(*answer, "error");
    throw ClientError(error ? error : "the agent refused the request without a reason");
  }
  return answer;
}

Vela::Json Client::next(std::optional<milliseconds> timeout) {
  const auto received = line(timeout);
  return received ? Vela::parseJson(*received) : nullptr;
}

std::optional<std::string> Client::line(std::optional<milliseconds> timeout) {
  const auto deadline = steady_clock::now() + timeout.value_or(milliseconds(0));
  for (;;) {
    if (const size_t end = input_.find('\n'); end != std::string::npos) {
      std::string found = input_.substr(0, end);
      input_.erase(0, end + 1);
      return found;
    }
    int wait = -1;
    if (timeout) {
      const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
      wait = static_cast<int>(std::max<int64_t>(left.count(), 0));
    }
    pollfd watched{socket_.get(), POLLIN, 0};
    const int ready = poll(&watched, 1, wait);
    if (ready == 0) return std::nullopt;
    if (ready < 0 && errno != EINTR) return std::nullopt;
    if (ready < 0) continue;
    char block[65536];
    const ssize_t got = recv(socket_.get(), block, sizeof block, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return std::nullopt;
    input_.append(block, got);
  }
}

Vela::Json Client::get(const std::string& path, const std::string& attribute) {
  return request(*getRequest(path, attribute));
}

Vela::Json Client::set(const std::string& path, const std::string& attribute,
                       const std::string& value) {
  return request(*setRequest(path, attribute, value));
}

Vela::Json Client::create(const std::string& path, const Attributes& attributes) {
  return request(*createRequest(path, attributes));
}

Vela::Json Client::del(const std::string& path) { return request(*deleteRequest(path)); }

Vela::Json Client::call(const std::string& path, const std::string& operation,
                        const std::vector<std::string>& arguments) {
  return request(*callRequest(path, operation, arguments));
}

Vela::Json Client::list(const std::string& path) { return request(*listRequest(path)); }

Vela::Json Client::watch(const std::string& path) { return request(*watchRequest(path)); }

}  // namespace Orrery
