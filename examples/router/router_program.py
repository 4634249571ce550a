#!/usr/bin/python3
"""router.p4 in compiled form: prints router.json, as a P4 compiler would write it.

    router_program.py > router.json

It says the same as router.p4, in the same order, and keeps the names of router.p4info.txtpb, by
which entries find their tables.
"""

import json
import sys

from compiled import (Block, If, Program, assign, both, either, extract, leave_pipeline,
                      mark_to_drop, one_less, set_field, set_invalid, set_valid)

ETHERTYPE_IPV4 = 0x0800
ETHERTYPE_ARP = 0x0806
ETHERTYPE_IPV6 = 0x86dd
PROTOCOL_TCP = 6
PROTOCOL_UDP = 17
CPU_PORT = 510
METER_RED = 2

program = Program("router.p4", errors=["Ipv4Options"])
std = program.standard_metadata

# Headers and metadata.

packet_out = program.header("packet_out", egress_port=32, submit_to_ingress=8)
packet_in = program.header("packet_in", ingress_port=32, reason=8)
ethernet = program.header("ethernet", dst_addr=48, src_addr=48, ether_type=16)
ipv4 = program.header(
    "ipv4", version=4, ihl=4, dscp_ecn=8, total_length=16, identification=16, flags=3,
    fragment_offset=13, ttl=8, protocol=8, checksum=16, src_addr=32, dst_addr=32)
ipv6 = program.header(
    "ipv6", version=4, traffic_class=8, flow_label=20, payload_length=16, next_header=8,
    hop_limit=8, src_addr=128, dst_addr=128)
l4 = program.header("l4", src_port=16, dst_port=16)
meta = program.user_metadata(
    vrf_id=16, routed_as_ipv4=1, routed_as_ipv6=1, wcmp_id=32, nexthop_id=32, neighbor_id=32,
    ip_protocol=8, acl_color=2)

# Parser.

program.state("start", select=std.ingress_port, cases={CPU_PORT: "parse_packet_out"},
              default="parse_ethernet")
program.state("parse_packet_out", extract(packet_out), default="parse_ethernet")
program.state("parse_ethernet", extract(ethernet), select=ethernet.ether_type,
              cases={ETHERTYPE_IPV4: "parse_ipv4", ETHERTYPE_IPV6: "parse_ipv6"})
program.state("parse_ipv4", extract(ipv4), program.verify(ipv4.ihl == 5, "Ipv4Options"),
              set_field(meta.ip_protocol, ipv4.protocol), select=ipv4.fragment_offset,
              cases={0: "parse_l4"})
program.state("parse_ipv6", extract(ipv6), set_field(meta.ip_protocol, ipv6.next_header),
              default="parse_l4")
program.state("parse_l4", select=meta.ip_protocol,
              cases={PROTOCOL_TCP: "parse_ports", PROTOCOL_UDP: "parse_ports"})
program.state("parse_ports", extract(l4))

program.ipv4_checksum(
    ipv4.checksum,
    [field for name, field in ipv4.fields.items() if name != "checksum"],
    both(ipv4.is_valid(), ipv4.ihl == 5))

# Actions.

no_action = program.no_action()


@program.action()
def drop():
    return [mark_to_drop(std), leave_pipeline()]


@program.action(vrf_id=16)
def set_vrf(vrf_id):
    return [assign(meta.vrf_id, vrf_id)]


@program.action()
def route_ipv4():
    return [assign(meta.routed_as_ipv4, 1)]


@program.action()
def route_ipv6():
    return [assign(meta.routed_as_ipv6, 1)]


@program.action(reason=8)
def to_controller(reason):
    return [set_valid(packet_in),
            assign(packet_in.ingress_port, std.ingress_port),
            assign(packet_in.reason, reason),
            assign(std.egress_spec, CPU_PORT)]


@program.action(nexthop_id=32)
def set_nexthop(nexthop_id):
    return [assign(meta.nexthop_id, nexthop_id)]


@program.action(wcmp_id=32)
def set_wcmp(wcmp_id):
    return [assign(meta.wcmp_id, wcmp_id)]


@program.action(port=9, smac=48, neighbor_id=32)
def forward(port, smac, neighbor_id):
    return [assign(std.egress_spec, port),
            assign(ethernet.src_addr, smac),
            assign(meta.neighbor_id, neighbor_id)]


@program.action(dmac=48)
def set_dst_mac(dmac):
    return [assign(ethernet.dst_addr, dmac)]


@program.action(port=9)
def set_port(port):
    return [assign(std.egress_spec, port)]


@program.action()
def acl_permit():
    return []  # the direct meter has been read when the action begins


@program.action()
def acl_drop():
    return [mark_to_drop(std)]


# Tables.

port = program.table(
    "port", {"ingress_port": ("exact", std.ingress_port)},
    [set_vrf, drop], default=drop, size=512)

packet_type = program.table(
    "packet_type", {"ether_type": ("exact", ethernet.ether_type)},
    [route_ipv4, route_ipv6, to_controller, drop], default=drop, size=8,
    entries=[([ETHERTYPE_IPV4], route_ipv4.call()),
             ([ETHERTYPE_IPV6], route_ipv6.call()),
             ([ETHERTYPE_ARP], to_controller.call(1))])

ipv4_route = program.table(
    "ipv4_route", {"vrf_id": ("exact", meta.vrf_id), "ipv4_dst": ("lpm", ipv4.dst_addr)},
    [set_nexthop, set_wcmp, drop], default=drop, size=16384, counter="ipv4_route_counter")

ipv6_route = program.table(
    "ipv6_route", {"vrf_id": ("exact", meta.vrf_id), "ipv6_dst": ("lpm", ipv6.dst_addr)},
    [set_nexthop, set_wcmp, drop], default=drop, size=8192, counter="ipv6_route_counter")

wcmp_selector = program.selector(
    "wcmp_selector", 16384, "crc32", ipv4.src_addr, ipv4.dst_addr, ipv6.src_addr, ipv6.dst_addr,
    meta.ip_protocol, l4.src_port, l4.dst_port)

wcmp = program.table(
    "wcmp", {"wcmp_id": ("exact", meta.wcmp_id)},
    [set_nexthop, no_action], profile=wcmp_selector, size=4096, counter="wcmp_counter")

nexthop = program.table(
    "nexthop", {"nexthop_id": ("exact", meta.nexthop_id)},
    [forward, drop], default=drop, size=4096)

neighbor = program.table(
    "neighbor",
    {"port": ("exact", std.egress_spec), "neighbor_id": ("exact", meta.neighbor_id)},
    [set_dst_mac, drop], default=drop, size=4096)

lag_selector = program.selector(
    "lag_selector", 1024, "crc32", ethernet.src_addr, ethernet.dst_addr, ipv4.src_addr,
    ipv4.dst_addr, ipv6.src_addr, ipv6.dst_addr)

lag = program.table(
    "lag", {"port": ("exact", std.egress_spec)},
    [set_port, no_action], profile=lag_selector, size=256)

acl = program.table(
    "acl",
    {"ether_type": ("ternary", ethernet.ether_type), "src_ip": ("ternary", ipv4.src_addr),
     "dst_ip": ("ternary", ipv4.dst_addr), "ip_protocol": ("ternary", meta.ip_protocol),
     "l4_dst_port": ("ternary", l4.dst_port)},
    [acl_permit, acl_drop, to_controller], default=acl_permit, size=1024, counter="acl_counter",
    meter=("acl_meter", meta.acl_color))

# The way of a packet.

program.apply(
    If(both(packet_out.is_valid(), packet_out.submit_to_ingress == 0),
       Block("send_packet_out", assign(std.egress_spec, packet_out.egress_port & 0x1ff),
             set_invalid(packet_out), leave_pipeline())),
    Block("no_packet_out", set_invalid(packet_out)),
    If(either(std.parser_error != program.error("NoError"), std.checksum_error == 1), drop),
    port,
    packet_type,
    If(meta.routed_as_ipv4 == 1,
       If(ipv4.ttl <= 1, drop),
       Block("take_ipv4_hop", assign(ipv4.ttl, one_less(ipv4.ttl))),
       ipv4_route),
    If(meta.routed_as_ipv6 == 1,
       If(ipv6.hop_limit <= 1, drop),
       Block("take_ipv6_hop", assign(ipv6.hop_limit, one_less(ipv6.hop_limit))),
       ipv6_route),
    If(either(meta.routed_as_ipv4 == 1, meta.routed_as_ipv6 == 1),
       If(meta.wcmp_id != 0, wcmp),
       nexthop,
       neighbor,
       lag),
    acl,
    If(meta.acl_color == METER_RED, Block("drop_red", mark_to_drop(std))))


def compiled():
    return program.json(deparsed=[packet_out, packet_in, ethernet, ipv4, ipv6, l4])


if __name__ == "__main__":
    json.dump(compiled(), sys.stdout, indent=1)
    print()
