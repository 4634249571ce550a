// What the control socket understands.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "forwarder/ForwardingAgent.h"

namespace Forwarder {

class Punter;
class Traffic;

struct Answer {
  bool ok = true;
  std::string text;  // lines, each ended; or, when not ok, the one-line reason
  // When set, the answer is yet to come: asked again and again until it gives one that is complete.
  std::function<std::optional<Answer>()> later;
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
//   punt ...       packets for the controller: see PuntCommand.h
//   help
// Without `traffic` or `punter` there is no such command.
Answer answered(ForwardingAgent& agent, const ReportQueue& reports, const Following& following,
                std::string_view line, Traffic* traffic = nullptr, Punter* punter = nullptr);

}  // namespace Forwarder
