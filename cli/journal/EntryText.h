// Updates of a Write as text for people, with the names of a P4Info.
#pragma once

#include <string>

namespace p4::v1 {
class Entity;
class Update;
}  // namespace p4::v1
namespace Pipeline {
class P4InfoLookup;
}

namespace Cli {

// "vrf_id=1 ipv4_dst=10.0.0.0/8", "src_ip=10.0.0.1 priority=5", "default entry", "member 3". Values
// that do not fit their fields stand in hexadecimal; other kinds of entities as they are.
std::string keyText(const Pipeline::P4InfoLookup& index, const p4::v1::Entity& entity);
// "set_nexthop nexthop_id=7", "group 10", "set_port port=4 @2, set_port port=5 @1",
// "members 1 @3, 2 @1". Empty for an entity without an action or members.
std::string contentText(const Pipeline::P4InfoLookup& index, const p4::v1::Entity& entity);
// "INSERT table ingress.acl: src_ip=10.0.0.1 priority=5": what an update is about.
std::string updateText(const Pipeline::P4InfoLookup& index, const p4::v1::Update& update);

}  // namespace Cli
