#include "P4Runtime/companion/Settings.h"

namespace P4Runtime {
namespace {

using Orrery::Setting;
using Orrery::SettingGroup;

constexpr auto atStart = Setting::Heeded::atStart;
constexpr double any = 1e6;

// Limits outside of these would shut everybody out, or let a stream idle for good.
constexpr Setting systemSettings[] = {
    {.attribute = "enabled",
     .example = "true",
     .meaning = "Controllers are served. With false the agent has its parts clean up, and ends."},
    {.attribute = "deviceId",
     .example = "1",
     .meaning = "The device id by which controllers name this switch.",
     .heeded = atStart},
    {.attribute = "forwardingPipelineConfigFilePath",
     .example = R"("/etc/korvel/router.pb.bin")",
     .meaning = "The pipeline file that runs until a controller pushes a pipeline. It is read when "
                "the path changes."},
    {.attribute = "grpcServerAddress",
     .example = R"("0.0.0.0")",
     .meaning = "The address on which controllers are served. One that other machines reach wants "
                "TLS, or insecure.",
     .heeded = atStart},
    {.attribute = "grpcServerPort",
     .example = "9559",
     .meaning = "The TCP port on which controllers are served. 0: on the Unix socket alone."},
    {.attribute = "maxConnections",
     .example = "2048",
     .meaning = "Connections at once, and never more than half of the process's open files.",
     .least = 4,
     .most = any},
    {.attribute = "maxStreams",
     .example = "64",
     .meaning = "Streams of controllers at once.",
     .least = 1,
     .most = any},
    {.attribute = "maxStreamsOfRole",
     .example = "16",
     .meaning = "Streams at once of controllers with the same role.",
     .least = 1,
     .most = any},
    {.attribute = "maxRoles",
     .example = "100",
     .meaning = "Roles with a name that are remembered, each with its highest election id.",
     .least = 1,
     .most = any},
    {.attribute = "arbitrationTimeout",
     .unit = "seconds",
     .example = "2.5",
     .meaning = "The time that a new stream has for its first arbitration update.",
     .least = 0.1,
     .most = 3600},
    {.attribute = "maxWrites",
     .example = "64",
     .meaning = "Writes at once. One runs, and the others wait for their turn.",
     .least = 1,
     .most = 10000},
    {.attribute = "maxReads",
     .example = "64",
     .meaning = "Reads at once.",
     .least = 1,
     .most = 10000},
    {.attribute = "maxServerMemory",
     .unit = "MiB",
     .example = "1024",
     .meaning = "Memory for messages that the server receives.",
     .least = 64,
     .most = any},
    {.attribute = "deviceIdZero",
     .example = "true",
     .meaning = "Device id 0 stands for this device, for controllers that leave it out."},
    {.attribute = "noPipelineIsError",
     .example = "true",
     .meaning = "GetForwardingPipelineConfig fails while there is no pipeline. Otherwise the "
                "answer is empty."},
    {.attribute = "zeroWeights",
     .example = "true",
     .meaning = "Members of groups may have the weight 0, which counts as 1."},
    {.attribute = "bothCounts",
     .example = "true",
     .meaning = "Counters are read with packets and bytes, whatever their unit."},
    {.attribute = "paddedAnswers",
     .example = "true",
     .meaning = "Numbers in answers have leading zero bytes, as long as their widths."},
};

constexpr Setting securitySettings[] = {
    {.attribute = "insecure",
     .example = "true",
     .meaning = "Addresses that other machines reach are served without TLS: anybody who reaches "
                "them may write.",
     .heeded = atStart},
    {.attribute = "certificate",
     .example = R"("/etc/korvel/switch.pem")",
     .meaning = "The server's certificate and its intermediates, a PEM file. It comes with key and "
                "clientCa.",
     .heeded = atStart},
    {.attribute = "key",
     .example = R"("/etc/korvel/switch.key")",
     .meaning = "The certificate's key, a PEM file.",
     .heeded = atStart},
    {.attribute = "clientCa",
     .example = R"("/etc/korvel/ca.pem")",
     .meaning = "The authorities who sign certificates of controllers, a PEM file.",
     .heeded = atStart},
    {.attribute = "crl",
     .example = R"("/etc/korvel/ca.crl")",
     .meaning = "The revocation lists of these authorities, a PEM file.",
     .heeded = atStart},
    {.attribute = "unixSocket",
     .example = R"("unix:/run/korvel/p4rt.sock")",
     .meaning = "A Unix socket on which controllers are served, too.",
     .heeded = atStart},
    {.attribute = "unixMode",
     .example = R"("0660")",
     .meaning = "The socket's mode, in octal.",
     .heeded = atStart},
    {.attribute = "unixOwner",
     .example = R"(":netops")",
     .meaning = "The socket's owner: user, user:group or :group.",
     .heeded = atStart},
    {.attribute = "policy",
     .example = R"("/etc/korvel/policy.json")",
     .meaning = "The policy that says who may do what. Its file is looked at each second."},
};

constexpr Setting agentSelfSettings[] = {
    {.attribute = "exitRequested",
     .example = "false",
     .meaning = "The agent ends when this becomes true. Use korvel stop for it."},
    {.attribute = "batchTimeout",
     .unit = "seconds",
     .example = "10",
     .meaning = "The time that a Write waits for the next report of the forwarding plane."},
    {.attribute = "p4InfoJsonPath",
     .example = R"("/run/korvel/p4info.json")",
     .meaning = "Where the P4Info of the running pipeline is written for people to read.",
     .heeded = atStart},
    {.attribute = "deviceJsonPath",
     .example = R"("/run/korvel/device.json")",
     .meaning = "Where the device configuration of the running pipeline is written for people to "
                "read.",
     .heeded = atStart},
    {.attribute = "tableSizeCheckEnabled",
     .example = "false",
     .meaning = "Entries beyond the size of a table are refused."},
    {.attribute = "strictPushes",
     .example = "true",
     .meaning = "A pushed pipeline is refused if some of its parts could not be programmed."},
    {.attribute = "checkPrograms",
     .example = "true",
     .meaning = "A pushed pipeline is refused if the switch in software could not execute its "
                "program."},
    {.attribute = "checkPorts",
     .example = "true",
     .meaning = "Multicast groups and clone sessions take mapped ports and cpuPort alone."},
    {.attribute = "cpuPort",
     .example = "510",
     .meaning = "The CPU's port as the program sees it. 0: there is none."},
    {.attribute = "pluginDirectory",
     .example = R"("/usr/local/lib/korvel/plugins")",
     .meaning = "The folder of the plugins. Empty: korvel/plugins beside the agent's library.",
     .heeded = atStart},
    {.attribute = "cpuDevice",
     .example = R"("p4controller2")",
     .meaning = "The network device over which packets come to controllers. Switches of one "
                "network namespace need one each.",
     .heeded = atStart},
    {.attribute = "packetOutToProgram",
     .example = "true",
     .meaning = "Each packet-out goes to the CPU device with its header, for the program of the "
                "forwarding plane."},
};

constexpr Setting journalSettings[] = {
    {.attribute = "sizeMib",
     .unit = "MiB",
     .example = "256",
     .meaning = "The journal of Writes takes so much room; its oldest files make room. 0: there is "
                "none.",
     .most = any},
    {.attribute = "directory",
     .example = R"("/var/lib/korvel/journal")",
     .meaning = "Where the journal's files are. Empty: in journal in the state directory."},
};

constexpr Setting monitoringSettings[] = {
    {.attribute = "address",
     .example = R"("127.0.0.1:9464")",
     .meaning = "Where metrics and the page are served: by HTTP on an address of this machine "
                "alone, by HTTPS with the certificates of p4runtime/config/security on others. "
                "Empty: nowhere."},
};

constexpr Setting portSettings[] = {
    {.attribute = "intf",
     .example = R"("eth1")",
     .meaning = "The interface that this P4 port stands for. Empty: none."},
};

constexpr Setting translationSettings[] = {
    {.attribute = "names",
     .example = R"("Ethernet0=1 Ethernet4=2")",
     .meaning = "Names and their numbers, as NAME=NUMBER with blanks between."},
};

constexpr Setting pluginSettings[] = {
    {.attribute = "settings",
     .example = R"("period=1")",
     .meaning = "A text for the plugin, by custom NAME=VALUE with blanks between."},
};

constexpr Setting bridgingSettings[] = {
    {.attribute = "bridgeMacAddr",
     .example = R"("02:00:00:00:00:01")",
     .meaning =
         "The switch's own MAC address, which the CPU device gets. Empty: it keeps its own."},
};

constexpr Setting interfaceSettings[] = {
    {.attribute = "enabled", .example = "false", .meaning = "The interface is up."},
    {.attribute = "mtu",
     .unit = "bytes",
     .example = "9000",
     .meaning = "The largest packet. 0: as the interface has it."},
};

constexpr SettingGroup groups[] = {
    {.path = "p4runtime/config/system",
     .meaning = "The P4Runtime server: the switch's identity, addresses, limits, and lenience with "
                "controllers.",
     .settings = systemSettings},
    {.path = "p4runtime/config/security",
     .meaning = "Who gets in: TLS, a Unix socket, the policy.",
     .settings = securitySettings},
    {.path = "p4runtime/config/agent",
     .meaning = "The agent itself.",
     .settings = agentSelfSettings},
    {.path = "p4runtime/config/journal",
     .meaning = "The journal of Writes, which 'korvel why' and 'korvel replay' read.",
     .settings = journalSettings},
    {.path = "p4runtime/config/monitoring",
     .meaning = "Metrics and the page.",
     .settings = monitoringSettings},
    {.path = "p4runtime/config/port-mapping/PORT",
     .name = "1",
     .meaning = "Which interface a P4 port stands for. PORT is the port's number in the program.",
     .settings = portSettings},
    {.path = "p4runtime/config/translation/TYPE",
     .name = "port_id_t",
     .meaning = "Fixed numbers of the names that controllers use for values of a translated type. "
                "TYPE is the type's name in the P4Info.",
     .settings = translationSettings},
    {.path = "p4runtime/config/plugin/NAME",
     .name = "table-use",
     .meaning = "What a plugin is told. NAME is the plugin's name.",
     .settings = pluginSettings},
    {.path = "bridging/config",
     .meaning = "What the operating system's bridging tells the agent.",
     .settings = bridgingSettings},
    {.path = "interface/config/eth/phy/all/NAME",
     .name = "eth1",
     .meaning = "An Ethernet interface. NAME is that of its kernel device, which may come later. "
                "Interfaces without such an object stay as they are.",
     .settings = interfaceSettings},
};

}  // namespace

Orrery::SettingGroups agentSettings() { return groups; }

}  // namespace P4Runtime
