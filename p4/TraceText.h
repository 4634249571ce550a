// A packet's way in the words of its program.
#pragma once

#include <string>
#include <vector>

#include "p4/execute/Trace.h"
#include "p4/program/Program.h"

namespace P4 {

// One line an event. A table's line has the packet's key, the entry's match if there is one, and
// the action: `table route: ipv4.dst=0x0a000102: entry 17 (0x0a000000/8), action
// forward(port=0x003)`.
class TraceText : public Trace {
 public:
  explicit TraceText(const Program& program) : program_(program) {}

  const std::vector<std::string>& lines() const { return lines_; }
  std::string text() const;  // a line feed after each line
  void clear() { lines_.clear(); }

  void onParserState(uint32_t state) override;
  void onParserError(uint32_t error) override;
  void onTable(uint32_t table, const uint64_t* key, const Entry* entry,
               const ActionData* action) override;
  void onLog(const std::string& message) override;
  void onEvent(const char* event, uint32_t number) override;

 private:
  std::string actionText(const ActionData& action) const;
  std::string keyText(uint32_t table, const uint64_t* key) const;
  std::string matchText(uint32_t table, const Entry& entry) const;

  const Program& program_;
  std::vector<std::string> lines_;
};

}  // namespace P4
