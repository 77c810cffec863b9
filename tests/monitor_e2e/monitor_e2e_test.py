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


class JsonLinesReader:
    """Reads the monitor's stdout on a thread, so every wait below is bounded."""

    def __init__(self, stream):
        self.lines = queue.Queue()
        self.all = []
        threading.Thread(target=self._pump, args=(stream,), daemon=True).start()

    def _pump(self, stream):
        for line in stream:
            self.lines.put(line)

    def wait_for(self, predicate, what):
        deadline = time.monotonic() + WAIT
        while time.monotonic() < deadline:
            try:
                line = self.lines.get(timeout=max(0.05, deadline - time.monotonic()))
            except queue.Empty:
                break
            self.all.append(line)
            expect(line.endswith("\n") and "\n" not in line[:-1], "not one line: %r" % line)
            report = json.loads(line)
            if any(predicate(entry) for entry in report["changed"]):
                return report
        sys.exit("FAILED: no report with %s within %d s; got:\n%s" % (what, WAIT, "".join(self.all)))

    def rest(self):
        while True:
            try:
                self.all.append(self.lines.get(timeout=1))
            except queue.Empty:
                return


def logged_reports(log_text):
    """The reports as the library logged them: a level-1 line that opens with "{" up to the line
    "}" that closes it."""
    reports, current = [], None
    for line in log_text.splitlines():
        if current is None:
            if re.match(r"^\S+ \S+ \[L1\] \[Pelmora\] \{$", line):
                current = ["{"]
        else:
            current.append(line)
            if line == "}":
                reports.append(json.loads("\n".join(current)))
                current = None
    return reports


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--monitor", required=True)
    parser.add_argument("--sim-phone", required=True)
    parser.add_argument("--config", required=True)
    args = parser.parse_args()

    work = tempfile.mkdtemp(prefix="pelmora-monitor-e2e-")
    adb = PrivateAdb(work)
    phone = monitor = None
    try:
        adb.start()
        logs = os.path.join(work, "logs")
        resources = os.path.join(work, "resources")
        os.makedirs(resources)
        monitor = subprocess.Popen(
            [args.monitor, "--json", "--config", args.config, "--resources", resources,
             "--log-dir", logs],
            env=adb.env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        reader = JsonLinesReader(monitor.stdout)

        model = "E2E Phone 7"
        attached = time.monotonic()
        phone = SimPhone(args.sim_phone, adb, model, "--manufacturer", "Pelmora",
                         "--android-version", "14")
        arrival = reader.wait_for(
            lambda e: e["new_status"] == "AuthoredConnect" and e["model"] == model,
            "the phone as AuthoredConnect")
        print("phone shown as AuthoredConnect %.2f s after it was started" % (time.monotonic() - attached))
        entry = next(e for e in arrival["changed"] if e["model"] == model)
        expect(entry["os_version"] == "14" and entry["manufacturer"] == "Pelmora",
               "details of the phone: %s" % entry)
        key = entry["key_serial"]

        phone.command("leave")
        reader.wait_for(lambda e: e["key_serial"] == key and e["new_status"] == "NotConnect",
                        "the phone leaving")

        monitor.send_signal(signal.SIGINT)
        try:
            code = monitor.wait(timeout=10)
        except subprocess.TimeoutExpired:
            sys.exit("FAILED: the monitor did not end within 10 s of SIGINT")
        reader.rest()
        stderr = monitor.stderr.read()
        monitor = None
        expect(code == 0, "exit code %d after SIGINT; stderr:\n%s" % (code, stderr))
        for marker in ("Sanitizer", "runtime error", "LeakSanitizer"):
            expect(marker not in stderr, "sanitizer report:\n" + stderr)

        with open(os.path.join(logs, "Pelmora.log"), errors="replace") as log:
            log_text = log.read()
        printed = [json.loads(line) for line in reader.all]
        expect(printed == logged_reports(log_text),
               "the JSON lines differ from the logged reports:\n%s\n---\n%s"
               % ("".join(reader.all), log_text))
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
