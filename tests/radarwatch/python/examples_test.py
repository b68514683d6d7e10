"""The examples, in Python and in C, do what README says of them."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

from support import PATIENCE, SOURCES, radar

EXAMPLES = SOURCES / "examples" / "python"


class Examples(unittest.TestCase):
    def lines(self, *command):
        """The lines that a program prints, which is ended at the end of the test."""
        process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, bufsize=1)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process.stdout

    def test_live_table_lists_the_radars(self):
        lines = self.lines(sys.executable, "-u", EXAMPLES / "live_table.py")
        first = next(line for line in lines if "radar-1" in line)
        self.assertRegex(first, r"^'radar-1' +16  10\.20\.1\.1 +236\.6\.7\.35:6003$")
        self.assertIn("radar-2", next(line for line in lines if "radar-2" in line))

    def test_save_picture_saves_a_picture(self):
        with radar(1, "North", 30, "--simulate", "--rate", "60"), tempfile.TemporaryDirectory() as directory:
            file = pathlib.Path(directory, "north.pgm")
            subprocess.run([sys.executable, EXAMPLES / "save_picture.py", "North", file], check=True, timeout=PATIENCE)
            header, pixels = file.read_bytes().split(b"\n", 1)
        self.assertEqual((header, len(pixels)), (b"P5 1024 1024 255", 1024 * 1024))
        self.assertEqual((pixels[0], pixels[1024 * 512 + 100]), (0, 8), "nothing in the corner, clutter on the sea")
        self.assertGreater(pixels.count(0xF0), 3, "targets")

    def test_the_page_shows_programs_that_run(self):
        page = (SOURCES / "docs" / "radarwatch-python.md").read_text()
        shown = [block.split("```")[0] for block in page.split("```python\n")[1:]]
        expected = ["'radar-1' sends its image to 236.6.7.35:6003", "Statistics(datagrams=", "Appeared(radar=Radar("]
        with radar(1, "North", 30, "--simulate"):
            for program, text in zip(shown, expected, strict=True):
                lines = self.lines(sys.executable, "-u", "-W", "error", "-c", program)
                self.assertTrue(any(text in line for line in lines), text)

    def test_watch_in_c_tells_of_radars_and_their_image(self):
        with radar(1, "North", 30, "--simulate", "--rate", "120"):
            lines = self.lines(os.environ["EXAMPLE_WATCH"], "North")
            expected = {
                "local found: \n",
                "appeared: North, image on 236.6.8.3 port 6451\n",
                "image: 1 million bytes\n",
            }
            while expected:  # in any order, among what the library prints
                expected.discard(next(lines))


if __name__ == "__main__":
    unittest.main()
