"""libPelmora through ctypes: finding and loading it, the one report callback of the process, and
the wait for the library's poll thread when the interpreter exits."""

import atexit
import ctypes
import os
import subprocess
import sys
import threading
import time

LIBRARY_NAMES = (("libPelmora.2.dylib", "libPelmora.dylib") if sys.platform == "darwin"
                 else ("libPelmora.so.2", "libPelmora.so"))
PKG_CONFIG_TIMEOUT_S = 5

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
_library = None
_callback = None           # made once, never freed: the library keeps the first callback for good
_active = None             # the session that gets the reports; read without the lock
_last_stop = None


def library_candidates():
    """$PELMORA_LIBRARY alone when set; else an installed Pelmora's libdir, then the loader's
    search path."""
    explicit = os.environ.get("PELMORA_LIBRARY")
    if explicit:
        return [explicit]
    candidates = []
    try:
        libdir = subprocess.run(["pkg-config", "--variable=libdir", "pelmora"], check=True,
                                capture_output=True, text=True,
                                timeout=PKG_CONFIG_TIMEOUT_S).stdout.strip()
        if libdir:
            candidates += [os.path.join(libdir, name) for name in LIBRARY_NAMES]
    except (OSError, subprocess.SubprocessError):
        pass  # no pkg-config, or no installed Pelmora
    return candidates + list(LIBRARY_NAMES)


def _bind(library):
    library.InitPelmora.argtypes = [ctypes.c_char_p] * 3
    library.InitPelmora.restype = ctypes.c_int
    library.StartAdbServer.argtypes = [ctypes.c_bool]
    library.StartAdbServer.restype = ctypes.c_int
    library.StartListenAndroidDevice.argtypes = [_ReportCallback]
    library.StartListenAndroidDevice.restype = ctypes.c_int
    library.StopListenAndroidDevice.argtypes = []
    library.StopListenAndroidDevice.restype = None
    return library


def _loaded():
    global _library
    if _library is None:
        failures = []
        for path in library_candidates():
            try:
                _library = _bind(ctypes.CDLL(path))
                break
            except (OSError, AttributeError) as e:
                failures.append("%s: %s" % (path, e))
        else:
            raise OSError("libPelmora could not be loaded from:\n  " + "\n  ".join(failures))
    return _library


def library_path():
    with _lock:
        return _loaded()._name


def _text(path):
    return None if path is None else os.fsencode(path)


def init(config_dir, resource_dir, log_dir):
    with _lock:
        return _loaded().InitPelmora(_text(config_dir), _text(resource_dir), _text(log_dir))


def start_adb_server(killed):
    with _lock:
        return _loaded().StartAdbServer(bool(killed))


def _on_report(report, length):
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


def start_listening(session):
    """Routes the reports to session and starts the library's listening; returns its code."""
    global _active, _callback
    with _lock:
        library = _loaded()
        if _active is not None:
            raise RuntimeError("pelmora: already listening; stop() the active listener first")
        if _callback is None:
            _callback = _ReportCallback(_on_report)
            ctypes.pythonapi.Py_IncRef(ctypes.py_object(_callback))  # outlives the interpreter
        _active = session
        code = library.StartListenAndroidDevice(_callback)
        if code != 0:
            _active = None
        return code


def stop_listening(session):
    global _active, _last_stop
    with _lock:
        if _active is session:
            _active = None
        _library.StopListenAndroidDevice()
        _last_stop = time.monotonic()


@atexit.register
def _settle_at_exit():
    session = _active
    if session is not None:
        session.stop()
    if _last_stop is not None:
        time.sleep(max(0.0, POLL_THREAD_LINGER_S - (time.monotonic() - _last_stop)))
