import os
import select
import signal
import socket
import threading
import time
import unittest
from contextlib import suppress
from unittest import mock

from radarwatch import Control, Moved, Sequence, Started, Stream, Watch, Why, groups
from support import HOST, LOCAL, PATIENCE, comes_true, group, profile, radar, repeated


class Streams(unittest.TestCase):
    def test_follow_their_radar(self):
        here, there = groups(1)[0], groups(20)[0].image
        events = []
        with Watch(LOCAL) as watch, Stream(
            watch, "North", on_event=events.append, sequence=Sequence(offset=1, width=2), receive_buffer=1 << 22
        ) as stream:
            self.assertEqual(stream.read(0.1), [])
            self.assertIsNone(stream.statistics().since_last)
            with radar(b"North", 1), group(here.image.address, here.image.port) as image:
                self.assertTrue(comes_true(lambda: not stream.read(0.01) and events))
                self.assertIsInstance(events[0], Started)
                self.assertEqual((events[0].endpoint, events[0].interface), (here.image, "eth0"))
                sent = [b"#" + number.to_bytes(2, "big") for number in (0, 1, 2, 6, 6, 4, 7)]
                for data in sent:
                    image.send(data)
                taken = [next(stream) for _ in sent[1:]] + stream.read(PATIENCE)  # what is left
                self.assertEqual([one.data for one in taken], sent)
                self.assertEqual(taken[0].source[0], LOCAL)
                self.assertLess(abs(time.time_ns() - taken[0].arrival_ns), PATIENCE * 10**9)
                counted = stream.statistics()
                self.assertEqual((counted.datagrams, counted.bytes, counted.cut), (7, 21, 0))
                self.assertEqual((counted.missing, counted.repeated, counted.reordered), (2, 1, 1))
                self.assertTrue(0 < counted.median_gap <= counted.gap_99 * 1.1)
                image.send(b"waits")
                self.assertTrue(select.select([stream], [], [], PATIENCE)[0])
                self.assertEqual(stream._use(lambda _: stream.read()), [], "in a signal handler in another call")
                self.assertEqual(stream.read(0)[0].data, b"waits")

                with Stream(watch, "North", "arpa") as targets, Stream(watch, "North", largest_datagram=10) as cut:
                    with repeated(b"$RATTM", here.arpa.address, here.arpa.port):
                        self.assertEqual(next(targets).data, b"$RATTM")
                    with repeated(bytes(11), here.image.address, here.image.port):
                        self.assertEqual(next(cut).data, bytes(10))
                    self.assertGreater(cut.statistics().cut, 0)
            with radar(b"North", 20), repeated(b"moved", there.address, there.port):
                self.assertTrue(comes_true(lambda: b"moved" in [one.data for one in stream.read(0.1)]))
            self.assertIsInstance(events[-1], Moved)
            self.assertEqual((events[-1].why, events[-1].endpoint), (Why.ENDPOINT, there))


class Controls(unittest.TestCase):
    def setUp(self):
        """What is sent is heard on this computer as well."""
        self.enterContext(profile("[Local]\nMulticastLoop = true\n[Radar]\nTCPService = true\n"))

    def test_are_interrupted_while_their_radar_does_not_read(self):
        announcement = bytearray(HOST["announcement"](b"Deaf", 45, 2))
        announcement[22] = announcement[30] = 1  # the long form; there is a TCP service
        announcement[37:43] = socket.inet_aton(LOCAL) + (5000).to_bytes(2, "big")
        announcement[68] = 1  # its image control: a server
        handled = []

        def interrupt(*_):
            handled.append(True)
            if len(handled) == 2:
                raise KeyboardInterrupt

        def reaches(control):
            try:
                control.send(b"x")
                return True
            except (LookupError, OSError):
                return False

        deaf = self.enterContext(socket.create_server((LOCAL, 5000)))
        self.enterContext(repeated(announcement, *HOST["DISCOVERY"]))
        with Watch(LOCAL) as watch, Control(watch, "Deaf:TCP", "image-control") as control:
            self.assertTrue(comes_true(lambda: reaches(control)))
            self.assertEqual(watch.find("Deaf:TCP").tcp.image_control.port, 5000)
            signal.signal(signal.SIGALRM, interrupt)
            signal.setitimer(signal.ITIMER_REAL, 0.2, 0.2)
            with self.assertRaises(KeyboardInterrupt):
                while True:
                    control.send(bytes(1 << 24))
            signal.setitimer(signal.ITIMER_REAL, 0)
            deaf.close()

    def test_are_closed_by_what_interrupts_them(self):
        def interrupt(*_):
            raise KeyboardInterrupt

        signal.signal(signal.SIGALRM, interrupt)
        with Watch(LOCAL) as watch:
            stream = Stream(watch, "nobody")
            descriptor = stream.fileno()
            for _ in range(400):  # wherever a call is then
                other = threading.Thread(target=stream.statistics, daemon=True)
                try:
                    with Control(watch, "nobody") as control:
                        signal.setitimer(signal.ITIMER_REAL, 0.0005)
                        while True:
                            for _ in range(10):
                                stream.read(0)
                            with suppress(LookupError):
                                control.send(b"x")
                except KeyboardInterrupt:
                    other.start()
                    other.join(PATIENCE)
                self.assertFalse(other.is_alive(), "it waits for what was interrupted")
            stream.close()
            with self.assertRaises(OSError):
                os.fstat(descriptor)

    def test_reach_their_radar_or_say_why_not(self):
        endpoint = groups(20)[0].image_control
        with Watch(LOCAL) as watch, Control(watch, "nobody") as unheard, radar(b"North", 20):
            self.assertTrue(comes_true(lambda: watch.find("North")))
            with self.assertRaises(LookupError):
                unheard.send(b"x")
            with group(endpoint.address, endpoint.port) as there, Control(watch, "North", "image-control") as control:
                for data in (b"power\0on", bytearray(b"x"), memoryview(b"y")):
                    control.send(data)  # at once
                    received, source = there.receiver.recvfrom(65536)
                    self.assertEqual((received, source[0]), (bytes(data), LOCAL))
                with mock.patch("_thread.start_new_thread", side_effect=RuntimeError), self.assertRaises(OSError):
                    control.send(b"x")
        with self.assertRaises(ValueError):
            control.send(b"x")


if __name__ == "__main__":
    unittest.main()
