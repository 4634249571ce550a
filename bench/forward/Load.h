// Programs with their entries, and frames that they forward.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "p4/Engine.h"

namespace Bench {

// All frames come to `port`, and each leaves as one frame by `outPort`.
struct Load {
  std::string name;
  std::shared_ptr<P4::Engine> engine;
  uint32_t port = 1;
  uint32_t outPort = 2;
  std::vector<std::string> frames;  // as short as they can be

  std::vector<std::string> framesOf(size_t bytes) const;  // longer ones are left out
};

// The router of examples/, from its compiled form and description, with a thousand routes. Throws
// std::runtime_error.
Load routerLoad(const std::string& program);
// Ten tables of ternary keys over addresses, protocol and ports, a thousand entries each.
Load aclLoad();
// A program of a public project with recorded entries and packets; nothing when it is not there, or
// no recorded packet leaves as one.
std::optional<Load> recordedLoad(const std::string& programs, const std::string& vectors,
                                 const std::string& name);
// The recorded program of the longest text; "" when there is none.
std::string largestRecorded(const std::string& programs, const std::string& vectors);

// Inserts and removes entries that no frame meets.
class TableWriter {
 public:
  explicit TableWriter(P4::Engine& engine);
  bool able() const { return able_; }  // the program has a table to write to
  void write();
  void commit() { engine_.tables().commit(); }
  void removeAll();

 private:
  P4::EntryKey key(uint32_t number) const;

  P4::Engine& engine_;
  bool able_ = false;
  uint32_t table_ = 0;
  P4::ActionSpec action_;
  uint32_t next_ = 0;   // to insert
  uint32_t first_ = 0;  // to remove
};

}  // namespace Bench
