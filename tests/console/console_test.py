#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The console of lynx-dfu and lynx-dfu-lab as an operator meets it on Linux.

    console_test.py CASE LAB_BINARY LINUX_BINARY SOURCE_DIR

CASE: pause-keys (each key of a table, a lone Esc among them, is taken whole at a pause),
closed-stdout (a reader gone away ends neither program early), interrupted-download (a signal
amid a download: the image is written whole, then the program ends by that signal),
terminal-given-back (a signal, crash, or stop and continue at a pause leaves the terminal as
found). Every wait is bounded.
"""
import json
import os
import pty
import resource
import select
import signal
import subprocess
import sys
import tempfile
import termios
import time
import zlib

PROMPT = b"Press any key to continue . . . "
MENU_PROMPT = b"Q: Quit\n? "
failures = []


def fail(case, text):
    failures.append(f"{case}: {text}")


def run_as_job(argv):
    """In the child of pty.fork: runs argv as a job-control shell runs a foreground job (a
    process group of its own, so that a stop stops it), then ends as the job ended."""
    signal.signal(signal.SIGTTOU, signal.SIG_IGN)
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))  # a crash leaves no core file behind
    job = os.fork()
    if job == 0:
        os.setpgid(0, 0)
        os.tcsetpgrp(0, os.getpid())
        signal.signal(signal.SIGTTOU, signal.SIG_DFL)
        os.execv(argv[0], argv)
    _, status = os.waitpid(job, 0)
    if os.WIFSIGNALED(status):
        signal.signal(os.WTERMSIG(status), signal.SIG_DFL)
        os.kill(os.getpid(), os.WTERMSIG(status))
    os._exit(os.waitstatus_to_exitcode(status) & 0xFF)


class Pty:
    def __init__(self, argv, cwd, job=False):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.chdir(cwd)
            if job:
                run_as_job(argv)
            os.execv(argv[0], argv)
        self.seen = b""
        # The terminal's settings before the program could touch them.
        self.found = termios.tcgetattr(self.fd)

    def settings(self):
        return termios.tcgetattr(self.fd)

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

    def finish(self, seconds=10.0):
        """The exit status, or None (and the program killed) after the bound."""
        deadline, pid = time.monotonic() + seconds, 0
        while not pid and time.monotonic() < deadline:
            self.wait_for(b"\0never\0", len(self.seen), 0.05)
            pid, status = os.waitpid(self.pid, os.WNOHANG)
        if not pid:
            os.kill(self.pid, 9)
            os.waitpid(self.pid, 0)
        self.last_settings = self.settings()
        os.close(self.fd)
        return os.waitstatus_to_exitcode(status) if pid else None


# name | bytes of one key | pause between the key and what follows (a lone Esc needs one)
KEYS = [("up arrow", b"\x1b[A", 0), ("up arrow, application mode", b"\x1bOA", 0),
        ("F5", b"\x1b[15~", 0), ("ctrl+right", b"\x1b[1;5C", 0),
        ("F1 on the Linux console", b"\x1b[[A", 0), ("alt+x", b"\x1bx", 0),
        ("e acute", "é".encode(), 0), ("euro sign", "€".encode(), 0),
        ("emoji", "\U0001F4F7".encode(), 0), ("shift+F1 on xterm", b"\x1bO2P", 0),
        ("lone Esc", b"\x1b", 0.5), ("plain key", b"x", 0)]


def pause_keys(lab, _linux, src):
    for name, key, gap in KEYS:
        session = Pty([lab], src)
        at = session.wait_for(MENU_PROMPT, 0)
        os.write(session.fd, b"2\n")
        at = at and session.wait_for(PROMPT, at)
        if at is None:
            fail(name, "no pause after key 2")
            session.finish(0)
            continue
        # What follows the key arrives in the same write unless the key needs a gap.
        os.write(session.fd, key if gap else key + b"q\n")
        if gap:
            session.wait_for(MENU_PROMPT, at)
            time.sleep(gap)
            os.write(session.fd, b"q\n")
        status = session.finish()
        if status != 0:
            fail(name, f"q after the key did not quit (status {status}); the console showed:\n"
                 + session.seen[-400:].decode(errors="replace"))


def read_state(dump):
    text = open(dump).read() if os.path.exists(dump) else ""
    return json.loads(text or "{}")


def closed_stdout(lab, linux, src):
    read_end, write_end = os.pipe()
    os.close(read_end)
    try:
        with tempfile.TemporaryDirectory() as scratch:
            dump = os.path.join(scratch, "state.json")
            ran = subprocess.run([lab, "--world=lab/default-world.json", "--dump-state=" + dump],
                                 cwd=src, input=b"1\n1\nlab/sample-firmware.bin\n\nq\n",
                                 stdout=write_end, stderr=subprocess.PIPE, timeout=60)
            state = read_state(dump)
        burned = [(d.get("bytes"), d.get("manifested")) for d in state.get("downloads", [])]
        if ran.returncode != 0 or burned != [(6000, True)]:
            fail("closed stdout, lab", f"exit status {ran.returncode}, stderr {ran.stderr!r}; "
                 f"the sample image burned? {state}")
        result = subprocess.run([linux], cwd=src, input=b"2\n\nq\n", stdout=write_end,
                                stderr=subprocess.PIPE, timeout=60)
        if result.returncode != 0:
            fail("closed stdout, lynx-dfu", f"exit status {result.returncode}")
    finally:
        os.close(write_end)


def until(condition, seconds=10.0):
    """Polls `condition` until it holds or the bound passes; returns whether it held."""
    deadline = time.monotonic() + seconds
    while not condition() and time.monotonic() < deadline:
        time.sleep(0.01)
    return condition()


# Devices that take a while over each block, so that a signal lands in the middle: a camera
# of the family (key 1), a device already in DFU mode (key 3).
LINK = "\\\\?\\USB#VID_3C5E&PID_0F1C#%s#{a5dcbf10-6530-11d2-901f-00c04fb951ed}"
SLOW_DFU = {"busyPolls": 1, "pollTimeoutMs": 200}
CAMERA = {"cameras": [{"name": "Lynx LX20 Depth Camera", "lynx": True, "firmware": "5.10.0.28",
                       "firmwareAfterUpdate": "5.16.0.1",
                       "dfu": dict(SLOW_DFU, link=LINK % "8&3d2e1f0a&0&2")}]}
STUCK = {"dfuDevices": [dict(SLOW_DFU, link=LINK % "5&1f2e3d4c&0&1")]}
LAST_BLOCK = b"Downloaded 880, bytes remaining 0\n"

# name | world | answers up to the image path | signal typed (bytes) or sent | the signal
INTERRUPTS = [
    ("key 3, Ctrl+C typed", STUCK, b"3\n1\n", b"\x03", signal.SIGINT),
    ("key 3, SIGTERM", STUCK, b"3\n1\n", None, signal.SIGTERM),
    ("key 1, Ctrl+C typed", CAMERA, b"1\n1\n", b"\x03", signal.SIGINT),
    ("key 1, SIGHUP", CAMERA, b"1\n1\n", None, signal.SIGHUP),
    # A command: held the same way; it reports the camera, then ends by the signal.
    ("update command, SIGTERM", CAMERA, ["update", "--all"], None, signal.SIGTERM),
]


def interrupted_download(lab, _linux, src):
    image = os.path.join(src, "lab", "sample-firmware.bin")
    crc = "%08x" % zlib.crc32(open(image, "rb").read())
    with tempfile.TemporaryDirectory() as scratch:
        for i, (name, world_spec, answers, typed, sig) in enumerate(INTERRUPTS):
            world, dump = (os.path.join(scratch, f"{kind}{i}.json") for kind in ("world", "state"))
            with open(world, "w") as out:
                json.dump(world_spec, out)
            command = answers[:1] + [image] + answers[1:] if isinstance(answers, list) else []
            session = Pty([lab, "--world=" + world, "--dump-state=" + dump] + command, src,
                          job=True)
            at = 0 if command else session.wait_for(MENU_PROMPT, 0)
            if not command:
                os.write(session.fd, answers + image.encode() + b"\n")
            # On a terminal a command shows its progress as one line rewritten in place.
            first = (b"\rDownloaded 1024 of 6000 bytes (17%" if command
                     else b"Downloaded 1024, bytes remaining 4976\n")
            at = None if at is None else session.wait_for(first, at)
            if at is None:
                fail(name, "no download began: " + session.seen[-300:].decode(errors="replace"))
                session.finish(0)
                continue
            if typed:
                os.write(session.fd, typed)
            else:
                os.killpg(os.tcgetpgrp(session.fd), sig)
            status = session.finish()
            tail = session.seen[at:]
            if status != -sig:
                fail(name, f"exit status {status}, not the signal's {-sig}")
            last = b"1 updated, 0 failed\n" if command else LAST_BLOCK
            if not tail.endswith(last) or PROMPT in tail or MENU_PROMPT in tail:
                fail(name, "the download did not end as the last thing shown:\n" +
                     tail.decode(errors="replace"))
            state = read_state(dump)
            downloads = [(d.get("bytes"), d.get("crc32"), d.get("manifested"))
                         for d in state.get("downloads", [])]
            if downloads != [(6000, crc, True)]:
                fail(name, f"the image was not written whole: {state}")
            firmware = [c.get("firmware") for c in state.get("cameras", [])]
            if world_spec is CAMERA and firmware != ["5.16.0.1"]:
                fail(name, f"the camera did not come back updated: {firmware}")


def terminal_given_back(lab, _linux, src):
    for name, sig in [("SIGTERM", signal.SIGTERM), ("SIGHUP", signal.SIGHUP),
                      ("SIGINT", signal.SIGINT), ("a crash", signal.SIGSEGV),
                      ("an abort", signal.SIGABRT), ("stop and continue", signal.SIGTSTP)]:
        session = Pty([lab], src, job=True)
        raw = lambda: not session.settings()[3] & termios.ICANON  # noqa: E731
        at = session.wait_for(MENU_PROMPT, 0)
        os.write(session.fd, b"2\n")
        at = at and session.wait_for(PROMPT, at)
        if at is None or not until(raw):
            fail(name, "the pause did not take single keys")
            session.finish(0)
            continue
        job = os.tcgetpgrp(session.fd)
        os.killpg(job, sig)
        if sig != signal.SIGTSTP:
            status = session.finish()
            # Under a sanitizer, a SIGSEGV is reported and ends the program with its status.
            sanitized = sig == signal.SIGSEGV and status not in (None, 0)
            if status != -sig and not sanitized:
                fail(name, f"exit status {status}, not the signal's {-sig}")
        else:
            if not until(lambda: open(f"/proc/{job}/stat").read().split(")")[1].split()[0]
                         == "T"):
                fail(name, "the program did not stop")
            if session.settings() != session.found:
                fail(name, "the stopped program kept the terminal's settings")
            # As a shell does while its job is stopped: the terminal is the shell's.
            termios.tcsetattr(session.fd, termios.TCSANOW, session.found)
            os.killpg(job, signal.SIGCONT)
            if not until(raw):
                fail(name, "the pause did not take single keys again after the continue")
            # One key, no Enter: the menu comes back, and q quits.
            os.write(session.fd, b"x")
            if session.wait_for(MENU_PROMPT, at) is None:
                fail(name, "one key did not end the pause after the continue")
            os.write(session.fd, b"q\n")
            status = session.finish()
            if status != 0:
                fail(name, f"exit status {status} after q")
        if session.last_settings != session.found:
            fail(name, f"the terminal was left as {session.last_settings}, "
                       f"not as found {session.found}")


def main():
    case, lab, linux, src = sys.argv[1:5]
    cases = {run.__name__.replace("_", "-"): run
             for run in (pause_keys, closed_stdout, interrupted_download, terminal_given_back)}
    if case not in cases:
        sys.exit(f"unknown case {case}")
    cases[case](lab, linux, src)
    for failure in failures:
        print("FAIL", failure)
    print(f"{case}: {len(failures)} failure(s)")
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
