#!/usr/bin/python3
"""Pings, streams of numbered datagrams that know which of them were lost, and TCP transfers.

    traffic.py ping 10.0.2.1                     # asks three times
    traffic.py receive 5001                      # until its input ends: Control-D
    traffic.py send 10.0.2.1 5001 --rate 1000    # likewise
    traffic.py take 5002                         # one TCP connection
    traffic.py give 10.0.2.1 5002

Sender and receiver print a line of JSON at the end: {"sent": 2000} and {"received": 2000,
"missing": 0, "twice": 0, "late": 0, "last": 1999, "longest_silence_ms": 3}. Missing are numbers
below the last one that came; late are datagrams that one with a higher number overtook. After a
transfer both sides print {"bytes": 20000000, "crc32": 3735928559, "megabits_per_second": 812}.
"""

import argparse
import json
import os
import random
import selectors
import socket
import struct
import sys
import time
import zlib

ECHO_REQUEST, ECHO_REPLY = 8, 0
NUMBER = struct.Struct("!Q")
BUFFER_BYTES = 8 * 1024 * 1024  # a receiver that is not scheduled for a while loses nothing
QUIET_SECONDS = 1  # what is still under way at the end arrives within


def checksum(data):
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xffff) + (total >> 16)
    return ~total & 0xffff


def echo_request(identifier, sequence):
    body = struct.pack("!HH", identifier, sequence) + b"korvel ping data"
    return struct.pack("!BBH", ECHO_REQUEST, 0,
                       checksum(struct.pack("!BBH", ECHO_REQUEST, 0, 0) + body)) + body


def answered(echo, identifier, sequence, seconds):
    """Whether the answer comes in time; answers to others are passed over."""
    deadline = time.monotonic() + seconds
    while (left := deadline - time.monotonic()) > 0:
        echo.settimeout(left)
        try:
            packet = echo.recv(2048)
        except TimeoutError:
            return False
        icmp = packet[4 * (packet[0] & 15):]
        if icmp[:1] == bytes([ECHO_REPLY]) and icmp[4:8] == struct.pack("!HH", identifier,
                                                                        sequence):
            return True
    return False


def ping(options):
    identifier = os.getpid() & 0xffff
    came, times = 0, []
    with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP) as echo:
        echo.setsockopt(socket.IPPROTO_IP, socket.IP_TTL, options.ttl)
        for sequence in range(options.count):
            begin = time.monotonic()
            echo.sendto(echo_request(identifier, sequence), (options.address, 0))
            if answered(echo, identifier, sequence, options.timeout):
                came += 1
                times.append(time.monotonic() - begin)
    fastest = f", the fastest in {1000 * min(times):.2f} ms" if times else ""
    print(f"{came} of {options.count} pings answered{fastest}")
    return 0 if came == options.count else 1


def enlarge(udp, option, forced):
    """A privileged process goes beyond the system's limit."""
    for setting in (forced, option):
        try:
            udp.setsockopt(socket.SOL_SOCKET, setting, BUFFER_BYTES)
            return
        except OSError:
            pass


def input_has_ended(selector):
    return any(not os.read(key.fd, 4096) for key, _ in selector.select(0))


def send(options):
    """At an even rate: what a pause has left behind goes out in small bursts."""
    payload = bytes(options.bytes - NUMBER.size)
    selector = selectors.DefaultSelector()
    selector.register(sys.stdin, selectors.EVENT_READ)
    sent, begin = 0, time.monotonic()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
        enlarge(udp, socket.SO_SNDBUF, 32)  # SO_SNDBUFFORCE
        udp.connect((options.address, options.port))
        while sent < options.count and not input_has_ended(selector):
            due = min(int((time.monotonic() - begin) * options.rate) + 1, options.count)
            if due - sent > 32:  # the time that was lost stays lost
                begin += (due - sent - 32) / options.rate
                due = sent + 32
            for number in range(sent, due):
                udp.send(NUMBER.pack(number) + payload)
            sent = due
            time.sleep(1 / options.rate)
    print(json.dumps({"sent": sent}))
    return 0


class Received:
    def __init__(self):
        self.numbers = set()
        self.twice = self.late = 0
        self.last = -1
        self.longest_silence = 0
        self._newest = None

    def add(self, number):
        now = time.monotonic()
        if self._newest is not None:
            self.longest_silence = max(self.longest_silence, now - self._newest)
        self._newest = now
        self.twice += number in self.numbers
        self.late += number < self.last
        self.numbers.add(number)
        self.last = max(self.last, number)

    def summary(self):
        return {"received": len(self.numbers), "missing": self.last + 1 - len(self.numbers),
                "twice": self.twice, "late": self.late, "last": self.last,
                "longest_silence_ms": round(1000 * self.longest_silence)}


def receive(options):
    received = Received()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
        enlarge(udp, socket.SO_RCVBUF, 33)  # SO_RCVBUFFORCE
        udp.bind(("", options.port))
        print("listening", flush=True)
        selector = selectors.DefaultSelector()
        selector.register(udp, selectors.EVENT_READ)
        selector.register(sys.stdin, selectors.EVENT_READ)
        ending = False
        while events := selector.select(QUIET_SECONDS if ending else None):
            for key, _ in events:
                if key.fileobj is udp:
                    received.add(NUMBER.unpack_from(udp.recv(65535))[0])
                elif not os.read(key.fd, 4096):
                    selector.unregister(sys.stdin)
                    ending = True
    print(json.dumps(received.summary()))
    return 0


class Transfer:
    def __init__(self):
        self._begin = time.monotonic()
        self._bytes = self._crc = 0

    def add(self, data):
        self._bytes += len(data)
        self._crc = zlib.crc32(data, self._crc)

    def print_summary(self):
        seconds = max(time.monotonic() - self._begin, 1e-6)
        print(json.dumps({"bytes": self._bytes, "crc32": self._crc,
                          "megabits_per_second": round(8e-6 * self._bytes / seconds)}))


def take(options):
    with socket.create_server(("", options.port)) as server:
        print("listening", flush=True)
        connection, _ = server.accept()
        transfer = Transfer()
        with connection:
            while data := connection.recv(1 << 16):
                transfer.add(data)
    transfer.print_summary()
    return 0


def give(options):
    transfer = Transfer()
    left = options.bytes
    with socket.create_connection((options.address, options.port), timeout=30) as connection:
        while left:
            data = random.randbytes(min(left, 1 << 16))
            connection.sendall(data)
            transfer.add(data)
            left -= len(data)
        connection.shutdown(socket.SHUT_WR)
        connection.recv(1)  # the other side has taken all
    transfer.print_summary()
    return 0


def arguments():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True)
    command = commands.add_parser("ping", help="exit status 0: all were answered")
    command.add_argument("address")
    command.add_argument("--count", type=int, default=3)
    command.add_argument("--timeout", type=float, default=5, help="seconds, of each")
    command.add_argument("--ttl", type=int, default=64)
    command.set_defaults(run=ping)
    command = commands.add_parser("send", help="numbered datagrams at an even rate")
    command.add_argument("address")
    command.add_argument("port", type=int)
    command.add_argument("--rate", type=float, default=1000, help="datagrams a second")
    command.add_argument("--bytes", type=int, default=200, help="of UDP payload, from 8 on")
    command.add_argument("--count", type=int, default=sys.maxsize)
    command.set_defaults(run=send)
    command = commands.add_parser("receive", help="counts them")
    command.add_argument("port", type=int)
    command.set_defaults(run=receive)
    command = commands.add_parser("take", help="what comes over a TCP connection")
    command.add_argument("port", type=int)
    command.set_defaults(run=take)
    command = commands.add_parser("give", help="random bytes over a TCP connection")
    command.add_argument("address")
    command.add_argument("port", type=int)
    command.add_argument("--bytes", type=int, default=20_000_000)
    command.set_defaults(run=give)
    return parser.parse_args()


if __name__ == "__main__":
    chosen = arguments()
    try:
        sys.exit(chosen.run(chosen))
    except KeyboardInterrupt:
        sys.exit(130)
    except OSError as error:
        sys.exit(f"traffic: {error}")
