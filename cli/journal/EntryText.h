// Updates of a Write as text for people, with the names of a P4Info.
#pragma once

#include <string>

namespace p4::config::v1 {
class Table;
}
namespace p4::v1 {
class Entity;
class TableEntry;
class Update;
}  // namespace p4::v1
namespace Pipeline {
class P4InfoLookup;
}

namespace Cli {

// "vrf_id=1 ipv4_dst=10.0.0.0/8", "src_ip=10.0.0.1 priority=5"; "default entry". Values that do not
// fit their fields stand in hexadecimal.
std::string keyText(const p4::config::v1::Table& table, const p4::v1::TableEntry& entry);
// "set_nexthop nexthop_id=7", "group 10", "set_port port=4 @2, set_port port=5"; empty without one.
std::string actionText(const Pipeline::P4InfoLookup& index, const p4::v1::TableEntry& entry);
// "INSERT table ingress.acl: src_ip=10.0.0.1 priority=5": what an update is about.
std::string updateText(const Pipeline::P4InfoLookup& index, const p4::v1::Update& update);

}  // namespace Cli
