// The punting thread's loop: wait, look for changes, read and write packets by batches.
#include "forwarder/punt/Punter.h"

#include <fmt/format.h>

#include <algorithm>
#include <span>
#include <utility>

#include "platform/vela/Failure.h"

namespace Forwarder {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr milliseconds refreshInterval{200};  // between looks for devices
constexpr size_t mostRequests = 16;

std::string note(const std::string& trouble) {
  return trouble.empty() ? std::string() : " (" + trouble + ")";
}

}  // namespace

Punter::Punter(std::string stateDirectory, PuntOptions options, Log log)
    : stateDirectory_(std::move(stateDirectory)),
      log_(std::move(log)),
      options_(std::move(options)),
      values_(options_.values),
      sender_(options_.device, counts_),
      ports_(options_.etherTypes, sender_) {}

Punter::~Punter() {
  if (!running()) return;
  stopping_ = true;
  wakeSignal_.ring();
  thread_.join();
}

void Punter::start() {
  if (running()) return;
  wakeSignal_.ring();  // its first look is at once
  thread_ = Vela::startThread("punt packets", [this] { run(); });
}

void Punter::valuesIs(PuntValues values) {
  const std::lock_guard lock(mutex_);
  if (knownPicture_ && knownPicture_->trouble.empty()) {
    PuntHeader(knownPicture_->packetIn, values);  // refuses values that do not fit
  }
  options_.values = values_ = std::move(values);
  wakeSignal_.ring();
}

std::string Punter::placesText() const {
  const std::lock_guard lock(mutex_);
  return places_;
}

Answer Punter::requestPackets(PuntRequest wanted) {
  const auto request = std::make_shared<Request>(Request{PuntJob(std::move(wanted)), {}});
  {
    const std::lock_guard lock(mutex_);
    if (requestCount_ == mostRequests) {
      throw CommandError(
          fmt::format("punt: {} requests are under way; wait for one", mostRequests));
    }
    ++requestCount_;
    newRequests_.push_back(request);
  }
  start();
  wakeSignal_.ring();
  Answer answer;
  answer.later = [this, request] {
    const std::lock_guard lock(mutex_);
    return request->answer;
  };
  return answer;
}

void Punter::clearAnswerSignal() { answerSignal_.silence(); }

void Punter::run() {
  view_ = std::make_unique<PuntView>(stateDirectory_, [this] { wakeSignal_.ring(); });
  while (!stopping_) {
    doWait();
    ports_.receive(std::span(polled_).subspan(1));
    maybeRefresh();
    doAdvanceRequests();
  }
  ports_.closeAll();
  view_.reset();
}

// Until there is a packet to read or to make, a signal, or it is time to look for devices.
void Punter::doWait() {
  polled_.assign(1, {wakeSignal_.get(), POLLIN, 0});
  ports_.pollDescriptors(polled_);
  const timespec timeout{.tv_sec = 0, .tv_nsec = waitTime().count()};
  ppoll(polled_.data(), polled_.size(), &timeout, nullptr);
}

nanoseconds Punter::waitTime() const {
  nanoseconds wait = refreshInterval;
  for (const auto& request : requests_) {
    if (const auto due = request->job.nextDue()) {
      wait = std::clamp<nanoseconds>(*due - Clock::now(), nanoseconds(0), wait);
    }
  }
  return wait;
}

void Punter::maybeRefresh() {
  const bool woken = !polled_.empty() && polled_[0].revents != 0;
  if (!woken && Clock::now() - refreshed_ < refreshInterval) return;
  wakeSignal_.silence();
  refreshed_ = Clock::now();
  picture_ = view_->picture();
  sender_.device().maybeOpen();
  doReadAgent();
  doPlanPorts();
  {
    const std::lock_guard lock(mutex_);
    requests_.splice(requests_.end(), newRequests_);
  }
  doLogTroubles();
  doPublishPlaces();
}

void Punter::doReadAgent() {
  PuntValues values;
  {
    const std::lock_guard lock(mutex_);
    values = values_;
    knownPicture_ = picture_;
  }
  if (!picture_) return;
  if (picture_->trouble.empty()) {
    sender_.headerIs(picture_->packetIn, values);
  } else {
    sender_.headerTroubleIs(picture_->trouble);
  }
}

void Punter::doPlanPorts() {
  std::map<uint32_t, std::string> devices = options_.ports;
  if (options_.mapped && picture_) devices.insert(picture_->ports.begin(), picture_->ports.end());
  ports_.portsAre(devices);
}

void Punter::doAdvanceRequests() {
  std::erase_if(requests_, [&](const auto& request) {
    const bool nobodyWaits = request.use_count() == 1;  // its Answer holds it, too
    if (!nobodyWaits && !advance(*request)) return false;
    const std::lock_guard lock(mutex_);
    --requestCount_;
    return true;
  });
}

bool Punter::advance(Request& request) {
  auto answer = request.job.advance(sender_);
  if (!answer) return false;
  {
    const std::lock_guard lock(mutex_);
    request.answer = std::move(answer);
  }
  answerSignal_.ring();
  return true;
}

// Each trouble is logged once, and once that it is over.
void Punter::doLogTroubles() {
  const CpuDevice& device = sender_.device();
  if (picture_) {
    maybeLog("agent", sender_.headerTrouble(), "packet_in is " + sender_.header().text());
  }
  maybeLog("device", device.trouble(), "packets go into " + device.name());
  for (const auto& [id, port] : ports_.ports()) {
    maybeLog(fmt::format("port {}", id), port.trouble, "reading " + port.device);
  }
}

void Punter::maybeLog(const std::string& place, const std::string& trouble,
                      const std::string& good) {
  const auto [logged, first] = loggedTroubles_.try_emplace(place, trouble);
  if (!first && logged->second == trouble) return;
  logged->second = trouble;
  log_(fmt::format("punting, {}: {}", place, trouble.empty() ? good : trouble));
}

void Punter::doPublishPlaces() {
  const CpuDevice& device = sender_.device();
  std::string text =
      fmt::format("device {}{}\nheader {}{}\n", device.name(), note(device.trouble()),
                  sender_.header().text(), note(sender_.headerTrouble()));
  for (const auto& [id, port] : ports_.ports()) {
    text += fmt::format("port {} on {}{}\n", id, port.device, note(port.trouble));
  }
  const std::lock_guard lock(mutex_);
  places_ = std::move(text);
}

}  // namespace Forwarder
