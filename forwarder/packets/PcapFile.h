// Packets in a file, for tcpdump and its like: classic pcap, Ethernet, microseconds.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

namespace Forwarder {

struct PcapTime {
  uint32_t seconds = 0;  // of the time of day
  uint32_t microseconds = 0;
};
PcapTime pcapTimeNow();

// Threads: one at a time. Once a write has failed, or the file has become too large, trouble() says
// so and nothing more is written.
class PcapFile {
 public:
  static constexpr uint64_t maxBytes = uint64_t{1} << 30;

  // Replaces a file of that name. Throws CommandError: no absolute path, or not writable.
  explicit PcapFile(std::string path);

  const std::string& path() const { return path_; }
  const std::string& trouble() const { return trouble_; }
  void write(std::span<const uint8_t> frame, const PcapTime& time);
  void flush();  // readers of the file see all packets written so far

 private:
  void put(const void* bytes, size_t size);
  void doEnd(std::string trouble);

  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  const std::string path_;
  std::unique_ptr<std::FILE, Close> file_;
  uint64_t bytes_ = 0;
  bool unflushed_ = false;
  std::string trouble_;
};

}  // namespace Forwarder
