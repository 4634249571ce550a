// Digests on their way from the packet thread to the thread that follows the agent.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "p4/Engine.h"
#include "platform/vela/EventDescriptor.h"

namespace Forwarder {

// Bounded: what comes while it is full is dropped and counted. Threads: as the functions say.
class DigestQueue {
 public:
  // The packet thread: takes the lists of an engine.
  void add(const P4::Engine& engine, const std::vector<P4::DigestList>& lists);

  // Any other thread. By learn list of the engine's program: the digest's id in the P4Info, 0 for
  // one that is not to be sent. Those of other engines are not.
  void wantedAre(const P4::Engine* engine, std::vector<uint32_t> ids);
  struct Digest {
    uint32_t id = 0;
    std::string message;  // its fields bit behind bit, filled up to whole bytes at the end
  };
  std::vector<Digest> take();
  int descriptor() const { return signal_.get(); }  // readable when there are some
  uint64_t dropped() const { return dropped_; }

 private:
  static constexpr size_t most = 16384;

  const Vela::EventDescriptor signal_;
  std::mutex mutex_;  // guards the next three
  const P4::Engine* engine_ = nullptr;
  std::vector<uint32_t> wanted_;
  std::vector<Digest> waiting_;
  std::atomic<uint64_t> dropped_{0};
};

}  // namespace Forwarder
