"""The examples, in Python and in C, and the programs that the page on Python shows do what is said of them: all at once."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

import radarwatch
from support import LOCAL, PATIENCE, RADARCTL, SOURCES, group, profile, radar

EXAMPLES = SOURCES / "examples" / "python"
PAGE = (SOURCES / "docs" / "radarwatch-python.md").read_text()
IMAGE = radarwatch.groups(30)[0].image


class Examples(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.file = directory / "north.pgm"
        cls.enterClassContext(profile(f"[Local]\nIP = {LOCAL}\nMulticastLoop = true\n"))
        cls.enterClassContext(radar(b"radar-1", 16))
        cls.image = cls.enterClassContext(group(IMAGE.address, IMAGE.port))
        subprocess.run(("ip", "route", "add", "236.6.0.0/16", "dev", "eth0"), check=True)  # as a host needs
        cls.start(RADARCTL, "host", "--name", "North", "--id", "30", "--simulate", "--rate", "120")
        cls.table = cls.start(sys.executable, "-u", EXAMPLES / "live_table.py")
        cls.saving = cls.start(sys.executable, EXAMPLES / "save_picture.py", "North", cls.file)
        cls.watch = cls.start(os.environ["EXAMPLE_WATCH"], "North")
        shown = [block.split("```")[0] for block in PAGE.split("```python\n")[1:]]
        cls.shown = [cls.start(sys.executable, "-u", "-W", "error", "-c", program) for program in shown]

    @classmethod
    def start(cls, *command):
        """A program, which is ended at the end of the tests."""
        process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, bufsize=1)
        cls.addClassCleanup(process.communicate)
        cls.addClassCleanup(process.kill)
        return process

    def test_live_table_lists_the_radars(self):
        lines = self.table.stdout
        first = next(line for line in lines if "radar-1" in line)
        self.assertRegex(first, r"^'radar-1' +16  10\.20\.2\.1 +236\.6\.7\.35:6003$")
        self.assertIn("North", next(line for line in lines if "North" in line))

    def test_save_picture_saves_a_picture(self):
        self.assertEqual(self.saving.wait(2 * PATIENCE), 0)
        header, pixels = self.file.read_bytes().split(b"\n", 1)
        self.assertEqual((header, len(pixels)), (b"P5 1024 1024 255", 1024 * 1024))
        self.assertEqual((pixels[0], pixels[1024 * 512 + 100]), (0, 8), "nothing in the corner, clutter on the sea")
        self.assertGreater(pixels.count(0xF0), 3, "targets")

    def test_the_page_shows_programs_that_run(self):
        expected = ["'radar-1' sends its image to 236.6.7.35:6003", "Statistics(datagrams=", "Appeared(radar=Radar("]
        for program, text in zip(self.shown, expected, strict=True):
            self.assertTrue(any(text in line for line in program.stdout), text)

    def test_a_simulated_image_has_the_fields_of_its_page(self):
        datagram = self.image.receiver.recv(65536)
        page = (SOURCES / "docs" / "simulator.md").read_text()
        rows = re.findall(r"^\| (\d+) \| (\d+) \| (\w+)", page, re.MULTILINE)
        fields = {}
        length = 0
        for offset, size, name in rows:
            self.assertEqual(int(offset), length, name)
            length += int(size)
            fields[name] = datagram[int(offset) : length]
        self.assertEqual(len(datagram), length)
        self.assertEqual((fields["mark"], fields["spokes"]), (b"SIMI", (1024).to_bytes(2, "big")))
        self.assertEqual((fields["sequence"], fields["spoke"]), (bytes(4), bytes(2)), "the first one")

    def test_watch_in_c_tells_of_radars_and_their_image(self):
        expected = {"local found: \n", "appeared: North, image on 236.6.8.3 port 6451\n", "image: 1 million bytes\n"}
        while expected:  # in any order, among what the library prints
            expected.discard(next(self.watch.stdout))


if __name__ == "__main__":
    unittest.main()
