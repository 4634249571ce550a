// Sends the packets that controllers queued: in batches, in order, and never a whole queue in one
// turn.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "P4Runtime/packet/ControllerTxPktConfig.h"
#include "P4Runtime/packet/ControllerTxPktStatus.h"
#include "platform/vela/ReactorLoop.h"
#include "platform/wirra/packets/PacketAccessManager.h"

namespace P4Runtime {

// Where packets go. Called on the reactor with the activity lock held.
class TxWays {
 public:
  virtual ~TxWays() = default;
  struct Way {
    std::string intf;
    std::optional<TxDrop> drop;  // set when there is no way: the reason
  };
  // The way of a descriptor as things are now.
  virtual Way processTxPktDesc(const ControllerTxPktDesc& desc) = 0;
  // As Wirra::PacketAccessManager has it. Throws nothing: an interface that is gone is noDevice.
  virtual void send(const std::string& intf, std::span<const Wirra::Packet::Ptr> packets,
                    std::vector<Wirra::SendResult>* results) = 0;
  virtual std::string trouble(const std::string& intf) const = 0;
};

// Packets of one port keep their order, even when their device or its mapping changes; packets
// for ingress processing count as a port of their own. While a device takes no more, only its
// ports' packets wait. Call on the reactor with the activity lock held.
class PacketTransmitter final {
 public:
  // All must outlive it.
  PacketTransmitter(Vela::ReactorLoop& loop, ControllerTxPktConfig& queue,
                    ControllerTxPktStatus& status, TxWays& ways);
  ~PacketTransmitter();

  // Any thread that holds the lock: a turn follows, however often this is called until then.
  void wake();
  // Tries waiting packets again: a device has space, came or went, or a port means another device.
  void retryWaiting();
  uint64_t taken() const { return taken_; }  // descriptors, from the queue
  // Runs after each turn.
  void onTurnIs(std::function<void()> turned) { turned_ = std::move(turned); }

 private:
  struct Entry {
    uint64_t key = 0;
    ControllerTxPktDesc desc;
  };
  struct Lane {  // while a packet of it waits
    std::deque<Entry> waiting;
    bool blocked = false;
  };
  struct Run {  // consecutive packets of one interface
    std::string intf;
    std::vector<Entry> entries;
    std::vector<Wirra::Packet::Ptr> packets;
  };

  void turn();
  void tellHeld();
  void drainLanes(size_t* budget);
  void drainQueue(size_t* budget);
  bool maybeWait(Entry& entry);
  void prepareRun(const TxWays::Way& way);
  void append(Entry entry, const TxWays::Way& way);
  void flush();
  // `entries` begins with the packet that the device had no space for.
  void hold(std::span<Entry> entries);
  void settle(const Entry& entry, Wirra::SendResult result);
  bool hasWork() const;

  Vela::ReactorLoop& loop_;
  ControllerTxPktConfig& queue_;
  ControllerTxPktStatus& status_;
  TxWays& ways_;
  std::function<void()> turned_;

  std::map<uint64_t, Lane> lanes_;
  size_t held_ = 0;  // in lanes_
  Run run_;
  std::vector<Wirra::SendResult> results_;
  uint64_t taken_ = 0;
  bool posted_ = false;
  const std::shared_ptr<PacketTransmitter*> self_;  // null inside once this is gone
};

}  // namespace P4Runtime
