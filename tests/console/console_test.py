#!/usr/bin/env python3
"""The console of lynx-dfu and lynx-dfu-lab as an operator meets it on Linux.

    console_test.py CASE LAB_BINARY LINUX_BINARY SOURCE_DIR

CASE: pause-keys (at "Press any key" each key of a table, escape sequences and a lone Esc
among them, is taken whole: the `q` typed next quits), crlf-answers (a script of answers
written on Windows burns the sample image), closed-stdout (a reader that has gone away ends
neither program early, and the lab still writes its state dump). Every wait is bounded.
"""
import json
import os
import pty
import select
import subprocess
import sys
import tempfile
import time

PROMPT = b"Press any key to continue . . . "
MENU_PROMPT = b"Q: Quit\n? "
failures = []


def fail(case, text):
    failures.append(f"{case}: {text}")


class Pty:
    def __init__(self, argv, cwd):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.chdir(cwd)
            os.execv(argv[0], argv)
        self.seen = b""

    def wait_for(self, text, after, seconds=10.0):
        """Reads until `text` appears after offset `after`; returns the offset past it."""
        deadline = time.monotonic() + seconds
        while True:
            at = self.seen.find(text, after)
            if at >= 0:
                return at + len(text)
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self.fd], [], [], left)[0]:
                return None
            try:
                chunk = os.read(self.fd, 4096)
            except OSError:
                return None
            if not chunk:
                return None
            self.seen += chunk.replace(b"\r\n", b"\n")

    def send(self, data):
        os.write(self.fd, data)

    def finish(self, seconds=10.0):
        """The exit status, or None (and the program killed) after the bound."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            self.wait_for(b"\0never\0", len(self.seen), 0.05)
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                os.close(self.fd)
                return os.waitstatus_to_exitcode(status)
        os.kill(self.pid, 9)
        os.waitpid(self.pid, 0)
        os.close(self.fd)
        return None


# name | bytes of one key | pause between the key and what follows (a lone Esc needs one)
KEYS = [
    ("up arrow", b"\x1b[A", 0),
    ("up arrow, application mode", b"\x1bOA", 0),
    ("F5", b"\x1b[15~", 0),
    ("ctrl+right", b"\x1b[1;5C", 0),
    ("F1 on the Linux console", b"\x1b[[A", 0),
    ("alt+x", b"\x1bx", 0),
    ("e acute", "é".encode(), 0),
    ("euro sign", "€".encode(), 0),
    ("emoji", "\U0001F4F7".encode(), 0),
    ("lone Esc", b"\x1b", 0.5),
    ("plain key", b"x", 0),
]


def pause_keys(lab, src):
    for name, key, gap in KEYS:
        session = Pty([lab], src)
        at = session.wait_for(MENU_PROMPT, 0)
        session.send(b"2\n")
        at = at and session.wait_for(PROMPT, at)
        if at is None:
            fail(name, "no pause after key 2")
            session.finish(0)
            continue
        # What follows the key arrives in the same write unless the key needs a gap.
        if gap:
            session.send(key)
            at = session.wait_for(MENU_PROMPT, at)
            time.sleep(gap)
            session.send(b"q\n")
        else:
            session.send(key + b"q\n")
        status = session.finish()
        if status != 0:
            fail(name, f"q after the key did not quit (status {status}); the console showed:\n"
                 + session.seen[-400:].decode(errors="replace"))


def run_lab(lab, src, answers, scratch, stdout):
    dump = os.path.join(scratch, "state.json")
    result = subprocess.run([lab, "--world=lab/default-world.json", "--dump-state=" + dump],
                            cwd=src, input=answers, stdout=stdout, stderr=subprocess.PIPE,
                            timeout=60)
    text = open(dump).read() if os.path.exists(dump) else ""
    return result, json.loads(text) if text else None


def expect_burned(case, result, state):
    if result.returncode != 0:
        fail(case, f"exit status {result.returncode}, stderr {result.stderr!r}")
    downloads = (state or {}).get("downloads", [])
    if [(d.get("bytes"), d.get("manifested")) for d in downloads] != [(6000, True)]:
        fail(case, f"the sample image was not burned: {state}")


def crlf_answers(lab, src):
    with tempfile.TemporaryDirectory() as scratch:
        answers = b'1\r\n1\r\n"lab/sample-firmware.bin"\r\n\r\nq\r\n'
        result, state = run_lab(lab, src, answers, scratch, subprocess.PIPE)
        expect_burned("crlf", result, state)
        if b'Updating firmware to "lab/sample-firmware.bin"\n' not in result.stdout:
            fail("crlf", "the path was not taken without its CR")


def closed_stdout(lab, linux, src):
    with tempfile.TemporaryDirectory() as scratch:
        for argv, answers in [([lab], b'1\n1\nlab/sample-firmware.bin\n\nq\n'),
                              ([linux], b"2\n\nq\n")]:
            read_end, write_end = os.pipe()
            os.close(read_end)
            try:
                if argv[0] == lab:
                    result, state = run_lab(lab, src, answers, scratch, write_end)
                    expect_burned("closed stdout, lab", result, state)
                else:
                    result = subprocess.run(argv, cwd=src, input=answers, stdout=write_end,
                                            stderr=subprocess.PIPE, timeout=60)
                    if result.returncode != 0:
                        fail("closed stdout, lynx-dfu", f"exit status {result.returncode}")
            finally:
                os.close(write_end)


def main():
    case, lab, linux, src = sys.argv[1:5]
    cases = {"pause-keys": lambda: pause_keys(lab, src),
             "crlf-answers": lambda: crlf_answers(lab, src),
             "closed-stdout": lambda: closed_stdout(lab, linux, src)}
    if case not in cases:
        sys.exit(f"unknown case {case}")
    cases[case]()
    for failure in failures:
        print("FAIL", failure)
    print(f"{case}: {len(failures)} failure(s)")
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
