"""The Python binding against libPelmora (PELMORA_LIBRARY), a private adb server and a phone of
pelmora-sim-phone (PELMORA_SIM_PHONE)."""

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
def setup(tmp_path_factory):
    work = tmp_path_factory.mktemp("pelmora")
    adb = PrivateAdb(str(work))
    adb.start()
    os.environ["ANDROID_ADB_SERVER_PORT"] = str(adb.port)
    phone = SimPhone(SIM_PHONE, adb, MODEL, "--android-version", "14")
    try:
        folders = [str(work / "resources"), str(work / "logs")]
        for folder in folders:
            os.makedirs(folder)
        pelmora.init(CONFIG, *folders)
        pelmora.start_adb_server()
        yield phone, folders
    finally:
        phone.stop()
        adb.kill()


def wait_for(get, predicate):
    deadline = time.monotonic() + WAIT_S
    while time.monotonic() < deadline:
        change = get(timeout=deadline - time.monotonic())
        if change is not None and predicate(change):
            return change
    pytest.fail("no such change within %d s" % WAIT_S)


def test_phone_arrives_and_leaves(setup):
    phone, _ = setup
    with pelmora.listen() as changes:
        with pytest.raises(RuntimeError, match="already listening"):
            pelmora.listen()
        arrival = wait_for(changes.get, lambda c: c.model == MODEL)
        assert (arrival.new_status, arrival.os_version, arrival.adb_error_code) == (
            pelmora.Status.AuthoredConnect, "14", 0)
        phone.command("leave")
        gone = wait_for(changes.get, lambda c: c.key_serial == arrival.key_serial
                        and c.new_status is pelmora.Status.NotConnect)
        assert (gone.model, gone.os_version) == ("", "")  # a departed phone has no details
        with pytest.raises(dataclasses.FrozenInstanceError):
            gone.model = "changed"
    list(changes)  # a stopped listener ends its iteration once drained, and never blocks
    assert changes.get() is None
    phone.command("return")


def test_async_listener_sees_the_phone_afresh(setup):
    async def first_change():
        async with pelmora.listen_async() as changes:
            deadline = time.monotonic() + WAIT_S
            async for change in changes:
                if change.model == MODEL or time.monotonic() > deadline:
                    return change

    change = asyncio.run(asyncio.wait_for(first_change(), WAIT_S))
    assert change.model == MODEL and change.new_status is pelmora.Status.AuthoredConnect


@pytest.mark.parametrize("call, code", [
    (lambda folders: pelmora.init("", *folders), 1),
    (lambda folders: pelmora.init(CONFIG, None, folders[1]), 1),
    (lambda folders: pelmora.init(folders[0], *folders), 2),  # a folder without the .ini files
])
def test_errors_carry_the_library_code(setup, call, code):
    _, folders = setup
    try:
        with pytest.raises(pelmora.PelmoraError) as raised:
            call(folders)
        assert raised.value.code == code and ("code %d" % code) in str(raised.value)
    finally:
        pelmora.init(CONFIG, *folders)


def test_adb_error_code_is_passed_on(setup, monkeypatch):
    monkeypatch.setenv("ANDROID_ADB_SERVER_PORT", "not-a-port")
    with pytest.raises(pelmora.PelmoraError) as raised:
        pelmora.start_adb_server()
    assert raised.value.code != 0


def test_library_that_cannot_be_loaded_is_named():
    result = subprocess.run(
        [sys.executable, "-c", "import pelmora; pelmora.init('a', 'b', 'c')"],
        env=dict(os.environ, PELMORA_LIBRARY="/nonexistent/libPelmora.so"),
        capture_output=True, text=True, timeout=WAIT_S)
    assert result.returncode != 0 and "/nonexistent/libPelmora.so" in result.stderr
