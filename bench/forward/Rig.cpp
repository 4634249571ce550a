#include "bench/forward/Rig.h"

#include <linux/if_packet.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "forwarder/device/KernelDevice.h"
#include "forwarder/device/PacketRing.h"
#include "forwarder/device/SendSocket.h"
#include "tests/support/Waiting.h"

namespace Bench {
namespace {

using Forwarder::Frame;
using Forwarder::PacketRing;
using Forwarder::PacketThread;
using Forwarder::SendSocket;

constexpr size_t batch = 64;
constexpr unsigned mtuBytes = 2000;

double threadCpu() {  // ns
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// Runs in the packet thread, and comes back with the result.
double cpuOf(PacketThread& packets) {
  const auto time = std::make_shared<std::atomic<double>>(0);
  packets.post([time] { *time = threadCpu(); });
  while (*time == 0) std::this_thread::sleep_for(std::chrono::microseconds(100));
  return *time;
}

template <typename Cpu>
Figures measureArrivals(const Wires& wires, Seconds time, const Cpu& cpu) {
  std::this_thread::sleep_for(time / 5);
  const uint64_t arrived = wires.arrived();
  const double used = cpu();
  const auto begin = Clock::now();
  std::this_thread::sleep_for(time);
  const double frames = static_cast<double>(wires.arrived() - arrived);
  const double usedMore = cpu() - used;
  const Seconds passed = Clock::now() - begin;
  return {.perSecond = frames / passed.count(), .cost = frames > 0 ? usedMore / frames : 0};
}

}  // namespace

uint64_t Wires::arrived() const {
  std::ifstream file("/proc/self/net/dev");
  for (std::string line; std::getline(file, line);) {
    const size_t colon = line.find(':');
    if (colon == line.npos || line.find(out.peer()) >= colon) continue;
    std::istringstream words(line.substr(colon + 1));
    uint64_t bytes = 0, frames = 0;
    words >> bytes >> frames;
    return frames;
  }
  throw std::runtime_error("there is no device " + out.peer());
}

Generator::Generator(const std::string& device, std::vector<std::string> frames)
    : device_(device), frames_(std::move(frames)), thread_([this] { run(); }) {}

Generator::~Generator() {
  stop_ = true;
  thread_.join();
}

void Generator::run() {
  const Vela::UniqueFd socket = Forwarder::openPacketSocket(0);
  const int yes = 1;
  setsockopt(socket.get(), SOL_PACKET, PACKET_QDISC_BYPASS, &yes, sizeof yes);
  Forwarder::bindToDevice(socket.get(), Forwarder::ifIndexOf(device_), 0);
  std::array<mmsghdr, batch> messages{};
  std::array<iovec, batch> parts{};
  for (size_t at = 0; !stop_;) {
    for (size_t i = 0; i < batch; ++i) {
      const std::string& frame = frames_[at];
      if (++at == frames_.size()) at = 0;
      parts[i] = {const_cast<char*>(frame.data()), frame.size()};
      messages[i].msg_hdr.msg_iov = &parts[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
    sendmmsg(socket.get(), messages.data(), batch, 0);
  }
}

Writing::Writing(P4::Engine& engine, uint64_t perSecond)
    : writer_(engine), perSecond_(perSecond), thread_([this] { run(); }) {}

Writing::~Writing() {
  stop_ = true;
  thread_.join();
}

double Writing::achieved() const {
  return static_cast<double>(written_) / Seconds(Clock::now() - begin_).count();
}

void Writing::run() {
  while (writer_.able() && !stop_) {
    const auto due = static_cast<uint64_t>(Seconds(Clock::now() - begin_).count() *
                                           static_cast<double>(perSecond_));
    for (; written_ < due && !stop_; ++written_) writer_.write();
    writer_.commit();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  writer_.removeAll();
}

Figures engineAlone(const Load& load, const std::vector<std::string>& frames, Seconds time) {
  P4::Outputs outputs;
  uint64_t count = 0;
  size_t at = 0;
  const auto begin = Clock::now();
  const double used = threadCpu();
  while (Clock::now() - begin < time) {
    outputs.clear();
    const uint64_t now = PacketThread::now();
    load.engine->begin();
    for (size_t i = 0; i < batch; ++i) {
      const std::string& frame = frames[at];
      if (++at == frames.size()) at = 0;
      load.engine->processNext(
          load.port, {reinterpret_cast<const uint8_t*>(frame.data()), frame.size()}, now, outputs);
    }
    load.engine->end();
    count += batch;
  }
  const Seconds passed = Clock::now() - begin;
  const auto all = static_cast<double>(count);
  return {.perSecond = all / passed.count(), .cost = (threadCpu() - used) / all};
}

Figures throughSwitch(const Wires& wires, const Load& load, const std::vector<std::string>& frames,
                      Seconds time) {
  Forwarder::EngineSlot slot;
  slot.engineIs(load.engine);
  PacketThread packets(slot, {}, {});
  packets.start();
  packets.portsAre({{load.port, wires.in.name()}, {load.outPort, wires.out.name()}});
  const bool open = TestSupport::waitUntil([&] {
    const auto ports = packets.ports();
    return ports.size() == 2 && ports[0].up && ports[1].up;
  });
  if (!open) throw std::runtime_error("the switch's ports do not come up");
  const Generator generator(wires.in.peer(), frames);
  return measureArrivals(wires, time, [&] { return cpuOf(packets); });
}

Figures bareLoop(const Wires& wires, const std::vector<std::string>& frames, Seconds time) {
  std::atomic<bool> stop{false};
  std::atomic<double> cpu{0};
  std::thread loop([&] {
    PacketRing ring(Forwarder::ifIndexOf(wires.in.name()), mtuBytes, PacketRing::Way::arriving);
    SendSocket sender(Forwarder::ifIndexOf(wires.out.name()), SendSocket::WhenFull::drop);
    // Frames of a ring stay until the next one is asked for: they are copied, as a switch does.
    std::vector<uint8_t> bytes(batch * mtuBytes);
    std::array<Frame, batch> out;
    while (!stop) {
      PacketRing::Arrival arrival;
      size_t count = 0;
      for (; count < batch && ring.next(arrival); ++count) {
        out[count] = {&bytes[count * mtuBytes], arrival.frame.size};
        std::copy_n(arrival.frame.start, arrival.frame.size, out[count].start);
      }
      if (count > 0) {
        sender.send({out.data(), count});
      } else {
        pollfd readable{ring.descriptor(), POLLIN, 0};
        poll(&readable, 1, 100);
      }
      cpu = threadCpu();
    }
  });
  Figures figures;
  {
    const Generator generator(wires.in.peer(), frames);
    figures = measureArrivals(wires, time, [&] { return cpu.load(); });
  }
  stop = true;
  loop.join();
  return figures;
}

}  // namespace Bench
