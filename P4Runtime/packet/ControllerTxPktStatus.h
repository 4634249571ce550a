// Counts of the packets that controllers wanted sent: sent, or dropped and why.
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
  // Sent packets are only counted. The latest dropped ones are kept by their key in the queue,
  // without their bytes: failures must not hold memory.
  static constexpr size_t mostEntries = 64;

  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::ControllerTxPktStatus"; }

  void sentInc(uint64_t n) { sentIs(sent() + n); }
  // Counts and keeps a dropped packet. `trouble`: a text for people; "" if the reason says it all.
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
