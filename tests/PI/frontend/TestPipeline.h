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
inline constexpr uint32_t kWcmp = 0x02000008;   // key exact 8; action profile
inline constexpr uint32_t kOther = 0x02000009;  // key of another match kind
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

p4::v1::Update update(p4::v1::Update::Type type, const p4::v1::TableEntry& entry);
p4::v1::WriteRequest writeOf(const std::vector<p4::v1::Update>& updates);
p4::v1::ReadRequest readOf(const std::vector<p4::v1::TableEntry>& queries);
p4::v1::TableEntry query(uint32_t table);

// The errors of an itemised status, in order; empty when it has none.
std::vector<p4::v1::Error> errorsOf(const google::rpc::Status& status);
std::vector<int> codesOf(const google::rpc::Status& status);

}  // namespace test
