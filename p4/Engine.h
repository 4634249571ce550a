// A P4 switch in software: a compiled v1model program, its tables, and packets as bytes. It knows
// no sockets and no shared memory.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "p4/compile/Image.h"
#include "p4/execute/ExternState.h"
#include "p4/execute/Switch.h"
#include "p4/program/Program.h"
#include "p4/tables/TableStore.h"

namespace P4 {

struct EngineOptions {
  uint32_t dropPort = 511;
  uint32_t priorityQueues = 1;  // a port
  uint64_t seed = 1;            // of the program's random numbers
};

// Two threads may use it: one for packets, one for everything else. The packet thread never waits;
// changes of tables become visible to it by tables().commit(), each commit as a whole.
class Engine {
 public:
  // Throws ProgramError: the text is no JSON, no program for v1model, or uses what is not executed.
  explicit Engine(std::string_view json, const EngineOptions& options = {});
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // --- the packet thread

  // Adds to `outputs` the frames and digests that the frame brings about; frames for a port that
  // does not exist are the caller's to drop, those for the CPU port are packet-ins. `now` is in
  // microseconds since the switch began.
  void process(uint32_t port, std::span<const uint8_t> frame, uint64_t now, Outputs& outputs);
  // The same for many, with one look at which tables are in force: begin(), processNext()...,
  // end().
  void begin() { side_ = &tables_.sides().enter(); }
  void processNext(uint32_t port, std::span<const uint8_t> frame, uint64_t now, Outputs& outputs) {
    switch_.process(*side_, port, frame, now, outputs);
  }
  void end() { tables_.sides().leave(); }
  // Digest lists that have waited long enough.
  void digestsDue(uint64_t now, std::vector<DigestList>& ready);
  void acknowledgeDigest(uint32_t learnList, uint64_t listId);
  void setDigest(uint32_t learnList, const DigestConfig& config);
  void traceIs(Trace* trace) { switch_.traceIs(trace); }  // of packets to come; null: none

  const SwitchCounts& counts() const { return switch_.counts(); }

  // --- the other thread

  const Program& program() const { return program_; }
  TableStore& tables() { return tables_; }

  std::optional<Counts> counter(uint32_t array, uint32_t index) const;
  bool setCounter(uint32_t array, uint32_t index, const Counts& counts);
  bool setMeter(uint32_t array, uint32_t index, const std::optional<MeterRates>& rates);
  // Big-endian bytes, as many as the cell's width takes. Nothing beyond the array.
  std::optional<std::string> registerCell(uint32_t array, uint32_t index) const;
  bool setRegister(uint32_t array, uint32_t index, std::string_view bytes);
  // Takes over the cells of counters and registers that both programs declare in the same way, and
  // the counts and last hits of entries, which have the same cookies in both.
  void takeCounts(const Engine& former);
  // Entries without a hit for their time to live, to be asked for once a second; an entry that
  // stays idle is named every second time.
  std::vector<Entry*> idleEntries(uint64_t now);

 private:
  void takeCountsOfEntries(uint32_t table, const Engine& former);

  Program program_;
  Image image_;
  ExternState externs_;
  TableStore tables_;
  Switch switch_;
  const Side* side_ = nullptr;
};

// Positions by name; nothing when the program has no such object.
std::optional<uint32_t> tableNamed(const Program& program, std::string_view name);
std::optional<uint32_t> profileNamed(const Program& program, std::string_view name);
std::optional<uint32_t> counterNamed(const Program& program, std::string_view name);
std::optional<uint32_t> meterNamed(const Program& program, std::string_view name);
std::optional<uint32_t> registerNamed(const Program& program, std::string_view name);
std::optional<uint32_t> learnListNamed(const Program& program, std::string_view name);
std::optional<uint32_t> valueSetNamed(const Program& program, std::string_view name);
// Action names are unique within a table only.
std::optional<uint32_t> actionNamed(const Program& program, uint32_t table, std::string_view name);
// Of the tables that use a profile.
std::optional<uint32_t> profileActionNamed(const Program& program, uint32_t profile,
                                           std::string_view name);

}  // namespace P4
