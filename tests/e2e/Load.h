// Controllers that write without pause, and remember the confirmed entries.
#pragma once

#include <atomic>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/RouteWriter.h"
#include "tests/e2e/Switch.h"

// KORVEL_SEED in the environment repeats a random story, or tells another one.
uint32_t printedSeed();

// Batches of inserts, modifies and deletes: routes, metered access rules, members and groups,
// entries that name these, and entries with one-shot sets. Each key at most once a batch, and no
// update depends on another of its batch, so that the batch is one commit. Beside them others write
// routes, a few at a time. Call from one thread; between start() and stop() the load has threads of
// its own.
class Load {
 public:
  Load(Switch& on, uint32_t seed);  // on a switch that serves; its present entries stay
  ~Load() { stop(); }

  // Writes until stop(), or until a batch is not answered OK.
  void start();
  void stop();
  bool writing() const { return writing_; }                // false once a batch failed
  uint64_t acknowledged() const { return acknowledged_; }  // batches of its own

  // One batch, while it does not run, whose updates may fail each for itself: failed updates are
  // not expected of the switch.
  TestSupport::WriteOutcome writeOnce();

  // After stop(). How the last batch failed; OK when none did.
  const TestSupport::WriteOutcome& failure() const;
  // "" when the switch holds each object as last acknowledged, and of the batch without a response
  // all updates or none; else the fault. Takes the switch's state for granted afterwards.
  std::string broken();
  // The same update by update: some of the batch without a response may have failed.
  std::string brokenApart();
  // After stop(): the most rows that the updates sent may have changed, acknowledged or not; and
  // the rows of the last batch of each thread alone.
  uint64_t sentRows() const;
  uint64_t lastBatchRows() const;

 private:
  using Things = std::map<uint32_t, p4::v1::Entity>;  // by number, which stands for the key
  using Numbers = std::set<uint32_t>;

  void run();
  std::vector<p4::v1::Update> nextBatch();
  std::optional<p4::v1::Update> nextUpdate(uint32_t number);
  std::optional<p4::v1::Entity> made(uint32_t number);  // nothing: it has nothing to name yet
  p4::v1::ActionProfileGroup madeGroup(uint32_t id);
  std::optional<p4::v1::Entity> madeReference(uint32_t i);
  uint32_t someOf(uint32_t from, uint32_t to);  // an existing one; 0: none exists
  bool isReferenced(uint32_t number) const;
  bool independent(uint32_t number, const Numbers& references) const;
  TestSupport::View viewOf(const Things& things) const;

  Switch& switch_;
  const TestSupport::View constant_;  // the entries of the switch at first
  std::mt19937 random_;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> writing_{false};
  std::atomic<uint64_t> acknowledged_{0};
  std::atomic<uint64_t> sentRows_{0};
  std::atomic<uint64_t> lastBatchRows_{0};
  RouteWriter others_[2];
  Things before_;                // acknowledged
  Things after_;                 // if the batch in flight took effect
  std::vector<uint32_t> order_;  // the numbers of the batch being made
  Numbers written_;              // the same
  Numbers referenced_;           // by those, before or after
  TestSupport::WriteOutcome failure_;
};
