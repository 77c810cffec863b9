#!/usr/bin/python3
"""Every fenced code block of README.md, used as a reader would: programs and command sequences (C,
Python, Node.js, shell) run against a simulated phone behind a private adb server (one that listens
must show it); a block whose first line says "fragment" is only compiled or syntax-checked; JSON is
parsed; other kinds are output. /path/to/pelmora and /path/to/pelmora/build: the checkout and build."""

import json
import os
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support", "python"))
from pelmora_test_adb import PrivateAdb, SimPhone, arguments  # noqa: E402

PLACEHOLDER = "/path/to/pelmora"
MODEL = "README Phone"
TIMEOUT_S = 60
KINDS = {"sh": "sh", "bash": "sh", "shell": "sh", "c": "c", "python": "python", "py": "python",
         "js": "js", "javascript": "js", "mjs": "js", "json": "json"}


def blocks(readme):
    """(line number, kind or None, text) of every fenced block."""
    lines = readme.splitlines(keepends=True)
    fences = [number for number, line in enumerate(lines) if line.startswith("```")]
    if len(fences) % 2:
        sys.exit("FAILED: README.md:%d: a code block is never closed" % (fences[-1] + 1))
    return [(start + 1, KINDS.get(lines[start][3:].strip().split(" ")[0].lower()), "".join(lines[start + 1:end]))
            for start, end in zip(fences[::2], fences[1::2])]


def call(cmd, work, env):
    """'' when cmd succeeds, else what went wrong; and its output."""
    try:
        result = subprocess.run(cmd, cwd=work, env=env, stdin=subprocess.DEVNULL, capture_output=True,
                                text=True, timeout=TIMEOUT_S)
    except subprocess.TimeoutExpired as e:
        return "no end within %d s" % TIMEOUT_S, str(e.stdout or "")
    return ("exit %d" % result.returncode if result.returncode else ""), result.stdout + result.stderr


def try_block(kind, text, fragment, path, args, work, env):
    """What is wrong with one block, or ''."""
    if kind == "json" or (kind == "python" and fragment):  # valid JSON, or Python that compiles
        try:
            json.loads(text) if kind == "json" else compile(text, path, "exec")
            return ""
        except (ValueError, SyntaxError) as e:
            return str(e)
    include, library = os.path.join(args.source, "code", "include"), os.path.join(args.build, "code")
    if kind == "c":
        error, output = call(["cc", "-Wall", "-Werror", "-I", include, path] + (["-fsyntax-only"] if fragment else [
            "-L", library, "-lPelmora", "-Wl,-rpath," + library, "-o", path + ".bin"]), work, env)
        if error or fragment:
            return error and "%s: %s" % (error, output)
    command = {"sh": ["bash", "-n" if fragment else "-e", path], "c": [path + ".bin"],
               "python": ["/usr/bin/python3", path], "js": ["node"] + (["--check"] if fragment else []) + [path]}[kind]
    error, output = call(command, work, env)
    if not error and not fragment and kind != "sh" and "listen" in text.lower() and MODEL not in output:
        error = "the phone %r never showed" % MODEL
    return error and "%s: %s" % (error, output)


def main():
    args = arguments("--source", "--build", "--sim-phone")
    with open(os.path.join(args.source, "README.md"), encoding="utf-8") as f:
        found = blocks(f.read())

    failures = []
    with tempfile.TemporaryDirectory(prefix="pelmora-readme-") as work:
        adb = PrivateAdb(work)
        adb.start()
        phone = SimPhone(args.sim_phone, adb, MODEL, "--android-version", "14")
        env = dict(adb.env, NO_COLOR="1", PYTHONPATH=os.path.join(args.source, "bindings", "python"),
                   XDG_DATA_HOME=os.path.join(work, "data"), XDG_STATE_HOME=os.path.join(work, "state"))
        if os.path.realpath(args.build) != os.path.realpath(os.path.join(args.source, "build")):
            env["PELMORA_LIBRARY"] = os.path.join(args.build, "code", "libPelmora.so.2")  # else found by itself
        os.makedirs(os.path.join(work, "node_modules"))  # what installing the package gives
        os.symlink(os.path.join(args.source, "bindings", "node"), os.path.join(work, "node_modules", "pelmora"))
        try:
            for line, kind, text in found:
                text = text.replace(PLACEHOLDER + "/build", args.build).replace(PLACEHOLDER, args.source)
                fragment = "fragment" in text.split("\n", 1)[0]
                esm = kind == "js" and re.search(r"^\s*(import|export)\b", text, re.M)
                path = os.path.join(work, "block-%d.%s" % (line, "mjs" if esm else kind))
                with open(path, "w") as f:
                    f.write(text)
                error = try_block(kind, text, fragment, path, args, work, env) if kind else ""
                how = "output" if kind is None else "%s %s" % (kind, "checked" if fragment or kind == "json" else "ran")
                print("README.md:%d: %s: %s" % (line, how, "FAILED" if error else "ok"))
                if error:
                    failures.append("README.md:%d (%s): %s" % (line, kind, error))
        finally:
            phone.stop()
            adb.kill()
    if failures:
        sys.exit("FAILED:\n" + "\n\n".join(failures))


if __name__ == "__main__":
    main()
