#include "forwarder/traffic/PacketHeader.h"

#include <algorithm>

#include "forwarder/base/Answer.h"
#include "forwarder/base/Words.h"

namespace Forwarder {
namespace {

[[noreturn]] void refuse(const std::string& header, const std::string& why) {
  throw CommandError("traffic header '" + header + "': " + why);
}

}  // namespace

PacketHeader packetHeader(std::string_view text) {
  PacketHeader header{.text = std::string(text)};
  for (std::string_view rest = text;;) {
    const size_t comma = std::min(rest.find(','), rest.size());
    const std::string field(rest.substr(0, comma));
    const auto [name, valueText] = splitAt(field, '=');
    if (name.empty() || name.size() == field.size()) {
      refuse(header.text, "expected FIELD=VALUE, not '" + field + "'");
    }
    const auto value = fieldValue(valueText);
    if (!value) {
      refuse(header.text, "'" + std::string(valueText) + "' is no address, hex or decimal number");
    }
    header.fields.emplace_back(name, *value);
    if (comma == rest.size()) return header;
    rest.remove_prefix(comma + 1);
  }
}

}  // namespace Forwarder
