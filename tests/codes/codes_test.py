#!/usr/bin/python3
"""The table of codes against the headers: every PELMORA_ERR_* and TARNWELL_ERR_* code is in
common/codes.json with its name, nothing else of those two kinds is there, and no code or name
is listed twice. The monitor and the bindings read only the table, so this is where a code added
in one place alone shows."""

import json
import os
import re
import sys

SOURCE = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..", "..")
HEADERS = {"PELMORA_ERR_": "code/include/Pelmora.h", "TARNWELL_ERR_": "tarnwell/include/Tarnwell.h"}

with open(os.path.join(SOURCE, "common", "codes.json"), encoding="utf-8") as f:
    table = json.load(f)["codes"]
problems = []
for key in ("code", "name"):
    values = [entry[key] for entry in table]
    problems += ["%s %s is listed twice" % (key, v) for v in sorted(set(values), key=str) if values.count(v) > 1]
problems += ["code %s has no meaning" % e["code"] for e in table if not e.get("meaning")]
for prefix, header in HEADERS.items():
    with open(os.path.join(SOURCE, header), encoding="utf-8") as f:
        defined = {name: int(code) for name, code in
                   re.findall(r"^#define (%s\w+) (\d+)" % prefix, f.read(), re.M)}
    listed = {e["name"]: e["code"] for e in table if e["name"].startswith(prefix)}
    problems += ["%s = %d is in %s but not in the table" % (n, c, header)
                 for n, c in defined.items() if listed.get(n) != c]
    problems += ["%s = %d is in the table but not in %s" % (n, c, header)
                 for n, c in listed.items() if defined.get(n) != c]
if problems:
    sys.exit("FAILED:\n  " + "\n  ".join(problems))
print("common/codes.json holds exactly the codes of %s" % " and ".join(HEADERS.values()))
