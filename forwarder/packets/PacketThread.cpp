#include "forwarder/packets/PacketThread.h"

#include <atomic>
#include <mutex>
#include <thread>
#include <utility>

#include "forwarder/base/Answer.h"
#include "forwarder/packets/PacketLoop.h"
#include "forwarder/packets/SwitchPorts.h"
#include "platform/vela/EventDescriptor.h"
#include "platform/vela/Failure.h"

namespace Forwarder {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds choresInterval{200};  // while packets come without end
constexpr milliseconds digestInterval{20};   // while digests may wait
constexpr uint64_t microsecondsOfMillisecond = 1000;

const std::chrono::steady_clock::time_point processBegin = std::chrono::steady_clock::now();

}  // namespace

class PacketThread::Impl {
 public:
  Impl(EngineSlot& slot, PacketOptions options, PacketSinks sinks)
      : slot_(slot), options_(std::move(options)), sinks_(std::move(sinks)) {}
  ~Impl() { stop(); }

  void start() {
    thread_ = Vela::startThread("forward packets", [this] { run(); });
  }
  void stop();
  void post(std::function<void()> work);

  EngineSlot& slot_;
  const PacketOptions options_;
  const PacketSinks sinks_;
  PortBook book_;
  TraceBook traces_;
  const Vela::EventDescriptor wake_;
  const Vela::EventDescriptor answer_;
  SwitchPorts* ports_ = nullptr;  // the thread's own, for posted work
  std::atomic<uint64_t> toNoPort_{0};

  mutable std::mutex mutex_;  // guards the members up to the next blank line
  std::vector<std::function<void()>> posted_;
  P4::SwitchCounts switchCounts_;

 private:
  void run();
  void doPosted();
  void doChores(PacketLoop& loop, SwitchPorts& ports);
  milliseconds patience(const PacketLoop& loop) const;

  std::atomic<bool> stopping_{false};
  std::atomic<bool> anyPosted_{false};
  uint64_t choresAt_ = 0;  // microseconds
  std::thread thread_;
};

void PacketThread::Impl::stop() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  wake_.ring();
  thread_.join();
}

void PacketThread::Impl::post(std::function<void()> work) {
  {
    const std::lock_guard lock(mutex_);
    posted_.push_back(std::move(work));
  }
  anyPosted_ = true;
  wake_.ring();
}

void PacketThread::Impl::run() {
  SwitchPorts ports(options_, sinks_, book_);
  PacketLoop loop(slot_, ports, traces_, sinks_);
  ports_ = &ports;
  while (!stopping_) {
    if (anyPosted_.load(std::memory_order_relaxed)) doPosted();
    const bool any = loop.turn();
    if (!any || now() >= choresAt_) doChores(loop, ports);
    if (!any && !anyPosted_) ports.wait(wake_.get(), patience(loop));
  }
  ports_ = nullptr;
}

void PacketThread::Impl::doPosted() {
  anyPosted_ = false;
  wake_.silence();
  std::vector<std::function<void()>> posted;
  {
    const std::lock_guard lock(mutex_);
    posted.swap(posted_);
  }
  for (const auto& work : posted) work();
}

milliseconds PacketThread::Impl::patience(const PacketLoop& loop) const {
  const bool digests = loop.engine() && !loop.engine()->program().learnLists.empty();
  return digests ? digestInterval : choresInterval;
}

// Work that belongs to no packet. Part of it waits for its time.
void PacketThread::Impl::doChores(PacketLoop& loop, SwitchPorts& ports) {
  const bool due = now() >= choresAt_;
  if (due || ports.devicesChanged()) ports.followDevices();
  ports.flushPcap();
  loop.handOverDigests();
  if (traces_.finishLate() || loop.takeTraceDone()) answer_.ring();
  toNoPort_ = loop.toNoPort();
  if (!due) return;
  choresAt_ = now() + choresInterval.count() * microsecondsOfMillisecond;
  ports.countMissed();
  if (!loop.engine()) return;
  const std::lock_guard lock(mutex_);
  switchCounts_ = loop.engine()->counts();
}

PacketThread::PacketThread(EngineSlot& slot, PacketOptions options, PacketSinks sinks)
    : impl_(std::make_unique<Impl>(slot, std::move(options), std::move(sinks))) {}

PacketThread::~PacketThread() = default;

void PacketThread::start() { impl_->start(); }

const PacketOptions& PacketThread::options() const { return impl_->options_; }

void PacketThread::portsAre(std::map<uint32_t, std::string> devices) {
  impl_->post(
      [impl = impl_.get(), devices = std::move(devices)] { impl->ports_->portsAre(devices); });
}

std::vector<PortReport> PacketThread::ports() const { return impl_->book_.reports(); }

uint64_t PacketThread::toNoPort() const { return impl_->toNoPort_; }

P4::SwitchCounts PacketThread::switchCounts() const {
  const std::lock_guard lock(impl_->mutex_);
  return impl_->switchCounts_;
}

uint64_t PacketThread::now() {
  const auto since = std::chrono::steady_clock::now() - processBegin;
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(since).count());
}

void PacketThread::post(std::function<void()> work) { impl_->post(std::move(work)); }

void PacketThread::pcapIs(uint32_t port, PcapWay way, const std::string& path) {
  bool there = false;
  for (const PortReport& report : ports()) there |= report.port == port;
  if (!there) throw CommandError("pcap: there is no port " + std::to_string(port));
  std::shared_ptr<PcapFile> file;
  if (!path.empty()) file = std::make_shared<PcapFile>(path);
  impl_->post([impl = impl_.get(), port, way, file] { impl->ports_->pcapIs(port, way, file); });
}

void PacketThread::traceIs(bool on, std::optional<uint32_t> port) { impl_->traces_.onIs(on, port); }

bool PacketThread::tracing() const { return impl_->traces_.on(); }

std::string PacketThread::takeTrace() { return impl_->traces_.take(); }

TraceBook::LaterText PacketThread::requestTrace(const TraceRequest& request) {
  return impl_->traces_.request(request);
}

int PacketThread::answerDescriptor() const { return impl_->answer_.get(); }

void PacketThread::clearAnswerSignal() { impl_->answer_.silence(); }

}  // namespace Forwarder
