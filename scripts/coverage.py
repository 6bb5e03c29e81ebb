#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Line coverage of the system's own logic, after the suite ran in a --coverage build.

    scripts/coverage.py [build/coverage]

Reads the gcov data through gcovr, prints the share of lines run for each folder of the
device logic and then every line no test reached, by file, as ranges. The platform layer
and the tests themselves are left out: the lab and the fakes stand in for them.
"""
import json
import os
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FOLDERS = ("app", "updatable", "camera", "dfu", "diag", "usb_core")


def ranges(numbers):
    out, start, prev = [], None, None
    for n in numbers:
        if start is None:
            start = prev = n
        elif n == prev + 1:
            prev = n
        else:
            out.append(f"{start}-{prev}" if prev != start else str(start))
            start = prev = n
    if start is not None:
        out.append(f"{start}-{prev}" if prev != start else str(start))
    return ", ".join(out)


def main():
    build = sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "coverage")
    filters = [arg for folder in FOLDERS for arg in ("--filter", f"{folder}/")]
    # The project's own objects only: CMakeFiles at the top holds CMake's compiler probes,
    # built with --coverage too, whose sources are gone; gcovr 7 stops on those (exit 64).
    objects = sorted(os.path.join(build, name) for name in os.listdir(build)
                     if name != "CMakeFiles" and os.path.isdir(os.path.join(build, name)))
    report = subprocess.run(
        ["gcovr", "--root", ROOT, "--object-directory", build, *filters, "--json", "-",
         *objects],
        check=True, capture_output=True, text=True).stdout
    files = json.loads(report)["files"]

    totals = {folder: [0, 0] for folder in FOLDERS}
    missing = {}
    for entry in files:
        name = entry["file"]
        folder = name.split("/", 1)[0]
        if folder not in totals:
            continue
        # A line counted from two objects (a header, say) is run if either ran it.
        runs = {}
        for line in entry["lines"]:
            if line.get("gcovr/noncode"):
                continue
            runs[line["line_number"]] = runs.get(line["line_number"], 0) + line["count"]
        totals[folder][0] += sum(1 for count in runs.values() if count > 0)
        totals[folder][1] += len(runs)
        unrun = sorted(n for n, count in runs.items() if count == 0)
        if unrun:
            missing[name] = unrun

    print("folder      lines run")
    run_all = lines_all = 0
    for folder in FOLDERS:
        run, lines = totals[folder]
        run_all += run
        lines_all += lines
        share = 100.0 * run / lines if lines else 100.0
        print(f"{folder + '/':11} {run:5} of {lines:5}  {share:5.1f}%")
    share = 100.0 * run_all / lines_all if lines_all else 100.0
    print(f"{'all':11} {run_all:5} of {lines_all:5}  {share:5.1f}%")
    print()
    print("lines no test reaches:" if missing else "every line is reached by a test")
    for name in sorted(missing):
        print(f"  {name}: {ranges(missing[name])}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
