#include "forwarder/punt/PuntJob.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace Forwarder {
namespace {

constexpr std::chrono::milliseconds patience{2000};         // with the agent and its device
constexpr uint64_t packetsAtATime = 4 * FrameBatch::count;  // made between looks at ports

Answer refuse(const std::string& trouble) { return {false, "no packet was punted: " + trouble}; }

}  // namespace

std::optional<Answer> PuntJob::advance(PuntSender& sender) {
  if (!begun_ && !maybeBegin(sender)) {
    if (Clock::now() - since_ < patience) return std::nullopt;
    return refuse(sender.troubleOf(request_.port));
  }
  for (uint64_t left = std::min(due(), packetsAtATime); left > 0;) {
    const auto some = static_cast<size_t>(std::min<uint64_t>(left, FrameBatch::count));
    makePackets(some, sender);
    left -= some;
  }
  if (made_ < request_.count) return std::nullopt;
  return result();
}

bool PuntJob::maybeBegin(const PuntSender& sender) {
  if (!sender.ready(request_.port)) return false;  // the next advance() asks again
  begun_ = true;
  since_ = Clock::now();
  return true;
}

std::optional<PuntJob::Clock::time_point> PuntJob::nextDue() const {
  if (!begun_) return std::nullopt;
  if (request_.rate == 0) return since_;
  return since_ + std::chrono::nanoseconds((made_ + 1) * 1'000'000'000 / request_.rate);
}

uint64_t PuntJob::due() const {
  const uint64_t left = request_.count - made_;
  if (request_.rate == 0) return left;
  const std::chrono::duration<double> elapsed = Clock::now() - since_;
  const auto all = static_cast<uint64_t>(elapsed.count() * static_cast<double>(request_.rate));
  return std::min(left, all > made_ ? all - made_ : 0);
}

Frame PuntJob::makeFrame(uint64_t number, uint8_t* place) const {
  const Frame frame{place, request_.packet.size()};
  std::ranges::copy(request_.packet, frame.start);
  if (!request_.numbered) return frame;
  for (size_t byte = 8; byte > 0; number >>= 8) {
    frame.start[numberOffset + --byte] = static_cast<uint8_t>(number);
  }
  return frame;
}

void PuntJob::makePackets(size_t count, PuntSender& sender) {
  std::array<Frame, FrameBatch::count> frames;
  for (size_t i = 0; i < count; ++i) frames[i] = makeFrame(made_ + i, sender.batch().place(i));
  const uint64_t punted = sender.send({frames.data(), count}, sender.headerOf(request_.port));
  if (punted < count) trouble_ = sender.troubleOf(request_.port);
  punted_ += punted;
  made_ += count;
  sender.counts().made += count;
}

Answer PuntJob::result() const {
  if (punted_ == 0) return refuse(trouble_);
  std::string text = fmt::format("punted {}\n", punted_);
  const uint64_t dropped = made_ - punted_;
  if (dropped > 0) text += fmt::format("dropped {}: {}\n", dropped, trouble_);
  return {true, std::move(text)};
}

}  // namespace Forwarder
