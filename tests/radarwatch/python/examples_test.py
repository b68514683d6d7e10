"""The examples, in Python and in C, and the programs that the page on Python shows do what is said of them: all at once."""

import ctypes
import ctypes.util
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


class Png(ctypes.Structure):
    """png_image of libpng."""

    _fields_ = [
        ("opaque", ctypes.c_void_p),
        *((name, ctypes.c_uint32) for name in ("version", "width", "height", "format", "flags", "colors", "failed")),
        ("message", ctypes.c_char * 64),
    ]


def grey(file):
    """The pixels of a PNG, a byte each."""
    library = ctypes.CDLL(ctypes.util.find_library("png16"))
    png = Png(version=1)
    library.png_image_begin_read_from_file(ctypes.byref(png), os.fsencode(file))
    png.format = 0
    pixels = ctypes.create_string_buffer(png.width * png.height)
    library.png_image_finish_read(ctypes.byref(png), None, pixels, 0, None)
    return pixels.raw


class Examples(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.saved, cls.drawn = directory / "north.pgm", directory / "north.png"
        cls.enterClassContext(profile(f"[Local]\nIP = {LOCAL}\nMulticastLoop = true\n"))
        cls.enterClassContext(radar(b"radar-1", 16))
        cls.image = cls.enterClassContext(group(IMAGE.address, IMAGE.port))
        subprocess.run(("ip", "route", "add", "236.6.0.0/16", "dev", "eth0"), check=True)  # as a host needs
        cls.start(RADARCTL, "host", "--name", "North", "--id", "30", "--simulate", "--rate", "120")
        cls.table = cls.start(sys.executable, "-u", EXAMPLES / "live_table.py")
        cls.saving = cls.start(sys.executable, EXAMPLES / "save_picture.py", "North", cls.saved)
        cls.drawing = cls.start(os.environ["DISPLAY_IMAGE"], "North", cls.drawn)
        cls.refused = cls.start(os.environ["DISPLAY_IMAGE"], "North", "/none/north.png")
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
        expected = [r"^'radar-1' +16  10\.20\.2\.1 +236\.6\.7\.35:6003$", "^'North' +30 "]
        while expected:  # in any order
            line = next(self.table.stdout)
            expected = [one for one in expected if not re.search(one, line)]

    def test_pictures_show_the_targets_on_the_sea(self):
        ended = [one.wait(2 * PATIENCE) for one in (self.saving, self.drawing, self.refused)]
        self.assertEqual(ended, [0, 0, 1])
        header, saved = self.saved.read_bytes().split(b"\n", 1)
        self.assertEqual(header, b"P5 1024 1024 255")
        for pixels in (saved, grey(self.drawn)):
            self.assertEqual(len(pixels), 1024 * 1024)

            def brightest(east, north):  # nautical miles from the centre, of 6 to each side
                x, y = 512 + int(east * 512 / 6), 512 - int(north * 512 / 6)
                return max(max(pixels[1024 * row + x - 12 : 1024 * row + x + 13]) for row in range(y - 12, y + 13))

            for target in ((-3, 2), (1.5, -4), (4, 3)):  # they begin here, and are slow
                self.assertEqual(brightest(*target), 0xF0, target)
            self.assertEqual(brightest(-3, -2), 8, "the sea")
            self.assertEqual(pixels[0], 0, "beyond the range")

    def test_the_page_shows_programs_that_run(self):
        expected = ["'radar-1' sends its image to 236.6.7.35:6003", "Statistics(datagrams=", "Appeared(radar=Radar("]
        for program, text in zip(self.shown, expected, strict=True):
            self.assertTrue(any(text in line for line in program.stdout), text)

    def test_a_simulated_image_has_the_fields_of_its_page(self):
        datagram = self.image.receiver.recv(65536)
        page = (SOURCES / "docs" / "simulator.md").read_text()
        rows = re.findall(r"^\| (\d+) \| (\d+) \| (\w+)", page, re.MULTILINE)
        fields = {name: datagram[int(offset) : int(offset) + int(size)] for offset, size, name in rows}
        self.assertEqual(b"".join(fields.values()), datagram)
        self.assertEqual((fields["mark"], fields["spokes"]), (b"SIMI", (1024).to_bytes(2, "big")))
        self.assertEqual((fields["sequence"], fields["spoke"]), (bytes(4), bytes(2)), "the first one")

    def test_watch_in_c_tells_of_radars_and_their_image(self):
        expected = {"local found: \n", "appeared: North, image on 236.6.8.3 port 6451\n", "image: 1 million bytes\n"}
        while expected:  # in any order, among what the library prints
            expected.discard(next(self.watch.stdout))


if __name__ == "__main__":
    unittest.main()
