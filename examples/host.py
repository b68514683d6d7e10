#!/usr/bin/env python3
"""A radar host without the library, as docs/protocol.md describes one: it negotiates a host id, answers every
query, and takes another id when it is told to. It ends on SIGINT and SIGTERM."""

import argparse
import random
import select
import signal
import socket
import struct
import sys
import time

DISCOVERY = ("236.6.7.5", 6878)
NEGOTIATION = ("236.6.7.4", 6768)

QUERY, ANNOUNCEMENT = b"\x01\xb1", b"\x01\xb2"
PROBE, CONFIRM, OBJECTION = b"\x01\xa1", b"\x02\xa1", b"\x03\xa1"
RESET = b"\x20\xa1"

OBJECTION_TIME = 1.0  # seconds that others have to object to a probe, and again to a confirm
DRAWN_IDS = range(16, 64)

# Endpoint of a stream: its offset into the block of a host id from 16 upwards, and what host id 1 uses.
PLAN = {
    "image 0": (0, "236.6.7.8", 6878),
    "image control 0": (1, "236.6.7.10", 6680),
    "image state 0": (2, "236.6.7.9", 6679),
    "image 1": (3, "236.6.7.13", 6657),
    "image control 1": (4, "236.6.7.14", 6658),
    "image state 1": (5, "236.6.7.15", 6659),
    "ARPA 0": (6, "236.6.7.18", 6688),
    "ARPA control 0": (7, "236.6.7.20", 6690),
    "ARPA state 0": (8, "236.6.7.19", 6889),
    "ARPA 1": (9, "236.6.7.12", 6660),
    "ARPA control 1": (10, "236.6.7.13", 6661),
    "ARPA state 1": (11, "236.6.7.14", 6862),
}
FIRST_GROUP, FIRST_PORT = 0xEC060723, 6003  # 236.6.7.35, of host id 16

# What stands from byte 88 of an announcement on, by the number of streams; (endpoint, offset).
LAYOUTS = {
    1: (150, [("image 0", 88), ("image control 0", 98), ("image state 0", 108),
              ("ARPA 0", 124), ("ARPA control 0", 134), ("ARPA state 0", 144)]),
    2: (222, [("image 0", 88), ("image control 0", 98), ("image state 0", 108),
              ("image 1", 124), ("image control 1", 134), ("image state 1", 144),
              ("ARPA 0", 160), ("ARPA control 0", 170), ("ARPA state 0", 180),
              ("ARPA 1", 196), ("ARPA control 1", 206), ("ARPA state 1", 216)]),
}


def endpoint(host_id, key):
    """Address and port, 6 bytes in network order."""
    offset, group, port = PLAN[key]
    if host_id == 1:
        return socket.inet_aton(group) + struct.pack(">H", port)
    k = host_id - 16
    return struct.pack(">IH", FIRST_GROUP + 16 * k + offset, FIRST_PORT + 32 * k + offset)


def announcement(name, host_id, streams):
    length, places = LAYOUTS[streams]
    message = bytearray(length)
    message[0:2] = ANNOUNCEMENT
    message[2:2 + len(name)] = name
    for key, offset in places:
        message[offset:offset + 6] = endpoint(host_id, key)
    return bytes(message)


class Group:
    """A multicast group to receive from and to send to."""

    def __init__(self, address, local):
        self.address = address
        interface = socket.inet_aton(local)
        self.receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.receiver.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.receiver.bind(address)  # to the group, so that nothing else on this port comes in
        self.receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, socket.inet_aton(address[0]) + interface)
        self.sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, interface)
        self.sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)  # not to receive its own messages

    def send(self, message):
        try:
            self.sender.sendto(message, self.address)
        except OSError as error:  # no route, or the interface is down: the next message may get through
            print(f"host.py: cannot send to {self.address[0]}: {error}", file=sys.stderr)


class Host:
    """Claims an id by a probe and a confirm, with a second for objections after each; then serves with it."""

    def __init__(self, name, host_id, streams, local):
        self.name, self.streams, self.host_id = name, streams, host_id
        self.answer = None  # queries are not answered before an id is held
        self.discovery = Group(DISCOVERY, local)
        self.negotiation = Group(NEGOTIATION, local)
        self.claim()

    def claim(self):
        self.state = PROBE
        self.objected = False
        self.send(PROBE)
        self.deadline = time.monotonic() + OBJECTION_TIME

    def send(self, code):
        self.negotiation.send(code + bytes([self.host_id, 1]))

    def on_deadline(self):
        if self.objected:
            self.host_id = random.choice(DRAWN_IDS)
            self.claim()
        elif self.state == PROBE:
            self.state = CONFIRM
            self.send(CONFIRM)
            self.deadline = time.monotonic() + OBJECTION_TIME
        else:
            self.state = self.deadline = None  # the id is held
            self.answer = announcement(self.name, self.host_id, self.streams)
            print(f"serving as host id {self.host_id}", flush=True)

    def on_negotiation(self, message):
        if message == RESET:
            print("reset asked for", flush=True)
        if len(message) != 4:
            return
        code, host_id, fourth = message[0:2], message[2], message[3]
        holds = self.state is None
        if code in (PROBE, CONFIRM) and holds and fourth == self.host_id:
            self.send(OBJECTION)  # the fourth byte is always 1: only the holder of id 1 objects
        elif code == OBJECTION and host_id == self.host_id:
            if holds:
                self.host_id = random.choice(DRAWN_IDS)
                self.claim()
            else:
                self.objected = True

    def on_discovery(self, message):
        if message == QUERY and self.answer:
            self.discovery.send(self.answer)

    def run(self, stop):
        handlers = {self.discovery.receiver: self.on_discovery, self.negotiation.receiver: self.on_negotiation}
        while True:
            wait = None if self.deadline is None else max(0.0, self.deadline - time.monotonic())
            ready, _, _ = select.select([stop, *handlers], [], [], wait)
            if stop in ready:
                return
            for receiver in ready:
                handlers[receiver](receiver.recv(1024))
            if self.deadline is not None and time.monotonic() >= self.deadline:
                self.on_deadline()


def radar_name(text):
    name = text.encode()
    if not 1 <= len(name) <= 16:
        raise argparse.ArgumentTypeError("a radar name has 1 to 16 bytes")
    return name


def host_id(text):
    number = int(text)
    if number != 1 and number not in DRAWN_IDS:
        raise argparse.ArgumentTypeError("a host id is 1, or 16 to 63")
    return number


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--name", type=radar_name, required=True, help="1 to 16 bytes")
    parser.add_argument("--id", type=host_id, default=random.choice(DRAWN_IDS), help="host id to claim first")
    parser.add_argument("--streams", type=int, choices=(1, 2), default=1)
    parser.add_argument("--local", metavar="IP", default="0.0.0.0", help="address of the interface to use")
    options = parser.parse_args()

    stop, wake = socket.socketpair()
    wake.setblocking(False)
    signal.set_wakeup_fd(wake.fileno())
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: None)
    try:
        Host(options.name, options.id, options.streams, options.local).run(stop)
    except OSError as error:  # no such interface, say
        sys.exit(f"host.py: {error}")


if __name__ == "__main__":
    main()
