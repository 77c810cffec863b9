"""What the Python binding adds to libPelmora (PELMORA_LIBRARY): typed, frozen changes through its
two listeners, one listener at a time, a clean end, and errors with the library's code. Against a
private adb server and a phone of pelmora-sim-phone (PELMORA_SIM_PHONE)."""

import asyncio
import dataclasses
import os
import subprocess
import sys
import time

import pytest

import pelmora

REPO = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..", ".."))
sys.path.insert(0, os.path.join(REPO, "tests", "support", "python"))
from pelmora_test_adb import PrivateAdb, SimPhone  # noqa: E402

SIM_PHONE = os.environ.get("PELMORA_SIM_PHONE",
                           os.path.join(REPO, "build", "tools", "sim-phone", "pelmora-sim-phone"))
CONFIG = os.path.join(REPO, "config")
MODEL = "Python Binding Phone"
WAIT_S = 20


@pytest.fixture(scope="module")
def folders(tmp_path_factory):
    work = tmp_path_factory.mktemp("pelmora")
    adb = PrivateAdb(str(work))
    adb.start()
    os.environ["ANDROID_ADB_SERVER_PORT"] = str(adb.port)
    phone = SimPhone(SIM_PHONE, adb, MODEL, "--android-version", "14")
    try:
        folders = [str(work), str(work)]  # resources and logs
        pelmora.init(CONFIG, *folders)
        pelmora.start_adb_server()
        yield folders
    finally:
        phone.stop()
        adb.kill()


def test_listeners_give_typed_frozen_changes_and_end_once_stopped(folders):
    with pelmora.listen() as changes:
        with pytest.raises(RuntimeError, match="already listening"):
            pelmora.listen()
        deadline = time.monotonic() + WAIT_S
        change = None
        while (change is None or change.model != MODEL) and time.monotonic() < deadline:
            change = changes.get(timeout=deadline - time.monotonic())
        assert change is not None and change.model == MODEL, "no phone within %d s" % WAIT_S
        assert (change.new_status, change.os_version, change.adb_error_code) == (
            pelmora.Status.AuthoredConnect, "14", 0)
        with pytest.raises(dataclasses.FrozenInstanceError):
            change.model = "changed"
    list(changes)  # a stopped listener ends its iteration once drained, and never blocks
    with pytest.raises(pelmora.EndOfChanges):
        changes.get()
    assert (str(change.new_status), "%s" % change.old_status) == ("AuthoredConnect", "NotConnect")

    async def first_change():  # the asyncio listener sees the phone afresh
        await pelmora.start_adb_server_async()
        async with pelmora.listen_async() as changes:
            async for change in changes:
                if change.model == MODEL:
                    return change
    assert asyncio.run(asyncio.wait_for(first_change(), WAIT_S)).new_status is pelmora.Status.AuthoredConnect


def test_errors_carry_the_library_code(folders, monkeypatch):
    try:
        for call, code in ((lambda: pelmora.init(CONFIG, None, folders[1]), 1),  # None reaches the library as NULL
                           (lambda: pelmora.init(folders[0], *folders), 2)):  # a folder without the .ini files
            with pytest.raises(pelmora.PelmoraError, match="InitPelmora failed with code %d " % code) as raised:
                call()
            assert (raised.value.code, raised.value.name, raised.value.meaning) == (code, *pelmora.CODES[code])
    finally:
        pelmora.init(CONFIG, *folders)
    monkeypatch.setenv("ANDROID_ADB_SERVER_PORT", "not-a-port")
    with pytest.raises(pelmora.PelmoraError, match="StartAdbServer failed .*TARNWELL_ERR_BAD_PORT"):
        pelmora.start_adb_server()


def test_library_that_cannot_be_loaded_is_named():
    result = subprocess.run(
        [sys.executable, "-c", "import pelmora; pelmora.init('a', 'b', 'c')"],
        env=dict(os.environ, PELMORA_LIBRARY="/nonexistent/libPelmora.so"),
        capture_output=True, text=True, timeout=WAIT_S)
    assert result.returncode != 0 and "LibraryNotFound" in result.stderr
    assert "code 201 (BINDING_NO_LIBRARY)" in result.stderr and "PELMORA_LIBRARY: /nonexistent/libPelmora.so" in result.stderr
