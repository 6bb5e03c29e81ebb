#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures how many deliberate faults the suite catches.

    scripts/mutate.py [--list tests/mutants.txt] [--build build/default]
                      [--only ID,ID...] [--sample N [--seed S]] [--jobs 2] [--check COMMAND]

The list (tests/mutants.txt) holds one stanza per fault, stanzas apart by blank lines,
lines starting with # ignored:

    id: short-name
    file: path/from/the/project/root
    find: text that occurs exactly once in that file
    replace: what it becomes ({NL} is a line break; empty deletes it)
    build: the build folder for this fault, from the project root (optional; for a file that
           only another target compiles, such as build/mingw for platform/win32/, whose ctest
           runs the Windows tests under Wine)

For each chosen fault the file is changed, the build folder rebuilt and ctest run (or the
shell command given with --check, from the project root); a failing suite catches (kills) the
fault. The Windows installer's faults, for example, are their own list:

    scripts/mutate.py --list tests/windows/installer-mutants.txt --build build/mingw \
                      --check 'scripts/msi-check.sh build/mingw'

A fault the compiler refuses is reported and not counted, and so is one whose build folder
has not been configured (unbuilt).
The file gets its own text back after each fault, also when the run is interrupted, and the
build is brought back in line at the end. The last line is the score:
"caught K of N faults (P%)"; the exit status is 1 when a fault survived, 2 on a bad list.
"""
import argparse
import os
import random
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FIELDS = ("id", "file", "find", "replace")
OPTIONAL = ("build",)


def read_list(path):
    faults, current = [], {}
    lines = open(path, encoding="utf-8").read().split("\n") + [""]
    for number, line in enumerate(lines, 1):
        if line.startswith("#"):
            continue
        if not line.strip():
            if current:
                missing = [f for f in FIELDS if f not in current]
                if missing:
                    sys.exit(f"{path}:{number}: stanza lacks {', '.join(missing)}")
                faults.append(current)
                current = {}
            continue
        key, sep, value = line.partition(":")
        if not sep or key not in FIELDS + OPTIONAL:
            print(f"{path}:{number}: not a field of a fault: {line!r}", file=sys.stderr)
            sys.exit(2)
        current[key] = value[1:] if value.startswith(" ") else value
    ids = [f["id"] for f in faults]
    doubles = {i for i in ids if ids.count(i) > 1}
    if doubles:
        print(f"{path}: ids listed twice: {', '.join(sorted(doubles))}", file=sys.stderr)
        sys.exit(2)
    return faults


def run(command, timeout):
    try:
        return subprocess.run(command, cwd=ROOT, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=timeout).returncode
    except subprocess.TimeoutExpired:
        return None


def try_fault(fault, build, jobs, check):
    path = os.path.join(ROOT, fault["file"])
    original = open(path, encoding="utf-8").read()
    if original.count(fault["find"]) != 1:
        return "stale", 0.0
    started = time.monotonic()
    changed = original.replace(fault["find"], fault["replace"].replace("{NL}", "\n"))
    try:
        with open(path, "w", encoding="utf-8") as out:
            out.write(changed)
        if run(["cmake", "--build", build, "-j", str(jobs)], 1800) != 0:
            return "refused", time.monotonic() - started
        # A suite that hangs has caught the fault as surely as one that fails.
        if check:
            code = run(["bash", "-c", check], 1800)
        else:
            code = run(["ctest", "--test-dir", build, "-j", str(jobs), "--stop-on-failure",
                        "--timeout", "300"], 1800)
        return ("survived" if code == 0 else "caught"), time.monotonic() - started
    finally:
        with open(path, "w", encoding="utf-8") as out:
            out.write(original)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--list", default=os.path.join(ROOT, "tests", "mutants.txt"))
    parser.add_argument("--build", default=os.path.join(ROOT, "build", "default"))
    parser.add_argument("--only", help="comma-separated ids")
    parser.add_argument("--sample", type=int, default=0,
                        help="add this many faults drawn from the rest of the list")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--check", help="a shell command run instead of ctest")
    args = parser.parse_args()

    faults = read_list(args.list)
    chosen = faults
    if args.only:
        wanted = args.only.split(",")
        known = {f["id"] for f in faults}
        unknown = [i for i in wanted if i not in known]
        if unknown:
            print(f"not in {args.list}: {', '.join(unknown)}", file=sys.stderr)
            return 2
        chosen = [f for f in faults if f["id"] in wanted]
    if args.sample:
        rest = [f for f in faults if f not in chosen]
        chosen = chosen + random.Random(args.seed).sample(rest, min(args.sample, len(rest)))
    if not os.path.isdir(args.build):
        print(f"{args.build}: no build folder (run cmake --preset default first)",
              file=sys.stderr)
        return 2

    results = {}
    used = {args.build}
    try:
        for fault in chosen:
            build = os.path.join(ROOT, fault["build"]) if "build" in fault else args.build
            if not os.path.isdir(build):
                outcome, seconds = "unbuilt", 0.0
            else:
                used.add(build)
                outcome, seconds = try_fault(fault, build, args.jobs, args.check)
            results.setdefault(outcome, []).append(fault["id"])
            print(f"{outcome:8} {fault['id']} ({seconds:.0f} s)", flush=True)
    finally:
        for build in sorted(used):
            run(["cmake", "--build", build, "-j", str(args.jobs)], 1800)

    for outcome in ("survived", "refused", "stale", "unbuilt"):
        if results.get(outcome):
            print(f"{outcome}: {', '.join(results[outcome])}")
    caught = len(results.get("caught", []))
    counted = caught + len(results.get("survived", []))
    share = 100.0 * caught / counted if counted else 0.0
    print(f"caught {caught} of {counted} faults ({share:.0f}%)")
    return 1 if results.get("survived") or results.get("stale") else 0


if __name__ == "__main__":
    sys.exit(main())
