// A small pipeline with a table of each kind that the agent treats in its own way.
#pragma once

#include <cstdint>
#include <string>

#include "p4/v1/p4runtime.pb.h"

namespace TestSupport {

// Names are those of the P4Info; rows stand in tables of the same names.
inline constexpr uint32_t exactTable = 0x02000001;     // ether_type 16, port 9; holds 4 entries
inline constexpr uint32_t route4Table = 0x02000002;    // vrf 16, dst 32 by longest prefix
inline constexpr uint32_t route6Table = 0x02000003;    // dst 128 by longest prefix
inline constexpr uint32_t aclTable = 0x02000004;       // src 32 and port 16 ternary, protocol 8
inline constexpr uint32_t labelTable = 0x02000005;     // label 24: cannot be programmed
inline constexpr uint32_t meteredTable = 0x02000006;   // id 32; direct meter and direct counter
inline constexpr uint32_t groupTable = 0x02000007;     // id 32; entries name members or groups
inline constexpr uint32_t constantTable = 0x02000008;  // type 8; two constant entries

inline constexpr uint32_t setPort = 0x01000001;     // port 9
inline constexpr uint32_t setNexthop = 0x01000002;  // nexthop 32, dmac 48, src_addr 32
inline constexpr uint32_t drop = 0x01000003;        // no parameters
inline constexpr uint32_t setDmac = 0x01000004;     // dmac 48
inline constexpr uint32_t setLabel = 0x01000005;    // label 20: cannot be programmed

inline constexpr uint32_t directMeter = 0x15000001;
inline constexpr uint32_t directCounter = 0x13000001;
// Holds 16 members; its rows stand in the tables "profile_member" and "profile_group".
inline constexpr uint32_t profile = 0x11000001;

std::string smallP4Info();        // in the text form of protobuf
std::string smallDeviceConfig();  // JSON
// What the agent's pipeline file holds.
p4::v1::SetForwardingPipelineConfigRequest pipelineOf(const std::string& p4Info,
                                                      const std::string& deviceConfig,
                                                      uint64_t deviceId = 1);
p4::v1::SetForwardingPipelineConfigRequest smallPipeline();

// `text` with its one occurrence of `from` replaced; throws std::logic_error when it does not
// occur.
std::string replaced(std::string text, const std::string& from, const std::string& to);

}  // namespace TestSupport
