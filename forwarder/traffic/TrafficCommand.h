// Synthetic traffic in words: on the command line and on the control socket.
#pragma once

#include <string>
#include <string_view>

#include "forwarder/traffic/Traffic.h"

namespace Forwarder {

// Changes `options` as the words after `traffic` say:
//   RATE                      packets a second; 0 or off: none
//   header FIELD=VALUE[,...]  one more packet to take in turn; header none: fields are drawn
//   bytes N                   a packet's, 1 to 65535
//   seed N
// Throws CommandError and then leaves `options` as they were.
void applyTraffic(TrafficOptions& options, std::string_view words);

// The `traffic` command. Without words, returns the settings and the counts, a line each; `reset`
// sets the counts to 0; other words change the options as above. Throws CommandError.
std::string runTrafficCommand(Traffic& traffic, std::string_view words);

}  // namespace Forwarder
