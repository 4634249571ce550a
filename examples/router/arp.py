"""Answers hosts that ask for the router's MAC address: packets in, packets out."""

import ipaddress
import threading

from controller import ControllerError
from packets import PacketIn

ETHERTYPE_ARP = b"\x08\x06"
IPV4_OVER_ETHERNET = bytes.fromhex("000108000604")
REQUEST, REPLY = b"\x00\x01", b"\x00\x02"


def mac_bytes(text):
    return bytes.fromhex(text.replace(":", ""))


def reply_to(frame, mac, address):
    """The reply to an ARP request for the address; None when the frame is something else."""
    asks = (frame[12:14] == ETHERTYPE_ARP and frame[14:20] == IPV4_OVER_ETHERNET
            and frame[20:22] == REQUEST and frame[38:42] == address)
    if not asks:
        return None
    asker = frame[22:32]  # its MAC and IPv4 addresses
    return (asker[:6] + mac + ETHERTYPE_ARP + IPV4_OVER_ETHERNET + REPLY + mac + address + asker)


class ArpResponder:
    """Takes all packets of the controller, in a thread of its own, until the stream ends."""

    def __init__(self, controller, gateways):
        """`gateways` are the router's {port: (MAC, IPv4 address)}."""
        self._controller = controller
        self._gateways = {port: (mac_bytes(mac), ipaddress.IPv4Address(address).packed)
                          for port, (mac, address) in gateways.items()}
        self.answered = 0
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        try:
            while True:
                self._handle(self._controller.arrival())
        except ControllerError:
            pass  # the switch has gone, or its controller has closed

    def _handle(self, arrived):
        if not isinstance(arrived, PacketIn):
            return
        port = int(arrived.metadata["ingress_port"])
        if port not in self._gateways:
            return
        reply = reply_to(arrived.payload, *self._gateways[port])
        if reply:
            self._controller.send_packet(port, reply)
            self.answered += 1
