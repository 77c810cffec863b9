#!/usr/bin/python3
"""Installs the build into a temporary prefix (a tree moved away from where it was built), builds
the example host against it through find_package(Pelmora), and runs it and the installed monitor
against a private ADB server with a simulated phone. pkg-config and --version are tried on the
Debian packages by packaging/check-packages.sh; their build checks the installed files, sonames and
exported symbols (debian/*.install, *.symbols)."""

import os
import shutil
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support", "python"))
from pelmora_test_adb import PrivateAdb, SimPhone, arguments, expect, run  # noqa: E402


def main():
    args = arguments("--build-dir", "--source-dir", "--sim-phone")

    work = tempfile.mkdtemp(prefix="pelmora-install-")
    adb = PrivateAdb(work)
    phone = None
    try:
        prefix = os.path.join(work, "prefix")
        run(["cmake", "--install", args.build_dir, "--prefix", prefix])
        config = os.path.join(prefix, "share/pelmora/config")
        files = sorted(os.listdir(config))
        expect(files == ["AndroidPIDBlack.ini", "AndroidPIDWhite.ini", "AndroidVID.ini", "iManufactureAndiProduct.ini"],
               "configuration files: %s" % files)
        resources = work  # no adb of its own there: the one on PATH
        adb.start()
        phone = SimPhone(args.sim_phone, adb, "Install Test Phone")
        example = os.path.join(work, "example")
        run(["cmake", "-S", os.path.join(args.source_dir, "examples"), "-B", example, "-DCMAKE_PREFIX_PATH=" + prefix])
        run(["cmake", "--build", example])
        logs = os.path.join(work, "logs-host")
        os.makedirs(logs)
        output = run([os.path.join(example, "pelmora-example-host"), config, resources, logs, "4"],
                     env=adb.env, timeout=34).stdout
        expect(any('"AuthoredConnect"' in r and "Install Test Phone" in r for r in output.split("}")),
               "the example host did not report the phone as authorised:\n" + output)

        monitor = os.path.join(prefix, "bin", "pelmora-monitor")
        # No --config: the installed monitor finds the configuration beside it.
        once = run([monitor, "--once", "--json", "--wait", "3", "--resources", resources,
                    "--log-dir", os.path.join(work, "monitor-logs")], env=adb.env)
        expect('"AuthoredConnect"' in once.stdout, "monitor --once: " + once.stdout)
        print("install tree: ok")
    finally:
        if phone:
            phone.stop()
        adb.kill()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
