# SPDX-License-Identifier: Apache-2.0
"""A recording of an update, replayed as it is and after each kind of damage: the replay must
pass the untouched one with the recorded output, and fail each damaged one with the status and
the line that name what was changed.

usage: replay_edits.py LAB RECORDING [SCRATCH]
RECORDING may be "lab:" to record a fresh update of the lab's default world."""
import json
import subprocess
import sys
import tempfile
from pathlib import Path

lab, source = sys.argv[1], sys.argv[2]
scratch = Path(sys.argv[3] if len(sys.argv) > 3 else tempfile.mkdtemp())
scratch.mkdir(parents=True, exist_ok=True)

if source.startswith("lab:"):
    original = scratch / "update.jsonl"
    image = Path(__file__).resolve().parents[2] / "lab" / "sample-firmware.bin"
    made = subprocess.run([lab, "--record", str(original)], input=f"1\n1\n{image}\n\nq\n".encode(),
                          capture_output=True, timeout=120)
    assert made.returncode == 0, made.stderr
else:
    original = Path(source)

lines = original.read_bytes().split(b"\n")
if lines[-1] == b"":
    lines.pop()
records = [json.loads(line) for line in lines]


def recorded_stdout():
    out = b""
    for record in records[1:]:
        for key in ("stdout", "wrote"):
            value = record.get(key)
            if value is not None:
                out += value.encode() if isinstance(value, str) else bytes.fromhex(value["hex"])
    return out


def first(predicate):
    return next(i for i, r in enumerate(records) if i and predicate(r))


def call(name, key=None, where="out"):
    return first(lambda r: r.get("call") == name and (key is None or key in r.get(where, {})))


def with_record(index, change, keep_sum=True):
    edited = [dict(r) for r in records]
    record = json.loads(json.dumps(edited[index]))
    change(record)
    if not keep_sum:
        record.pop("sum", None)
    edited[index] = record
    return b"\n".join(json.dumps(r).encode() for r in edited) + b"\n"


def flip_first_byte(field, where):
    def change(record):
        data = bytes.fromhex(record[where][field])
        record[where][field] = (bytes([data[0] ^ 0x0E]) + data[1:]).hex()
    return change


def reworded(record):
    record["stdout"] = record["stdout"].replace("=", "-", 1)


status_reply = first(lambda r: r.get("call") == "WinUsb_ControlTransfer" and
                     len(r.get("out", {}).get("data", "")) == 12)
dnload = first(lambda r: r.get("call") == "WinUsb_ControlTransfer" and len(r["in"].get("data", "")) > 2)
status_name = f'WinUsb_ControlTransfer {json.dumps(records[status_reply]["in"], separators=(",", ":"), sort_keys=True)}'
whole = b"\n".join(lines) + b"\n"
half = b"\n".join(lines[: len(lines) // 2]) + b"\n"
extra = json.dumps(dict(records[-1], n=len(records))).encode() + b"\n"

# (what is done to the recording, extra arguments, status, a text stderr must hold)
cases = [
    ("untouched", whole, [], 0, ""),
    ("a reply byte, its sum kept", with_record(status_reply, flip_first_byte("data", "out")), [], 3,
     f"the recorded answer of {status_name} is not the one the recorder wrote"),
    ("a reply byte, its sum dropped", with_record(status_reply, flip_first_byte("data", "out"), False),
     [], 3, "lynx-dfu-lab: the replay departs from the recording "),
    ("a byte the program sends", with_record(dnload, flip_first_byte("data", "in")), [], 3,
     ", asked WinUsb_ControlTransfer"),
    ("a line of output", with_record(first(lambda r: "stdout" in r), reworded), [], 3,
     "in what the program writes to stdout"),
    ("cut after half its lines", half, [], 3, ": the recording ends; asked "),
    ("cut in the middle of a line", whole[: len(half) + 17], [], 3, ": the recording ends; asked "),
    ("a call after the program's last", whole + extra, [], 3, "where the program ends, before call"),
    ("format 2", whole.replace(b'"format":1', b'"format":2', 1), [], 2, "unknown recording format 2"),
    ("a line that is not JSON", b"\n".join(lines[:5] + [b"{"] + lines[5:]) + b"\n", [], 2,
     "line 6: not a JSON object"),
    ("with a world beside it", whole, ["--world", str(original)], 2, "nothing else beside it"),
]

failed = 0
for name, content, extra_args, status, text in cases:
    path = scratch / "edited.jsonl"
    path.write_bytes(content)
    run = subprocess.run([lab, "--replay", str(path), *extra_args], capture_output=True,
                         timeout=120, stdin=subprocess.DEVNULL)
    stderr = run.stderr.decode(errors="replace")
    good = run.returncode == status and text in stderr and stderr.count("\n") == (status != 0)
    if status == 0:
        good = good and run.stdout == recorded_stdout()
    if not good:
        failed += 1
        print(f"FAIL {name}: status {run.returncode} (want {status}), stderr {stderr!r}")
    else:
        print(f"ok   {name}")
sys.exit(1 if failed else 0)
