#include "platform/wirra/devices/LinkMessage.h"

#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

namespace Wirra {

namespace {

std::string textOfMac(const nlattr* address) {
  if (!address || nla_len(address) != ETH_ALEN) return "";
  const auto* bytes = static_cast<const uint8_t*>(nla_data(address));
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2],
                bytes[3], bytes[4], bytes[5]);
  return text;
}

void kindIs(Link& link, nlattr* info) {
  nlattr* parts[IFLA_INFO_MAX + 1];
  if (!info || nla_parse_nested(parts, IFLA_INFO_MAX, info, nullptr) < 0) return;
  if (!parts[IFLA_INFO_KIND]) return;
  link.kind.assign(static_cast<const char*>(nla_data(parts[IFLA_INFO_KIND])),
                   strnlen(static_cast<const char*>(nla_data(parts[IFLA_INFO_KIND])),
                           nla_len(parts[IFLA_INFO_KIND])));
  if (link.kind != "vrf" || !parts[IFLA_INFO_DATA]) return;
  nlattr* data[IFLA_VRF_MAX + 1];
  if (nla_parse_nested(data, IFLA_VRF_MAX, parts[IFLA_INFO_DATA], nullptr) < 0) return;
  if (data[IFLA_VRF_TABLE]) link.vrfTable = nla_get_u32(data[IFLA_VRF_TABLE]);
}

}  // namespace

std::optional<Link> linkOf(const nlmsghdr& message) {
  if (message.nlmsg_type != RTM_NEWLINK && message.nlmsg_type != RTM_DELLINK) return std::nullopt;
  auto* header = const_cast<nlmsghdr*>(&message);  // libnl only reads it
  nlattr* parts[IFLA_MAX + 1];
  static nla_policy policy[IFLA_MAX + 1] = {};
  policy[IFLA_IFNAME].type = NLA_STRING;
  policy[IFLA_MTU].type = NLA_U32;
  policy[IFLA_LINKINFO].type = NLA_NESTED;
  if (nlmsg_parse(header, sizeof(ifinfomsg), parts, IFLA_MAX, policy) < 0) return std::nullopt;
  const auto& info = *static_cast<const ifinfomsg*>(nlmsg_data(header));
  if (info.ifi_family != AF_UNSPEC) return std::nullopt;

  Link link;
  link.index = static_cast<uint32_t>(info.ifi_index);
  link.removed = message.nlmsg_type == RTM_DELLINK;
  if (link.removed) return link;
  if (!parts[IFLA_IFNAME] || !parts[IFLA_MTU]) return std::nullopt;
  link.name = nla_get_string(parts[IFLA_IFNAME]);
  link.adminUp = info.ifi_flags & IFF_UP;
  link.operUp = link.adminUp && (info.ifi_flags & IFF_RUNNING) && (info.ifi_flags & IFF_LOWER_UP);
  link.loopback = info.ifi_flags & IFF_LOOPBACK;
  link.mtu = nla_get_u32(parts[IFLA_MTU]);
  if (info.ifi_type == ARPHRD_ETHER) link.mac = textOfMac(parts[IFLA_ADDRESS]);
  kindIs(link, parts[IFLA_LINKINFO]);
  return link;
}

}  // namespace Wirra
