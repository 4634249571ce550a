#include "cli/agent/StopWatcher.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "platform/vela/Failure.h"

namespace {

constexpr int64_t patienceMs = 1500;

int64_t nowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

int requireDescriptor(int descriptor) {
  if (descriptor >= 0) return descriptor;
  throw std::system_error(errno, std::generic_category(), "cannot watch for signals");
}

}  // namespace

StopWatcher::StopWatcher() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int one : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, one);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signalFd_ = requireDescriptor(signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
  wakeFd_ = requireDescriptor(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  Vela::startThread("watch for signals", [this] { run(); }).detach();
}

void StopWatcher::onRequestIs(std::function<void()> request) {
  const std::lock_guard guard(mutex_);
  request_ = std::move(request);
  if (requested_ && request_) request_();
}

void StopWatcher::onHangUpIs(std::function<void()> hangUp) {
  const std::lock_guard guard(mutex_);
  hangUp_ = std::move(hangUp);
}

void StopWatcher::exitIsNear(bool near) {
  {
    const std::lock_guard guard(mutex_);
    if (near && deadline_ == 0) deadline_ = nowMs() + patienceMs;
    if (!near && !requested_) deadline_ = 0;
  }
  const uint64_t one = 1;
  (void)!write(wakeFd_, &one, sizeof one);
}

void StopWatcher::handleSignal() {
  signalfd_siginfo info;
  if (read(signalFd_, &info, sizeof info) != sizeof info) return;
  const std::lock_guard guard(mutex_);
  if (info.ssi_signo == SIGHUP) {
    if (hangUp_) hangUp_();
    return;
  }
  if (requested_.exchange(true)) return;  // the end is near as it is
  if (deadline_ == 0) deadline_ = nowMs() + patienceMs;
  if (request_) request_();
}

// For poll(): -1 without a deadline.
int StopWatcher::millisecondsLeft() {
  const std::lock_guard guard(mutex_);
  return deadline_ == 0 ? -1 : static_cast<int>(std::max<int64_t>(deadline_ - nowMs(), 0));
}

void StopWatcher::run() {
  for (;;) {
    const int left = millisecondsLeft();
    // No flush: traces are shared memory too, and standard streams may be locked by the thread that
    // is not waited for.
    if (left == 0) _exit(0);
    pollfd watched[] = {{signalFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    if (poll(watched, std::size(watched), left) <= 0) continue;
    uint64_t count = 0;
    if (watched[1].revents) (void)!read(wakeFd_, &count, sizeof count);
    if (watched[0].revents) handleSignal();
  }
}
