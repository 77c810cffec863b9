"""Python binding of libPelmora: which Android phones are plugged in, and in which state.

    import pelmora
    pelmora.init(config_dir, resource_dir, log_dir)
    pelmora.start_adb_server()
    with pelmora.listen() as changes:
        for change in changes:
            print(change.key_serial, change.old_status.name, "->", change.new_status.name)

The library calls back on a thread of its own; the binding only parses the report there and
queues its entries, so they reach your code through your own thread (listen) or your asyncio
loop (listen_async).
"""

import asyncio
import dataclasses
import enum
import json
import logging
import queue
import threading

from . import _native

__all__ = ["init", "start_adb_server", "library_path", "listen", "listen_async", "Listener", "AsyncListener",
           "Change", "Status", "PelmoraError"]

_log = logging.getLogger("pelmora")


class PelmoraError(Exception):
    """A non-zero code from libPelmora; .code is that code."""

    MESSAGES = {
        1: "a folder argument is missing or empty",
        2: "iManufactureAndiProduct.ini cannot be read from the configuration folder",
        4: "the USB watcher could not be set up",
        5: "the callback was refused",
        6: "the poll thread could not be created",
        7: "an unexpected failure inside libPelmora (see Pelmora.log)",
    }

    def __init__(self, code, operation):
        self.code = code
        super().__init__("%s failed with code %d: %s"
                         % (operation, code, self.MESSAGES.get(code, "see Pelmora.log")))


class Status(enum.IntEnum):
    """A connection status; the names are the report's own."""
    NotConnect = 0
    MtpConnect = 1
    AdbConnect = 2
    OfflineConnect = 3
    UnauthoredConnect = 4
    AuthoredConnect = 5


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
    def from_report_entry(cls, entry):
        values = {field.name: entry[field.name] for field in dataclasses.fields(cls)}
        values["old_status"] = Status[values["old_status"]]
        values["new_status"] = Status[values["new_status"]]
        return cls(**values)


def _check(code, operation):
    if code != 0:
        raise PelmoraError(code, operation)


def init(config_dir, resource_dir, log_dir):
    """Sets up logging ("Pelmora.log" in log_dir), the ADB client and the device lists of
    config_dir. Raises PelmoraError (1: an argument is empty; 2: iManufactureAndiProduct.ini
    cannot be read)."""
    _check(_native.init(config_dir, resource_dir, log_dir), "InitPelmora")


def start_adb_server(killed=False):
    """Makes sure an ADB server answers, starting one when needed; killed=True starts it anew.
    Raises PelmoraError with libTarnwell's code."""
    _check(_native.start_adb_server(killed), "StartAdbServer")


def library_path():
    """The path libPelmora was loaded from (loading it now if need be)."""
    return _native.library_path()


class _Session:
    """What listen() and listen_async() share: one active session per process."""

    def __init__(self):
        self._stopped = False
        self._closing = threading.Lock()  # no entry is queued after the end mark
        _check(_native.start_listening(self), "StartListenAndroidDevice")

    @property
    def stopped(self):
        return self._stopped

    def stop(self):
        """Stops listening; entries already queued can still be read. Safe to call twice."""
        with self._closing:
            if self._stopped:
                return
            self._stopped = True
        _native.stop_listening(self)
        with self._closing:
            self._close()

    def deliver(self, report):
        """Runs on the library's thread: parses one report and queues its entries."""
        try:
            changes = [Change.from_report_entry(entry) for entry in json.loads(report)["changed"]]
        except (ValueError, KeyError, TypeError) as e:
            _log.error("unreadable report from libPelmora (%r): %r", e, report)
            return
        with self._closing:
            if not self._stopped:  # a report of a poll that was under way at stop() is dropped
                self._enqueue(changes)

    def _enqueue(self, changes):
        raise NotImplementedError

    def _close(self):
        raise NotImplementedError


class Listener(_Session):
    """Changes in the order the library reported them: iterate, or get(timeout).
    A context manager: leaving the with block stops listening."""

    def __init__(self):
        self._queue = queue.SimpleQueue()
        super().__init__()

    def _enqueue(self, changes):
        for change in changes:
            self._queue.put(change)

    def _close(self):
        self._queue.put(None)

    def get(self, timeout=None):
        """The next change; None when none came within timeout seconds, or after stop() when
        every queued change has been read."""
        if self._stopped and self._queue.empty():
            return None
        try:
            change = self._queue.get(timeout=timeout)
        except queue.Empty:
            return None
        if change is None:
            self._queue.put(None)  # every later get() sees the end too
        return change

    def __iter__(self):
        return self

    def __next__(self):
        change = self.get()
        if change is None:
            raise StopIteration
        return change

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()


class AsyncListener(_Session):
    """The same as Listener for asyncio: `async for`, `await get(timeout)`, `async with`."""

    def __init__(self):
        self._loop = asyncio.get_running_loop()
        self._queue = asyncio.Queue()
        super().__init__()

    def _enqueue(self, changes):
        try:
            self._loop.call_soon_threadsafe(self._put_all, changes)
        except RuntimeError:
            pass  # the loop is closed: nobody is left to read

    def _put_all(self, changes):
        if self._stopped:
            return
        for change in changes:
            self._queue.put_nowait(change)

    def _close(self):
        self._queue.put_nowait(None)

    async def get(self, timeout=None):
        if self._stopped and self._queue.empty():
            return None
        try:
            change = await asyncio.wait_for(self._queue.get(), timeout)
        except asyncio.TimeoutError:
            return None
        if change is None:
            self._queue.put_nowait(None)
        return change

    def __aiter__(self):
        return self

    async def __anext__(self):
        change = await self.get()
        if change is None:
            raise StopAsyncIteration
        return change

    async def __aenter__(self):
        return self

    async def __aexit__(self, *exc):
        self.stop()


def listen():
    """Starts listening; returns a Listener. Raises RuntimeError while another one is active,
    and PelmoraError when the library cannot start."""
    return Listener()


def listen_async():
    """Starts listening for the running asyncio loop; returns an AsyncListener."""
    return AsyncListener()
