// Punting in words: on the command line and on the control socket.
#pragma once

#include <string_view>

#include "forwarder/base/Answer.h"
#include "forwarder/punt/PuntOptions.h"

namespace Forwarder {

class Punter;

// Each throws CommandError, and then leaves `options` as they were.
void applyPunt(PuntOptions& options, std::string_view words);  // "PORT=DEVICE"; "": mapped ports
void applyPuntEtherType(PuntOptions& options, std::string_view text);  // "0x88cc"
void applyPuntField(PuntOptions& options, std::string_view text);      // "NAME=VALUE"

// "PORT HEXBYTES [COUNT]" or "PORT size=N"; count=N and rate=N may follow either. Throws
// CommandError.
PuntRequest puntRequest(std::string_view words);

// The `punt` command:
//   punt                     shows the ports, the controller's device and the counts
//   punt REQUEST             makes packets; the answer comes when they are punted
//   punt field NAME=VALUE    sets a value of packet_in's fields from now on
// Throws CommandError.
Answer runPuntCommand(Punter& punter, std::string_view words);

}  // namespace Forwarder
