"""The module's structures and enumerations are those of radarwatch_c.h."""

import ctypes
import os
import re
import subprocess
import typing
import unittest

import radarwatch
from support import SOURCES

STRUCTURES = [kind for kind in vars(radarwatch).values() if isinstance(kind, type) and "_fields_" in vars(kind)]
ENUMERATIONS = {
    "ORIGIN": radarwatch.Origin,
    "REASON": radarwatch.Reason,
    "CHANGED": radarwatch.Change,
    "WHY": radarwatch.Why,
}


def in_c(kind):
    """StreamEvent -> stream_event"""
    return re.sub("(?<!^)(?=[A-Z])", "_", kind.__name__.strip("_")).lower()


def assertions():
    for structure in STRUCTURES:
        name = in_c(structure)
        yield f"sizeof(radar_{name}) == {ctypes.sizeof(structure)}"
        for field, kind in structure._fields_:
            yield f"offsetof(radar_{name}, {field}) == {getattr(structure, field).offset}"
            yield f"sizeof(((radar_{name}*)0)->{field}) == {ctypes.sizeof(kind)}"
    for prefix, enumeration in ENUMERATIONS.items():
        for member in enumeration:
            yield f"RADAR_{prefix}_{member.name} == {member.value}"
    for i, name in enumerate(radarwatch.CHANNELS[: radarwatch._FIRST_DEVICE]):
        yield f"RADAR_{name.upper().replace('-', '_')} == {i}"
    yield f"RADAR_INFORMATION_DEVICE == {radarwatch._FIRST_DEVICE} && RADAR_CHANNELS == {radarwatch._CHANNELS}"
    yield f"RADAR_MOST_AT_ONCE == {radarwatch._MOST_AT_ONCE}"
    for prefix, kinds in (("", radarwatch.Event), ("STREAM_", radarwatch.StreamEvent)):
        for i, kind in enumerate(typing.get_args(kinds)):
            yield f"RADAR_{prefix}{in_c(kind).upper()} == {i}"
    for i, name in enumerate(radarwatch._KINDS):
        yield f"RADAR_{name.upper().replace('-', '_')} == {i}"


class Layout(unittest.TestCase):
    def test_is_that_of_the_header(self):
        program = "#include <RadarWatch/radarwatch_c.h>\n"
        program += "".join(f'_Static_assert({one}, "");\n' for one in assertions())
        command = [os.environ.get("CC", "cc"), "-std=c11", f"-I{SOURCES}", "-x", "c", "-fsyntax-only", "-"]
        compiled = subprocess.run(command, input=program, text=True, capture_output=True)
        self.assertEqual(compiled.stderr, "")
        self.assertEqual(compiled.returncode, 0)


if __name__ == "__main__":
    unittest.main()
