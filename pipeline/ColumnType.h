// Which column type holds a match field or an action parameter.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace p4::config::v1 {
class Action_Param;
class MatchField;
}  // namespace p4::config::v1

namespace Pipeline {

struct Extensions;

// The type, or else the reason for a refusal.
struct ColumnChoice {
  std::string type;
  std::string refusal;  // empty: `type` counts
};

// Of the value (and the mask or the other end) of a match field that is no LPM.
ColumnChoice keyColumn(const p4::config::v1::MatchField& field, const Extensions& extensions);
// Of an LPM field: IpGenPrefix, or the value of a prefix that has its length in another column.
ColumnChoice prefixColumn(const p4::config::v1::MatchField& field, const Extensions& extensions);
ColumnChoice parameterColumn(const p4::config::v1::Action_Param& parameter,
                             const Extensions& extensions);

// Whether a parameter stays in network order at any width. Its name says so.
bool isInNetworkOrder(std::string_view parameterName);
bool isInNetworkOrder(const p4::config::v1::Action_Param& parameter);

// Whether the number stands for a string of a translated type.
bool isName(const p4::config::v1::MatchField& field);
bool isName(const p4::config::v1::Action_Param& parameter);

// Whether the 32 bits are an IPv4 address, by annotation (@format(IPV4_ADDRESS)) or by name.
bool isIpv4Address(const p4::config::v1::MatchField& field);

}  // namespace Pipeline
