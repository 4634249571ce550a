// What became of the packets that controllers wanted sent.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "P4Runtime/packet/ControllerTxPktDesc.h"

namespace P4Runtime {

// Why a packet was dropped after it had been taken.
enum class TxDrop { noPacket, noMapping, noPam, deviceDown, tooLong, failed };

// At "p4runtime/status/packet-out". Counts since the agent began; call with the activity lock held.
class ControllerTxPktStatus final : public Vela::Entity {
 public:
  // Packets sent are only counted. Of those that were not, the latest few are kept, by their key in
  // the queue and without their bytes: what fails must not keep memory.
  static constexpr size_t mostEntries = 64;

  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::ControllerTxPktStatus"; }

  void sentInc(uint64_t n) { sentIs(sent() + n); }
  // `trouble`: in words, for people; "": the reason says it all.
  void recordDrop(uint64_t key, const ControllerTxPktDesc& desc, TxDrop reason,
                  const std::string& trouble = {});
  using Entries = std::map<uint64_t, ControllerTxPktStatusEntry>;
  const Entries& statusEntry() const { return statusEntry_.values(); }
  const ControllerTxPktStatusEntry& statusEntry(uint64_t key) const {
    return statusEntry_.value(key);
  }

 private:
  Vela::Collection<uint64_t, ControllerTxPktStatusEntry, Entries> statusEntry_{*this,
                                                                               "statusEntry"};

  VELA_READONLY_ATTRIBUTE(uint64_t, sent, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, noPacket, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, noMapping, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, noPam, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, deviceDown, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, tooLong, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, failed, 0)
  VELA_READONLY_ATTRIBUTE(std::string, lastTrouble, "")
};

}  // namespace P4Runtime
