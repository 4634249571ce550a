// See Load.h.
#include "tests/e2e/Load.h"

#include <algorithm>
#include <numeric>

using namespace TestSupport;

Load::Load(Switch& on, uint32_t seed) : switch_(on), random_(seed) {}

void Load::start() {
  stopping_ = false;
  writing_ = true;
  failure_ = grpc::Status::OK;
  thread_ = std::thread([this] { run(); });
}

void Load::stop() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
}

void Load::run() {
  while (!stopping_ && failure_.ok()) {
    const std::vector<p4::v1::Update> batch = nextBatch();
    sentUpdates_ += batch.size();
    failure_ = switch_.controller().write(batch).status;
    if (!failure_.ok()) break;
    before_ = after_;
    ++acknowledged_;
  }
  writing_ = false;
}

std::vector<p4::v1::Update> Load::nextBatch() {
  std::vector<uint32_t> numbers(keys);
  std::iota(numbers.begin(), numbers.end(), 0);
  std::shuffle(numbers.begin(), numbers.end(), random_);
  numbers.resize(batchSize);
  std::vector<p4::v1::Update> batch;
  for (const uint32_t i : numbers) {
    const uint32_t nexthop = 1 + random_() % 1000;
    if (!before_.contains(i)) {
      batch.push_back(insertOf(switch_.route(i, nexthop)));
      after_[i] = nexthop;
    } else if (random_() % 3) {
      batch.push_back(modifyOf(switch_.route(i, nexthop)));
      after_[i] = nexthop;
    } else {
      batch.push_back(deleteOf(switch_.route(i, 0)));
      after_.erase(i);
    }
  }
  return batch;
}

std::string Load::broken() {
  const ReadOutcome read = switch_.routes();
  if (!read.status.ok()) return "cannot read: " + read.status.error_message();
  const View found = viewOfEntries(switch_.pipeline(), read.entries);
  const auto viewOf = [&](const Routes& routes) {
    std::vector<p4::v1::TableEntry> entries;
    for (const auto& [i, nexthop] : routes) entries.push_back(switch_.route(i, nexthop));
    return viewOfEntries(switch_.pipeline(), entries);
  };
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
