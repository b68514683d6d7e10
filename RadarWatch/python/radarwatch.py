"""RadarWatch: which radars there are on the LAN, and what they send.

    from radarwatch import Stream, Watch

    with Watch() as watch:
        for event in watch:
            print(event)

Names are decoded as UTF-8 with "surrogateescape", since they may hold bytes of any kind: print repr(name). Addresses
are dotted quads, as the socket module takes them; times are seconds, unless a name says otherwise.

Errors: what the system refuses is raised as OSError; the use of an object that was closed as ValueError.

Threads: any thread may use an object. close() ends what waits on it in other threads, but for Control.send over TCP,
which goes on until the peer reads or the connection is lost. Waits are Python's own, so that Ctrl-C ends them at once.
An object that is collected frees what it has of the system, as close() does.

Processes: an object belongs to the process that made it. In a child made by fork, and so by multiprocessing where that
forks, it does nothing: nothing is listed, no event or datagram comes, iteration ends at once. A child makes its own.
"""

from __future__ import annotations

import _thread
import ctypes
import enum
import errno
import ipaddress
import os
import select
import socket
import struct
import sys
import threading
import time
import weakref
from collections import deque
from dataclasses import dataclass
from types import TracebackType
from typing import Any, Callable, Deque, Iterator, List, Optional, Tuple, Type, TypeVar, Union

# ---- radarwatch_c.h ----

_library = ctypes.CDLL("libRadarWatch.so.1")

_MAX_STREAMS = 2
_MAX_HOLDERS = 16
_MOST_AT_ONCE = 32
_FIRST_DEVICE = 7
_CHANNELS = _FIRST_DEVICE + 10
_LONGEST_WAIT = 2**31 - 1  # milliseconds of one call
_OUT_OF_RANGE = "a number is out of its range"

_Name = ctypes.c_char * 24
_InterfaceName = ctypes.c_char * 16


class _Endpoint(ctypes.Structure):
    _fields_ = [
        ("address", ctypes.c_uint32),
        ("port", ctypes.c_uint16),
        ("kind", ctypes.c_uint8),
        ("unused", ctypes.c_uint8),
    ]


_Endpoints = _Endpoint * _CHANNELS


class _Sized(ctypes.Structure):
    """A structure that begins with its size, by which the library knows what this module was written for."""

    def __init__(self) -> None:
        super().__init__()
        self.size = ctypes.sizeof(self)


class _Entry(_Sized):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("name", _Name),
        ("host_id", ctypes.c_int32),
        ("source", ctypes.c_uint32),
        ("age", ctypes.c_int64),
        ("stream_count", ctypes.c_int32),
        ("user", ctypes.c_uint8),
        ("has_tcp", ctypes.c_uint8),
        ("streams", _Endpoints * _MAX_STREAMS),
        ("tcp", _Endpoints),
    ]


class _Local(_Sized):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("address", ctypes.c_uint32),
        ("origin", ctypes.c_int32),
        ("interface_name", _InterfaceName),
    ]


class _Event(_Sized):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("when", ctypes.c_int64),
        ("kind", ctypes.c_int32),
        ("merged", ctypes.c_uint32),
        ("changes", ctypes.c_uint32),
        ("reason", ctypes.c_int32),
        ("successor", _Name),
        ("host_id", ctypes.c_int32),
        ("holder_count", ctypes.c_int32),
        ("holders", _Name * _MAX_HOLDERS),
        ("previous", ctypes.c_uint32),
        ("radar", _Entry),
        ("local", _Local),
    ]


class _WatchOptions(_Sized):
    _fields_ = [("size", ctypes.c_size_t), ("local_address", ctypes.c_uint32)]


class _StreamOptions(_Sized):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("number", ctypes.c_int32),
        ("sequence_width", ctypes.c_int32),
        ("sequence_offset", ctypes.c_size_t),
        ("sequence_modulus", ctypes.c_uint64),
        ("sequence_little_endian", ctypes.c_int32),
        ("unused", ctypes.c_int32),
        ("receive_buffer", ctypes.c_size_t),
        ("largest_datagram", ctypes.c_size_t),
    ]


class _Datagram(_Sized):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("data", ctypes.c_void_p),
        ("length", ctypes.c_size_t),
        ("arrival", ctypes.c_int64),
        ("source", ctypes.c_uint32),
        ("source_port", ctypes.c_uint16),
        ("unused", ctypes.c_uint16),
    ]


class _StreamEvent(_Sized):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("kind", ctypes.c_int32),
        ("why", ctypes.c_int32),
        ("endpoint", _Endpoint),
        ("interface_name", _InterfaceName),
        ("others", ctypes.c_uint32),
        ("error", ctypes.c_int32),
        ("missed", ctypes.c_uint32),
        ("unused", ctypes.c_uint32),
    ]


class _Statistics(_Sized):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("datagrams", ctypes.c_uint64),
        ("bytes", ctypes.c_uint64),
        ("cut", ctypes.c_uint64),
        ("datagrams_last_second", ctypes.c_double),
        ("bytes_last_second", ctypes.c_double),
        ("datagrams_last_ten_seconds", ctypes.c_double),
        ("bytes_last_ten_seconds", ctypes.c_double),
        ("median_gap", ctypes.c_int64),
        ("gap_99", ctypes.c_int64),
        ("longest_gap", ctypes.c_int64),
        ("since_last", ctypes.c_int64),
        ("dropped_at_socket", ctypes.c_uint64),
        ("dropped_at_interface", ctypes.c_uint64),
        ("missing", ctypes.c_uint64),
        ("repeated", ctypes.c_uint64),
        ("reordered", ctypes.c_uint64),
    ]


def _function(name: str, *arguments: Any, result: Any = ctypes.c_int) -> Callable[..., Any]:
    function = getattr(_library, name)
    function.argtypes = arguments
    function.restype = result
    return function  # type: ignore[no-any-return]


_handle = ctypes.c_void_p
_pointer = ctypes.POINTER
_version = _function("radar_version", result=ctypes.c_char_p)
_groups = _function("radar_groups", ctypes.c_int, ctypes.c_int, _pointer(_Endpoint))
_watch_new = _function("radar_watch_new", _pointer(_handle), _pointer(_WatchOptions))
_watch_free = _function("radar_watch_free", _handle, result=None)
_watch_next = _function("radar_watch_next", _handle, _pointer(_Event), ctypes.c_int)
_watch_descriptor = _function("radar_watch_descriptor", _handle)
_watch_radars = _function("radar_watch_radars", _handle, _pointer(_Entry), ctypes.c_size_t)
_watch_find = _function("radar_watch_find", _handle, ctypes.c_char_p, _pointer(_Entry))
_watch_local = _function("radar_watch_local", _handle, _pointer(_Local))
_watch_renumber = _function("radar_watch_renumber", _handle, ctypes.c_char_p)
_watch_reset = _function("radar_watch_reset", _handle)
_recording_open = _function(
    "radar_recording_open", _pointer(_handle), ctypes.c_char_p, ctypes.c_double, ctypes.c_int
)
_recording_free = _function("radar_recording_free", _handle, result=None)
_recording_address = _function("radar_recording_address", _handle, result=ctypes.c_uint32)
_recording_is_over = _function("radar_recording_is_over", _handle)
_recording_dropped = _function("radar_recording_dropped", _handle, result=ctypes.c_int64)
_stream_new = _function(
    "radar_stream_new", _pointer(_handle), _handle, ctypes.c_char_p, ctypes.c_int, _pointer(_StreamOptions)
)
_stream_free = _function("radar_stream_free", _handle, result=None)
_stream_read = _function("radar_stream_read", _handle, _pointer(_Datagram), ctypes.c_size_t, ctypes.c_int)
_stream_next_event = _function("radar_stream_next_event", _handle, _pointer(_StreamEvent))
_stream_descriptor = _function("radar_stream_descriptor", _handle)
_stream_statistics = _function("radar_stream_statistics", _handle, _pointer(_Statistics))
_control_new = _function(
    "radar_control_new", _pointer(_handle), _handle, ctypes.c_char_p, ctypes.c_int, ctypes.c_int
)
_control_free = _function("radar_control_free", _handle, result=None)
_control_send = _function("radar_control_send", _handle, ctypes.c_char_p, ctypes.c_size_t)


def _checked(result: int) -> int:
    if result < 0:
        raise OSError(-result, os.strerror(-result))
    return result


def _number(value: int, kind: Any = ctypes.c_int) -> int:
    """Refuses what ctypes would cut."""
    if kind(value).value != value:
        raise ValueError(_OUT_OF_RANGE)
    return value


def _text(name: bytes) -> str:
    return name.decode("utf-8", "surrogateescape")


def _whole(text: bytes) -> bytes:
    """Refuses what C would cut."""
    if b"\0" in text:
        raise ValueError("a zero byte in a name")
    return text


def _bytes(name: str) -> bytes:
    return _whole(name.encode("utf-8", "surrogateescape"))


def _quad(address: int) -> str:
    return socket.inet_ntoa(struct.pack("=I", address))


# ---- what is told ----

CHANNELS = (
    "image",
    "image-control",
    "image-state",
    "arpa",
    "arpa-control",
    "arpa-state",
    "original",
    *(f"information-device-{i}" for i in range(10)),
)
"""What a stream consists of, as Stream and Control take it."""


@dataclass(frozen=True)
class Endpoint:
    """Where a channel is sent."""

    address: str
    port: int
    kind: str
    """What the display has to be: "udp", "tcp-server" or "tcp-client"."""

    def __str__(self) -> str:
        return f"{self.address}:{self.port}"


@dataclass(frozen=True)
class Endpoints:
    """Those of one stream; None: there is no such channel."""

    image: Optional[Endpoint]
    image_control: Optional[Endpoint]
    image_state: Optional[Endpoint]
    arpa: Optional[Endpoint]
    arpa_control: Optional[Endpoint]
    arpa_state: Optional[Endpoint]
    original: Optional[Endpoint]
    information_devices: Tuple[Optional[Endpoint], ...]


@dataclass(frozen=True)
class Radar:
    """One radar, as it announces itself."""

    name: str
    host_id: Optional[int]
    """None: its endpoints are not in the plan of host ids."""
    source: str
    """The address that its last announcement came from."""
    streams: Tuple[Endpoints, ...]
    """One or two; none where only its TCP service is to be used."""
    user: bool
    """Its user chose endpoints of streams[0]: the variant "NAME:User"."""
    tcp: Optional[Endpoints]
    """Its TCP service: the variant "NAME:TCP"."""
    age: float
    """Since its last announcement, when this was told."""


class Origin(enum.Enum):
    """Why a local address is used."""

    NONE = 0
    """There is none yet, or no longer."""
    OPTIONS = 1
    """It was given to the Watch."""
    PROFILE_ADDRESS = 2
    """[Local] IP of profile.ini."""
    PROFILE_INTERFACE = 3
    """[Local] NetName of profile.ini."""
    SEARCH = 4
    """A radar was heard on it."""


@dataclass(frozen=True)
class LocalAddress:
    """The address of this computer that leads to the radars."""

    address: Optional[str]
    origin: Origin
    interface: str


class Reason(enum.Enum):
    """Why a radar left."""

    NONE = 0
    SILENT = 1
    """For eight seconds."""
    RENUMBERED = 2
    """Its host was told to give up its id, or announces the successor under another."""
    RENAMED = 3
    """Its host announces the successor under the same id."""
    LOCAL_ADDRESS = 4
    """Not heard since the local address changed or was lost."""
    DISPLACED = 5
    """The table of radars is full of others."""


class Change(enum.Flag):
    """What changed about a radar."""

    HOST_ID = 1
    SOURCE = 2
    ENDPOINTS = 4
    STREAMS = 8
    VARIANTS = 16
    TCP = 32


@dataclass(frozen=True)
class Appeared:
    """A radar announces itself.

    Here and below, `when` is by time.monotonic(), and `merged` how many earlier events this one stands for, too."""

    radar: Radar
    when: float
    merged: int


@dataclass(frozen=True)
class Changed:
    """A radar announces itself otherwise than before."""

    radar: Radar
    changes: Change
    when: float
    merged: int


@dataclass(frozen=True)
class Left:
    """A radar is no longer there; `radar` is how it was last, `successor` a name."""

    radar: Radar
    reason: Reason
    successor: Optional[str]
    when: float
    merged: int


@dataclass(frozen=True)
class Conflict:
    """Several radars have one host id, or others than before. Of many holders, the first 16 are named."""

    host_id: int
    holders: Tuple[str, ...]
    when: float
    merged: int


@dataclass(frozen=True)
class ConflictEnded:
    """`holders` is who is left."""

    host_id: int
    holders: Tuple[str, ...]
    when: float
    merged: int


@dataclass(frozen=True)
class LocalFound:
    """There is a local address."""

    local: LocalAddress
    when: float
    merged: int


@dataclass(frozen=True)
class LocalChanged:
    """The local address is another one."""

    local: LocalAddress
    previous: str
    when: float
    merged: int


@dataclass(frozen=True)
class LocalLost:
    """This computer has that address no more."""

    previous: str
    when: float
    merged: int


Event = Union[Appeared, Changed, Left, Conflict, ConflictEnded, LocalFound, LocalChanged, LocalLost]


@dataclass(frozen=True)
class Datagram:
    """One datagram, or a piece of what came over TCP."""

    data: bytes
    arrival_ns: int
    """When the system took it from the interface: nanoseconds since the epoch."""
    source: Optional[Tuple[str, int]]
    """Address and port; None: it came over TCP."""


class Why(enum.Enum):
    """Why something happened to a stream."""

    NONE = 0
    ENDPOINT = 1
    """Moved: the radar has other endpoints."""
    INTERFACE = 2
    """Moved: the interface is another one, also one of the same name."""
    LOCAL_ADDRESS = 3
    """Moved: it changed; Stopped: there is none any more."""
    RADAR_LEFT = 4
    """Stopped: it is not listed, and nothing was taken for two seconds."""
    NO_ENDPOINT = 5
    """Stopped: it announces none for this channel."""
    SWITCH_FORGOT = 6
    """Resumed: just after the group was left and joined again, so a switch had forgotten it."""
    OTHERS_JOINED = 7
    """Silent: others on this computer are in the group, so that leaving it would tell no switch."""


@dataclass(frozen=True)
class Started:
    """The stream listens. `missed`, here and below: events before this one that nobody took in time."""

    endpoint: Endpoint
    interface: str
    missed: int


@dataclass(frozen=True)
class Moved:
    """The stream listens elsewhere now."""

    endpoint: Endpoint
    interface: str
    why: Why
    missed: int


@dataclass(frozen=True)
class Silent:
    """Nothing comes, nor waits, any more, while the radar still announces itself. `others`: sockets, of Why.OTHERS_JOINED."""

    why: Why
    others: int
    missed: int


@dataclass(frozen=True)
class Resumed:
    """Something comes again."""

    why: Why
    missed: int


@dataclass(frozen=True)
class Stopped:
    """The stream does not listen any more, until the radar is back."""

    why: Why
    missed: int


@dataclass(frozen=True)
class Refused:
    """The stream cannot listen there. It is tried again every second, and told once."""

    endpoint: Endpoint
    error: OSError
    missed: int


StreamEvent = Union[Started, Moved, Silent, Resumed, Stopped, Refused]


@dataclass(frozen=True)
class Sequence:
    """Where datagrams carry a number that grows by one from each to the next."""

    offset: int
    """Bytes."""
    width: int = 4
    """Bytes: 1 to 8."""
    little_endian: bool = False
    modulus: int = 0
    """The number that 0 follows, plus one; 0: as the width says."""


@dataclass(frozen=True)
class Statistics:
    """What a stream counted since it was made. Rates are a second; gaps lie between one datagram and the next."""

    datagrams: int
    bytes: int
    cut: int
    """Datagrams longer than largest_datagram."""
    datagrams_last_second: float
    bytes_last_second: float
    datagrams_last_ten_seconds: float
    bytes_last_ten_seconds: float
    median_gap: float
    """To within 7 %, as the percentile."""
    gap_99: float
    longest_gap: float
    since_last: Optional[float]
    """None: nothing has come yet."""
    dropped_at_socket: int
    """For want of room in the receive buffer, or of memory."""
    dropped_at_interface: int
    """By the interface, of everything that it receives."""
    missing: int
    """By the Sequence, as the following two."""
    repeated: int
    reordered: int


# ---- from the library's structures ----

_KINDS = ("udp", "tcp-server", "tcp-client")


def _endpoint(raw: Any) -> Endpoint:
    kind = _KINDS[raw.kind] if raw.kind < len(_KINDS) else "unknown"
    return Endpoint(_quad(raw.address), socket.ntohs(raw.port), kind)


def _endpoints(raw: Any) -> Endpoints:
    found = [_endpoint(one) if one.address else None for one in raw]
    devices = tuple(found[_FIRST_DEVICE:])
    return Endpoints(found[0], found[1], found[2], found[3], found[4], found[5], found[6], devices)


def _radar(raw: Any) -> Radar:
    return Radar(
        _text(raw.name),
        raw.host_id or None,
        _quad(raw.source),
        tuple(_endpoints(stream) for stream in raw.streams[: raw.stream_count]),
        bool(raw.user),
        _endpoints(raw.tcp) if raw.has_tcp else None,
        raw.age / 1000,
    )


def _local(raw: Any) -> LocalAddress:
    return LocalAddress(_quad(raw.address) if raw.address else None, Origin(raw.origin), _text(raw.interface_name))


def _holders(raw: Any) -> Tuple[str, ...]:
    return tuple(_text(name.value) for name in raw.holders[: raw.holder_count])


_EVENTS: Tuple[Callable[[Any], Event], ...] = (
    lambda raw: Appeared(_radar(raw.radar), raw.when / 1e9, raw.merged),
    lambda raw: Changed(_radar(raw.radar), Change(raw.changes), raw.when / 1e9, raw.merged),
    lambda raw: Left(_radar(raw.radar), Reason(raw.reason), _text(raw.successor) or None, raw.when / 1e9, raw.merged),
    lambda raw: Conflict(raw.host_id, _holders(raw), raw.when / 1e9, raw.merged),
    lambda raw: ConflictEnded(raw.host_id, _holders(raw), raw.when / 1e9, raw.merged),
    lambda raw: LocalFound(_local(raw.local), raw.when / 1e9, raw.merged),
    lambda raw: LocalChanged(_local(raw.local), _quad(raw.previous), raw.when / 1e9, raw.merged),
    lambda raw: LocalLost(_quad(raw.previous), raw.when / 1e9, raw.merged),
)

_STREAM_EVENTS: Tuple[Callable[[Any], StreamEvent], ...] = (
    lambda raw: Started(_endpoint(raw.endpoint), _text(raw.interface_name), raw.missed),
    lambda raw: Moved(_endpoint(raw.endpoint), _text(raw.interface_name), Why(raw.why), raw.missed),
    lambda raw: Silent(Why(raw.why), raw.others, raw.missed),
    lambda raw: Resumed(Why(raw.why), raw.missed),
    lambda raw: Stopped(Why(raw.why), raw.missed),
    lambda raw: Refused(_endpoint(raw.endpoint), OSError(raw.error, os.strerror(raw.error)), raw.missed),
)


def _datagram(raw: Any) -> Datagram:
    source = (_quad(raw.source), socket.ntohs(raw.source_port)) if raw.source else None
    return Datagram(ctypes.string_at(raw.data, raw.length), raw.arrival, source)


# ---- what is used ----


class _Alarm:
    """Readable permanently once it was set off: what ends every wait on an object that is closed."""

    _ends: Tuple[int, ...] = ()  # still where the system has no descriptor left

    def __init__(self) -> None:
        self._ends = os.pipe()

    def fileno(self) -> int:
        return self._ends[0]

    def set_off(self) -> None:
        os.write(self._ends[1], b"!")

    def __del__(self, close: Callable[[int], None] = os.close) -> None:
        for end in self._ends:
            close(end)


class _Closed(ValueError):
    pass


_Result = TypeVar("_Result")
_Self = TypeVar("_Self", bound="_Object")


class _Object:
    """A handle of the library: freed once, and never used afterwards, whatever thread or signal handler closes it."""

    def __init__(self, new: Callable[[Any], int], free: Callable[[Any], None]) -> None:
        self._process = os.getpid()
        self._lock = threading.RLock()  # held while the handle is in use, but for sends, which may take long
        self._uses = 0  # more than one: in a signal handler
        self._closed = False
        self._alarm = _Alarm()
        self._handle = _handle()
        self._free = weakref.finalize(self, free, self._handle)  # first: a signal handler may raise behind new
        self._free.atexit = False  # threads may still use it then, and the process's end frees it
        result = new(ctypes.byref(self._handle))
        if result == -errno.EINVAL:
            raise ValueError(_OUT_OF_RANGE)
        _checked(result)

    def close(self) -> None:
        """Frees the object's threads and descriptors. What waits for it in other threads ends. May be called twice."""
        if self._process != os.getpid():
            return
        with self._lock:
            if not self._closed:
                self._closed = True
                self._alarm.set_off()
            if self._uses == 0:
                self._free()

    def __enter__(self: _Self) -> _Self:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()

    def _use(self, function: Callable[[Any], _Result]) -> _Result:
        """Calls this with the handle, which is not freed meanwhile."""
        with self._lock:
            if self._closed:
                raise self._closed_error()
            before = self._uses
            try:  # no call lies between what is done and undone: a signal handler's exception could come from it
                self._uses = before + 1
                return function(self._handle)
            finally:
                self._uses = before
                if self._closed and before == 0:
                    self._free()

    def _begin_use(self) -> None:
        """From here to _end_use the handle is not freed."""
        with self._lock:
            if self._closed:
                raise self._closed_error()
            self._uses += 1

    def _closed_error(self) -> _Closed:
        return _Closed(f"this {type(self).__name__} is closed")

    def _end_use(self) -> None:
        with self._lock:
            self._uses -= 1
            if self._closed and self._uses == 0:
                self._free()

    def _call(self, function: Callable[..., int], *arguments: Any) -> int:
        """Calls a function of the library that does not wait. In a child, it does nothing: 0."""
        if self._process != os.getpid():
            return 0
        return self._use(lambda handle: _checked(function(handle, *arguments)))


class _Source(_Object):
    """An object that something comes from."""

    def __init__(
        self, new: Callable[[Any], int], free: Callable[[Any], None], descriptor: Callable[[Any], int]
    ) -> None:
        super().__init__(new, free)
        self._descriptor = self._call(descriptor)

    def fileno(self) -> int:
        """A descriptor for select and asyncio, readable while something waits to be taken. -1: the object is closed,
        or belongs to another process."""
        return -1 if self._closed or self._process != os.getpid() else self._descriptor

    def _wait(self, deadline: Optional[float]) -> bool:
        """Waits until there is something to take, the object is closed, or _LONGEST_WAIT has passed. False: time is up,
        or this is a child."""
        if self._process != os.getpid():
            return False
        left = None if deadline is None else deadline - time.monotonic()
        if left is not None and left <= 0:
            return False
        poller = select.poll()
        poller.register(self._descriptor, select.POLLIN)
        poller.register(self._alarm, select.POLLIN)
        poller.poll(None if left is None else min(left * 1000, _LONGEST_WAIT))
        return True


def _deadline(timeout: Optional[float]) -> Optional[float]:
    return None if timeout is None else time.monotonic() + timeout


def _on_watch(watch: Watch, new: Callable[..., int], *arguments: Any) -> Callable[[Any], int]:
    def make(handle: Any) -> int:
        if watch._process != os.getpid():
            raise ValueError("the Watch belongs to another process")
        return watch._use(lambda watch_handle: new(handle, watch_handle, *arguments))

    return make


def _channel(name: str) -> int:
    if name not in CHANNELS:
        raise ValueError(f"{name!r} is no channel: {', '.join(CHANNELS)}")
    return CHANNELS.index(name)


class Watch(_Source):
    """Which radars there are on the LAN: `for event in watch`, next(), radars().

    With select and asyncio, take events with next(0) when the descriptor is readable.

    Watches with the same local address share a thread and a socket. Events wait in a queue; beyond the last 1024,
    those of the same radar are merged.
    """

    def __init__(self, local_address: Union[str, ipaddress.IPv4Address, None] = None) -> None:
        """local_address: the one to use. Without it, as profile.ini says, or a search."""
        options = _WatchOptions()
        if local_address is not None:
            options.local_address = int.from_bytes(ipaddress.IPv4Address(local_address).packed, sys.byteorder)

        def new(handle: Any) -> int:
            return int(_watch_new(handle, ctypes.byref(options)))

        super().__init__(new, _watch_free, _watch_descriptor)

    def next(self, timeout: Optional[float] = None) -> Optional[Event]:
        """Takes the next event. None: time is up, or the Watch was closed."""
        raw = _Event()
        deadline = _deadline(timeout)
        try:
            while not self._call(_watch_next, ctypes.byref(raw), 0):
                if not self._wait(deadline):
                    return None
        except _Closed:
            return None
        return _EVENTS[int(raw.kind)](raw)

    def __iter__(self) -> Iterator[Event]:
        return self

    def __next__(self) -> Event:
        """Takes the next event. Ends when the Watch is closed."""
        event = self.next()
        if event is None:
            raise StopIteration
        return event

    def radars(self) -> List[Radar]:
        """The radars by name, ascending: as the events taken so far tell, and as they are while none was taken."""
        capacity = 64
        while True:
            raw = (_Entry * capacity)()
            raw[0].size = ctypes.sizeof(_Entry)
            count = self._call(_watch_radars, raw, capacity)
            if count <= capacity:
                return [_radar(one) for one in raw[:count]]
            capacity = count

    def find(self, name: str) -> Optional[Radar]:
        """One of them, by its name or that of a variant: "North", "North:User", "North:TCP"."""
        raw = _Entry()
        return _radar(raw) if self._call(_watch_find, _bytes(name), ctypes.byref(raw)) else None

    def local_address(self) -> LocalAddress:
        """The local address that leads to the radars, as the events taken so far tell."""
        raw = _Local()
        self._call(_watch_local, ctypes.byref(raw))
        return _local(raw)

    def renumber(self, name: str) -> bool:
        """Tells the host behind a radar to give up its host id and negotiate another.

        False: no such radar, it has no host id, or there is no local address."""
        return self._sent(errno.ENOENT, _watch_renumber, _bytes(name))

    def reset(self) -> bool:
        """Sends the reset command to all radars. False: there is no local address."""
        return self._sent(errno.EADDRNOTAVAIL, _watch_reset)

    def _sent(self, refusal: int, function: Callable[..., int], *arguments: Any) -> bool:
        if self._process != os.getpid():
            return False
        try:
            self._call(function, *arguments)
        except OSError as error:
            if error.errno != refusal:
                raise
            return False
        return True


class Recording(_Object):
    """A recording in place of a LAN, for tests of applications: the radars of a file live again in this process,
    without a network, for a Watch with this local_address and for Streams on that.

    The radars that announce themselves in its first two seconds are there from the first moment. It stands at that
    moment until as many Streams listen as were asked for. Then everything comes in the recorded order, with the
    recorded arrival, a later one behind a clock that was set back, so that arrivals follow each other. What a Stream
    has no room for waits until it is taken, and all else with it; a Stream that takes nothing for a second loses what
    it has no room for. What is sent to the radars goes nowhere.
    """

    def __init__(self, path: Union[str, "os.PathLike[str]"], speed: float = 1, streams: int = 1) -> None:
        """path: of a pcapng file of this machine's byte order. speed: so many times as fast; 0, as fast as the Streams
        take it. streams: that are to listen before it begins; 0, as soon as a Watch hears it.

        ValueError: a number is out of its range. OSError: the file cannot be opened, or is of another kind."""

        def new(handle: Any) -> int:
            return int(_recording_open(handle, _whole(os.fsencode(path)), speed, _number(streams)))

        super().__init__(new, _recording_free)
        self._local_address = _quad(self._call(_recording_address))

    @property
    def local_address(self) -> str:
        """For Watch, which hears nothing there once the Recording is closed, or in a child made by fork."""
        return self._local_address

    @property
    def is_over(self) -> bool:
        """Everything has been handed over to the Streams, which may still have to take it."""
        return bool(self._call(_recording_is_over))

    @property
    def dropped(self) -> int:
        """How many datagrams Streams lost since they took nothing."""
        return self._call(_recording_dropped)


class Stream(_Source):
    """Receives one channel of one radar, wherever it goes: `for datagram in stream`, read().

    With select and asyncio, take datagrams with read(0) when the descriptor is readable.

    Waits until the radar appears, and follows it to other endpoints, another local address, another interface.
    It works on when the Watch is closed.
    """

    def __init__(
        self,
        watch: Watch,
        name: str,
        channel: str = "image",
        number: int = 0,
        *,
        on_event: Optional[Callable[[StreamEvent], object]] = None,
        sequence: Optional[Sequence] = None,
        receive_buffer: int = 0,
        largest_datagram: int = 0,
    ) -> None:
        """name: of the radar, or of a variant of it. channel: one of CHANNELS. number: the stream's, 0 or 1.

        on_event is called with what happens to the stream, in the thread that reads, before it reads or waits.
        receive_buffer: bytes to ask the system for; 0 is 1 MiB. largest_datagram: bytes, what is longer is cut;
        0, and more than that, is 65536."""
        options = _StreamOptions()
        options.number = _number(number)
        options.receive_buffer = _number(receive_buffer, ctypes.c_size_t)
        options.largest_datagram = _number(largest_datagram, ctypes.c_size_t)
        if sequence is not None:
            if sequence.width == 0:  # which means that there is none
                raise ValueError(_OUT_OF_RANGE)
            options.sequence_width = _number(sequence.width)
            options.sequence_offset = _number(sequence.offset, ctypes.c_size_t)
            options.sequence_modulus = _number(sequence.modulus, ctypes.c_uint64)
            options.sequence_little_endian = sequence.little_endian
        new = _on_watch(watch, _stream_new, _bytes(name), _channel(channel), ctypes.byref(options))
        super().__init__(new, _stream_free, _stream_descriptor)
        self._on_event = on_event
        self._datagrams = (_Datagram * _MOST_AT_ONCE)()
        self._datagrams[0].size = ctypes.sizeof(_Datagram)
        self._batch: Deque[Datagram] = deque()

    def read(self, timeout: Optional[float] = None) -> List[Datagram]:
        """Takes what has come, some dozens at most, after waiting for the first. Empty: time is up, the Stream was
        closed, or this is a signal handler that interrupted another call of it."""
        deadline = _deadline(timeout)
        try:
            while True:
                self._take_events()
                batch = self._take()
                if batch is None:
                    return []
                if batch or not self._wait(deadline):
                    return batch
        except _Closed:
            return []

    def __iter__(self) -> Iterator[Datagram]:
        return self

    def __next__(self) -> Datagram:
        """Takes the next datagram. Ends when the Stream is closed."""
        while True:
            try:
                return self._batch.popleft()
            except IndexError:
                batch = self.read()
            if not batch:
                raise StopIteration
            self._batch.extend(batch)

    def statistics(self) -> Statistics:
        """What the stream counted since it was made."""
        raw = _Statistics()
        raw.since_last = -1
        self._call(_stream_statistics, ctypes.byref(raw))
        values = [getattr(raw, name) for name, *_ in raw._fields_[1:]]
        for i, (name, *_) in enumerate(raw._fields_[1:]):
            if name in ("median_gap", "gap_99", "longest_gap", "since_last"):
                values[i] = None if values[i] < 0 else values[i] / 1e9
        return Statistics(*values)

    def _take(self) -> Optional[List[Datagram]]:
        """None: it cannot be said, in a signal handler that interrupted a call of this Stream."""
        if self._batch:
            batch = list(self._batch)
            self._batch.clear()
            return batch
        if self._process != os.getpid():
            return []
        return self._use(self._take_with)

    def _take_with(self, handle: Any) -> Optional[List[Datagram]]:
        if self._uses > 1:  # the one that was interrupted still copies what it took
            return None
        count = _checked(_stream_read(handle, self._datagrams, _MOST_AT_ONCE, 0))
        return [_datagram(one) for one in self._datagrams[:count]]

    def _take_events(self) -> None:
        raw = _StreamEvent()
        while self._call(_stream_next_event, ctypes.byref(raw)):
            if self._on_event is not None:
                self._on_event(_STREAM_EVENTS[int(raw.kind)](raw))


class Control(_Object):
    """Sends to one channel of one radar, where it is now. It works on when the Watch is closed."""

    def __init__(self, watch: Watch, name: str, channel: str = "image-control", number: int = 0) -> None:
        """As for Stream."""
        super().__init__(_on_watch(watch, _control_new, _bytes(name), _channel(channel), _number(number)), _control_free)
        self._name = name

    def send(self, data: Union[bytes, bytearray, memoryview]) -> None:
        """Sends one datagram from the local address, or bytes over TCP.

        LookupError: there is no such radar now, or it has no such channel. OSError: ENETDOWN, there is no local
        address; ENOTCONN, TCP is not connected; EAGAIN, a radar that connects to us does not read; or what the system
        says. In a child made by fork, nothing is sent.

        Where we connect, it waits for a peer that does not read. What ends that wait early, as Ctrl-C does, leaves the bytes to
        go out when the peer reads again, or to be lost with the connection."""
        if self._process != os.getpid():
            return
        copy = bytes(data)
        results: List[int] = []
        if threading.current_thread() is not threading.main_thread():
            self._send(copy, results)
        elif not self._closed:  # on another: signal handlers run on this one, but not within a call of the library
            done = threading.Lock()
            done.acquire()

            def send() -> None:
                try:
                    self._send(copy, results)
                finally:
                    done.release()

            try:
                _thread.start_new_thread(send, ())
            except RuntimeError as error:  # which has no number
                raise OSError(errno.EAGAIN, str(error)) from error
            done.acquire()
        if not results:
            raise self._closed_error()
        if results[0] == -errno.ENOENT:
            raise LookupError(f"{self._name!r} is not there, or has no such channel")
        _checked(results[0])

    def _send(self, data: bytes, results: List[int]) -> None:
        """Uses the handle on the thread that calls the library: a signal handler's exception may end any other one's
        wait for it. No result: the object is closed."""
        try:
            self._begin_use()
        except _Closed:
            return
        try:
            results.append(int(_control_send(self._handle, data, len(data))))
        finally:
            self._end_use()


def version() -> str:
    """Of the library that is loaded: "1.0.0"."""
    return str(_version().decode())


def groups(host_id: int) -> Tuple[Endpoints, Endpoints]:
    """The endpoints of both streams of a host, by the plan of host ids. ValueError: that is none (1, 16 to 63)."""
    raw = (_Endpoints * _MAX_STREAMS)()
    for number in range(_MAX_STREAMS):
        result = _groups(_number(host_id), number, raw[number])
        if result == -errno.EINVAL:
            raise ValueError(f"{host_id} is no host id")
        _checked(result)
    return _endpoints(raw[0]), _endpoints(raw[1])
