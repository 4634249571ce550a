// Digests on their way from packets to the controller.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <cstdint>
#include <string>
#include <vector>

namespace P4 {

// Samples that are handed over together. A sample is its fields' bytes one after the other, each
// field (bits + 7) / 8 of them.
struct DigestList {
  uint32_t learnList = 0;  // position in the program
  uint64_t listId = 0;     // for the acknowledgement
  std::vector<std::string> samples;
};

struct DigestConfig {
  bool enabled = true;
  size_t maxSamples = 16;
  uint64_t maxWait = 1000000;  // microseconds since the first sample; 0: hand over at once
  bool suppress = true;        // samples equal to one not yet acknowledged
};

// The samples of one learn list. One thread.
class DigestBuffer {
 public:
  DigestBuffer(uint32_t learnList) : learnList_(learnList) {}

  void configIs(const DigestConfig& config) { config_ = config; }
  const DigestConfig& config() const { return config_; }

  void add(std::string sample, uint64_t now, std::vector<DigestList>& ready);
  // Hands over samples that have waited long enough.
  void timeIs(uint64_t now, std::vector<DigestList>& ready);
  void handOver(std::vector<DigestList>& ready);
  void acknowledge(uint64_t listId);

 private:
  static constexpr size_t maxUnacknowledged = 65536;  // samples

  uint32_t learnList_;
  DigestConfig config_;
  std::vector<std::string> waiting_;
  uint64_t firstAt_ = 0;
  uint64_t nextList_ = 1;
  absl::flat_hash_set<std::string> pending_;  // waiting or unacknowledged
  absl::flat_hash_map<uint64_t, std::vector<std::string>> unacknowledged_;
};

}  // namespace P4
