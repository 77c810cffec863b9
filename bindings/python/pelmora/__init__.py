"""Python binding of libPelmora: which Android phones are plugged in, and in which state.

    import pelmora
    pelmora.init(config_dir, resource_dir, log_dir)
    pelmora.start_adb_server()
    with pelmora.listen() as changes:
        for change in changes:
            print(change.key_serial, change.old_status, "->", change.new_status)

The library calls back on a thread of its own; the binding only parses the report there and
queues its entries, so they reach your code through your own thread (listen) or your asyncio
loop (listen_async).
"""

from __future__ import annotations

import asyncio
import dataclasses
import enum
import json
import logging
import queue
import threading
from typing import Any, AsyncIterator, Dict, Iterator, List, Optional, Union

from . import _native
from ._errors import CODES, AlreadyListening, LibraryNotFound, PelmoraError

__all__ = ["init", "start_adb_server", "start_adb_server_async", "library_path", "listen",
           "listen_async", "Listener", "AsyncListener", "Change", "Status", "EndOfChanges",
           "PelmoraError", "LibraryNotFound", "AlreadyListening", "CODES"]

_log = logging.getLogger("pelmora")


class EndOfChanges(Exception):
    """Raised by get() once the listener is stopped and every change queued before was read."""


class Status(str, enum.Enum):
    """A connection status. Its value is its name, the report's own word, so that it prints,
    formats and serialises as that word."""
    NotConnect = "NotConnect"
    MtpConnect = "MtpConnect"
    AdbConnect = "AdbConnect"
    OfflineConnect = "OfflineConnect"
    UnauthoredConnect = "UnauthoredConnect"
    AuthoredConnect = "AuthoredConnect"

    def __str__(self) -> str:
        return self.value

    def __format__(self, fmt: str) -> str:
        return format(self.value, fmt)


@dataclasses.dataclass(frozen=True)
class Change:
    """One entry of a report: a device whose status changed from old_status to new_status."""
    key_serial: str
    actual_serial: str
    old_status: Status
    new_status: Status
    vid_manufacturer: str
    os_version: str
    model: str
    manufacturer: str
    vid: int
    pid: int
    adb_error_code: int

    @classmethod
    def from_report_entry(cls, entry: Dict[str, Any]) -> "Change":
        values = {field.name: entry[field.name] for field in dataclasses.fields(cls)}
        values["old_status"] = Status(values["old_status"])
        values["new_status"] = Status(values["new_status"])
        return cls(**values)


def _check(code: int, operation: str) -> None:
    if code != 0:
        raise PelmoraError(code, operation)


def init(config_dir: str, resource_dir: str, log_dir: str) -> None:
    """Sets up logging ("Pelmora.log" in log_dir), the ADB client and the device lists of
    config_dir. Raises PelmoraError (1: an argument is empty; 2: iManufactureAndiProduct.ini
    cannot be read), LibraryNotFound when libPelmora cannot be loaded."""
    _check(_native.init(config_dir, resource_dir, log_dir), "InitPelmora")


def start_adb_server(killed: bool = False) -> None:
    """Makes sure an ADB server answers, starting one when needed (up to about ten seconds);
    killed=True starts it anew. Raises PelmoraError with libTarnwell's code."""
    _check(_native.start_adb_server(killed), "StartAdbServer")


async def start_adb_server_async(killed: bool = False) -> None:
    """start_adb_server for asyncio: the wait runs on a worker thread, not on the event loop."""
    await asyncio.get_running_loop().run_in_executor(None, start_adb_server, killed)


def library_path() -> str:
    """The path libPelmora was loaded from (loading it now if need be)."""
    return _native.library_path()


# Queued after the last change of a stopped listener; get() turns it into EndOfChanges.
_END = object()


class _Session:
    """What listen() and listen_async() share: one active session per process."""

    def __init__(self) -> None:
        self._stopped = False
        self._closing = threading.Lock()  # no entry is queued after the end mark
        _check(_native.start_listening(self), "StartListenAndroidDevice")

    @property
    def stopped(self) -> bool:
        return self._stopped

    def stop(self) -> None:
        """Stops listening; entries already queued can still be read. Safe to call twice."""
        with self._closing:
            if self._stopped:
                return
            self._stopped = True
        _native.stop_listening(self)
        with self._closing:
            self._close()

    def deliver(self, report: str) -> None:
        """Runs on the library's thread: parses one report and queues its entries."""
        try:
            changes = [Change.from_report_entry(entry) for entry in json.loads(report)["changed"]]
        except (ValueError, KeyError, TypeError) as e:
            _log.error("unreadable report from libPelmora (%r): %r", e, report)
            return
        with self._closing:
            if not self._stopped:  # a report of a poll that was under way at stop() is dropped
                self._enqueue(changes)

    def _enqueue(self, changes: List[Change]) -> None:
        raise NotImplementedError

    def _close(self) -> None:
        raise NotImplementedError


def _taken(item: Union[Change, object], put_back: Any) -> Change:
    """A change from the queue, or EndOfChanges at its end mark, which stays for later calls."""
    if item is _END:
        put_back(_END)
        raise EndOfChanges()
    assert isinstance(item, Change)
    return item


class Listener(_Session):
    """Changes in the order the library reported them: iterate, or get(timeout).
    A context manager: leaving the with block stops listening."""

    def __init__(self) -> None:
        self._queue: "queue.SimpleQueue[object]" = queue.SimpleQueue()
        super().__init__()

    def _enqueue(self, changes: List[Change]) -> None:
        for change in changes:
            self._queue.put(change)

    def _close(self) -> None:
        self._queue.put(_END)

    def get(self, timeout: Optional[float] = None) -> Optional[Change]:
        """The next change; None when none came within timeout seconds. Raises EndOfChanges
        after stop() once every change queued before it has been read."""
        try:
            item = self._queue.get(timeout=timeout)
        except queue.Empty:
            return None
        return _taken(item, self._queue.put)

    def __iter__(self) -> Iterator[Change]:
        return self

    def __next__(self) -> Change:
        try:
            change = self.get()
        except EndOfChanges:
            raise StopIteration from None
        assert change is not None  # no timeout: only a change or the end
        return change

    def __enter__(self) -> "Listener":
        return self

    def __exit__(self, *exc: object) -> None:
        self.stop()


class AsyncListener(_Session):
    """The same as Listener for asyncio: `async for`, `await get(timeout)`, `async with`."""

    def __init__(self) -> None:
        self._loop = asyncio.get_running_loop()
        self._queue: "asyncio.Queue[object]" = asyncio.Queue()
        super().__init__()

    def _enqueue(self, changes: List[Change]) -> None:
        try:
            self._loop.call_soon_threadsafe(self._put_all, changes)
        except RuntimeError:
            pass  # the loop is closed: nobody is left to read

    def _put_all(self, changes: List[Change]) -> None:
        if self._stopped:
            return
        for change in changes:
            self._queue.put_nowait(change)

    def _close(self) -> None:
        self._queue.put_nowait(_END)

    async def get(self, timeout: Optional[float] = None) -> Optional[Change]:
        """As Listener.get, awaited."""
        try:
            item = await asyncio.wait_for(self._queue.get(), timeout)
        except asyncio.TimeoutError:
            return None
        return _taken(item, self._queue.put_nowait)

    def __aiter__(self) -> AsyncIterator[Change]:
        return self

    async def __anext__(self) -> Change:
        try:
            change = await self.get()
        except EndOfChanges:
            raise StopAsyncIteration from None
        assert change is not None
        return change

    async def __aenter__(self) -> "AsyncListener":
        return self

    async def __aexit__(self, *exc: object) -> None:
        self.stop()


def listen() -> Listener:
    """Starts listening; returns a Listener. Raises AlreadyListening (a RuntimeError) while
    another one is active, and PelmoraError when the library cannot start."""
    return Listener()


def listen_async() -> AsyncListener:
    """Starts listening for the running asyncio loop; returns an AsyncListener."""
    return AsyncListener()
