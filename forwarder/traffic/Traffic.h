// Synthetic packets: drawn or given, looked up in the forwarder's tables, and counted.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "forwarder/follow/ForwardingAgent.h"
#include "forwarder/traffic/SyntheticPacket.h"
#include "forwarder/traffic/TrafficPace.h"
#include "forwarder/traffic/TrafficPlan.h"
#include "forwarder/traffic/TrafficStats.h"

namespace Forwarder {

// A plain value.
struct TrafficOptions {
  uint64_t rate = 0;                  // packets a second; 0: off
  uint64_t bytes = 64;                // of a packet
  uint64_t seed = 1;                  // the same tables and the same seed make the same packets
  std::vector<PacketHeader> headers;  // taken in turn; without any, all fields are drawn
};

// A packet is a set of header fields by column name. Without given headers, a table and one of its
// rows are drawn, and the fields under the row's match with random bits where it does not care; so
// traffic hits, and the look-up decides which row. Every other table whose key columns are among
// these fields is looked up too. With given headers, the tables that match on a given field are
// looked up; the other fields are drawn in the same way for each.
//
// Threads: one at a time, the agent's. Lifetime: the agent outlives it. Errors: none; a packet that
// does not fit a table's columns passes that table by.
class Traffic {
 public:
  using Clock = std::chrono::steady_clock;
  explicit Traffic(ForwardingAgent& agent, std::function<Clock::time_point()> now = Clock::now);

  const TrafficOptions& options() const { return options_; }
  void optionsIs(TrafficOptions options);  // draws from the seed again
  // Whether a table matches on a field of this header of the options.
  bool headerMeetsTables(size_t header);
  const TrafficStats& stats() const { return stats_; }
  void statsDel();

  bool running() const { return options_.rate > 0; }
  // Sends packets that are due, for so long at most.
  void work(std::chrono::microseconds atMost);
  std::optional<Clock::time_point> nextDue() const;  // nothing while it is not running
  const TrafficPace& pace() const { return pace_; }

  void send(uint64_t packets);  // at once, in spite of the rate

 private:
  void maybePlan();
  void sendDrawn();
  void sendGiven();
  const StoredRow* drawRow(const ProgrammedTable& table);  // null in an empty table
  void lookUp(size_t table);
  void followIndirection(const PlannedTable& table, const StoredRow& row, TableTraffic& counts);
  void handleDangling(const char* kind, uint32_t id, const PlannedTable& table,
                      TableTraffic& counts);
  void maybePruneMembers();

  ForwardingAgent& agent_;
  const std::function<Clock::time_point()> now_;
  TrafficOptions options_;
  TrafficStats stats_;
  TrafficPlan plan_;
  TrafficPace pace_;
  std::vector<TableTraffic*> counts_;  // in stats_, for each of the plan's tables
  uint32_t danglingId_ = 0;            // that stats_.newestDangling names
  size_t membersKept_ = 0;             // when they were pruned
  size_t nextHeader_ = 0;
  SyntheticPacket packet_;
};

}  // namespace Forwarder
