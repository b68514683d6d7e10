"""What the tests share. They run on the display of a virtual LAN that has no radars, and hear what they send themselves."""

import contextlib
import os
import pathlib
import runpy
import socket
import tempfile
import threading
import time

SOURCES = pathlib.Path(os.environ["SOURCES"])
RADARCTL = os.environ["RADARCTL"]
PATIENCE = 30  # seconds
LOCAL = "10.20.2.1"  # of the interface that leads to the LAN, for those who do not search
HOST = runpy.run_path(SOURCES / "examples" / "host.py")


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
def profile(text):
    """The library's configuration, of this program and of those that it starts."""
    with tempfile.TemporaryDirectory() as directory:
        pathlib.Path(directory, "profile.ini").write_text(text)
        os.environ["INIPROFILE_DIR"] = directory
        yield
        del os.environ["INIPROFILE_DIR"]


@contextlib.contextmanager
def group(address, port):
    """A multicast group to receive from, and to send to, also to this computer."""
    made = HOST["Group"]((address, port), LOCAL)
    with made.sender, made.receiver:
        made.sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 1)
        made.receiver.settimeout(PATIENCE)
        yield made


@contextlib.contextmanager
def repeated(message, *address):
    """This is sent to a group, fifty times a second."""
    over = threading.Event()
    with group(*address) as to:

        def send():
            while not over.wait(0.02):
                to.send(message)

        thread = threading.Thread(target=send)
        thread.start()
        try:
            yield
        finally:
            over.set()
            thread.join()


def radar(name, host_id, streams=1):
    """A radar on this computer, which announces itself."""
    return repeated(HOST["announcement"](name, host_id, streams), *HOST["DISCOVERY"])
