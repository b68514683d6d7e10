import multiprocessing
import pathlib
import subprocess
import tempfile
import unittest

import radarwatch
from radarwatch import Appeared, Recording, Stopped, Stream, Watch, Why
from support import PATIENCE, RADARCTL, await_event, comes_true, radar


class Recordings(unittest.TestCase):
    def test_stand_in_for_the_lan_on_which_they_were_made(self):
        path = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()), "north.pcapng")
        with radar(1, "North", 30, "--simulate"):
            command = (RADARCTL, "record", "North", "--interface", "eth0", "--duration", "2", "-o", path)
            subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
        events = []
        with Recording(path, speed=0) as recording, Watch(recording.local_address) as watch:
            north = await_event(watch, Appeared, "North").radar
            self.assertEqual(north.streams[0].image, radarwatch.groups(30)[0].image)
            self.assertFalse(recording.is_over)
            fork = multiprocessing.get_context("fork")
            seen = fork.SimpleQueue()
            child = fork.Process(target=lambda: seen.put(recording.local_address))
            child.start()
            child.join(PATIENCE)
            self.assertEqual(child.exitcode, 0)
            self.assertEqual(seen.get(), recording.local_address, "and not the real LAN")
            datagrams = []
            with Stream(watch, "North", on_event=events.append) as stream:
                while (taken := stream.read(0.1)) or not recording.is_over:
                    datagrams += taken
                self.assertEqual(recording.dropped, 0)
                recording.close()
                stopped = lambda: not stream.read(0.1) and isinstance(events[-1], Stopped)
                self.assertTrue(comes_true(stopped), events)
        self.assertEqual(events[-1].why, Why.LOCAL_ADDRESS)
        self.assertGreater(len(datagrams), 100)
        self.assertTrue(all(one.data[:4] == b"SIMI" for one in datagrams))
        self.assertEqual(datagrams[0].source[0], "10.20.1.1")
        self.assertEqual(sorted(one.arrival_ns for one in datagrams), [one.arrival_ns for one in datagrams])

    def test_are_refused_with_errors_of_python(self):
        with self.assertRaises(FileNotFoundError):
            Recording("/nowhere")
        with self.assertRaises(OSError):
            Recording(__file__)
        for wrong in ({"speed": -1}, {"streams": -1}, {"streams": 2**32 + 1}):
            with self.assertRaises(ValueError):
                Recording(__file__, **wrong)


if __name__ == "__main__":
    unittest.main()
