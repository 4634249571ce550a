// A small IPv4 and IPv6 router for one switch, written for readers.
//
// A packet's port decides its VRF, the VRF's routes its next hop, or a group of next hops of which
// the packet's flow picks one; the next hop its port and neighbor, and the neighbor its destination
// MAC address. A port may be a bundle of links, of which the flow again picks one. An access list
// has the last word, and polices what it lets through.
// router.p4info.txtpb is what a P4 compiler says of this program to controllers;
// router.entries.json holds the entries that stand in it. router_program.py builds its compiled
// form: a change here is made there, too.

#include <core.p4>
#include <v1model.p4>

typedef bit<9> port_t;
typedef bit<16> vrf_t;
typedef bit<32> nexthop_t;
typedef bit<32> wcmp_t;
typedef bit<32> ipv4_addr_t;
typedef bit<128> ipv6_addr_t;
typedef bit<48> mac_addr_t;

const bit<16> ETHERTYPE_IPV4 = 0x0800;
const bit<16> ETHERTYPE_ARP = 0x0806;
const bit<16> ETHERTYPE_IPV6 = 0x86dd;
const bit<8> PROTOCOL_TCP = 6;
const bit<8> PROTOCOL_UDP = 17;
const port_t CPU_PORT = 510;
const bit<2> METER_RED = 2;

error { Ipv4Options }  // this router reads no headers with options

// What travels before a packet from the controller: the port to send it from, or a wish to have it
// routed like any other.
@controller_header("packet_out")
header packet_out_t {
  @id(1) bit<32> egress_port;
  @id(2) bit<8> submit_to_ingress;
}

// What travels before a packet to the controller: where it came in, and why it is sent.
@controller_header("packet_in")
header packet_in_t {
  @id(1) bit<32> ingress_port;
  @id(2) bit<8> reason;
}

header ethernet_t {
  mac_addr_t dst_addr;
  mac_addr_t src_addr;
  bit<16> ether_type;
}

header ipv4_t {
  bit<4> version;
  bit<4> ihl;
  bit<8> dscp_ecn;
  bit<16> total_length;
  bit<16> identification;
  bit<3> flags;
  bit<13> fragment_offset;
  bit<8> ttl;
  bit<8> protocol;
  bit<16> checksum;
  ipv4_addr_t src_addr;
  ipv4_addr_t dst_addr;
}

header ipv6_t {
  bit<4> version;
  bit<8> traffic_class;
  bit<20> flow_label;
  bit<16> payload_length;
  bit<8> next_header;
  bit<8> hop_limit;
  ipv6_addr_t src_addr;
  ipv6_addr_t dst_addr;
}

header l4_ports_t {
  bit<16> src_port;
  bit<16> dst_port;
}

struct headers_t {
  packet_out_t packet_out;
  packet_in_t packet_in;
  ethernet_t ethernet;
  ipv4_t ipv4;
  ipv6_t ipv6;
  l4_ports_t l4;
}

struct metadata_t {
  vrf_t vrf_id;
  bit<1> routed_as_ipv4;
  bit<1> routed_as_ipv6;
  wcmp_t wcmp_id;
  nexthop_t nexthop_id;
  nexthop_t neighbor_id;
  bit<8> ip_protocol;
  bit<2> acl_color;
}

parser packet_parser(packet_in packet, out headers_t hdr, inout metadata_t meta,
                     inout standard_metadata_t std) {
  state start {
    transition select(std.ingress_port) {
      CPU_PORT: parse_packet_out;
      default: parse_ethernet;
    }
  }
  state parse_packet_out {
    packet.extract(hdr.packet_out);
    transition parse_ethernet;
  }
  state parse_ethernet {
    packet.extract(hdr.ethernet);
    transition select(hdr.ethernet.ether_type) {
      ETHERTYPE_IPV4: parse_ipv4;
      ETHERTYPE_IPV6: parse_ipv6;
      default: accept;
    }
  }
  state parse_ipv4 {
    packet.extract(hdr.ipv4);
    verify(hdr.ipv4.ihl == 5, error.Ipv4Options);
    meta.ip_protocol = hdr.ipv4.protocol;
    transition select(hdr.ipv4.fragment_offset) {
      0: parse_l4;
      default: accept;  // only the first fragment has ports
    }
  }
  state parse_ipv6 {
    packet.extract(hdr.ipv6);
    meta.ip_protocol = hdr.ipv6.next_header;
    transition parse_l4;
  }
  state parse_l4 {
    transition select(meta.ip_protocol) {
      PROTOCOL_TCP: parse_ports;
      PROTOCOL_UDP: parse_ports;
      default: accept;
    }
  }
  state parse_ports {
    packet.extract(hdr.l4);
    transition accept;
  }
}

control checksum_check(inout headers_t hdr, inout metadata_t meta) {
  apply {
    verify_checksum(hdr.ipv4.isValid() && hdr.ipv4.ihl == 5,
                    { hdr.ipv4.version, hdr.ipv4.ihl, hdr.ipv4.dscp_ecn, hdr.ipv4.total_length,
                      hdr.ipv4.identification, hdr.ipv4.flags, hdr.ipv4.fragment_offset,
                      hdr.ipv4.ttl, hdr.ipv4.protocol, hdr.ipv4.src_addr, hdr.ipv4.dst_addr },
                    hdr.ipv4.checksum, HashAlgorithm.csum16);
  }
}

control ingress(inout headers_t hdr, inout metadata_t meta, inout standard_metadata_t std) {
  // The end of a packet: no later table can have it forwarded after all.
  @id(0x01000001) action drop() {
    mark_to_drop(std);
    exit;
  }

  @id(0x01000002) action set_vrf(@id(1) vrf_t vrf_id) { meta.vrf_id = vrf_id; }

  // Which VRF a packet belongs to. A port without an entry is shut.
  @id(0x02000001)
  table port {
    key = { std.ingress_port : exact @id(1) @name("ingress_port"); }
    actions = { set_vrf; drop; }
    const default_action = drop;
    size = 512;
  }

  @id(0x01000003) action route_ipv4() { meta.routed_as_ipv4 = 1; }
  @id(0x01000004) action route_ipv6() { meta.routed_as_ipv6 = 1; }
  @id(0x01000005) action to_controller(@id(1) bit<8> reason) {
    hdr.packet_in.setValid();
    hdr.packet_in.ingress_port = (bit<32>)std.ingress_port;
    hdr.packet_in.reason = reason;
    std.egress_spec = CPU_PORT;
  }

  // What the program itself knows of packet types: its entries are constant.
  @id(0x02000002)
  table packet_type {
    key = { hdr.ethernet.ether_type : exact @id(1) @name("ether_type"); }
    actions = { route_ipv4; route_ipv6; to_controller; drop; }
    const default_action = drop;
    const entries = {
      ETHERTYPE_IPV4 : route_ipv4();
      ETHERTYPE_IPV6 : route_ipv6();
      ETHERTYPE_ARP  : to_controller(1);
    }
    size = 8;
  }

  @id(0x01000006) action set_nexthop(@id(1) nexthop_t nexthop_id) { meta.nexthop_id = nexthop_id; }
  @id(0x0100000b) action set_wcmp(@id(1) wcmp_t wcmp_id) { meta.wcmp_id = wcmp_id; }

  @id(0x13000001) direct_counter(CounterType.packets_and_bytes) ipv4_route_counter;
  @id(0x13000002) direct_counter(CounterType.packets_and_bytes) ipv6_route_counter;

  @id(0x02000003)
  table ipv4_route {
    key = {
      meta.vrf_id : exact @id(1) @name("vrf_id");
      hdr.ipv4.dst_addr : lpm @id(2) @name("ipv4_dst") @format(IPV4_ADDRESS);
    }
    actions = { set_nexthop; set_wcmp; drop; }
    const default_action = drop;
    counters = ipv4_route_counter;
    size = 16384;
  }

  @id(0x02000004)
  table ipv6_route {
    key = {
      meta.vrf_id : exact @id(1) @name("vrf_id");
      hdr.ipv6.dst_addr : lpm @id(2) @name("ipv6_dst") @format(IPV6_ADDRESS);
    }
    actions = { set_nexthop; set_wcmp; drop; }
    const default_action = drop;
    counters = ipv6_route_counter;
    size = 8192;
  }

  // Weighted ECMP: a flow keeps to one member of the group, and members get flows by weight.
  @id(0x11000001) @max_group_size(512) @selector_size_semantics("sum_of_weights")
  action_selector(HashAlgorithm.crc32, 32w16384, 32w16) wcmp_selector;
  @id(0x13000003) direct_counter(CounterType.packets_and_bytes) wcmp_counter;

  @id(0x02000008)
  table wcmp {
    key = {
      meta.wcmp_id : exact @id(1) @name("wcmp_id");
      hdr.ipv4.src_addr : selector;
      hdr.ipv4.dst_addr : selector;
      hdr.ipv6.src_addr : selector;
      hdr.ipv6.dst_addr : selector;
      meta.ip_protocol : selector;
      hdr.l4.src_port : selector;
      hdr.l4.dst_port : selector;
    }
    actions = { set_nexthop; @defaultonly NoAction; }
    const default_action = NoAction;
    implementation = wcmp_selector;
    counters = wcmp_counter;
    size = 4096;
  }

  @id(0x01000007) action forward(@id(1) port_t port, @id(2) mac_addr_t smac,
                                 @id(3) nexthop_t neighbor_id) {
    std.egress_spec = port;
    hdr.ethernet.src_addr = smac;
    meta.neighbor_id = neighbor_id;
  }

  @id(0x02000005)
  table nexthop {
    key = { meta.nexthop_id : exact @id(1) @name("nexthop_id"); }
    actions = { forward; drop; }
    const default_action = drop;
    size = 4096;
  }

  @id(0x01000008) action set_dst_mac(@id(1) mac_addr_t dmac) { hdr.ethernet.dst_addr = dmac; }

  @id(0x02000006)
  table neighbor {
    key = {
      std.egress_spec : exact @id(1) @name("port");
      meta.neighbor_id : exact @id(2) @name("neighbor_id");
    }
    actions = { set_dst_mac; drop; }
    const default_action = drop;
    size = 4096;
  }

  @id(0x11000002) @max_group_size(16) @selector_size_semantics("sum_of_members")
  @selector_max_member_weight(8)
  action_selector(HashAlgorithm.crc32, 32w1024, 32w16) lag_selector;

  @id(0x0100000c) action set_port(@id(1) port_t port) { std.egress_spec = port; }

  // Link aggregation: the links of those ports that are bundles.
  @id(0x02000009)
  table lag {
    key = {
      std.egress_spec : exact @id(1) @name("port");
      hdr.ethernet.src_addr : selector;
      hdr.ethernet.dst_addr : selector;
      hdr.ipv4.src_addr : selector;
      hdr.ipv4.dst_addr : selector;
      hdr.ipv6.src_addr : selector;
      hdr.ipv6.dst_addr : selector;
    }
    actions = { set_port; @defaultonly NoAction; }
    const default_action = NoAction;
    implementation = lag_selector;
    size = 256;
  }

  @id(0x13000004) direct_counter(CounterType.packets_and_bytes) acl_counter;
  @id(0x15000001) direct_meter<bit<2>>(MeterType.bytes) acl_meter;

  @id(0x01000009) action acl_permit() { acl_meter.read(meta.acl_color); }
  @id(0x0100000a) action acl_drop() { mark_to_drop(std); }

  // The first match by priority decides; what matches nothing passes.
  @id(0x02000007)
  table acl {
    key = {
      hdr.ethernet.ether_type : ternary @id(1) @name("ether_type");
      hdr.ipv4.src_addr : ternary @id(2) @name("src_ip") @format(IPV4_ADDRESS);
      hdr.ipv4.dst_addr : ternary @id(3) @name("dst_ip") @format(IPV4_ADDRESS);
      meta.ip_protocol : ternary @id(4) @name("ip_protocol");
      hdr.l4.dst_port : ternary @id(5) @name("l4_dst_port");
    }
    actions = { acl_permit; acl_drop; to_controller; }
    const default_action = acl_permit;
    counters = acl_counter;
    meters = acl_meter;
    size = 1024;
  }

  apply {
    if (hdr.packet_out.isValid() && hdr.packet_out.submit_to_ingress == 0) {
      std.egress_spec = (port_t)hdr.packet_out.egress_port;
      hdr.packet_out.setInvalid();
      exit;
    }
    hdr.packet_out.setInvalid();
    if (std.parser_error != error.NoError || std.checksum_error == 1) drop();
    port.apply();
    packet_type.apply();
    if (meta.routed_as_ipv4 == 1) {
      if (hdr.ipv4.ttl <= 1) drop();
      hdr.ipv4.ttl = hdr.ipv4.ttl - 1;
      ipv4_route.apply();
    }
    if (meta.routed_as_ipv6 == 1) {
      if (hdr.ipv6.hop_limit <= 1) drop();
      hdr.ipv6.hop_limit = hdr.ipv6.hop_limit - 1;
      ipv6_route.apply();
    }
    if (meta.routed_as_ipv4 == 1 || meta.routed_as_ipv6 == 1) {
      if (meta.wcmp_id != 0) wcmp.apply();
      nexthop.apply();
      neighbor.apply();
      lag.apply();
    }
    acl.apply();
    if (meta.acl_color == METER_RED) mark_to_drop(std);
  }
}

control egress(inout headers_t hdr, inout metadata_t meta, inout standard_metadata_t std) {
  apply {}
}

control checksum_update(inout headers_t hdr, inout metadata_t meta) {
  apply {
    update_checksum(hdr.ipv4.isValid() && hdr.ipv4.ihl == 5,
                    { hdr.ipv4.version, hdr.ipv4.ihl, hdr.ipv4.dscp_ecn, hdr.ipv4.total_length,
                      hdr.ipv4.identification, hdr.ipv4.flags, hdr.ipv4.fragment_offset,
                      hdr.ipv4.ttl, hdr.ipv4.protocol, hdr.ipv4.src_addr, hdr.ipv4.dst_addr },
                    hdr.ipv4.checksum, HashAlgorithm.csum16);
  }
}

control packet_deparser(packet_out packet, in headers_t hdr) {
  apply { packet.emit(hdr); }
}

V1Switch(packet_parser(), checksum_check(), ingress(), egress(), checksum_update(),
         packet_deparser()) main;
