// A controller that writes without pause, and remembers what it was promised.
#pragma once

#include <atomic>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/Switch.h"

// Batches of inserts, modifies and deletes of routes, each key at most once a batch. Call from one
// thread; between start() and stop() the load has a thread of its own.
class Load {
 public:
  Load(Switch& on, uint32_t seed);

  // Writes until stop(), or until a batch is not answered OK.
  void start();
  void stop();
  bool writing() const { return writing_; }                // false once a batch failed
  uint64_t acknowledged() const { return acknowledged_; }  // batches

  // After stop(). How the last batch failed; OK when none did.
  grpc::Status failure() const { return failure_; }
  // "" when the switch holds each route as last acknowledged, and of the batch that was not
  // answered all updates or none; else what is wrong. Takes what is there for granted afterwards.
  std::string broken();
  uint64_t sentUpdates() const { return sentUpdates_; }  // acknowledged or not

 private:
  static constexpr uint32_t keys = 300;
  static constexpr size_t batchSize = 20;
  using Routes = std::map<uint32_t, uint32_t>;  // number to nexthop

  void run();
  std::vector<p4::v1::Update> nextBatch();

  Switch& switch_;
  std::mt19937 random_;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> writing_{false};
  std::atomic<uint64_t> acknowledged_{0};
  std::atomic<uint64_t> sentUpdates_{0};
  Routes before_;  // acknowledged
  Routes after_;   // if the batch in flight took effect
  grpc::Status failure_;
};
