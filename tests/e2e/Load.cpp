// See Load.h.
#include "tests/e2e/Load.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <numeric>

using namespace TestSupport;

namespace {

// Ranges of numbers by kind; numbers of members and groups are their ids, too.
constexpr uint32_t routes = 0;
constexpr uint32_t rules = 160;  // of the access list, with meters
constexpr uint32_t members = 200;
constexpr uint32_t groups = 240;
constexpr uint32_t indirect = 260;  // entries that name a member or a group
constexpr uint32_t oneShots = 320;
constexpr uint32_t numbers = 380;
constexpr size_t batchSize = 20;

// Members and groups that a thing names, by number.
std::set<uint32_t> referencesOf(const p4::v1::Entity& entity) {
  const auto& action = entity.table_entry().action();
  if (action.action_profile_member_id()) return {action.action_profile_member_id()};
  if (action.action_profile_group_id()) return {action.action_profile_group_id()};
  std::set<uint32_t> named;
  for (const auto& member : entity.action_profile_group().members()) {
    named.insert(member.member_id());
  }
  return named;
}

// Its own row, and the rows of the members and the group behind a one-shot set.
uint64_t rowsOf(const p4::v1::Entity& entity) {
  const auto& action = entity.table_entry().action();
  if (!action.has_action_profile_action_set()) return 1;
  return 2 +
         static_cast<uint64_t>(action.action_profile_action_set().action_profile_actions_size());
}

// Nothing of the Write was run: it may be sent again.
bool isWithoutForwarder(const WriteOutcome& outcome) {
  return outcome.status.error_message().find("no forwarding agent is attached") !=
         std::string::npos;
}

}  // namespace

uint32_t printedSeed() {
  const char* given = std::getenv("KORVEL_SEED");
  const auto seed = static_cast<uint32_t>(given ? std::atoi(given) : 20240607);
  std::cout << "KORVEL_SEED=" << seed << std::endl;
  return seed;
}

Load::Load(Switch& on, uint32_t seed)
    : switch_(on),
      constant_(on.controllerView()),
      random_(seed),
      others_{{on, 0, seed}, {on, 1, seed}} {}

void Load::start() {
  stopping_ = false;
  writing_ = true;
  failure_ = {};
  thread_ = std::thread([this] { run(); });
  for (RouteWriter& other : others_) other.start();
}

void Load::stop() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
  for (RouteWriter& other : others_) other.stop();
}

const WriteOutcome& Load::failure() const {
  for (const RouteWriter& other : others_) {
    if (failure_.ok() && !other.failure().ok()) return other.failure();
  }
  return failure_;
}

uint64_t Load::sentRows() const {
  return std::accumulate(std::begin(others_), std::end(others_), sentRows_.load(),
                         [](uint64_t sum, const auto& other) { return sum + other.sentRows(); });
}

uint64_t Load::lastBatchRows() const {
  return std::accumulate(std::begin(others_), std::end(others_), lastBatchRows_.load(),
                         [](uint64_t sum, const auto& other) { return sum + other.lastRows(); });
}

void Load::run() {
  while (!stopping_ && failure_.ok()) {
    const std::vector<p4::v1::Update> batch = nextBatch();
    sentRows_ += lastBatchRows_;
    do {
      failure_ = switch_.controller().write(batch);
    } while (!stopping_ && isWithoutForwarder(failure_));
    if (!failure_.ok()) break;
    before_ = after_;
    ++acknowledged_;
  }
  writing_ = false;
}

WriteOutcome Load::writeOnce() {
  const WriteOutcome outcome = switch_.controller().write(nextBatch());
  if (!outcome.ok() && outcome.errors.empty()) return outcome;  // for broken() to find out
  for (size_t i = 0; i < order_.size(); ++i) {
    Things& right = outcome.code(i) == grpc::OK ? after_ : before_;
    Things& wrong = outcome.code(i) == grpc::OK ? before_ : after_;
    const auto thing = right.find(order_[i]);
    wrong.erase(order_[i]);
    if (thing != right.end()) wrong.insert(*thing);
  }
  return outcome;
}

std::vector<p4::v1::Update> Load::nextBatch() {
  std::vector<uint32_t> shuffled(numbers);
  std::iota(shuffled.begin(), shuffled.end(), 0);
  std::shuffle(shuffled.begin(), shuffled.end(), random_);
  std::vector<p4::v1::Update> batch;
  order_.clear();
  written_.clear();
  referenced_.clear();
  lastBatchRows_ = 0;
  for (const uint32_t number : shuffled) {
    if (auto update = nextUpdate(number)) batch.push_back(std::move(*update));
    if (batch.size() == batchSize) break;
  }
  return batch;
}

// Nothing when this number's turn does not fit into the batch. Brings after_ up to date.
std::optional<p4::v1::Update> Load::nextUpdate(uint32_t number) {
  const auto former = before_.find(number);
  const bool isThere = former != before_.end();
  const bool goes = isThere && random_() % 3 == 0;
  if (goes && isReferenced(number)) return {};
  const auto next = goes ? former->second : made(number);
  if (!next) return {};
  Numbers references = referencesOf(*next);
  if (isThere) references.merge(referencesOf(former->second));
  if (!independent(number, references)) return {};
  order_.push_back(number);
  written_.insert(number);
  referenced_.merge(references);
  lastBatchRows_ += rowsOf(*next) + (isThere ? rowsOf(former->second) : 0);
  if (goes) {
    after_.erase(number);
    return deleteOf(*next);
  }
  after_[number] = *next;
  if (!isThere) return insertOf(*next);
  const auto& entry = next->table_entry();
  if (!entry.has_meter_config() || random_() % 2) return modifyOf(*next);
  p4::v1::DirectMeterEntry meter;  // rules differ in nothing else
  *meter.mutable_config() = entry.meter_config();
  *meter.mutable_table_entry() = entry;
  meter.mutable_table_entry()->clear_meter_config();
  return modifyOf(meter);
}

std::optional<p4::v1::Entity> Load::made(uint32_t number) {
  const Pipeline& pipeline = switch_.pipeline();
  const uint32_t any = 1 + random_() % 1000;
  if (number >= oneShots) {
    return entityOf(Router::lag(pipeline, number - oneShots, any % 500, random_() % 4));
  }
  if (number >= indirect) return madeReference(number - indirect);
  if (number >= groups) return entityOf(madeGroup(number));
  if (number >= members) return entityOf(Router::member(pipeline, number, any));
  if (number >= rules) {
    return entityOf(Router::aclRule(pipeline, number - rules).meter(any, any, 2 * any, 2 * any));
  }
  return entityOf(Router::route(pipeline, number, any));
}

p4::v1::ActionProfileGroup Load::madeGroup(uint32_t id) {
  std::map<uint32_t, int> weights;
  for (uint32_t i = random_() % 5; i > 0; --i) {
    const uint32_t member = someOf(members, groups);
    if (member) weights[member] = static_cast<int>(1 + random_() % 4);
  }
  return Router::group(switch_.pipeline(), id, weights);
}

std::optional<p4::v1::Entity> Load::madeReference(uint32_t i) {
  EntryOf entry = Router::wcmp(switch_.pipeline(), i);
  if (random_() % 2) {
    const uint32_t group = someOf(groups, indirect);
    if (group) return entityOf(entry.group(group));
  }
  const uint32_t member = someOf(members, groups);
  if (!member) return {};
  return entityOf(entry.member(member));
}

uint32_t Load::someOf(uint32_t from, uint32_t to) {
  const uint32_t number = from + random_() % (to - from);
  const auto found = before_.lower_bound(number);
  return found != before_.end() && found->first < to ? found->first : 0;
}

bool Load::isReferenced(uint32_t number) const {
  if (number < members || number >= indirect) return false;
  for (const Things* things : {&before_, &after_}) {
    for (const auto& [other, thing] : *things) {
      if (referencesOf(thing).contains(number)) return true;
    }
  }
  return false;
}

// Whether an update can stand in the batch so far: its references exist and stay as they are, and
// nothing in the batch refers to it.
bool Load::independent(uint32_t number, const Numbers& references) const {
  return !referenced_.contains(number) &&
         std::all_of(references.begin(), references.end(), [this](uint32_t named) {
           return before_.contains(named) && !written_.contains(named);
         });
}

View Load::viewOf(const Things& things) const {
  std::vector<p4::v1::Entity> entities;
  for (const auto& [number, thing] : things) entities.push_back(thing);
  View view = TestSupport::viewOf(switch_.pipeline(), entities);
  view.insert(constant_.begin(), constant_.end());
  for (const RouteWriter& other : others_) view.merge(other.view());
  return view;
}

std::string Load::broken() {
  const View found = switch_.controllerView();
  for (RouteWriter& other : others_) other.settle(found);
  const std::string without = difference("acknowledged", viewOf(before_), "read", found);
  const std::string with = difference("acknowledged and in flight", viewOf(after_), "read", found);
  if (without.empty()) {
    after_ = before_;
  } else if (with.empty()) {
    before_ = after_;
  } else {
    return without + with;
  }
  return "";
}

std::string Load::brokenApart() {
  const View found = switch_.controllerView();
  const auto stands = [&](const Things::value_type& thing) {
    const View wanted = TestSupport::viewOf(switch_.pipeline(), {thing.second});
    return std::includes(found.begin(), found.end(), wanted.begin(), wanted.end());
  };
  Things standing;
  for (const Things* things : {&before_, &after_}) {
    std::copy_if(things->begin(), things->end(), std::inserter(standing, standing.end()), stands);
  }
  std::string lost;
  for (const auto& [number, thing] : before_) {
    if (after_.contains(number) && !standing.contains(number)) {
      lost += std::to_string(number) + " is lost\n";
    }
  }
  before_ = after_ = standing;
  return lost + difference("acknowledged or in flight", viewOf(standing), "read", found);
}
