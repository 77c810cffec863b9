#!/usr/bin/python3
"""pelmora-monitor --json against the real library, a private adb server and a simulated phone:
the phone arrives as AuthoredConnect with its model, leaves as NotConnect; every JSON line equals
the report the library logged (the text it handed the callback); SIGINT ends the run with 0 after
the poll thread's last line reached the log; no sanitizer report."""

import argparse
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
from pelmora_test_adb import PrivateAdb, SimPhone, expect  # noqa: E402

WAIT = 20  # seconds for any one expected line


def start_reader(stream):
    """The monitor's stdout, line by line, read on a thread so that every wait below is bounded."""
    lines = queue.Queue()
    threading.Thread(target=lambda: [lines.put(line) for line in stream], daemon=True).start()
    return lines


def wait_for(lines, seen, predicate, what):
    deadline = time.monotonic() + WAIT
    try:
        while True:
            line = lines.get(timeout=max(0.05, deadline - time.monotonic()))
            seen.append(line)
            expect(line.endswith("\n") and "\n" not in line[:-1], "not one line: %r" % line)
            for entry in json.loads(line)["changed"]:
                if predicate(entry):
                    return entry
    except queue.Empty:
        sys.exit("FAILED: no report with %s within %d s; got:\n%s" % (what, WAIT, "".join(seen)))


def logged_reports(log_text):
    """The reports as the library logged them: from a level-1 line "{" to the line "}"."""
    return [json.loads("{" + body + "}")
            for body in re.findall(r"^\S+ \S+ \[L1\] \[Pelmora\] \{\n(.*?)^\}$", log_text, re.M | re.S)]


def main():
    parser = argparse.ArgumentParser()
    for option in ("--monitor", "--sim-phone", "--config"):
        parser.add_argument(option, required=True)
    args = parser.parse_args()

    work = tempfile.mkdtemp(prefix="pelmora-monitor-e2e-")
    adb = PrivateAdb(work)
    phone = monitor = None
    try:
        adb.start()
        logs, resources = os.path.join(work, "logs"), os.path.join(work, "resources")
        os.makedirs(resources)
        monitor = subprocess.Popen(
            [args.monitor, "--json", "--config", args.config, "--resources", resources, "--log-dir", logs],
            env=adb.env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        lines, seen = start_reader(monitor.stdout), []

        model = "E2E Phone 7"
        phone = SimPhone(args.sim_phone, adb, model, "--manufacturer", "Pelmora", "--android-version", "14")
        entry = wait_for(lines, seen, lambda e: e["new_status"] == "AuthoredConnect" and e["model"] == model,
                         "the phone as AuthoredConnect")
        expect(entry["os_version"] == "14" and entry["manufacturer"] == "Pelmora", "details of the phone: %s" % entry)
        phone.command("leave")
        wait_for(lines, seen, lambda e: e["key_serial"] == entry["key_serial"] and e["new_status"] == "NotConnect",
                 "the phone leaving")

        monitor.send_signal(signal.SIGINT)
        try:
            code = monitor.wait(timeout=10)
        except subprocess.TimeoutExpired:
            sys.exit("FAILED: the monitor did not end within 10 s of SIGINT")
        stderr = monitor.stderr.read()
        monitor = None
        expect(code == 0, "exit code %d after SIGINT; stderr:\n%s" % (code, stderr))
        expect(not re.search("Sanitizer|runtime error", stderr), "sanitizer report:\n" + stderr)

        while True:  # the lines still on their way
            try:
                seen.append(lines.get(timeout=1))
            except queue.Empty:
                break
        with open(os.path.join(logs, "Pelmora.log"), errors="replace") as log:
            log_text = log.read()
        printed = [json.loads(line) for line in seen]
        expect(printed == logged_reports(log_text),
               "the JSON lines differ from the logged reports:\n%s\n---\n%s" % ("".join(seen), log_text))
        stop = log_text.rfind("StopListenAndroidDevice Enter...")
        expect(stop >= 0 and log_text.find("Exit ListenThread", stop) > stop,
               "the poll thread's last line is not in the log:\n" + log_text[stop:])
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
