"""A private real adb server and simulated phones for the Python tests: every server gets a port
of its own (picked by binding port 0) and a HOME of its own, and is killed by the test."""

import argparse
import os
import socket
import subprocess
import sys
import time

# Once stdin ends (kill(), or the test's death) kills the server on port $2 (adb $1), from its own session.
WATCHDOG = ("exec 3<&0; ( trap '' INT HUP TERM; cat <&3 >/dev/null; exec 3<&-;"
            " for try in 1 2 3; do \"$1\" -P \"$2\" kill-server; sleep 1; done ) </dev/null >/dev/null 2>&1 &")


def run(cmd, env=None, timeout=120, check=True):
    result = subprocess.run(cmd, env=env, timeout=timeout, capture_output=True, text=True)
    if check and result.returncode != 0:
        sys.exit("FAILED (%d): %s\nstdout:\n%s\nstderr:\n%s"
                 % (result.returncode, " ".join(cmd), result.stdout, result.stderr))
    return result


def arguments(*options):
    """The command line, every option required."""
    parser = argparse.ArgumentParser()
    for option in options:
        parser.add_argument(option, required=True)
    return parser.parse_args()


def wait_until(predicate, seconds=20):
    deadline = time.monotonic() + seconds
    while not predicate() and time.monotonic() < deadline:
        time.sleep(0.05)
    return predicate()


def expect(condition, message):
    if not condition:
        sys.exit("FAILED: " + message)


class PrivateAdb:
    """A real adb server on a port of its own, killed by a watchdog whoever starts it; env is a client's."""

    def __init__(self, work):
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
            s.bind(("127.0.0.1", 0))
            self.port = s.getsockname()[1]
        home = os.path.join(work, "home")
        os.makedirs(home, exist_ok=True)
        # ADB_EMU=0: no look at the emulator ports, which other tests' phones may hold.
        self.env = dict(os.environ, HOME=home, ANDROID_ADB_SERVER_PORT=str(self.port), ADB_EMU="0")
        self.env.pop("ADB_VENDOR_KEYS", None)
        self.watchdog = subprocess.Popen(["/bin/sh", "-c", WATCHDOG, "pelmora-adb-watchdog", "adb", str(self.port)],
                                         env=self.env, stdin=subprocess.PIPE, start_new_session=True)
        self.watchdog.wait(timeout=10)

    def start(self):
        run(["adb", "-P", str(self.port), "start-server"], env=self.env, timeout=30)

    def server_pids(self):
        return [int(p) for p in run(["pgrep", "-f", "tcp:%d fork-server" % self.port], check=False).stdout.split()]

    def kill(self):
        run(["adb", "-P", str(self.port), "kill-server"], env=self.env, timeout=30, check=False)
        self.watchdog.stdin.close()


class SimPhone:
    """pelmora-sim-phone attached with 'adb connect'; command() writes to its stdin (authorize, leave...)."""

    def __init__(self, program, adb, model, *extra):
        self.process = subprocess.Popen(
            [program, "--model", model, "--connect"] + list(extra), env=adb.env,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def command(self, text):
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()

    def stop(self):
        try:
            self.process.communicate(timeout=10)  # the end of its stdin quits it
        except (subprocess.TimeoutExpired, BrokenPipeError, ValueError):
            self.process.kill()
            self.process.communicate()
