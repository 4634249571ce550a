#include "PI/server/UnixUsers.h"

#include <grpc/grpc_security.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "PI/server/tls/AuthProperties.h"
#include "PI/server/tls/CoreCredentials.h"

namespace pi::server {

// Of an acceptor; also in the hands of gRPC's threads.
struct UnixUsers::User {
  static constexpr int64_t kNobody = -1;

  std::atomic<int64_t> uid{kNobody};
  std::mutex mutex;  // a connection's first calls may come together, and one adds the property
};

// Those that gRPC has not closed yet. It closes a descriptor without a word: the number stands for
// the same socket as long as that has its inode.
class UnixUsers::Connections {
 public:
  void add(int fd) {
    if (open_.size() >= lookAgainAt_) {
      dropClosed();
      lookAgainAt_ = std::max(kFew, 2 * open_.size());
    }
    open_.push_back({fd, inodeOf(fd)});
  }
  void dropClosed() {
    std::erase_if(open_, [](const Connection& one) { return inodeOf(one.fd) != one.inode; });
  }
  bool empty() const { return open_.empty(); }

 private:
  static constexpr size_t kFew = 64;

  struct Connection {
    int fd;
    std::optional<ino_t> inode;
  };
  static std::optional<ino_t> inodeOf(int fd) {
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISSOCK(status.st_mode)) return std::nullopt;
    return status.st_ino;
  }

  std::vector<Connection> open_;
  size_t lookAgainAt_ = kFew;
};

struct UnixUsers::Slot {
  std::shared_ptr<User> user = std::make_shared<User>();
  std::unique_ptr<grpc::experimental::ExternalConnectionAcceptor> acceptor;
  Connections connections;
  Time lastTaken;
  std::optional<Time> emptySince;  // as it was noticed; nothing: it may have connections

  void note(Time now) {
    connections.dropClosed();
    if (connections.empty() && !emptySince) emptySince = now;
  }
};

UnixUsers::UnixUsers(grpc::ServerBuilder& builder, Clock now)
    : now_(std::move(now)), slots_(std::make_unique<std::array<Slot, kMost>>()) {
  using External = grpc::ServerBuilder::experimental_type::ExternalConnectionType;
  for (Slot& slot : *slots_) {
    const auto noteUser =
        [user = std::weak_ptr(slot.user)](grpc_auth_context& context) -> std::string {
      const auto known = user.lock();
      if (!known) return "the server is being shut down";
      const std::lock_guard lock(known->mutex);
      if (propertyOf(&context, kUnixUserProperty).empty()) {
        grpc_auth_context_add_cstring_property(
            &context, kUnixUserProperty, ("unix:" + std::to_string(known->uid.load())).c_str());
      }
      return "";
    };
    slot.acceptor = builder.experimental().AddExternalConnectionAcceptor(
        External::FROM_FD, coreCredentials(grpc_insecure_server_credentials_create(), noteUser));
  }
}

UnixUsers::~UnixUsers() = default;

UnixUsers::Slot* UnixUsers::slotOfUid(int64_t uid) {
  const auto found =
      std::ranges::find(*slots_, uid, [](const Slot& slot) { return slot.user->uid.load(); });
  return found == slots_->end() ? nullptr : &*found;
}

void UnixUsers::noteAll() {
  const Time now = now_();
  for (Slot& slot : *slots_) slot.note(now);
}

UnixUsers::Slot* UnixUsers::reusable() {
  noteAll();
  const Time now = now_();
  Slot* found = nullptr;
  for (Slot& slot : *slots_) {
    if (!slot.emptySince || now - *slot.emptySince < kRest) continue;
    if (!found || slot.lastTaken < found->lastTaken) found = &slot;
  }
  return found;
}

UnixUsers::Slot* UnixUsers::slotOf(int fd) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return nullptr;
  if (Slot* const own = slotOfUid(peer.uid)) return own;
  Slot* slot = slotOfUid(User::kNobody);
  if (!slot) slot = reusable();
  if (slot) slot->user->uid = peer.uid;
  return slot;
}

bool UnixUsers::take(int listenerFd, int fd) {
  Slot* const slot = slotOf(fd);
  if (!slot) {
    close(fd);
    return false;
  }
  slot->connections.add(fd);
  slot->lastTaken = now_();
  slot->emptySince.reset();
  // The next user may be one more: then it is known already who has rested for long.
  if (!slotOfUid(User::kNobody)) noteAll();
  grpc::experimental::ExternalConnectionAcceptor::NewConnectionParameters connection;
  connection.listener_fd = listenerFd;
  connection.fd = fd;
  slot->acceptor->HandleNewConnection(&connection);
  return true;
}

}  // namespace pi::server
