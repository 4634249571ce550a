// A page of memory that the agent shares with one subscriber. Each end looks at it for a moment
// before it sleeps: to be woken costs many times the programming of an entry. The socket alone does
// as well, only slower.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "platform/vela/Descriptors.h"

namespace Lattice {

// At offsets 0, 64, 128, 192, 196 and 256, in native byte order; the page is zero at first. An end
// that stops looking stores 0, and looks once more; the other end writes its news before it looks
// whether somebody looks.
struct DoorbellWords {
  // Not 0: the subscriber sees by itself that the agent has committed changes, and needs no ring.
  alignas(64) std::atomic<uint32_t> subscriberLooks;
  // Not 0: the agent sees by itself that `programmed` rises, and needs no message.
  alignas(64) std::atomic<uint32_t> agentLooks;
  // As in a ProgrammedMessage; failures were reported by the socket before.
  alignas(64) std::atomic<uint64_t> programmed;
  // Not 0: the agent's batches are urgent, and worth a processor that looks for them.
  alignas(64) std::atomic<uint32_t> worthLooking;
  // The processor that the last urgent batch's thread began it on, as Vela::currentProcessor() has
  // it: the subscriber does better on another one.
  std::atomic<uint32_t> agentProcessor;
  // The changes up to this one can be read, though they may be yet to be committed.
  alignas(64) std::atomic<uint64_t> shownAhead;
};

// Any thread may use the words.
class DoorbellPage {
 public:
  static constexpr size_t size = 4096;

  static std::shared_ptr<DoorbellPage> make();  // null when the system has no room for one
  // The subscriber's view of a page that came by the socket; null when it is no such page.
  static std::shared_ptr<DoorbellPage> open(const Vela::UniqueFd& descriptor);
  ~DoorbellPage();
  DoorbellPage(const DoorbellPage&) = delete;
  DoorbellPage& operator=(const DoorbellPage&) = delete;

  DoorbellWords& words() { return *words_; }
  int descriptor() const { return descriptor_.get(); }  // the agent's, to send; else -1

 private:
  DoorbellPage(DoorbellWords* words, Vela::UniqueFd descriptor)
      : words_(words), descriptor_(std::move(descriptor)) {}

  DoorbellWords* words_;
  Vela::UniqueFd descriptor_;
};

}  // namespace Lattice
