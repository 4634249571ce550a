// Column types from widths, names and annotations.
#include "pipeline/ColumnType.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "PI/frontends/proto/translation_tables.h"
#include "p4/config/v1/p4info.pb.h"
#include "pipeline/Extensions.h"
#include "pipeline/Names.h"

namespace Pipeline {
namespace {

constexpr int mostBits = 255;           // without the extension: the agent keeps a width in 8 bits
constexpr int mostWideBits = 8 * 1023;  // with it: the bytes of a whole key

std::string bytesType(int bits) { return "Bytes<" + std::to_string((bits + 7) / 8) + ">"; }
std::string bitsType(int bits) { return "Bits<" + std::to_string(bits) + ">"; }

// A width that no column can hold in any byte order.
std::string widthRefusal(int bits, const Extensions& extensions) {
  if (bits == 0) return "it is a string to the controller (width 0), and only numbers fit a column";
  if (bits < 0) return "its width " + std::to_string(bits) + " is no width";
  const int most = extensions.fields ? mostWideBits : mostBits;
  if (bits > most) {
    return "it is " + std::to_string(bits) + " bits wide; " + std::to_string(most) + " is the most";
  }
  return "";
}

// Integers in host order up to 32 bits; wider values stay in network order.
ColumnChoice plainColumn(int bits, const Extensions& extensions) {
  if (const std::string refusal = widthRefusal(bits, extensions); !refusal.empty()) {
    return {"", refusal};
  }
  if (bits <= 8) return {"U8", ""};
  if (bits <= 16) return {"U16", ""};
  if (bits <= 24) {
    if (extensions.fields) return {bitsType(bits), ""};
    return {"", "it is " + std::to_string(bits) + " bits wide; there are no three-byte integers"};
  }
  if (bits <= 32) return {"U32", ""};
  if (bits == 48) return {"EthAddr", ""};
  if (bits == 128) return {"Ip6Addr", ""};
  return {bits > mostBits ? bitsType(bits) : bytesType(bits), ""};
}

bool annotatedAsIpv4(const p4::config::v1::MatchField& field) {
  constexpr std::string_view format = "IPV4_ADDRESS";
  for (const std::string& annotation : field.annotations()) {
    if (annotation.find(format) != std::string::npos) return true;
  }
  for (const auto& annotation : field.structured_annotations()) {
    for (const auto& expression : annotation.expression_list().expressions()) {
      if (expression.string_value() == format) return true;
    }
  }
  return false;
}

template <typename Value>
bool hasNameAnnotation(const Value& value) {
  return std::ranges::find(value.annotations(), pi::fe::proto::kNameAnnotation) !=
         value.annotations().end();
}

bool namedLikeIpv4(std::string_view name) {
  constexpr std::array<std::string_view, 8> endings = {"srcaddr", "dstaddr", "saddr",  "daddr",
                                                       "srcip",   "dstip",   "ipaddr", "ipaddress"};
  constexpr std::array<std::string_view, 5> words = {"ip", "ip4", "ipv4", "sip", "dip"};
  const std::string lower = lowered(name);
  const size_t dot = lower.rfind('.');
  if (dot != std::string::npos && lower.find("ipv4") < dot) return true;  // a field of the header
  std::string last = lower.substr(dot == std::string::npos ? 0 : dot + 1);
  const std::string word = last.substr(last.rfind('_') + 1);  // npos + 1 is 0: the whole
  if (std::find(words.begin(), words.end(), word) != words.end()) return true;
  std::erase(last, '_');
  return std::any_of(endings.begin(), endings.end(),
                     [&](std::string_view ending) { return last.ends_with(ending); });
}

}  // namespace

bool isName(const p4::config::v1::MatchField& field) { return hasNameAnnotation(field); }
bool isName(const p4::config::v1::Action_Param& parameter) { return hasNameAnnotation(parameter); }

bool isIpv4Address(const p4::config::v1::MatchField& field) {
  return field.bitwidth() == 32 && !isName(field) &&
         (annotatedAsIpv4(field) || namedLikeIpv4(field.name()));
}

ColumnChoice keyColumn(const p4::config::v1::MatchField& field, const Extensions& extensions) {
  if (isIpv4Address(field)) return {"IpAddr", ""};
  return plainColumn(field.bitwidth(), extensions);
}

ColumnChoice prefixColumn(const p4::config::v1::MatchField& field, const Extensions& extensions) {
  const int bits = field.bitwidth();
  if (bits == 32 || bits == 128) return {"IpGenPrefix", ""};
  if (const std::string refusal = widthRefusal(bits, extensions); !refusal.empty()) {
    return {"", refusal};
  }
  if (extensions.fields) return {bitsType(bits), ""};
  return {"", "it is an LPM field of " + std::to_string(bits) +
                  " bits; prefixes have 32 (IPv4) or 128 (IPv6)"};
}

bool isInNetworkOrder(std::string_view name) {
  return name == "smac" || name == "dmac" || name == "src_addr" || name == "dst_addr";
}

bool isInNetworkOrder(const p4::config::v1::Action_Param& parameter) {
  return isInNetworkOrder(parameter.name()) && !isName(parameter);
}

ColumnChoice parameterColumn(const p4::config::v1::Action_Param& parameter,
                             const Extensions& extensions) {
  const int bits = parameter.bitwidth();
  if (!isInNetworkOrder(parameter)) return plainColumn(bits, extensions);
  if (const std::string refusal = widthRefusal(bits, extensions); !refusal.empty()) {
    return {"", refusal};
  }
  if (bits == 32) return {"IpAddr", ""};
  if (bits == 48 || bits == 128 || bits > mostBits) return plainColumn(bits, extensions);
  return {bytesType(bits), ""};
}

}  // namespace Pipeline
