import itertools
import os
import pathlib
import runpy
import select
import signal
import socket
import tempfile
import time
import unittest

import radarwatch
from radarwatch import Control, Moved, Sequence, Started, Stream, Watch
from support import LOCAL, NEVER_DRAWN, PATIENCE, SOURCES, comes_true, radar

SPOKE = 12 + 512  # bytes of a simulated radar's datagram


class Streams(unittest.TestCase):
    def test_follow_their_radar(self):
        events = []
        with Watch(LOCAL) as watch, Stream(
            watch, "North", on_event=events.append, sequence=Sequence(offset=4), receive_buffer=1 << 22
        ) as stream:
            self.assertEqual(stream.read(0.1), [])
            self.assertIsNone(stream.statistics().since_last)
            self.enterContext(radar(1, "North", NEVER_DRAWN, "--simulate"))
            for datagram in itertools.islice(stream, 200):
                self.assertEqual((datagram.data[:4], len(datagram.data)), (b"SIMI", SPOKE))
                self.assertEqual(datagram.source[0], "10.20.1.1")
                self.assertLess(abs(time.time_ns() - datagram.arrival_ns), PATIENCE * 10**9)
            self.assertIsInstance(events[0], Started)
            planned = radarwatch.groups(NEVER_DRAWN)[0]
            self.assertEqual((events[0].endpoint, events[0].interface), (planned.image, "eth0"))
            counted = stream.statistics()
            self.assertGreaterEqual(counted.datagrams, 200)
            self.assertEqual(counted.bytes, counted.datagrams * SPOKE)
            self.assertEqual((counted.cut, counted.repeated, counted.reordered), (0, 0, 0))
            self.assertTrue(0 < counted.median_gap <= counted.gap_99 * 1.1)
            self.assertTrue(select.select([stream], [], [], PATIENCE)[0])
            self.assertTrue(stream.read(0))

            with Stream(watch, "North", "arpa") as targets, Stream(watch, "North", largest_datagram=10) as cut:
                self.assertTrue(next(targets).data.startswith(b"$RATTM,"))
                self.assertEqual(len(next(cut).data), 10)
                self.assertGreater(cut.statistics().cut, 0)

            self.assertTrue(watch.renumber("North"))
            self.assertTrue(comes_true(lambda: stream.read(1) and any(isinstance(e, Moved) for e in events)))
            self.assertEqual(next(stream).data[:4], b"SIMI")


class Controls(unittest.TestCase):
    def setUp(self):
        """What is sent is heard on this computer as well."""
        directory = self.enterContext(tempfile.TemporaryDirectory())
        profile = "[Local]\nMulticastLoop = true\n[Radar]\nTCPService = true\n"
        pathlib.Path(directory, "profile.ini").write_text(profile)
        os.environ["INIPROFILE_DIR"] = directory
        self.addCleanup(os.environ.pop, "INIPROFILE_DIR")
        self.host = runpy.run_path(SOURCES / "examples" / "host.py")

    def group(self, *address):
        group = self.host["Group"](address, LOCAL)
        self.enterContext(group.sender)
        self.enterContext(group.receiver)
        return group

    def test_are_interrupted_while_their_radar_does_not_read(self):
        announcement = bytearray(self.host["announcement"](b"Deaf", 45, 2))
        announcement[22] = announcement[30] = 1  # the long form; there is a TCP service
        announcement[37:43] = socket.inet_aton(LOCAL) + (5000).to_bytes(2, "big")
        announcement[68] = 1  # its image control: a server
        discovery = self.group(*self.host["DISCOVERY"])
        discovery.sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 1)
        deaf = self.enterContext(socket.create_server((LOCAL, 5000)))
        handled = []

        def interrupt(*_):
            handled.append(True)
            if len(handled) == 2:
                raise KeyboardInterrupt

        def reaches(control):
            discovery.send(bytes(announcement))
            try:
                control.send(b"x")
                return True
            except (LookupError, OSError):
                return False

        with Watch(LOCAL) as watch, Control(watch, "Deaf:TCP", "image-control") as control:
            self.assertTrue(comes_true(lambda: reaches(control)))
            signal.signal(signal.SIGALRM, interrupt)
            signal.setitimer(signal.ITIMER_REAL, 0.2, 0.2)
            with self.assertRaises(KeyboardInterrupt):
                while True:
                    control.send(bytes(1 << 24))
            signal.setitimer(signal.ITIMER_REAL, 0)
            deaf.close()

    def test_reach_their_radar_or_say_why_not(self):
        with Watch(LOCAL) as watch, Control(watch, "nobody") as unheard:
            self.assertTrue(comes_true(lambda: watch.find("radar-1")))
            with self.assertRaises(LookupError):
                unheard.send(b"x")
            group = watch.find("radar-1").streams[0].image_control
            receiver = self.group(group.address, group.port).receiver
            receiver.settimeout(PATIENCE)
            with Control(watch, "radar-1", "image-control") as control:
                for data in (b"power\0on", bytearray(b"x"), memoryview(b"y")):
                    control.send(data)  # at once
                    received, source = receiver.recvfrom(65536)
                    self.assertEqual((received, source[0]), (bytes(data), LOCAL))
        with self.assertRaises(ValueError):
            control.send(b"x")


if __name__ == "__main__":
    unittest.main()
