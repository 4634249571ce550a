// Punting in words: on the command line and on the control socket.
#pragma once

#include <string_view>

#include "forwarder/Commands.h"
#include "forwarder/PuntOptions.h"

namespace Forwarder {

class Punter;

// Each throws RuleError, and then leaves `options` alone.
void applyPunt(PuntOptions& options, std::string_view words);  // "PORT=DEVICE"; "": mapped ones
void applyPuntEtherType(PuntOptions& options, std::string_view text);  // "0x88cc"
void applyPuntField(PuntOptions& options, std::string_view text);      // "NAME=VALUE"

// "PORT HEXBYTES [COUNT]" or "PORT size=N"; count=N and rate=N may follow either.
PuntRequest puntRequest(std::string_view words);

// The `punt` command:
//   punt                     where packets come from and go, and the counts
//   punt REQUEST             makes packets; answered when they are punted
//   punt field NAME=VALUE    a value for packet_in's fields from now on
Answer puntAnswered(Punter& punter, std::string_view words);

}  // namespace Forwarder
