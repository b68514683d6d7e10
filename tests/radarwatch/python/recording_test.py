import os
import pathlib
import subprocess
import tempfile
import unittest

import radarwatch
from radarwatch import Appeared, Recording, Stopped, Stream, Watch, Why
from support import LOCAL, RADARCTL, await_event, comes_true, radar, repeated


class Recordings(unittest.TestCase):
    def test_stand_in_for_the_lan_on_which_they_were_made(self):
        path = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()), "north.pcapng")
        image = radarwatch.groups(30)[0].image
        with radar(b"North", 30), repeated(b"picture", image.address, image.port):
            command = (RADARCTL, "record", "North", "--interface", "eth0", "--duration", "1", "-o", path)
            subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
        events = []
        with Recording(path, speed=0) as recording, Watch(address := recording.local_address) as watch:
            self.assertEqual(await_event(watch, Appeared, "North").radar.streams[0].image, image)
            self.assertFalse(recording.is_over)
            if (child := os.fork()) == 0:
                os._exit(0 if recording.local_address == address else 1)
            self.assertEqual(os.waitpid(child, 0)[1], 0, "a child sees the recording, not the real LAN")
            datagrams = []
            with Stream(watch, "North", on_event=events.append) as stream:
                while (taken := stream.read(0.1)) or not recording.is_over:
                    datagrams += taken
                self.assertEqual(recording.dropped, 0)
                recording.close()
                stopped = lambda: not stream.read(0.1) and isinstance(events[-1], Stopped)
                self.assertTrue(comes_true(stopped), events)
        self.assertEqual(events[-1].why, Why.LOCAL_ADDRESS)
        self.assertGreater(len(datagrams), 10)
        self.assertEqual({(one.data, one.source[0]) for one in datagrams}, {(b"picture", LOCAL)})
        self.assertEqual(sorted(one.arrival_ns for one in datagrams), [one.arrival_ns for one in datagrams])

    def test_are_refused_with_errors_of_python(self):
        with self.assertRaises(FileNotFoundError):
            Recording("/nowhere")
        with self.assertRaises(OSError):
            Recording(__file__)
        with self.assertRaises(ValueError):
            Recording(__file__ + "\0x")
        for wrong in ({"speed": -1}, {"streams": -1}, {"streams": 2**32 + 1}):
            with self.assertRaises(ValueError):
                Recording(__file__, **wrong)


if __name__ == "__main__":
    unittest.main()
