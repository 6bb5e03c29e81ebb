#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""modules.py SRC DST MODULE...: copies MODULE and what its modinfo `depends=` names, to the
end, from a kernel package's module tree SRC to DST as plain .ko files. Newer packages ship
.ko.xz and no modules.dep; busybox modprobe is then given plain files and its own index."""
import lzma, os, re, subprocess, sys

src, dst, todo = sys.argv[1], sys.argv[2], sys.argv[3:]
name = lambda path: os.path.basename(path).split(".")[0].replace("-", "_")
paths = {name(f): os.path.join(d, f) for d, _, files in os.walk(src) for f in files if ".ko" in f}
done = set()
while todo:
    module = name(todo.pop())
    if module in done:
        continue
    done.add(module)
    path = paths[module]  # a KeyError names a module the package lacks
    data = open(path, "rb").read()
    if path.endswith(".xz"):
        data = lzma.decompress(data)
    elif path.endswith(".zst"):
        data = subprocess.run(["zstd", "-dcq", path], check=True, capture_output=True).stdout
    found = re.search(rb"(?:^|\0)depends=([^\0]*)\0", data)
    todo += [dep for dep in found.group(1).decode().split(",") if dep] if found else []
    target = os.path.join(dst, re.sub(r"\.(xz|zst)$", "", os.path.relpath(path, src)))
    os.makedirs(os.path.dirname(target), exist_ok=True)
    open(target, "wb").write(data)
