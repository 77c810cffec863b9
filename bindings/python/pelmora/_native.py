"""libPelmora through ctypes: finding and loading it, the table of codes, the one report callback
of the process, and the wait for the library's poll thread when the interpreter exits."""

from __future__ import annotations

import atexit
import ctypes
import os
import subprocess
import sys
import threading
import time
from pathlib import Path
from typing import Any, Iterator, List, Optional, Tuple

from ._errors import AlreadyListening, LibraryNotFound

SONAME = "libPelmora.2.dylib" if sys.platform == "darwin" else "libPelmora.so.2"
PKG_CONFIG_TIMEOUT_S = 5

# When the package is used from a checkout, this is the checkout, whose build folder has the library.
_CHECKOUT = Path(__file__).resolve().parent.parent.parent.parent
_IN_CHECKOUT = (_CHECKOUT / "code" / "include" / "Pelmora.h").is_file()

# The poll thread ends after its current poll and a pause of about a second. A callback into an
# interpreter that is shutting down ends the calling thread, which the library cannot survive, so
# the exit waits this long after the last stop.
POLL_THREAD_LINGER_S = 1.5

# What the report callback answers; the library only writes it to its log.
REPORT_QUEUED = 0
REPORT_DROPPED = 1      # no listener: stopped, or never started
REPORT_NOT_QUEUED = 2   # the listener failed to take it

_ReportCallback = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_int)

_lock = threading.Lock()   # the library wants its functions called one at a time
_library: Optional[ctypes.CDLL] = None
_callback: Any = None      # made once, never freed: the library keeps the first callback for good
_active: Any = None        # the session that gets the reports; read without the lock
_last_stop: Optional[float] = None


def _pkg_config_libdir() -> Optional[str]:
    try:
        libdir = subprocess.run(["pkg-config", "--variable=libdir", "pelmora"], check=True,
                                capture_output=True, text=True,
                                timeout=PKG_CONFIG_TIMEOUT_S).stdout.strip()
    except (OSError, subprocess.SubprocessError):
        return None  # no pkg-config, or no installed Pelmora
    return libdir or None


def library_candidates() -> Iterator[Tuple[str, Optional[str]]]:
    """(place, path) in the order they are tried; path None when the place has nothing to try.
    $PELMORA_LIBRARY alone when set: a library named on purpose is never swapped for another."""
    explicit = os.environ.get("PELMORA_LIBRARY")
    if explicit:
        yield "PELMORA_LIBRARY", explicit
        return
    if _IN_CHECKOUT:
        yield "this checkout's build", str(_CHECKOUT / "build" / "code" / SONAME)
    yield "the loader's search path", SONAME
    libdir = _pkg_config_libdir()
    yield "pkg-config pelmora", os.path.join(libdir, SONAME) if libdir else None


def _bind(library: ctypes.CDLL) -> ctypes.CDLL:
    library.InitPelmora.argtypes = [ctypes.c_char_p] * 3
    library.InitPelmora.restype = ctypes.c_int
    library.StartAdbServer.argtypes = [ctypes.c_bool]
    library.StartAdbServer.restype = ctypes.c_int
    library.StartListenAndroidDevice.argtypes = [_ReportCallback]
    library.StartListenAndroidDevice.restype = ctypes.c_int
    library.StopListenAndroidDevice.argtypes = []
    library.StopListenAndroidDevice.restype = None
    return library


def _loaded() -> ctypes.CDLL:
    global _library
    if _library is None:
        tried: List[str] = []
        for place, path in library_candidates():
            if path is None:
                tried.append("%s: no installed Pelmora" % place)
                continue
            try:
                _library = _bind(ctypes.CDLL(path))
                break
            except (OSError, AttributeError) as e:
                tried.append("%s: %s" % (place, e))
        else:
            raise LibraryNotFound("; tried:\n  " + "\n  ".join(tried))
    return _library


def library_path() -> str:
    with _lock:
        return str(_loaded()._name)


def _text(path: Optional[str]) -> Optional[bytes]:
    return None if path is None else os.fsencode(path)


def init(config_dir: Optional[str], resource_dir: Optional[str], log_dir: Optional[str]) -> int:
    with _lock:
        return int(_loaded().InitPelmora(_text(config_dir), _text(resource_dir), _text(log_dir)))


def start_adb_server(killed: bool) -> int:
    with _lock:
        return int(_loaded().StartAdbServer(bool(killed)))


def _on_report(report: Optional[int], length: int) -> int:
    """Runs on the library's poll thread."""
    session = _active
    if session is None:
        return REPORT_DROPPED
    if not report or length < 0:
        return REPORT_NOT_QUEUED
    try:
        session.deliver(ctypes.string_at(report, length).decode("utf-8", "replace"))
        return REPORT_QUEUED
    except BaseException:  # nothing may travel back into the library
        return REPORT_NOT_QUEUED


def start_listening(session: Any) -> int:
    """Routes the reports to session and starts the library's listening; returns its code."""
    global _active, _callback
    with _lock:
        library = _loaded()
        if _active is not None:
            raise AlreadyListening()
        if _callback is None:
            _callback = _ReportCallback(_on_report)
            ctypes.pythonapi.Py_IncRef(ctypes.py_object(_callback))  # outlives the interpreter
        _active = session
        code = int(library.StartListenAndroidDevice(_callback))
        if code != 0:
            _active = None
        return code


def stop_listening(session: Any) -> None:
    global _active, _last_stop
    with _lock:
        if _active is session:
            _active = None
        if _library is not None:
            _library.StopListenAndroidDevice()
        _last_stop = time.monotonic()


@atexit.register
def _settle_at_exit() -> None:
    session = _active
    if session is not None:
        session.stop()
    if _last_stop is not None:
        time.sleep(max(0.0, POLL_THREAD_LINGER_S - (time.monotonic() - _last_stop)))
