#include "P4Runtime/monitoring/AgentMetrics.h"

#include <charconv>
#include <limits>

#include "P4Runtime/monitoring/CodeNames.h"
#include "P4Runtime/monitoring/Controllers.h"
#include "PI/frontends/proto/write_statistics.h"

namespace P4Runtime {
namespace {

using pi::fe::proto::DurationHistogram;

constexpr double nanosecondsPerSecond = 1e9;
constexpr const char* journalStatusPath = "p4runtime/status/journal";

// An attribute that is a count.
struct Count {
  const char* attribute;
  const char* label;
};
constexpr Count reports[] = {{"reportsAccepted", "accepted"},
                             {"reportsDropped", "stale"},
                             {"reportsOnNoRow", "on_no_row"},
                             {"doorbellMessagesDropped", "dropped"}};
constexpr Count packetsIn[] = {
    {"inToControllers", "to_controllers"}, {"inDroppedMissed", "missed"},
    {"inDroppedRefused", "refused"},       {"inDroppedNoDevice", "no_pipeline"},
    {"inDroppedNoPrimary", "no_primary"},  {"inDroppedSlowController", "slow_controller"},
    {"inDroppedMalformed", "malformed"}};
constexpr Count packetsOut[] = {{"out", "sent"},
                                {"outRefusedNotPrimary", "not_primary"},
                                {"outRefusedMetadata", "metadata"},
                                {"outRefusedNoPipeline", "no_pipeline"},
                                {"outRefusedQueueFull", "queue_full"},
                                {"outRefusedMemory", "memory"},
                                {"outRefusedHeader", "header"},
                                {"outDroppedNoPacket", "no_packet"},
                                {"outDroppedNoMapping", "no_mapping"},
                                {"outDroppedNoPam", "no_device"},
                                {"outDroppedDeviceDown", "device_down"},
                                {"outDroppedTooLong", "too_long"},
                                {"outDroppedFailed", "failed"}};

class Writer {
 public:
  Writer(const Observed& agent, Exposition& to) : agent_(agent), to_(to) {}

  void state() {
    flag("korvel_ready", "Whether the server has the pipeline and all entries.", agentStatusPath,
         "serverReady");
    flag("korvel_critical", "Whether Writes are refused because the hardware is not trusted.",
         systemStatusPath, "critical");
    const std::string reason = text(systemStatusPath, "criticalReason");
    to_.gauge("korvel_critical_reason", "The reason of the critical state, while it lasts.");
    if (!reason.empty()) to_.sample(uint64_t{1}, {{"reason", reason}});
    to_.gauge("korvel_forwarding_agents", "Forwarding agents that are attached.");
    to_.sample(number(agentStatusPath, "forwardingAgents"));
    to_.gauge("korvel_failed_entries", "Entries that a forwarding agent could not program.");
    to_.sample(number(agentStatusPath, "failedEntries"));
  }

  void writes() {
    const auto& statistics = pi::fe::proto::writeStatistics();
    codes("korvel_writes", "Write calls by their status.", statistics.writes);
    codes("korvel_updates", "Updates of Writes by their outcome.", statistics.updates);
    to_.histogram("korvel_write_stage_seconds", "The time that a stage of Writes takes.");
    for (size_t i = 0; i < statistics.stages.size(); ++i) {
      stage(writeStageNames[i], statistics.stages[i].totals());
    }
  }

  void tables() {
    const std::vector<TableFill> uses = tableFills(*agent_.tableInfo);
    to_.gauge("korvel_table_entries", "Rows of a table.");
    for (const TableFill& use : uses) to_.sample(use.entries, {{"table", use.name}});
    to_.gauge("korvel_table_size", "Rows that a table may have, where that is limited.");
    for (const TableFill& use : uses) {
      if (use.size != 0) to_.sample(use.size, {{"table", use.name}});
    }
    to_.gauge("korvel_forwarding_agent_changes_behind",
              "Changes of tables that a forwarding agent has yet to receive.");
    const uint64_t newest = agent_.store.committedSequence();
    for (const Lattice::SubscriberInfo& one : agent_.tables.subscribers()) {
      to_.sample(newest - std::min(newest, one.sequence),
                 {{"agent", one.name}, {"pid", std::to_string(one.pid)}});
    }
  }

  void countsByFate() {
    to_.counter("korvel_reports", "Reports of forwarding agents by their fate.");
    for (const Count& one : reports) {
      to_.sample(number(agentStatusPath, one.attribute), {{"fate", one.label}});
    }
    to_.counter("korvel_packets", "Packets between the CPU device and controllers by their fate.");
    packets("in", packetsIn);
    packets("out", packetsOut);
    to_.gauge("korvel_packets_waiting", "Packets of controllers that are yet to be sent.");
    to_.sample(number(packetStatusPath, "outWaiting"));
    to_.counter("korvel_connections_refused", "Connections that the server closed at once.");
    to_.sample(number(agentStatusPath, "connectionsRefused"));
  }

  void process() {
    const ProcessUse use = processUse();
    to_.gauge("korvel_store_bytes", "Bytes of the state directory's store that are in use.");
    to_.sample(number(agentStatusPath, "stateDirectoryBytes"));
    to_.gauge("korvel_journal_bytes", "Bytes of the journal's files.");
    to_.sample(number(journalStatusPath, "bytes"));
    to_.counter("korvel_journal_lost_records", "Records that are missing in the journal.");
    to_.sample(number(journalStatusPath, "lost"));
    to_.gauge("process_resident_memory_bytes", "Memory of the agent that is in use.");
    to_.sample(use.residentBytes);
    to_.gauge("process_open_fds", "Descriptors that the agent has open.");
    to_.sample(use.openDescriptors);
    to_.gauge("process_start_time_seconds", "The start of the agent, in seconds since 1970.");
    to_.sample(use.startSeconds);
    to_.counter("process_cpu_seconds", "Processor time that the agent has used.");
    to_.sample(use.cpuSeconds);
  }

 private:
  std::string text(const char* path, const char* attribute) const {
    return attributeText(agent_.stateDatabase, path, attribute);
  }
  uint64_t number(const char* path, const char* attribute) const {
    const std::string digits = text(path, attribute);
    uint64_t value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return value;
  }
  void flag(const char* name, const char* help, const char* path, const char* attribute) {
    to_.gauge(name, help);
    to_.sample(uint64_t{text(path, attribute) == "true"});
  }
  template <typename Counts>
  void codes(const char* name, const char* help, const Counts& counts) {
    to_.counter(name, help);
    for (size_t code = 0; code < counts.size(); ++code) {
      const uint64_t count = counts[code].load(std::memory_order_relaxed);
      if (count != 0 || code == 0) to_.sample(count, {{"code", statusCodeNames[code]}});
    }
  }
  void stage(const char* name, const DurationHistogram::Totals& totals) {
    uint64_t count = 0;
    for (size_t i = 0; i < totals.counts.size(); ++i) {
      count += totals.counts[i];
      const bool isLast = i == DurationHistogram::kEnds.size();
      const double end =
          isLast ? std::numeric_limits<double>::infinity()
                 : static_cast<double>(DurationHistogram::kEnds[i]) / nanosecondsPerSecond;
      to_.bucket(end, count, {{"stage", name}});
    }
    to_.sum(static_cast<double>(totals.nanoseconds) / nanosecondsPerSecond, count,
            {{"stage", name}});
  }
  template <size_t size>
  void packets(const char* direction, const Count (&counts)[size]) {
    for (const Count& one : counts) {
      to_.sample(number(packetStatusPath, one.attribute),
                 {{"direction", direction}, {"fate", one.label}});
    }
  }

  const Observed& agent_;
  Exposition& to_;
};

}  // namespace

std::string metricsText(const Observed& agent, Exposition::Form form) {
  Exposition exposition(form);
  Writer writer(agent, exposition);
  writer.state();
  writer.writes();
  writer.tables();
  writeRoles(exposition);
  writer.countsByFate();
  writer.process();
  return exposition.finish();
}

}  // namespace P4Runtime
