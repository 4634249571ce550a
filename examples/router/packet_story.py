"""The demo's chapters on ports and packets."""

from network import PUNT_REASON
from packets import PacketIn, StreamError, made_packet
from stage import expect, step, tell, wait_until


class PacketStory:
    """Three cables are there; two of them are mapped, as ports 1 and 2, to begin with."""

    def __init__(self, switch, controller):
        self.switch = switch
        self.controller = controller
        self.cables = switch.cables

    def run(self):
        self.ports()
        self.packet_out()
        self.refused_packet_out()
        self.packet_in()
        self.counts()

    def ports(self):
        step("Ports: P4 port ids mean interfaces, by configuration; one that is taken is refused")
        said = self.switch.korvel_run("port", "list")
        expect("port1" in said and "port2" in said, "ports 1 and 2 are mapped")
        refused = self.switch.korvel_refused("port", "map", "3", "port1")
        expect("port1" in refused, "the refusal names the interface")

    def packet_out(self):
        step("Packet out: the controller sends a packet out of port 1, and we are at the other end")
        self.send_out(0, made_packet(60))
        self.send_out(0, made_packet(9000))
        step("Map port 1 to another interface while all runs: the next packet goes there")
        self.switch.korvel_run("port", "map", "1", "port3")
        self.send_out(2, made_packet(1500))
        self.switch.korvel_run("port", "map", "1", "port1")

    def send_out(self, cable, packet):
        cable = self.cables[cable]
        self.controller.send_packet(1, packet)
        expect(cable.carried(packet), f"the packet comes out of {cable.port}")
        tell(f"{len(packet)} bytes to P4 port 1: came out of {cable.port}, at {cable.host}, as they"
             " were sent")

    def refused_packet_out(self):
        step("A packet whose metadata are not as the pipeline declares them is refused")
        incomplete = self.controller.headers.packet_out(made_packet(60), {"egress_port": 1})
        del incomplete.metadata[1]
        self.controller.send(incomplete)
        error = self.arrival(StreamError)
        expect(error.code == "INVALID_ARGUMENT", f"got {error}")

    def packet_in(self):
        step("Packet in: what arrives at port 2, the forwarding agent punts to the controller")
        packet = made_packet(100)
        self.cables[1].send(packet)
        self.expect_packet(2, packet)
        step("The forwarding agent also makes packets on request, as long as jumbo frames are")
        self.switch.tell_forwarder("punt", "7", "size=9000", "count=3")
        for number in range(3):
            arrived = self.arrival(PacketIn)
            expect(arrived.payload[14:22] == number.to_bytes(8, "big"), "they come in order")
            expect(len(arrived.payload) == 9000, "they come whole")
            expect(arrived.metadata["ingress_port"] == "7", "they come from port 7")

    def expect_packet(self, port, packet):
        arrived = self.arrival(PacketIn)
        metadata = {"ingress_port": str(port), "reason": str(PUNT_REASON)}
        expect(arrived == PacketIn(packet, metadata), f"the packet came as {arrived}")

    def arrival(self, kind):
        arrived = self.controller.arrival(seconds=10)
        expect(isinstance(arrived, kind), f"expected a {kind.__name__}, got {arrived}")
        tell(arrived)
        return arrived

    def counts(self):
        step("Every packet is counted by what became of it")
        wanted = {"out": 3, "outRefusedMetadata": 1, "in": 4, "inToControllers": 4}

        def counted():
            counts = self.switch.attributes("p4runtime/status/packets")
            return counts if all(counts[name] == count for name, count in wanted.items()) else None

        counts = wait_until(counted, f"counts {wanted}", *self.switch.processes())
        dropped = {name: count for name, count in counts.items() if "Dropped" in name and count}
        expect(not dropped, f"packets were dropped: {dropped}")
        tell(", ".join(f"{name} {count}" for name, count in wanted.items()))
