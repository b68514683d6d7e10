import itertools
import os
import pathlib
import select
import subprocess
import sys
import tempfile
import time
import unittest

import radarwatch
from radarwatch import Control, Moved, Sequence, Started, Stopped, Stream, Watch, Why
from support import LOCAL, NEVER_DRAWN, PATIENCE, SOURCES, comes_true, on_host, radar

SPOKE = 12 + 512  # bytes of a simulated radar's datagram
RECEIVER = """
import socket, struct, sys
receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
receiver.bind((sys.argv[1], int(sys.argv[2])))
receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                    socket.inet_aton(sys.argv[1]) + socket.inet_aton(sys.argv[3]))
print("ready", flush=True)
print(receiver.recvfrom(65536), flush=True)
"""


class Streams(unittest.TestCase):
    def test_follow_their_radar(self):
        events = []
        with Watch(LOCAL) as watch, Stream(
            watch, "North", on_event=events.append, sequence=Sequence(offset=4), receive_buffer=1 << 22
        ) as stream:
            self.assertEqual(stream.read(0.1), [])
            self.assertIsNone(stream.statistics().since_last)
            with radar(1, "North", NEVER_DRAWN, "--simulate"):
                for datagram in itertools.islice(stream, 1000):
                    self.assertEqual((datagram.data[:4], len(datagram.data)), (b"SIMI", SPOKE))
                    self.assertEqual(datagram.source[0], "10.20.1.1")
                    self.assertLess(abs(time.time_ns() - datagram.arrival_ns), PATIENCE * 10**9)
                counted = stream.statistics()
                self.assertGreaterEqual(counted.datagrams, 1000)
                self.assertEqual(counted.bytes, counted.datagrams * SPOKE)
                self.assertEqual((counted.cut, counted.repeated, counted.reordered), (0, 0, 0))
                self.assertTrue(0 < counted.median_gap <= counted.gap_99 * 1.1)
                self.assertTrue(select.select([stream], [], [], PATIENCE)[0])
                self.assertTrue(stream.read(0))

                self.assertTrue(watch.renumber("North"))
                self.assertTrue(comes_true(lambda: stream.read(1) and any(isinstance(e, Moved) for e in events)))
                self.assertEqual(next(stream).data[:4], b"SIMI")
            stopped = lambda: not stream.read(0.1) and isinstance(events[-1], Stopped)
            self.assertTrue(comes_true(stopped), events)
        self.assertIsInstance(events[0], (Started, Stopped))
        started = next(event for event in events if isinstance(event, Started))
        self.assertEqual((started.endpoint, started.interface), (radarwatch.groups(NEVER_DRAWN)[0].image, "eth0"))
        self.assertEqual(events[-1].why, Why.RADAR_LEFT)

    def test_of_every_channel_can_be_received_and_cut(self):
        with Watch(LOCAL) as watch, radar(2, "South", 43, "--simulate"):
            with Stream(watch, "South", "arpa") as targets, Stream(watch, "South", largest_datagram=10) as cut:
                self.assertTrue(next(targets).data.startswith(b"$RATTM,"))
                self.assertEqual(len(next(cut).data), 10)
                self.assertGreater(cut.statistics().cut, 0)

    def test_go_on_without_their_watch(self):
        watch = Watch(LOCAL)
        with radar(1, "North", 44, "--simulate"), Stream(watch, "North") as stream:
            watch.close()
            self.assertEqual(next(stream).data[:4], b"SIMI")


# A radar with a TCP service, on a host, that takes what comes there and never reads it.
DEAF = """
import runpy, select, socket, sys
host = runpy.run_path(sys.argv[1])
announcement = bytearray(host["announcement"](b"Deaf", 45, 2))
announcement[22] = announcement[30] = 1  # the long form; there is a TCP service
announcement[37:43] = socket.inet_aton("10.20.1.1") + (5000).to_bytes(2, "big")
announcement[68] = 1  # its image control: a server
server = socket.create_server(("10.20.1.1", 5000))
discovery = host["Group"](host["DISCOVERY"], "10.20.1.1")
connections = []
while True:
    for one in select.select([discovery.receiver, server], [], [])[0]:
        if one is server:
            connections.append(server.accept())
        elif one.recv(65536) == host["QUERY"]:
            discovery.send(bytes(announcement))
"""
SENDS = """
import os, signal
from radarwatch import Control, Watch
watch = Watch("%s")
control = Control(watch, "Deaf:TCP", "image-control")
while True:
    try:
        control.send(b"x")
        break
    except (LookupError, OSError):
        watch.next(0.1)

def interrupt(*_):
    if handled:
        raise KeyboardInterrupt
    handled.append(True)

handled = []
signal.signal(signal.SIGALRM, interrupt)
signal.setitimer(signal.ITIMER_REAL, 0.2, 0.2)
try:
    while True:
        control.send(bytes(1 << 24))
except KeyboardInterrupt:
    control.close()
    print("interrupted", flush=True)
"""


class Controls(unittest.TestCase):
    def test_are_interrupted_while_their_radar_does_not_read(self):
        command = (sys.executable, "-c", DEAF, SOURCES / "examples" / "host.py")
        with tempfile.TemporaryDirectory() as directory, on_host(1, *command) as deaf:
            pathlib.Path(directory, "profile.ini").write_text("[Radar]\nTCPService = true\n")
            environment = dict(os.environ, INIPROFILE_DIR=directory)
            try:
                sender = (sys.executable, "-W", "error", "-c", SENDS % LOCAL)
                output = subprocess.run(sender, env=environment, check=True, timeout=PATIENCE, stdout=subprocess.PIPE).stdout
                self.assertTrue(output.endswith(b"interrupted\n"), output)
            finally:
                deaf.terminate()

    def test_reach_their_radar(self):
        with Watch(LOCAL) as watch:
            self.assertTrue(comes_true(lambda: watch.find("radar-1")))
            group = watch.find("radar-1").streams[0].image_control
            command = (sys.executable, "-c", RECEIVER, group.address, str(group.port), "10.20.1.1")
            with on_host(1, *command, stdout=subprocess.PIPE, text=True) as receiver:
                self.assertEqual(receiver.stdout.readline(), "ready\n")
                with Control(watch, "radar-1", "image-control") as control:
                    control.send(b"power\0on")  # at once
                    control.send(bytearray(1))
                    control.send(memoryview(b"x"))
                self.assertIn("b'power\\x00on', ('10.20.2.1',", receiver.stdout.readline())

    def test_say_why_nothing_is_sent(self):
        with Watch(LOCAL) as watch, Control(watch, "nobody") as control:
            self.assertTrue(comes_true(lambda: watch.local_address().address))
            with self.assertRaises(LookupError):
                control.send(b"x")
        with self.assertRaises(ValueError):
            control.send(b"x")


if __name__ == "__main__":
    unittest.main()
