#!/usr/bin/python3
"""Every fenced code block of README.md, used as a reader would use it. Complete programs and
command sequences (C, Python, Node.js, shell) run against a simulated phone behind a private adb
server; a block whose first line says "fragment" is only compiled or syntax-checked; JSON is parsed;
text and other kinds are output and left alone. In a block, /path/to/pelmora stands for the
checkout and /path/to/pelmora/build for its build folder; nothing else is changed."""

import argparse
import json
import os
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support", "python"))
from pelmora_test_adb import PrivateAdb, SimPhone  # noqa: E402

PLACEHOLDER = "/path/to/pelmora"
MODEL = "README Phone"
RUN_TIMEOUT_S = 60
CHECK_TIMEOUT_S = 30
KINDS = {"sh": "sh", "bash": "sh", "shell": "sh", "c": "c", "python": "python", "py": "python",
         "js": "js", "javascript": "js", "mjs": "js", "json": "json"}
ESM = re.compile(r"^\s*(import|export)\b", re.M)


def blocks(readme):
    """(line number, kind or None, text) of every fenced block."""
    found, fence = [], None
    for number, line in enumerate(readme.splitlines(keepends=True), 1):
        if fence is None and line.startswith("```"):
            fence = (number, KINDS.get(line[3:].strip().split(" ")[0].lower()), [])
        elif fence is not None and line.startswith("```"):
            found.append((fence[0], fence[1], "".join(fence[2])))
            fence = None
        elif fence is not None:
            fence[2].append(line)
    if fence is not None:
        sys.exit("FAILED: README.md:%d: a code block is never closed" % fence[0])
    return found


class Runner:
    def __init__(self, args, work, adb):
        self.args, self.work = args, work
        self.include = os.path.join(args.source, "code", "include")
        self.env = dict(adb.env, NO_COLOR="1", PYTHONPATH=os.path.join(args.source, "bindings", "python"),
                        XDG_DATA_HOME=os.path.join(work, "data"), XDG_STATE_HOME=os.path.join(work, "state"))
        if os.path.realpath(args.build) != os.path.realpath(os.path.join(args.source, "build")):
            # The bindings look in the checkout's build/ of their own accord; another build is named.
            self.env["PELMORA_LIBRARY"] = os.path.join(args.build, "code", "libPelmora.so.2")
        modules = os.path.join(work, "node_modules")  # what `npm install` of the package would give
        os.makedirs(modules)
        os.symlink(os.path.join(args.source, "bindings", "node"), os.path.join(modules, "pelmora"))

    def file(self, name, text):
        path = os.path.join(self.work, name)
        with open(path, "w") as f:
            f.write(text)
        return path

    def call(self, cmd, timeout):
        try:
            result = subprocess.run(cmd, cwd=self.work, env=self.env, stdin=subprocess.DEVNULL,
                                    capture_output=True, text=True, timeout=timeout)
        except subprocess.TimeoutExpired as e:
            return "no end within %d s; output:\n%s" % (timeout, e.stdout or "")
        if result.returncode != 0:
            return "exit %d:\n%s%s" % (result.returncode, result.stdout, result.stderr)
        return result.stdout

    def check(self, kind, name, text):
        """'' when the fragment compiles, else what is wrong."""
        if kind == "python":
            try:
                compile(text, name, "exec")
                return ""
            except SyntaxError as e:
                return str(e)
        if kind == "json":
            try:
                json.loads(text)
                return ""
            except ValueError as e:
                return str(e)
        commands = {
            "sh": lambda path: ["bash", "-n", path],
            "c": lambda path: ["cc", "-fsyntax-only", "-Wall", "-Werror", "-I", self.include, path],
            "js": lambda path: ["node", "--check", path],
        }
        output = self.call(commands[kind](self.file(name + self.suffix(kind, text), text)), CHECK_TIMEOUT_S)
        return output if output.startswith(("exit ", "no end")) else ""

    @staticmethod
    def suffix(kind, text):
        return {"sh": ".sh", "c": ".c", "python": ".py", "js": ".mjs" if ESM.search(text) else ".js"}[kind]

    def run(self, kind, name, text):
        """The block's output, or what went wrong, as (ok, text)."""
        path = self.file(name + self.suffix(kind, text), text)
        if kind == "c":
            library = os.path.join(self.args.build, "code")
            built = self.call(["cc", "-Wall", "-Werror", "-I", self.include, path, "-L", library, "-lPelmora",
                               "-Wl,-rpath," + library, "-o", name], CHECK_TIMEOUT_S)
            if built.startswith(("exit ", "no end")):
                return False, built
        command = {"sh": ["bash", "-e", path], "c": [os.path.join(self.work, name)],
                   "python": ["/usr/bin/python3", path], "js": ["node", path]}[kind]
        output = self.call(command, RUN_TIMEOUT_S)
        if output.startswith(("exit ", "no end")):
            return False, output
        # A host that listens must have seen the simulated phone.
        if kind != "sh" and "listen" in text.lower() and MODEL not in output:
            return False, "the phone %r never showed; output:\n%s" % (MODEL, output)
        return True, output


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    parser.add_argument("--build", required=True)
    parser.add_argument("--sim-phone", required=True)
    args = parser.parse_args()
    with open(os.path.join(args.source, "README.md"), encoding="utf-8") as f:
        found = blocks(f.read())
    addon = os.path.join(args.source, "bindings", "node", "build", "pelmora.node")
    if any(kind == "js" and "fragment" not in text.split("\n", 1)[0] for _, kind, text in found) \
            and not os.path.exists(addon):
        sys.exit("FAILED: the Node.js addon is not built (cd bindings/node && npm run build)")

    failures = []
    with tempfile.TemporaryDirectory(prefix="pelmora-readme-") as work:
        adb = PrivateAdb(work)
        adb.start()
        phone = SimPhone(args.sim_phone, adb, MODEL, "--android-version", "14")
        try:
            runner = Runner(args, work, adb)
            for line, kind, text in found:
                text = text.replace(PLACEHOLDER + "/build", args.build).replace(PLACEHOLDER, args.source)
                name = "block-%d" % line
                fragment = "fragment" in text.split("\n", 1)[0]
                if kind is None:
                    print("README.md:%d: output, not run" % line)
                    continue
                if fragment or kind == "json":
                    error = runner.check(kind, name, text)
                    print("README.md:%d: %s checked: %s" % (line, kind, error or "ok"))
                    ok, output = not error, error
                else:
                    ok, output = runner.run(kind, name, text)
                    print("README.md:%d: %s ran: %s" % (line, kind, "ok" if ok else "FAILED"))
                if not ok:
                    failures.append("README.md:%d (%s): %s" % (line, kind, output))
        finally:
            phone.stop()
            adb.kill()
    if failures:
        sys.exit("FAILED:\n" + "\n\n".join(failures))
    print("every block of README.md runs or compiles")


if __name__ == "__main__":
    main()
