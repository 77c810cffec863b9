#!/usr/bin/python3
"""pelmora-monitor --json against the real library, a private adb server and a simulated phone:
the phone arrives and leaves; every JSON line equals the report the library logged; SIGINT ends the
run with 0 (a sanitizer report would not: the builds halt on one) after the poll thread's last line
reached the log; the adb server the monitor started stops on SIGTERM (no inherited blocked signals)."""

import json
import os
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support", "python"))
from pelmora_test_adb import PrivateAdb, SimPhone, arguments, expect, wait_until  # noqa: E402

WAIT = 20  # seconds for any one expected line


def wait_for(lines, seen, predicate, what):
    deadline = time.monotonic() + WAIT
    try:
        while True:
            seen.append(lines.get(timeout=max(0.05, deadline - time.monotonic())))
            entry = next((e for e in json.loads(seen[-1])["changed"] if predicate(e)), None)
            if entry:
                return entry
    except queue.Empty:
        sys.exit("FAILED: no report with %s within %d s; got:\n%s" % (what, WAIT, "".join(seen)))


def main():
    args = arguments("--monitor", "--sim-phone", "--config")

    work = tempfile.mkdtemp(prefix="pelmora-monitor-e2e-")
    adb = PrivateAdb(work)
    phone = monitor = None
    try:  # no server yet: the monitor starts one
        logs = os.path.join(work, "logs")
        monitor = subprocess.Popen(
            [args.monitor, "--json", "--config", args.config, "--resources", work, "--log-dir", logs],
            env=adb.env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        # stdout read on a thread, so that every wait below is bounded
        lines, seen = queue.Queue(), []
        reader = threading.Thread(target=lambda out=monitor.stdout: [lines.put(line) for line in out], daemon=True)
        reader.start()

        wait_until(adb.server_pids)  # the monitor's own server, before the phone's adb could start one
        model = "E2E Phone 7"
        phone = SimPhone(args.sim_phone, adb, model)
        entry = wait_for(lines, seen, lambda e: e["new_status"] == "AuthoredConnect" and e["model"] == model,
                         "the phone as AuthoredConnect")
        phone.command("leave")
        wait_for(lines, seen, lambda e: e["key_serial"] == entry["key_serial"] and e["new_status"] == "NotConnect",
                 "the phone leaving")

        monitor.send_signal(signal.SIGINT)
        code, stderr = monitor.wait(timeout=10), monitor.stderr.read()  # no end within 10 s fails the test
        monitor = None
        expect(code == 0, "exit code %d after SIGINT; stderr:\n%s" % (code, stderr))

        reader.join(WAIT)  # the lines still on their way, up to the end of stdout
        seen += [lines.get() for _ in range(lines.qsize())]
        with open(os.path.join(logs, "Pelmora.log"), errors="replace") as log:
            log_text = log.read()
        # The reports as the library logged them: from a level-1 line "{" to the line "}".
        logged = re.findall(r"^\S+ \S+ \[L1\] \[Pelmora\] \{\n(.*?)^\}$", log_text, re.M | re.S)
        printed = [json.loads(line) for line in seen]
        expect(printed == [json.loads("{" + body + "}") for body in logged],
               "the JSON lines differ from the logged reports:\n%s\n---\n%s" % ("".join(seen), log_text))
        stop = log_text.rfind("StopListenAndroidDevice Enter...")
        expect(stop >= 0 and log_text.find("Exit ListenThread", stop) > stop,
               "the poll thread's last line is not in the log:\n" + log_text[stop:])
        servers = adb.server_pids()
        expect(len(servers) == 1, "the monitor started %d adb servers" % len(servers))
        os.kill(servers[0], signal.SIGTERM)
        expect(wait_until(lambda: not adb.server_pids()), "the adb server ignored SIGTERM")
        print("monitor end to end: ok, %d reports" % len(printed))
    finally:
        if monitor:
            monitor.kill()
            monitor.wait()
        if phone:
            phone.stop()
        adb.kill()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
