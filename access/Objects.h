// The objects of a pipeline that a policy can name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace p4::config::v1 {
class P4Info;
class Preamble;
}  // namespace p4::config::v1

namespace Access {

enum class ObjectKind : uint8_t {
  table,
  actionProfile,
  counter,
  meter,
  registerArray,
  digest,
  valueSet,
  externInstance,
  replication  // the packet replication engine: no object of the P4Info
};

// An annotation of the P4 program: @name or @name("value").
struct Annotation {
  std::string name;
  std::string value;  // between the brackets, without quotation marks; empty: none
};
// Of objects that belong to a role: @p4runtime_role("acl").
inline constexpr char roleAnnotation[] = "p4runtime_role";
// Nothing: the text is no annotation.
std::optional<Annotation> annotationOf(std::string_view text);
// Of an object, plain and structured ones.
std::vector<Annotation> annotationsOf(const p4::config::v1::Preamble& preamble);

struct Object {
  ObjectKind kind = ObjectKind::table;
  uint32_t id = 0;  // of the P4Info
  std::string name;
  std::string alias;
  std::vector<Annotation> annotations;
};

// The two objects of the packet replication engine, which each pipeline has.
inline constexpr std::string_view multicastGroups = "multicast_groups";
inline constexpr std::string_view cloneSessions = "clone_sessions";
Object replicationObject(std::string_view name);

// Tables, action profiles, counters, meters, registers, digests, value sets and extern instances,
// in the order of the P4Info. Direct counters and meters belong to their tables.
std::vector<Object> objectsOf(const p4::config::v1::P4Info& p4Info);

// "table", "action profile": for messages.
const char* kindText(ObjectKind kind);

}  // namespace Access
