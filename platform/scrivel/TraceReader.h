// Reads the trace files of a directory, of living and dead processes alike, and shows the records
// of all rings in the order of their times. Believes nothing: a file may be half written, torn or
// no trace file at all. One thread uses a reader; it may read its own process's file.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Scrivel {

struct TraceRecord {
  uint64_t timeNs = 0;  // since the epoch
  int64_t pid = 0;
  uint32_t threadId = 0;
  unsigned level = 0;
  std::string handle;
  std::string text;
};

struct TraceFilter {
  std::string handle;                // a name with '*' for any run of characters; empty: all
  std::optional<unsigned> maxLevel;  // this level and those below
  std::string text;                  // the text must contain this
  std::optional<int64_t> pid;

  bool passes(const TraceRecord& record) const;
};

struct TraceFileInfo {
  std::string path;
  int64_t pid = 0;
  uint64_t startNs = 0;
  bool alive = false;
  struct Handle {
    std::string name;
    uint32_t mask = 0;  // bit n: level n is traced
  };
  std::vector<Handle> handles;
};

class TraceReader {
 public:
  // `directory` need not exist.
  explicit TraceReader(std::string directory);
  ~TraceReader();

  // The files found now, oldest first. Other files are passed over.
  std::vector<TraceFileInfo> files();
  // The records that the last call did not give (all, the first time), by time. Files that came
  // since are read too.
  std::vector<TraceRecord> records();
  // Records that were overwritten before records() came to them, or that were never stored.
  uint64_t lost() const { return lost_; }

 private:
  struct OpenFile;
  void findFiles();
  std::string directory_;
  std::vector<std::unique_ptr<OpenFile>> files_;
  uint64_t lost_ = 0;
};

// "2025-03-01 12:00:00.123456 4711/4712 KorvelPiTables 0 _pi_batch_begin session_handle: 7"
std::string toLine(const TraceRecord& record);
std::string argumentsText(std::string_view stored);  // the text of a record's stored arguments

// Changes the levels of a living process, for the handles that `levels` names, also in libraries
// loaded later; other handles keep theirs. Throws TraceError for malformed levels and for
// a path that is no trace file.
void setLevels(const std::string& path, std::string_view levels);

}  // namespace Scrivel
