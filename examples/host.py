#!/usr/bin/python3
"""Prints every change of the Android phones plugged in, until Ctrl-C.

    PYTHONPATH=bindings/python examples/host.py [CONFIG_DIR]

CONFIG_DIR defaults to the configuration of an installed Pelmora (pkg-config pelmora)."""

import os
import subprocess
import sys
import tempfile

import pelmora


def main():
    if len(sys.argv) > 1:
        config = sys.argv[1]
    else:
        config = subprocess.run(["pkg-config", "--variable=configdir", "pelmora"],
                                capture_output=True, text=True, timeout=5).stdout.strip()
    state = os.path.join(tempfile.gettempdir(), "pelmora-example")  # resources and Pelmora.log
    os.makedirs(state, exist_ok=True)
    try:
        pelmora.init(config, state, state)
        pelmora.start_adb_server()
    except pelmora.PelmoraError as e:
        sys.exit("pelmora: %s" % e)
    print("listening; Ctrl-C to quit")
    with pelmora.listen() as changes:
        try:
            for c in changes:
                print("%-22s %17s -> %-17s %s %s %s" % (c.key_serial, c.old_status.name,
                      c.new_status.name, c.manufacturer, c.model, c.os_version), flush=True)
        except KeyboardInterrupt:
            pass


if __name__ == "__main__":
    main()
