"""What the tests share. They run on the display of a virtual LAN, whose hosts are radar-1 and radar-2."""

import contextlib
import os
import pathlib
import subprocess
import sys
import time

SOURCES = pathlib.Path(os.environ["SOURCES"])
RADARCTL = os.environ["RADARCTL"]
PATIENCE = 30  # seconds
NEVER_DRAWN = 1  # a host id that a radar which is told to renumber surely leaves
LOCAL = "10.20.2.1"  # of the interface that leads to the radars, for those who do not search


def comes_true(condition, patience=PATIENCE):
    """Whether the condition holds before patience ends."""
    deadline = time.monotonic() + patience
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


def await_event(watch, kind, name=None):
    """The next event of that kind, of the radar of that name."""
    passed = []
    while True:
        event = watch.next(PATIENCE)
        if event is None:
            raise AssertionError(f"no {kind.__name__} after {passed}")
        passed.append(event)
        if isinstance(event, kind) and (name is None or event.radar.name == name):
            return event


@contextlib.contextmanager
def radar(number, name, host_id, *arguments):
    """A further radar on one of the hosts, which serves when this begins."""
    command = ("ip", "netns", "exec", f"host{number}", RADARCTL, "host", "--name", name, "--id", str(host_id))
    with subprocess.Popen((*command, *arguments), stdout=subprocess.PIPE) as process:
        try:
            for line in process.stdout:
                if line.startswith(b"serving "):
                    break
            else:
                raise AssertionError(f"{name!r} does not serve")
            yield
        finally:
            process.terminate()
            process.communicate()


class Python:
    """A program of its own, that prints "ready" before what is tried, and ends by itself or when told to."""

    def __init__(self, text):
        self.process = subprocess.Popen(
            [sys.executable, "-c", text], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
        )

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()

    def end(self, signal=None):
        """Exit status, output after "ready", error output; by a signal that comes while it waits."""
        if "ready\n" not in self.process.stdout:  # after what the library prints
            raise AssertionError(self.process.stderr.read())
        if signal:
            stat = pathlib.Path(f"/proc/{self.process.pid}/stat")
            comes_true(lambda: stat.read_text().split()[2] == "S")
            self.process.send_signal(signal)
        output, errors = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, output, errors
