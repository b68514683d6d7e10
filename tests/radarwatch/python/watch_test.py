import concurrent.futures
import contextlib
import ctypes
import gc
import math
import multiprocessing
import os
import select
import signal
import threading
import time
import unittest
from unittest import mock

import radarwatch
from radarwatch import Appeared, Change, Changed, Control, Left, LocalFound, Origin, Reason, Sequence, Stream, Watch
from support import HOST, LOCAL, PATIENCE, await_event, comes_true, group, profile, radar


def setUpModule():
    unittest.enterModuleContext(profile("[Local]\nMulticastLoop = true\n"))
    unittest.enterModuleContext(radar(b"radar-1", 16))
    unittest.enterModuleContext(radar(b"radar-2", 17))


def resources():
    return len(os.listdir("/proc/self/task")), len(os.listdir("/proc/self/fd"))


class Radars(unittest.TestCase):
    def test_appear_change_and_leave(self):
        any_bytes = b"\xff\x1b[2J \xe2\x82\xac"
        east = any_bytes.decode("utf-8", "surrogateescape")
        with Watch(LOCAL) as watch:
            self.assertTrue(select.select([watch], [], [], PATIENCE)[0])
            self.assertEqual(await_event(watch, LocalFound).local.origin, Origin.OPTIONS)
            self.assertEqual(watch.local_address().interface, "eth0")
            both = {await_event(watch, Appeared).radar.name for _ in range(2)}
            self.assertEqual(both, {"radar-1", "radar-2"})
            self.assertEqual([radar.name for radar in watch.radars()], ["radar-1", "radar-2"])
            raw = radarwatch._Entry()
            watch._call(radarwatch._watch_find, b"radar-1", ctypes.byref(raw))
            self.assertEqual(raw.size, ctypes.sizeof(raw), "for the next call")
            raw.size -= 8
            with self.assertRaises(OSError):  # a structure of another version
                watch._call(radarwatch._watch_find, b"radar-1", ctypes.byref(raw))

            with radar(any_bytes, 1, 2), group(*HOST["NEGOTIATION"]) as hosts:
                told = await_event(watch, Appeared, east).radar
                self.assertEqual(told.name.encode("utf-8", "surrogateescape"), any_bytes)
                repr(told).encode("utf-8")  # can be printed
                self.assertEqual((told.host_id, told.source), (1, LOCAL))
                self.assertEqual(told.streams, radarwatch.groups(1))
                self.assertEqual(told.streams[0].image.kind, "udp")
                self.assertTrue(watch.renumber(east))
                self.assertEqual(hosts.receiver.recv(100), b"\x03\xa1\x01\x01")
            with radar(any_bytes, 20, 2):
                changed = await_event(watch, Changed, east)
                self.assertIn(Change.HOST_ID, changed.changes)
                self.assertEqual(changed.radar.host_id, 20)
            self.assertEqual(await_event(watch, Left, east).reason, Reason.SILENT)
            self.assertIsNone(watch.find(east))
            self.assertFalse(watch.renumber(east))
class Events(unittest.TestCase):
    def test_end_by_a_time_and_by_close(self):
        watch = Watch("127.0.0.1")  # where no radar is
        self.assertIsInstance(watch.next(PATIENCE), LocalFound)
        self.assertIsNone(watch.next(0.1))
        threading.Timer(0.1, watch.close).start()
        self.assertIsNone(watch.next(math.inf))
        self.assertEqual((watch.next(), watch.fileno()), (None, -1))
        for refused in (watch.radars, lambda: Stream(watch, "radar-1")):
            with self.assertRaises(ValueError):
                refused()
        watch.close()

    def test_and_datagrams_are_not_waited_for_after_a_signal(self):
        watch = Watch("127.0.0.1")
        for source in (Stream(watch, "radar-1"), watch):
            for handler in (signal.default_int_handler, lambda *_: source.close()):
                signal.signal(signal.SIGALRM, handler)
                signal.setitimer(signal.ITIMER_REAL, 0.1)
                with contextlib.suppress(KeyboardInterrupt):
                    for _ in source:
                        pass
                    self.assertEqual(source.fileno(), -1, "it was closed")


class Objects(unittest.TestCase):
    def test_that_are_collected_leave_nothing_behind(self):
        new = radarwatch._watch_new

        def interrupted(*arguments):
            raise KeyboardInterrupt(new(*arguments))

        def use():
            with mock.patch("radarwatch._watch_new", interrupted), self.assertRaises(KeyboardInterrupt):
                Watch(LOCAL)
            watch = Watch(LOCAL)
            stream = Stream(watch, "radar-1")
            control = Control(watch, "radar-1")
            watch.cycle = [watch, stream, control]
            return stream.read(0)

        use()
        gc.collect()
        before = resources()
        for _ in range(5):
            use()
        gc.collect()
        self.assertTrue(comes_true(lambda: resources() == before), f"{before}, {resources()}")

    def test_may_be_made_and_closed_by_many_threads(self):
        def churn(kind):
            for _ in range(300):
                one = kind()
                taker = threading.Thread(target=lambda: [None for _ in one])
                taker.start()
                one.close()
                taker.join()

        with Watch(LOCAL) as watch, concurrent.futures.ThreadPoolExecutor() as workers:
            stream = lambda: Stream(watch, "radar-1")
            list(workers.map(churn, (lambda: Watch(LOCAL), stream, stream)))

    def test_do_nothing_in_a_forked_child(self):
        def look(watch, stream, control, results):
            looked = [list(watch), watch.radars(), watch.find("radar-1"), watch.renumber("radar-1"), watch.reset()]
            looked += [watch.next(), list(stream), stream.read(), watch.fileno(), control.send(b"x")]
            looked += [stream.statistics().datagrams, watch.local_address().origin]
            watch.close()
            del watch, stream, control
            with Watch(LOCAL) as own:
                looked.append(await_event(own, Appeared, "radar-2").radar.name)
            results.put(looked)

        fork = multiprocessing.get_context("fork")
        with Watch(LOCAL) as watch, Stream(watch, "radar-1") as stream:
            control = Control(watch, "radar-1")
            await_event(watch, Appeared, "radar-1")
            results = fork.SimpleQueue()
            child = fork.Process(target=look, args=(watch, stream, control, results))
            child.start()
            child.join(PATIENCE)
            self.assertEqual(child.exitcode, 0)
            nothing = [[], [], None, False, False, None, [], [], -1, None, 0, Origin.NONE]
            self.assertEqual(results.get(), nothing + ["radar-2"])
            heard = lambda: time.monotonic() - watch.find("radar-1").age
            before = heard()
            self.assertTrue(comes_true(lambda: heard() > before + 0.1), "the parent's goes on")

    def test_are_refused_with_errors_of_python(self):
        with Watch(LOCAL) as watch:
            for wrong in (
                lambda: radarwatch.groups(15),
                lambda: radarwatch.groups(2**32 + 20),
                lambda: Watch("10.20.2"),
                lambda: Control(watch, "North", number=2**32),
                lambda: Control(watch, "North\0"),
            ):
                self.assertRaises(ValueError, wrong)
            options = [{"channel": "picture"}, {"number": 2}, {"number": 2**32}, {"receive_buffer": -1}]
            for place in ({"width": 9}, {"width": 0}, {"offset": -4}, {"modulus": -1}):
                options.append({"sequence": Sequence(**{"offset": 0, **place})})
            for wrong in options:
                self.assertRaises(ValueError, Stream, watch, "North", **wrong)


if __name__ == "__main__":
    unittest.main()
