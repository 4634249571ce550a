#include "platform/vela/UnixServer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <utility>

#include "platform/scrivel/Trace.h"
#include "platform/vela/FileDescriptor.h"
#include "platform/vela/LineBudget.h"
#include "platform/vela/Timer.h"

static Scrivel::TraceHandle trace("UnixServer");

namespace Vela {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int callersPerTurn = 64;  // so that they cannot keep the reactor
constexpr milliseconds rest(100);   // while no descriptor is left, not even for a refusal

}  // namespace

// Outlives the server while clients stay.
struct UnixSeat::Seats {
  struct Silent {
    int socket;
    Clock::time_point until;
  };
  size_t taken = 0;
  uint64_t lastNumber = 0;
  milliseconds silence;
  std::map<uint64_t, Silent> silent;  // in the order of their coming

  void hangUpLongest() {
    SCRIVEL_TRACE(1, "hung up on a client that said nothing");
    shutdown(silent.begin()->second.socket, SHUT_RDWR);
    silent.erase(silent.begin());
  }
};

UnixSeat::UnixSeat(std::shared_ptr<Seats> seats, int socket)
    : seats_(std::move(seats)), number_(++seats_->lastNumber) {
  ++seats_->taken;
  seats_->silent[number_] = {socket, Clock::now() + seats_->silence};
}

UnixSeat::~UnixSeat() {
  endSilence();
  --seats_->taken;
}

void UnixSeat::endSilence() { seats_->silent.erase(number_); }

struct UnixServer::Impl {
  Impl(ReactorLoop& loop, UnixServerOptions given, std::function<void(UnixClient)> handler)
      : options(std::move(given)),
        connected(std::move(handler)),
        listener(options.listener),
        watch(make<FileDescriptor>(loop, listener.path())),
        restOver(loop, [this] { watchListener(); }),
        silenceOver(loop, [this] { handleSilence(); }),
        seats(std::make_shared<UnixSeat::Seats>()) {
    seats->silence = options.silence;
    watch->descriptorIs(listener.descriptor());
    watchListener();
  }
  ~Impl() { watch->descriptorIs(-1); }

  void watchListener() {
    watch->onReadableIs([this] { handleCallers(); });
  }
  void handleCallers();
  void handleCaller(UnixListener::Caller& caller);
  void admit(UnixListener::Caller& caller);
  bool makeSeat();
  void refuse(const UnixListener::Caller& caller, const std::string& reason) const;
  void tellOutOfDescriptors();
  void handleSilence();
  void startSilenceTimer();

  const UnixServerOptions options;
  const std::function<void(UnixClient)> connected;
  UnixListener listener;
  const Ptr<FileDescriptor> watch;
  Timer restOver;
  Timer silenceOver;
  const std::shared_ptr<UnixSeat::Seats> seats;
  LineBudget lines{1, std::chrono::minutes(1)};
};

void UnixServer::Impl::handleCallers() {
  for (int i = 0; i < callersPerTurn; ++i) {
    UnixListener::Caller caller;
    const auto turn = listener.accept(&caller);
    if (turn == UnixListener::Turn::nobody) return;
    if (turn == UnixListener::Turn::noRoom) {
      tellOutOfDescriptors();
      watch->onReadableIs({});
      return restOver.start(rest);
    }
    handleCaller(caller);
  }
}

void UnixServer::Impl::handleCaller(UnixListener::Caller& caller) {
  if (caller.isOutOfDescriptors) tellOutOfDescriptors();
  if (!caller.refusal.empty()) return refuse(caller, caller.refusal);
  if (!makeSeat()) {
    return refuse(caller,
                  "too many clients, " + std::to_string(options.mostClients) + "; try again later");
  }
  try {
    admit(caller);
  } catch (const std::exception& e) {
    SCRIVEL_TRACE(0, "lost a client of ", listener.path(), ": ", e.what());
  }
}

void UnixServer::Impl::admit(UnixListener::Caller& caller) {
  const int socket = caller.socket.get();
  UnixClient client{std::move(caller.socket), caller.pid, nullptr};
  client.seat.reset(new UnixSeat(seats, socket));
  connected(std::move(client));
  startSilenceTimer();
}

bool UnixServer::Impl::makeSeat() {
  if (seats->taken < options.mostClients) return true;
  if (seats->silent.empty()) return false;
  seats->hangUpLongest();
  return true;
}

void UnixServer::Impl::refuse(const UnixListener::Caller& caller, const std::string& reason) const {
  SCRIVEL_TRACE(0, "refused a client of ", listener.path(), ": ", reason);
  const std::string words = options.refusal(reason);
  send(caller.socket.get(), words.data(), words.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

void UnixServer::Impl::tellOutOfDescriptors() {
  if (lines.take(Clock::now()) == LineBudget::Verdict::silent) return;
  std::fprintf(stderr,
               "%s: clients of %s are turned away, because no file descriptor is left; close "
               "connections, or raise the limit (ulimit -n, or LimitNOFILE of a systemd unit)\n",
               program_invocation_short_name, listener.path().c_str());
}

void UnixServer::Impl::handleSilence() {
  const auto now = Clock::now();
  while (!seats->silent.empty() && seats->silent.begin()->second.until <= now) {
    seats->hangUpLongest();
  }
  startSilenceTimer();
}

void UnixServer::Impl::startSilenceTimer() {
  if (seats->silent.empty()) return silenceOver.stop();
  const auto left = seats->silent.begin()->second.until - Clock::now();
  silenceOver.start(std::max(std::chrono::ceil<milliseconds>(left), milliseconds(0)));
}

UnixServer::UnixServer(ReactorLoop& loop, UnixServerOptions options,
                       std::function<void(UnixClient)> connected)
    : impl_(std::make_unique<Impl>(loop, std::move(options), std::move(connected))) {}

UnixServer::~UnixServer() = default;

const std::string& UnixServer::path() const { return impl_->listener.path(); }

}  // namespace Vela
