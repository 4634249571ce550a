// The header fields of a synthetic packet, as they are given on the command line.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "forwarder/base/FieldText.h"

namespace Forwarder {

// One packet's given fields, by column name.
struct PacketHeader {
  std::string text;  // as it was given
  std::vector<std::pair<std::string, FieldValue>> fields;
};

// "FIELD=VALUE[,FIELD=VALUE...]". Throws CommandError.
PacketHeader packetHeader(std::string_view text);

}  // namespace Forwarder
