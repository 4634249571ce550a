// What the control socket understands.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "forwarder/ForwardingAgent.h"

namespace Forwarder {

class Traffic;

struct Answer {
  bool ok = true;
  std::string text;  // lines, each ended; or, when not ok, the one-line reason
};

// How far this forwarder follows the agent, for `stats`.
struct Following {
  bool attached = false;
  uint64_t sequence = 0;
};

// Carries out one command line: those of applyRule(), and
//   rules          the rules in force, as commands
//   dump [TABLE]   the rows held
//   stats          counters, a line each
//   traffic ...    synthetic packets: see TrafficCommand.h
//   help
// Without `traffic` there is no such command.
Answer answered(ForwardingAgent& agent, const ReportQueue& reports, const Following& following,
                std::string_view line, Traffic* traffic = nullptr);

}  // namespace Forwarder
