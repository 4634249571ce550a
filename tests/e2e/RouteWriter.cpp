// See RouteWriter.h.
#include "tests/e2e/RouteWriter.h"

#include <algorithm>

#include "tests/e2e/Router.h"

using namespace TestSupport;

namespace {
constexpr uint32_t routesOfOthers = 1000;  // those below are the load's
constexpr uint32_t routesEach = 40;
}  // namespace

RouteWriter::RouteWriter(Switch& on, uint32_t number, uint32_t seed)
    : switch_(on), firstRoute_(routesOfOthers + number * routesEach), random_(seed + number) {}

void RouteWriter::start() {
  stopping_ = false;
  failure_ = {};
  thread_ = std::thread([this] { run(); });
}

void RouteWriter::stop() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
}

void RouteWriter::run() {
  while (!stopping_) {
    const std::vector<p4::v1::Update> updates = nextWrite();
    lastRows_ = updates.size();
    sentRows_ += lastRows_;
    failure_ = switch_.controller().write(updates);
    if (!failure_.ok()) return;
    before_ = after_;
  }
}

std::vector<p4::v1::Update> RouteWriter::nextWrite() {
  std::vector<p4::v1::Update> updates;
  const uint32_t first = random_() % routesEach;
  const uint32_t count = 1 + random_() % 3;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t number = firstRoute_ + (first + i) % routesEach;
    const uint32_t nexthop = 1 + random_() % 1000;
    const auto route = Router::route(switch_.pipeline(), number, nexthop);
    if (!before_.contains(number)) {
      updates.push_back(insertOf(entityOf(route)));
    } else if (random_() % 3 == 0) {
      updates.push_back(deleteOf(entityOf(route)));
      after_.erase(number);
      continue;
    } else {
      updates.push_back(modifyOf(entityOf(route)));
    }
    after_[number] = nexthop;
  }
  return updates;
}

void RouteWriter::settle(const View& found) {
  const View with = viewOf(after_);
  const View without = viewOf(before_);
  const bool added = std::includes(found.begin(), found.end(), with.begin(), with.end());
  const bool kept = std::any_of(without.begin(), without.end(), [&](const auto& line) {
    return !with.contains(line.first) && found.contains(line.first);
  });
  if (added && !kept) {
    before_ = after_;
  } else {
    after_ = before_;
  }
}

View RouteWriter::view() const { return viewOf(before_); }

View RouteWriter::viewOf(const Routes& routes) const {
  std::vector<p4::v1::Entity> entities;
  for (const auto& [number, nexthop] : routes) {
    entities.push_back(entityOf(Router::route(switch_.pipeline(), number, nexthop)));
  }
  return TestSupport::viewOf(switch_.pipeline(), entities);
}
