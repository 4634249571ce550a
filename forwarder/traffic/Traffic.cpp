// Drawing, looking up and counting.
#include "forwarder/traffic/Traffic.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "platform/lattice/records/Packing.h"

namespace Forwarder {
namespace {

using Lattice::loadAt;

constexpr uint64_t packetsBetweenLooks = 16;  // at the clock

}  // namespace

Traffic::Traffic(ForwardingAgent& agent, std::function<Clock::time_point()> now)
    : agent_(agent), now_(std::move(now)), packet_(options_.seed) {}

void Traffic::optionsIs(TrafficOptions options) {
  options_ = std::move(options);
  packet_.seedIs(options_.seed);
  plan_ = {};  // it refers to the headers
  nextHeader_ = 0;
  pace_.start(options_.rate, now_());
}

void Traffic::statsDel() {
  stats_ = {};
  plan_ = {};  // it refers to the counts
}

void Traffic::maybePlan() {
  if (plan_.version() == agent_.tablesVersion()) return;
  plan_ = TrafficPlan(agent_, options_.headers);
  std::erase_if(stats_.tables, [&](const auto& one) { return !agent_.table(one.first); });
  counts_.clear();
  for (const PlannedTable& table : plan_.tables()) {
    counts_.push_back(&stats_.tables[table.table->name()]);
  }
  packet_.fieldCountIs(plan_.fieldCount());
}

bool Traffic::headerMeetsTables(size_t header) {
  maybePlan();
  return !plan_.headers()[header].tables.empty();
}

void Traffic::work(std::chrono::microseconds atMost) {
  if (!running()) return;
  Clock::time_point now = now_();
  const Clock::time_point end = now + atMost;
  stats_.skipped += pace_.skipOverdue(now);
  for (uint64_t left = pace_.due(now); left > 0 && now < end; now = now_()) {
    const uint64_t some = std::min(left, packetsBetweenLooks);
    send(some);
    pace_.handleSent(some);
    left -= some;
  }
  if (pace_.maybeMeasure(now)) maybePruneMembers();
}

std::optional<Traffic::Clock::time_point> Traffic::nextDue() const {
  if (!running()) return std::nullopt;
  return pace_.nextDue();
}

void Traffic::send(uint64_t packets) {
  maybePlan();
  for (uint64_t i = 0; i < packets; ++i) {
    ++stats_.packets;
    packet_.beginNext();
    if (plan_.headers().empty()) {
      sendDrawn();
    } else {
      sendGiven();
    }
  }
}

const StoredRow* Traffic::drawRow(const ProgrammedTable& table) {
  const size_t rows = table.rowCount();
  return rows == 0 ? nullptr : &table.rows()->rowAt(packet_.draw(rows));
}

void Traffic::sendDrawn() {
  const auto& tables = plan_.tables();
  if (tables.empty()) return;
  const size_t first = packet_.draw(tables.size());
  for (size_t i = 0; i < tables.size(); ++i) {
    const size_t number = (first + i) % tables.size();
    const PlannedTable& planned = tables[number];
    const StoredRow* model = drawRow(*planned.table);
    if (!model) continue;
    if (packet_.assemble(planned, model)) lookUp(number);
    for (const size_t other : planned.covered) {
      if (packet_.assemble(tables[other], nullptr)) lookUp(other);
    }
    return;
  }
}

void Traffic::sendGiven() {
  const TrafficPlan::PlannedHeader& header = plan_.headers()[nextHeader_];
  nextHeader_ = (nextHeader_ + 1) % plan_.headers().size();
  for (const auto& [field, value] : header.fields) packet_.fieldIs(field, *value);
  for (const size_t number : header.tables) {
    const PlannedTable& planned = plan_.tables()[number];
    if (packet_.assemble(planned, drawRow(*planned.table))) lookUp(number);
  }
}

void Traffic::lookUp(size_t number) {
  const PlannedTable& planned = plan_.tables()[number];
  const MatchTable& rows = *planned.table->rows();
  TableTraffic& counts = *counts_[number];
  const StoredRow* row = rows.lookup(packet_.bytes());
  if (!row) {
    ++counts.misses;
    return;
  }
  ++counts.hits;
  if (RowFlow* flow = rows.flow(*row)) {
    ++flow->packets;
    flow->bytes += options_.bytes;
    agent_.flows().countIs(*flow);
  }
  if (planned.indirect) followIndirection(planned, *row, counts);
}

void Traffic::followIndirection(const PlannedTable& table, const StoredRow& row,
                                TableTraffic& counts) {
  const char* value = row.value().data();
  const auto id = loadAt<uint32_t>(value + table.indirect->idOffset);
  TrafficStats::MemberKey key{.member = id, .direct = value[table.indirect->isGroupOffset] == 0};
  if (!key.direct) {
    const StoredRow* group = plan_.group(id);
    if (!group) return handleDangling("group", id, table, counts);
    const char* members = group->value().data();
    const auto count = loadAt<uint32_t>(members);
    if (count == 0) {
      ++counts.emptyGroup;
      return;
    }
    key.group = id;
    key.member = loadAt<uint32_t>(members + sizeof(uint32_t) * (1 + packet_.hash(count)));
  }
  if (!plan_.member(key.member)) return handleDangling("member", key.member, table, counts);
  ++stats_.members[key];
}

void Traffic::handleDangling(const char* kind, uint32_t id, const PlannedTable& table,
                             TableTraffic& counts) {
  ++counts.dangling;
  if (id == danglingId_ && !stats_.newestDangling.empty()) return;
  danglingId_ = id;
  // A group gets its row with its first member.
  stats_.newestDangling =
      fmt::format("{} {}, met in table {}, is not there{}", kind, id, table.table->name(),
                  kind == std::string_view("group") ? ", or has had no members yet" : "");
}

// Drops the counts of members and groups that are gone, before they pile up.
void Traffic::maybePruneMembers() {
  if (stats_.members.size() < 2 * membersKept_ + 1024) return;
  absl::erase_if(stats_.members, [&](const auto& one) {
    const auto& key = one.first;
    return !plan_.member(key.member) || (!key.direct && !plan_.group(key.group));
  });
  membersKept_ = stats_.members.size();
}

}  // namespace Forwarder
