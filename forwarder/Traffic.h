// Synthetic packets: drawn or given, looked up in the forwarder's tables, and counted.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "forwarder/ForwardingAgent.h"
#include "forwarder/HeaderText.h"
#include "forwarder/TrafficPlan.h"
#include "forwarder/TrafficStats.h"

namespace Forwarder {

// A plain value.
struct TrafficOptions {
  uint64_t rate = 0;                  // packets a second; 0: none
  uint64_t bytes = 64;                // a packet's
  uint64_t seed = 1;                  // the same tables and the same seed make the same packets
  std::vector<PacketHeader> headers;  // taken in turn; none: all fields are drawn
};

// A packet is a set of header fields by column name. Without given headers, a table and one of its
// rows are drawn, and the fields under the row's match with random bits where it does not care; so
// traffic hits, and look-up decides what. Every other table whose key columns are among these
// fields is looked up too. With given headers, the tables that match on a given field are looked
// up, and what is not given is drawn in the same way for each. One thread uses it.
class Traffic {
 public:
  using Clock = std::chrono::steady_clock;
  explicit Traffic(ForwardingAgent& agent, std::function<Clock::time_point()> now = Clock::now);

  const TrafficOptions& options() const { return options_; }
  void optionsIs(TrafficOptions options);  // begins the packets anew, from the seed
  // Whether a table matches on a field of this header of the options.
  bool headerMeetsTables(size_t header);
  const TrafficStats& stats() const { return stats_; }
  void statsDel();

  bool running() const { return options_.rate > 0; }
  // Sends packets that are due, for so long at most.
  void work(std::chrono::microseconds atMost);
  std::optional<Clock::time_point> nextDue() const;    // empty: it is not running
  uint64_t achievedRate() const { return achieved_; }  // packets in the last whole second
  bool behind() const { return behind_; }  // the last whole second had too little time for them

  void send(uint64_t packets);  // at once, whatever the rate

 private:
  void maybePlan();
  uint64_t due(Clock::time_point now);
  void doMeasure(Clock::time_point now);
  void sendDrawn();
  void sendGiven();
  uint64_t drawn(uint64_t below);
  bool assembled(const PlannedTable& table, const StoredRow* model);
  void drawField(const MatchField& field, const StoredRow* model, FieldValue& value);
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
  std::vector<TableTraffic*> counts_;  // in stats_, for each of the plan's tables
  uint32_t danglingId_ = 0;            // that stats_.newestDangling names
  size_t membersKept_ = 0;             // when they were pruned
  std::mt19937_64 random_;
  size_t nextHeader_ = 0;
  // The packet being made.
  std::vector<FieldValue> values_;  // by field number
  std::vector<uint64_t> valueOf_;   // the packet that the value is of
  uint64_t packet_ = 0;
  uint64_t rest_ = 0;           // stands for the headers that no table matches on
  std::vector<uint8_t> bytes_;  // as the table being looked up wants it
  // How many have to be sent by when.
  Clock::time_point countedFrom_{};  // so many packets have been sent or skipped since:
  uint64_t counted_ = 0;
  Clock::time_point secondBegan_{};
  uint64_t sentInSecond_ = 0;
  uint64_t skippedInSecond_ = 0;
  uint64_t achieved_ = 0;
  bool behind_ = false;
};

}  // namespace Forwarder
