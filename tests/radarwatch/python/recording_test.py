import pathlib
import subprocess
import tempfile
import unittest

import radarwatch
from radarwatch import Appeared, Recording, Stream, Watch
from support import LOCAL, RADARCTL, comes_true, radar


class Recordings(unittest.TestCase):
    def test_stand_in_for_the_lan_on_which_they_were_made(self):
        with tempfile.TemporaryDirectory() as directory:
            path = pathlib.Path(directory, "north.pcapng")
            with radar(1, "North", 30, "--simulate"):
                command = (RADARCTL, "record", "North", "--interface", "eth0", "--duration", "3", "-o", path)
                subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
            with Watch(LOCAL) as lan:
                self.assertTrue(comes_true(lambda: lan.local_address().address))
                self.assertTrue(comes_true(lambda: lan.find("North") is None))

            with Recording(path, speed=0) as recording, Watch(recording.local_address) as watch:
                event = watch.next(30)
                while not (isinstance(event, Appeared) and event.radar.name == "North"):
                    self.assertIsNotNone(event)
                    event = watch.next(30)
                self.assertEqual(event.radar.streams[0].image, radarwatch.groups(30)[0].image)
                self.assertFalse(recording.is_over)
                datagrams = []
                with Stream(watch, "North") as stream:
                    taken = True
                    while taken or not recording.is_over:
                        taken = stream.read(0.1)
                        datagrams += taken
                self.assertGreater(len(datagrams), 100)
                self.assertTrue(all(one.data[:4] == b"SIMI" for one in datagrams))
                self.assertEqual(datagrams[0].source[0], "10.20.1.1")
                self.assertEqual(sorted(one.arrival_ns for one in datagrams), [one.arrival_ns for one in datagrams])
                self.assertEqual(recording.dropped, 0)

    def test_are_refused_with_errors_of_python(self):
        with self.assertRaises(FileNotFoundError):
            Recording("/nowhere")
        with self.assertRaises(OSError):
            Recording(__file__)
        for wrong in ({"speed": -1}, {"streams": -1}):
            with self.assertRaises(ValueError):
                Recording(__file__, **wrong)


if __name__ == "__main__":
    unittest.main()
