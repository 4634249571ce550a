#include "forwarder/packets/SwitchPorts.h"

#include <fmt/format.h>
#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "forwarder/base/Answer.h"

namespace Forwarder {

SwitchPorts::SwitchPorts(const PacketOptions& options, const PacketSinks& sinks, PortBook& book)
    : options_(options), sinks_(sinks), book_(book) {
  if (options_.cpuPort) addPort(*options_.cpuPort, options_.cpuDevice, SwitchPort::Kind::cpu);
  listPorts();
}

void SwitchPorts::log(const std::string& line) const {
  if (sinks_.log) sinks_.log(line);
}

void SwitchPorts::portsAre(const std::map<uint32_t, std::string>& devices) {
  for (SwitchPort* port : all_) {
    const auto found = devices.find(port->id());
    if (port->cpu() || (found != devices.end() && found->second == port->device())) continue;
    removePort(*port);
  }
  for (const auto& [id, device] : devices) {
    if (id == options_.cpuPort) {
      log(fmt::format("port {} is the CPU port; {} is left out", id, device));
    } else if (!ports_.contains(id)) {
      addPort(id, device, SwitchPort::Kind::port);
    }
  }
  listPorts();
}

void SwitchPorts::addPort(uint32_t id, const std::string& device, SwitchPort::Kind kind) {
  auto& port = ports_[id] = std::make_unique<SwitchPort>(id, device, kind);
  maybePcapOf(*port);
  lookAt(*port);
}

void SwitchPorts::removePort(SwitchPort& port) {
  const uint32_t id = port.id();
  const bool cpu = port.cpu();
  book_.portDel(id);
  told_.erase(id);
  ports_.erase(id);
  epoll_ = Vela::UniqueFd();
  if (!cpu && sinks_.portState) sinks_.portState(id, false);
}

void SwitchPorts::listPorts() {
  byId_.clear();
  all_.clear();
  for (const auto& [id, port] : ports_) {
    byId_[id] = port.get();
    all_.push_back(port.get());
  }
}

void SwitchPorts::followDevices() {
  devicesChanged_ = false;
  const bool changed = watch_.update();
  for (SwitchPort* port : all_) {
    if (changed || port->inTrouble()) lookAt(*port);
  }
}

void SwitchPorts::lookAt(SwitchPort& port) {
  if (port.deviceIs(watch_.device(port.device()))) epoll_ = Vela::UniqueFd();
  tell(port);
}

// Each change once.
void SwitchPorts::tell(const SwitchPort& port) {
  PortReport report = port.report();
  book_.portIs(report, port.counts());
  const auto [told, first] = told_.try_emplace(port.id());
  if (!first && told->second.up == report.up && told->second.trouble == report.trouble) return;
  const bool changed = first || told->second.up != report.up;
  log(fmt::format("port {} on {} is {}{}", report.port, report.device, report.up ? "up" : "down",
                  report.trouble.empty() ? "" : ": " + report.trouble));
  if (changed && !port.cpu() && sinks_.portState) sinks_.portState(port.id(), report.up);
  told->second = std::move(report);
}

void SwitchPorts::countMissed() {
  for (SwitchPort* port : all_) port->countMissed();
}

void SwitchPorts::flushPcap() {
  for (SwitchPort* port : all_) {
    if (port->flushPcap()) tell(*port);
  }
}

void SwitchPorts::pcapIs(uint32_t id, PcapWay way, std::shared_ptr<PcapFile> file) {
  SwitchPort* const port = find(id);
  if (!port) return;
  if (way != PcapWay::out) port->pcapInIs(file);
  if (way != PcapWay::in) port->pcapOutIs(std::move(file));
  tell(*port);
}

void SwitchPorts::maybePcapOf(SwitchPort& port) {
  if (!options_.pcapDirectory) return;
  const std::string begin = *options_.pcapDirectory + "/" + port.device();
  try {
    port.pcapInIs(std::make_shared<PcapFile>(begin + "_in.pcap"));
    port.pcapOutIs(std::make_shared<PcapFile>(begin + "_out.pcap"));
  } catch (const CommandError& e) {
    log(e.what());
  }
}

void SwitchPorts::listDescriptors(int descriptor) {
  epoll_ = Vela::UniqueFd(epoll_create1(EPOLL_CLOEXEC));
  if (!epoll_) throw std::system_error(errno, std::generic_category(), "epoll");
  const auto add = [&](int one, void* what) {
    epoll_event event{.events = EPOLLIN, .data = {.ptr = what}};
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, one, &event) != 0) {
      throw std::system_error(errno, std::generic_category(), "epoll");
    }
  };
  add(descriptor, nullptr);
  add(watch_.descriptor(), &watch_);
  for (SwitchPort* port : all_) {
    if (port->ring()) add(port->ring()->descriptor(), port);
  }
}

void SwitchPorts::wait(int descriptor, std::chrono::milliseconds timeout) {
  if (!epoll_) listDescriptors(descriptor);
  std::array<epoll_event, 16> events;
  const int count = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()),
                               static_cast<int>(timeout.count()));
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = events[static_cast<size_t>(i)];
    if (event.data.ptr == &watch_) {
      devicesChanged_ = true;
    } else if (event.data.ptr && event.events & EPOLLERR) {
      static_cast<SwitchPort*>(event.data.ptr)->ring()->clearError();
    }
  }
}

}  // namespace Forwarder
