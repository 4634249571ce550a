// A pipeline with a table for each rule, and short ways to write updates and queries for it.
#pragma once

#include <string>
#include <vector>

#include "google/rpc/status.pb.h"
#include "p4/v1/p4runtime.pb.h"

namespace test {

// Tables.
inline constexpr uint32_t kIpv4 = 0x02000001;     // vrf exact 12, dst LPM 32
inline constexpr uint32_t kAcl = 0x02000002;      // src ternary 32, l4 ternary 12
inline constexpr uint32_t kPort = 0x02000003;     // l4 range 12, tos optional 8
inline constexpr uint32_t kCounted = 0x02000004;  // key exact 16; counter, meter, idle time-outs
inline constexpr uint32_t kConst = 0x02000005;    // key exact 8; constant, constant default
inline constexpr uint32_t kInitial = 0x02000006;  // key exact 8; initial entries
inline constexpr uint32_t kKeyless = 0x02000007;
inline constexpr uint32_t kWcmp = 0x02000008;   // key exact 8; kNexthops
inline constexpr uint32_t kOther = 0x02000009;  // key of another match kind
inline constexpr uint32_t kPlain = 0x0200000a;  // key exact 8; kPlainNexthops
// Action profiles.
inline constexpr uint32_t kNexthops = 0x11000001;       // a selector; 40 in all, 16 a group
inline constexpr uint32_t kPlainNexthops = 0x11000002;  // no selector; 3 members
// Actions. Of ipv4: all; group only as a group action, noAction only as the default.
inline constexpr uint32_t kForward = 0x01000001;  // port 9 bits, dmac 48 bits
inline constexpr uint32_t kDrop = 0x01000002;
inline constexpr uint32_t kNoAction = 0x01000003;
inline constexpr uint32_t kGroup = 0x01000004;

p4::v1::ForwardingPipelineConfig pipelineConfig();

// Numbers are sent big-endian in as few bytes as they need.
std::string number(uint64_t value);

p4::v1::TableEntry ipv4Key(uint32_t vrf, uint32_t dst, int length);
p4::v1::TableEntry ipv4(uint32_t vrf, uint32_t dst, int length, uint32_t port);
p4::v1::TableEntry acl(uint32_t src, uint32_t mask, int priority);
p4::v1::TableEntry exact(uint32_t table, uint32_t key, uint32_t action = kDrop);

p4::v1::Action forward(uint32_t port);
p4::v1::ActionProfileMember member(uint32_t id, uint32_t port, uint32_t profile = kNexthops);
struct Weight {
  uint32_t of;  // a member's id, or the port that an action set's action forwards to
  int32_t weight;
};
p4::v1::ActionProfileGroup group(uint32_t id, const std::vector<Weight>& members);
p4::v1::TableEntry toMember(uint32_t key, uint32_t member, uint32_t table = kWcmp);
p4::v1::TableEntry toGroup(uint32_t key, uint32_t group);
p4::v1::TableEntry oneShot(uint32_t key, const std::vector<Weight>& actions);

p4::v1::Update update(p4::v1::Update::Type type, const p4::v1::TableEntry& entry);
p4::v1::Update update(p4::v1::Update::Type type, const p4::v1::ActionProfileMember& member);
p4::v1::Update update(p4::v1::Update::Type type, const p4::v1::ActionProfileGroup& group);
p4::v1::Update update(p4::v1::Update::Type type, const p4::v1::DirectMeterEntry& meter);
p4::v1::WriteRequest writeOf(const std::vector<p4::v1::Update>& updates);
p4::v1::ReadRequest readOf(const std::vector<p4::v1::TableEntry>& queries);
p4::v1::TableEntry query(uint32_t table);

// The errors of an itemised status, in order; empty when it has none.
std::vector<p4::v1::Error> errorsOf(const google::rpc::Status& status);
std::vector<int> codesOf(const google::rpc::Status& status);

}  // namespace test
