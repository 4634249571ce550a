// Synthetic traffic in words: on the command line and on the control socket.
#pragma once

#include <string_view>

#include "forwarder/Commands.h"
#include "forwarder/Traffic.h"

namespace Forwarder {

// Changes `options` as the words after `traffic` say:
//   RATE                      packets a second; 0 or off: none
//   header FIELD=VALUE[,...]  one more packet to take in turn; header none: fields are drawn
//   bytes N                   a packet's, 1 to 65535
//   seed N
// Throws RuleError and then leaves `options` alone.
void applyTraffic(TrafficOptions& options, std::string_view words);

// The `traffic` command: without words what it does and has done; `reset` counts anew; or as above.
Answer trafficAnswered(Traffic& traffic, std::string_view words);

}  // namespace Forwarder
