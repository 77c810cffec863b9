"""What the Python binding (on PELMORA_LIBRARY) adds beyond the README's examples, which tests/readme
runs: frozen changes with named statuses, one listener at a time, an end distinct from a timeout,
asyncio, errors with code, name and meaning. No adb server answers on this test's port."""

import asyncio
import dataclasses
import json
import os
import socket
import subprocess
import sys

import pytest

import pelmora

CONFIG = os.path.join(os.path.dirname(__file__), "..", "..", "..", "config")
ENTRY = {"key_serial": "r58m", "actual_serial": "R58M", "old_status": "NotConnect", "new_status": "AuthoredConnect",
         "vid_manufacturer": "SAMSUNG", "os_version": "14", "model": "SM-G991B", "manufacturer": "samsung",
         "vid": 1256, "pid": 26720, "adb_error_code": 0}


@pytest.fixture(scope="module")
def folders(tmp_path_factory):
    with socket.socket() as s:  # a free port of its own, where nothing answers
        s.bind(("127.0.0.1", 0))
        os.environ["ANDROID_ADB_SERVER_PORT"] = str(s.getsockname()[1])
    work = str(tmp_path_factory.mktemp("pelmora"))
    pelmora.init(CONFIG, work, work)
    return [work, work]


def test_changes_are_frozen_and_their_statuses_read_as_the_report_words():
    change = pelmora.Change.from_report_entry(ENTRY)
    assert (change.new_status is pelmora.Status.AuthoredConnect) and str(change.new_status) == "AuthoredConnect"
    assert json.loads(json.dumps(dataclasses.asdict(change))) == ENTRY
    with pytest.raises(dataclasses.FrozenInstanceError):
        change.model = "changed"


def test_one_listener_at_a_time_and_an_end_distinct_from_a_timeout(folders):
    with pelmora.listen() as changes:
        with pytest.raises(pelmora.AlreadyListening, match="already listening") as raised:
            pelmora.listen()
        assert isinstance(raised.value, RuntimeError) and raised.value.code == 202
    list(changes)  # whatever was queued, then the end: for every later call too
    for _ in range(2):
        with pytest.raises(pelmora.EndOfChanges):
            changes.get(timeout=0.1)

    async def session():  # the README runs the asyncio host; here, its end
        async with pelmora.listen_async() as changes:
            assert await changes.get(timeout=0.1) is None  # a timeout, not the end: no phone here
        async for _ in changes:
            pass
        with pytest.raises(pelmora.EndOfChanges):
            await changes.get()
    asyncio.run(asyncio.wait_for(session(), 30))


def test_errors_carry_the_code_its_name_and_meaning(folders):
    try:
        for call, code in ((lambda: pelmora.init(CONFIG, None, folders[1]), 1),  # None reaches the library as NULL
                           (lambda: pelmora.init(folders[0], *folders), 2)):  # a folder without the .ini files
            with pytest.raises(pelmora.PelmoraError, match="InitPelmora failed with code %d " % code) as raised:
                call()
            assert (raised.value.code, raised.value.name, raised.value.meaning) == (code, *pelmora.CODES[code])
    finally:
        pelmora.init(CONFIG, *folders)
    result = subprocess.run(
        [sys.executable, "-c", "import pelmora; pelmora.init('a', 'b', 'c')"],
        env=dict(os.environ, PELMORA_LIBRARY="/nonexistent/libPelmora.so"), capture_output=True, text=True, timeout=30)
    assert "LibraryNotFound: loading libPelmora failed with code 201 (BINDING_NO_LIBRARY)" in result.stderr
    assert "PELMORA_LIBRARY: /nonexistent/libPelmora.so" in result.stderr
