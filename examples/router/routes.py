"""The entries of a router whose ports, neighbors and routes are known."""

import dataclasses

from entries import Entry

VRF = 1


@dataclasses.dataclass
class Neighbor:
    """A host or another router at one of our ports."""

    port: int
    mac: str
    port_mac: str  # our own


def routing_entries(neighbors, routes):
    """`neighbors` are {number: Neighbor}, `routes` are {IPv4 prefix: number of a neighbor}."""
    entries = [Entry("port", {"ingress_port": port}, "set_vrf", {"vrf_id": VRF})
               for port in sorted({neighbor.port for neighbor in neighbors.values()})]
    for number, neighbor in neighbors.items():
        entries += [
            Entry("nexthop", {"nexthop_id": number}, "forward",
                  {"port": neighbor.port, "smac": neighbor.port_mac, "neighbor_id": number}),
            Entry("neighbor", {"port": neighbor.port, "neighbor_id": number}, "set_dst_mac",
                  {"dmac": neighbor.mac})]
    for prefix, number in routes.items():
        entries.append(Entry("ipv4_route", {"vrf_id": VRF, "ipv4_dst": prefix}, "set_nexthop",
                             {"nexthop_id": number}))
    return entries
