// The switch's way of packets: a thread that reads ports, lets the engine process, and sends.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "forwarder/packets/EngineSlot.h"
#include "forwarder/packets/PortBook.h"
#include "forwarder/packets/TraceBook.h"

namespace Forwarder {

struct PacketOptions {
  std::optional<uint32_t> cpuPort;           // nothing: there is no CPU port
  std::string cpuDevice = "p4controller";    // a TAP, or this process's end of a veth pair
  std::optional<std::string> pcapDirectory;  // of DEVICE_in.pcap and DEVICE_out.pcap of each port
};

// Called by the packet thread; they may not block. None is needed.
struct PacketSinks {
  // Digest lists that the engine has handed over.
  std::function<void(const std::shared_ptr<P4::Engine>&, std::vector<P4::DigestList>&&)> digests;
  // A port comes (once portsAre() names it), or its device goes up, down or away. Not for the CPU
  // port.
  std::function<void(uint32_t port, bool up)> portState;
  std::function<void(const std::string& line)> log;
};

enum class PcapWay : uint8_t { both, in, out };

// Threads: any, unless said; the public functions never wait for the packet thread's work.
// Errors: trouble with devices is logged once, stands in ports(), and is tried again five
// times a second. Lifetime: slot and sinks outlive it; the destructor joins the thread.
class PacketThread {
 public:
  PacketThread(EngineSlot& slot, PacketOptions options, PacketSinks sinks);
  ~PacketThread();
  PacketThread(const PacketThread&) = delete;
  PacketThread& operator=(const PacketThread&) = delete;

  void start();  // once; signals that the caller has blocked stay blocked in the thread
  const PacketOptions& options() const;

  // Port id -> device. Ports that stay keep their counts. The CPU port's id is passed over.
  void portsAre(std::map<uint32_t, std::string> devices);
  std::vector<PortReport> ports() const;  // by id
  // Frames that programs have sent to ports that are not there.
  uint64_t toNoPort() const;
  // Of the engine in force, at most a second old.
  P4::SwitchCounts switchCounts() const;

  // The engine's time: microseconds since the process began, of a steady clock.
  static uint64_t now();
  // Runs between two bursts of packets: for functions of the engine that are the packet thread's,
  // such as acknowledgeDigest() and setDigest(). Let it hold the engine that it works on.
  void post(std::function<void()> work);

  // Writes a port's packets into a file from now on, in place of the former one for this way; an
  // empty path ends that. A file takes 1 GiB at most. Throws CommandError: no such port, or the
  // file cannot be written.
  void pcapIs(uint32_t port, PcapWay way, const std::string& path);

  // The way of the packets to come, in the program's words. Keeps the newest hundred packets until
  // takeTrace() takes them.
  void traceIs(bool on, std::optional<uint32_t> port = {});
  bool tracing() const;
  std::string takeTrace();
  // Throws CommandError when too many are under way. A text once as many packets have come as
  // requested, or the time is over; nothing before.
  TraceBook::LaterText requestTrace(const TraceRequest& request);
  // Readable once a later text is complete. The maker's thread.
  int answerDescriptor() const;
  void clearAnswerSignal();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Forwarder
