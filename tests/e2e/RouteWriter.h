// One more controller's thread beside a load: writes routes that nobody else touches.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <random>
#include <thread>

#include "tests/e2e/Switch.h"

// Inserts, modifies and deletes a few routes a Write. Call from one thread.
class RouteWriter {
 public:
  RouteWriter(Switch& on, uint32_t number, uint32_t seed);  // of a number of its own
  ~RouteWriter() { stop(); }

  void start();  // until stop(), or until a Write is not answered OK
  void stop();

  // After stop(). How the last Write failed; OK when none did.
  const TestSupport::WriteOutcome& failure() const { return failure_; }
  // Looks whether the last Write, if it was not answered, took effect.
  void settle(const TestSupport::View& found);
  TestSupport::View view() const;  // the entries that the switch must hold, once settled
  // The most rows that its Writes may have changed; and the rows of the last one alone.
  uint64_t sentRows() const { return sentRows_; }
  uint64_t lastRows() const { return lastRows_; }

 private:
  using Routes = std::map<uint32_t, uint32_t>;  // nexthops by number

  void run();
  std::vector<p4::v1::Update> nextWrite();
  TestSupport::View viewOf(const Routes& routes) const;

  Switch& switch_;
  const uint32_t firstRoute_;
  std::mt19937 random_;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  Routes before_;  // acknowledged
  Routes after_;   // if the Write in flight took effect
  uint64_t sentRows_ = 0;
  uint64_t lastRows_ = 0;
  TestSupport::WriteOutcome failure_;
};
