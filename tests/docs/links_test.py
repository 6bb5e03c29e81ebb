#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every link in README.md and docs/*.md leads to a file or folder of this repository.

    links_test.py SOURCE_DIR
"""
import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1]).resolve()
pages = [root / "README.md", *sorted((root / "docs").glob("*.md"))]
failures = []
# [text](target) and [text]: target, leaving out code spans and fenced blocks.
link = re.compile(r"\]\(([^)\s]+)\)|^\[[^\]]+\]:\s*(\S+)", re.M)
for page in pages:
    text = re.sub(r"```.*?```", "", page.read_text(), flags=re.S)
    text = re.sub(r"`[^`\n]*`", "", text)
    for match in link.finditer(text):
        target = (match.group(1) or match.group(2)).split("#")[0]
        where = f"{page.relative_to(root)}: {match.group(0)}"
        if re.match(r"^[a-z][a-z0-9+.-]*:", target, re.I) or target.startswith("/"):
            failures.append(f"{where} leads outside the repository")
            continue
        if not target:
            continue
        resolved = (page.parent / target).resolve()
        if root not in resolved.parents and resolved != root:
            failures.append(f"{where} leaves the repository")
        elif not resolved.exists():
            failures.append(f"{where} leads nowhere")
for failure in failures:
    print("FAIL", failure)
print(f"{len(pages)} pages, {len(failures)} failure(s)")
sys.exit(1 if failures else 0)
