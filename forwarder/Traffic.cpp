// Drawing, looking up and counting; and keeping the rate without ever catching up on much.
#include "forwarder/Traffic.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "platform/lattice/IpGenPrefix.h"
#include "platform/lattice/Packing.h"

namespace Forwarder {
namespace {

using Lattice::IpGenPrefix;
using Lattice::loadAt;
using std::chrono::nanoseconds;

constexpr uint64_t packetsBetweenLooks = 16;  // at the clock
constexpr uint64_t nanosecondsInSecond = 1'000'000'000;

// `count` packets at a rate.
nanoseconds durationOf(uint64_t count, uint64_t rate) {
  return nanoseconds(
      static_cast<int64_t>(static_cast<unsigned __int128>(count) * nanosecondsInSecond / rate));
}

// A hash that is the same in each run, unlike those of hash tables.
uint64_t hashOf(const std::vector<uint8_t>& bytes, uint64_t seed) {
  uint64_t hash = seed ^ 0xcbf29ce484222325ULL;
  for (const uint8_t byte : bytes) hash = (hash ^ byte) * 0x100000001b3ULL;
  hash ^= hash >> 32;
  return hash * 0x9e3779b97f4a7c15ULL;
}

uint64_t scaled(uint64_t random, uint64_t below) {
  return static_cast<uint64_t>(static_cast<unsigned __int128>(random) * below >> 64);
}

// A value in the room that a column gives it; false when it does not fit.
bool placed(const FieldValue& value, uint8_t* to, size_t size) {
  const size_t extra = value.size() > size ? value.size() - size : 0;
  for (size_t i = 0; i < extra; ++i) {
    if (value[i] != 0) return false;
  }
  const size_t pad = size > value.size() ? size - value.size() : 0;
  std::memset(to, 0, pad);
  std::copy(value.begin() + static_cast<ptrdiff_t>(extra), value.end(), to + pad);
  return true;
}

// Sixteen bytes are an IPv6 address; a number is an IPv4 address.
bool placedAddress(const FieldValue& value, uint8_t* to) {
  IpGenPrefix prefix;
  const bool v6 = value.size() == 16;
  prefix.family = v6 ? IpGenPrefix::ipv6 : IpGenPrefix::ipv4;
  if (!placed(value, prefix.address.data(), v6 ? 16 : 4)) return false;
  std::memcpy(to, &prefix, sizeof prefix);
  return true;
}

}  // namespace

Traffic::Traffic(ForwardingAgent& agent, std::function<Clock::time_point()> now)
    : agent_(agent), now_(std::move(now)), random_(options_.seed) {}

void Traffic::optionsIs(TrafficOptions options) {
  options_ = std::move(options);
  random_.seed(options_.seed);
  plan_ = {};  // it refers to the headers
  nextHeader_ = 0;
  countedFrom_ = secondBegan_ = now_();
  counted_ = sentInSecond_ = skippedInSecond_ = achieved_ = 0;
  behind_ = false;
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
  values_.assign(plan_.fieldCount(), {});
  valueOf_.assign(plan_.fieldCount(), 0);
}

bool Traffic::headerMeetsTables(size_t header) {
  maybePlan();
  return !plan_.headers()[header].tables.empty();
}

void Traffic::work(std::chrono::microseconds atMost) {
  if (!running()) return;
  Clock::time_point now = now_();
  const Clock::time_point end = now + atMost;
  for (uint64_t left = due(now); left > 0 && now < end; now = now_()) {
    const uint64_t some = std::min(left, packetsBetweenLooks);
    send(some);
    counted_ += some;
    sentInSecond_ += some;
    left -= some;
  }
  if (now - secondBegan_ >= std::chrono::seconds(1)) doMeasure(now);
}

// A tenth of a second is caught up on; what is older is left out.
uint64_t Traffic::due(Clock::time_point now) {
  const auto elapsed = static_cast<uint64_t>(nanoseconds(now - countedFrom_).count());
  const auto all = static_cast<uint64_t>(static_cast<unsigned __int128>(elapsed) * options_.rate /
                                         nanosecondsInSecond);
  const uint64_t most = options_.rate / 10 + 1;
  if (all - counted_ > most) {
    const uint64_t skipped = all - counted_ - most;
    counted_ += skipped;
    skippedInSecond_ += skipped;
    stats_.skipped += skipped;
  }
  return all - counted_;
}

void Traffic::doMeasure(Clock::time_point now) {
  const std::chrono::duration<double> elapsed = now - secondBegan_;
  achieved_ = static_cast<uint64_t>(static_cast<double>(sentInSecond_) / elapsed.count() + 0.5);
  behind_ = skippedInSecond_ > options_.rate / 100;
  secondBegan_ = now;
  sentInSecond_ = skippedInSecond_ = 0;
  maybePruneMembers();
}

std::optional<Traffic::Clock::time_point> Traffic::nextDue() const {
  if (!running()) return std::nullopt;
  const uint64_t some = std::max<uint64_t>(1, options_.rate / 1000);
  return countedFrom_ + durationOf(counted_ + some, options_.rate);
}

void Traffic::send(uint64_t packets) {
  maybePlan();
  for (uint64_t i = 0; i < packets; ++i) {
    ++stats_.packets;
    ++packet_;
    rest_ = random_();
    if (plan_.headers().empty()) {
      sendDrawn();
    } else {
      sendGiven();
    }
  }
}

uint64_t Traffic::drawn(uint64_t below) { return scaled(random_(), below); }

void Traffic::sendDrawn() {
  const auto& tables = plan_.tables();
  if (tables.empty()) return;
  const size_t first = drawn(tables.size());
  for (size_t i = 0; i < tables.size(); ++i) {
    const size_t number = (first + i) % tables.size();
    const PlannedTable& planned = tables[number];
    const size_t rows = planned.table->rowCount();
    if (rows == 0) continue;
    if (assembled(planned, &planned.table->rows()->rowAt(drawn(rows)))) lookUp(number);
    for (const size_t other : planned.covered) {
      if (assembled(tables[other], nullptr)) lookUp(other);
    }
    return;
  }
}

void Traffic::sendGiven() {
  const TrafficPlan::PlannedHeader& header = plan_.headers()[nextHeader_];
  nextHeader_ = (nextHeader_ + 1) % plan_.headers().size();
  for (const auto& [field, value] : header.fields) {
    values_[field] = *value;
    valueOf_[field] = packet_;
  }
  for (const size_t number : header.tables) {
    const PlannedTable& planned = plan_.tables()[number];
    const size_t rows = planned.table->rowCount();
    const StoredRow* model = rows == 0 ? nullptr : &planned.table->rows()->rowAt(drawn(rows));
    if (assembled(planned, model)) lookUp(number);
  }
}

// The packet as a table wants it. Fields that it does not have yet are drawn under the row's match,
// or at random without one. False when a value does not fit its column: such a packet is none of
// this table's.
bool Traffic::assembled(const PlannedTable& table, const StoredRow* model) {
  const MatchLayout& layout = table.table->rows()->layout();
  bytes_.resize(layout.packetSize());
  for (size_t i = 0; i < layout.fields().size(); ++i) {
    const MatchField& field = layout.fields()[i];
    FieldValue& value = values_[table.fields[i]];
    if (valueOf_[table.fields[i]] != packet_) {
      drawField(field, model, value);
      valueOf_[table.fields[i]] = packet_;
    }
    uint8_t* to = bytes_.data() + field.packetOffset;
    const bool fits = field.kind == MatchField::Kind::prefix ? placedAddress(value, to)
                                                             : placed(value, to, field.size);
    if (!fits) return false;
  }
  return true;
}

void Traffic::drawField(const MatchField& field, const StoredRow* model, FieldValue& value) {
  const auto* key = model ? reinterpret_cast<const uint8_t*>(model->key().data()) : nullptr;
  const uint8_t* fixed = key ? key + field.keyOffset : nullptr;
  FieldValue mask;
  if (field.kind == MatchField::Kind::prefix) {
    IpGenPrefix prefix{.family = IpGenPrefix::ipv4};
    if (key) std::memcpy(&prefix, fixed, sizeof prefix);
    const size_t size = prefix.family == IpGenPrefix::ipv6 ? 16 : 4;
    if (key) fixed += offsetof(IpGenPrefix, address);
    mask.assign(size, 0xff);
    clearHostBits(mask.data(), size, prefix.length);
  } else if (field.kind == MatchField::Kind::ternary && key) {
    mask.assign(key + field.maskOffset, key + field.maskOffset + field.size);
  } else {
    mask.assign(field.size, 0xff);
  }
  value.resize(mask.size());
  for (size_t i = 0; i < value.size(); i += sizeof(uint64_t)) {
    const uint64_t random = random_();
    std::memcpy(value.data() + i, &random, std::min(sizeof random, value.size() - i));
  }
  if (!fixed) return;
  for (size_t i = 0; i < value.size(); ++i) value[i] ^= (value[i] ^ fixed[i]) & mask[i];
}

void Traffic::lookUp(size_t number) {
  const PlannedTable& planned = plan_.tables()[number];
  const MatchTable& rows = *planned.table->rows();
  TableTraffic& counts = *counts_[number];
  const StoredRow* row = rows.lookup(bytes_);
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
    const uint64_t which = scaled(hashOf(bytes_, rest_), count);
    key.group = id;
    key.member = loadAt<uint32_t>(members + sizeof(uint32_t) * (1 + which));
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

// Members and groups come and go; their counts do not stay for ever.
void Traffic::maybePruneMembers() {
  if (stats_.members.size() < 2 * membersKept_ + 1024) return;
  absl::erase_if(stats_.members, [&](const auto& one) {
    const auto& key = one.first;
    return !plan_.member(key.member) || (!key.direct && !plan_.group(key.group));
  });
  membersKept_ = stats_.members.size();
}

}  // namespace Forwarder
