// The punting thread's loop: wait, look at what has changed, read and write packets by batches.
#include "forwarder/Punter.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <net/ethernet.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <system_error>
#include <utility>

#include "forwarder/Rules.h"
#include "platform/vela/Failure.h"

namespace Forwarder {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds refreshTime{200};  // devices are looked for so often
constexpr milliseconds patience{2000};    // of a request with devices and the agent
constexpr size_t mostRequests = 16;
constexpr uint64_t packetsAtATime = 4 * FrameBatch::count;  // made between looks at ports

void ring(int event) {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(event, &one, sizeof one);
}

void silence(int event) {
  uint64_t rings = 0;
  [[maybe_unused]] const ssize_t got = read(event, &rings, sizeof rings);
}

uint16_t word(const Frame& frame, size_t at) {
  return frame.size < at + 2 ? 0
                             : static_cast<uint16_t>(frame.start[at] << 8 | frame.start[at + 1]);
}

}  // namespace

Punter::Punter(std::string stateDirectory, PuntOptions options, Log log)
    : stateDirectory_(std::move(stateDirectory)),
      log_(std::move(log)),
      wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      answered_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      options_(std::move(options)),
      values_(options_.values),
      device_(options_.device) {}

Punter::~Punter() {
  if (started()) {
    stopping_ = true;
    ring(wake_);
    thread_.join();
  }
  close(wake_);
  close(answered_);
}

void Punter::start() {
  if (started()) return;
  ring(wake_);  // it looks around at once
  thread_ = Vela::startThread("punt packets", [this] { run(); });
}

void Punter::valuesIs(PuntValues values) {
  const std::lock_guard lock(mutex_);
  if (known_ && known_->trouble.empty()) PuntHeader(known_->packetIn, values);
  options_.values = values_ = std::move(values);
  ring(wake_);
}

std::string Punter::placesText() const {
  const std::lock_guard lock(mutex_);
  return places_;
}

Answer Punter::requestIs(PuntRequest what) {
  const auto request = std::make_shared<Request>(Request{std::move(what), Clock::now()});
  {
    const std::lock_guard lock(mutex_);
    if (underWay_ == mostRequests) {
      throw RuleError(fmt::format("punt: {} requests are under way; wait for one", mostRequests));
    }
    ++underWay_;
    asked_.push_back(request);
  }
  start();
  ring(wake_);
  Answer answer;
  answer.later = [this, request] {
    const std::lock_guard lock(mutex_);
    return request->answer;
  };
  return answer;
}

void Punter::answersSeen() { silence(answered_); }

void Punter::run() {
  view_ = std::make_unique<PuntView>(stateDirectory_, [this] { ring(wake_); });
  while (!stopping_) {
    doWait();
    doReceive();
    doRefresh();
    doRequests();
  }
  ports_.clear();
  view_.reset();
}

// Until there is a packet to read or to make, a change to look at, or it is time for the devices.
void Punter::doWait() {
  polled_.assign(1, {wake_, POLLIN, 0});
  polledPorts_.clear();
  for (auto& [id, port] : ports_) {
    if (!port.socket) continue;
    polled_.push_back({port.socket->descriptor(), POLLIN, 0});
    polledPorts_.push_back(&port);
  }
  auto wait = std::chrono::nanoseconds(refreshTime);
  for (const auto& request : requests_) {
    const auto& what = request->what;
    if (!request->begun) continue;  // waits for a device, or the agent
    const auto next = std::chrono::nanoseconds(
        what.rate == 0 ? 0 : (request->made + 1) * 1'000'000'000 / what.rate);
    wait = std::clamp<std::chrono::nanoseconds>(request->since + next - Clock::now(), {}, wait);
  }
  const timespec timeout{.tv_sec = 0, .tv_nsec = wait.count()};
  ppoll(polled_.data(), polled_.size(), &timeout, nullptr);
}

void Punter::doRefresh() {
  const bool woken = !polled_.empty() && polled_[0].revents != 0;
  if (!woken && Clock::now() - refreshed_ < refreshTime) return;
  silence(wake_);
  refreshed_ = Clock::now();
  picture_ = view_->picture();
  device_.maybeOpen();
  doReadHeader();
  doPlanPorts();
  {
    const std::lock_guard lock(mutex_);
    requests_.splice(requests_.end(), asked_);
  }
  doSayTroubles();
  doPublishPlaces();
}

void Punter::doReadHeader() {
  PuntValues values;
  {
    const std::lock_guard lock(mutex_);
    values = values_;
    known_ = picture_;
  }
  if (!picture_) return;
  headerTrouble_ = picture_->trouble;
  if (!headerTrouble_.empty()) return;
  try {
    header_ = PuntHeader(picture_->packetIn, values);
  } catch (const RuleError& e) {
    headerTrouble_ = e.what();
  }
}

std::optional<std::string> Punter::headerOf(uint32_t port) const {
  if (!headerTrouble_.empty()) return std::nullopt;
  return header_.bytes(port);
}

void Punter::doPlanPorts() {
  std::map<uint32_t, std::string> wanted = options_.ports;
  if (options_.mapped && picture_) wanted.insert(picture_->ports.begin(), picture_->ports.end());
  for (auto one = ports_.begin(); one != ports_.end();) {
    const auto found = wanted.find(one->first);
    if (found != wanted.end() && found->second == one->second.device) {
      ++one;
      continue;
    }
    doClosePort(one->second);
    one = ports_.erase(one);
  }
  for (const auto& [id, device] : wanted) {
    Port& port = ports_[id];
    port.device = device;
    port.header = headerOf(id);
    doOpenPort(port);
    if (port.trouble.empty() && !port.header && headerTrouble_.empty()) {
      port.trouble = "packet_in's ingress_port is too narrow for this port's id";
    }
  }
}

void Punter::doClosePort(Port& port) {
  if (port.socket) counts_.missed += port.socket->missed();
  port.socket.reset();
}

void Punter::doOpenPort(Port& port) {
  if (port.socket) {
    counts_.missed += port.socket->missed();
    if (ifIndexOf(port.device) == port.socket->ifIndex()) return;
    doClosePort(port);
  }
  try {
    port.trouble.clear();
    port.socket = std::make_unique<PortSocket>(port.device);
  } catch (const std::system_error& e) {
    port.trouble = e.code() == std::errc::no_such_device
                       ? fmt::format("there is no device {}", port.device)
                       : fmt::format("cannot read {}: {}", port.device, e.code().message());
    if (e.code() == std::errc::operation_not_permitted) port.trouble += "; this needs CAP_NET_RAW";
  }
}

void Punter::doReceive() {
  for (size_t i = 0; i < polledPorts_.size(); ++i) {
    if (polled_[i + 1].revents != 0) receiveFrom(*polledPorts_[i]);
  }
}

void Punter::receiveFrom(Port& port) {
  std::array<Frame, FrameBatch::count> frames;
  uint64_t tooLong = 0;
  const size_t got = port.socket->receive(batch_, frames, &tooLong);
  counts_.arrived += got + tooLong;
  counts_.tooLong += tooLong;
  const auto passed =
      std::remove_if(frames.begin(), frames.begin() + got, [&](auto& one) { return !wanted(one); });
  const auto left = static_cast<size_t>(passed - frames.begin());
  counts_.filtered += got - left;
  if (!port.header) {
    counts_.noHeader += left;
    return;
  }
  for (size_t i = 0; i < left; ++i) frames[i].prepend(*port.header);
  device_.send({frames.data(), left}, counts_);
}

bool Punter::wanted(const Frame& frame) const {
  if (options_.etherTypes.empty()) return true;
  constexpr size_t typeOffset = 2 * ETH_ALEN;
  size_t at = typeOffset;
  while (word(frame, at) == ETHERTYPE_VLAN || word(frame, at) == 0x88a8) at += 4;
  return options_.etherTypes.contains(word(frame, at));
}

void Punter::doRequests() {
  std::erase_if(requests_, [&](const auto& request) {
    // Whoever waits for the answer holds the request, too.
    return (request.use_count() == 1 || ended(*request)) && [&] {
      const std::lock_guard lock(mutex_);
      --underWay_;
      return true;
    }();
  });
}

bool Punter::ended(Request& request) {
  if (!request.begun && !maybeBegin(request)) {
    if (Clock::now() - request.since < patience) return false;
    answer(request, {false, "no packet was punted: " + requestTrouble(request.what.port)});
    return true;
  }
  for (uint64_t left = std::min(due(request), packetsAtATime); left > 0;) {
    const auto some = static_cast<size_t>(std::min<uint64_t>(left, FrameBatch::count));
    makePackets(request, some);
    left -= some;
  }
  if (request.made < request.what.count) return false;
  const uint64_t dropped = request.made - request.punted;
  std::string text = fmt::format("punted {}\n", request.punted);
  if (dropped > 0) text += fmt::format("dropped {}: {}\n", dropped, request.trouble);
  if (request.punted > 0) {
    answer(request, {true, std::move(text)});
  } else {
    answer(request, {false, "no packet was punted: " + request.trouble});
  }
  return true;
}

bool Punter::maybeBegin(Request& request) {
  if (!device_.open()) return false;               // looked for by doRefresh()
  if (!headerOf(request.what.port)) return false;  // so is what the agent says
  request.begun = true;
  request.since = Clock::now();
  return true;
}

std::string Punter::requestTrouble(uint32_t port) const {
  if (!headerTrouble_.empty()) return headerTrouble_;
  if (!device_.trouble().empty()) return device_.trouble();
  return fmt::format("packet_in's ingress_port is too narrow for port {}", port);
}

uint64_t Punter::due(const Request& request) const {
  const uint64_t left = request.what.count - request.made;
  if (request.what.rate == 0) return left;
  const std::chrono::duration<double> elapsed = Clock::now() - request.since;
  const auto all = static_cast<uint64_t>(elapsed.count() * static_cast<double>(request.what.rate));
  return std::min(left, all > request.made ? all - request.made : 0);
}

void Punter::makePackets(Request& request, size_t count) {
  const auto header = headerOf(request.what.port);
  std::array<Frame, FrameBatch::count> frames;
  for (size_t i = 0; i < count; ++i) {
    Frame& frame = frames[i] = {batch_.place(i), request.what.packet.size()};
    std::ranges::copy(request.what.packet, frame.start);
    if (request.what.numbered) {
      uint64_t number = request.made + i;
      for (size_t byte = 8; byte > 0; number >>= 8) {
        frame.start[numberOffset + --byte] = static_cast<uint8_t>(number);
      }
    }
    if (header) frame.prepend(*header);
  }
  const uint64_t before = counts_.punted;
  if (header) {
    device_.send({frames.data(), count}, counts_);
  } else {
    counts_.noHeader += count;
  }
  const uint64_t punted = counts_.punted - before;
  if (punted < count) request.trouble = requestTrouble(request.what.port);
  request.punted += punted;
  request.made += count;
  counts_.made += count;
}

void Punter::answer(Request& request, Answer with) {
  {
    const std::lock_guard lock(mutex_);
    request.answer = std::move(with);
  }
  ring(answered_);
}

// Each trouble is said once, and once that it is over.
void Punter::doSayTroubles() {
  if (picture_) maybeSay("agent", headerTrouble_, "packet_in is " + header_.text());
  maybeSay("device", device_.trouble(), "packets go into " + device_.name());
  for (const auto& [id, port] : ports_) {
    maybeSay(fmt::format("port {}", id), port.trouble, "reading " + port.device);
  }
}

void Punter::maybeSay(const std::string& of, const std::string& trouble, const std::string& good) {
  const auto [said, first] = said_.try_emplace(of, trouble);
  if (!first && said->second == trouble) return;
  said->second = trouble;
  log_(fmt::format("punting, {}: {}", of, trouble.empty() ? good : trouble));
}

void Punter::doPublishPlaces() {
  const auto note = [](const std::string& trouble) {
    return trouble.empty() ? std::string() : " (" + trouble + ")";
  };
  std::string text = fmt::format("device {}{}\nheader {}{}\n", device_.name(),
                                 note(device_.trouble()), header_.text(), note(headerTrouble_));
  for (const auto& [id, port] : ports_) {
    text += fmt::format("port {} on {}{}\n", id, port.device, note(port.trouble));
  }
  const std::lock_guard lock(mutex_);
  places_ = std::move(text);
}

std::string PuntCounts::text() const {
  return fmt::format(
      "arrived {}\nmade {}\npunted {}\nfiltered {}\nmissed {}\ntoo-long {}\nno-header {}\n"
      "no-device {}\nrefused {}\n",
      arrived.load(), made.load(), punted.load(), filtered.load(), missed.load(), tooLong.load(),
      noHeader.load(), noDevice.load(), failed.load());
}

}  // namespace Forwarder
