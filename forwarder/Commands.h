// What the control socket understands.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "forwarder/ForwardingAgent.h"

namespace Forwarder {

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
//   help
Answer answered(ForwardingAgent& agent, const ReportQueue& reports, const Following& following,
                std::string_view line);

}  // namespace Forwarder
