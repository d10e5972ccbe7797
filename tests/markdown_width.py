#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Names each line of Markdown files that is longer than .editorconfig says; tables and code are exempt."""
import sys

WIDTH = 120


def long_lines(path):
    in_code = False
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            text = line.rstrip("\n")
            if text.strip().startswith("```"):
                in_code = not in_code
            elif not in_code and not text.strip().startswith("|") and len(text) > WIDTH:
                yield f"{path}:{number}: {len(text)} characters"


found = [line for path in sys.argv[1:] for line in long_lines(path)]
print("\n".join(found), end="\n" if found else "")
sys.exit(1 if found else 0)
