// The Unix socket on which a running forwarder takes commands, one line a connection.
#pragma once

#include <poll.h>

#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "forwarder/base/Answer.h"
#include "platform/vela/UnixListener.h"

namespace Forwarder {

// DIRECTORY/forwarder-NAME.sock
std::string controlPath(const std::string& stateDirectory, const std::string& name);

// Another forwarder listens at the path, or the path cannot hold a socket.
class ControlError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// For this user and root alone. An answer is the line "ok" and the text, or the line "error
// REASON"; then the connection ends.
// Threads: one at a time; commands run in it. Nothing blocks but maybeListen(): a client that reads
// slowly delays its own answer alone.
class ControlSocket {
 public:
  using Command = std::function<Answer(std::string_view line)>;
  ControlSocket(std::string path, Command command);
  ~ControlSocket();  // removes the socket if it is still ours
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  // Listens, if it does not yet and can: the directory may come later, or be another one now. The
  // socket of a killed forwarder is replaced; to recognise it, this may wait two seconds for a
  // reply. Throws ControlError.
  void maybeListen();
  bool listening() const { return listener_ != nullptr; }
  void pollDescriptors(std::vector<pollfd>& out) const;  // appends the descriptors to wait for
  void serve();  // runs new commands, collects later answers, and sends, all without waiting

 private:
  struct Client {
    int descriptor = -1;
    std::string in;
    std::string out;
    size_t outSent = 0;
    bool commandRun = false;
    std::function<std::optional<Answer>()> later;  // set while the answer is incomplete
  };
  void doListen();
  void doClose();
  void acceptClients();
  static bool receive(Client& client);  // false when the client is gone
  static bool hungUp(const Client& client);
  static void putAnswer(Client& client, const Answer& answer);
  static bool send(Client& client);  // false when all is sent or the client is gone
  void maybeRunCommand(Client& client);
  bool advance(Client& client);  // false when the connection is over

  const std::string path_;
  const Command command_;
  std::unique_ptr<Vela::UnixListener> listener_;
  bool noRoom_ = false;  // no descriptor for the next client: the listener is not polled
  std::list<Client> clients_;
};

// The client's side: sends a command and waits for its answer. Throws std::system_error when no
// forwarder listens.
Answer sendCommand(const std::string& path, const std::string& line);

}  // namespace Forwarder
